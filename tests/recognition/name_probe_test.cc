// The name cache, the probe threads and the queries. The queries run over
// the loopback interface of a private network namespace against responders
// of the test's own (root).
#include <gtest/gtest.h>

#include <arpa/inet.h>
#include <chrono>
#include <cstring>
#include <net/if.h>
#include <netinet/in.h>
#include <sched.h>
#include <string>
#include <sys/ioctl.h>
#include <sys/socket.h>
#include <thread>
#include <vector>

#include "../registry/registry_test_util.h"
#include "core/locks.h"
#include "packet_util.h"
#include "recog_test_util.h"
#include "recognition/fing_state.h"
#include "recognition/name_probe.h"
#include "registry/run_command.h"
#include "scan/lan_info.h"

using namespace recogtest;
using namespace packettest;

namespace {

const uint8_t no_ip6[16] = {};

void mac_of(uint8_t mac[6], int id)
{
    regtest::test_mac(mac, id);
}

// Waits until every probe thread has finished (bounded: a thread gives up
// after at most a few seconds).
bool threads_done()
{
    for (int i = 0; i < 1000; i++) {
        {
            mutex_guard hold(name_cache_lock);
            if (probe_threads == 0)
                return true;
        }
        std::this_thread::sleep_for(std::chrono::milliseconds(10));
    }
    return false;
}

name_cache_entry *entry_of(int id)
{
    uint8_t mac[6];
    mac_of(mac, id);
    for (name_cache_entry *e = name_cache_head; e; e = e->next)
        if (std::memcmp(e->mac, mac, 6) == 0)
            return e;
    return nullptr;
}

int32_t ask(int id, char (&out)[65], uint32_t ip = 0, const uint8_t *ip6 = no_ip6)
{
    uint8_t mac[6];
    mac_of(mac, id);
    return get_client_name(ip6, ip, mac, out);
}

// Recording queries for the method list of a test.
struct query_log {
    std::vector<std::string> calls;
    std::string name = "";
    int result = 0;
} qlog;

int fake_v4(const char *address, std::span<char, NAME_TEXT_MAX> out, int timeout_ms, const uint8_t *) noexcept
{
    qlog.calls.push_back(std::string("v4 ") + address + " " + std::to_string(timeout_ms));
    snprintf(out.data(), out.size(), "%s", qlog.name.c_str());
    return qlog.result;
}

int fake_v6(const char *address, std::span<char, NAME_TEXT_MAX> out, int timeout_ms, const uint8_t *) noexcept
{
    qlog.calls.push_back(std::string("v6 ") + address + " " + std::to_string(timeout_ms));
    snprintf(out.data(), out.size(), "%s", qlog.name.c_str());
    return qlog.result;
}

probe_method test_head{};
probe_method test_method{PROBE_MDNS, PROBE_TIMEOUT_MS, fake_v4, fake_v6, nullptr};

// A method list with nothing to ask: every search fails at once.
void no_methods()
{
    test_head.next = nullptr;
    probe_method_head = &test_head;
}

void fake_method()
{
    test_head.next = &test_method;
    probe_method_head = &test_head;
    qlog = {};
}

// Turns a cached entry's failures into the fallback: five finished
// searches without a name.
void fail_five_times(int id)
{
    char out[65] = {};
    for (int i = 0; i < NAME_FAILS_MAX; i++) {
        ASSERT_EQ(ask(id, out), 0) << i;
        ASSERT_TRUE(threads_done());
    }
}

bool bring_up_loopback()
{
    if (unshare(CLONE_NEWNET) != 0)
        return false;
    int fd = socket(AF_INET, SOCK_DGRAM, 0);
    struct ifreq ifr {};
    std::strcpy(ifr.ifr_name, "lo");
    ifr.ifr_flags = IFF_UP | IFF_LOOPBACK | IFF_RUNNING | IFF_MULTICAST;
    bool ok = ioctl(fd, SIOCSIFFLAGS, &ifr) == 0;
    close(fd);
    return ok;
}

// A one-shot responder on loopback: answers the first query that arrives
// with `make(query)`.
template <typename Make> std::thread respond_once(int fd, Make make)
{
    return std::thread([fd, make] {
        uint8_t buf[2048];
        sockaddr_in peer{};
        socklen_t plen = sizeof(peer);
        ssize_t n = recvfrom(fd, buf, sizeof(buf), 0, reinterpret_cast<sockaddr *>(&peer), &plen);
        if (n > 0) {
            bytes reply = make(bytes(buf, buf + n));
            sendto(fd, reply.data(), reply.size(), 0, reinterpret_cast<sockaddr *>(&peer), plen);
        }
        close(fd);
    });
}

int udp_socket(uint16_t port)
{
    int fd = socket(AF_INET, SOCK_DGRAM, 0);
    sockaddr_in a{};
    a.sin_family = AF_INET;
    a.sin_port = htons(port);
    a.sin_addr.s_addr = htonl(INADDR_ANY);
    int one = 1;
    setsockopt(fd, SOL_SOCKET, SO_REUSEADDR, &one, sizeof(one));
    timeval tv{5, 0};
    setsockopt(fd, SOL_SOCKET, SO_RCVTIMEO, &tv, sizeof(tv));
    if (bind(fd, reinterpret_cast<sockaddr *>(&a), sizeof(a)) != 0) {
        close(fd);
        return -1;
    }
    return fd;
}

}  // namespace

