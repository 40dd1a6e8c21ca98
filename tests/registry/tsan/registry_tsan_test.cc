// Compare passes, real-time writers and bus-style readers at once, built
// with ThreadSanitizer. The process gives itself private "/etc", "/tmp" and
// "/var" first, so the store's fixed paths point into throw-away mounts.
//
// The scan side is reduced to what the compare pass needs from it: the
// table lock, the scan list and the system mode.
#include <atomic>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <pthread.h>
#include <sched.h>
#include <set>
#include <sys/mount.h>
#include <sys/stat.h>
#include <thread>
#include <unistd.h>
#include <vector>

#include "registry/client_node.h"
#include "registry/compare.h"
#include "registry/history_list_mgmt.h"
#include "registry/rwlock_guard.h"
#include "scan/client_table.h"
#include "scan/topology.h"

struct client_table client_table;
pthread_rwlock_t client_table_lock = PTHREAD_RWLOCK_INITIALIZER;
char sys_mode_text[16];
bool sys_mode_is_node() noexcept
{
    return false;
}

namespace {

constexpr int CLIENTS = 32;
constexpr int PASSES = 25;
constexpr int WRITER_ROUNDS = 400;
constexpr int READER_ROUNDS = 400;

std::atomic<int> failures{0};

void check(bool ok, const char *what)
{
    if (!ok) {
        fprintf(stderr, "FAIL: %s\n", what);
        failures++;
    }
}

bool private_mounts()
{
    if (unshare(CLONE_NEWNS) != 0 || mount(nullptr, "/", nullptr, MS_REC | MS_PRIVATE, nullptr) != 0) {
        perror("private mount namespace (run as root)");
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
    int fd = open("/etc/config/history_list", O_WRONLY | O_CREAT, 0644);
    if (fd >= 0)
        close(fd);
    return true;
}

void mac_of(uint8_t mac[6], int id)
{
    const uint8_t m[6] = {0x02, 0, 0, 0, 0, static_cast<uint8_t>(id)};
    std::memcpy(mac, m, 6);
}

// The scan side: rebuilds the list under the write lock, each pass with a
// different part of the clients present.
std::vector<client_table_entry> table_rows(CLIENTS);

void scan_pass(int pass)
{
    rwlock_write_guard hold(client_table_lock);
    client_table.head = nullptr;
    client_table_entry *prev = nullptr;
    for (int id = 0; id < CLIENTS; id++) {
        if ((id + pass) % 5 == 0)
            continue;  // this one is away in this pass
        client_table_entry &e = table_rows[static_cast<size_t>(id)];
        e = client_table_entry{};
        mac_of(e.mac, id);
        snprintf(e.hostname, sizeof(e.hostname), "host-%d-%d", id, pass % 3 == 0 ? pass : 0);
        e.guest = static_cast<uint8_t>(id % 7 == 0 ? 1 : 2);
        e.device_type = -1;
        e.type_source = 4;
        if (prev)
            prev->next = &e;
        else
            client_table.head = &e;
        prev = &e;
    }
    if (prev)
        prev->next = nullptr;
}

void compare_thread()
{
    for (int pass = 0; pass < PASSES; pass++) {
        scan_pass(pass);
        while (compare_client_table(client_table.head) == -2)
            std::this_thread::yield();
    }
}

// A real-time handler: moves one client online or offline with the write
// lock held, as the association and neighbour handlers do.
void writer_thread(int seed)
{
    unsigned r = static_cast<unsigned>(seed);
    for (int i = 0; i < WRITER_ROUNDS; i++) {
        r = r * 1103515245u + 12345u;
        uint8_t mac[6];
        mac_of(mac, static_cast<int>(r >> 8) % CLIENTS);
        rwlock_write_guard hold(history_list_lock);
        client_node *n = find_node_by_mac(mac);
        if (!n || n->status == STATUS_MESH_ONLINE)
            continue;
        unlink_node(n);
        if (r & 0x10000) {
            set_node_status(n, STATUS_NEW_ACCESS);
            n->status = STATUS_EVENT_ONLINE;
            n->ip = r;
        } else {
            set_node_status(n, STATUS_DISCONNECT);
            n->status = STATUS_EVENT_OFFLINE;
            n->ip = 0;
        }
    }
}

// A bus query: walks the list with the read lock.
void reader_thread()
{
    for (int i = 0; i < READER_ROUNDS; i++) {
        rwlock_read_guard hold(history_list_lock);
        int online = 0;
        size_t names = 0;
        for (const client_node *n = get_history_list(); n; n = n->next) {
            if (n->status == STATUS_ONLINE_LAST_TIME || n->status == STATUS_EVENT_ONLINE)
                online++;
            names += strnlen(n->hostname, sizeof(n->hostname));
        }
        check(online <= CLIENTS, "no more online clients than exist");
        (void)names;
    }
}

std::atomic<int> thread_rows{0};
int count_row(client_node *arg) noexcept
{
    if (arg)
        thread_rows += arg->mac[5] == 0x42 ? 1 : 0;
    return 1;
}
const callback_pair threaded_rows[] = {
    {.in_thread = 1, .function = count_row},
    {.in_thread = 0, .function = nullptr},
};

// Rows on threads of their own, started while the snapshot is changed.
void thread_rows_thread()
{
    for (int i = 0; i < 50; i++) {
        client_node snapshot{};
        snapshot.mac[5] = 0x42;
        run_callback_pairs(threaded_rows, &snapshot, nullptr, nullptr);
        snapshot.mac[5] = 0;
    }
}

void check_list()
{
    rwlock_read_guard hold(history_list_lock);
    std::set<int> seen;
    bool offline_part = false;
    int count = 0;
    for (const client_node *n = get_history_list(); n; n = n->next) {
        bool offline = n->status == STATUS_DISCONNECT || n->status == STATUS_EVENT_OFFLINE;
        check(!(offline_part && !offline), "online records stand before offline ones");
        offline_part = offline_part || offline;
        check(seen.insert(n->mac[5]).second, "each client once");
        count++;
    }
    int pool = 0;
    for (const client_node *n = client_pool->head; n; n = n->next)
        pool++;
    check(count + pool == MEMORY_QUEUE_SIZE, "every record in the list or the pool");
    check(count == CLIENTS, "every client known");
}

}  // namespace

int main()
{
    if (!private_mounts())
        return 1;
    if (create_memory_queue() != 1)
        return 1;
    std::vector<std::thread> threads;
    threads.emplace_back(compare_thread);
    threads.emplace_back(writer_thread, 1);
    threads.emplace_back(writer_thread, 2);
    threads.emplace_back(reader_thread);
    threads.emplace_back(reader_thread);
    threads.emplace_back(thread_rows_thread);
    for (auto &t : threads)
        t.join();
    // Every client shows up in a pass again: the list settles.
    scan_pass(1);
    compare_client_table(client_table.head);
    check_list();
    printf("%d compare passes, %d writer and %d reader rounds: %s\n", PASSES, 2 * WRITER_ROUNDS,
           2 * READER_ROUNDS, failures ? "FAILED" : "ok");
    return failures ? 1 : 0;
}
