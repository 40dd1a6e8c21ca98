// The older read methods: which records each row shows, the counts, the
// guest test, the mesh identity file, and the shape of every reply.
#include <gtest/gtest.h>

#include <arpa/inet.h>

#include <cstring>
#include <string>
#include <vector>

#include "bus/history_queries.h"
#include "bus/ubus_server.h"
#include "bus_test_util.h"
#include "db/system_info.h"
#include "registry/client_node.h"
#include "registry_test_util.h"
#include "reply_shape.h"
#include "scan/client_table.h"
#include "scan/ip6.h"
#include "scan/lan_info.h"

using bus_test::fields_of;
using bus_test::table;
using bus_test::value_of;
using shape_test::request;
using shape_test::root_shape;
using shape_test::table_shapes;
using strings = std::vector<std::string>;

namespace
{

// The tables at the root of reply_buf, fields as text.
std::vector<table> root_tables()
{
    std::vector<table> out;
    blob_attr *pos;
    size_t rem = blob_len(reply_buf.head);
    __blob_for_each_attr(pos, static_cast<blob_attr *>(blob_data(reply_buf.head)), rem)
    {
        table t;
        blob_attr *f;
        size_t frem = blobmsg_data_len(pos);
        __blob_for_each_attr(f, static_cast<blob_attr *>(blobmsg_data(pos)), frem)
        {
            std::string v = blobmsg_type(f) == BLOBMSG_TYPE_STRING
                                ? std::string(blobmsg_get_string(f))
                                : std::to_string(static_cast<int32_t>(blobmsg_get_u32(f)));
            t.emplace_back(blobmsg_name(f), v);
        }
        out.push_back(t);
    }
    return out;
}

strings macs_of(const std::vector<table> &tables)
{
    strings out;
    for (const table &t : tables)
        out.push_back(value_of(t, "mac").substr(15));
    return out;
}

std::string type_json(int type)
{
    return "{\"request_type\":" + std::to_string(type) + "}";
}

class HistoryQueries : public ::testing::Test
{
  protected:
    void SetUp() override
    {
        system_info = {};
        lan_info = {};
        set_history_list(nullptr);
        client_table = {};
    }
    void TearDown() override
    {
        set_history_list(nullptr);
        client_table = {};
        system_info = {};
        lan_info = {};
    }
    client_node &add(uint8_t last, uint8_t status, uint8_t wire_type = 10)
    {
        client_node &n = nodes_[used_++];
        n = {};
        n.mac[0] = 0x02;
        n.mac[5] = last;
        n.status = status;
        n.wire_type = wire_type;
        n.guest = 2;
        n.ip = htonl(0xC0A80100 | last);
        n.device_type = -1;
        n.access_time = 1700000000;
        n.access_uptime = 30;
        std::snprintf(n.hostname, sizeof(n.hostname), "host-%u", last);
        std::snprintf(n.ifname, sizeof(n.ifname), "lan%u", last % 4);
        if (used_ > 1)
            nodes_[used_ - 2].next = &n;
        else
            set_history_list(&n);
        return n;
    }
    client_table_entry &scan_entry(uint8_t last, uint8_t guest)
    {
        client_table_entry &e = entries_[entries_used_++];
        e = {};
        e.mac[0] = 0x02;
        e.mac[5] = last;
        e.ip = htonl(0xC0A80100 | last);
        e.guest = guest;
        e.wire_type = 1;
        e.device_type = -1;
        std::snprintf(e.hostname, sizeof(e.hostname), "scan-%u", last);
        if (entries_used_ > 1)
            entries_[entries_used_ - 2].next = &e;
        else
            client_table.head = &e;
        client_table.tail = &e;
        return e;
    }
    std::vector<table> hist(int type)
    {
        request r(type_json(type).c_str());
        EXPECT_TRUE(compose_history_list_get(r.msg()));
        return root_tables();
    }
    table num(int type)
    {
        request r(type_json(type).c_str());
        EXPECT_TRUE(compose_history_list_num_get(r.msg()));
        return fields_of(reply_buf.head);
    }
    client_node nodes_[32]{};
    int used_ = 0;
    client_table_entry entries_[8]{};
    int entries_used_ = 0;
};

} // namespace

