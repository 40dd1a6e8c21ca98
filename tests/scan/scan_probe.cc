// lr_scan_probe: runs the daemon's scan pass in whatever network namespace it
// is started in (the lab's router) and prints what it found as JSON lines,
// for the lab tests and benchmarks of the scan.
//
//   lr_scan_probe [--passes N] [--step] [--dump] [--log TEXT] [--timer]
//
// --step waits for a line on stdin before every pass after the first;
// --dump prints only the size of one neighbour dump; --log writes TEXT as one
// level-2 console line; --timer measures the lateness of a 10 ms loop timer
// while one pass runs on the pool's workers.
#include <arpa/inet.h>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <string>
#include <sys/resource.h>
#include <unistd.h>

#include "core/log.h"
#include "core/openwrt.h"
#include "core/threadpool.h"
#include "core/timers.h"
#include "scan/client_table.h"
#include "scan/lan_info.h"
#include "scan/neigh.h"
#include "scan/topology.h"

namespace {

double now_ms(clockid_t clock)
{
    timespec ts{};
    clock_gettime(clock, &ts);
    return static_cast<double>(ts.tv_sec) * 1000.0 + static_cast<double>(ts.tv_nsec) / 1e6;
}

double cpu_ms()
{
    rusage ru{};
    getrusage(RUSAGE_SELF, &ru);
    return static_cast<double>(ru.ru_utime.tv_sec + ru.ru_stime.tv_sec) * 1000.0 +
           static_cast<double>(ru.ru_utime.tv_usec + ru.ru_stime.tv_usec) / 1000.0;
}

std::string json_str(const char *s)
{
    std::string out = "\"";
    for (const char *p = s; *p; p++) {
        unsigned char c = static_cast<unsigned char>(*p);
        if (c == '"' || c == '\\') {
            out += '\\';
            out += static_cast<char>(c);
        } else if (c < 0x20) {
            char buf[8];
            std::snprintf(buf, sizeof(buf), "\\u%04x", c);
            out += buf;
        } else {
            out += static_cast<char>(c);
        }
    }
    return out + "\"";
}

std::string mac_text(const uint8_t *m)
{
    char buf[18];
    std::snprintf(buf, sizeof(buf), "%02x:%02x:%02x:%02x:%02x:%02x", m[0], m[1], m[2], m[3], m[4], m[5]);
    return buf;
}

std::string ip_text(uint32_t ip)
{
    char buf[INET_ADDRSTRLEN] = {};
    inet_ntop(AF_INET, &ip, buf, sizeof(buf));
    return buf;
}

void print_lan()
{
    std::printf("{\"lan\": {\"ip\": %s, \"prefix_len\": %d, \"ifnum\": %d, \"gateway\": %s, "
                "\"gateway_mac\": \"%s\", \"gateway_port\": %d}}\n",
                json_str(lan_info.ip).c_str(), lan_info.prefix_len, lan_info.ifnum,
                json_str(lan_info.gateway).c_str(), mac_text(lan_info.gateway_mac).c_str(), lan_info.gateway_port);
}

void print_pass(int n, int result, double wall, double cpu)
{
    std::string entries;
    for (client_table_entry *e = client_table.head; e; e = e->next) {
        if (!entries.empty())
            entries += ", ";
        entries += "{\"ip\": \"" + ip_text(e->ip) + "\", \"mac\": \"" + mac_text(e->mac) +
                   "\", \"hostname\": " + json_str(e->hostname) + "}";
    }
    std::string rows;
    for (int i = 0; i < ARP_ITEM_ROWS; i++) {
        if (!arp_item[i].ip)
            continue;
        if (!rows.empty())
            rows += ", ";
        rows += "{\"ip\": \"" + ip_text(arp_item[i].ip) + "\", \"mac\": \"" + mac_text(arp_item[i].mac) +
                "\", \"active\": " + std::to_string(arp_item[i].active) + "}";
    }
    std::printf("{\"pass\": %d, \"result\": %d, \"wall_ms\": %.1f, \"cpu_ms\": %.1f, \"entries\": [%s], "
                "\"arp_item\": [%s]}\n",
                n, result, wall, cpu, entries.c_str(), rows.c_str());
    std::fflush(stdout);
}

int dump_only()
{
    int cap = NEIGH_DUMP_START;
    auto *buf = static_cast<uint8_t *>(malloc(cap));
    int n = dump_neighbours(&buf, &cap);
    int count = 0;
    if (n > 0) {
        neigh_walker w(std::span<const uint8_t>(buf, static_cast<size_t>(n)));
        neigh_msg m;
        while (w.next(m))
            count++;
    }
    std::printf("{\"dump_bytes\": %d, \"capacity\": %d, \"messages\": %d}\n", n, cap, count);
    free(buf);
    return n < 0 ? 1 : 0;
}

// --timer: a 10 ms timer on the loop while the workers run one pass.
struct lateness {
    double expected = 0;
    double worst = 0;
    double total = 0;
    int ticks = 0;
    volatile bool pass_done = false;
} late;

uloop_timeout tick{};

void on_tick(uloop_timeout *t) noexcept
{
    double now = now_ms(CLOCK_MONOTONIC);
    double d = now - late.expected;
    late.worst = d > late.worst ? d : late.worst;
    late.total += d;
    late.ticks++;
    if (__atomic_load_n(&late.pass_done, __ATOMIC_ACQUIRE)) {
        uloop_end();
        return;
    }
    late.expected = now + 10;
    uloop_timeout_set(t, 10);
}

void pass_task(void *) noexcept
{
    create_client_table();
    __atomic_store_n(&late.pass_done, true, __ATOMIC_RELEASE);
}

int timer_run()
{
    uloop_init();
    thread_pool = static_cast<threadpool *>(malloc(sizeof(threadpool)));
    if (threadpool_init(thread_pool, 2) != 0 || create_workers(thread_pool) != 0)
        return 1;
    tick.cb = on_tick;
    late.expected = now_ms(CLOCK_MONOTONIC) + 10;
    uloop_timeout_set(&tick, 10);
    auto *task = static_cast<threadpool_task *>(calloc(1, sizeof(threadpool_task)));
    task->fn = pass_task;
    double t0 = now_ms(CLOCK_MONOTONIC);
    threadpool_add_task(task, thread_pool);
    uloop_run();
    double wall = now_ms(CLOCK_MONOTONIC) - t0;
    threadpool_deinit(thread_pool);
    uloop_done();
    std::printf("{\"timer_ticks\": %d, \"worst_late_ms\": %.2f, \"mean_late_ms\": %.3f, \"pass_wall_ms\": %.1f, "
                "\"entries\": %d}\n",
                late.ticks, late.worst, late.ticks ? late.total / late.ticks : 0.0, wall,
                [] {
                    int n = 0;
                    for (client_table_entry *e = client_table.head; e; e = e->next)
                        n++;
                    return n;
                }());
    return 0;
}

}  // namespace

