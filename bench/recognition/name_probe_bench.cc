// What name probes cost a scan pass: one in-process pass over 50 clients,
// without name probes and with a probe thread started for each client. The
// network parts of the pass (neighbour dump, ARP) come from a fixed table,
// so the figures differ only by the probes. The probes themselves are real:
// they go out on the loopback interface of a private network namespace,
// where nobody answers. Needs root.
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
#include <vector>

#include "core/locks.h"
#include "recognition/name_probe.h"
#include "scan/client_table.h"
#include "scan/lan_info.h"

namespace {

constexpr int CLIENTS = 50;
std::vector<uint8_t> dump_bytes;

void add_msg(std::vector<uint8_t> &out, uint16_t type, const uint8_t ip[4], const uint8_t mac[6])
{
    uint8_t msg[16 + 12 + 8 + 12] = {};
    nlmsghdr h{};
    h.nlmsg_len = type == RTM_NEWNEIGH ? sizeof(msg) : 16;
    h.nlmsg_type = type;
    std::memcpy(msg, &h, sizeof(h));
    if (type != RTM_NEWNEIGH) {
        out.insert(out.end(), msg, msg + 16);
        return;
    }
    ndmsg nd{};
    nd.ndm_family = AF_INET;
    nd.ndm_state = NUD_REACHABLE;
    nd.ndm_ifindex = 1;
    std::memcpy(msg + 16, &nd, sizeof(nd));
    rtattr a{8, NDA_DST};
    std::memcpy(msg + 28, &a, 4);
    std::memcpy(msg + 32, ip, 4);
    rtattr l{10, NDA_LLADDR};
    std::memcpy(msg + 36, &l, 4);
    std::memcpy(msg + 40, mac, 6);
    out.insert(out.end(), msg, msg + sizeof(msg));
}

void make_dump()
{
    for (int i = 0; i < CLIENTS; i++) {
        uint8_t ip[4] = {127, 0, 1, static_cast<uint8_t>(i + 2)};
        uint8_t mac[6] = {2, 0x42, 0, 0, 0, static_cast<uint8_t>(i + 2)};
        add_msg(dump_bytes, RTM_NEWNEIGH, ip, mac);
    }
    add_msg(dump_bytes, NLMSG_DONE, nullptr, nullptr);
}

int fixed_dump(uint8_t **buffer, int *capacity) noexcept
{
    if (static_cast<size_t>(*capacity) < dump_bytes.size()) {
        auto *grown = static_cast<uint8_t *>(realloc(*buffer, dump_bytes.size()));
        if (!grown)
            return -1;
        *buffer = grown;
        *capacity = static_cast<int>(dump_bytes.size());
    }
    std::memcpy(*buffer, dump_bytes.data(), dump_bytes.size());
    return static_cast<int>(dump_bytes.size());
}

int no_leases(lease_row **, int *) noexcept
{
    return 0;
}
// Every client is an active station, so the pass verifies nobody by ARP.
int all_stations(const uint8_t *) noexcept
{
    return 1;
}
int null_socket() noexcept
{
    return open("/dev/null", O_RDONLY | O_CLOEXEC);
}
int no_send(int, uint32_t, const uint8_t *) noexcept
{
    return 0;
}
int answered(int, uint32_t, const uint8_t *, int) noexcept
{
    return 1;
}

bool private_world()
{
    if (unshare(CLONE_NEWNET | CLONE_NEWNS) != 0 || mount(nullptr, "/", nullptr, MS_REC | MS_PRIVATE, nullptr) != 0) {
        perror("private namespaces (the benchmark needs root)");
        return false;
    }
    for (const char *d : {"/etc", "/tmp", "/var"})
        if (mount("none", d, "tmpfs", 0, "mode=0755") != 0) {
            perror(d);
            return false;
        }
    mkdir("/etc/config", 0755);
    mkdir("/var/state", 0755);
    int fd = socket(AF_INET, SOCK_DGRAM, 0);
    struct ifreq ifr {};
    std::strcpy(ifr.ifr_name, "lo");
    ifr.ifr_flags = IFF_UP | IFF_LOOPBACK | IFF_RUNNING;
    bool up = ioctl(fd, SIOCSIFFLAGS, &ifr) == 0;
    close(fd);
    return up;
}

void setup_pass()
{
    std::snprintf(lan_info.ip, sizeof(lan_info.ip), "127.0.0.1");
    lan_info.prefix_len = 8;
    scan_backend.dump = fixed_dump;
    scan_backend.read_leases = no_leases;
    scan_backend.station_is_active = all_stations;
    scan_backend.open_arp_socket = null_socket;
    scan_backend.open_send_socket = null_socket;
    scan_backend.send_arp = no_send;
    scan_backend.arp_check = answered;
    scan_backend.arp_wait_ms = 0;
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

BENCHMARK(BM_pass_without_probes)->Unit(benchmark::kMillisecond)->MinTime(2.0);
// Unanswered probes take up to 3 s to give up, so this one runs few passes.
BENCHMARK(BM_pass_with_50_probes)->Unit(benchmark::kMillisecond)->Iterations(8);
BENCHMARK(BM_pass_with_probes_at_the_limit)->Unit(benchmark::kMillisecond)->MinTime(2.0);

}  // namespace

int main(int argc, char **argv)
{
    if (!private_world())
        return 1;
    make_dump();
    setup_pass();
    benchmark::Initialize(&argc, argv);
    benchmark::RunSpecifiedBenchmarks();
    benchmark::Shutdown();
    return 0;
}
