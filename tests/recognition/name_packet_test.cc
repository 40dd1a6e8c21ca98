// Name queries as built and replies as parsed, byte for byte.
#include <gtest/gtest.h>

#include <arpa/inet.h>
#include <cstring>
#include <string>

#include "packet_util.h"
#include "recognition/name_packet.h"

using namespace packettest;

namespace
{

std::string text_of(const uint8_t *p, size_t n)
{
    return std::string(reinterpret_cast<const char *>(p), n);
}

} // namespace

TEST(NamePacket, IdentifiersFollowTheSequence)
{
    uint16_t seq = 1;
    EXPECT_EQ(next_query_id(seq), 0x1001);
    EXPECT_EQ(seq, 2);
    seq = 0x5FFF;
    EXPECT_EQ(next_query_id(seq), 0x6FFF);
    EXPECT_EQ(seq, 0);
}

TEST(NamePacket, NetbiosQueryLayout)
{
    uint8_t q[NETBIOS_QUERY_LEN];
    ASSERT_EQ(netbios_build_query(q, 0x1234), 50u);
    EXPECT_EQ(q[0], 0x12);
    EXPECT_EQ(q[1], 0x34);
    EXPECT_EQ(q[2] | q[3], 0);
    EXPECT_EQ(q[4], 0);
    EXPECT_EQ(q[5], 1);
    for (int i = 6; i < 12; i++)
        EXPECT_EQ(q[i], 0);
    EXPECT_EQ(q[12], 0x20);
    EXPECT_EQ(text_of(q + 13, 32), "CK" + std::string(30, 'A'));
    EXPECT_EQ(q[45], 0);
    EXPECT_EQ(q[46], 0);
    EXPECT_EQ(q[47], 0x21);
    EXPECT_EQ(q[48], 0);
    EXPECT_EQ(q[49], 1);
}

TEST(NamePacket, NetbiosNameAndWorkgroup)
{
    auto r = netbios_reply(0x1001, {netbios_entry("NAS", 0x00, 0x0400), netbios_entry("HOME", 0x00, 0x8400),
                                    netbios_entry("NAS", 0x20, 0x0400)});
    netbios_result out{};
    ASSERT_TRUE(netbios_parse_reply(r, 0x1001, out));
    EXPECT_STREQ(out.name, "NAS");
    EXPECT_EQ(out.name_len, 3u);
    ASSERT_TRUE(out.has_domain);
    EXPECT_STREQ(out.domain, "HOME");
}

TEST(NamePacket, NetbiosTrailingBlanksAndBlankSuffixAreCut)
{
    // 15 characters with blanks at the end and a suffix byte of 0x20: the
    // scan runs 16 bytes with no terminator, and the blanks go.
    auto r = netbios_reply(0x1001, {netbios_entry("OFFICE PC", 0x20, 0x0400)});
    netbios_result out{};
    ASSERT_TRUE(netbios_parse_reply(r, 0x1001, out));
    EXPECT_STREQ(out.name, "OFFICE PC");
    EXPECT_FALSE(out.has_domain);
}

TEST(NamePacket, NetbiosSixteenBytesWithoutTerminator)
{
    auto r = netbios_reply(0x1001, {netbios_entry("ABCDEFGHIJKLMNO", 'P', 0x0400)});
    netbios_result out{};
    ASSERT_TRUE(netbios_parse_reply(r, 0x1001, out));
    EXPECT_STREQ(out.name, "ABCDEFGHIJKLMNOP");
    EXPECT_EQ(out.name_len, 16u);
}

TEST(NamePacket, NetbiosRefusals)
{
    auto good = netbios_reply(0x1001, {netbios_entry("NAS", 0, 0x0400)});
    netbios_result out{};
    EXPECT_FALSE(netbios_parse_reply(good, 0x1002, out)) << "other identifier";
    auto two = netbios_reply(0x1001, {netbios_entry("NAS", 0, 0x0400)}, 2);
    EXPECT_FALSE(netbios_parse_reply(two, 0x1001, out)) << "two answers";
    auto none = netbios_reply(0x1001, {});
    EXPECT_FALSE(netbios_parse_reply(none, 0x1001, out)) << "no names";
    auto type = good;
    type[47] = 0x20;
    EXPECT_FALSE(netbios_parse_reply(type, 0x1001, out)) << "not NBSTAT";
    auto b6 = good;
    b6[6] = 1;
    EXPECT_FALSE(netbios_parse_reply(b6, 0x1001, out));
    for (size_t n : {0u, 1u, 12u, 46u, 56u})
        EXPECT_FALSE(netbios_parse_reply(std::span<const uint8_t>(good.data(), n), 0x1001, out)) << n;
}