TEST(NameProbe, InitBuildsNetbiosThenMdns)
{
    name_probe_init();
    ASSERT_NE(probe_method_head, nullptr);
    const probe_method *nb = probe_method_head->next;
    ASSERT_NE(nb, nullptr);
    EXPECT_EQ(nb->protocol, PROBE_NETBIOS);
    EXPECT_EQ(nb->timeout_ms, 500);
    EXPECT_EQ(nb->query_v4, netbios_probe);
    EXPECT_EQ(nb->query_v6, nullptr);
    const probe_method *md = nb->next;
    ASSERT_NE(md, nullptr);
    EXPECT_EQ(md->protocol, PROBE_MDNS);
    EXPECT_EQ(md->query_v4, mdns_probe_v4);
    EXPECT_EQ(md->query_v6, mdns_probe_v6);
    EXPECT_EQ(md->next, nullptr);
}

TEST(NameProbe, FirstCallMakesEntryAndStartsProbe)
{
    EXPECT_TRUE(run_in_store([] {
        no_methods();
        char out[65] = "keep";
        uint8_t ip6[16] = {0xfe, 0x80};
        ip6[15] = 7;
        EXPECT_EQ(ask(1, out, 0x0501a8c0, ip6), 0);
        EXPECT_STREQ(out, "keep");
        name_cache_entry *e = entry_of(1);
        ASSERT_NE(e, nullptr);
        EXPECT_STREQ(e->ip6_text, "fe80::7");
        EXPECT_EQ(e->ip, 0x0501a8c0u);
        ASSERT_TRUE(threads_done());
        EXPECT_EQ(e->state, NAME_IDLE);
        EXPECT_EQ(e->fail_count, 1);
        EXPECT_EQ(name_cache_count, 1);
    }));
}

TEST(NameProbe, FifthFailureGivesNetworkDevice)
{
    EXPECT_TRUE(run_in_store([] {
        no_methods();
        fail_five_times(2);
        char out[65] = {};
        EXPECT_EQ(ask(2, out), 14);
        EXPECT_STREQ(out, "network device");
        EXPECT_EQ(entry_of(2)->fail_count, 5);
        EXPECT_EQ(entry_of(2)->state, NAME_VALID);
    }));
}

TEST(NameProbe, FifthFailureTakesStoredMdnsName)
{
    EXPECT_TRUE(run_in_store([] {
        no_methods();
        uint8_t mac[6];
        mac_of(mac, 3);
        char section[13];
        fing_mac_text(mac, section);
        ASSERT_EQ(fing_state_ensure(FING_PACKAGE, section), 0);
        ASSERT_EQ(fing_state_set(FING_PACKAGE, section, "mdns_name", "kitchen-speaker"), 0);
        fail_five_times(3);
        char out[65] = {};
        EXPECT_EQ(ask(3, out), 15);
        EXPECT_STREQ(out, "kitchen-speaker");
    }));
}