TEST_F(HistoryQueries, TypeZeroOmitsAnOnlineIpv6OnlyClientAndTypeThreeShowsIt)
{
    add(1, STATUS_ONLINE_LAST_TIME);
    add(2, STATUS_ONLINE_LAST_TIME).ip6_only = 1;
    add(3, STATUS_DISCONNECT).ip6_only = 1;
    EXPECT_EQ(macs_of(hist(0)), (strings{"01", "03"})) << "only an online IPv6-only client is left out";
    EXPECT_EQ(macs_of(hist(3)), (strings{"01", "02", "03"}));
}

TEST_F(HistoryQueries, TypeOneOnAListWithAnOfflineHeadIsEmpty)
{
    add(1, STATUS_DISCONNECT);
    add(2, STATUS_ONLINE_LAST_TIME);
    EXPECT_TRUE(hist(1).empty());
    EXPECT_TRUE(hist(4).empty());
    EXPECT_EQ(root_shape(reply_buf.head), strings{});
}

TEST_F(HistoryQueries, MeshClientIsConnectedInTypeOneButNotInTypeZero)
{
    add(1, STATUS_MESH_ONLINE);
    auto online = hist(1);
    ASSERT_EQ(online.size(), 1u);
    EXPECT_EQ(value_of(online[0], "connect_status"), "1");
    EXPECT_EQ(value_of(online[0], "ifname"), "lan1");
    auto all = hist(0);
    ASSERT_EQ(all.size(), 1u);
    EXPECT_EQ(value_of(all[0], "connect_status"), "0");
    EXPECT_EQ(value_of(all[0], "ifname"), "<absent>");
    EXPECT_TRUE(hist(2).empty()) << "status 7 is no offline record in the list";
}

TEST_F(HistoryQueries, TypeOneSkipsIpv6OnlyButKeepsWalking)
{
    add(1, STATUS_ONLINE_LAST_TIME).ip6_only = 1;
    add(2, STATUS_EVENT_ONLINE);
    add(3, STATUS_DISCONNECT);
    add(4, STATUS_ONLINE_LAST_TIME);
    EXPECT_EQ(macs_of(hist(1)), (strings{"02"}));
    EXPECT_EQ(macs_of(hist(4)), (strings{"01", "02"}));
    EXPECT_EQ(macs_of(hist(2)), (strings{"03"}));
    EXPECT_EQ(macs_of(hist(5)), (strings{"03"}));
}

TEST_F(HistoryQueries, NumTypeOneStopsAtTheFirstRecordInStatusSixOrSeven)
{
    add(1, STATUS_ONLINE_LAST_TIME);
    add(2, STATUS_EVENT_ONLINE);
    add(3, STATUS_ONLINE_LAST_TIME);
    add(4, STATUS_MESH_ONLINE);
    add(5, STATUS_DISCONNECT);
    EXPECT_EQ(value_of(num(1), "online_client_cnt"), "1");
    EXPECT_EQ(value_of(num(4), "online_client_cnt_v6"), "1");
    // Status 6 and 7 count as offline here, unlike in the list.
    EXPECT_EQ(value_of(num(2), "offline_client_cnt"), "3");
    EXPECT_EQ(value_of(num(5), "offline_client_cnt_v6"), "3");
    EXPECT_EQ(value_of(num(0), "online_and_offline_client_cnt"), "5");
    EXPECT_EQ(value_of(num(3), "online_and_offline_client_cnt_v6"), "5");
}

TEST_F(HistoryQueries, NumCountsLeaveOutConfigAndIpv6OnlyAsTheirRowsSay)
{
    add(1, STATUS_ONLINE_LAST_TIME).ip6_only = 1;
    add(2, STATUS_ONLINE_LAST_TIME, 9);
    add(3, STATUS_ONLINE_LAST_TIME);
    add(4, STATUS_DISCONNECT).ip6_only = 1;
    EXPECT_EQ(value_of(num(0), "online_and_offline_client_cnt"), "2");
    EXPECT_EQ(value_of(num(1), "online_client_cnt"), "1");
    EXPECT_EQ(value_of(num(2), "offline_client_cnt"), "1");
    EXPECT_EQ(value_of(num(3), "online_and_offline_client_cnt_v6"), "3");
    EXPECT_EQ(value_of(num(4), "online_client_cnt_v6"), "2");
}