int main(int argc, char **argv)
{
    int passes = 1;
    bool step = false;
    for (int i = 1; i < argc; i++) {
        std::string a = argv[i];
        if (a == "--passes" && i + 1 < argc) {
            passes = std::atoi(argv[++i]);
        } else if (a == "--step") {
            step = true;
        } else if (a == "--dump") {
            return dump_only();
        } else if (a == "--log" && i + 1 < argc) {
            LR_LOG(2, "%s", argv[++i]);
            return 0;
        } else if (a == "--timer") {
            update_lan_info_by_uci();
            return timer_run();
        } else {
            std::fprintf(stderr, "lr_scan_probe: unknown argument %s\n", argv[i]);
            return 2;
        }
    }
    // As the daemon starts: the radio interfaces first, then the LAN.
    read_radio_list();
    update_lan_info_by_uci();
    print_lan();
    for (int n = 1; n <= passes; n++) {
        if (step && n > 1) {
            char line[64];
            if (!std::fgets(line, sizeof(line), stdin))
                break;
        }
        double w0 = now_ms(CLOCK_MONOTONIC), c0 = cpu_ms();
        int r = create_client_table();
        print_pass(n, r, now_ms(CLOCK_MONOTONIC) - w0, cpu_ms() - c0);
    }
    return 0;
}
