// get_hist_list_new: filters, key order, and the rules of each key.
#include <gtest/gtest.h>

#include <arpa/inet.h>

#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

#include "bus/client_list.h"
#include "bus/mac_text.h"
#include "bus/ubus_server.h"
#include "bus_test_util.h"
#include "db/system_info.h"
#include "registry/client_node.h"
#include "registry_test_util.h"
#include "scan/lan_info.h"

using bus_test::keys_of;
using bus_test::table;
using bus_test::tables_of;
using bus_test::value_of;

namespace
{

constexpr time_t NOW = 1700000000;

// What the fake sources deliver; an empty vector is a failed source.
struct fake_sources {
    std::vector<tfstats_entry> tfstats, wlan_tf, lan_tf;
    std::vector<wireless_station> stations;
    std::vector<fing_info> fing;
    std::vector<device_type_info> categories;
    std::vector<uint8_t> heavy, mesh_agents, gaming;
    int file_client_calls = 0;
    // The wired traffic service answered with no row at all.
    bool lan_tf_answered_empty = false;
};
fake_sources fake;

template <typename T> int deliver(const std::vector<T> &rows, T **out, int *count) noexcept
{
    *out = nullptr;
    *count = 0;
    if (rows.empty())
        return -1;
    *out = static_cast<T *>(std::malloc(rows.size() * sizeof(T)));
    std::memcpy(static_cast<void *>(*out), rows.data(), rows.size() * sizeof(T));
    *count = static_cast<int>(rows.size());
    return 0;
}

int deliver_macs(const std::vector<uint8_t> &macs, uint8_t **out, int *count) noexcept
{
    *out = nullptr;
    *count = 0;
    if (macs.empty())
        return -1;
    *out = static_cast<uint8_t *>(std::malloc(macs.size()));
    std::memcpy(*out, macs.data(), macs.size());
    *count = static_cast<int>(macs.size() / 6);
    return 0;
}

// The readers of other services give their rows from
// here; the file clients come from the real reader of the daemon's package
// (counted). The clock is fixed so that times read exactly.
const hist_source_ops fake_ops = {
    [](tfstats_entry **e, int *c) noexcept { return deliver(fake.tfstats, e, c); },
    [](tfstats_entry **w, tfstats_entry **l, int *wc, int *lc) noexcept {
        deliver(fake.wlan_tf, w, wc);
        deliver(fake.lan_tf, l, lc);
        if (fake.lan_tf_answered_empty)
            *l = static_cast<tfstats_entry *>(std::calloc(1, sizeof(tfstats_entry)));
        return 0;
    },
    [](uint8_t **m, int *c) noexcept { return deliver_macs(fake.heavy, m, c); },
    [](wireless_station **r, int *c) noexcept { return deliver(fake.stations, r, c); },
    [](fing_info **r, int *c) noexcept { return deliver(fake.fing, r, c); },
    [](device_type_info **r, int *c) noexcept { return deliver(fake.categories, r, c); },
    [](uint8_t **m, int *c) noexcept { return deliver_macs(fake.mesh_agents, m, c); },
    [](uint8_t **m, int *c) noexcept { return deliver_macs(fake.gaming, m, c); },
    [](file_client **r, int *c) noexcept {
        ++fake.file_client_calls;
        return get_lanroster_file_clients(r, c);
    },
    // The vendor dictionary runs here: the real lookup.
    query_name_by_mac_oui_v2,
    []() noexcept { return NOW; },
};

void mac_of(uint8_t last, uint8_t (&mac)[6])
{
    const uint8_t m[6] = {0x02, 0x00, 0x00, 0x00, 0x00, last};
    std::memcpy(mac, m, 6);
}

std::vector<uint8_t> macs(std::initializer_list<uint8_t> lasts)
{
    std::vector<uint8_t> out;
    for (uint8_t l : lasts) {
        for (uint8_t b : {0x02, 0x00, 0x00, 0x00, 0x00})
            out.push_back(b);
        out.push_back(l);
    }
    return out;
}

class ClientList : public ::testing::Test
{
  protected:
    void SetUp() override
    {
        fake = {};
        hist_sources = fake_ops;
        system_info = {};
        is_mesh_agent = true;
        std::strcpy(main_device_mac, "02-AA-00-00-00-01");
        std::strcpy(main_device_id, "main-id");
        std::strcpy(self_mac, "02AA00000002");
        lan_info = {};
        set_history_list(nullptr);
    }
    void TearDown() override
    {
        set_history_list(nullptr);
        for (int i = 0; i < used_; ++i)
            free_ip6_globals(&nodes_[i]);
        hist_sources = hist_sources_default;
        system_info = {};
        uloop_timeout_cancel(&mac_oui_dict_clean_timeout);
        mac_oui_dict_clean_cb(&mac_oui_dict_clean_timeout);
    }
    // A record at the end of the list, with the defaults of a fresh one.
    client_node &add(uint8_t last, uint8_t status, uint8_t wire_type = 10)
    {
        client_node &n = nodes_[used_++];
        n = {};
        mac_of(last, n.mac);
        n.status = status;
        n.wire_type = wire_type;
        n.guest = 2;
        n.ip = htonl(0xC0A80100 | last);
        n.device_type = -1;
        n.type_source = 4;
        n.prio_time = -1;
        n.time_period = -1;
        n.owner_id = -1;
        n.slots[0] = 0xff;
        n.access_time = NOW - 100;
        std::snprintf(n.hostname, sizeof(n.hostname), "host-%u", last);
        std::snprintf(n.ifname, sizeof(n.ifname), "lan%u", last % 4);
        if (used_ > 1)
            nodes_[used_ - 2].next = &n;
        else
            set_history_list(&n);
        return n;
    }
    static hist_list_request all(int32_t online_type)
    {
        return {online_type, 1, 1, 1, 1, 1, 1, 1, 1, 1};
    }
    static hist_list_request plain(int32_t online_type)
    {
        return {online_type, 0, 0, 0, 0, 0, 0, 0, 0, 0};
    }
    std::vector<table> query(const hist_list_request &r)
    {
        compose_hist_list_new(r);
        return tables_of(reply_buf.head, "client_list");
    }
    static std::vector<std::string> hostnames(const std::vector<table> &list)
    {
        std::vector<std::string> out;
        for (const table &t : list)
            out.push_back(value_of(t, "mac").substr(15));
        return out;
    }
    client_node nodes_[16]{};
    int used_ = 0;
};

using names = std::vector<std::string>;

TEST_F(ClientList, OnlineTypeTwoListsEveryoneInListOrder)
{
    add(1, STATUS_ONLINE_LAST_TIME);
    add(2, STATUS_NEW_ACCESS);
    add(3, STATUS_MESH_ONLINE);
    add(4, STATUS_DISCONNECT);
    add(5, STATUS_EVENT_OFFLINE);
    EXPECT_EQ(hostnames(query(plain(2))), (names{"01", "02", "03", "04", "05"}));
    EXPECT_EQ(hostnames(query(plain(-7))), (names{"01", "02", "03", "04", "05"}));
}

TEST_F(ClientList, OnlineAndOfflineFiltersAreNotMirrors)
{
    add(1, STATUS_ONLINE_LAST_TIME);
    add(2, STATUS_NEW_ACCESS);
    add(3, STATUS_EVENT_ONLINE);
    add(4, STATUS_DISCONNECT);
    add(5, STATUS_EVENT_OFFLINE);
    EXPECT_EQ(hostnames(query(plain(1))), (names{"01", "02", "03"}));
    EXPECT_EQ(hostnames(query(plain(0))), (names{"02", "04", "05"}));
}

TEST_F(ClientList, EveryKeyInOrderWithEverythingAsked)
{
    system_info = {.sys_mode = 0,
                   .wan_type = 0,
                   .qos_enable = 1,
                   .support_tfstats = 1,
                   .support_tfstats_workaround = 0,
                   .access_enable = 1,
                   .access_mode_black = 1,
                   .support_high_bandwidth_occupancy = 1,
                   .support_client_speed_limit = 1,
                   .support_qos_schedule = 1,
                   .support_easymesh = 0,
                   .support_weavelink = 0,
                   .support_mlo = 1,
                   .support_gaming_lan = 1};
    client_node &n = add(1, STATUS_ONLINE_LAST_TIME, 2);
    n.is_mesh_client = 1;
    n.connect_device_mac[0] = 0x02;
    n.connect_device_mac[5] = 0x77;
    auto list = query(all(2));
    ASSERT_EQ(list.size(), 1u);
    EXPECT_EQ(keys_of(list[0]), (names{"mac",
                                       "wire_type",
                                       "guest",
                                       "device_type",
                                       "access_time",
                                       "access_uptime",
                                       "online_time",
                                       "hostname",
                                       "signal",
                                       "rxrate",
                                       "txrate",
                                       "mlo_valid_2G",
                                       "mlo_valid_5G",
                                       "mlo_valid_6G",
                                       "enableLimit",
                                       "uploadLimit",
                                       "downloadLimit",
                                       "connect_status",
                                       "ip",
                                       "prio",
                                       "prio_time",
                                       "time_period",
                                       "remainTime",
                                       "trafficUsage",
                                       "uploadSpeed",
                                       "downloadSpeed",
                                       "owner_id",
                                       "owner_name",
                                       "global_state",
                                       "ip6_local",
                                       "global_ip_num",
                                       "isHighBandwidthOccupancy",
                                       "schedule_enable",
                                       "time_mode",
                                       "slots",
                                       "repeats",
                                       "qos_status",
                                       "brand",
                                       "sys_version",
                                       "connect_device_mac",
                                       "mesh_agent",
                                       "connect_device_id",
                                       "ifname",
                                       "is_accessed_gaming_lan"}));
    const table &t = list[0];
    EXPECT_EQ(value_of(t, "mac"), "02-00-00-00-00-01");
    EXPECT_EQ(value_of(t, "wire_type"), "5G");
    EXPECT_EQ(value_of(t, "guest"), "NON_GUEST");
    EXPECT_EQ(value_of(t, "device_type"), "Other");
    EXPECT_EQ(value_of(t, "online_time"), "100");
    EXPECT_EQ(value_of(t, "hostname"), "host-1");
    EXPECT_EQ(value_of(t, "enableLimit"), "off");
    EXPECT_EQ(value_of(t, "connect_status"), "1");
    EXPECT_EQ(value_of(t, "ip"), "192.168.1.1");
    EXPECT_EQ(value_of(t, "prio"), "off");
    EXPECT_EQ(value_of(t, "remainTime"), "-1");
    EXPECT_EQ(value_of(t, "trafficUsage"), "0");
    EXPECT_EQ(value_of(t, "owner_id"), "-1");
    EXPECT_EQ(value_of(t, "owner_name"), "");
    EXPECT_EQ(value_of(t, "global_state"), "NO_ITEM");
    EXPECT_EQ(value_of(t, "ip6_local"), "::");
    EXPECT_EQ(value_of(t, "global_ip_num"), "0");
    EXPECT_EQ(value_of(t, "isHighBandwidthOccupancy"), "0");
    EXPECT_EQ(value_of(t, "slots"), "");
    EXPECT_EQ(value_of(t, "time_mode"), "period");
    EXPECT_EQ(value_of(t, "brand"), "");
    EXPECT_EQ(value_of(t, "connect_device_mac"), "02-00-00-00-00-77");
    EXPECT_EQ(value_of(t, "mesh_agent"), "1");
    EXPECT_EQ(value_of(t, "connect_device_id"), "main-id");
    EXPECT_EQ(value_of(t, "ifname"), "lan1");
    EXPECT_EQ(value_of(t, "is_accessed_gaming_lan"), "0");
}

TEST_F(ClientList, PlainRequestHasTheAlwaysKeysOnly)
{
    add(1, STATUS_DISCONNECT);
    auto list = query(plain(2));
    ASSERT_EQ(list.size(), 1u);
    EXPECT_EQ(keys_of(list[0]),
              (names{"mac", "wire_type", "guest", "device_type", "access_time", "access_uptime",
                     "online_time", "hostname", "connect_status", "ip", "owner_id", "owner_name", "brand",
                     "sys_version", "connect_device_mac", "connect_device_id"}));
    EXPECT_EQ(value_of(list[0], "online_time"), "0");
    EXPECT_EQ(value_of(list[0], "connect_device_mac"), "02-AA-00-00-00-01");
}

TEST_F(ClientList, BlockedOnlineClientOnABlackListSystem)
{
    system_info.access_enable = 1;
    system_info.access_mode_black = 1;
    client_node &n = add(1, STATUS_ONLINE_LAST_TIME, 2);
    n.blocked = 1;
    auto r = plain(1);
    r.access_limit = 1;
    auto list = query(r);
    ASSERT_EQ(list.size(), 1u);
    EXPECT_EQ(value_of(list[0], "connect_status"), "0");
    EXPECT_EQ(value_of(list[0], "ip"), "0.0.0.0");
    EXPECT_EQ(value_of(list[0], "wire_type"), "5G");
    EXPECT_EQ(value_of(list[0], "ifname"), "lan1");
    r.access_limit = 0;
    list = query(r);
    EXPECT_EQ(value_of(list[0], "connect_status"), "1");
    EXPECT_EQ(value_of(list[0], "ip"), "192.168.1.1");
}

TEST_F(ClientList, OfflineClientKeepsItsGuestText)
{
    add(1, STATUS_DISCONNECT, 10).guest = 1;
    add(2, STATUS_DISCONNECT, 1).guest = 1;
    add(3, STATUS_EVENT_OFFLINE, 1).guest = 0;
    auto list = query(plain(0));
    ASSERT_EQ(list.size(), 3u);
    EXPECT_EQ(value_of(list[0], "wire_type"), "offline");
    EXPECT_EQ(value_of(list[0], "guest"), "NON_GUEST");
    EXPECT_EQ(value_of(list[1], "guest"), "GUEST");
    EXPECT_EQ(value_of(list[2], "guest"), "UNKONW");
    EXPECT_EQ(value_of(list[2], "ifname"), "<absent>");
}

TEST_F(ClientList, RadioKeysFallBackToTheMeshPeersValues)
{
    add(1, STATUS_ONLINE_LAST_TIME, 1).signal = -75;
    add(2, STATUS_ONLINE_LAST_TIME, 10);
    add(3, STATUS_ONLINE_LAST_TIME, 0);
    client_node &peer = add(4, STATUS_MESH_ONLINE, 2);
    peer.signal = -42;
    peer.rxrate = 866;
    peer.txrate = 300;
    auto r = plain(1);
    r.wireless = 1;
    auto list = query(r);
    ASSERT_EQ(list.size(), 4u);
    EXPECT_EQ(value_of(list[0], "signal"), "-60");
    EXPECT_EQ(value_of(list[0], "rxrate"), "5000");
    EXPECT_EQ(value_of(list[0], "txrate"), "1000");
    EXPECT_EQ(value_of(list[1], "signal"), "<absent>");
    EXPECT_EQ(value_of(list[2], "signal"), "<absent>");
    EXPECT_EQ(value_of(list[3], "signal"), "-42");
    EXPECT_EQ(value_of(list[3], "rxrate"), "866000");
    EXPECT_EQ(value_of(list[3], "txrate"), "300000");
    EXPECT_EQ(value_of(list[3], "mlo_valid_2G"), "<absent>");
}

TEST_F(ClientList, RadioKeysFromAStationRowWithMloLinks)
{
    system_info.support_mlo = 1;
    add(1, STATUS_ONLINE_LAST_TIME, 10);
    wireless_station s{};
    mac_of(1, s.mac);
    s.signal = -51;
    s.rxrate = 1200000;
    s.txrate = 960000;
    s.mlo_valid_5G = 1;
    s.mlo_rx_rate_5G = 800000;
    s.mlo_tx_rate_5G = 600000;
    fake.stations = {s};
    auto r = plain(1);
    r.wireless = 1;
    auto list = query(r);
    ASSERT_EQ(list.size(), 1u);
    auto k = keys_of(list[0]);
    auto at = std::find(k.begin(), k.end(), "signal");
    ASSERT_NE(at, k.end());
    EXPECT_EQ(names(at, at + 9),
              (names{"signal", "rxrate", "txrate", "mlo_valid_2G", "mlo_valid_5G", "mlo_rx_rate_5G",
                     "mlo_tx_rate_5G", "mlo_valid_6G", "connect_status"}));
    EXPECT_EQ(value_of(list[0], "signal"), "-51");
    EXPECT_EQ(value_of(list[0], "mlo_rx_rate_5G"), "800000");
}

TEST_F(ClientList, SlotsArePaddedForRecordsAndNotForFileClients)
{
    system_info.support_qos_schedule = 1;
    client_node &n = add(1, STATUS_ONLINE_LAST_TIME);
    const uint8_t slots[4] = {8, 5, 22, 30};
    std::memcpy(n.slots, slots, 4);
    n.time_mode = 2;
    ASSERT_TRUE(regtest::run_in_sandbox([&] {
        regtest::write_file("/etc/config/lanroster",
                            "config client\n\toption mac '02-00-00-00-00-09'\n\toption slots '0805 2230'\n");
        auto r = plain(2);
        r.qos_schedule = 1;
        r.lanroster_file = 1;
        auto list = query(r);
        ASSERT_EQ(list.size(), 1u);
        EXPECT_EQ(value_of(list[0], "slots"), "08:05-22:30");
        EXPECT_EQ(value_of(list[0], "time_mode"), "schedule");
        auto files = tables_of(reply_buf.head, "file_client_list");
        ASSERT_EQ(files.size(), 1u);
        EXPECT_EQ(value_of(files[0], "slots"), "8:5-22:30");
    }));
}

TEST_F(ClientList, FileClientTable)
{
    system_info.support_easymesh = 1;
    fake.mesh_agents = macs({8});
    ASSERT_TRUE(regtest::run_in_sandbox([&] {
        std::string common = "\toption prio 'on'\n\toption prio_time '" + std::to_string(NOW + 60) +
                             "'\n\toption owner_id '3'\n";
        regtest::write_file("/etc/config/lanroster",
                            "config client\n\toption mac '02-00-00-00-00-09'\n" + common +
                                "config client\n\toption mac '02-00-00-00-00-08'\n" + common +
                                "config client\n\toption mac '02-00-00-00-00-07'\n\toption name 'tv'\n"
                                "\toption type 'Television'\n" +
                                common);
        auto r = plain(2);
        r.lanroster_file = 1;
        query(r);
        auto files = tables_of(reply_buf.head, "file_client_list");
        ASSERT_EQ(files.size(), 2u);
        EXPECT_EQ(keys_of(files[0]),
                  (names{"mac", "name", "type", "prio", "prio_time", "time_period", "owner_id", "access_time",
                         "remainTime", "connect_device_mac", "connect_device_id"}));
        EXPECT_EQ(value_of(files[0], "name"), "network device");
        EXPECT_EQ(value_of(files[0], "type"), "UNKNOWN");
        EXPECT_EQ(value_of(files[0], "prio"), "on");
        EXPECT_EQ(value_of(files[0], "remainTime"), "60");
        EXPECT_EQ(value_of(files[0], "connect_device_mac"), "02-AA-00-00-00-01");
        EXPECT_EQ(value_of(files[1], "mac"), "02-00-00-00-00-07");
        EXPECT_EQ(value_of(files[1], "name"), "tv");
        EXPECT_EQ(value_of(files[1], "type"), "Tele"); // four characters of a file client
    }));
}

TEST_F(ClientList, NamelessClientShowsItsVendor)
{
    client_node &a = add(1, STATUS_ONLINE_LAST_TIME);
    a.mac[0] = 0x00;
    a.mac[2] = 0x0c;
    a.hostname[0] = '\0';
    client_node &b = add(2, STATUS_ONLINE_LAST_TIME);
    b.mac[0] = 0x00;
    b.mac[2] = 0x0c;
    std::strcpy(b.hostname, "network device");
    client_node &c = add(3, STATUS_ONLINE_LAST_TIME);
    std::strcpy(c.hostname, "network device");
    client_node &d = add(4, STATUS_ONLINE_LAST_TIME);
    d.mac[0] = 0x00;
    d.mac[2] = 0x0c;
    std::strcpy(d.nickname, "Kitchen");
    auto list = query(plain(1));
    ASSERT_EQ(list.size(), 4u);
    EXPECT_EQ(value_of(list[0], "hostname"), "Cisco Systems, Inc");
    EXPECT_EQ(value_of(list[1], "hostname"), "Cisco Systems, Inc");
    EXPECT_EQ(value_of(list[2], "hostname"), "network device");
    EXPECT_EQ(value_of(list[3], "hostname"), "Kitchen");
}

TEST_F(ClientList, GatewayListedOnlyOnARouter)
{
    add(1, STATUS_ONLINE_LAST_TIME);
    add(2, STATUS_ONLINE_LAST_TIME);
    mac_of(2, lan_info.gateway_mac);
    system_info.sys_mode = SYS_MODE_AP;
    EXPECT_EQ(hostnames(query(plain(2))), (names{"01"}));
    system_info.sys_mode = SYS_MODE_ROUTER;
    EXPECT_EQ(hostnames(query(plain(2))), (names{"01", "02"}));
}

TEST_F(ClientList, FileListAbsentWithoutRowsAndUnreadWhenNotAsked)
{
    add(1, STATUS_ONLINE_LAST_TIME);
    ASSERT_TRUE(regtest::run_in_sandbox([&] {
        regtest::write_file("/etc/config/lanroster", "config settings 'settings'\n\toption log_level '2'\n");
        auto r = plain(2);
        r.lanroster_file = 1;
        query(r);
        EXPECT_EQ(fake.file_client_calls, 1);
        auto root = bus_test::fields_of(reply_buf.head);
        ASSERT_EQ(root.size(), 1u);
        EXPECT_EQ(root[0].first, "client_list");
        r.lanroster_file = 0;
        regtest::write_file("/etc/config/lanroster", "config client\n\toption mac '02-00-00-00-00-09'\n");
        query(r);
        EXPECT_EQ(fake.file_client_calls, 1);
        EXPECT_EQ(bus_test::fields_of(reply_buf.head).size(), 1u);
    }));
}

TEST_F(ClientList, Ipv6OnlyClientNeedsV6)
{
    add(1, STATUS_ONLINE_LAST_TIME);
    client_node &n = add(2, STATUS_ONLINE_LAST_TIME);
    n.ip6_only = 1;
    n.ip = 0;
    n.ip6_state = 4;
    const uint8_t local[16] = {0xfe, 0x80, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 2};
    std::memcpy(n.ip6_local, local, 16);
    auto *g1 = static_cast<ip6_addr_node *>(std::calloc(1, sizeof(ip6_addr_node)));
    auto *g2 = static_cast<ip6_addr_node *>(std::calloc(1, sizeof(ip6_addr_node)));
    inet_pton(AF_INET6, "fd4c:5200:0:1::2", g1->addr);
    g1->state = 1;
    g1->next = g2;
    n.ip6_globals = g1;
    EXPECT_EQ(hostnames(query(plain(2))), (names{"01"}));
    auto r = plain(2);
    r.v6 = 1;
    auto list = query(r);
    EXPECT_EQ(hostnames(list), (names{"01", "02"}));
    const table &t = list[1];
    EXPECT_EQ(value_of(t, "ip"), "0.0.0.0");
    EXPECT_EQ(value_of(t, "global_state"), "ONE_ALIVE");
    EXPECT_EQ(value_of(t, "ip6_local"), "fe80::2");
    EXPECT_EQ(value_of(t, "ip6_global1"), "fd4c:5200:0:1::2");
    EXPECT_EQ(value_of(t, "global1_state"), "REACHABLE");
    EXPECT_EQ(value_of(t, "ip6_global2"), "::");
    EXPECT_EQ(value_of(t, "global2_state"), "STALE");
    EXPECT_EQ(value_of(t, "global_ip_num"), "2");
    n.ip6_state = 9;
    EXPECT_EQ(value_of(query(r)[1], "global_state"), "illegel enum!");
}

TEST_F(ClientList, Ipv6SummaryWordsFromMinusThreeToSix)
{
    client_node &n = add(1, STATUS_ONLINE_LAST_TIME);
    auto r = plain(2);
    r.v6 = 1;
    const char *words[] = {"MORE_STALE",    "TWO_STALE",      "ONE_STALE", "NO_ITEM",   "ONE_REACHABLE",
                           "TWO_REACHABLE", "MORE_REACHABLE", "ONE_ALIVE", "TWO_ALIVE", "MORE_ALIVE"};
    for (int state = -3; state <= 6; state++) {
        n.ip6_state = state;
        EXPECT_EQ(value_of(query(r)[0], "global_state"), words[state + 3]) << state;
    }
    n.ip6_state = -4;
    EXPECT_EQ(value_of(query(r)[0], "global_state"), "illegel enum!");
    // A link-local address whose first four bytes are zero shows as "::".
    const uint8_t odd[16] = {0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 7};
    std::memcpy(n.ip6_local, odd, 16);
    EXPECT_EQ(value_of(query(r)[0], "ip6_local"), "::");
}

TEST_F(ClientList, TypeTextFromCategoryTableOrDeviceTable)
{
    add(1, STATUS_ONLINE_LAST_TIME).type_source = 3;
    client_node &user = add(2, STATUS_ONLINE_LAST_TIME);
    user.type_source = 0;
    user.device_type = 26;
    add(3, STATUS_ONLINE_LAST_TIME).device_type = 9;
    device_type_info a{}, b{};
    mac_of(1, a.mac);
    a.type = 2;
    mac_of(2, b.mac);
    b.type = 2;
    fake.categories = {a, b};
    auto list = query(plain(1));
    ASSERT_EQ(list.size(), 3u);
    EXPECT_EQ(value_of(list[0], "device_type"), "phone");
    EXPECT_EQ(value_of(list[1], "device_type"), "Laptop");
    EXPECT_EQ(value_of(list[2], "device_type"), "Television");
}

TEST_F(ClientList, MeshAgentsConfigAndRepeaterFilters)
{
    system_info.support_weavelink = 1;
    add(1, STATUS_ONLINE_LAST_TIME);
    add(2, STATUS_ONLINE_LAST_TIME);               // a mesh agent itself
    add(3, STATUS_ONLINE_LAST_TIME, 9);            // the configuration interface
    client_node &far = add(4, STATUS_MESH_ONLINE); // on another node
    far.connect_device_mac[0] = 0x02;
    far.connect_device_mac[5] = 0x99;
    client_node &mine = add(5, STATUS_MESH_ONLINE); // on this node
    ASSERT_EQ(mac_text_to_bytes(self_mac, mine.connect_device_mac), 0);
    fake.mesh_agents = macs({2});
    EXPECT_EQ(hostnames(query(plain(2))), (names{"01", "04", "05"}));
    system_info.sys_mode = SYS_MODE_REPEATER;
    EXPECT_EQ(hostnames(query(plain(2))), (names{"01", "05"}));
    is_mesh_agent = false;
    EXPECT_EQ(hostnames(query(plain(2))), (names{"01", "04", "05"}));
}

TEST_F(ClientList, TrafficKeysAndTheWorkaroundArrays)
{
    system_info.support_tfstats = 1;
    system_info.support_tfstats_workaround = 1;
    add(1, STATUS_ONLINE_LAST_TIME, 10);
    add(2, STATUS_ONLINE_LAST_TIME, 2);
    add(3, STATUS_ONLINE_LAST_TIME, 10);
    tfstats_entry t1{}, w2{}, l3{}, w3{};
    t1 = {{0x02, 0, 0, 0, 0, 1}, 100, 10, 20};
    w2 = {{0x02, 0, 0, 0, 0, 2}, 0, 30, 40};
    l3 = {{0x02, 0, 0, 0, 0, 3}, 0, 50, 60};
    w3 = {{0x02, 0, 0, 0, 0, 3}, 0, 70, 80};
    fake.tfstats = {t1};
    fake.wlan_tf = {w2, w3};
    fake.lan_tf = {l3};
    auto r = plain(1);
    r.tfstats = 1;
    auto list = query(r);
    ASSERT_EQ(list.size(), 3u);
    EXPECT_EQ(value_of(list[0], "trafficUsage"), "100");
    EXPECT_EQ(value_of(list[1], "uploadSpeed"), "30");
    EXPECT_EQ(value_of(list[2], "downloadSpeed"), "60"); // wired: the wired array and no other
    fake.lan_tf.clear();
    list = query(r);
    EXPECT_EQ(value_of(list[2], "downloadSpeed"), "0"); // no wired array, no radio row
    system_info.qos_enable = 1;                         // the workaround is off then
    list = query(r);
    EXPECT_EQ(value_of(list[1], "uploadSpeed"), "0");
}

TEST_F(ClientList, AnEmptyWiredArrayMeansZerosForWiredClients)
{
    system_info.support_tfstats = 1;
    system_info.support_tfstats_workaround = 1;
    add(3, STATUS_ONLINE_LAST_TIME, 10);
    wireless_station s{};
    mac_of(3, s.mac);
    fake.stations = {s}; // a radio row, so without a wired array the wireless one counts
    tfstats_entry w3{{0x02, 0, 0, 0, 0, 3}, 0, 70, 80};
    fake.wlan_tf = {w3};
    auto r = plain(1);
    r.tfstats = 1;
    r.wireless = 1;
    EXPECT_EQ(value_of(query(r)[0], "downloadSpeed"), "80");
    fake.lan_tf_answered_empty = true;
    EXPECT_EQ(value_of(query(r)[0], "downloadSpeed"), "0");
}

TEST_F(ClientList, PolicyKeys)
{
    system_info.support_client_speed_limit = 1;
    system_info.qos_enable = 1;
    system_info.support_high_bandwidth_occupancy = 1;
    system_info.support_gaming_lan = 1;
    client_node &n = add(1, STATUS_ONLINE_LAST_TIME);
    n.limit_enable = 1;
    n.upload_limit = 512;
    n.download_limit = 2048;
    n.prio = 1;
    n.prio_time = static_cast<int32_t>(NOW + 30);
    n.owner_id = 4;
    std::strcpy(n.owner_name, "Ann");
    client_node &m = add(2, STATUS_ONLINE_LAST_TIME);
    m.owner_id = 5; // with no name: no owner
    fake.heavy = macs({1});
    fake.gaming = macs({2});
    fing_info f{};
    mac_of(1, f.mac);
    std::strcpy(f.brand, "Acme");
    std::strcpy(f.system_version, "OS 1");
    fake.fing = {f};
    auto list = query(all(1));
    ASSERT_EQ(list.size(), 2u);
    EXPECT_EQ(value_of(list[0], "enableLimit"), "on");
    EXPECT_EQ(value_of(list[0], "downloadLimit"), "2048");
    EXPECT_EQ(value_of(list[0], "prio"), "on");
    EXPECT_EQ(value_of(list[0], "remainTime"), "30");
    EXPECT_EQ(value_of(list[0], "owner_id"), "4");
    EXPECT_EQ(value_of(list[0], "owner_name"), "Ann");
    EXPECT_EQ(value_of(list[1], "owner_id"), "-1");
    EXPECT_EQ(value_of(list[0], "isHighBandwidthOccupancy"), "1");
    EXPECT_EQ(value_of(list[1], "isHighBandwidthOccupancy"), "0");
    EXPECT_EQ(value_of(list[0], "is_accessed_gaming_lan"), "0");
    EXPECT_EQ(value_of(list[1], "is_accessed_gaming_lan"), "1");
    EXPECT_EQ(value_of(list[0], "brand"), "Acme");
    EXPECT_EQ(value_of(list[0], "sys_version"), "OS 1");
    EXPECT_EQ(value_of(list[1], "brand"), "");
    system_info.qos_enable = 0;
    EXPECT_EQ(value_of(query(all(1))[0], "prio"), "off");
}

// Through the bus: a request must carry all ten keys.
TEST(ClientListBus, MissingKeyIsAnInvalidArgumentAndBadMessagesGetNoReply)
{
    bus_test::BusFixture bus;
    ASSERT_TRUE(bus.ok());
    set_history_list(nullptr);
    const char *full = "{\"online_type\":2,\"v6\":0,\"access_limit\":0,\"speed_limit\":0,\"qos\":0,"
                       "\"tfstats\":0,\"wireless\":0,\"qos_schedule\":0,\"high_bandwidth_occupancy\":0,"
                       "\"lanroster_file\":0}";
    auto r = bus.call("lanroster", "get_hist_list_new", full);
    EXPECT_EQ(r.status, 0);
    ASSERT_EQ(r.replies.size(), 1u);
    EXPECT_EQ(r.replies[0], "{\"client_list\":[]}");
    r = bus.call("lanroster", "get_hist_list_new", "{\"online_type\":2,\"v6\":0}");
    EXPECT_EQ(r.status, UBUS_STATUS_INVALID_ARGUMENT);
    EXPECT_TRUE(r.replies.empty());
    std::string wrong = full;
    wrong.replace(wrong.find("\"qos\":0"), 7, "\"qos\":\"0\"");
    r = bus.call("lanroster", "get_hist_list_new", wrong.c_str());
    EXPECT_EQ(r.status, UBUS_STATUS_INVALID_ARGUMENT);
    r = bus.call("lanroster", "get_hist_list_new", nullptr);
    EXPECT_EQ(r.status, 0);
    EXPECT_TRUE(r.replies.empty());
}

} // namespace
