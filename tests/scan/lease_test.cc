// The lease and hook readers: the line scans on their own, and the readers
// on their fixed paths in a child with private "/tmp" and "/run".
#include <arpa/inet.h>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <functional>
#include <gtest/gtest.h>
#include <json-c/json.h>
#include <string>
#include <sys/stat.h>
#include <unistd.h>
#include <vector>

#include "core/text.h"
#include "scan/lease.h"
#include "tests/sandbox/sandbox.h"

namespace
{

const uint8_t mac_a[6] = {0x02, 0xaa, 0xbb, 0xcc, 0xdd, 0x01};
const uint8_t mac_b[6] = {0x02, 0xaa, 0xbb, 0xcc, 0xdd, 0x02};

void write_file(const char *path, const std::string &text)
{
    FILE *f = fopen(path, "w");
    ASSERT_NE(f, nullptr) << path;
    fwrite(text.data(), 1, text.size(), f);
    fclose(f);
}

// Runs `body` in a child whose "/tmp" and "/run" (behind "/var/run") are
// empty tmpfs mounts, so the readers' fixed paths are throw-away files.
bool in_private_tmp(const std::function<void()> &body)
{
    return sandbox::in_child(
        [] {
            if (!sandbox::private_mounts() || !sandbox::mount_tmpfs("/tmp") || !sandbox::mount_tmpfs("/run"))
                return false;
            mkdir("/var/run", 0755); // a directory where it is not a link to /run
            return true;
        },
        body);
}

struct lease_buffer {
    lease_buffer() : rows(static_cast<lease_row *>(calloc(LEASE_ROWS_START, sizeof(lease_row)))) {}
    ~lease_buffer()
    {
        free(rows);
    }
    int read()
    {
        return read_dhcp_leases(&rows, &capacity);
    }
    lease_row *rows;
    int capacity = LEASE_ROWS_START;
};

std::vector<lease_row> parse_lines(std::initializer_list<const char *> lines)
{
    lease_scan scan;
    std::vector<lease_row> rows;
    for (const char *line : lines) {
        lease_row row{};
        if (parse_lease_line(line, scan, row))
            rows.push_back(row);
    }
    return rows;
}

json_object *parse_json(const char *text)
{
    return json_tokener_parse(text);
}

} // namespace

TEST(LeaseLine, SixColumns)
{
    auto rows = parse_lines({"1700000000 02:aa:bb:cc:dd:01 192.168.1.100 tv 01:02:aa:bb:cc:dd:01 7\n"});
    ASSERT_EQ(rows.size(), 1u);
    EXPECT_EQ(std::memcmp(rows[0].mac, mac_a, 6), 0);
    EXPECT_STREQ(rows[0].hostname, "tv");
    EXPECT_STREQ(rows[0].ip, "192.168.1.100");
    EXPECT_EQ(rows[0].type, 7);
}

TEST(LeaseLine, FiveColumnsTakeTheTypeOfTheLineBefore)
{
    auto rows = parse_lines(
        {"100 02:aa:bb:cc:dd:01 192.168.1.100 tv * 7\n", "200 02:aa:bb:cc:dd:02 192.168.1.101 phone *\n"});
    ASSERT_EQ(rows.size(), 2u);
    EXPECT_EQ(rows[1].type, 7);
    EXPECT_STREQ(rows[1].hostname, "phone");
}

TEST(LeaseLine, FiveColumnsFirstHaveNoType)
{
    auto rows = parse_lines({"100 02:aa:bb:cc:dd:01 192.168.1.100 tv *\n"});
    ASSERT_EQ(rows.size(), 1u);
    EXPECT_EQ(rows[0].type, -1);
}

TEST(LeaseLine, EmptyLineRepeatsThePreviousRow)
{
    auto rows = parse_lines({"100 02:aa:bb:cc:dd:01 192.168.1.100 tv * 3\n", "\n"});
    ASSERT_EQ(rows.size(), 2u);
    EXPECT_EQ(std::memcmp(&rows[0], &rows[1], sizeof(lease_row)), 0);
}

TEST(LeaseLine, NothingCountsBeforeAFullLine)
{
    EXPECT_TRUE(parse_lines({"\n", "garbage\n", "100\n", "100 02:aa:bb:cc:dd:01\n"}).empty());
}

