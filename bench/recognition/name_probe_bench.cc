// What name probes cost a scan pass: one in-process pass over 50 clients,
// without name probes and with a probe thread started for each client. The
// pass is real: a private network namespace holds "br-lan" and, behind one
// port, 50 hosts that answer ARP and nothing else, so the probes (NetBIOS,
// mDNS) go out and time out. Needs root.
#include <benchmark/benchmark.h>

#include <cstdio>
#include <cstring>
#include <linux/neighbour.h>
#include <linux/netlink.h>
#include <linux/rtnetlink.h>
#include <net/if.h>
#include <sched.h>
#include <sys/ioctl.h>
#include <sys/mount.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>
#include <string>
#include <vector>

#include "core/locks.h"
#include "recognition/name_probe.h"
#include "scan/client_table.h"
#include "scan/lan_info.h"

namespace {

constexpr int CLIENTS = 50;

bool sh(const std::string &command)
{
    return std::system(command.c_str()) == 0;
}

// The router's "br-lan" and, behind one port, a peer namespace whose 50
// macvlan hosts each answer ARP for their own address with their own MAC.
bool build_lan()
{
    std::string batch = "link set lo up\n"
                        "link add br-lan type bridge\n"
                        "link set br-lan address 02:4c:52:00:00:01\n"
                        "addr add 192.168.1.1/24 dev br-lan\n"
                        "link set br-lan up\n"
                        "link add p0 type veth peer name e0 netns lrbench-peer\n"
                        "link set p0 master br-lan\n"
                        "link set p0 up\n";
    std::string peer = "link set lo up\nlink set e0 up\n";
    for (int i = 0; i < CLIENTS; i++) {
        char mac[18];
        std::snprintf(mac, sizeof(mac), "02:42:00:00:00:%02x", i + 2);
        std::string ip = "192.168.1." + std::to_string(i + 2);
        std::string dev = "h" + std::to_string(i);
        peer += "link add " + dev + " link e0 address " + mac + " type macvlan mode bridge\n";
        peer += "addr add " + ip + "/24 dev " + dev + "\n";
        peer += "link set " + dev + " up\n";
        batch += "neigh replace " + ip + " lladdr " + mac + " dev br-lan nud reachable\n";
    }
    return sh("ip netns add lrbench-peer") &&
           sh("ip netns exec lrbench-peer sysctl -qw net.ipv4.conf.all.arp_ignore=1") &&
           sh("printf '" + batch.substr(0, batch.find("neigh")) + "' | ip -batch -") &&
           sh("printf '" + peer + "' | ip -n lrbench-peer -batch -") &&
           sh("printf '" + batch.substr(batch.find("neigh")) + "' | ip -batch -");
}

bool private_world()
{
    if (unshare(CLONE_NEWNET | CLONE_NEWNS) != 0 || mount(nullptr, "/", nullptr, MS_REC | MS_PRIVATE, nullptr) != 0) {
        perror("private namespaces (the benchmark needs root)");
        return false;
    }
    // Whole throw-away directories: nothing is made on the host's disk.
    for (const char *d : {"/etc", "/tmp", "/var", "/run"})
        if (mount("none", d, "tmpfs", 0, "mode=0755") != 0) {
            perror(d);
            return false;
        }
    mkdir("/etc/config", 0755);
    mkdir("/var/state", 0755);
    mkdir("/var/run", 0755);
    return build_lan();
}

void setup_pass()
{
    std::snprintf(lan_info.ip, sizeof(lan_info.ip), "192.168.1.1");
    lan_info.prefix_len = 24;
}

int32_t running_threads()
{
    mutex_guard hold(name_cache_lock);
    return probe_threads;
}

void BM_pass_without_probes(benchmark::State &state)
{
    probe_method_head = nullptr;
    name_cache_clear();
    int count = 0;
    for (auto _ : state)
        count = create_client_table();
    state.counters["clients"] = count;
}

void wait_for_probes()
{
    while (running_threads() > 0)
        usleep(1000);
}

// Each pass finds 50 clients without a name in the cache and starts a probe
// thread for each: the probes of the last pass have ended before it.
void BM_pass_with_50_probes(benchmark::State &state)
{
    name_probe_init();
    int count = 0;
    for (auto _ : state) {
        state.PauseTiming();
        wait_for_probes();
        name_cache_clear();
        state.ResumeTiming();
        count = create_client_table();
    }
    wait_for_probes();
    state.counters["clients"] = count;
}

// Passes back to back while earlier probes still run: at most 256 probe
// threads exist, and a pass that finds them all busy starts none.
void BM_pass_with_probes_at_the_limit(benchmark::State &state)
{
    name_probe_init();
    int count = 0;
    for (auto _ : state) {
        state.PauseTiming();
        name_cache_clear();
        state.ResumeTiming();
        count = create_client_table();
    }
    while (running_threads() > 0)
        usleep(10000);
    state.counters["clients"] = count;
    state.counters["probe_threads_peak"] = probe_threads_peak;
}

BENCHMARK(BM_pass_without_probes)->Unit(benchmark::kMillisecond)->MinTime(2.0)->UseRealTime();
// Unanswered probes take up to 3 s to give up, so this one runs few passes.
BENCHMARK(BM_pass_with_50_probes)->Unit(benchmark::kMillisecond)->Iterations(8);
BENCHMARK(BM_pass_with_probes_at_the_limit)->Unit(benchmark::kMillisecond)->MinTime(2.0)->UseRealTime();

}  // namespace

int main(int argc, char **argv)
{
    if (!private_world())
        return 1;
    setup_pass();
    benchmark::Initialize(&argc, argv);
    benchmark::RunSpecifiedBenchmarks();
    benchmark::Shutdown();
    return 0;
}
