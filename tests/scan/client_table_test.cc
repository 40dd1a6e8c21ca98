#include "scan/client_table.h"

#include <gtest/gtest.h>

#include <arpa/inet.h>
#include <chrono>
#include <cstring>
#include <fcntl.h>
#include <mutex>
#include <set>
#include <sys/socket.h>
#include <unistd.h>
#include <vector>

#include "scan/lan_info.h"
#include "scan/lease.h"
#include "scan/neigh.h"
#include "tests/scan/nl_build.h"

using nlb::bytes;

namespace {

using mac_t = std::vector<uint8_t>;
using probe_key = std::pair<uint32_t, mac_t>;

uint32_t ip_of(const char *text)
{
    uint32_t ip = 0;
    inet_pton(AF_INET, text, &ip);
    return ip;
}

mac_t mac_of(const uint8_t *m)
{
    return mac_t(m, m + 6);
}

// The system as the pass sees it, played by the test.
struct fake_system {
    bytes dump;
    bool dump_fails = false;
    std::set<mac_t> stations;
    std::set<probe_key> answering;
    std::set<probe_key> answering_second_check;
    // When set, replies are held back until this many requests went out,
    // then all written at once, as when two requests leave back to back.
    size_t batch_replies = 0;
    std::vector<probe_key> held;
    std::vector<lease_row> leases;

    std::mutex m;
    std::vector<probe_key> sent;
    std::vector<std::pair<probe_key, int>> checked;
    std::vector<int> peers;
};
fake_system *sys = nullptr;

void reply_frame(int fd, uint32_t ip, const uint8_t mac[6])
{
    uint8_t f[42] = {};
    f[12] = 0x08;
    f[13] = 0x06;
    f[21] = 2;
    std::memcpy(f + 22, mac, 6);
    std::memcpy(f + 28, &ip, 4);
    ssize_t r = send(fd, f, sizeof(f), MSG_NOSIGNAL);
    (void)r;
}

struct probe_lock_ref {
    void lock() { pthread_mutex_lock(&arp_probe_lock); }
    void unlock() { pthread_mutex_unlock(&arp_probe_lock); }
};
probe_lock_ref &arp_probe_lock_guard()
{
    static probe_lock_ref ref;
    return ref;
}

int fake_dump(uint8_t **buf, int *cap) noexcept
{
    if (sys->dump_fails)
        return -1;
    return append_datagram(buf, cap, 0, std::span<const uint8_t>(sys->dump.data(), sys->dump.size()));
}

int fake_station(const uint8_t mac[6]) noexcept
{
    return sys->stations.count(mac_of(mac)) ? 1 : -1;
}

int fake_open() noexcept
{
    int sv[2];
    if (socketpair(AF_UNIX, SOCK_DGRAM, 0, sv) != 0)
        return -1;
    std::lock_guard lk(sys->m);
    sys->peers.push_back(sv[1]);
    return sv[0];
}

// The sender's socket: any descriptor will do, the fake send ignores it.
int fake_send_socket() noexcept
{
    return open("/dev/null", O_WRONLY | O_CLOEXEC);
}

int fake_send(int, uint32_t ip, const uint8_t mac[6]) noexcept
{
    std::lock_guard lk(sys->m);
    probe_key k{ip, mac_of(mac)};
    sys->sent.push_back(k);
    if (!sys->answering.count(k))
        return 0;
    if (!sys->batch_replies) {
        reply_frame(sys->peers.back(), ip, mac);
        return 0;
    }
    sys->held.push_back(k);
    if (sys->sent.size() == sys->batch_replies) {
        // The receive loop takes the probe lock for each reply, so it can't
        // look at the probes between these writes.
        std::lock_guard probes(arp_probe_lock_guard());
        for (auto &h : sys->held)
            reply_frame(sys->peers.back(), h.first, h.second.data());
    }
    return 0;
}

int fake_check(int, uint32_t ip, const uint8_t mac[6], int wait_ms) noexcept
{
    std::lock_guard lk(sys->m);
    probe_key k{ip, mac_of(mac)};
    sys->checked.push_back({k, wait_ms});
    if (sys->answering.count(k))
        return 1;
    return wait_ms == ARP_CHECK_SECOND_MS && sys->answering_second_check.count(k) ? 1 : 0;
}

int fake_leases(lease_row **rows, int *cap) noexcept
{
    int n = static_cast<int>(sys->leases.size());
    if (n > *cap)
        return -2;
    for (int i = 0; i < n; i++)
        (*rows)[i] = sys->leases[i];
    return n;
}

std::vector<client_table_entry *> entries()
{
    std::vector<client_table_entry *> out;
    for (client_table_entry *e = client_table.head; e; e = e->next)
        out.push_back(e);
    return out;
}

class ScanPass : public ::testing::Test {
protected:
    void SetUp() override
    {
        sys = &fake_;
        saved_lan_ = lan_info;
        copy_ip("192.168.1.1");
        lan_info.prefix_len = 24;
        scan_backend = scan_backend_default;
        scan_backend.dump = fake_dump;
        scan_backend.station_is_active = fake_station;
        scan_backend.open_arp_socket = fake_open;
        scan_backend.open_send_socket = fake_send_socket;
        scan_backend.send_arp = fake_send;
        scan_backend.arp_check = fake_check;
        scan_backend.read_leases = fake_leases;
        scan_backend.arp_wait_ms = 300;
        free_client_table_locked();
        for (auto &row : arp_item)
            row = {};
        fake_.dump = nlb::done_msg();
    }
    void TearDown() override
    {
        free_client_table_locked();
        for (int fd : fake_.peers)
            close(fd);
        scan_backend = scan_backend_default;
        lan_info = saved_lan_;
        sys = nullptr;
    }
    static void copy_ip(const char *ip) { std::snprintf(lan_info.ip, sizeof(lan_info.ip), "%s", ip); }