TEST(LeaseLine, DashMacDecodesAsColonMac)
{
    auto rows = parse_lines(
        {"1 02-AA-bb-CC-dd-01 192.168.1.100 tv * 1\n", "1 02:aa:bb:cc:dd:01 192.168.1.100 tv * 1\n"});
    ASSERT_EQ(rows.size(), 2u);
    EXPECT_EQ(std::memcmp(rows[0].mac, mac_a, 6), 0);
    EXPECT_EQ(std::memcmp(rows[1].mac, mac_a, 6), 0);
}

TEST(LeaseLine, MacWithoutFixedForm)
{
    uint8_t mac[6];
    decode_lease_mac("2.aa.bb.cc.dd.1", mac);
    EXPECT_EQ(std::memcmp(mac, mac_a, 6), 0);
    decode_lease_mac("0102030405060708", mac); // one byte of the last two digits
    const uint8_t one[6] = {0x08, 0, 0, 0, 0, 0};
    EXPECT_EQ(std::memcmp(mac, one, 6), 0);
    decode_lease_mac(":::::::::1", mac); // separators past the sixth byte are ignored
    const uint8_t zero[6] = {};
    EXPECT_EQ(std::memcmp(mac, zero, 6), 0);
}

TEST(LeaseLine, LongColumnsAreCutAndCarriedOn)
{
    // 19 characters of the address are kept; a host name over 63 characters
    // spills its rest into the client id column.
    std::string name(70, 'n');
    std::string line = "1 02:aa:bb:cc:dd:01 2001:db8:1:2:3:4:5:6 " + name + " 9\n";
    lease_scan scan;
    lease_row row{};
    ASSERT_TRUE(parse_lease_line(line, scan, row));
    EXPECT_STREQ(row.ip, "2001:db8:1:2:3:4:5:");
    EXPECT_EQ(std::strlen(row.hostname), 63u);
    EXPECT_STREQ(scan.client_id, "nnnnnnn");
    EXPECT_EQ(row.type, 9);
}

TEST(LeaseLine, StarMeansNoName)
{
    auto rows = parse_lines({"1 02:aa:bb:cc:dd:01 192.168.1.100 * * -1\n"});
    ASSERT_EQ(rows.size(), 1u);
    EXPECT_STREQ(rows[0].hostname, "*");
    EXPECT_EQ(rows[0].type, -1);
}

TEST(LeaseLine, StopsAtNulByte)
{
    static const char text[] = "1 02:aa:bb:cc:dd:01 192.168.1.100 t\0v * 4\n";
    std::string line(text, sizeof(text) - 1);
    lease_scan scan;
    lease_row row{};
    ASSERT_TRUE(parse_lease_line(line, scan, row));
    EXPECT_STREQ(row.hostname, "t");
    EXPECT_EQ(row.type, -1);
}

TEST(LeaseFile, MissingFileGivesNothingAndSaysSo)
{
    EXPECT_TRUE(in_private_tmp([] {
        copy_str(lease_file_name, "/tmp/dhcp.leases");
        lease_buffer buf;
        testing::internal::CaptureStderr();
        EXPECT_EQ(buf.read(), 0);
        EXPECT_EQ(testing::internal::GetCapturedStderr(), "lanroster: dhcp.leases open error.\n");
        lease_row row{};
        EXPECT_EQ(find_lease_by_mac(&row, mac_a), 0);
    }));
}

TEST(LeaseFile, GrowsBy64Rows)
{
    EXPECT_TRUE(in_private_tmp([] {
        copy_str(lease_file_name, "/tmp/dhcp.leases");
        std::string text;
        for (int i = 0; i < 130; i++) {
            char line[96];
            snprintf(line, sizeof(line), "%d 02:00:00:00:%02x:%02x 10.0.%d.%d h%d * %d\n", 1000 + i, i >> 8,
                     i & 0xff, i / 200, i % 200 + 1, i, i);
            text += line;
        }
        write_file("/tmp/dhcp.leases", text);
        lease_buffer buf;
        EXPECT_EQ(buf.read(), 130);
        EXPECT_EQ(buf.capacity, 192);
        EXPECT_EQ(buf.rows[129].mac[5], 129);
        EXPECT_STREQ(buf.rows[129].hostname, "h129");
        EXPECT_EQ(buf.rows[129].type, 129);
    }));
}

