// The compare pass over a full pool: nothing changed, and 50 new clients
// with their store writes. The program gives itself private "/etc", "/tmp"
// and "/var" first (it needs root), so the store writes into a throw-away
// "/etc/config/history_list".
#include <benchmark/benchmark.h>
#include <cstdio>
#include <cstring>
#include <deque>
#include <fcntl.h>
#include <sched.h>
#include <string>
#include <sys/mount.h>
#include <sys/stat.h>
#include <unistd.h>

#include "core/text.h"
#include "registry/client_node.h"
#include "registry/compare.h"
#include "scan/client_table.h"

namespace {

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
    mkdir("/etc/crontabs", 0755);
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

void mac_of(uint8_t mac[6], int id)
{
    const uint8_t m[6] = {0x02, 0x42, 0, 0, static_cast<uint8_t>(id >> 8), static_cast<uint8_t>(id)};
    std::memcpy(mac, m, 6);
}

std::string hostname_of(int id)
{
    return "client-" + std::to_string(id);
}

// Scan entries for clients first..last-1.
void make_entries(std::deque<client_table_entry> &out, int first, int last)
{
    out.clear();
    for (int id = first; id < last; id++) {
        client_table_entry e{};
        mac_of(e.mac, id);
        copy_str(e.hostname, hostname_of(id));
        e.ip = static_cast<uint32_t>(0x0001a8c0 | (id & 0xff) << 24);
        e.guest = 2;
        e.device_type = -1;
        e.type_source = 4;
        out.push_back(e);
        if (out.size() > 1)
            out[out.size() - 2].next = &out.back();
    }
}

// Known, online records for clients first..last-1, as a pass leaves them,
// and their sections in the store's file.
void make_known(int first, int last)
{
    std::string file;
    for (int id = first; id < last; id++) {
        client_node *n = delete_oldest_node_from_list();
        mac_of(n->mac, id);
        copy_str(n->hostname, hostname_of(id));
        n->guest = 2;
        n->access_host = 1;
        n->device_type = -1;
        set_node_status(n, STATUS_NEW_ACCESS);
        n->status = STATUS_ONLINE_LAST_TIME;
        char mac_text[MAC_HEX_TEXT_SIZE];
        mac_to_hex_text(n->mac, mac_text);
        file += "\nconfig list\n\toption mac '" + std::string(mac_text) + "'\n\toption hostname '" +
                hostname_of(id) + "'\n\toption type 'unknown'\n\toption access_host '1'\n";
    }
    write_text("/etc/config/history_list", file);
}

void reset_registry()
{
    client_pool = nullptr;
    set_history_list(nullptr);
    write_text("/etc/config/history_list", "");
    create_memory_queue();
}

void BM_CompareNothingChanged(benchmark::State &state)
{
    reset_registry();
    make_known(0, MEMORY_QUEUE_SIZE);
    std::deque<client_table_entry> entries;
    make_entries(entries, 0, MEMORY_QUEUE_SIZE);
    for (auto _ : state)
        benchmark::DoNotOptimize(compare_client_table(&entries.front()));
    state.SetLabel("388 records, 388 entries");
}
BENCHMARK(BM_CompareNothingChanged)->Unit(benchmark::kMicrosecond);

// Takes the 50 new clients out again, so that each pass finds them new.
void forget_new(int first, int last)
{
    for (int id = first; id < last; id++) {
        uint8_t mac[6];
        mac_of(mac, id);
        client_node *n = find_node_by_mac(mac);
        if (n && unlink_node(n))
            release_node(n);
    }
}

void BM_CompareFiftyNew(benchmark::State &state)
{
    constexpr int known = MEMORY_QUEUE_SIZE - 50;
    reset_registry();
    make_known(0, known);
    std::string file_before;
    {
        FILE *f = fopen("/etc/config/history_list", "r");
        char buf[4096];
        size_t n;
        while (f && (n = fread(buf, 1, sizeof(buf), f)) > 0)
            file_before.append(buf, n);
        if (f)
            fclose(f);
    }
    std::deque<client_table_entry> entries;
    make_entries(entries, 0, MEMORY_QUEUE_SIZE);
    for (auto _ : state) {
        benchmark::DoNotOptimize(compare_client_table(&entries.front()));
        state.PauseTiming();
        forget_new(known, MEMORY_QUEUE_SIZE);
        write_text("/etc/config/history_list", file_before);
        state.ResumeTiming();
    }
    state.SetLabel("338 known, 50 new, 7 commits each");
}
BENCHMARK(BM_CompareFiftyNew)->Unit(benchmark::kMillisecond)->Iterations(5);

}  // namespace

int main(int argc, char **argv)
{
    if (!private_mounts())
        return 1;
    benchmark::Initialize(&argc, argv);
    benchmark::RunSpecifiedBenchmarks();
    benchmark::Shutdown();
    return 0;
}
