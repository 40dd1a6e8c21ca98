// The compare pass: statuses, moves, the clock rule and the callback rows.
#include <arpa/inet.h>
#include <atomic>
#include <condition_variable>
#include <cstring>
#include <gtest/gtest.h>
#include <mutex>
#include <pthread.h>
#include <sched.h>
#include <sys/mount.h>
#include <thread>
#include <tuple>

#include "core/timers.h"
#include "db/lookups.h"
#include "db/system_info.h"
#include "recognition/fing_report.h"
#include "recognition/http_user_agent.h"
#include "recognition/new_client_notify.h"
#include "registry/compare.h"
#include "registry/history_list_mgmt.h"
#include "registry_test_util.h"
#include "scan/ip6.h"
#include "scan/lease.h"
#include "scan/topology.h"

using namespace regtest;

namespace {

using ids = std::vector<int>;

long uptime_now()
{
    struct sysinfo info {
    };
    sysinfo(&info);
    return info.uptime;
}

client_node *node_of(int id)
{
    uint8_t mac[6];
    test_mac(mac, id);
    return find_node_by_mac(mac);
}

int status_of(int id)
{
    client_node *n = node_of(id);
    return n ? n->status : -1;
}

// Each test starts with a fresh pool, an unknown system mode and the
// capability record of a router that is no mesh agent's repeater.
void fresh_registry()
{
    fresh_pool();
    sys_mode_text[0] = '\0';
    system_info = {};
    is_mesh_agent = true;
}

TEST(Compare, TablesAreTerminatedAndInOrder)
{
    int rows = 0;
    for (const status_callback_row *r = status_callback_table; r->rows; r++, rows++)
        EXPECT_EQ(r->status, rows + 1);
    EXPECT_EQ(rows, 4);
    EXPECT_EQ(status_callback_table[0].rows[0].function, smart_home_client_add);
    EXPECT_EQ(status_callback_table[0].rows[1].function, new_access_client_add);
    EXPECT_EQ(status_callback_table[0].rows[2].function, fing_report_client_add);
    EXPECT_EQ(status_callback_table[0].rows[3].function, uci_update_cfg_file);
    EXPECT_EQ(status_callback_table[1].rows[0].function, uci_update_access_time);
    EXPECT_EQ(status_callback_table[2].rows[0].function, uci_update_cfg_file);
    EXPECT_EQ(status_callback_table[3].rows[0].function, uci_update_leave_time);
    for (const status_callback_row *r = status_callback_table; r->rows; r++) {
        const callback_pair *p = r->rows;
        while (p->function) {
            EXPECT_EQ(p->in_thread, 0);
            p++;
        }
    }
    EXPECT_EQ(end_of_pass_table[0].function, smart_home_flush);
    EXPECT_EQ(end_of_pass_table[1].function, new_client_database_update);
    EXPECT_EQ(end_of_pass_table[2].function, new_access_flush);
    EXPECT_EQ(end_of_pass_table[3].function, fing_report_flush);
    EXPECT_EQ(end_of_pass_table[4].function, check_http_user_agent);
    EXPECT_EQ(end_of_pass_table[5].function, fing_periodic);
    EXPECT_EQ(end_of_pass_table[6].function, nullptr);
    for (const callback_pair *p = end_of_pass_table; p->function; p++)
        EXPECT_EQ(p->in_thread, 0);
}

TEST(Compare, ClientArrivesStaysLeavesAndComesBack)
{
    ASSERT_TRUE(run_in_sandbox([] {
        fresh_registry();
        entries e;
        e.add(1, "phone", 2, 0, 0x0a01a8c0);
        e.add(2, "tv");
        long up_before = uptime_now();
        ASSERT_EQ(compare_client_table(e.head()), 0);
        long up_after = uptime_now();
        EXPECT_EQ(list_order(), (ids{2, 1}));
        EXPECT_EQ(list_statuses(), (ids{5, 5}));
        auto file = read_history();
        ASSERT_EQ(file.size(), 2u);
        auto s = file[hex_mac(1)];
        EXPECT_EQ(s["hostname"], "phone");
        EXPECT_EQ(s["type"], "unknown");
        EXPECT_EQ(s["access_host"], "1");
        EXPECT_EQ(s["first_access_time"], std::to_string(node_of(1)->first_access_time));
        EXPECT_EQ(s["access_time"], std::to_string(node_of(1)->access_time));
        EXPECT_EQ(s.count("leave_time"), 0u);
        EXPECT_EQ(node_of(1)->clock_state, CLOCK_NOT_SET);
        EXPECT_GE(node_of(1)->access_uptime, up_before);
        EXPECT_LE(node_of(1)->access_uptime, up_after);

        // Same data: a keep-alive, the file stays as it is.
        std::string before = read_file("/etc/config/history_list");
        ASSERT_EQ(compare_client_table(e.head()), 0);
        EXPECT_EQ(list_statuses(), (ids{5, 5}));
        EXPECT_EQ(read_file("/etc/config/history_list"), before);

        // Client 1 is missing: it leaves, with its leave time written.
        entries only_tv;
        only_tv.add(2, "tv");
        ASSERT_EQ(compare_client_table(only_tv.head()), 0);
        EXPECT_EQ(list_order(), (ids{2, 1}));
        EXPECT_EQ(status_of(1), STATUS_DISCONNECT);
        EXPECT_EQ(node_of(1)->ip, 0u);
        EXPECT_EQ(read_history()[hex_mac(1)]["leave_time"], std::to_string(node_of(1)->leave_time));

        // Back again: a reconnection, at the head.
        entries back;
        back.add(2, "tv");
        back.add(1, "phone", 2, 0, 0x0b01a8c0);
        std::string first = read_history()[hex_mac(1)]["first_access_time"];
        ASSERT_EQ(compare_client_table(back.head()), 0);
        EXPECT_EQ(list_order(), (ids{1, 2}));
        EXPECT_EQ(list_statuses(), (ids{5, 5}));
        EXPECT_EQ(node_of(1)->ip, 0x0b01a8c0u);
        auto again = read_history()[hex_mac(1)];
        EXPECT_EQ(again["access_time"], std::to_string(node_of(1)->access_time));
        EXPECT_EQ(again["first_access_time"], first) << "written only when the section is created";
    }));
}

TEST(Compare, HostnameChangeIsAReconnectionAndRewritesTheSection)
{
    ASSERT_TRUE(run_in_sandbox([] {
        fresh_registry();
        entries e;
        e.add(1, "old-name");
        e.add(2, "other");
        ASSERT_EQ(compare_client_table(e.head()), 0);
        ASSERT_EQ(list_order(), (ids{2, 1}));
        entries renamed;
        renamed.add(1, "new-name");
        renamed.add(2, "other");
        status_event ev{};
        ASSERT_EQ(find_client_for_compare(renamed.head(), &ev), 1);
        EXPECT_EQ(ev.status, STATUS_RECONNECT);
        // find_client_for_compare unlinked it; put it back as the pass would.
        default_opt_before_event_callback(&ev, renamed.head());
        EXPECT_EQ(list_order(), (ids{1, 2}));
        EXPECT_EQ(status_of(1), STATUS_RECONNECT);
        auto file = read_history();
        ASSERT_EQ(file.size(), 2u);
        EXPECT_EQ(file[hex_mac(1)]["hostname"], "new-name");
    }));
}

TEST(Compare, GuestOrPortChangeIsAReconnection)
{
    ASSERT_TRUE(run_in_sandbox([] {
        fresh_registry();
        entries e;
        e.add(1, "a", 2, 1);
        ASSERT_EQ(compare_client_table(e.head()), 0);
        entries moved;
        moved.add(1, "a", 2, 2);
        status_event ev{};
        ASSERT_EQ(find_client_for_compare(moved.head(), &ev), 1);
        EXPECT_EQ(ev.status, STATUS_RECONNECT);
        EXPECT_EQ(list_count(), 0) << "unlinked for the move";
        default_opt_before_event_callback(&ev, moved.head());
        entries same;
        same.add(1, "a", 2, 2);
        ASSERT_EQ(find_client_for_compare(same.head(), &ev), 1);
        EXPECT_EQ(ev.status, STATUS_KEEP_ALIVE);
        EXPECT_EQ(list_count(), 1);
    }));
}

TEST(Compare, AnEmptyScanListIsNotCompared)
{
    ASSERT_TRUE(run_in_sandbox([] {
        fresh_registry();
        entries e;
        e.add(1, "a");
        e.add(2, "b");
        ASSERT_EQ(compare_client_table(e.head()), 0);
        // A network of its own with no neighbour, no bridge and no lease.
        ASSERT_EQ(unshare(CLONE_NEWNET), 0);
        ASSERT_EQ(mount("sysfs", "/sys", "sysfs", 0, nullptr), 0);
        // The scan task: a pass that finds nobody, so no compare, and nobody
        // leaves although everybody has gone.
        local_report_task(nullptr);
        EXPECT_EQ(client_table.head, nullptr);
        EXPECT_EQ(list_statuses(), (ids{5, 5}));
        EXPECT_EQ(read_history()[hex_mac(1)].count("leave_time"), 0u);
        // Compared, the same empty list would have taken them all offline.
        ASSERT_EQ(compare_client_table(nullptr), 0);
        EXPECT_EQ(list_statuses(), (ids{4, 4}));
    }));
}

TEST(Compare, EventOnlineMissingFromTheNextPassGoesOfflineOnePassLater)
{
    ASSERT_TRUE(run_in_sandbox([] {
        fresh_registry();
        entries e;
        e.add(1, "a");
        e.add(2, "b");
        ASSERT_EQ(compare_client_table(e.head()), 0);
        node_of(1)->status = STATUS_EVENT_ONLINE;
        entries only_b;
        only_b.add(2, "b");
        ASSERT_EQ(compare_client_table(only_b.head()), 0);
        EXPECT_EQ(status_of(1), STATUS_ONLINE_LAST_TIME);
        ASSERT_EQ(compare_client_table(only_b.head()), 0);
        EXPECT_EQ(status_of(1), STATUS_DISCONNECT);
    }));
}

TEST(Compare, EventOnlineSeenIsUpdatedWithoutRows)
{
    ASSERT_TRUE(run_in_sandbox([] {
        fresh_registry();
        client_node *n = add_node(1, STATUS_NEW_ACCESS);
        n->status = STATUS_EVENT_ONLINE;
        entries e;
        e.add(1, "named-now", 2, 0, 0x0501a8c0);
        ASSERT_EQ(compare_client_table(e.head()), 0);
        EXPECT_EQ(status_of(1), STATUS_ONLINE_LAST_TIME);
        EXPECT_STREQ(n->hostname, "named-now");
        EXPECT_EQ(n->ip, 0x0501a8c0u);
        EXPECT_TRUE(read_history().empty()) << "no row runs for a real-time client";
    }));
}

TEST(Compare, MeshClientNotConfirmedStaysOnline)
{
    ASSERT_TRUE(run_in_sandbox([] {
        fresh_registry();
        add_node(1, STATUS_NEW_ACCESS)->status = STATUS_MESH_ONLINE;
        entries e;
        e.add(2, "b");
        for (int pass = 0; pass < 3; pass++) {
            ASSERT_EQ(compare_client_table(e.head()), 0);
            EXPECT_EQ(status_of(1), STATUS_MESH_ONLINE);
        }
    }));
}

TEST(Compare, EventOfflineSettlesAndAnEntryCountsOnlyThePassAfter)
{
    ASSERT_TRUE(run_in_sandbox([] {
        fresh_registry();
        add_node(1, STATUS_DISCONNECT)->status = STATUS_EVENT_OFFLINE;
        entries e;
        e.add(1, "a");
        ASSERT_EQ(compare_client_table(e.head()), 0);
        EXPECT_EQ(status_of(1), STATUS_DISCONNECT);
        EXPECT_TRUE(read_history().empty());
        ASSERT_EQ(compare_client_table(e.head()), 0);
        EXPECT_EQ(status_of(1), STATUS_ONLINE_LAST_TIME);
        EXPECT_EQ(read_history().size(), 1u);
    }));
}

TEST(Compare, UpstreamClientOfANodeIsSkippedAndGoesOffline)
{
    ASSERT_TRUE(run_in_sandbox([] {
        fresh_registry();
        entries e;
        e.add(1, "a", 2, 0);
        e.add(2, "b");
        ASSERT_EQ(compare_client_table(e.head()), 0);
        ASSERT_EQ(status_of(1), STATUS_ONLINE_LAST_TIME);
        std::strcpy(sys_mode_text, "ap");
        entries upstream;
        upstream.add(1, "a", 2, WIRE_TYPE_UPSTREAM);
        upstream.add(2, "b");
        upstream.add(3, "c", 2, WIRE_TYPE_UPSTREAM);
        ASSERT_EQ(compare_client_table(upstream.head()), 0);
        EXPECT_EQ(status_of(1), STATUS_DISCONNECT);
        EXPECT_EQ(status_of(3), -1) << "never taken in";
        // In router mode the same entry counts.
        std::strcpy(sys_mode_text, "router");
        ASSERT_EQ(compare_client_table(upstream.head()), 0);
        EXPECT_EQ(status_of(3), STATUS_ONLINE_LAST_TIME);
    }));
}

TEST(Compare, ClockNotSetThenCorrectedAndWrittenOnce)
{
    ASSERT_TRUE(run_in_sandbox([] {
        fresh_registry();
        entries e;
        e.add(1, "a");
        long up_before = uptime_now();
        ASSERT_EQ(compare_client_table(e.head()), 0);
        client_node *n = node_of(1);
        EXPECT_EQ(n->clock_state, CLOCK_NOT_SET);
        EXPECT_GE(n->access_uptime, up_before);
        EXPECT_LE(n->access_uptime, uptime_now());
        std::string written = read_history()[hex_mac(1)]["access_time"];

        // A keep-alive before the clock is set changes nothing.
        ASSERT_EQ(compare_client_table(e.head()), 0);
        EXPECT_EQ(n->clock_state, CLOCK_NOT_SET);
        EXPECT_EQ(read_history()[hex_mac(1)]["access_time"], written);

        // The client came 100 s of uptime ago; then the clock is set.
        write_file(NTP_SERVER_FILE, "");
        time_t before = time(nullptr);
        long up = uptime_now();
        n->access_uptime = static_cast<int32_t>(up - 100);
        ASSERT_EQ(compare_client_table(e.head()), 0);
        time_t after = time(nullptr);
        long up_end = uptime_now();
        EXPECT_GE(n->access_time, before - 100);
        EXPECT_LE(n->access_time, after - 100 + (up_end - up));
        EXPECT_EQ(n->clock_state, CLOCK_SET) << "written by the keep-alive row";
        std::string corrected = read_history()[hex_mac(1)]["access_time"];
        EXPECT_EQ(corrected, std::to_string(n->access_time));

        // Written once: later keep-alives leave the file alone.
        std::string file = read_file("/etc/config/history_list");
        ASSERT_EQ(compare_client_table(e.head()), 0);
        EXPECT_EQ(read_file("/etc/config/history_list"), file);
    }));
}

TEST(Compare, ClockSetAtConnection)
{
    ASSERT_TRUE(run_in_sandbox([] {
        fresh_registry();
        write_file(NTP_SERVER_FILE, "");
        entries e;
        e.add(1, "a");
        ASSERT_EQ(compare_client_table(e.head()), 0);
        EXPECT_EQ(node_of(1)->clock_state, CLOCK_SET);
    }));
}

TEST(Compare, ReconnectionWithoutClockTakesTheUptime)
{
    ASSERT_TRUE(run_in_sandbox([] {
        fresh_registry();
        client_node *n = add_node(1, STATUS_DISCONNECT);
        n->access_uptime = 77;
        entries e;
        e.add(1, "a");
        long up_before = uptime_now();
        ASSERT_EQ(compare_client_table(e.head()), 0);
        EXPECT_GE(n->access_uptime, up_before);
        EXPECT_EQ(n->clock_state, CLOCK_NOT_SET);
        EXPECT_EQ(status_of(1), STATUS_ONLINE_LAST_TIME);
    }));
}

TEST(Compare, GuestMovingToTheMainNetworkFiresNewAccessOnce)
{
    fresh_registry();
    client_node *n = add_node(1, STATUS_DISCONNECT, 1);
    n->access_host = 0;
    entries e;
    e.add(1, "a", 2);
    status_event ev{.status = STATUS_RECONNECT, .node = n};
    fill_node_from_entry(n, e.head(), &ev);
    EXPECT_EQ(ev.status, STATUS_NEW_ACCESS);
    EXPECT_EQ(n->access_host, 1);
    // Once access_host is 1, a reconnection stays a reconnection.
    status_event again{.status = STATUS_RECONNECT, .node = n};
    fill_node_from_entry(n, e.head(), &again);
    EXPECT_EQ(again.status, STATUS_RECONNECT);
    // A guest seen in the guest network keeps access_host 0.
    client_node *g = add_node(2, STATUS_DISCONNECT, 1);
    entries guest;
    guest.add(2, "g", 1);
    status_event ge{.status = STATUS_RECONNECT, .node = g};
    fill_node_from_entry(g, guest.head(), &ge);
    EXPECT_EQ(ge.status, STATUS_RECONNECT);
    EXPECT_EQ(g->access_host, 0);
}

TEST(Compare, GuestBackOnTheMainNetworkThroughAPass)
{
    ASSERT_TRUE(run_in_sandbox([] {
        fresh_registry();
        entries guest;
        guest.add(1, "g", 1);
        guest.add(2, "x");
        ASSERT_EQ(compare_client_table(guest.head()), 0);
        EXPECT_EQ(read_history()[hex_mac(1)]["access_host"], "0");
        entries away;
        away.add(2, "x");
        ASSERT_EQ(compare_client_table(away.head()), 0);
        ASSERT_EQ(status_of(1), STATUS_DISCONNECT);
        entries main_net;
        main_net.add(1, "g", 2);
        main_net.add(2, "x");
        status_event ev{};
        ASSERT_EQ(find_client_for_compare(main_net.head(), &ev), 1);
        default_opt_before_event_callback(&ev, main_net.head());
        EXPECT_EQ(ev.status, STATUS_NEW_ACCESS) << "the rows of a new access ran";
        EXPECT_EQ(status_of(1), STATUS_RECONNECT) << "the record itself is a reconnection";
        EXPECT_EQ(read_history()[hex_mac(1)]["access_host"], "1");
    }));
}

TEST(Compare, FillFollowsTheTypeFlagsAndTheNameLimits)
{
    fresh_registry();
    client_node *n = add_node(1, STATUS_NEW_ACCESS);
    entries e;
    client_table_entry *x = e.add(1, "");
    std::memset(x->hostname, 'h', 64);
    x->hostname[64] = '\0';
    std::strcpy(x->ifname, "abcdefghijklmno");
    x->device_type = 26;
    x->type_source = 3;
    status_event ev{.status = STATUS_KEEP_ALIVE, .node = n};
    fill_node_from_entry(n, x, &ev);
    EXPECT_EQ(std::strlen(n->hostname), 64u);
    EXPECT_STREQ(n->ifname, "abcdefghijklmno");
    EXPECT_EQ(n->device_type, 26);
    EXPECT_EQ(n->type_source, 3u);
    n->type_user_set = 1;
    x->device_type = 9;
    fill_node_from_entry(n, x, &ev);
    EXPECT_EQ(n->device_type, 26) << "a user's type is not touched";
    // An entry without address keeps the record's.
    n->ip = 0x0201a8c0;
    x->ip = 0;
    fill_node_from_entry(n, x, &ev);
    EXPECT_EQ(n->ip, 0x0201a8c0u);
    // A mesh client keeps its port class and guest state.
    n->is_mesh_client = 1;
    n->wire_type = 2;
    x->wire_type = 0;
    x->guest = 1;
    fill_node_from_entry(n, x, &ev);
    EXPECT_EQ(n->wire_type, 2);
    EXPECT_EQ(n->guest, 2);
}

// The one node that lets a scan overwrite a mesh peer's client: a mesh
// agent in repeater mode, as its packages say.
TEST(Compare, MeshAgentRepeaterTakesThePortClassOfItsOwnScan)
{
    ASSERT_TRUE(run_in_sandbox([] {
        fresh_registry();
        auto node_set = [](const char *mode, const char *role) {
            write_file("/etc/config/sysmode", std::string("config sysmode 'sysmode'\n\toption mode '") + mode + "'\n");
            write_file("/etc/config/meshd", std::string("config meshd 'meshd'\n\toption role '") + role + "'\n");
            ASSERT_EQ(update_sysmode(nullptr), 0);
            ASSERT_EQ(update_mesh_role(nullptr), 0);
        };
        client_node *n = add_node(1, STATUS_ONLINE_LAST_TIME);
        entries e;
        client_table_entry *x = e.add(1, "a", 1);
        status_event ev{.status = STATUS_KEEP_ALIVE, .node = n};
        const std::tuple<const char *, const char *, int> cases[] = {
            {"repeater", "controller", 2}, {"ap", "agent", 2}, {"router", "agent", 2}, {"repeater", "agent", 1}};
        for (auto [mode, role, guest] : cases) {
            node_set(mode, role);
            n->is_mesh_client = 1;
            n->guest = 2;
            fill_node_from_entry(n, x, &ev);
            EXPECT_EQ(n->guest, guest) << mode << " " << role;
        }
    }));
}

TEST(Compare, SnapshotCarriesOnlyItsFields)
{
    client_node n{};
    std::memset(static_cast<void *>(&n), 0x5a, sizeof(n));
    n.hostname[64] = '\0';
    n.nickname[64] = '\0';
    n.access_host = 1;
    n.event_access_host = 0;
    client_node s = make_event_snapshot(&n);
    EXPECT_EQ(std::memcmp(s.mac, n.mac, 6), 0);
    EXPECT_EQ(s.ip, n.ip);
    EXPECT_EQ(s.ip6_globals, n.ip6_globals);
    EXPECT_EQ(s.access_time, n.access_time);
    EXPECT_EQ(s.clock_state, n.clock_state);
    EXPECT_EQ(s.event_access_host, 1);
    EXPECT_EQ(std::memcmp(s.hostname, n.hostname, 65), 0);
    EXPECT_EQ(s.status, 0);
    EXPECT_EQ(s.access_host, 0);
    EXPECT_EQ(s.next, nullptr);
    EXPECT_EQ(s.owner_id, 0);
    EXPECT_EQ(s.blocked, 0);
    EXPECT_EQ(s.nickname[64], '\0');
}

TEST(Compare, BusyTableLockGivesMinusTwo)
{
    fresh_registry();
    pthread_rwlock_wrlock(&client_table_lock);
    std::string out;
    int rc = 0;
    out = capture_stdout([&] { rc = compare_client_table(nullptr); });
    pthread_rwlock_unlock(&client_table_lock);
    EXPECT_EQ(rc, -2);
    EXPECT_EQ(out, "============= get client table rd lock failed!!!!=============\n");
}

// A test row list: one inline pair and one on a thread of its own.
std::mutex seen_mutex;
std::condition_variable seen_cv;
int inline_calls = 0;
bool thread_called = false;
pthread_t thread_of_call;
uint8_t thread_mac_byte = 0;

int inline_row(client_node *arg) noexcept
{
    inline_calls++;
    if (arg)
        arg->hostname[0] = 'X';  // the runner's copy, not the thread's
    return 1;
}

int thread_row(client_node *arg) noexcept
{
    std::lock_guard<std::mutex> hold(seen_mutex);
    thread_called = true;
    thread_of_call = pthread_self();
    thread_mac_byte = arg ? arg->mac[5] : 0xff;
    seen_cv.notify_all();
    return 1;
}

const callback_pair test_rows[] = {
    {.in_thread = 1, .function = thread_row},
    {.in_thread = 0, .function = inline_row},
    {.in_thread = 0, .function = nullptr},
};

TEST(Compare, InThreadRowRunsOnItsOwnThreadWithACopy)
{
    client_node snapshot{};
    snapshot.mac[5] = 0x42;
    inline_calls = 0;
    thread_called = false;
    run_callback_pairs(test_rows, &snapshot, nullptr, nullptr);
    EXPECT_EQ(inline_calls, 1);
    std::unique_lock<std::mutex> lock(seen_mutex);
    ASSERT_TRUE(seen_cv.wait_for(lock, std::chrono::seconds(10), [] { return thread_called; }));
    EXPECT_FALSE(pthread_equal(thread_of_call, pthread_self()));
    EXPECT_EQ(thread_mac_byte, 0x42);
}

TEST(Compare, EndOfPassStyleRowsGetNull)
{
    inline_calls = 0;
    thread_called = false;
    run_callback_pairs(test_rows, nullptr, nullptr, nullptr);
    EXPECT_EQ(inline_calls, 1);
    std::unique_lock<std::mutex> lock(seen_mutex);
    ASSERT_TRUE(seen_cv.wait_for(lock, std::chrono::seconds(10), [] { return thread_called; }));
    EXPECT_EQ(thread_mac_byte, 0xff);
}

const callback_pair count_rows[] = {
    {.in_thread = 0, .function = inline_row},
    {.in_thread = 0, .function = inline_row},
    {.in_thread = 0, .function = nullptr},
};
const status_callback_row test_table[] = {
    {.status = 3, .rows = count_rows},
    {.status = 0, .rows = nullptr},
};

TEST(Compare, StatusRowsRunOnlyForTheirStatus)
{
    client_node s{};
    inline_calls = 0;
    run_status_callbacks(test_table, 2, &s, nullptr);
    EXPECT_EQ(inline_calls, 0);
    run_status_callbacks(test_table, 3, &s, nullptr);
    EXPECT_EQ(inline_calls, 2);
}

}  // namespace