TEST(NameProbe, CachedNameIsCleaned)
{
    EXPECT_TRUE(run_in_store([] {
        no_methods();
        char out[65] = {};
        ask(4, out);
        ASSERT_TRUE(threads_done());
        {
            mutex_guard hold(name_cache_lock);
            name_cache_entry *e = entry_of(4);
            std::strcpy(e->name, "caf\xc3\xa9-tv");
            e->name_len = 9;
            e->state = NAME_VALID;
            e->update_time = time(nullptr);
        }
        EXPECT_EQ(ask(4, out), 9);
        EXPECT_STREQ(out, "caf^^-tv");
        EXPECT_EQ(probe_threads, 0) << "a fresh name starts no probe";
    }));
}

TEST(NameProbe, OldNameIsHandedOutAndAskedAgain)
{
    EXPECT_TRUE(run_in_store([] {
        no_methods();
        char out[65] = {};
        ask(5, out);
        ASSERT_TRUE(threads_done());
        {
            mutex_guard hold(name_cache_lock);
            name_cache_entry *e = entry_of(5);
            std::strcpy(e->name, "tv");
            e->name_len = 2;
            e->state = NAME_VALID;
            e->update_time = time(nullptr) - 599;
        }
        EXPECT_EQ(ask(5, out), 2) << "599 seconds is still fresh";
        EXPECT_EQ(probe_threads, 0);
        {
            mutex_guard hold(name_cache_lock);
            entry_of(5)->update_time = time(nullptr) - 601;
        }
        EXPECT_EQ(ask(5, out), 2);
        EXPECT_STREQ(out, "tv");
        ASSERT_TRUE(threads_done());
        EXPECT_EQ(entry_of(5)->state, NAME_IDLE) << "asked again, and the probe failed";
    }));
}

TEST(NameProbe, FullCacheDropsLastEntry)
{
    EXPECT_TRUE(run_in_store([] {
        probe_method_head = nullptr; // no probes: the entries stay idle
        char out[65] = {};
        for (int i = 1; i <= NAME_CACHE_MAX; i++)
            ask(i, out);
        ASSERT_EQ(name_cache_count, 256);
        ASSERT_NE(entry_of(1), nullptr);
        ask(257, out);
        EXPECT_EQ(name_cache_count, 256);
        EXPECT_EQ(entry_of(1), nullptr) << "the last entry of the list, the first made";
        EXPECT_NE(entry_of(2), nullptr);
        EXPECT_EQ(name_cache_head, entry_of(257));
    }));
}

TEST(NameProbe, FullCacheDropsStaleEntriesFirst)
{
    EXPECT_TRUE(run_in_store([] {
        probe_method_head = nullptr;
        char out[65] = {};
        for (int i = 1; i <= NAME_CACHE_MAX; i++)
            ask(i, out);
        entry_of(10)->update_time -= NAME_STALE_S + 1;
        entry_of(20)->update_time -= NAME_STALE_S + 1;
        ask(257, out);
        EXPECT_EQ(name_cache_count, 255);
        EXPECT_EQ(entry_of(10), nullptr);
        EXPECT_EQ(entry_of(20), nullptr);
        EXPECT_NE(entry_of(1), nullptr);
    }));
}

TEST(NameProbe, NoMoreThan256Threads)
{
    EXPECT_TRUE(run_in_store([] {
        no_methods();
        {
            mutex_guard hold(name_cache_lock);
            probe_threads = PROBE_THREADS_MAX;
        }
        char out[65] = {};
        ask(6, out);
        EXPECT_EQ(entry_of(6)->state, NAME_IDLE) << "no thread, so the next pass tries again";
        {
            mutex_guard hold(name_cache_lock);
            probe_threads = 0;
        }
        ask(6, out);
        ASSERT_TRUE(threads_done());
        EXPECT_EQ(entry_of(6)->fail_count, 1);
    }));
}

TEST(NameProbe, WithoutIpv4OnlyTheIpv6QueryGoesOut)
{
    fake_method();
    char out[NAME_TEXT_MAX] = {};
    uint8_t mac[6] = {};
    EXPECT_EQ(name_probe_try_method("fe80::1", nullptr, out, &test_method, mac), 0);
    EXPECT_EQ(qlog.calls, (std::vector<std::string>{"v6 fe80::1 500", "v6 fe80::1 1000"}));
    qlog.calls.clear();
    probe_method netbios_like{PROBE_NETBIOS, PROBE_TIMEOUT_MS, fake_v4, nullptr, nullptr};
    EXPECT_EQ(name_probe_try_method("fe80::1", nullptr, out, &netbios_like, mac), 0);
    EXPECT_TRUE(qlog.calls.empty()) << "NetBIOS yields nothing without IPv4";
    EXPECT_EQ(name_probe_try_method("fe80::1", "192.168.1.9", out, &test_method, mac), 0);
    EXPECT_EQ(qlog.calls, (std::vector<std::string>{"v4 192.168.1.9 500", "v6 fe80::1 500", "v4 192.168.1.9 1000",
                                                    "v6 fe80::1 1000"}));
}