TEST(NamePacket, NetbiosTruncatedTableReadsAsZeros)
{
    auto r = netbios_reply(0x1001, {netbios_entry("NAS", 0, 0x0400), netbios_entry("HOME", 0, 0x8400)});
    netbios_result out{};
    // Cut inside the first name: what is missing reads as 0.
    ASSERT_TRUE(netbios_parse_reply(std::span<const uint8_t>(r.data(), 59), 0x1001, out));
    EXPECT_STREQ(out.name, "NA");
    EXPECT_FALSE(out.has_domain);
}

TEST(NamePacket, NetbiosWorkgroupWithControlByteIsDropped)
{
    auto r = netbios_reply(0x1001, {netbios_entry("NAS", 0, 0x0400), netbios_entry("HO\x01ME", 0, 0x8400)});
    netbios_result out{};
    ASSERT_TRUE(netbios_parse_reply(r, 0x1001, out));
    EXPECT_STREQ(out.name, "NAS");
    EXPECT_FALSE(out.has_domain);
}

TEST(NamePacket, NetbiosWorkgroupTextsOfGroupEntriesFollowOneAnother)
{
    // Candidate 1's flag is the flag byte of entry 2; candidate 2's is read
    // at 75 + 32 = 107, the 15th byte of entry 3 (which starts at 93). Entry
    // 3's text ends at a 0 byte before that place, which has bit 7 here.
    // The length goes on from one group entry to the next, so the second
    // text follows the first, blanks and all.
    auto r = netbios_reply(0x1001, {netbios_entry("NAS", 0x00, 0x0400), netbios_entry("HOME", 0x00, 0x8400),
                                    netbios_entry("OFFICE", 0x00, 0x0400)});
    r[93 + 6] = 0;
    r[107] = 0x80;
    netbios_result out{};
    ASSERT_TRUE(netbios_parse_reply(r, 0x1001, out));
    ASSERT_TRUE(out.has_domain);
    EXPECT_STREQ(out.domain, "HOME           OFFICE");
}

TEST(NamePacket, NetbiosLaterGroupEntryWithControlByteDropsTheWholeWorkgroup)
{
    auto r = netbios_reply(0x1001, {netbios_entry("NAS", 0x00, 0x0400), netbios_entry("HOME", 0x00, 0x8400),
                                    netbios_entry("OF\x01ICE", 0x00, 0x0400)});
    r[107] = 0x80;
    netbios_result out{};
    ASSERT_TRUE(netbios_parse_reply(r, 0x1001, out));
    EXPECT_STREQ(out.name, "NAS");
    EXPECT_FALSE(out.has_domain);
    EXPECT_STREQ(out.domain, "");
}

TEST(NamePacket, NetbiosLargestTableStaysInBounds)
{
    std::vector<bytes> entries;
    for (int i = 0; i < 255; i++)
        entries.push_back(netbios_entry("X", 'y', 0x0400));
    auto r = netbios_reply(0x1001, entries);
    r.resize(NAME_REPLY_MAX + 500, 'z');
    netbios_result out{};
    ASSERT_TRUE(netbios_parse_reply(r, 0x1001, out));
    EXPECT_EQ(std::strlen(out.name), out.name_len);
}

TEST(NamePacket, MdnsIp4QueryLayout)
{
    uint8_t q[MDNS_IP4_QUERY_MAX];
    in_addr a{};
    inet_pton(AF_INET, "192.168.1.5", &a);
    size_t len = mdns_build_ip4_query(q, 0x1001, a.s_addr);
    // Labels "5", "1", "168", "192": L = 2 + 2 + 4 + 4.
    ASSERT_EQ(len, 12u + 30u);
    const uint8_t want[] = {1,   '5', 1,   '1', 3,   '1', '6', '8', 3,   '1', '9', '2', 7,    'i', 'n',
                            '-', 'a', 'd', 'd', 'r', 4,   'a', 'r', 'p', 'a', 0,   0,   0x0C, 0,   1};
    EXPECT_EQ(std::memcmp(q + 12, want, sizeof(want)), 0);
    EXPECT_EQ(q[0], 0x10);
    EXPECT_EQ(q[1], 0x01);
    EXPECT_EQ(q[5], 1);
    inet_pton(AF_INET, "10.0.100.200", &a);
    EXPECT_EQ(mdns_build_ip4_query(q, 1, a.s_addr), 30u + 4 + 4 + 2 + 3);
    inet_pton(AF_INET, "255.255.255.255", &a);
    EXPECT_EQ(mdns_build_ip4_query(q, 1, a.s_addr), MDNS_IP4_QUERY_MAX);
}

