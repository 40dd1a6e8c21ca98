// The record, the pool and the live list: ordering, eviction and removal.
#include <cstring>
#include <gtest/gtest.h>

#include "registry/client_node.h"
#include "registry/history_list_mgmt.h"
#include "registry_test_util.h"

using namespace regtest;

namespace {

using ids = std::vector<int>;

TEST(ClientNode, RecordIsPlainAndFieldsHaveTheirSizes)
{
    client_node n{};
    EXPECT_EQ(sizeof(n.hostname), 65u);
    EXPECT_EQ(sizeof(n.ip6_local), 16u);
    EXPECT_EQ(sizeof(n.mac), 6u);
    EXPECT_EQ(sizeof(n.nickname), 65u);
    EXPECT_EQ(sizeof(n.ifname), 16u);
    EXPECT_EQ(sizeof(n.owner_name), 65u);
    EXPECT_EQ(sizeof(n.slots), 4u);
    EXPECT_EQ(sizeof(n.connect_device_mac), 6u);
    EXPECT_EQ(sizeof(n.connect_device_id), 45u);
    EXPECT_EQ(sizeof(n.access_time), 4u);
    // Declared order.
    EXPECT_LT(offsetof(client_node, hostname), offsetof(client_node, ip));
    EXPECT_LT(offsetof(client_node, mac), offsetof(client_node, wire_type));
    EXPECT_LT(offsetof(client_node, leave_time), offsetof(client_node, nickname));
    EXPECT_LT(offsetof(client_node, connect_device_id), offsetof(client_node, status));
    EXPECT_LT(offsetof(client_node, access_host), offsetof(client_node, next));
}

TEST(ClientNode, TablesHaveOneRowPerName)
{
    EXPECT_STREQ(device_type_table[0], "Audio & Video");
    EXPECT_STREQ(device_type_table[7], "Other");
    EXPECT_STREQ(device_type_table[79], "Network Monitor");
    EXPECT_EQ(get_device_type_index("network monitor"), 79);
    EXPECT_EQ(get_device_type_index("SMART PLUG"), 47);
    EXPECT_EQ(get_device_type_index("Toaster"), -1);
    EXPECT_EQ(get_device_type_index(nullptr), -1);
    EXPECT_STREQ(device_type_name(-1), "unknown");
    EXPECT_STREQ(device_type_name(80), "unknown");
    EXPECT_STREQ(device_type_name(26), "Laptop");
    EXPECT_STREQ(wire_type_name(0), "wired");
    EXPECT_STREQ(wire_type_name(5), "mlo");
    EXPECT_STREQ(wire_type_name(9), "config");
    EXPECT_STREQ(wire_type_name(10), "wired");
    EXPECT_STREQ(wire_type_name(11), "wired");
    EXPECT_STREQ(wire_type_name(12), "wired");
    EXPECT_STREQ(client_category_table[0], "other");
    EXPECT_STREQ(client_category_table[7], "iot_device");
    EXPECT_STREQ(status_text_table[0], "No Connection");
    EXPECT_STREQ(status_text_table[5], "Online Last Time");
    EXPECT_FALSE(device_type_known(-1));
    EXPECT_FALSE(device_type_known(7));
    EXPECT_TRUE(device_type_known(0));
}

TEST(ClientNode, MacTextForms)
{
    const uint8_t mac[6] = {0xaa, 0x0b, 0xcc, 0x01, 0xee, 0xff};
    char dash[MAC_DASH_TEXT_SIZE];
    char hex[MAC_HEX_TEXT_SIZE];
    mac_to_dash_text(mac, dash);
    mac_to_hex_text(mac, hex);
    EXPECT_STREQ(dash, "AA-0B-CC-01-EE-FF");
    EXPECT_STREQ(hex, "AA0BCC01EEFF");
    uint8_t back[6] = {};
    hex_text_to_mac("aa0bCC01eeFF", back);
    EXPECT_EQ(std::memcmp(back, mac, 6), 0);
    // Short, long and odd texts are read as far as they go, never beyond.
    uint8_t part[6] = {1, 2, 3, 4, 5, 6};
    hex_text_to_mac("AB", part);
    EXPECT_EQ(part[0], 0xab);
    EXPECT_EQ(part[1], 2);
    hex_text_to_mac("A", part);
    EXPECT_EQ(part[0], 0xa0);
    uint8_t longer[6] = {};
    hex_text_to_mac("0102030405060708090A", longer);
    EXPECT_EQ(longer[5], 6);
    EXPECT_EQ(node_mac_equal(mac, back), 1);
    back[5] = 0;
    EXPECT_EQ(node_mac_equal(mac, back), 0);
}

TEST(ClientNode, FreshRecordHasTypeZeroAndSourceFour)
{
    fresh_pool();
    client_node *n = delete_oldest_node_from_list();
    ASSERT_NE(n, nullptr);
    EXPECT_EQ(n->device_type, 0);
    EXPECT_EQ(n->type_source, 4u);
    EXPECT_EQ(n->prio_time, -1);
    EXPECT_EQ(n->time_period, -1);
    EXPECT_EQ(n->owner_id, -1);
    EXPECT_EQ(n->slots[0], 0xff);
    EXPECT_EQ(n->next, nullptr);
    EXPECT_EQ(pool_count(), MEMORY_QUEUE_SIZE - 1);
}

TEST(ClientNode, OnlineEntersAtTheHeadOfflineInFrontOfTheOfflinePart)
{
    fresh_pool();
    add_node(1, STATUS_NEW_ACCESS);
    add_node(2, STATUS_NEW_ACCESS);
    add_node(3, STATUS_DISCONNECT);  // no offline record yet: the tail
    EXPECT_EQ(list_order(), (ids{2, 1, 3}));
    add_node(4, STATUS_RECONNECT);
    add_node(5, STATUS_DISCONNECT);  // in front of 3, the latest leaver first
    EXPECT_EQ(list_order(), (ids{4, 2, 1, 5, 3}));
    // A record with any other status is not linked by set_node_status.
    client_node *n = find_node_by_mac(get_history_list()->next->mac);
    set_node_status(n, STATUS_KEEP_ALIVE);
    EXPECT_EQ(list_count(), 5);
}

TEST(ClientNode, OfflineWhenNoneIsOfflineLandsAtTheTail)
{
    fresh_pool();
    add_node(1, STATUS_NEW_ACCESS);
    add_node(2, STATUS_NEW_ACCESS);
    add_node(3, STATUS_EVENT_ONLINE);
    add_node(4, STATUS_DISCONNECT);
    EXPECT_EQ(list_order(), (ids{3, 2, 1, 4}));
}

TEST(ClientNode, OfflineInFrontOfAnEventOfflineRecord)
{
    fresh_pool();
    add_node(1, STATUS_NEW_ACCESS);
    add_node(2, STATUS_DISCONNECT);
    get_history_list()->next->status = STATUS_EVENT_OFFLINE;
    add_node(3, STATUS_DISCONNECT);
    EXPECT_EQ(list_order(), (ids{1, 3, 2}));
}

TEST(ClientNode, OfflineWhenTheListIsEmptyBecomesTheHead)
{
    fresh_pool();
    client_node *n = add_node(1, STATUS_DISCONNECT);
    EXPECT_EQ(get_history_list(), n);
    EXPECT_EQ(list_order(), (ids{1}));
    // An offline head: the next offline record goes in front of it.
    add_node(2, STATUS_DISCONNECT);
    EXPECT_EQ(list_order(), (ids{2, 1}));
}

// Fills the pool with 388 clients, ids 1..388; the last one added is the
// head.
void fill_pool(const std::function<uint8_t(int)> &status_of, const std::function<uint8_t(int)> &guest_of)
{
    for (int id = 1; id <= MEMORY_QUEUE_SIZE; id++)
        ASSERT_NE(add_node(id, status_of(id), guest_of(id)), nullptr);
    ASSERT_EQ(pool_count(), 0);
}

TEST(ClientNode, The389thClientEvictsTheGuestNearestTheTail)
{
    ASSERT_TRUE(run_in_sandbox([] {
        fresh_pool();
        // Clients 1..30 are offline, 31..388 online, so the list reads
        // 388..31, 30..1. Guests 100 and 300 are online; 100 is nearer the
        // tail, and both stand before thirty offline clients of the main
        // network.
        fill_pool([](int id) { return id <= 30 ? STATUS_DISCONNECT : STATUS_NEW_ACCESS; },
                  [](int id) { return (id == 100 || id == 300) ? 1 : 2; });
        client_node *n = delete_oldest_node_from_list();
        ASSERT_NE(n, nullptr);
        EXPECT_EQ(mac_in_history(n->mac), -1);
        uint8_t mac[6];
        test_mac(mac, 300);
        EXPECT_EQ(mac_in_history(mac), 0);
        test_mac(mac, 100);
        EXPECT_EQ(mac_in_history(mac), -1) << "the guest nearest the tail goes";
        EXPECT_EQ(list_count(), MEMORY_QUEUE_SIZE - 1);
        EXPECT_EQ(list_order().back(), 1);
        EXPECT_EQ(n->type_source, 4u);
        EXPECT_EQ(n->hostname[0], '\0');
        delete_oldest_node_from_list();
        test_mac(mac, 300);
        EXPECT_EQ(mac_in_history(mac), -1);
        // No guest left: the tail, the client offline longest.
        delete_oldest_node_from_list();
        test_mac(mac, 1);
        EXPECT_EQ(mac_in_history(mac), -1);
    }));
}

TEST(ClientNode, AnOfflineGuestNearerTheTailGoesFirst)
{
    ASSERT_TRUE(run_in_sandbox([] {
        fresh_pool();
        fill_pool([](int id) { return id <= 30 ? STATUS_DISCONNECT : STATUS_NEW_ACCESS; },
                  [](int id) { return (id == 5 || id == 300) ? 1 : 2; });
        delete_oldest_node_from_list();
        uint8_t mac[6];
        test_mac(mac, 5);
        EXPECT_EQ(mac_in_history(mac), -1);
        test_mac(mac, 300);
        EXPECT_EQ(mac_in_history(mac), 0);
        test_mac(mac, 1);
        EXPECT_EQ(mac_in_history(mac), 0) << "the tail stays while a guest exists";
    }));
}

TEST(ClientNode, WithoutGuestsTheTailIsEvictedEvenIfOnline)
{
    ASSERT_TRUE(run_in_sandbox([] {
        fresh_pool();
        fill_pool([](int) { return STATUS_NEW_ACCESS; }, [](int) { return 2; });
        std::vector<int> before = list_order();
        ASSERT_EQ(before.back(), 1);
        client_node *n = delete_oldest_node_from_list();
        ASSERT_NE(n, nullptr);
        uint8_t mac[6];
        test_mac(mac, 1);
        EXPECT_EQ(mac_in_history(mac), -1);
        EXPECT_EQ(list_order().back(), 2);
    }));
}

TEST(ClientNode, EvictionDeletesTheSectionOrGoesOnWithoutIt)
{
    ASSERT_TRUE(run_in_sandbox([] {
        fresh_pool();
        fill_pool([](int) { return STATUS_NEW_ACCESS; }, [](int) { return 2; });
        uint8_t mac[6];
        test_mac(mac, 1);
        ASSERT_EQ(uci_update_cfg_file(find_node_by_mac(mac)), 1);
        test_mac(mac, 3);
        ASSERT_EQ(uci_update_cfg_file(find_node_by_mac(mac)), 1);
        std::string out = capture_stdout([] { ASSERT_NE(delete_oldest_node_from_list(), nullptr); });
        EXPECT_EQ(out.find("delete uci section failed!"), std::string::npos) << out;
        EXPECT_EQ(history_macs(), (std::vector<std::string>{hex_mac(3)})) << "the victim's section is gone";
        // Client 2 has no section: the record is reused all the same.
        out = capture_stdout([] { ASSERT_NE(delete_oldest_node_from_list(), nullptr); });
        EXPECT_NE(out.find("| error | delete_oldest_node_from_list | delete uci section failed!\n"),
                  std::string::npos)
            << out;
        test_mac(mac, 2);
        EXPECT_EQ(mac_in_history(mac), -1);
        EXPECT_EQ(history_macs(), (std::vector<std::string>{hex_mac(3)}));
    }));
}

TEST(ClientNode, AGuestAtTheHeadGoesOnlyWhenNoOtherGuestExists)
{
    ASSERT_TRUE(run_in_sandbox([] {
        fresh_pool();
        fill_pool([](int) { return STATUS_NEW_ACCESS; },
                  [](int id) { return id == MEMORY_QUEUE_SIZE ? 1 : 2; });
        ASSERT_EQ(list_order().front(), MEMORY_QUEUE_SIZE);
        delete_oldest_node_from_list();
        EXPECT_EQ(list_order().front(), MEMORY_QUEUE_SIZE - 1);
        EXPECT_EQ(list_order().back(), 1);
    }));
}

TEST(ClientNode, NoPoolGivesNoRecord)
{
    memory_queue *saved = client_pool;
    client_pool = nullptr;
    set_history_list(nullptr);
    EXPECT_EQ(get_free_node(), nullptr);
    EXPECT_EQ(delete_oldest_node_from_list(), nullptr);
    client_pool = saved;
}

TEST(ClientNode, ReleaseClearsAndAppendsAtTheTailOfThePool)
{
    fresh_pool();
    client_node *n = add_node(1, STATUS_NEW_ACCESS);
    auto *a = static_cast<ip6_addr_node *>(calloc(1, sizeof(ip6_addr_node)));
    n->ip6_globals = a;
    ASSERT_TRUE(unlink_node(n));
    release_node(n);
    EXPECT_EQ(client_pool->tail, n);
    EXPECT_EQ(n->ip6_globals, nullptr);
    EXPECT_EQ(n->mac[5], 0);
    EXPECT_EQ(n->next, nullptr);
    EXPECT_EQ(pool_count(), MEMORY_QUEUE_SIZE);
}

TEST(ClientNode, DeleteOfflineByMacOnAnOfflineHeadEmptiesTheList)
{
    fresh_pool();
    add_node(1, STATUS_DISCONNECT);
    add_node(2, STATUS_DISCONNECT);
    add_node(3, STATUS_DISCONNECT);
    ASSERT_EQ(list_order(), (ids{3, 2, 1}));
    char text[MAC_DASH_TEXT_SIZE];
    mac_to_dash_text(get_history_list()->mac, text);
    EXPECT_EQ(delete_offline_node_by_mac(text), 0);
    EXPECT_EQ(get_history_list(), nullptr);
    EXPECT_EQ(list_count(), 0);
}

TEST(ClientNode, DeleteOfflineByMacBehindTheHead)
{
    fresh_pool();
    add_node(1, STATUS_DISCONNECT);
    add_node(2, STATUS_DISCONNECT);
    add_node(3, STATUS_NEW_ACCESS);
    uint8_t mac[6];
    test_mac(mac, 2);
    char text[MAC_DASH_TEXT_SIZE];
    mac_to_dash_text(mac, text);
    EXPECT_EQ(delete_offline_node_by_mac(text), 0);
    EXPECT_EQ(list_order(), (ids{3, 1}));
    EXPECT_EQ(pool_count(), MEMORY_QUEUE_SIZE - 2);
    EXPECT_EQ(delete_offline_node_by_mac("00-00-00-00-00-00"), -1);
    EXPECT_EQ(delete_offline_node_by_mac(nullptr), -1);
}

TEST(ClientNode, DeleteOfflineByMacLeavesAnOnlineClient)
{
    fresh_pool();
    add_node(1, STATUS_DISCONNECT);
    client_node *online = add_node(2, STATUS_NEW_ACCESS);
    online->status = STATUS_ONLINE_LAST_TIME;
    add_node(3, STATUS_NEW_ACCESS)->status = STATUS_ONLINE_LAST_TIME;
    char text[MAC_DASH_TEXT_SIZE];
    for (int id : {2, 3}) {
        uint8_t mac[6];
        test_mac(mac, id);
        mac_to_dash_text(mac, text);
        EXPECT_EQ(delete_offline_node_by_mac(text), -1);
    }
    EXPECT_EQ(list_order(), (ids{3, 2, 1}));
    EXPECT_EQ(pool_count(), MEMORY_QUEUE_SIZE - 3);
}

TEST(ClientNode, DeleteSpecificNodeRemovesRecordAndSection)
{
    ASSERT_TRUE(run_in_sandbox([] {
        fresh_pool();
        client_node *a = add_node(1, STATUS_NEW_ACCESS);
        add_node(2, STATUS_NEW_ACCESS);
        ASSERT_EQ(uci_update_cfg_file(a), 1);
        EXPECT_EQ(history_macs(), (std::vector<std::string>{hex_mac(1)}));
        uint8_t mac[6];
        test_mac(mac, 1);
        EXPECT_EQ(delete_specific_node_from_list(mac), 0);
        EXPECT_EQ(list_order(), (ids{2}));
        EXPECT_TRUE(history_macs().empty());
        EXPECT_EQ(pool_count(), MEMORY_QUEUE_SIZE - 1);
        // No section: the delete fails, and the record is out of both lists.
        test_mac(mac, 2);
        std::string out = capture_stdout([&] { EXPECT_EQ(delete_specific_node_from_list(mac), -1); });
        EXPECT_NE(out.find("delete uci section failed!\n"), std::string::npos) << out;
        EXPECT_NE(out.find("| error | delete_specific_node_from_list | delete uci section failed!"),
                  std::string::npos)
            << out;
        EXPECT_EQ(list_count(), 0);
        EXPECT_EQ(pool_count(), MEMORY_QUEUE_SIZE - 1);
        test_mac(mac, 9);
        EXPECT_EQ(delete_specific_node_from_list(mac), -1);
    }));
}

TEST(ClientNode, CreateMemoryQueueMakesExactly388Records)
{
    ASSERT_TRUE(run_in_sandbox([] {
        client_pool = nullptr;
        set_history_list(nullptr);
        EXPECT_EQ(create_memory_queue(), 1);
        EXPECT_EQ(pool_count(), MEMORY_QUEUE_SIZE);
        EXPECT_EQ(list_count(), 0);
        // A second call keeps the pool and loads again.
        memory_queue *q = client_pool;
        EXPECT_EQ(create_memory_queue(), 1);
        EXPECT_EQ(client_pool, q);
        EXPECT_EQ(pool_count(), MEMORY_QUEUE_SIZE);
    }));
}

}  // namespace