TEST_F(HistoryQueries, NumWithTypeNineRepliesEmptyButGetWithTypeNineDoesNotReply)
{
    add(1, STATUS_ONLINE_LAST_TIME);
    request n(type_json(9).c_str());
    ASSERT_TRUE(compose_history_list_num_get(n.msg()));
    EXPECT_EQ(root_shape(reply_buf.head), strings{});
    request h(type_json(9).c_str());
    ASSERT_TRUE(compose_history_list_get(h.msg()));
    EXPECT_EQ(root_shape(reply_buf.head), strings{});
    request g(type_json(9).c_str());
    EXPECT_FALSE(compose_get(g.msg()));
    request minus(type_json(-1).c_str());
    EXPECT_FALSE(compose_get(minus.msg()));
}

TEST_F(HistoryQueries, MissingOrMistypedRequestTypeGetsNoReply)
{
    for (auto compose : {compose_history_list_get, compose_history_list_num_get, compose_get}) {
        request none("{}");
        EXPECT_FALSE(compose(none.msg()));
        request text("{\"request_type\":\"0\"}");
        EXPECT_FALSE(compose(text.msg()));
    }
}

TEST_F(HistoryQueries, GetWithThreeOfTheFourIpv6BytesDoesNotReply)
{
    scan_entry(9, 1);
    uint32_t ip = htonl(0xC0A80109);
    std::string three = "{\"request_type\":2,\"ipv6_byte1\":1,\"ipv6_byte2\":2,\"ipv6_byte4\":" +
                        std::to_string(static_cast<int32_t>(ip)) + "}";
    request r(three.c_str());
    EXPECT_FALSE(compose_get(r.msg()));
    std::string four =
        "{\"request_type\":2,\"ipv6_byte1\":1,\"ipv6_byte2\":2,\"ipv6_byte3\":3,\"ipv6_byte4\":" +
        std::to_string(static_cast<int32_t>(ip)) + "}";
    request f(four.c_str());
    ASSERT_TRUE(compose_get(f.msg()));
    EXPECT_EQ(value_of(fields_of(reply_buf.head), "guest"), "1")
        << "the last word is compared with the IPv4 field";
    request one("{\"request_type\":1}");
    EXPECT_FALSE(compose_get(one.msg())) << "type 1 needs ipv4_addr";
}

TEST_F(HistoryQueries, GetGuestTestAnswersByTheScanEntry)
{
    scan_entry(1, 2);
    scan_entry(2, 1);
    scan_entry(3, 0);
    auto guest = [](uint8_t last) {
        uint32_t ip = htonl(0xC0A80100 | last);
        std::string json =
            "{\"request_type\":1,\"ipv4_addr\":" + std::to_string(static_cast<int32_t>(ip)) + "}";
        request r(json.c_str());
        EXPECT_TRUE(compose_get(r.msg()));
        EXPECT_EQ(root_shape(reply_buf.head), (strings{"guest:int8"}));
        return value_of(fields_of(reply_buf.head), "guest");
    };
    EXPECT_EQ(guest(1), "0");
    EXPECT_EQ(guest(2), "1");
    EXPECT_EQ(guest(3), "2");
    EXPECT_EQ(guest(77), "2") << "an address not in the scan list";
}

TEST_F(HistoryQueries, GetTypeZeroListsTheScanEntries)
{
    scan_entry(1, 2).device_type = get_device_type_index("Tablet");
    scan_entry(2, 0);
    request r(type_json(0).c_str());
    ASSERT_TRUE(compose_get(r.msg()));
    auto tables = root_tables();
    ASSERT_EQ(tables.size(), 2u);
    EXPECT_EQ(value_of(tables[0], "device_type"), "Tablet");
    EXPECT_EQ(value_of(tables[1], "device_type"), "unknown");
    EXPECT_EQ(value_of(tables[1], "guest"), "UNKNOW");
    EXPECT_EQ(value_of(tables[0], "ip"), "192.168.1.1");
    EXPECT_EQ(table_shapes(reply_buf.head)[0],
              (strings{"hostname:string", "ip:string", "mac:string", "wire_type:string", "guest:string",
                       "device_type:string"}));
}

