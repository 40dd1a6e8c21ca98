// get_hist_list_new through the bus: 388 known clients, every section asked,
// the sources that run other services through the shell absent. Prints the
// round trip of ubus_invoke (p50, p99) and the size of the reply; beside it
// the older get_hist_list (IPv4 and IPv6 rows of all clients) and
// get_hist_list_num over the same 388 clients.
#include <benchmark/benchmark.h>

#include <arpa/inet.h>
#include <poll.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <thread>
#include <vector>

#include "bus/client_list.h"
#include "bus/ubus_server.h"
#include "core/log.h"
#include "db/system_info.h"
#include "registry/client_node.h"
#include "tests/sandbox/sandbox.h"
#include "tests/support/bus_daemon.h"

namespace
{

// A private ubusd on the daemon's socket path, in the sandbox's own
// "/var/run" (root); the process enters the sandbox before its first one.
struct private_ubusd {
    std::string path = UBUS_SOCKET_PATH;
    pid_t pid = -1;

    bool start()
    {
        static const bool sandboxed = sandbox::enter();
        if (!sandboxed)
            return false;
        pid = lr_test::start_ubusd(path.c_str());
        return pid > 0;
    }
    ~private_ubusd()
    {
        if (pid > 0) {
            kill(pid, SIGTERM);
            waitpid(pid, nullptr, 0);
        }
        unlink(path.c_str());
    }
};

// The daemon's side on a thread of its own that runs uloop, as the daemon's
// main thread does: a large reply is written out as the socket drains.
struct daemon_loop {
    std::thread thread;
    std::atomic<int> state{0}; // 1 on the bus, -1 failed
    static std::atomic<bool> stop;

