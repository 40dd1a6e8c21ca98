// The start sequence, run in a child process with a private mount and
// network namespace, so that the bus socket and the neighbour table are the
// test's own. The whole binary runs in the sandbox: "/etc/config" is an
// empty directory of its own.
#include "core/startup.h"

#include <gtest/gtest.h>

#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <dirent.h>
#include <fcntl.h>
#include <fstream>
#include <sched.h>
#include <string>
#include <sys/mount.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>
#include <vector>

#include "bus/ubus_server.h"
#include "core/log.h"
#include "core/openwrt.h"
#include "core/threadpool.h"
#include "core/timers.h"
#include "registry/client_node.h"
#include "scan/lan_info.h"
#include "scan/lease.h"
#include "tests/core/startup_child.h"
#include "tests/support/bus_daemon.h"

namespace {

using startup_child::isolate;
using startup_child::wait_status;

void write_file(const std::string &path, const std::string &text)
{
    std::ofstream out(path);
    out << text;
}

int thread_count()
{
    int n = 0;
    DIR *d = opendir("/proc/self/task");
    if (!d)
        return -1;
    while (dirent *e = readdir(d))
        if (e->d_name[0] != '.')
            n++;
    closedir(d);
    return n;
}

}  // namespace

TEST(Startup, NoBusSocketFailsBeforeAnyThreadOrTimer)
{
    if (geteuid() != 0)
        GTEST_SKIP() << "needs root for namespaces";
    pid_t pid = fork();
    ASSERT_GE(pid, 0);
    if (pid == 0) {
        if (!isolate())
            _exit(10);
        // Counted before: under qemu-user the emulator has a thread of its own.
        int threads_before = thread_count();
        int r = lanroster_main();
        if (r != -1)
            _exit(11);
        if (thread_count() != threads_before)
            _exit(12);
        if (local_report_timer_pending() || thread_pool != nullptr)
            _exit(13);
        _exit(0);
    }
    int status = wait_status(pid);
    ASSERT_TRUE(WIFEXITED(status));
    EXPECT_EQ(WEXITSTATUS(status), 0);
}

TEST(Startup, DaemonWithoutBusExitsWith255)
{
    if (geteuid() != 0)
        GTEST_SKIP() << "needs root for namespaces";
    pid_t pid = fork();
    ASSERT_GE(pid, 0);
    if (pid == 0) {
        if (!isolate())
            _exit(10);
        int devnull = open("/dev/null", O_WRONLY);
        dup2(devnull, 2);
        execl(LR_BINARY_DIR "/lanroster", "lanroster", static_cast<char *>(nullptr));
        _exit(12);
    }
    int status = wait_status(pid);
    ASSERT_TRUE(WIFEXITED(status));
    EXPECT_EQ(WEXITSTATUS(status), 255);
}

TEST(Startup, TraceLevelShowsTheStartLinesAndSigtermTearsDown)
{
    if (geteuid() != 0)
        GTEST_SKIP() << "needs root for namespaces";
    if (access(lr_test::ubusd_binary(), X_OK) != 0)
        GTEST_SKIP() << "needs a bus daemon (" << lr_test::ubusd_binary() << ")";
    startup_child::run_result run = startup_child::run_with_bus(nullptr, nullptr);
    const std::string &text = run.console;
    ASSERT_TRUE(WIFEXITED(run.status)) << text;
    EXPECT_EQ(WEXITSTATUS(run.status), 0) << text;
    const char *in_order[] = {
        "|level:7| lanroster_ubus_init:",
        "|- [lr] begin to init lr_ubus\n\n",
        "|- [lr] threadpool_init, has 2 workers\n\n",
        "|- create the thread tid = ",
        "|- [lr] begin to create_client_table\n\n",
        "|- [lr] begin to start uloop\n\n",
    };
    size_t at = 0;
    for (const char *want : in_order) {
        size_t found = text.find(want, at);
        EXPECT_NE(found, std::string::npos) << "missing or out of order: " << want << "\n" << text;
        if (found != std::string::npos)
            at = found;
    }
    EXPECT_NE(text.find("|- [lr] enter workloop\n\n"), std::string::npos) << text;
}