TEST_F(HistoryQueries, WireTypeZeroShowsWiredAndOfflineKeepsItsKind)
{
    add(1, STATUS_ONLINE_LAST_TIME, 0);
    add(2, STATUS_DISCONNECT, 2).guest = 1;
    add(3, STATUS_DISCONNECT, 42).guest = 0;
    auto t = hist(0);
    ASSERT_EQ(t.size(), 3u);
    EXPECT_EQ(value_of(t[0], "wire_type"), "wired");
    EXPECT_EQ(value_of(t[1], "wire_type"), "5G") << "an offline client keeps its kind";
    EXPECT_EQ(value_of(t[1], "guest"), "GUEST");
    EXPECT_EQ(value_of(t[2], "wire_type"), "wired");
    EXPECT_EQ(value_of(t[2], "guest"), "UNKNOW");
}

TEST_F(HistoryQueries, ConfigAndTheGatewayOfANonRouterAreNeverShown)
{
    add(1, STATUS_ONLINE_LAST_TIME, 9);
    add(2, STATUS_ONLINE_LAST_TIME);
    add(3, STATUS_DISCONNECT);
    std::memcpy(lan_info.gateway_mac, nodes_[1].mac, 6);
    EXPECT_EQ(macs_of(hist(3)), (strings{"02", "03"})) << "a router shows its gateway's MAC";
    system_info.sys_mode = SYS_MODE_AP;
    for (int type = 0; type < 6; ++type)
        for (const table &t : hist(type))
            EXPECT_NE(value_of(t, "mac").substr(15), "02") << type;
    EXPECT_EQ(value_of(num(3), "online_and_offline_client_cnt_v6"), "2") << "the counts know no gateway rule";
}

TEST_F(HistoryQueries, HostnameIsCutAt64Bytes)
{
    client_node &n = add(1, STATUS_ONLINE_LAST_TIME);
    std::memset(n.hostname, 'h', 64);
    n.hostname[64] = '\0';
    EXPECT_EQ(value_of(hist(0)[0], "hostname"), std::string(64, 'h'));
}

TEST_F(HistoryQueries, Ipv6PairsAreNumberedFromOne)
{
    client_node &n = add(1, STATUS_ONLINE_LAST_TIME);
    ip6_addr_node second{0, {0x20, 0x01, 0x0d, 0xb8, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 2}, nullptr};
    ip6_addr_node first{1, {0x20, 0x01, 0x0d, 0xb8, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 1}, &second};
    n.ip6_globals = &first;
    n.ip6_state = 2;
    n.ip6_local[0] = 0xfe;
    n.ip6_local[1] = 0x80;
    n.ip6_local[15] = 1;
    auto t = hist(3);
    ASSERT_EQ(t.size(), 1u);
    EXPECT_EQ(value_of(t[0], "global_ip_num"), "2");
    EXPECT_EQ(value_of(t[0], "ip6_global1"), "2001:db8::1");
    EXPECT_EQ(value_of(t[0], "global1_state"), "REACHABLE");
    EXPECT_EQ(value_of(t[0], "ip6_global2"), "2001:db8::2");
    EXPECT_EQ(value_of(t[0], "global2_state"), "STALE");
    EXPECT_EQ(value_of(t[0], "ip6_local"), "fe80::1");
    EXPECT_EQ(value_of(t[0], "global_state"), "TWO_REACHABLE");
    EXPECT_EQ(
        table_shapes(reply_buf.head)[0],
        (strings{"hostname:string", "ip:string", "global_state:string", "global_ip_num:int32",
                 "ip6_global1:string", "global1_state:string", "ip6_global2:string", "global2_state:string",
                 "ip6_local:string", "mac:string", "wire_type:string", "guest:string", "device_type:string",
                 "nickname:string", "access_time:int32", "access_uptime:int32", "connect_status:int32"}));
    n.ip6_globals = nullptr;
}