    static void check_stop(uloop_timeout *t)
    {
        if (stop)
            uloop_end();
        else
            uloop_timeout_set(t, 10);
    }
    void start()
    {
        thread = std::thread([this] {
            uloop_init();
            if (lanroster_ubus_init() != 0) {
                state = -1;
                uloop_done();
                return;
            }
            uloop_timeout poll_stop = {};
            poll_stop.cb = check_stop;
            uloop_timeout_set(&poll_stop, 10);
            state = 1;
            uloop_run();
            uloop_timeout_cancel(&poll_stop);
            lanroster_ubus_deinit();
            uloop_done();
        });
        while (state == 0)
            std::this_thread::yield();
    }
    ~daemon_loop()
    {
        stop = true;
        if (thread.joinable())
            thread.join();
        stop = false;
    }
};
std::atomic<bool> daemon_loop::stop{false};

client_node records[MEMORY_QUEUE_SIZE];

// 388 clients as a busy home LAN has them: most online, some offline, a
// tenth without a name (their vendor is looked up), IPv6 addresses on a
// quarter, mesh clients and policies here and there.
void fill_records()
{
    for (int i = 0; i < MEMORY_QUEUE_SIZE; ++i) {
        client_node &n = records[i];
        n = {};
        const uint8_t mac[6] = {static_cast<uint8_t>(i % 10 == 0 ? 0x00 : 0x02),
                                0x00,
                                0x0c,
                                static_cast<uint8_t>(i >> 8),
                                static_cast<uint8_t>(i),
                                0x01};
        std::memcpy(n.mac, mac, 6);
        n.status = i < 300 ? STATUS_ONLINE_LAST_TIME : STATUS_DISCONNECT;
        n.wire_type = static_cast<uint8_t>(i % 3 == 0 ? 10 : 1 + i % 4);
        n.guest = static_cast<uint8_t>(1 + i % 2);
        n.ip = htonl(0x0A000000u | static_cast<uint32_t>(i + 2));
        n.device_type = i % 80;
        n.type_source = 3;
        n.access_time = static_cast<int32_t>(time(nullptr)) - i * 60;
        if (i % 10 != 0)
            std::snprintf(n.hostname, sizeof(n.hostname), "device-%03d.home", i);
        std::snprintf(n.ifname, sizeof(n.ifname), "lan%d", i % 4);
        n.prio_time = -1;
        n.time_period = -1;
        n.owner_id = i % 7 == 0 ? 2 : -1;
        std::strcpy(n.owner_name, i % 7 == 0 ? "Kid" : "");
        n.slots[0] = i % 5 == 0 ? 8 : 0xff;
        n.is_mesh_client = i % 11 == 0;
        n.connect_device_mac[5] = n.is_mesh_client ? 0x42 : 0;
        n.ip6_state = i % 4 == 0 ? 4 : 0;
        n.next = i + 1 < MEMORY_QUEUE_SIZE ? &records[i + 1] : nullptr;
    }
    set_history_list(&records[0]);
}

void every_feature_on()
{
    system_info = {.sys_mode = 0,
                   .wan_type = 0,
                   .qos_enable = 1,
                   .support_tfstats = 1,
                   .support_tfstats_workaround = 1,
                   .access_enable = 1,
                   .access_mode_black = 1,
                   .support_high_bandwidth_occupancy = 1,
                   .support_client_speed_limit = 1,
                   .support_qos_schedule = 1,
                   .support_easymesh = 1,
                   .support_weavelink = 1,
                   .support_mlo = 1,
                   .support_gaming_lan = 1};
    std::strcpy(main_device_mac, "02-AA-00-00-00-01");
    std::strcpy(main_device_id, "bench-main-device-0000000000000000000000000");
}

// Times each ubus_invoke of `method` with `request` on the caller's thread.
void time_calls(benchmark::State &state, ubus_context *caller, uint32_t id, const char *method,
                blob_attr *request)
{
    size_t reply_bytes = 0;
    auto on_data = [](ubus_request *r, int, blob_attr *msg) {
        *static_cast<size_t *>(r->priv) = blob_raw_len(msg);
    };
    std::vector<double> micros;
    for (auto _ : state) {
        auto t0 = std::chrono::steady_clock::now();
        int status = ubus_invoke(caller, id, method, request, on_data, &reply_bytes, 5000);
        auto t1 = std::chrono::steady_clock::now();
        if (status != 0) {
            state.SkipWithError(("call failed: " + std::to_string(status)).c_str());
            return;
        }
        micros.push_back(std::chrono::duration<double, std::micro>(t1 - t0).count());
    }
    std::sort(micros.begin(), micros.end());
    if (!micros.empty()) {
        state.counters["p50_us"] = micros[micros.size() / 2];
        state.counters["p99_us"] = micros[std::min(micros.size() - 1, micros.size() * 99 / 100)];
        state.counters["reply_bytes"] = static_cast<double>(reply_bytes);
    }
}

// The transport alone: a small reply ("mac_oui req" of a MAC with no vendor
// prefix) on the same bus, for comparison with the large one.
void BM_SmallCallThroughTheBus(benchmark::State &state)
{
    log_level = 0;
    private_ubusd ubusd;
    if (!ubusd.start()) {
        state.SkipWithError("ubusd did not start (the sandbox needs root)");
        return;
    }
    daemon_loop daemon;
    daemon.start();
    if (daemon.state != 1) {
        state.SkipWithError("bus face did not start");
        return;
    }
    ubus_context *caller = ubus_connect(ubusd.path.c_str());
    uint32_t id = 0;
    ubus_lookup_id(caller, "mac_oui", &id);
    blob_buf req = {};
    blob_buf_init(&req, 0);
    blobmsg_add_string(&req, "mac", "02:00:00:00:00:01");
    time_calls(state, caller, id, "req", req.head);
    blob_buf_free(&req);
    ubus_free(caller);
}
BENCHMARK(BM_SmallCallThroughTheBus)->Unit(benchmark::kMicrosecond)->Iterations(2000);

void BM_GetHistListNewThroughTheBus(benchmark::State &state)
{
    log_level = 0;
    private_ubusd ubusd;
    if (!ubusd.start()) {
        state.SkipWithError("ubusd did not start (the sandbox needs root)");
        return;
    }
    fill_records();
    every_feature_on();
    daemon_loop daemon;
    daemon.start();
    if (daemon.state != 1) {
        state.SkipWithError("bus face did not start");
        return;
    }
    ubus_context *caller = ubus_connect(ubusd.path.c_str());
    uint32_t id = 0;
    ubus_lookup_id(caller, "lanroster", &id);
    blob_buf req = {};
    blob_buf_init(&req, 0);
    for (const char *k : {"online_type", "v6", "access_limit", "speed_limit", "qos", "tfstats", "wireless",
                          "qos_schedule", "high_bandwidth_occupancy", "lanroster_file"})
        blobmsg_add_u32(&req, k, std::strcmp(k, "online_type") == 0 ? 2 : 1);
    time_calls(state, caller, id, "get_hist_list_new", req.head);
    blob_buf_free(&req);
    ubus_free(caller);
    set_history_list(nullptr);
}
BENCHMARK(BM_GetHistListNewThroughTheBus)->Unit(benchmark::kMicrosecond)->Iterations(2000);

// The older readers over the same list: `method` with one request_type.
void older_read(benchmark::State &state, const char *method, int32_t type)
{
    log_level = 0;
    private_ubusd ubusd;
    if (!ubusd.start()) {
        state.SkipWithError("ubusd did not start (the sandbox needs root)");
        return;
    }
    fill_records();
    every_feature_on();
    daemon_loop daemon;
    daemon.start();
    if (daemon.state != 1) {
        state.SkipWithError("bus face did not start");
        return;
    }
    ubus_context *caller = ubus_connect(ubusd.path.c_str());
    uint32_t id = 0;
    ubus_lookup_id(caller, "lanroster", &id);
    blob_buf req = {};
    blob_buf_init(&req, 0);
    blobmsg_add_u32(&req, "request_type", static_cast<uint32_t>(type));
    time_calls(state, caller, id, method, req.head);
    blob_buf_free(&req);
    ubus_free(caller);
    set_history_list(nullptr);
}

void BM_GetHistListV4ThroughTheBus(benchmark::State &state)
{
    older_read(state, "get_hist_list", 0);
}
BENCHMARK(BM_GetHistListV4ThroughTheBus)->Unit(benchmark::kMicrosecond)->Iterations(2000);

void BM_GetHistListV6ThroughTheBus(benchmark::State &state)
{
    older_read(state, "get_hist_list", 3);
}
BENCHMARK(BM_GetHistListV6ThroughTheBus)->Unit(benchmark::kMicrosecond)->Iterations(2000);

void BM_GetHistListNumThroughTheBus(benchmark::State &state)
{
    older_read(state, "get_hist_list_num", 0);
}
BENCHMARK(BM_GetHistListNumThroughTheBus)->Unit(benchmark::kMicrosecond)->Iterations(2000);

// The handler's own share: gathering, the walk and the composition of the
// reply in reply_buf, without the bus.
void BM_ComposeHistListNew(benchmark::State &state)
{
    log_level = 0;
    fill_records();
    every_feature_on();
    hist_list_request all{2, 1, 1, 1, 1, 1, 1, 1, 1, 1};
    for (auto _ : state) {
        compose_hist_list_new(all);
        benchmark::DoNotOptimize(reply_buf.head);
    }
    state.counters["reply_bytes"] = static_cast<double>(blob_raw_len(reply_buf.head));
    set_history_list(nullptr);
}
BENCHMARK(BM_ComposeHistListNew)->Unit(benchmark::kMicrosecond);

} // namespace

BENCHMARK_MAIN();
