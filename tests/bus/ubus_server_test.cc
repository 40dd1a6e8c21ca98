// The bus face on a private ubusd: objects, method tables, the small
// methods and the event listener. The binary runs in the sandbox: its
// "/etc/config" and "/dev/console" are its own.
#include <gtest/gtest.h>

#include <unistd.h>

#include <condition_variable>
#include <cstring>
#include <mutex>
#include <string>

#include <arpa/inet.h>

#include "bus/event_tasks.h"
#include "bus/ubus_handlers.h"
#include "bus/ubus_server.h"
#include "bus_test_util.h"
#include "core/log.h"
#include "core/threadpool.h"
#include "registry/client_node.h"
#include "scan/client_table.h"
#include "scan/lan_info.h"
#include "tests/sandbox/sandbox.h"

using bus_test::BusFixture;

namespace
{

TEST(MethodTable, ThirteenMethodsInOrderWithTheirPolicies)
{
    const char *names[] = {"update",
                           "get_ARP",
                           "lan_update",
                           "get",
                           "get_hist_list",
                           "get_hist_list_num",
                           "get_dev_info",
                           "set_dev_type",
                           "set_dev_nickname",
                           "delete_offline_device",
                           "remove_client_by_mac",
                           "update_fing_auth_state",
                           "get_hist_list_new"};
    const int n_policy[] = {4, 0, 0, 6, 1, 1, 2, 2, 2, 1, 1, 1, 10};
    ASSERT_EQ(lanroster_object.n_methods, LANROSTER_METHOD_COUNT);
    for (int i = 0; i < LANROSTER_METHOD_COUNT; ++i) {
        EXPECT_STREQ(lanroster_methods[i].name, names[i]);
        EXPECT_EQ(lanroster_methods[i].n_policy, n_policy[i]) << names[i];
        EXPECT_NE(lanroster_methods[i].handler, nullptr);
    }
    EXPECT_EQ(lanroster_methods[0].handler, update);
    EXPECT_EQ(lanroster_methods[4].handler, history_list_get);
    EXPECT_EQ(lanroster_methods[12].handler, get_hist_list_new);
    EXPECT_STREQ(lanroster_methods[0].policy[3].name, "report_neigh");
    EXPECT_EQ(lanroster_methods[0].policy[3].type, BLOBMSG_TYPE_STRING);
    const char *keys[] = {"online_type",   "v6",           "access_limit",
                          "speed_limit",   "qos",          "tfstats",
                          "wireless",      "qos_schedule", "high_bandwidth_occupancy",
                          "lanroster_file"};
    for (int i = 0; i < 10; ++i) {
        EXPECT_STREQ(lanroster_methods[12].policy[i].name, keys[i]);
        EXPECT_EQ(lanroster_methods[12].policy[i].type, BLOBMSG_TYPE_INT32);
    }
    ASSERT_EQ(mac_oui_object.n_methods, 1);
    EXPECT_STREQ(mac_oui_methods[0].name, "req");
    EXPECT_EQ(mac_oui_methods[0].handler, mac_oui_ubus_query);
    EXPECT_STREQ(mac_oui_methods[0].policy[0].name, "mac");
}

TEST(EventTable, FourNamesInOrderThenTheEnd)
{
    EXPECT_STREQ(event_task_table[0].name, "meshd_client_update");
    EXPECT_STREQ(event_task_table[1].name, "print_client");
    EXPECT_STREQ(event_task_table[2].name, "set_log_level");
    EXPECT_STREQ(event_task_table[3].name, "print_lan_info");
    EXPECT_EQ(event_task_table[4].name, nullptr);
}

TEST(Init, NoBusNoDaemon)
{
    uloop_init();
    // Nothing listens on the bus socket of the sandbox.
    ASSERT_TRUE(bus_test::point_bus_at(""));
    EXPECT_EQ(lanroster_ubus_init(), -1);
    EXPECT_EQ(ubus_ctx, nullptr);
    uloop_done();
}

TEST(Init, PublishesBothObjectsAndDeinitRemovesThem)
{
    uint32_t id = 0;
    {
        BusFixture bus;
        ASSERT_TRUE(bus.ok());
        EXPECT_EQ(ubus_lookup_id(bus.caller(), "lanroster", &id), 0);
        EXPECT_EQ(ubus_lookup_id(bus.caller(), "mac_oui", &id), 0);
        bus.stop_server();
        lanroster_ubus_deinit();
        EXPECT_EQ(ubus_ctx, nullptr);
        EXPECT_EQ(ubus_lookup_id(bus.caller(), "lanroster", &id), UBUS_STATUS_NOT_FOUND);
        EXPECT_EQ(ubus_lookup_id(bus.caller(), "mac_oui", &id), UBUS_STATUS_NOT_FOUND);
    }
}

TEST(Init, TakenNameFailsAndLeavesNothingBehind)
{
    ubus_test::Ubusd ubusd;
    uloop_init();
    ubus_context *other = ubus_connect(ubusd.path());
    ASSERT_NE(other, nullptr);
    static ubus_object_type squat_type = {.name = "squat", .id = 0, .methods = nullptr, .n_methods = 0};
    ubus_object squat = {.avl = {},
                         .name = "mac_oui",
                         .id = 0,
                         .path = nullptr,
                         .type = &squat_type,
                         .subscribe_cb = nullptr,
                         .has_subscribers = false,
                         .methods = nullptr,
                         .n_methods = 0};
    ASSERT_EQ(ubus_add_object(other, &squat), 0);
    ASSERT_TRUE(bus_test::point_bus_at(ubusd.path()));
    EXPECT_EQ(lanroster_ubus_init(), -1);
    EXPECT_EQ(ubus_ctx, nullptr);
    uint32_t id = 0;
    EXPECT_EQ(ubus_lookup_id(other, "lanroster", &id), UBUS_STATUS_NOT_FOUND);
    ubus_free(other);
    bus_test::point_bus_at("");
    uloop_done();
}

// --- update ---------------------------------------------------------------

// The compare pass is seen through the record it updates: one client on the
// live list, reported online by an event, so a pass copies the scan entry
// into it and settles it, and writes no store row. Before each call the
// record is put back in that state with its name wiped; a call that ran a
// pass leaves the entry's name in it.
class Update : public ::testing::Test
{
  protected:
    void SetUp() override
    {
        compare_runs = 0;
        const uint8_t mac[6] = {0x02, 0x00, 0x00, 0x00, 0x00, 0x42};
        std::memcpy(entry_.mac, mac, 6);
        std::strcpy(entry_.hostname, "seen-by-the-pass");
        entry_.ip = htonl(0xC0A80142);
        entry_.guest = 2;
        record_.next = nullptr;
        std::memcpy(record_.mac, mac, 6);
        record_.guest = 2;
        set_history_list(&record_);
        client_table.head = &entry_;
        std::memset(arp_item, 0, sizeof(arp_item));
        ASSERT_TRUE(bus_.ok());
    }
    void TearDown() override
    {
        set_history_list(nullptr);
        client_table.head = nullptr;
        std::memset(arp_item, 0, sizeof(arp_item));
    }
    bus_test::call_result update(const char *json)
    {
        record_.status = STATUS_EVENT_ONLINE;
        record_.hostname[0] = '\0';
        record_.ip = 0;
        auto r = bus_.call("lanroster", "update", json);
        if (std::strcmp(record_.hostname, entry_.hostname) == 0) {
            EXPECT_EQ(record_.ip, entry_.ip);
            EXPECT_EQ(record_.status, STATUS_ONLINE_LAST_TIME);
            ++compare_runs;
        } else {
            EXPECT_EQ(record_.status, STATUS_EVENT_ONLINE) << "a pass that did not copy the entry";
        }
        return r;
    }