TEST_F(HistoryQueries, FormatterGivesAScanEntryWithoutIpv6AnEmptyIpv6Side)
{
    client_table_entry &e = scan_entry(5, 2);
    client_entry_text text{};
    format_client_entry(&e, &text, FAMILY_V6);
    EXPECT_STREQ(text.global_state, "NO_ITEM");
    EXPECT_EQ(text.global_ip_num, 0);
    EXPECT_STREQ(text.ip6_local, "::");
    ip6_addr_node addr{1, {0x20, 0x01, 0x0d, 0xb8}, nullptr};
    ip6_info info{};
    info.state = IP6_ONE_ALIVE;
    info.addresses = &addr;
    e.ip6 = &info;
    client_entry_text with{};
    format_client_entry(&e, &with, FAMILY_V6);
    EXPECT_STREQ(with.global_state, "ONE_ALIVE");
    EXPECT_EQ(with.global_ip_num, 1);
    client_entry_text v4{};
    format_client_entry(&e, &v4, FAMILY_V4);
    EXPECT_EQ(v4.global_state, nullptr) << "the IPv4 family leaves the IPv6 side alone";
    e.ip6 = nullptr;
}

TEST_F(HistoryQueries, NodeToEntryRefusesNullArguments)
{
    client_node &n = add(1, STATUS_ONLINE_LAST_TIME);
    client_table_entry e{};
    EXPECT_EQ(node_to_entry(nullptr, &n, FAMILY_V4, nullptr), -1);
    EXPECT_EQ(node_to_entry(&e, nullptr, FAMILY_V4, nullptr), -1);
    EXPECT_EQ(node_to_entry(&e, &n, nullptr, nullptr), -1);
    EXPECT_EQ(node_to_entry(&e, &n, FAMILY_V6, nullptr), 0);
    EXPECT_EQ(e.ip6, nullptr);
}

// --- reply shapes -------------------------------------------------------

TEST_F(HistoryQueries, ShapeOfTypeZero)
{
    add(1, STATUS_ONLINE_LAST_TIME);
    add(2, STATUS_DISCONNECT);
    hist(0);
    auto s = table_shapes(reply_buf.head);
    ASSERT_EQ(s.size(), 2u);
    strings base{"hostname:string",     "ip:string",           "mac:string",      "wire_type:string",
                 "guest:string",        "device_type:string",  "nickname:string", "access_time:int32",
                 "access_uptime:int32", "connect_status:int32"};
    strings online = base;
    online.push_back("ifname:string");
    EXPECT_EQ(s[0], online);
    EXPECT_EQ(s[1], base);
}

TEST_F(HistoryQueries, ShapeOfTypesOneAndTwo)
{
    add(1, STATUS_ONLINE_LAST_TIME);
    add(2, STATUS_DISCONNECT);
    strings base{"hostname:string",      "ip:string",          "mac:string",        "wire_type:string",
                 "guest:string",         "device_type:string", "access_time:int32", "access_uptime:int32",
                 "connect_status:int32", "nickname:string"};
    hist(1);
    strings with_ifname = base;
    with_ifname.push_back("ifname:string");
    EXPECT_EQ(table_shapes(reply_buf.head), (std::vector<strings>{with_ifname}));
    auto t = hist(2);
    EXPECT_EQ(table_shapes(reply_buf.head), (std::vector<strings>{base}));
    EXPECT_EQ(value_of(t[0], "connect_status"), "0");
    EXPECT_EQ(value_of(t[0], "nickname"), "") << "sent even when empty";
}

TEST_F(HistoryQueries, ShapeOfTypesFourAndFive)
{
    add(1, STATUS_ONLINE_LAST_TIME);
    add(2, STATUS_DISCONNECT);
    strings v6{"hostname:string",    "ip:string",         "global_state:string", "global_ip_num:int32",
               "ip6_local:string",   "mac:string",        "wire_type:string",    "guest:string",
               "device_type:string", "access_time:int32", "access_uptime:int32", "connect_status:int32",
               "nickname:string"};
    hist(4);
    EXPECT_EQ(table_shapes(reply_buf.head), (std::vector<strings>{v6}));
    hist(5);
    EXPECT_EQ(table_shapes(reply_buf.head), (std::vector<strings>{v6}));
}

TEST_F(HistoryQueries, ShapeOfTheCounts)
{
    const char *keys[] = {
        "online_and_offline_client_cnt",    "online_client_cnt",    "offline_client_cnt",
        "online_and_offline_client_cnt_v6", "online_client_cnt_v6", "offline_client_cnt_v6"};
    for (int type = 0; type < 6; ++type) {
        num(type);
        EXPECT_EQ(root_shape(reply_buf.head), (strings{std::string(keys[type]) + ":int32"}));
    }
}

// --- get_dev_info ---------------------------------------------------------