TEST(NamePacket, MdnsIp4ReplyName)
{
    uint8_t q[MDNS_IP4_QUERY_MAX];
    in_addr a{};
    inet_pton(AF_INET, "192.168.1.5", &a);
    size_t len = mdns_build_ip4_query(q, 0x1001, a.s_addr);
    bytes query(q, q + len);
    char name[NAME_TEXT_MAX];
    auto r = mdns_reply(query, {"living-room-tv", "local"});
    EXPECT_EQ(mdns_parse_ip4_reply(r, 0x1001, len, name), 14);
    EXPECT_STREQ(name, "living-room-tv");
    EXPECT_EQ(mdns_parse_ip4_reply(r, 0x1002, len, name), -1) << "other identifier";
    auto two = mdns_reply(query, {"tv", "local"}, 2);
    EXPECT_EQ(mdns_parse_ip4_reply(two, 0x1001, len, name), -1) << "two answers";
    // The label must end at least six bytes before the end of the reply.
    auto bare = mdns_reply(query, {"tv"});
    EXPECT_EQ(mdns_parse_ip4_reply(std::span<const uint8_t>(bare.data(), bare.size() - 1), 0x1001, len, name),
              -1);
    EXPECT_EQ(mdns_parse_ip4_reply(std::span<const uint8_t>(r.data(), len - 1), 0x1001, len, name), -1);
}

TEST(NamePacket, MdnsIp4LongLabelIsReturnedWhole)
{
    uint8_t q[MDNS_IP4_QUERY_MAX];
    size_t len = mdns_build_ip4_query(q, 0x1001, 0x0501a8c0);
    bytes query(q, q + len);
    char name[NAME_TEXT_MAX];
    auto r = mdns_reply(query, {std::string(200, 'n'), "local"});
    EXPECT_EQ(mdns_parse_ip4_reply(r, 0x1001, len, name), 200);
    EXPECT_EQ(std::strlen(name), 200u);
}

TEST(NamePacket, MdnsIp4PointerLoopIsOnlyALength)
{
    uint8_t q[MDNS_IP4_QUERY_MAX];
    size_t len = mdns_build_ip4_query(q, 0x1001, 0x0501a8c0);
    bytes r(q, q + len);
    r[7] = 1;
    // The answer's data is a pointer to itself: read as a length of 0xC0
    // that runs past the reply.
    r.insert(r.end(), {0xC0, 0x0C, 0, 0x0C, 0, 1, 0, 0, 0, 120, 0, 2});
    r.push_back(0xC0);
    r.push_back(static_cast<uint8_t>(len + 12));
    char name[NAME_TEXT_MAX];
    EXPECT_EQ(mdns_parse_ip4_reply(r, 0x1001, len, name), -1);
}

TEST(NamePacket, MdnsIp6QueryLayout)
{
    uint8_t q[MDNS_IP6_QUERY_LEN];
    const char *hex = "FE800000000000000000000000000001";
    ASSERT_EQ(mdns_build_ip6_query(q, 0x1005, hex), 90);
    EXPECT_EQ(q[12], 1);
    EXPECT_EQ(q[13], '1');
    EXPECT_EQ(q[14], 1);
    EXPECT_EQ(q[15], '0');
    EXPECT_EQ(q[12 + 62], 1);
    EXPECT_EQ(q[12 + 63], 'F');
    EXPECT_EQ(text_of(q + 76, 10), std::string("\x03ip6\x04"
                                               "arpa\0",
                                               10));
    EXPECT_EQ(q[86], 0);
    EXPECT_EQ(q[87], 0x0C);
    EXPECT_EQ(q[88], 0);
    EXPECT_EQ(q[89], 1);
    EXPECT_EQ(mdns_build_ip6_query(q, 1, "FE80"), 0);
    EXPECT_EQ(mdns_build_ip6_query(q, 1, nullptr), 0);
}

TEST(NamePacket, MdnsIp6ReplyNameIsCutTo64)
{
    uint8_t q[MDNS_IP6_QUERY_LEN];
    mdns_build_ip6_query(q, 0x1005, "FE800000000000000000000000000001");
    bytes query(q, q + 90);
    char name[NAME_TEXT_MAX];
    // The identifier is not compared.
    auto r = mdns_reply(query, {"printer", "local"});
    r[0] = 0x77;
    EXPECT_EQ(mdns_parse_ip6_reply(r, name), 7);
    EXPECT_STREQ(name, "printer");
    auto long_name = mdns_reply(query, {std::string(100, 'p'), "local"});
    EXPECT_EQ(mdns_parse_ip6_reply(long_name, name), 64);
    EXPECT_EQ(std::strlen(name), 64u);
    auto two = mdns_reply(query, {"printer"}, 2);
    EXPECT_EQ(mdns_parse_ip6_reply(two, name), -1);
    auto empty = mdns_reply(query, {""});
    EXPECT_EQ(mdns_parse_ip6_reply(empty, name), 0);
    EXPECT_EQ(mdns_parse_ip6_reply(std::span<const uint8_t>(r.data(), 105), name), 0) << "label cut off";
    EXPECT_EQ(mdns_parse_ip6_reply(std::span<const uint8_t>(r.data(), 0), name), -1);
}