TEST(LeaseFile, SixtyFourRowsFitTheFirstBuffer)
{
    EXPECT_TRUE(in_private_tmp([] {
        copy_str(lease_file_name, "/tmp/dhcp.leases");
        std::string text;
        for (int i = 0; i < 64; i++)
            text +=
                "1 02:00:00:00:00:" + std::to_string(10 + i) + " 10.0.0." + std::to_string(i + 1) + " * *\n";
        write_file("/tmp/dhcp.leases", text);
        lease_buffer buf;
        EXPECT_EQ(buf.read(), 64);
        EXPECT_EQ(buf.capacity, 64);
        EXPECT_EQ(buf.rows[63].mac[5], 0x73);
    }));
}

TEST(LeaseFile, FindByMacTakesTheFirstRow)
{
    EXPECT_TRUE(in_private_tmp([] {
        copy_str(lease_file_name, "/tmp/dhcp.leases");
        write_file("/tmp/dhcp.leases", "1 02:aa:bb:cc:dd:02 192.168.1.5 other * 2\n"
                                       "1 02-aa-bb-cc-dd-01 192.168.1.6 first * 3\n"
                                       "1 02:aa:bb:cc:dd:01 192.168.1.7 second * 4\n");
        lease_row row{};
        ASSERT_EQ(find_lease_by_mac(&row, mac_a), 1);
        EXPECT_STREQ(row.hostname, "first");
        EXPECT_STREQ(row.ip, "192.168.1.6");
        EXPECT_EQ(row.type, 3);
        const uint8_t absent[6] = {2, 0, 0, 0, 0, 9};
        EXPECT_EQ(find_lease_by_mac(&row, absent), 0);
    }));
}

TEST(Dhcpv6, NamesByExactAddressText)
{
    EXPECT_TRUE(in_private_tmp([] {
        write_file("/tmp/dhcpv6.leases", "sensor fd4c:5200:0:1::20\n"
                                         "noaddress\n"
                                         "\n"
                                         "printer fd4c:5200:0:1:0:0:0:21\n");
        read_dhcpv6_leases();
        struct stat st {
        };
        ASSERT_EQ(stat("/var/run/dhcp6s_leases.lck", &st), 0);
        EXPECT_EQ(st.st_mode & 0777, 0600u);

        uint8_t addr[16];
        ASSERT_EQ(inet_pton(AF_INET6, "fd4c:5200:0:1::20", addr), 1);
        char *name = dhcpv6_hostname(addr);
        ASSERT_NE(name, nullptr);
        EXPECT_STREQ(name, "sensor");
        free(name);
        // Text is compared, not addresses: the long form never matches.
        ASSERT_EQ(inet_pton(AF_INET6, "fd4c:5200:0:1::21", addr), 1);
        EXPECT_EQ(dhcpv6_hostname(addr), nullptr);
        // The first three bytes zero: no lookup at all.
        ASSERT_EQ(inet_pton(AF_INET6, "::20", addr), 1);
        EXPECT_EQ(dhcpv6_hostname(addr), nullptr);

        int rows = 0;
        for (const ip6_lease_row *r = dhcpv6_lease_list(); r; r = r->next)
            rows++;
        EXPECT_EQ(rows, 2);

        unlink("/tmp/dhcpv6.leases");
        testing::internal::CaptureStderr();
        read_dhcpv6_leases();
        EXPECT_EQ(testing::internal::GetCapturedStderr(), "lanroster: dhcpv6.leases open error.\n");
        EXPECT_EQ(dhcpv6_lease_list(), nullptr);
    }));
}

TEST(Dhcpv6, LineWithoutAddressIsSkipped)
{
    ip6_lease_row row{};
    EXPECT_FALSE(parse_dhcpv6_line("name\n", row));
    EXPECT_FALSE(parse_dhcpv6_line("", row));
    ASSERT_TRUE(parse_dhcpv6_line("  a   fe80::1  extra\n", row));
    EXPECT_STREQ(row.hostname, "a");
    EXPECT_STREQ(row.ip6, "fe80::1");
}