    void add_neigh(const char *ip, const mac_t &mac, uint16_t state = NUD_REACHABLE)
    {
        bytes done = nlb::done_msg();
        fake_.dump.resize(fake_.dump.size() - done.size());
        bytes m = nlb::neigh_msg({.state = state, .ip = ip, .mac = mac});
        fake_.dump.insert(fake_.dump.end(), m.begin(), m.end());
        fake_.dump.insert(fake_.dump.end(), done.begin(), done.end());
    }
    void answer(const char *ip, const mac_t &mac) { fake_.answering.insert({ip_of(ip), mac}); }
    void remember(const char *ip, const mac_t &mac)
    {
        struct arp_item &row = arp_row(ip_of(ip));
        row.ip = ip_of(ip);
        std::memcpy(row.mac, mac.data(), 6);
        row.active = 1;
    }
    // Runs one pass and returns its result, noting how long it took.
    int pass()
    {
        auto t0 = std::chrono::steady_clock::now();
        int r = create_client_table();
        elapsed_ms_ = std::chrono::duration_cast<std::chrono::milliseconds>(std::chrono::steady_clock::now() - t0).count();
        return r;
    }

    fake_system fake_;
    struct lan_info saved_lan_ {};
    long elapsed_ms_ = 0;
};

}  // namespace

TEST_F(ScanPass, WiredClientAnsweringArpWithoutLeaseIsNetworkDevice)
{
    mac_t m = nlb::mac(10);
    add_neigh("192.168.1.10", m);
    answer("192.168.1.10", m);
    scan_backend.arp_wait_ms = 3000;
    ASSERT_EQ(pass(), 1);
    auto e = entries();
    ASSERT_EQ(e.size(), 1u);
    EXPECT_STREQ(e[0]->hostname, "network device");
    EXPECT_EQ(e[0]->ip, ip_of("192.168.1.10"));
    EXPECT_EQ(mac_of(e[0]->mac), m);
    EXPECT_EQ(e[0]->device_type, -1);
    EXPECT_EQ(e[0]->type_source, TYPE_SOURCE_NONE);
    EXPECT_EQ(e[0]->wire_type, 0);
    EXPECT_STREQ(e[0]->ifname, "");
    EXPECT_FALSE(fake_.sent.empty());
    EXPECT_EQ(arp_item[10].active, 1);
    EXPECT_EQ(arp_item[10].ip, ip_of("192.168.1.10"));
    // The wait ends with the last answer, not at the limit.
    EXPECT_LT(elapsed_ms_, 2000);
}

TEST_F(ScanPass, ActiveStationWithOneAddressNeedsNoFrame)
{
    mac_t m = nlb::mac(11);
    add_neigh("192.168.1.11", m);
    fake_.stations.insert(m);
    ASSERT_EQ(pass(), 1);
    EXPECT_TRUE(fake_.sent.empty());
    EXPECT_TRUE(fake_.checked.empty());
    EXPECT_EQ(arp_item[11].active, 1);
}

TEST_F(ScanPass, ActiveStationWithTwoAddressesGoesThroughArp)
{
    mac_t m = nlb::mac(12);
    add_neigh("192.168.1.20", m);
    add_neigh("192.168.1.21", m);
    fake_.stations.insert(m);
    answer("192.168.1.20", m);
    answer("192.168.1.21", m);
    fake_.batch_replies = 2;
    ASSERT_EQ(pass(), 2);
    std::set<uint32_t> ips;
    for (auto *e : entries())
        ips.insert(e->ip);
    EXPECT_EQ(ips, (std::set<uint32_t>{ip_of("192.168.1.20"), ip_of("192.168.1.21")}));
    EXPECT_GE(fake_.sent.size(), 1u);
}

