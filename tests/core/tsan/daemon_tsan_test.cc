// The whole daemon under ThreadSanitizer: lanroster_main on this thread, in
// private network and mount namespaces with a LAN bridge of its own, while
// the scan timer fires every 100 ms (so passes run on both workers and the
// compare of one worker meets the pass of the other) and a caller hammers
// `update` with print_neigh, report_neigh and plain calls. Remembered rows
// in the LAN that nobody answers keep each pass in its ARP checks, so the
// calls meet passes that rewrite the rows. After a while the caller sends
// SIGTERM; the daemon must return 0 from its loop and TSan must stay quiet
// (halt_on_error makes any report fail the test).
#include <atomic>
#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <sched.h>
#include <string>
#include <sys/mount.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <thread>
#include <unistd.h>
#include <vector>

#include "core/startup.h"
#include "core/timers.h"
#include "tests/support/bus_daemon.h"

namespace
{

constexpr int CALLS = 120;

bool sh(const char *cmd)
{
    int r = std::system(cmd);
    if (r != 0)
        std::fprintf(stderr, "FAIL: %s (%d)\n", cmd, r);
    return r == 0;
}

bool write_file(const char *path, const char *text)
{
    FILE *f = std::fopen(path, "w");
    if (!f)
        return false;
    std::fputs(text, f);
    return std::fclose(f) == 0;
}

bool private_world()
{
    if (unshare(CLONE_NEWNS | CLONE_NEWNET) != 0 ||
        mount(nullptr, "/", nullptr, MS_REC | MS_PRIVATE, nullptr) != 0) {
        std::perror("private namespaces (run as root)");
        return false;
    }
    // Whole throw-away /etc, /var and /tmp (where the start creates the
    // lease file it watches): a file made on the host's file system would
    // outlive the namespace.
    for (const char *d : {"/etc", "/var", "/tmp"}) {
        if (mount("none", d, "tmpfs", 0, "mode=0755") != 0) {
            std::perror(d);
            return false;
        }
    }
    for (const char *d : {"/etc/config", "/etc/profile.d", "/var/run", "/var/state"})
        mkdir(d, 0755);
    return write_file("/etc/config/access_control",
                      "config settings 'settings'\n\toption enable 'off'\n\toption access_mode 'black'\n") &&
           write_file("/etc/profile.d/profile", "config qos\n\toption qos_schedule_support 'yes'\n") &&
           write_file("/etc/config/network", "config interface 'lan'\n\toption ifname 'br-lan'\n"
                                             "\toption ipaddr '192.168.1.1'\n\toption netmask '255.255.255.0'\n") &&
           write_file("/etc/config/history_list", "") &&
           sh("ip link set lo up && ip link add br-lan type bridge && "
              "ip link add veth0 type veth peer name veth1 && ip link set veth0 master br-lan && "
              "ip link set veth0 up && ip link set veth1 up && "
              "ip addr add 192.168.1.1/24 dev br-lan && ip link set br-lan up");
}


int ubus_call(const std::string &cli, const std::string &json)
{
    pid_t pid = fork();
    if (pid == 0) {
        int null = open("/dev/null", O_WRONLY);
        dup2(null, 1);
        execl(cli.c_str(), "ubus", "-t", "30", "call", "lanroster", "update", json.c_str(),
              static_cast<char *>(nullptr));
        _exit(127);
    }
    int status = 0;
    waitpid(pid, &status, 0);
    return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
}

// The caller: waits until the daemon answers, then mixes the three kinds of
// `update` call and asks the daemon to stop.
std::atomic<bool> daemon_ended{false};

void caller(const std::string &cli, std::atomic<int> &failures)
{
    while (ubus_call(cli, "{\"print_neigh\":1}") != 0) {
        if (daemon_ended)
            return;
        usleep(20000);
    }
    for (int i = 0; i < CALLS; i++) {
        std::string json;
        switch (i % 3) {
        case 0:
            json = "{\"print_neigh\":1}";
            break;
        case 1:
            json = "{\"report_neigh\":\"02:00:00:00:00:" + std::to_string(10 + i % 80) + " 192.168.1." +
                   std::to_string(10 + i % 80) + "\"}";
            break;
        default:
            json = "{}";
            break;
        }
        if (ubus_call(cli, json) != 0)
            failures++;
    }
    kill(getpid(), SIGTERM);
}

} // namespace

int main()
{
    if (!private_world())
        return 1;
    pid_t ubusd = lr_test::start_ubusd("/var/run/ubus.sock");
    std::atomic<int> failures{0};
    // Often enough that a pass is still running when the next tick posts.
    local_report_interval = 100;
    std::thread call_thread(caller, std::string(LR_UBUS_BIN), std::ref(failures));
    int r = lanroster_main();
    daemon_ended = true;
    call_thread.join();
    kill(ubusd, SIGTERM);
    waitpid(ubusd, nullptr, 0);
    if (r != 0)
        std::fprintf(stderr, "FAIL: lanroster_main returned %d\n", r);
    if (failures)
        std::fprintf(stderr, "FAIL: %d update calls failed\n", failures.load());
    return r == 0 && failures == 0 ? 0 : 1;
}
