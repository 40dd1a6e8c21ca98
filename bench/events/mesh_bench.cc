// A mesh peer's update of 300 clients merged into the live list: when all
// are known (the steady state, once a second per peer), when all are new
// (each writes its section), and when all leave (each writes its leave
// time). 88 clients of this node's scan stand beside them, so the pool is
// full. The program gives itself private "/etc", "/tmp" and "/var" first
// (it needs root), so the store writes into a throw-away package.
#include <benchmark/benchmark.h>
#include <fcntl.h>
#include <sched.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>

#include "core/openwrt.h"
#include "db/system_info.h"
#include "events/mesh_client.h"
#include "registry/client_node.h"

namespace
{

constexpr int PEER_CLIENTS = 300;
constexpr int SCAN_CLIENTS = MEMORY_QUEUE_SIZE - PEER_CLIENTS;
constexpr char PEER[] = "02-4D-00-00-00-0A";

bool private_mounts()
{
    if (unshare(CLONE_NEWNS) != 0 || mount(nullptr, "/", nullptr, MS_REC | MS_PRIVATE, nullptr) != 0) {
        perror("private mount namespace (the benchmark needs root)");
        return false;
    }
    for (const char *d : {"/etc", "/tmp", "/var"}) {
        if (mount("none", d, "tmpfs", 0, "mode=0755") != 0) {
            perror(d);
            return false;
        }
    }
    mkdir("/etc/config", 0755);
    mkdir("/var/state", 0755);
    return true;
}

void write_text(const char *path, const std::string &text)
{
    int fd = open(path, O_WRONLY | O_CREAT | O_TRUNC, 0644);
    if (fd < 0)
        return;
    ssize_t r = write(fd, text.data(), text.size());
    (void)r;
    close(fd);
}

void mac_text(char *out, size_t size, int id)
{
    std::snprintf(out, size, "02:4d:00:01:%02x:%02x", id >> 8, id & 0xff);
}

// The peer's message with clients 0..count-1, as the listener copies it.
std::string peer_message(int count)
{
    blob_buf b = {};
    blob_buf_init(&b, 0);
    blobmsg_add_string(&b, "device_mac", PEER);
    blobmsg_add_string(&b, "device_id", "NODE-BENCH");
    blobmsg_add_u32(&b, "client_num", static_cast<uint32_t>(count));
    void *list = blobmsg_open_array(&b, "mesh_client_list");
    for (int id = 0; id < count; id++) {
        char mac[18];
        mac_text(mac, sizeof(mac), id);
        void *t = blobmsg_open_table(&b, nullptr);
        blobmsg_add_string(&b, "mac", mac);
        blobmsg_add_string(&b, "ip", "192.168.1.77");
        blobmsg_add_string(&b, "name", "client-of-a-peer");
        blobmsg_add_string(&b, "guest", "MAIN");
        blobmsg_add_u32(&b, "connection_type", static_cast<uint32_t>(id % 9));
        blobmsg_add_u32(&b, "client_type", 0);
        blobmsg_add_u32(&b, "signal_strength", static_cast<uint32_t>(-50));
        blobmsg_add_u32(&b, "rxrate", 866);
        blobmsg_add_u32(&b, "txrate", 650);
        blobmsg_close_table(&b, t);
    }
    blobmsg_close_array(&b, list);
    std::string out(reinterpret_cast<const char *>(b.head), blob_raw_len(b.head));
    blob_buf_free(&b);
    return out;
}

void handle(const std::string &message)
{
    void *copy = std::malloc(message.size());
    std::memcpy(copy, message.data(), message.size());
    mesh_client_update_handler(copy);
}

// A fresh pool with this node's scan clients, and the peer's clients
// merged once when `with_peer` is set.
void reset_registry(const std::string &full, bool with_peer)
{
    client_pool = nullptr;
    set_history_list(nullptr);
    write_text("/etc/config/history_list", "");
    create_memory_queue();
    for (int id = 0; id < SCAN_CLIENTS; id++) {
        client_node *n = delete_oldest_node_from_list();
        const uint8_t mac[6] = {0x02, 0x42, 0, 0, static_cast<uint8_t>(id >> 8), static_cast<uint8_t>(id)};
        std::memcpy(n->mac, mac, 6);
        n->guest = 2;
        set_node_status(n, STATUS_NEW_ACCESS);
        n->status = STATUS_ONLINE_LAST_TIME;
    }
    if (with_peer)
        handle(full);
}

void BM_MeshUpdateAllKnown(benchmark::State &state)
{
    const std::string full = peer_message(PEER_CLIENTS);
    reset_registry(full, true);
    for (auto _ : state)
        handle(full);
    state.SetLabel("300 listed, all held already; 88 scan clients");
}
BENCHMARK(BM_MeshUpdateAllKnown)->Unit(benchmark::kMicrosecond);

void BM_MeshUpdateAllNew(benchmark::State &state)
{
    const std::string full = peer_message(PEER_CLIENTS);
    for (auto _ : state) {
        state.PauseTiming();
        reset_registry(full, false);
        state.ResumeTiming();
        handle(full);
    }
    state.SetLabel("300 new clients, one section written each");
}
BENCHMARK(BM_MeshUpdateAllNew)->Unit(benchmark::kMillisecond)->Iterations(3);

void BM_MeshUpdateAllLeave(benchmark::State &state)
{
    const std::string full = peer_message(PEER_CLIENTS);
    const std::string none = peer_message(0);
    for (auto _ : state) {
        state.PauseTiming();
        reset_registry(full, true);
        state.ResumeTiming();
        handle(none);
    }
    state.SetLabel("300 clients leave, one leave time written each");
}
BENCHMARK(BM_MeshUpdateAllLeave)->Unit(benchmark::kMillisecond)->Iterations(3);

} // namespace

int main(int argc, char **argv)
{
    if (!private_mounts())
        return 1;
    std::strcpy(main_device_mac, "02-4C-52-00-00-01");
    benchmark::Initialize(&argc, argv);
    benchmark::RunSpecifiedBenchmarks();
    benchmark::Shutdown();
    return 0;
}