TEST(Hook, RecordWithAllKeys)
{
    json_object *root = parse_json(R"([{"mac":"02:AA:bb:cc:dd:01","ipaddr":"192.168.1.50 and more",
        "type":12,"name":"UNKNOWN","obt_name_ok":1}])");
    hook_client out{};
    ASSERT_EQ(hook_lookup_in(root, &out, mac_a), 1);
    EXPECT_STREQ(out.ipaddr, "192.168.1.50 an");
    EXPECT_EQ(out.type, 12);
    EXPECT_STREQ(out.name, "UNKNOWN");
    EXPECT_EQ(out.obt_name_ok, 1);
    json_object_put(root);
}

TEST(Hook, WithoutNameGivesNetworkDevice)
{
    json_object *root =
        parse_json(R"([{"mac":"02-aa-bb-cc-dd-01","ipaddr":"192.168.1.50","obt_name_ok":1}])");
    hook_client out{};
    out.obt_name_ok = 5;
    ASSERT_EQ(hook_lookup_in(root, &out, mac_a), 1);
    EXPECT_STREQ(out.name, "network device");
    EXPECT_EQ(out.obt_name_ok, 0);
    EXPECT_EQ(out.type, -1);
    json_object_put(root);
}

TEST(Hook, NameWithoutObtNameOkGivesOne)
{
    json_object *root = parse_json(R"([{"mac":"02:aa:bb:cc:dd:01","ipaddr":"1.2.3.4","name":"cam"}])");
    hook_client out{};
    ASSERT_EQ(hook_lookup_in(root, &out, mac_a), 1);
    EXPECT_STREQ(out.name, "cam");
    EXPECT_EQ(out.obt_name_ok, 1);
    json_object_put(root);
}

TEST(Hook, WrongElementTypeIsSkipped)
{
    json_object *root = parse_json(R"([5, "x", [1], null, {"mac":"02:aa:bb:cc:dd:01","ipaddr":"1.2.3.4"}])");
    hook_client out{};
    EXPECT_EQ(hook_lookup_in(root, &out, mac_a), 1);
    json_object_put(root);
}

TEST(Hook, ObjectWithoutMacEndsTheSearch)
{
    json_object *root =
        parse_json(R"([{"ipaddr":"1.2.3.5"}, {"mac":"02:aa:bb:cc:dd:01","ipaddr":"1.2.3.4"}])");
    hook_client out{};
    EXPECT_EQ(hook_lookup_in(root, &out, mac_a), 0);
    json_object_put(root);
    root = parse_json(R"([{"mac":"02:aa:bb"}, {"mac":"02:aa:bb:cc:dd:01","ipaddr":"1.2.3.4"}])");
    EXPECT_EQ(hook_lookup_in(root, &out, mac_a), 0);
    json_object_put(root);
}

TEST(Hook, MatchWithoutAddressEndsTheSearch)
{
    json_object *root =
        parse_json(R"([{"mac":"02:aa:bb:cc:dd:01"}, {"mac":"02:aa:bb:cc:dd:01","ipaddr":"1.2.3.4"}])");
    hook_client out{};
    EXPECT_EQ(hook_lookup_in(root, &out, mac_a), 0);
    json_object_put(root);
}

TEST(Hook, NotAnArrayIsNoData)
{
    hook_client out{};
    json_object *root = parse_json(R"({"mac":"02:aa:bb:cc:dd:01","ipaddr":"1.2.3.4"})");
    EXPECT_EQ(hook_lookup_in(root, &out, mac_a), 0);
    json_object_put(root);
    EXPECT_EQ(hook_lookup_in(nullptr, &out, mac_a), 0);
}

TEST(Hook, ReadsTheFileOnEachCall)
{
    EXPECT_TRUE(in_private_tmp([] {
        hook_client out{};
        EXPECT_EQ(hook_lookup(&out, mac_b), 0); // no file
        write_file("/tmp/dhcp_hook.file",
                   "[{\"mac\":\"02:aa:bb:cc:dd:02\",\"ipaddr\":\"192.168.1.9\",\"name\":\"ap-cam\","
                   "\"type\":4}]");
        ASSERT_EQ(hook_lookup(&out, mac_b), 1);
        EXPECT_STREQ(out.name, "ap-cam");
        EXPECT_STREQ(out.ipaddr, "192.168.1.9");
        EXPECT_EQ(out.type, 4);
        write_file("/tmp/dhcp_hook.file", "[{\"mac\":");
        EXPECT_EQ(hook_lookup(&out, mac_b), 0);
    }));
}