TEST(NameProbe, AllZeroIpv6SendsNothing)
{
    char out[NAME_TEXT_MAX] = {};
    uint8_t mac[6] = {};
    EXPECT_EQ(mdns_probe_v6("::", out, 500, mac), 0);
    EXPECT_EQ(mdns_probe_v6("0:0:ff::1", out, 500, mac), 0);
    EXPECT_EQ(mdns_probe_v6("not an address", out, 500, mac), 0);
}

TEST(NameProbe, LongResultIsCutTo64AndCounts65)
{
    EXPECT_TRUE(run_in_store([] {
        fake_method();
        qlog.name = std::string(100, 'n');
        qlog.result = 100;
        char out[65] = {};
        ask(7, out, 0x0701a8c0);
        ASSERT_TRUE(threads_done());
        EXPECT_EQ(ask(7, out), 65);
        EXPECT_EQ(std::string(out), std::string(64, 'n'));
        EXPECT_EQ(entry_of(7)->method, &test_method);
    }));
}

TEST(NameProbe, HitWithUnprintableBytesIsStoredCleaned)
{
    EXPECT_TRUE(run_in_store([] {
        fake_method();
        qlog.name = "tv\x01\xfe";
        qlog.result = 4;
        char out[65] = {};
        ask(8, out, 0x0801a8c0);
        ASSERT_TRUE(threads_done());
        EXPECT_EQ(ask(8, out), 4);
        EXPECT_STREQ(out, "tv^^");
    }));
}

TEST(NameProbe, NetbiosOverLoopbackStoresNameAndWorkgroup)
{
    EXPECT_TRUE(run_in_store([] {
        ASSERT_TRUE(bring_up_loopback());
        int fd = udp_socket(137);
        ASSERT_GE(fd, 0);
        std::thread t = respond_once(fd, [](const bytes &q) {
            uint16_t id = static_cast<uint16_t>(q[0] << 8 | q[1]);
            return netbios_reply(id, {netbios_entry("NAS", 0, 0x0400), netbios_entry("HOME", 0, 0x8400)});
        });
        char out[NAME_TEXT_MAX] = {};
        uint8_t mac[6];
        mac_of(mac, 9);
        EXPECT_EQ(netbios_probe("127.0.0.1", out, 2000, mac), 3);
        t.join();
        EXPECT_STREQ(out, "NAS");
        EXPECT_EQ(uci_get("fing." + regtest::hex_mac(9) + ".netbios_name"), "NAS");
        EXPECT_EQ(uci_get("fing." + regtest::hex_mac(9) + ".netbios_domain"), "HOME");
        EXPECT_EQ(uci_get("fing.global.mac_num"), "1");
    }));
}

TEST(NameProbe, NetbiosHostileNameNeverReachesTheStoreRaw)
{
    EXPECT_TRUE(run_in_store([] {
        ASSERT_TRUE(bring_up_loopback());
        int fd = udp_socket(137);
        ASSERT_GE(fd, 0);
        std::thread t = respond_once(fd, [](const bytes &q) {
            uint16_t id = static_cast<uint16_t>(q[0] << 8 | q[1]);
            return netbios_reply(id, {netbios_entry("$(reboot)\n'x", 0, 0x0400)});
        });
        char out[NAME_TEXT_MAX] = {};
        uint8_t mac[6];
        mac_of(mac, 10);
        EXPECT_EQ(netbios_probe("127.0.0.1", out, 2000, mac), 12);
        t.join();
        EXPECT_EQ(uci_get("fing." + regtest::hex_mac(10) + ".netbios_name"), "$(reboot)^'x");
    }));
}

TEST(NameProbe, SilentClientTimesOut)
{
    EXPECT_TRUE(run_in_store([] {
        ASSERT_TRUE(bring_up_loopback());
        char out[NAME_TEXT_MAX] = {};
        uint8_t mac[6] = {};
        int fd = udp_socket(137); // bound, never answers
        auto t0 = std::chrono::steady_clock::now();
        EXPECT_EQ(netbios_probe("127.0.0.1", out, 200, mac), 0);
        EXPECT_GE(std::chrono::steady_clock::now() - t0, std::chrono::milliseconds(190));
        close(fd);
    }));
}