    int compare_runs = 0;
    client_table_entry entry_{};
    client_node record_{};
    BusFixture bus_;
};

TEST_F(Update, EmptyMessageRunsTheComparePass)
{
    auto r = update(nullptr);
    EXPECT_EQ(r.status, 0);
    EXPECT_TRUE(r.replies.empty());
    EXPECT_EQ(compare_runs, 1);
    update("{}");
    EXPECT_EQ(compare_runs, 2);
}

TEST_F(Update, DelayOrIntervalAloneDoesNot)
{
    update("{\"delay\": 5000}");
    EXPECT_EQ(compare_runs, 0);
    EXPECT_TRUE(update_timer.pending);
    uloop_timeout_cancel(&update_timer);
    update("{\"interval\": 7000}");
    EXPECT_EQ(compare_runs, 0);
    EXPECT_EQ(update_interval, 7000);
    update_interval = 14000;
}

TEST_F(Update, PrintNeighZeroCountsAsNotAsked)
{
    auto r = update("{\"print_neigh\": 0}");
    EXPECT_TRUE(r.replies.empty());
    EXPECT_EQ(compare_runs, 1);
}

TEST_F(Update, PrintNeighListsTheRememberedNeighbours)
{
    const uint8_t mac[6] = {0xAA, 0xBB, 0xCC, 0x01, 0x02, 0x03};
    set_arp_row(htonl(0xC0A80109), mac); // 192.168.1.9
    arp_row(htonl(0xC0A80109)).active = 0;
    set_arp_row(htonl(0xC0A80102), mac);
    auto r = update("{\"print_neigh\": 1}");
    ASSERT_EQ(r.replies.size(), 1u);
    // Tables with an empty name: the JSON printer may show the name or not.
    std::string json = r.replies[0];
    for (size_t at; (at = json.find("\"\":")) != std::string::npos;)
        json.erase(at, 3);
    EXPECT_EQ(json, "{{\"mac\":\"aa-bb-cc-01-02-03\",\"ip\":\"192.168.1.2\",\"active\":\"1\"},"
                    "{\"mac\":\"aa-bb-cc-01-02-03\",\"ip\":\"192.168.1.9\",\"active\":\"0\"}}");
    EXPECT_EQ(compare_runs, 0);
}

TEST_F(Update, ReportNeighWithDashesChangesNothing)
{
    update("{\"report_neigh\": \"aa-bb-cc-dd-ee-ff 192.168.1.7\"}");
    EXPECT_EQ(compare_runs, 0);
    EXPECT_EQ(arp_row(htonl(0xC0A80107)).ip, 0u);
}

TEST_F(Update, ReportNeighWritesTheRowAndRunsOnceForTheSameNeighbour)
{
    update("{\"report_neigh\": \"aa:bb:cc:dd:ee:ff   192.168.1.7\"}");
    EXPECT_EQ(compare_runs, 1);
    const struct arp_item &row = arp_row(htonl(0xC0A80107));
    EXPECT_EQ(row.ip, htonl(0xC0A80107));
    EXPECT_EQ(row.active, 1);
    EXPECT_EQ(row.mac[5], 0xff);
    update("{\"report_neigh\": \"aa:bb:cc:dd:ee:ff 192.168.1.7\"}");
    EXPECT_EQ(compare_runs, 1);
    update("{\"report_neigh\": \"aa:bb:cc:dd:ee:01 192.168.1.7\"}");
    EXPECT_EQ(compare_runs, 2);
    EXPECT_EQ(row.mac[5], 0x01);
}

TEST_F(Update, ReportNeighRefusals)
{
    update("{\"report_neigh\": \"aa:bb:cc:dd:ee:ff\"}");
    update("{\"report_neigh\": \"aa:bb:cc:dd:ee:ff 0.0.0.0\"}");
    update("{\"report_neigh\": \"aa:bb:cc:dd:ee:ff not-an-address\"}");
    update("{\"report_neigh\": \"\"}");
    EXPECT_EQ(compare_runs, 0);
}

TEST_F(Update, EmptyScanListWritesTheRowAndRunsNothing)
{
    client_table.head = nullptr;
    update("{\"report_neigh\": \"aa:bb:cc:dd:ee:ff 192.168.1.7\"}");
    update(nullptr);
    EXPECT_EQ(compare_runs, 0);
    EXPECT_EQ(arp_row(htonl(0xC0A80107)).ip, htonl(0xC0A80107));
}

TEST_F(Update, WrongTypeIsAbsentAndAnInvalidMessageDoesNothing)
{
    // A string "delay" is not the INT32 of the policy: not asked.
    update("{\"delay\": \"5\"}");
    EXPECT_EQ(compare_runs, 1);
    EXPECT_FALSE(update_timer.pending);
}

// --- req of mac_oui ---------------------------------------------------------

class MacOuiReq : public ::testing::Test
{
  protected:
    void SetUp() override
    {
        ASSERT_TRUE(bus_.ok());
    }
    std::string req(const char *json)
    {
        auto r = bus_.call("mac_oui", "req", json);
        EXPECT_EQ(r.status, 0);
        return r.replies.size() == 1 ? r.replies[0] : "<" + std::to_string(r.replies.size()) + " replies>";
    }
    BusFixture bus_;
};

TEST_F(MacOuiReq, ThreeFormsReachTheLookup)
{
    const char *cisco = "{\"vendor\":\"Cisco Systems, Inc\",\"err_code\":0}";
    EXPECT_EQ(req("{\"mac\": \"00000c123456\"}"), cisco);
    EXPECT_EQ(req("{\"mac\": \"00-00-0C-12-34-56\"}"), cisco);
    EXPECT_EQ(req("{\"mac\": \"00:00:0c:12:34:56\"}"), cisco);
}

TEST_F(MacOuiReq, UnknownVendorAndBadInput)
{
    EXPECT_EQ(req("{\"mac\": \"02:00:00:00:00:01\"}"), "{\"vendor\":\"\",\"err_code\":1}");
    EXPECT_EQ(req("{\"mac\": \"00:00:0c:12:34\"}"), "{\"err_code\":-1}");
    EXPECT_EQ(req("{\"mac\": \"00:00-0c:12:34:56\"}"), "{\"err_code\":-1}");
    EXPECT_EQ(req("{\"mac\": 5}"), "{\"err_code\":-1}");
    EXPECT_EQ(req("{\"other\": 1}"), "{\"err_code\":-1}");
    EXPECT_EQ(req(nullptr), "{\"err_code\":-1}");
}

// --- lan_update ---------------------------------------------------------------

TEST(LanUpdate, RereadsTheNetworkPackageAndRepliesNothing)
{
    FILE *f = std::fopen("/etc/config/network", "w");
    ASSERT_NE(f, nullptr);
    std::fputs("config interface 'lan'\n\toption ipaddr '10.9.8.1'\n\toption netmask '255.255.0.0'\n", f);
    std::fclose(f);
    lan_info = {};
    {
        BusFixture bus;
        ASSERT_TRUE(bus.ok());
        auto r = bus.call("lanroster", "lan_update", nullptr);
        EXPECT_EQ(r.status, 0);
        EXPECT_TRUE(r.replies.empty());
    }
    EXPECT_STREQ(lan_info.ip, "10.9.8.1");
    EXPECT_EQ(lan_info.prefix_len, 16);
    lan_info = {};
    std::remove("/etc/config/network");
}

// --- the device commands and older read methods on the bus ----------------

TEST(OlderMethods, ReadersReplyAndCommandsWithoutTheirKeysDoNot)
{
    BusFixture bus;
    ASSERT_TRUE(bus.ok());
    for (const char *m : {"get", "get_hist_list", "get_hist_list_num"}) {
        auto r = bus.call("lanroster", m, "{\"request_type\": 0}");
        EXPECT_EQ(r.status, 0) << m;
        EXPECT_EQ(r.replies.size(), 1u) << m;
    }
    EXPECT_EQ(bus.call("lanroster", "get_hist_list_num", "{\"request_type\": 0}").replies,
              (std::vector<std::string>{"{\"online_and_offline_client_cnt\":0}"}));
    for (const char *m : {"get_dev_info", "set_dev_type", "set_dev_nickname", "delete_offline_device",
                          "remove_client_by_mac", "update_fing_auth_state"}) {
        auto r = bus.call("lanroster", m, "{\"request_type\": 0}");
        EXPECT_EQ(r.status, 0) << m;
        EXPECT_TRUE(r.replies.empty()) << m;
    }
    auto r = bus.call("lanroster", "update_fing_auth_state", "{\"auth_state\": 7}");
    EXPECT_EQ(r.replies, (std::vector<std::string>{"{\"result\":\"fail\"}"}));
}

// --- events ---------------------------------------------------------------

// The console as a FIFO, so every line stays (the log opens it with
// truncation for each line), and a pool of one worker.
class Events : public ::testing::Test
{
  protected:
    void SetUp() override
    {
        ASSERT_TRUE(console_.ok());
        saved_level_ = log_level.load();
        log_level = 7;
        pool_ = static_cast<threadpool *>(malloc(sizeof(threadpool)));
        ASSERT_EQ(threadpool_init(pool_, 1), 0);
        ASSERT_EQ(create_workers(pool_), 0);
        thread_pool = pool_;
        ASSERT_TRUE(bus_.ok());
    }
    void TearDown() override
    {
        drain_pool();
        thread_pool = nullptr;
        threadpool_deinit(pool_);
        log_level = saved_level_;
    }
    // Every task posted before has run once this returns: one worker, FIFO.
    void drain_pool()
    {
        struct gate {
            std::mutex m;
            std::condition_variable cv;
            bool done = false;
        } g;
        auto *t = static_cast<threadpool_task *>(calloc(1, sizeof(threadpool_task)));
        t->fn = [](void *arg) {
            auto *g2 = static_cast<gate *>(arg);
            std::lock_guard<std::mutex> hold(g2->m);
            g2->done = true;
            g2->cv.notify_all();
        };
        t->arg = &g;
        threadpool_add_task(t, pool_);
        std::unique_lock<std::mutex> hold(g.m);
        g.cv.wait(hold, [&] { return g.done; });
    }
    std::string console()
    {
        return console_.text();
    }