TEST(LeaseFileName, LaterSectionWins)
{
    write_file("/etc/config/dhcp",
               "config dnsmasq\n\toption leasefile '/tmp/first.leases'\n\n"
               "config dhcp 'lan'\n\toption interface 'lan'\n\n"
               "config dnsmasq\n\toption leasefile '/tmp/dhcp.leases'\n\n"
               "config odhcpd\n\tlist leasefile '/tmp/list-is-ignored'\n");
    char name[100] = "stale";
    read_lease_file_name(name, sizeof(name));
    EXPECT_STREQ(name, "/tmp/dhcp.leases");
    unlink("/etc/config/dhcp");
}

TEST(LeaseFileName, MissingPackageLeavesItEmpty)
{
    char name[100] = "stale";
    testing::internal::CaptureStderr();
    read_lease_file_name(name, sizeof(name));
    std::string err = testing::internal::GetCapturedStderr();
    EXPECT_STREQ(name, "");
    EXPECT_EQ(err.rfind("dhcp: ", 0), 0u) << err;
}

TEST(LanInfoUci, ReadsAddressMaskAndMembers)
{
    write_file("/etc/config/network",
               "config interface 'lan'\n\toption ipaddr '192.168.8.1'\n\toption netmask '255.255.255.0'\n"
               "\toption ifname 'lo nosuchif0'\n");
    struct lan_info saved = lan_info;
    lan_info.gateway_port = -1;
    update_lan_info_by_uci();
    EXPECT_STREQ(lan_info.ip, "192.168.8.1");
    EXPECT_EQ(lan_info.prefix_len, 24);
    ASSERT_EQ(lan_info.ifnum, 2);
    EXPECT_STREQ(lan_info.ifname[0], "lo");
    EXPECT_EQ(lan_info.ifindex[0], 1);
    EXPECT_STREQ(lan_info.ifname[1], "nosuchif0");
    EXPECT_EQ(lan_info.ifindex[1], 0);
    // No gateway option: the gateway values keep their defaults.
    EXPECT_EQ(lan_info.gateway_port, -1);
    EXPECT_STREQ(lan_info.gateway, "");
    lan_info = saved;
    unlink("/etc/config/network");
}

TEST(LanInfoUci, EmptyMaskKeepsTheOldPrefix)
{
    write_file("/etc/config/network",
               "config interface 'lan'\n\toption ipaddr '10.1.1.1'\n\toption netmask '0.0.0.0'\n");
    struct lan_info saved = lan_info;
    lan_info.prefix_len = 16;
    update_lan_info_by_uci();
    EXPECT_EQ(lan_info.prefix_len, 16);
    lan_info = saved;
    unlink("/etc/config/network");
}

TEST(LanInfoUci, MissingPackageLeavesLanInfo)
{
    struct lan_info saved = lan_info;
    std::snprintf(lan_info.ip, sizeof(lan_info.ip), "%s", "172.16.0.1");
    testing::internal::CaptureStderr();
    update_lan_info_by_uci();
    std::string err = testing::internal::GetCapturedStderr();
    EXPECT_STREQ(lan_info.ip, "172.16.0.1");
    EXPECT_EQ(err.rfind("network: ", 0), 0u) << err;
    lan_info = saved;
}

// Without the factory profile the device can't be known: main ends with -1
// (exit status 255) after the bus step and before any record exists.
TEST(Startup, MissingProfileEndsBeforeAnyRecord)
{
    if (geteuid() != 0)
        GTEST_SKIP() << "needs root for namespaces";
    if (access(lr_test::ubusd_binary(), X_OK) != 0)
        GTEST_SKIP() << "needs a bus daemon (" << lr_test::ubusd_binary() << ")";
    startup_child::run_result run = startup_child::run_with_bus(
        [] { unlink("/etc/profile.d/profile"); },
        [] { return client_pool == nullptr && thread_pool == nullptr; });
    const std::string &text = run.console;
    ASSERT_TRUE(WIFEXITED(run.status)) << text;
    // 14: main did not return 0, and no pool or worker was made.
    EXPECT_EQ(WEXITSTATUS(run.status), 14) << text;
    EXPECT_NE(text.find("|- [lr] get_system_info\n"), std::string::npos) << text;
    EXPECT_NE(text.find("|- [lr error] get uci profile\n"), std::string::npos) << text;
    EXPECT_EQ(text.find("begin to create_client_table"), std::string::npos) << text;
}