namespace {

ip6_addr_node *ip6_node(const char *text, uint32_t state)
{
    auto *a = static_cast<ip6_addr_node *>(calloc(1, sizeof(ip6_addr_node)));
    inet_pton(AF_INET6, text, a->addr);
    a->state = state;
    return a;
}

std::vector<std::string> globals_of(const client_node *n)
{
    std::vector<std::string> out;
    for (const ip6_addr_node *a = n->ip6_globals; a; a = a->next) {
        char t[INET6_ADDRSTRLEN];
        inet_ntop(AF_INET6, a->addr, t, sizeof(t));
        out.push_back(std::string(t) + (a->state ? " R" : " S"));
    }
    return out;
}

}  // namespace

TEST(Compare, IPv6AddressesAndSummaryAreCopiedFromThePass)
{
    ASSERT_TRUE(run_in_sandbox([] {
        fresh_registry();
        ip6_info info{};
        info.state = IP6_TWO_ALIVE;
        info.addresses = ip6_node("2001:db8::1", 1);
        info.addresses->next = ip6_node("2001:db8::2", 0);
        info.addresses_tail = info.addresses->next;
        entries e;
        client_table_entry *x = e.add(1, "sensor");
        x->ip6 = &info;
        x->ip6_only = 1;
        inet_pton(AF_INET6, "fe80::1", x->ip6_local);
        ASSERT_EQ(compare_client_table(e.head()), 0);
        client_node *n = node_of(1);
        ASSERT_NE(n, nullptr);
        EXPECT_EQ(n->ip6_state, IP6_TWO_ALIVE);
        EXPECT_EQ(n->ip6_only, 1);
        EXPECT_EQ(globals_of(n), (std::vector<std::string>{"2001:db8::1 R", "2001:db8::2 S"}));
        EXPECT_NE(n->ip6_globals, info.addresses) << "a copy the record owns";
        EXPECT_EQ(std::memcmp(n->ip6_local, x->ip6_local, 16), 0);

        // The next pass without IPv6 for it: the list is emptied, summary 0.
        entries plain;
        plain.add(1, "sensor");
        ASSERT_EQ(compare_client_table(plain.head()), 0);
        EXPECT_EQ(n->ip6_state, 0);
        EXPECT_TRUE(globals_of(n).empty());
        EXPECT_EQ(n->ip6_only, 0);
        free(info.addresses->next);
        free(info.addresses);
    }));
}