TEST(HistoryDevInfo, OfflineClientWithoutInterfacesWritesNoFile)
{
    ASSERT_TRUE(regtest::run_in_sandbox([] {
        regtest::fresh_pool();
        regtest::add_node(1, STATUS_DISCONNECT);
        request r("{\"al_mac\":\"02-00-00-00-00-01\"}");
        compose_history_dev_info_list_get(r.msg());
        EXPECT_FALSE(regtest::file_exists("/tmp/mesh_dev_02-00-00-00-00-01"));
    }));
}

TEST(HistoryDevInfo, OnlineClientWritesItsIdentity)
{
    ASSERT_TRUE(regtest::run_in_sandbox([] {
        regtest::fresh_pool();
        client_node *n = regtest::add_node(1, STATUS_ONLINE_LAST_TIME);
        n->ip = htonl(0xC0A8010A);
        std::strcpy(n->hostname, "nas");
        request r("{\"al_mac\":\"02:00:00:00:00:01\"}");
        compose_history_dev_info_list_get(r.msg());
        EXPECT_EQ(regtest::read_file("/tmp/mesh_dev_02:00:00:00:00:01"),
                  "{\"hostname\" : \"nas\", \"ip\" : \"192.168.1.10\", \"ipmac\" : \"02-00-00-00-00-01\"}");
    }));
}

TEST(HistoryDevInfo, TwentyFiveInterfacesLookAtTheFirstTwenty)
{
    ASSERT_TRUE(regtest::run_in_sandbox([] {
        regtest::fresh_pool();
        regtest::add_node(21, STATUS_ONLINE_LAST_TIME);
        std::string list;
        for (int i = 1; i <= 25; ++i) {
            uint8_t mac[6];
            regtest::test_mac(mac, 100 + i);
            if (i == 21)
                regtest::test_mac(mac, 21);
            char text[MAC_DASH_TEXT_SIZE];
            mac_to_dash_text(mac, text);
            list += std::string(i > 1 ? "," : "") + text;
        }
        std::string json = "{\"al_mac\":\"02-00-00-00-00-99\",\"interface_list\":\"" + list + "\"}";
        request r(json.c_str());
        compose_history_dev_info_list_get(r.msg());
        EXPECT_FALSE(regtest::file_exists("/tmp/mesh_dev_02-00-00-00-00-99")) << "item 21 is not looked at";
        // The same MAC as item 20 is found, and ipmac is the interface's.
        regtest::add_node(120, STATUS_ONLINE_LAST_TIME);
        request again(json.c_str());
        compose_history_dev_info_list_get(again.msg());
        std::string body = regtest::read_file("/tmp/mesh_dev_02-00-00-00-00-99");
        EXPECT_NE(body.find("\"ipmac\" : \"02-00-00-00-00-78\""), std::string::npos) << body;
    }));
}

TEST(HistoryDevInfo, LastInterfaceTriedIsTakenEvenWhenIpv6Only)
{
    ASSERT_TRUE(regtest::run_in_sandbox([] {
        regtest::fresh_pool();
        regtest::add_node(2, STATUS_ONLINE_LAST_TIME)->ip6_only = 1;
        request r(
            "{\"al_mac\":\"02-00-00-00-00-09\",\"interface_list\":\"02-00-00-00-00-07,02-00-00-00-00-02\"}");
        compose_history_dev_info_list_get(r.msg());
        std::string body = regtest::read_file("/tmp/mesh_dev_02-00-00-00-00-09");
        EXPECT_NE(body.find("\"ipmac\" : \"02-00-00-00-00-02\""), std::string::npos) << body;
    }));
}

TEST(HistoryDevInfo, APeerMacThatWouldLeaveTmpWritesNothing)
{
    ASSERT_TRUE(regtest::run_in_sandbox([] {
        regtest::fresh_pool();
        regtest::add_node(1, STATUS_ONLINE_LAST_TIME);
        request r("{\"al_mac\":\"/../../etc/x\",\"interface_list\":\"02-00-00-00-00-01\"}");
        compose_history_dev_info_list_get(r.msg());
        EXPECT_FALSE(regtest::file_exists("/etc/x"));
        EXPECT_FALSE(regtest::file_exists("/tmp/mesh_dev_/../../etc/x"));
    }));
}
