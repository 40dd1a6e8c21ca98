// In-process figures of the scan's hot paths: walking a neighbour dump,
// classifying it, and building one console line.
#include <benchmark/benchmark.h>

#include <arpa/inet.h>
#include <cstring>
#include <linux/neighbour.h>
#include <linux/netlink.h>
#include <linux/rtnetlink.h>
#include <vector>

#include "core/log.h"
#include "scan/client_table.h"
#include "scan/lan_info.h"
#include "scan/neigh.h"

namespace {

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

int every_mac_is_a_station(const uint8_t *) noexcept
{
    return 1;
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

// Every neighbour an active station: the quadratic recount of its MAC.
void BM_classify_stations(benchmark::State &state)
{
    auto dump = make_dump(static_cast<int>(state.range(0)));
    std::strcpy(lan_info.ip, "192.168.1.1");
    lan_info.prefix_len = 24;
    scan_backend.station_is_active = every_mac_is_a_station;
    for (auto _ : state) {
        classify_ipv4_locked(std::span<const uint8_t>(dump.data(), dump.size()));
        free_client_table_locked();
        free_arp_probes_locked();
    }
    scan_backend = scan_backend_default;
}
BENCHMARK(BM_classify_stations)->Arg(20)->Arg(250);

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

}  // namespace

BENCHMARK_MAIN();
