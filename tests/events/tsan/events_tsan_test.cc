// The real-time handlers under ThreadSanitizer, in the whole daemon:
// lanroster_main on this thread, in private network and mount namespaces
// with a LAN bridge of its own, while the scan timer fires every 100 ms (so
// scan and compare passes run on both workers), one thread makes the kernel
// send neighbour and forwarding events (joins on "br-lan", leaves on the LAN
// port "veth0") and another mixes bus calls: compare passes through
// `update`, get_hist_list_new and the print_client event. At the end the
// daemon gets SIGTERM; it must return 0 and TSan must stay quiet
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

constexpr int ROUNDS = 20;
constexpr int CLIENTS = 16;
constexpr const char *HIST_REQUEST =
    "{\"online_type\":2,\"v6\":1,\"access_limit\":0,\"speed_limit\":0,\"qos\":0,\"tfstats\":0,"
    "\"wireless\":0,\"qos_schedule\":0,\"high_bandwidth_occupancy\":0,\"lanroster_file\":0}";

bool sh(const char *cmd)
{
    int r = std::system(cmd);
    // Once the daemon's loop runs, its child handling may reap the shell
    // before system() can: then the status is unknown, not a failure.
    if (r == -1 && errno == ECHILD)
        return true;
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
    // The bridge's sysfs files of this network namespace.
    if (mount("sysfs", "/sys", "sysfs", 0, nullptr) != 0) {
        std::perror("/sys");
        return false;
    }
    // Whole throw-away /etc and /var: a directory made on the host's
    // file system would outlive the namespace.
    for (const char *d : {"/etc", "/var"}) {
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
           write_file("/etc/config/network",
                      "config interface 'lan'\n\toption ifname 'veth0'\n"
                      "\toption ipaddr '192.168.1.1'\n\toption netmask '255.255.255.0'\n") &&
           write_file("/etc/config/history_list", "") &&
           sh("ip link set lo up && ip link add br-lan type bridge && "
              "ip link add veth0 type veth peer name veth1 && ip link set veth0 master br-lan && "
              "ip link set veth0 up && ip link set veth1 up && "
              "ip addr add 192.168.1.1/24 dev br-lan && ip link set br-lan up");
}

int ubus_run(const std::vector<std::string> &args, const char *out = "/dev/null")
{
    pid_t pid = fork();
    if (pid == 0) {
        int null = open(out, O_WRONLY | O_CREAT | O_TRUNC, 0644);
        dup2(null, 1);
        std::vector<char *> argv;
        argv.push_back(const_cast<char *>("ubus"));
        argv.push_back(const_cast<char *>("-t"));
        argv.push_back(const_cast<char *>("30"));
        for (const std::string &a : args)
            argv.push_back(const_cast<char *>(a.c_str()));
        argv.push_back(nullptr);
        execv(LR_UBUS_BIN, argv.data());
        _exit(127);
    }
    int status = 0;
    waitpid(pid, &status, 0);
    return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
}

std::atomic<bool> daemon_ended{false};
std::atomic<int> done_threads{0};

bool wait_for_daemon()
{
    while (ubus_run({"call", "lanroster", "update", "{}"}) != 0) {
        if (daemon_ended)
            return false;
        usleep(20000);
    }
    return true;
}

// The events reached the list: the last round's clients are listed.
std::atomic<bool> clients_listed{false};

void finished()
{
    if (++done_threads < 2)
        return;
    for (int tries = 0; tries < 100 && !clients_listed; tries++) {
        ubus_run({"call", "lanroster", "get_hist_list_new", HIST_REQUEST}, "/tmp/hist.json");
        FILE *f = std::fopen("/tmp/hist.json", "r");
        char buf[65536] = {};
        size_t n = f ? std::fread(buf, 1, sizeof(buf) - 1, f) : 0;
        if (f)
            std::fclose(f);
        buf[n] = '\0';
        clients_listed = std::strstr(buf, "02-00-00-00-01-0") != nullptr;
        if (!clients_listed)
            usleep(50000);
    }
    kill(getpid(), SIGTERM);
}

std::string mac_of(int i)
{
    char text[18];
    std::snprintf(text, sizeof(text), "02:00:00:00:01:%02x", i);
    return text;
}

// Joins and leaves: reachable neighbours on the bridge with their
// forwarding entries on the LAN port, then the entries deleted again.
void eventer(std::atomic<int> &failures)
{
    if (!wait_for_daemon())
        return;
    for (int round = 0; round < ROUNDS; round++) {
        std::string join = "/tmp/join.batch";
        std::string fdb_add = "/tmp/fdb_add.batch";
        std::string fdb_del = "/tmp/fdb_del.batch";
        std::string j, a, d;
        for (int i = 0; i < CLIENTS; i++) {
            std::string mac = mac_of(i);
            a += "fdb replace " + mac + " dev veth0 master\n";
            j += "neigh replace 192.168.1." + std::to_string(20 + i) + " lladdr " + mac +
                 " dev br-lan nud reachable\n";
            d += "fdb del " + mac + " dev veth0 master\n";
        }
        if (!write_file(fdb_add.c_str(), a.c_str()) || !write_file(join.c_str(), j.c_str()) ||
            !write_file(fdb_del.c_str(), d.c_str()))
            failures++;
        if (!sh(("bridge -batch " + fdb_add + " && ip -batch " + join).c_str()))
            failures++;
        if (!sh(("bridge -batch " + fdb_del + " && ip neigh flush dev br-lan").c_str()))
            failures++;
    }
    finished();
}

void caller(std::atomic<int> &failures)
{
    if (!wait_for_daemon())
        return;
    for (int i = 0; i < ROUNDS * 2; i++) {
        int r = 0;
        switch (i % 3) {
        case 0:
            r = ubus_run({"call", "lanroster", "update", "{}"});
            break;
        case 1:
            r = ubus_run({"call", "lanroster", "get_hist_list_new", HIST_REQUEST});
            break;
        default:
            r = ubus_run({"send", "lanroster.print_client", "{\"online\":1}"});
            break;
        }
        if (r != 0)
            failures++;
    }
    finished();
}

} // namespace

int main()
{
    if (!private_world())
        return 1;
    pid_t ubusd = lr_test::start_ubusd("/var/run/ubus.sock");
    std::atomic<int> failures{0};
    local_report_interval = 100;
    std::thread event_thread(eventer, std::ref(failures));
    std::thread call_thread(caller, std::ref(failures));
    int r = lanroster_main();
    daemon_ended = true;
    event_thread.join();
    call_thread.join();
    kill(ubusd, SIGTERM);
    waitpid(ubusd, nullptr, 0);
    if (r != 0)
        std::fprintf(stderr, "FAIL: lanroster_main returned %d\n", r);
    if (!clients_listed)
        std::fprintf(stderr, "FAIL: no event client in the list\n");
    if (failures)
        std::fprintf(stderr, "FAIL: %d commands or calls failed\n", failures.load());
    return r == 0 && failures == 0 && clients_listed ? 0 : 1;
}