TEST(NameProbe, MdnsIp4OverLoopback)
{
    EXPECT_TRUE(run_in_store([] {
        ASSERT_TRUE(bring_up_loopback());
        int fd = udp_socket(5353);
        ASSERT_GE(fd, 0);
        ip_mreqn mreq{};
        inet_pton(AF_INET, "224.0.0.251", &mreq.imr_multiaddr);
        mreq.imr_ifindex = static_cast<int>(if_nametoindex("lo"));
        ASSERT_EQ(setsockopt(fd, IPPROTO_IP, IP_ADD_MEMBERSHIP, &mreq, sizeof(mreq)), 0);
        std::strcpy(lan_info.ip, "127.0.0.1");
        std::thread t = respond_once(fd, [](const bytes &q) { return mdns_reply(q, {"living-room-tv", "local"}); });
        char out[NAME_TEXT_MAX] = {};
        uint8_t mac[6];
        mac_of(mac, 11);
        EXPECT_EQ(mdns_probe_v4("127.0.0.1", out, 2000, mac), 14);
        t.join();
        EXPECT_STREQ(out, "living-room-tv");
        EXPECT_EQ(uci_get("fing." + regtest::hex_mac(11) + ".mdns_name"), "living-room-tv");
    }));
}

namespace {

int ip_command(std::vector<const char *> args)
{
    args.insert(args.begin(), "ip");
    args.push_back(nullptr);
    return run_command_wait(args.data());
}

}  // namespace

TEST(NameProbe, MdnsIp6OverTheLanBridge)
{
    EXPECT_TRUE(run_in_store([] {
        ASSERT_TRUE(bring_up_loopback());
        // An empty LAN bridge with a link-local address usable at once.
        ASSERT_EQ(ip_command({"link", "add", "br-lan", "type", "bridge"}), 0);
        ASSERT_EQ(ip_command({"link", "set", "br-lan", "multicast", "on", "up"}), 0);
        ASSERT_EQ(ip_command({"addr", "add", "fe80::1/64", "dev", "br-lan", "nodad"}), 0);
        int fd = socket(AF_INET6, SOCK_DGRAM, 0);
        int one = 1;
        setsockopt(fd, IPPROTO_IPV6, IPV6_V6ONLY, &one, sizeof(one));
        sockaddr_in6 a{};
        a.sin6_family = AF_INET6;
        a.sin6_port = htons(5353);
        ASSERT_EQ(bind(fd, reinterpret_cast<sockaddr *>(&a), sizeof(a)), 0);
        ipv6_mreq mreq{};
        inet_pton(AF_INET6, "ff02::fb", &mreq.ipv6mr_multiaddr);
        mreq.ipv6mr_interface = if_nametoindex("br-lan");
        ASSERT_EQ(setsockopt(fd, IPPROTO_IPV6, IPV6_JOIN_GROUP, &mreq, sizeof(mreq)), 0);
        timeval tv{5, 0};
        setsockopt(fd, SOL_SOCKET, SO_RCVTIMEO, &tv, sizeof(tv));
        std::thread t([fd] {
            uint8_t buf[2048];
            sockaddr_in6 peer{};
            socklen_t plen = sizeof(peer);
            ssize_t n = recvfrom(fd, buf, sizeof(buf), 0, reinterpret_cast<sockaddr *>(&peer), &plen);
            if (n > 0) {
                bytes reply = mdns_reply(bytes(buf, buf + n), {"printer", "local"});
                sendto(fd, reply.data(), reply.size(), 0, reinterpret_cast<sockaddr *>(&peer), plen);
            }
            close(fd);
        });
        char out[NAME_TEXT_MAX] = {};
        uint8_t mac[6];
        mac_of(mac, 12);
        int got = mdns_probe_v6("fe80::1", out, 2000, mac);
        t.join();
        EXPECT_GT(got, 103) << "the bytes received";
        EXPECT_STREQ(out, "printer");
        EXPECT_EQ(uci_get("fing." + regtest::hex_mac(12) + ".mdns_name"), "") << "the IPv6 query stores nothing";
    }));
}
