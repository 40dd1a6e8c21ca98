// IPv6 neighbours of the scan pass: the solicitation laid out byte by byte,
// the advertisement parser, the summary states, and the whole phase over a
// real bridge in a private network namespace, where the hosts' kernels
// answer the solicitations as any IPv6 host does.
#include "scan/ip6.h"

#include <gtest/gtest.h>

#include <arpa/inet.h>
#include <net/if.h>
#include <netpacket/packet.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>

#include <chrono>
#include <cstring>
#include <string>
#include <vector>

#include "netns_util.h"
#include "nl_build.h"
#include "registry/client_node.h"
#include "registry/ip6_copy.h"
#include "scan/client_table.h"
#include "scan/topology.h"

using scantest::in_private_lan;
using scantest::write_file;

namespace
{

std::vector<uint8_t> a6(const char *text)
{
    std::vector<uint8_t> out(16);
    EXPECT_EQ(inet_pton(AF_INET6, text, out.data()), 1) << text;
    return out;
}

std::string mac_text(int n)
{
    char text[18];
    std::snprintf(text, sizeof(text), "02:00:00:00:00:%02x", n);
    return text;
}

std::vector<uint8_t> mac_of(int n)
{
    return {0x02, 0, 0, 0, 0, static_cast<uint8_t>(n)};
}

std::vector<std::string> texts(const ip6_info *info)
{
    std::vector<std::string> out;
    for (const ip6_addr_node *a = info ? info->addresses : nullptr; a; a = a->next) {
        char t[INET6_ADDRSTRLEN];
        inet_ntop(AF_INET6, a->addr, t, sizeof(t));
        out.push_back(std::string(t) + (a->state == 1 ? " R" : " S"));
    }
    return out;
}

TEST(NeighborSolicitation, LaidOutByteForByte)
{
    uint8_t msg[NS_MESSAGE_LEN];
    std::memset(msg, 0xaa, sizeof(msg));
    auto target = a6("fd4c:5200:0:1:aabb:ccff:fedd:eeff");
    const uint8_t mac[6] = {0x02, 0x4c, 0x52, 0x00, 0x00, 0x01};
    build_ns_message(msg, target.data(), mac);
    const uint8_t want[NS_MESSAGE_LEN] = {135,  0,    0,    0,    0,    0,    0,    0,    0xfd, 0x4c, 0x52,
                                          0x00, 0x00, 0x00, 0x00, 0x01, 0xaa, 0xbb, 0xcc, 0xff, 0xfe, 0xdd,
                                          0xee, 0xff, 1,    1,    0x02, 0x4c, 0x52, 0x00, 0x00, 0x01};
    for (size_t i = 0; i < NS_MESSAGE_LEN; i++)
        EXPECT_EQ(msg[i], want[i]) << "byte " << i;
}

TEST(NeighborSolicitation, GoesToTheSolicitedNodeGroup)
{
    uint8_t group[16];
    solicited_node_address(group, a6("2001:db8::12:3456:789a").data());
    EXPECT_EQ(std::vector<uint8_t>(group, group + 16), a6("ff02::1:ff56:789a"));
}

std::vector<uint8_t> na_frame(const char *source, int mac, uint8_t type = 136, size_t size = 86)
{
    std::vector<uint8_t> f(size, 0);
    auto m = mac_of(mac);
    std::memcpy(f.data() + 6, m.data(), 6);
    f[12] = 0x86;
    f[13] = 0xdd;
    auto s = a6(source);
    std::memcpy(f.data() + 22, s.data(), 16);
    if (size > 54)
        f[54] = type;
    return f;
}

TEST(NeighborAdvertisement, ParsedFromTheFixedOffsets)
{
    na_frame_info info{};
    auto f = na_frame("2001:db8::7", 7);
    ASSERT_TRUE(parse_na_frame(f, info));
    EXPECT_EQ(std::vector<uint8_t>(info.source_mac, info.source_mac + 6), mac_of(7));
    EXPECT_EQ(std::vector<uint8_t>(info.source, info.source + 16), a6("2001:db8::7"));
    EXPECT_FALSE(parse_na_frame(na_frame("2001:db8::7", 7, 135), info)) << "a solicitation";
    EXPECT_FALSE(parse_na_frame(na_frame("2001:db8::7", 7, 136, 54), info)) << "too short for the type";
    EXPECT_TRUE(parse_na_frame(na_frame("2001:db8::7", 7, 136, 55), info));
    EXPECT_FALSE(parse_na_frame({}, info));
}

TEST(Ip6Summary, StaleAndReachableCounts)
{
    client_table_entry e{};
    ip6_info info{};
    auto mac = mac_of(1);
    note_neighbour(&e, &info, a6("2001:db8::1").data(), mac.data(), 0x04);
    EXPECT_EQ(info.state, IP6_ONE_STALE);
    note_neighbour(&e, &info, a6("2001:db8::2").data(), mac.data(), 0x04);
    EXPECT_EQ(info.state, IP6_TWO_STALE);
    note_neighbour(&e, &info, a6("2001:db8::3").data(), mac.data(), 0x08);
    EXPECT_EQ(info.state, IP6_MORE_STALE);
    note_neighbour(&e, &info, a6("2001:db8::4").data(), mac.data(), 0x02);
    EXPECT_EQ(info.state, IP6_ONE_REACHABLE) << "a reachable address overrides the stale count";
    note_neighbour(&e, &info, a6("2001:db8::5").data(), mac.data(), 0x04);
    EXPECT_EQ(info.state, IP6_ONE_REACHABLE) << "a stale one leaves it alone";
    note_neighbour(&e, &info, a6("2001:db8::6").data(), mac.data(), 0x02);
    EXPECT_EQ(info.state, IP6_TWO_REACHABLE);
    note_neighbour(&e, &info, a6("2001:db8::7").data(), mac.data(), 0x02);
    note_neighbour(&e, &info, a6("2001:db8::8").data(), mac.data(), 0x02);
    EXPECT_EQ(info.state, IP6_MORE_REACHABLE);
    note_neighbour(&e, &info, a6("fe80::1").data(), mac.data(), 0x02);
    EXPECT_EQ(info.state, IP6_MORE_REACHABLE) << "the link-local address is no global one";
    EXPECT_EQ(std::vector<uint8_t>(e.ip6_local, e.ip6_local + 16), a6("fe80::1"));
    EXPECT_EQ(std::vector<uint8_t>(info.mac, info.mac + 6), mac);
    auto t = texts(&info);
    ASSERT_EQ(t.size(), 8u);
    EXPECT_EQ(t[0], "2001:db8::1 S");
    EXPECT_EQ(t[3], "2001:db8::4 R");
    ip6_remove_address(&info, a6("2001:db8::8").data());
    ip6_remove_address(&info, a6("2001:db8::1").data());
    ip6_remove_address(&info, a6("2001:db8::99").data());
    t = texts(&info);
    ASSERT_EQ(t.size(), 6u);
    EXPECT_EQ(t.front(), "2001:db8::2 S");
    EXPECT_EQ(t.back(), "2001:db8::7 R");
    ip6_add_address(&info, a6("2001:db8::9").data(), 2);
    EXPECT_EQ(texts(&info).back(), "2001:db8::9 R") << "the tail moved with the removal";
    client_node n{};
    copy_ip6_globals(&n, &info);
    EXPECT_EQ(n.ip6_state, IP6_MORE_REACHABLE);
    std::vector<std::string> copied;
    for (const ip6_addr_node *a = n.ip6_globals; a; a = a->next) {
        char c[INET6_ADDRSTRLEN];
        inet_ntop(AF_INET6, a->addr, c, sizeof(c));
        copied.push_back(std::string(c) + (a->state == 1 ? " R" : " S"));
    }
    EXPECT_EQ(copied, texts(&info)) << "the record gets the addresses in order";
    copy_ip6_globals(&n, nullptr);
    EXPECT_EQ(n.ip6_state, 0);
    EXPECT_EQ(n.ip6_globals, nullptr);
    for (ip6_addr_node *a = info.addresses; a;) {
        ip6_addr_node *next = a->next;
        free(a);
        a = next;
    }
}

// The router's bridge with one radio, wl0, whose station file lists
// `stations`.
void lan(const std::vector<int> &stations = {})
{
    scantest::lan_router();
    ASSERT_TRUE(scantest::sh("ip addr add 2001:db8::1/64 dev br-lan nodad"));
    write_file("/etc/config/wireless", "config wifi-iface\n\toption ifname 'wl0'\n");
    mkdir("/var/run/iwinfo", 0755);
    std::string text;
    for (int n : stations)
        text += "mac=" + mac_text(n) + " inactive=100\n";
    write_file("/var/run/iwinfo/wl0", text);
    read_radio_list();
    refresh_stations();
}

// A host behind port `port` with IPv6 only: its kernel answers
// solicitations for `ips`.
void v6_host(const std::string &name, const std::string &port, int mac, const std::vector<std::string> &ips)
{
    scantest::lan_host(name, port, mac_text(mac), {});
    std::string cmd = "ip -n " + name + " link set " + name + "e up";
    for (const auto &ip : ips)
        cmd += " && ip -n " + name + " addr add " + ip + "/64 dev " + name + "e nodad";
    ASSERT_TRUE(scantest::sh(cmd));
}

nlb::bytes neigh6(const char *ip, int mac, uint16_t state = 0x04)
{
    nlb::neigh n;
    n.family = AF_INET6;
    n.state = state;
    n.ifindex = static_cast<int32_t>(if_nametoindex("br-lan"));
    n.ip = ip;
    n.mac = mac_of(mac);
    return nlb::neigh_msg(n);
}

nlb::bytes dump_of(std::initializer_list<nlb::bytes> msgs)
{
    nlb::bytes out;
    for (const auto &m : msgs)
        out.insert(out.end(), m.begin(), m.end());
    auto d = nlb::done_msg();
    out.insert(out.end(), d.begin(), d.end());
    return out;
}

std::vector<client_table_entry *> entries()
{
    std::vector<client_table_entry *> out;
    for (client_table_entry *e = client_table.head; e; e = e->next)
        out.push_back(e);
    return out;
}

int probe_count()
{
    int n = 0;
    for (const ns_probe *p = ns_probe_list; p; p = p->next)
        n++;
    return n;
}

long phase_ms = 0;
void phase(const nlb::bytes &dump)
{
    auto t0 = std::chrono::steady_clock::now();
    free_ip6_infos_locked();
    free_ns_probes_locked();
    refresh_stations();
    classify_ipv6_locked(dump);
    verify_ns_probes_locked();
    phase_ms =
        std::chrono::duration_cast<std::chrono::milliseconds>(std::chrono::steady_clock::now() - t0).count();
}

void clear_table()
{
    free_ip6_infos_locked();
    free_ns_probes_locked();
    free_client_table_locked();
}

TEST(Ip6Phase, WiredLinkLocalOnlyClientNeedsAnAnswer)
{
    EXPECT_TRUE(in_private_lan([] {
        lan();
        auto dump = dump_of({neigh6("fe80::5", 5)});
        classify_ipv6_locked(dump);
        EXPECT_TRUE(entries().empty()) << "a wired neighbour alone makes no entry";
        EXPECT_EQ(probe_count(), 1);
        EXPECT_TRUE(take_advertisement_locked(a6("fe80::5").data(), mac_of(5).data()));
        auto e = entries();
        ASSERT_EQ(e.size(), 1u);
        EXPECT_EQ(e[0]->ip6_only, 1);
        ASSERT_NE(e[0]->ip6, nullptr);
        EXPECT_EQ(e[0]->ip6->state, IP6_ONE_ALIVE);
        EXPECT_EQ(texts(e[0]->ip6), std::vector<std::string>{"fe80::5 R"}) << "listed as a global address";
        EXPECT_EQ(e[0]->ip6_local[0], 0) << "the answer's branch does not look at the kind";
        clear_table();
    }));
}

TEST(Ip6Phase, StaleStationIsOneStaleUntilItAnswers)
{
    EXPECT_TRUE(in_private_lan([] {
        lan({6});
        auto dump = dump_of({neigh6("2001:db8::6", 6, 0x04), neigh6("fe80::6", 6, 0x04)});
        classify_ipv6_locked(dump);
        auto e = entries();
        ASSERT_EQ(e.size(), 1u);
        EXPECT_EQ(e[0]->ip6_only, 1);
        EXPECT_EQ(e[0]->ip6->state, IP6_ONE_STALE);
        EXPECT_EQ(std::vector<uint8_t>(e[0]->ip6_local, e[0]->ip6_local + 16), a6("fe80::6"));
        EXPECT_EQ(probe_count(), 2);
        EXPECT_TRUE(take_advertisement_locked(a6("2001:db8::6").data(), mac_of(6).data()));
        EXPECT_EQ(e[0]->ip6->state, IP6_ONE_ALIVE);
        EXPECT_EQ(texts(e[0]->ip6), std::vector<std::string>{"2001:db8::6 R"});
        clear_table();
    }));
}

TEST(Ip6Phase, MulticastIsIgnoredAndLinkLocalKept)
{
    EXPECT_TRUE(in_private_lan([] {
        lan({7});
        // Unique local addresses (fc00::/7) lie above 0xf0 and count as
        // little as multicast.
        auto dump =
            dump_of({neigh6("ff02::1", 7, 0x40), neigh6("fec0::7", 7), neigh6("fd4c::7", 7),
                     neigh6("fe80::7", 7), neigh6("2001:db8::8", 8, 0x01), neigh6("2001:db8::9", 9, 0x20)});
        classify_ipv6_locked(dump);
        ASSERT_EQ(probe_count(), 1) << "only fe80::7; incomplete and failed entries do not count";
        EXPECT_STREQ(ns_probe_list->ip_text, "fe80::7");
        auto e = entries();
        ASSERT_EQ(e.size(), 1u);
        EXPECT_EQ(e[0]->ip6->state, IP6_NO_ITEM);
        clear_table();
    }));
}

TEST(Ip6Phase, AnIpv4EntryWithIpv6KeepsIp6OnlyZero)
{
    EXPECT_TRUE(in_private_lan([] {
        lan({10});
        for (int mac : {10, 11}) {
            client_table_entry *e = new_entry();
            e->ip = htonl(0xc0a80100 + static_cast<uint32_t>(mac));
            std::memcpy(e->mac, mac_of(mac).data(), 6);
            append_entry(e);
        }
        auto dump = dump_of({neigh6("2001:db8::10", 10, 0x02)});
        classify_ipv6_locked(dump);
        EXPECT_TRUE(take_advertisement_locked(a6("2001:db8::10").data(), mac_of(10).data()));
        auto e = entries();
        ASSERT_EQ(e.size(), 2u);
        EXPECT_EQ(e[0]->ip6_only, 0);
        EXPECT_EQ(e[0]->ip6->state, IP6_ONE_ALIVE);
        // A wired IPv4 client whose address answers.
        auto dump2 = dump_of({neigh6("2001:db8::11", 11)});
        classify_ipv6_locked(dump2);
        EXPECT_TRUE(take_advertisement_locked(a6("2001:db8::11").data(), mac_of(11).data()));
        EXPECT_EQ(e[1]->ip6_only, 0);
        ASSERT_NE(e[1]->ip6, nullptr);
        EXPECT_EQ(e[1]->ip6->state, IP6_ONE_ALIVE);
        clear_table();
    }));
}

TEST(Ip6Phase, AnswersRaiseTheAliveCount)
{
    EXPECT_TRUE(in_private_lan([] {
        lan();
        auto dump = dump_of({neigh6("2001:db8::21", 12), neigh6("2001:db8::22", 12),
                             neigh6("2001:db8::23", 12), neigh6("2001:db8::24", 12)});
        classify_ipv6_locked(dump);
        auto mac = mac_of(12);
        take_advertisement_locked(a6("2001:db8::21").data(), mac.data());
        client_table_entry *e = entries().at(0);
        EXPECT_EQ(e->ip6->state, IP6_ONE_ALIVE);
        take_advertisement_locked(a6("2001:db8::21").data(), mac.data());
        EXPECT_EQ(e->ip6->state, IP6_ONE_ALIVE) << "the same address again";
        take_advertisement_locked(a6("2001:db8::22").data(), mac.data());
        EXPECT_EQ(e->ip6->state, IP6_TWO_ALIVE);
        take_advertisement_locked(a6("2001:db8::23").data(), mac.data());
        EXPECT_EQ(e->ip6->state, IP6_MORE_ALIVE);
        take_advertisement_locked(a6("2001:db8::24").data(), mac.data());
        EXPECT_EQ(e->ip6->state, IP6_MORE_ALIVE);
        EXPECT_EQ(texts(e->ip6).size(), 4u);
        clear_table();
    }));
}

TEST(Ip6Phase, ForgedAdvertisementsChangeNothing)
{
    EXPECT_TRUE(in_private_lan([] {
        lan({13});
        auto dump = dump_of({neigh6("2001:db8::13", 13)});
        classify_ipv6_locked(dump);
        size_t before = entries().size();
        for (int i = 0; i < 1000; i++) {
            char text[40];
            std::snprintf(text, sizeof(text), "2001:db8::1:%x", i);
            EXPECT_FALSE(take_advertisement_locked(a6(text).data(), mac_of(i % 250).data()));
        }
        EXPECT_FALSE(take_advertisement_locked(a6("2001:db8::13").data(), mac_of(14).data())) << "wrong MAC";
        EXPECT_EQ(entries().size(), before);
        EXPECT_EQ(entries().at(0)->ip6->state, IP6_ONE_STALE);
        clear_table();
    }));
}

TEST(Ip6Phase, RealAnswersEndTheWaitAtOnce)
{
    EXPECT_TRUE(in_private_lan([] {
        lan();
        v6_host("h20", "lan1", 20, {"2001:db8::20", "2001:db8::2020"});
        v6_host("h21", "lan2", 21, {"2001:db8::21"});
        auto dump =
            dump_of({neigh6("2001:db8::20", 20), neigh6("2001:db8::2020", 20), neigh6("2001:db8::21", 21)});
        phase(dump);
        EXPECT_LT(phase_ms, 2000) << "every probe answered";
        auto e = entries();
        ASSERT_EQ(e.size(), 2u);
        EXPECT_EQ(e[0]->ip6_only, 1);
        EXPECT_EQ(e[0]->ip6->state, IP6_TWO_ALIVE);
        EXPECT_EQ(e[1]->ip6->state, IP6_ONE_ALIVE);
        EXPECT_EQ(texts(e[1]->ip6), std::vector<std::string>{"2001:db8::21 R"});
        clear_table();
    }));
}

TEST(Ip6Phase, ASilentAddressCostsTheWholeWait)
{
    EXPECT_TRUE(in_private_lan([] {
        lan({22});
        v6_host("h22", "wl0", 22, {"2001:db8::22"});
        auto dump = dump_of({neigh6("2001:db8::22", 22), neigh6("2001:db8::99", 22)});
        phase(dump);
        EXPECT_GE(phase_ms, NS_WAIT_MS - 100);
        auto e = entries();
        ASSERT_EQ(e.size(), 1u);
        EXPECT_EQ(e[0]->ip6->state, IP6_ONE_ALIVE) << "the answering address";
        EXPECT_EQ(texts(e[0]->ip6).size(), 2u) << "the stale address stays listed";
        clear_table();
    }));
}

TEST(Ip6Phase, SolicitationOnTheWire)
{
    EXPECT_TRUE(in_private_lan([] {
        lan();
        v6_host("h30", "lan1", 30, {});
        pid_t pid = scantest::in_netns("h30", [] {
            int fd = socket(AF_PACKET, SOCK_RAW, htons(0x86dd));
            sockaddr_ll sll{};
            sll.sll_family = AF_PACKET;
            sll.sll_protocol = htons(0x86dd);
            sll.sll_ifindex = static_cast<int>(if_nametoindex("h30e"));
            if (fd < 0 || bind(fd, reinterpret_cast<sockaddr *>(&sll), sizeof(sll)) != 0)
                return 4;
            timeval tv{5, 0};
            setsockopt(fd, SOL_SOCKET, SO_RCVTIMEO, &tv, sizeof(tv));
            auto target = a6("2001:db8::abcd:1234:5678");
            const uint8_t mac[6] = {0x02, 0x4c, 0x52, 0x00, 0x00, 0x01};
            uint8_t want[NS_MESSAGE_LEN];
            build_ns_message(want, target.data(), mac);
            for (;;) {
                uint8_t f[256];
                ssize_t n = recv(fd, f, sizeof(f), 0);
                if (n < 0)
                    return 5;
                // The host's own duplicate address checks are solicitations
                // too: only the one for our target counts.
                if (n < 54 + 32 || f[54] != 135 || std::memcmp(f + 62, target.data(), 16) != 0)
                    continue;
                const uint8_t group_mac[6] = {0x33, 0x33, 0xff, 0x34, 0x56, 0x78};
                if (std::memcmp(f, group_mac, 6) != 0 || std::memcmp(f + 6, mac, 6) != 0)
                    return 6;
                if (f[12] != 0x86 || f[13] != 0xdd || f[20] != 58 || f[21] != 255)
                    return 7; // ICMPv6, hop limit 255
                if (std::memcmp(f + 38, a6("ff02::1:ff34:5678").data(), 16) != 0)
                    return 8;
                if (n != 54 + 32 || f[18] != 0 || f[19] != 32)
                    return 9; // payload of exactly 32 bytes
                for (size_t i = 0; i < NS_MESSAGE_LEN; i++)
                    if (i != 2 && i != 3 && f[54 + i] != want[i])
                        return 10;
                if (f[56] == 0 && f[57] == 0)
                    return 11; // the kernel filled the checksum in
                return 0;
            }
        });
        usleep(200000);
        EXPECT_EQ(send_ns("2001:db8::abcd:1234:5678"), 0);
        EXPECT_TRUE(scantest::wait_child(pid));
        EXPECT_EQ(send_ns("not an address"), -1);
    }));
}

} // namespace