TEST_F(ScanPass, FailedNeighbourWithoutMacClearsItsRow)
{
    mac_t m = nlb::mac(30);
    remember("192.168.1.30", m);
    answer("192.168.1.30", m);
    bytes done = nlb::done_msg();
    fake_.dump = nlb::cat({nlb::neigh_msg({.state = NUD_FAILED, .ip = "192.168.1.30"}), done});
    ASSERT_EQ(pass(), 0);
    EXPECT_EQ(arp_item[30].ip, 0u);
    // Cleared before the remembered check, so it was not even asked.
    EXPECT_TRUE(fake_.checked.empty());
}

TEST_F(ScanPass, OutsideTheSubnetIsIgnoredAndItsRowCleared)
{
    mac_t a = nlb::mac(5), b = nlb::mac(6);
    add_neigh("10.0.0.5", a);
    answer("10.0.0.5", a);
    remember("10.0.0.6", b);
    answer("10.0.0.6", b);
    ASSERT_EQ(pass(), 0);
    EXPECT_TRUE(fake_.sent.empty());
    EXPECT_TRUE(fake_.checked.empty());
    EXPECT_EQ(arp_item[6].ip, 0u);
    EXPECT_EQ(arp_item[5].ip, 0u);
}

TEST_F(ScanPass, TwoProbesOfOneMacEndWithTheFirstReply)
{
    mac_t m = nlb::mac(40);
    add_neigh("192.168.1.40", m);
    add_neigh("192.168.1.41", m);
    remember("192.168.1.41", m);
    answer("192.168.1.40", m);
    scan_backend.arp_wait_ms = 3000;
    ASSERT_EQ(pass(), 1);
    EXPECT_LT(elapsed_ms_, 2000);
    auto e = entries();
    ASSERT_EQ(e.size(), 1u);
    EXPECT_EQ(e[0]->ip, ip_of("192.168.1.40"));
    EXPECT_EQ(arp_item[41].ip, 0u);
    EXPECT_EQ(arp_item[40].active, 1);
}

TEST_F(ScanPass, EmptyTablesGiveAnEmptyList)
{
    ASSERT_EQ(pass(), 0);
    EXPECT_EQ(client_table.head, nullptr);
    EXPECT_EQ(client_table.tail, nullptr);
}

TEST_F(ScanPass, SilentClientGetsNoEntryAndLosesItsRow)
{
    mac_t m = nlb::mac(50);
    add_neigh("192.168.1.50", m);
    remember("192.168.1.50", m);
    ASSERT_EQ(pass(), 0);
    EXPECT_EQ(arp_item[50].ip, 0u);
    EXPECT_GE(elapsed_ms_, 300);
    // Both rounds of the sender asked.
    EXPECT_EQ(fake_.sent.size(), 2u);
}

TEST_F(ScanPass, RememberedNeighbourThatAnswersIsKept)
{
    mac_t m = nlb::mac(60);
    remember("192.168.1.60", m);
    answer("192.168.1.60", m);
    ASSERT_EQ(pass(), 1);
    auto e = entries();
    ASSERT_EQ(e.size(), 1u);
    EXPECT_EQ(e[0]->ip, ip_of("192.168.1.60"));
    EXPECT_STREQ(e[0]->hostname, "network device");
    EXPECT_EQ(arp_item[60].active, 1);
    ASSERT_EQ(fake_.checked.size(), 1u);
    EXPECT_EQ(fake_.checked[0].second, ARP_CHECK_FIRST_MS);
}

TEST_F(ScanPass, RememberedNeighbourGetsASecondChance)
{
    mac_t m = nlb::mac(61);
    remember("192.168.1.61", m);
    fake_.answering_second_check.insert({ip_of("192.168.1.61"), m});
    ASSERT_EQ(pass(), 1);
    ASSERT_EQ(fake_.checked.size(), 2u);
    EXPECT_EQ(fake_.checked[1].second, ARP_CHECK_SECOND_MS);
}

TEST_F(ScanPass, RememberedActiveStationIsKeptWithoutAsking)
{
    mac_t m = nlb::mac(62);
    remember("192.168.1.62", m);
    fake_.stations.insert(m);
    ASSERT_EQ(pass(), 1);
    EXPECT_TRUE(fake_.checked.empty());
}

