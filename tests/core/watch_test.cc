// The configuration watch in a private mount namespace: real inotify on the
// sandbox's own "/etc/config" and "/tmp", a pool without workers so that the
// posted refresh tasks can be counted, and the handler called by hand after
// each batch of writes, as the loop would call it once per readable wake-up.
#include "core/watch.h"

#include <gtest/gtest.h>

#include <arpa/inet.h>
#include <fcntl.h>
#include <poll.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <sys/inotify.h>
#include <sys/mount.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

#include "core/db_timers.h"
#include "core/log.h"
#include "core/openwrt.h"
#include "core/threadpool.h"
#include "db/system_info.h"
#include "registry/client_node.h"
#include "scan/lease.h"
#include "tests/sandbox/sandbox.h"

namespace
{

void write_file(const std::string &path, const std::string &text, bool append = false)
{
    FILE *f = fopen(path.c_str(), append ? "a" : "w");
    ASSERT_NE(f, nullptr) << path;
    fputs(text.c_str(), f);
    fclose(f);
}

void (*fn_of(const char *file))(void *)
{
    for (const watch_row &row : watch_table)
        if (std::strcmp(row.file, file) == 0)
            return row.fn;
    return nullptr;
}

// Runs a platform command without a shell; its exit status.
int run(const std::vector<std::string> &argv, const std::string &input = "")
{
    int in[2];
    if (pipe(in) != 0)
        return -1;
    pid_t pid = fork();
    if (pid == 0) {
        dup2(in[0], 0);
        close(in[1]);
        std::vector<char *> args;
        for (const auto &a : argv)
            args.push_back(const_cast<char *>(a.c_str()));
        args.push_back(nullptr);
        execv(args[0], args.data());
        _exit(127);
    }
    close(in[0]);
    if (!input.empty() && write(in[1], input.data(), input.size()) < 0)
        perror("write");
    close(in[1]);
    int status = 0;
    waitpid(pid, &status, 0);
    return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
}

class WatchTest : public ::testing::Test
{
  protected:
    void SetUp() override
    {
        ASSERT_TRUE(sandbox::mount_tmpfs("/tmp"));
        ASSERT_TRUE(sandbox::mount_tmpfs("/etc/config"));
        ASSERT_EQ(uloop_init(), 0);
        thread_pool = static_cast<threadpool *>(malloc(sizeof(threadpool)));
        ASSERT_EQ(threadpool_init(thread_pool, 0), 0);
        system_info.sys_mode = SYS_MODE_ROUTER;
    }
    void TearDown() override
    {
        drain();
        db_inotify_deinit();
        threadpool_deinit(thread_pool);
        thread_pool = nullptr;
        uloop_done();
        umount("/etc/config");
        umount("/tmp");
    }
    void start()
    {
        ASSERT_EQ(db_inotify_init(), 0);
        ASSERT_GE(inot_fd, 0);
    }
    // One wake-up of the loop: waits for the descriptor, then one call.
    void one_read()
    {
        pollfd p{inot_fd, POLLIN, 0};
        ASSERT_EQ(poll(&p, 1, 2000), 1) << "no event";
        uloop_fd u{};
        u.fd = inot_fd;
        inot_ufd_handler(&u, ULOOP_READ);
    }
    bool nothing_to_read()
    {
        pollfd p{inot_fd, POLLIN, 0};
        return poll(&p, 1, 100) == 0;
    }
    std::vector<void (*)(void *)> drain()
    {
        std::vector<void (*)(void *)> fns;
        if (!thread_pool)
            return fns;
        while (threadpool_task *t = task_dequeue(&thread_pool->task_queue)) {
            fns.push_back(t->fn);
            free(t);
        }
        return fns;
    }
};

TEST_F(WatchTest, SeveralWritesToOnePackageInOneReadPostOneTask)
{
    start();
    for (int i = 0; i < 5; i++)
        write_file("/etc/config/network", "config interface 'wan'\n", true);
    one_read();
    auto fns = drain();
    ASSERT_EQ(fns.size(), 1u);
    EXPECT_EQ(fns[0], fn_of("network"));
}

TEST_F(WatchTest, TheSameWritesInTwoReadsPostTwoTasks)
{
    start();
    write_file("/etc/config/network", "config interface 'wan'\n", true);
    one_read();
    write_file("/etc/config/network", "config interface 'lan'\n", true);
    one_read();
    auto fns = drain();
    ASSERT_EQ(fns.size(), 2u);
    EXPECT_EQ(fns[0], fn_of("network"));
    EXPECT_EQ(fns[1], fn_of("network"));
}

TEST_F(WatchTest, AFileNotInTheTableOnlyLogs)
{
    sandbox::console con(sandbox::console::fifo);
    int32_t saved = log_level.load();
    log_level = 7;
    start();
    write_file("/etc/config/firewall", "config zone\n");
    one_read();
    log_level = saved;
    EXPECT_TRUE(drain().empty());
    EXPECT_NE(con.text().find("[lr] uloop handle uci inotify_event, event.name = firewall"),
              std::string::npos);
}

TEST_F(WatchTest, WithTheQueueFullAChangeIsLostUntilTheFileChangesAgain)
{
    start();
    for (int i = 0; i < TASK_QUEUE_MAX; i++) {
        auto *t = static_cast<threadpool_task *>(calloc(1, sizeof(threadpool_task)));
        ASSERT_EQ(threadpool_add_task(t, thread_pool), 0);
    }
    write_file("/etc/config/sysmode", "config sysmode 'sysmode'\n");
    one_read();
    EXPECT_EQ(drain().size(), static_cast<size_t>(TASK_QUEUE_MAX)) << "the refresh was refused";
    EXPECT_TRUE(nothing_to_read()) << "nothing retries the lost change";
    write_file("/etc/config/sysmode", "config sysmode 'sysmode'\n\toption mode 'ap'\n");
    one_read();
    auto fns = drain();
    ASSERT_EQ(fns.size(), 1u);
    EXPECT_EQ(fns[0], fn_of("sysmode"));
}

TEST_F(WatchTest, LanrosterRefreshesQosAndQosV2OnlyTheSwitch)
{
    start();
    write_file("/etc/config/lanroster", "config lanroster\n");
    one_read();
    auto fns = drain();
    ASSERT_EQ(fns.size(), 1u);
    EXPECT_EQ(fns[0], fn_of("lanroster"));
    write_file("/etc/config/history_list", "config history\n");
    one_read();
    EXPECT_TRUE(drain().empty()) << "the history store is not reloaded";
    write_file("/etc/config/qos_v2", "config settings 'settings'\n");
    one_read();
    fns = drain();
    ASSERT_EQ(fns.size(), 1u);
    EXPECT_EQ(fns[0], fn_of("qos_v2"));
    EXPECT_NE(fn_of("qos_v2"), fn_of("lanroster"));
}

TEST_F(WatchTest, EveryPackageOfTheTablePostsItsOwnTask)
{
    start();
    for (const watch_row &row : watch_table)
        write_file(std::string("/etc/config/") + row.file, "config x\n");
    // All nine may come in one read or more; each file posts once per read.
    std::vector<void (*)(void *)> fns;
    while (!nothing_to_read()) {
        one_read();
        for (auto fn : drain())
            fns.push_back(fn);
    }
    ASSERT_EQ(fns.size(), static_cast<size_t>(WATCH_ROWS));
    for (int i = 0; i < WATCH_ROWS; i++)
        EXPECT_EQ(fns[i], watch_table[i].fn) << watch_table[i].file;
}

TEST_F(WatchTest, ARenameOverThePackageIsSeen)
{
    write_file("/etc/config/meshd", "config meshd\n");
    start();
    write_file("/etc/config/.meshd.tmp", "config meshd\n\toption role 'agent'\n");
    ASSERT_EQ(rename("/etc/config/.meshd.tmp", "/etc/config/meshd"), 0);
    std::vector<void (*)(void *)> fns;
    while (!nothing_to_read()) {
        one_read();
        for (auto fn : drain())
            fns.push_back(fn);
    }
    ASSERT_EQ(fns.size(), 1u) << "the temporary file's own event only logs";
    EXPECT_EQ(fns[0], fn_of("meshd"));
}

TEST_F(WatchTest, UciSetAndCommitIsSeen)
{
    write_file("/etc/config/network", "config interface 'wan'\n\toption proto 'dhcp'\n");
    start();
    ASSERT_EQ(run({LR_UCI_BIN, "set", "network.wan.wan_type=v6plus"}), 0);
    ASSERT_EQ(run({LR_UCI_BIN, "commit", "network"}), 0);
    std::vector<void (*)(void *)> fns;
    while (!nothing_to_read()) {
        one_read();
        for (auto fn : drain())
            fns.push_back(fn);
    }
    ASSERT_GE(fns.size(), 1u);
    for (auto fn : fns)
        EXPECT_EQ(fn, fn_of("network"));
}

TEST_F(WatchTest, UciBatchIsSeen)
{
    write_file("/etc/config/tfstats", "config switch 'switch'\n\toption enable 'off'\n");
    write_file("/etc/config/qos_v2", "config settings 'settings'\n\toption enable 'off'\n");
    start();
    ASSERT_EQ(
        run({LR_UCI_BIN, "batch"}, "set tfstats.switch.enable=on\nset qos_v2.settings.enable=on\ncommit\n"),
        0);
    std::vector<void (*)(void *)> fns;
    while (!nothing_to_read()) {
        one_read();
        for (auto fn : drain())
            fns.push_back(fn);
    }
    EXPECT_NE(std::find(fns.begin(), fns.end(), fn_of("tfstats")), fns.end());
    EXPECT_NE(std::find(fns.begin(), fns.end(), fn_of("qos_v2")), fns.end());
}

TEST_F(WatchTest, AMissingLeaseFileIsCreatedAndWatched)
{
    ASSERT_NE(access(DHCP_LEASES_FILE, F_OK), 0);
    start();
    EXPECT_EQ(access(DHCP_LEASES_FILE, F_OK), 0);
    EXPECT_GE(dhcp_wd, 1);
    write_file(DHCP_LEASES_FILE, "100 02:aa:bb:cc:dd:01 192.168.1.100 tv *\n");
    write_file(DHCP_LEASES_FILE, "100 02:aa:bb:cc:dd:01 192.168.1.101 tv *\n", true);
    one_read();
    auto fns = drain();
    ASSERT_EQ(fns.size(), 1u);
    EXPECT_EQ(fns[0], update_dhcp);
}

TEST_F(WatchTest, OnARepeaterTheHookFileIsWatched)
{
    system_info.sys_mode = SYS_MODE_REPEATER;
    start();
    EXPECT_EQ(access(DHCP_HOOK_FILE, F_OK), 0);
    EXPECT_NE(access(DHCP_LEASES_FILE, F_OK), 0) << "the lease file is not the repeater's";
    write_file(DHCP_HOOK_FILE, "[]\n");
    one_read();
    auto fns = drain();
    ASSERT_EQ(fns.size(), 1u);
    EXPECT_EQ(fns[0], update_dhcp);
}

TEST_F(WatchTest, ForgedRecordsStayInsideTheBuffer)
{
    start();
    // A record whose len runs past the end of what was read, and a name
    // without terminator.
    alignas(inotify_event) uint8_t buf[sizeof(inotify_event) + 8] = {};
    inotify_event ev{};
    ev.wd = uci_wd;
    ev.mask = IN_MODIFY;
    ev.len = 4000;
    std::memcpy(buf, &ev, sizeof(ev));
    std::memcpy(buf + sizeof(ev), "networkX", 8);
    inot_handle_events(std::span<const uint8_t>(buf, sizeof(buf)));
    inot_handle_events(std::span<const uint8_t>(buf, 7));
    EXPECT_TRUE(drain().empty());
}

// update_dhcp over a live list of records.
class UpdateDhcpTest : public WatchTest
{
  protected:
    void SetUp() override
    {
        WatchTest::SetUp();
        if (!client_pool) {
            ASSERT_EQ(create_memory_queue(), 1);
        }
        std::strcpy(lease_file_name, DHCP_LEASES_FILE);
    }
    void TearDown() override
    {
        while (client_node *n = get_history_list()) {
            unlink_node(n);
            release_node(n);
        }
        WatchTest::TearDown();
    }
    client_node *add(uint8_t last, uint8_t status, const char *hostname = "")
    {
        client_node *n = get_free_node();
        n->mac[0] = 0x02;
        n->mac[5] = last;
        n->status = status;
        n->type_source = TYPE_SOURCE_UNSET;
        n->device_type = DEVICE_TYPE_UNKNOWN;
        n->ip = htonl(0xc0a80101);
        std::strcpy(n->hostname, hostname);
        n->next = get_history_list();
        set_history_list(n);
        return n;
    }
};

TEST_F(UpdateDhcpTest, KnownNameStaysAndTheAddressIsTakenEvenWhenBad)
{
    client_node *a = add(1, STATUS_ONLINE_LAST_TIME, "kitchen");
    client_node *b = add(2, STATUS_EVENT_ONLINE, "network device");
    write_file(DHCP_LEASES_FILE, "100 02:00:00:00:00:01 bad-address phone *\n"
                                 "100 02:00:00:00:00:02 192.168.1.102 laptop\x01 *\n");
    update_dhcp(nullptr);
    EXPECT_STREQ(a->hostname, "kitchen");
    EXPECT_EQ(a->ip, 0u);
    EXPECT_STREQ(b->hostname, "laptop^");
    EXPECT_EQ(b->ip, htonl(0xc0a80166));
}

TEST_F(UpdateDhcpTest, AnOfflineClientIsNotTouched)
{
    client_node *a = add(1, STATUS_DISCONNECT);
    write_file(DHCP_LEASES_FILE, "100 02:00:00:00:00:01 192.168.1.150 phone * 5\n");
    update_dhcp(nullptr);
    EXPECT_STREQ(a->hostname, "");
    EXPECT_EQ(a->ip, htonl(0xc0a80101));
    EXPECT_EQ(a->type_source, TYPE_SOURCE_UNSET);
}

TEST_F(UpdateDhcpTest, ALeaseNamedStarKeepsTheName)
{
    client_node *a = add(1, STATUS_ONLINE_LAST_TIME, "");
    client_node *b = add(2, STATUS_MESH_ONLINE, "network device");
    write_file(DHCP_LEASES_FILE, "100 02:00:00:00:00:01 192.168.1.150 * *\n"
                                 "100 02:00:00:00:00:02 192.168.1.151 * *\n");
    update_dhcp(nullptr);
    EXPECT_STREQ(a->hostname, "");
    EXPECT_STREQ(b->hostname, "network device");
    EXPECT_EQ(a->ip, htonl(0xc0a80196));
}

TEST_F(UpdateDhcpTest, TheTypeOfALowerSourceStays)
{
    client_node *a = add(1, STATUS_ONLINE_LAST_TIME);
    a->type_source = TYPE_SOURCE_DHCP;
    a->device_type = 12;
    client_node *b = add(2, STATUS_ONLINE_LAST_TIME);
    client_node *c = add(3, STATUS_ONLINE_LAST_TIME);
    c->type_source = TYPE_SOURCE_USER;
    c->device_type = 4;
    write_file(DHCP_LEASES_FILE, "100 02:00:00:00:00:01 192.168.1.150 a * 5\n"
                                 "100 02:00:00:00:00:02 192.168.1.151 b * 5\n"
                                 "100 02:00:00:00:00:03 192.168.1.152 c * 5\n");
    update_dhcp(nullptr);
    EXPECT_EQ(a->device_type, 12);
    EXPECT_EQ(b->device_type, 5);
    EXPECT_EQ(b->type_source, TYPE_SOURCE_DHCP);
    EXPECT_EQ(c->device_type, 4);
    EXPECT_EQ(c->type_source, TYPE_SOURCE_USER);
}

TEST_F(UpdateDhcpTest, OnARepeaterTheHookFileDecides)
{
    system_info.sys_mode = SYS_MODE_REPEATER;
    client_node *a = add(1, STATUS_ONLINE_LAST_TIME);
    client_node *b = add(2, STATUS_ONLINE_LAST_TIME);
    write_file(DHCP_LEASES_FILE, "100 02:00:00:00:00:01 192.168.1.150 from-lease * 5\n"
                                 "100 02:00:00:00:00:02 192.168.1.151 from-lease * 5\n");
    write_file(DHCP_HOOK_FILE,
               R"([{"mac":"02:00:00:00:00:01","ipaddr":"192.168.1.160","name":"from-hook"}])");
    update_dhcp(nullptr);
    EXPECT_STREQ(a->hostname, "from-hook");
    EXPECT_EQ(a->ip, htonl(0xc0a801a0));
    EXPECT_EQ(a->type_source, TYPE_SOURCE_UNSET) << "the hook file carries no type";
    EXPECT_STREQ(b->hostname, "") << "the lease file is ignored";
    EXPECT_EQ(b->ip, htonl(0xc0a80101));
}

// The diagnostic timers.
int want_tasks = 0;
void end_when_queued(uloop_timeout *t) noexcept
{
    pthread_mutex_lock(&thread_pool->mutex);
    int queued = thread_pool->task_queue.len;
    pthread_mutex_unlock(&thread_pool->mutex);
    if (queued >= want_tasks) {
        uloop_end();
        return;
    }
    uloop_timeout_set(t, 1);
}

TEST_F(WatchTest, DiagnosticTimersAreArmedOnlyByTheirInit)
{
    const char *names[] = {"wireless", "tfstats", "pctl", "tfstats_seg", "fing"};
    const int intervals[] = {5, 20, 10, 20, 20};
    for (int i = 0; i < DB_TIMER_ROWS; i++) {
        EXPECT_STREQ(db_timer_table[i].name, names[i]);
        EXPECT_EQ(db_timer_table[i].interval, intervals[i]);
        EXPECT_FALSE(db_timeouts[i].pending) << names[i];
    }
    start();
    for (const uloop_timeout &t : db_timeouts)
        EXPECT_FALSE(t.pending) << "the watches arm no diagnostic timer";
    EXPECT_EQ(db_timeout_init(), 0);
    for (int i = 0; i < DB_TIMER_ROWS; i++) {
        EXPECT_TRUE(db_timeouts[i].pending) << names[i];
        int64_t left = uloop_timeout_remaining64(&db_timeouts[i]);
        EXPECT_GT(left, intervals[i] * 1000 - 1000);
        EXPECT_LE(left, intervals[i] * 1000);
    }
    db_timeout_cancel();
}

TEST_F(WatchTest, DiagnosticTimersPostTheirChecksAndRearm)
{
    int32_t saved[DB_TIMER_ROWS];
    for (int i = 0; i < DB_TIMER_ROWS; i++) {
        saved[i] = db_timer_table[i].interval;
        db_timer_table[i].interval = 0;
    }
    db_timeout_init();
    want_tasks = 6;
    uloop_timeout watcher{};
    watcher.cb = end_when_queued;
    uloop_timeout_set(&watcher, 1);
    uloop_run();
    auto fns = drain();
    EXPECT_NE(std::find(fns.begin(), fns.end(), test_wireless), fns.end());
    EXPECT_NE(std::find(fns.begin(), fns.end(), test_pctl), fns.end());
    EXPECT_NE(std::find(fns.begin(), fns.end(), test_fing), fns.end());
    for (int i = 0; i < DB_TIMER_ROWS; i++) {
        EXPECT_TRUE(db_timeouts[i].pending) << db_timer_table[i].name << " re-armed";
        db_timer_table[i].interval = saved[i];
    }
    db_timeout_cancel();
    // The checks themselves keep nothing and never fail the caller.
    test_wireless(nullptr);
    test_tfstats();
    test_pctl(nullptr);
    test_tfstats_seg();
    test_fing(nullptr);
}

} // namespace