    sandbox::console console_{sandbox::console::fifo};
    int32_t saved_level_ = 2;
    threadpool *pool_ = nullptr;
    BusFixture bus_;
};

TEST_F(Events, PrintLanInfoRunsOnAWorker)
{
    std::string main_tid = "|" + std::to_string(static_cast<unsigned long>(pthread_self())) + "|";
    bus_.send_event("lanroster.print_lan_info", nullptr);
    drain_pool();
    std::string text = console();
    size_t at = text.find("lan info, ip : ");
    ASSERT_NE(at, std::string::npos) << text;
    size_t bol = text.rfind('\n', at);
    std::string line = text.substr(bol == std::string::npos ? 0 : bol + 1, text.find('\n', at) - bol);
    EXPECT_EQ(line.find(main_tid), std::string::npos) << line;
    EXPECT_NE(line.find("|level:6|"), std::string::npos) << line;
}

TEST_F(Events, PrintLanInfoLinesCarryTheLanDescription)
{
    std::strcpy(lan_info.ip, "192.168.7.1");
    lan_info.prefix_len = 24;
    lan_info.ifnum = 2;
    std::strcpy(lan_info.ifname[0], "eth0");
    lan_info.ifindex[0] = 3;
    std::strcpy(lan_info.ifname[1], "wl0");
    lan_info.ifindex[1] = 7;
    lan_info.gateway_mac[4] = 0xAB;
    lan_info.gateway_mac[5] = 0x0C;
    lan_info.gateway_port = 2;
    bus_.send_event("lanroster.print_lan_info", "{\"ignored\": 1}");
    drain_pool();
    std::string text = console();
    EXPECT_NE(text.find("lan info, ip : 192.168.7.1, mask : 24, ifnum : 2, gateway : AB-0C(port 2)"),
              std::string::npos)
        << text;
    EXPECT_NE(text.find("lan ifname:eth0, idx:3"), std::string::npos);
    EXPECT_NE(text.find("lan ifname:wl0, idx:7"), std::string::npos);
    lan_info = {};
}

TEST_F(Events, SetLogLevelReachesThePool)
{
    bus_.send_event("lanroster.set_log_level", "{\"log_level\": 3}");
    drain_pool();
    EXPECT_EQ(log_level.load(), 3);
}

TEST_F(Events, PrintClientLogsTheList)
{
    bus_.send_event("lanroster.print_client", "{\"online\": 1}");
    drain_pool();
    EXPECT_NE(console().find("online_type = 1"), std::string::npos);
}

TEST_F(Events, NoPrefixIsIgnoredUnknownNameIsDropped)
{
    uint32_t before = event_copies_dropped;
    bus_.send_event("other.print_lan_info", nullptr);
    bus_.send_event("lanroster", nullptr);
    EXPECT_EQ(event_copies_dropped, before);
    bus_.send_event("lanroster.no_such_event", "{\"a\": 1}");
    bus_.send_event("lanroster.meshd_client_updat", "{}");
    EXPECT_EQ(event_copies_dropped, before + 2);
    drain_pool();
    EXPECT_EQ(console().find("lan info"), std::string::npos);
}

TEST(EventDispatch, CopiesHeaderAndPayload)
{
    // Direct call, no bus: the copy a task gets is the whole attribute.
    threadpool pool_record{};
    threadpool *pool = &pool_record;
    ASSERT_EQ(threadpool_init(pool, 1), 0); // no workers: the task waits in the queue
    thread_pool = pool;
    blob_buf b = {};
    blob_buf_init(&b, 0);
    blobmsg_add_u32(&b, "online", 0);
    event_dispatch(nullptr, nullptr, "lanroster.print_client", b.head);
    threadpool_task *t = task_dequeue(&pool->task_queue);
    ASSERT_NE(t, nullptr);
    EXPECT_EQ(t->fn, static_cast<void (*)(void *)>(print_client));
    EXPECT_EQ(std::memcmp(t->arg, b.head, blob_raw_len(b.head)), 0);
    std::free(t->arg);
    std::free(t);
    blob_buf_free(&b);
    thread_pool = nullptr;
    std::free(pool->worker_arr);
    std::free(pool->task_queue.head);
}

TEST(EventDispatch, CopyRefusedByAFullQueueIsFreed)
{
    // No workers and a full queue: the dispatcher learns of the refusal and
    // frees its copy (the leak checker of the sanitizer build sees to it).
    threadpool pool_record{};
    threadpool *pool = &pool_record;
    ASSERT_EQ(threadpool_init(pool, 1), 0);
    thread_pool = pool;
    for (int i = 0; i < TASK_QUEUE_MAX; i++) {
        auto *t = static_cast<threadpool_task *>(std::calloc(1, sizeof(threadpool_task)));
        ASSERT_EQ(threadpool_add_task(t, pool), 0);
    }
    blob_buf b = {};
    blob_buf_init(&b, 0);
    blobmsg_add_u32(&b, "online", 1);
    uint32_t before = event_copies_dropped;
    event_dispatch(nullptr, nullptr, "lanroster.print_client", b.head);
    EXPECT_EQ(event_copies_dropped, before + 1);
    EXPECT_EQ(pool->task_queue.len, TASK_QUEUE_MAX);
    while (threadpool_task *t = task_dequeue(&pool->task_queue))
        std::free(t);
    blob_buf_free(&b);
    thread_pool = nullptr;
    std::free(pool->worker_arr);
    std::free(pool->task_queue.head);
}

} // namespace
