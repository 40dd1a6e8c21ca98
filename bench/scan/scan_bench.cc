// In-process figures of the scan's hot paths: walking a neighbour dump,
// classifying it, and building one console line.
#include <benchmark/benchmark.h>

#include <arpa/inet.h>
#include <cstring>
#include <linux/neighbour.h>
#include <linux/netlink.h>
#include <linux/rtnetlink.h>
#include <vector>

#include <cstdio>
#include <cstdlib>
#include <sched.h>
#include <string>
#include <sys/mount.h>
#include <sys/stat.h>

#include "core/log.h"
#include "scan/bridge.h"
#include "scan/client_table.h"
#include "scan/topology.h"
#include "scan/lan_info.h"
#include "scan/neigh.h"

namespace
{

std::vector<uint8_t> make_dump(int n)
{
    std::vector<uint8_t> out;
    for (int i = 0; i < n; i++) {
        uint8_t msg[16 + 12 + 8 + 12] = {};
        nlmsghdr h{};
        h.nlmsg_len = sizeof(msg);
        h.nlmsg_type = RTM_NEWNEIGH;
        std::memcpy(msg, &h, sizeof(h));
        ndmsg nd{};
        nd.ndm_family = AF_INET;
        nd.ndm_state = NUD_REACHABLE;
        std::memcpy(msg + 16, &nd, sizeof(nd));
        rtattr a{8, NDA_DST};
        std::memcpy(msg + 28, &a, 4);
        uint8_t ip[4] = {192, 168, 1, static_cast<uint8_t>(i % 250 + 2)};
        std::memcpy(msg + 32, ip, 4);
        rtattr l{10, NDA_LLADDR};
        std::memcpy(msg + 36, &l, 4);
        uint8_t mac[6] = {2, 0, 0, 0, static_cast<uint8_t>(i >> 8), static_cast<uint8_t>(i)};
        std::memcpy(msg + 40, mac, 6);
        out.insert(out.end(), msg, msg + sizeof(msg));
    }
    return out;
}

void BM_walk_dump(benchmark::State &state)
{
    auto dump = make_dump(static_cast<int>(state.range(0)));
    for (auto _ : state) {
        neigh_walker w(std::span<const uint8_t>(dump.data(), dump.size()));
        neigh_msg m;
        int n = 0;
        while (w.next(m))
            n++;
        benchmark::DoNotOptimize(n);
    }
}
BENCHMARK(BM_walk_dump)->Arg(20)->Arg(250);

// A LAN of its own for the forwarding benchmark: this process's network and
// mount namespaces, with "br-lan" of 8 wired and 4 radio ports and 250
// forwarding records spread over them (needs root).
bool private_lan_of(int clients)
{
    if (unshare(CLONE_NEWNET | CLONE_NEWNS) != 0 ||
        mount(nullptr, "/", nullptr, MS_REC | MS_PRIVATE, nullptr) != 0 ||
        mount("sysfs", "/sys", "sysfs", 0, nullptr) != 0)
        return false;
    // /etc first, so that nothing is made in the host's /etc.
    for (const char *d : {"/etc", "/etc/config", "/etc/profile.d", "/tmp", "/run"}) {
        mkdir(d, 0755);
        if (mount("none", d, "tmpfs", 0, "mode=0755") != 0)
            return false;
    }
    std::string links = "link add br-lan type bridge\n";
    const char *ports[12] = {"lan1", "lan2", "lan3", "lan4", "lan5", "lan6",
                             "lan7", "lan8", "wl0",  "wl1",  "wl2",  "wl3"};
    for (const char *p : ports)
        links += std::string("link add ") + p + " type veth peer name " + p + "x\nlink set " + p +
                 " master br-lan\n";
    std::string fdb;
    for (int i = 0; i < clients; i++) {
        char line[96];
        std::snprintf(line, sizeof(line), "fdb add 02:00:00:00:%02x:%02x dev %s master static\n", i >> 8,
                      i & 255, ports[i % 12]);
        fdb += line;
    }
    FILE *f = fopen("/tmp/links", "w");
    FILE *g = fopen("/tmp/fdb", "w");
    FILE *w = fopen("/etc/config/wireless", "w");
    if (!f || !g || !w)
        return false;
    fputs(links.c_str(), f);
    fputs(fdb.c_str(), g);
    fputs(
        "config wifi-device 'radio0'\n\toption band '2g'\nconfig wifi-device 'radio1'\n\toption band '5g'\n",
        w);
    for (int r = 0; r < 4; r++)
        fprintf(w, "config wifi-iface\n\toption ifname 'wl%d'\n\toption device 'radio%d'\n", r, r % 2);
    fclose(f);
    fclose(g);
    fclose(w);
    if (std::system("ip -batch /tmp/links && bridge -batch /tmp/fdb") != 0)
        return false;
    // Every client an active station, spread over the four radios.
    mkdir("/var/run", 0755);
    mkdir("/var/run/iwinfo", 0755);
    for (int r = 0; r < 4; r++) {
        std::string path = "/var/run/iwinfo/wl" + std::to_string(r);
        FILE *st = fopen(path.c_str(), "w");
        if (!st)
            return false;
        for (int i = r; i < clients; i += 4)
            fprintf(st, "mac=02:00:00:00:%02x:%02x inactive=100\n", i >> 8, i & 255);
        fclose(st);
    }
    read_radio_list();
    refresh_stations();
    return true;
}

bool bench_lan()
{
    static bool lan = private_lan_of(250);
    return lan;
}

// Every neighbour an active station: the quadratic recount of its MAC.
void BM_classify_stations(benchmark::State &state)
{
    if (!bench_lan()) {
        state.SkipWithError("no private LAN (root needed)");
        return;
    }
    auto dump = make_dump(static_cast<int>(state.range(0)));
    std::strcpy(lan_info.ip, "192.168.1.1");
    lan_info.prefix_len = 24;
    for (auto _ : state) {
        classify_ipv4_locked(std::span<const uint8_t>(dump.data(), dump.size()));
        free_client_table_locked();
        free_arp_probes_locked();
    }
}
BENCHMARK(BM_classify_stations)->Arg(20)->Arg(250);

// The forwarding table read and the port phase of one pass over N clients,
// all behind a port (the rows of the ports exist from an earlier pass).
void BM_forwarding_and_ports(benchmark::State &state)
{
    int n = static_cast<int>(state.range(0));
    if (!bench_lan()) {
        state.SkipWithError("no private LAN (root needed)");
        return;
    }
    free_client_table_locked();
    for (int i = 0; i < n; i++) {
        client_table_entry *e = new_entry();
        uint8_t mac[6] = {2, 0, 0, 0, static_cast<uint8_t>(i >> 8), static_cast<uint8_t>(i & 255)};
        std::memcpy(e->mac, mac, 6);
        append_entry(e);
    }
    read_forwarding_locked();
    assign_ports_locked();
    for (auto _ : state) {
        read_forwarding_locked();
        assign_ports_locked();
        free_pass_fdb();
    }
    state.counters["ports"] = port_count;
    free_client_table_locked();
}
BENCHMARK(BM_forwarding_and_ports)->Arg(250)->Unit(benchmark::kMillisecond);

void BM_console_line(benchmark::State &state)
{
    log_stamp stamp{};
    for (auto _ : state) {
        console_line out;
        va_list ap{};
        // A message without arguments: the frame is the work.
        auto run = [&](const char *fmt, ...) {
            va_start(ap, fmt);
            format_console_line(out, stamp, 7, "create_client_table", 123, fmt, ap);
            va_end(ap);
        };
        run("[lr] begin to create_client_table\n");
        benchmark::DoNotOptimize(out.len);
    }
}
BENCHMARK(BM_console_line);

void BM_suppressed_log(benchmark::State &state)
{
    log_level = 2;
    int x = 0;
    for (auto _ : state) {
        LR_LOG(7, "%d", x++);
        benchmark::ClobberMemory();
    }
}
BENCHMARK(BM_suppressed_log);

} // namespace

BENCHMARK_MAIN();