TEST_F(ScanPass, SilentRememberedNeighbourIsDropped)
{
    mac_t m = nlb::mac(63);
    remember("192.168.1.63", m);
    ASSERT_EQ(pass(), 0);
    EXPECT_EQ(arp_item[63].ip, 0u);
    EXPECT_EQ(fake_.checked.size(), 2u);
}

TEST_F(ScanPass, NoArpSocketSkipsVerificationSilently)
{
    mac_t m = nlb::mac(70);
    add_neigh("192.168.1.70", m);
    remember("192.168.1.71", nlb::mac(71));
    scan_backend.open_arp_socket = []() noexcept { return -1; };
    ASSERT_EQ(pass(), 0);
    // The unverified probe loses its row; the remembered one is untouched.
    EXPECT_EQ(arp_item[71].ip, ip_of("192.168.1.71"));
}

TEST_F(ScanPass, NoArpStateIsIgnored)
{
    mac_t m = nlb::mac(72);
    add_neigh("192.168.1.72", m, NUD_NOARP);
    fake_.stations.insert(m);
    ASSERT_EQ(pass(), 0);
}

TEST_F(ScanPass, LeaseStarNeverNamesAClient)
{
    mac_t a = nlb::mac(80), b = nlb::mac(81);
    add_neigh("192.168.1.80", a);
    add_neigh("192.168.1.81", b);
    fake_.stations = {a, b};
    lease_row star{};
    std::memcpy(star.mac, a.data(), 6);
    std::strcpy(star.hostname, "*");
    std::strcpy(star.ip, "192.168.1.80");
    star.type = -1;
    lease_row named{};
    std::memcpy(named.mac, b.data(), 6);
    std::strcpy(named.hostname, "laptop");
    std::strcpy(named.ip, "192.168.1.81");
    named.type = 7;
    fake_.leases = {star, named};
    ASSERT_EQ(pass(), 2);
    client_table_entry *ea = find_entry_by_mac(a.data());
    client_table_entry *eb = find_entry_by_mac(b.data());
    ASSERT_TRUE(ea && eb);
    EXPECT_STREQ(ea->hostname, "network device");
    EXPECT_EQ(ea->device_type, -1);
    EXPECT_STREQ(eb->hostname, "laptop");
    EXPECT_EQ(eb->device_type, 7);
    EXPECT_EQ(eb->type_source, TYPE_SOURCE_LEASE);
}

TEST_F(ScanPass, LeaseByAddressNamesAClient)
{
    mac_t a = nlb::mac(82);
    add_neigh("192.168.1.82", a);
    fake_.stations = {a};
    lease_row byip{};
    std::memcpy(byip.mac, nlb::mac(99).data(), 6);
    std::strcpy(byip.hostname, "printer");
    std::strcpy(byip.ip, "192.168.1.82");
    byip.type = -1;
    fake_.leases = {byip};
    ASSERT_EQ(pass(), 1);
    EXPECT_STREQ(client_table.head->hostname, "printer");
}

TEST_F(ScanPass, BusyTableGivesMinusTwo)
{
    mac_t m = nlb::mac(90);
    add_neigh("192.168.1.90", m);
    fake_.stations = {m};
    ASSERT_EQ(pass(), 1);
    pthread_rwlock_wrlock(&client_table_lock);
    EXPECT_EQ(create_client_table(), -2);
    pthread_rwlock_unlock(&client_table_lock);
    // The list of the last pass is still there.
    EXPECT_NE(client_table.head, nullptr);
}

TEST_F(ScanPass, FailedDumpKeepsTheLastList)
{
    mac_t m = nlb::mac(91);
    add_neigh("192.168.1.91", m);
    fake_.stations = {m};
    ASSERT_EQ(pass(), 1);
    fake_.dump_fails = true;
    testing::internal::CaptureStderr();
    EXPECT_EQ(pass(), -1);
    EXPECT_EQ(testing::internal::GetCapturedStderr(), "ARP_sniffer: get neigh failed.\n");
    EXPECT_NE(client_table.head, nullptr);
}

TEST_F(ScanPass, EntriesKeepOrderOfDiscovery)
{
    for (int i = 1; i <= 20; i++) {
        std::string ip = "192.168.1." + std::to_string(100 + i);
        add_neigh(ip.c_str(), nlb::mac(uint8_t(i)));
        answer(ip.c_str(), nlb::mac(uint8_t(i)));
    }
    scan_backend.arp_wait_ms = 3000;
    ASSERT_EQ(pass(), 20);
    EXPECT_LT(elapsed_ms_, 2000);
    std::set<uint32_t> ips;
    for (auto *e : entries())
        ips.insert(e->ip);
    EXPECT_EQ(ips.size(), 20u);
}
