// The history package as the daemon finds it at start: any bytes in
// "/etc/config/history_list" are loaded into a fresh pool. The harness gives
// itself private "/etc", "/var" and "/tmp/.uci" on its first input (it needs
// root), so the daemon's fixed paths point into throw-away mounts.
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <initializer_list>
#include <sched.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <unistd.h>

#include "registry/client_node.h"
#include "registry/history_list_mgmt.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size);

namespace {

memory_queue queue;
client_node nodes[MEMORY_QUEUE_SIZE];

bool private_mounts()
{
    if (unshare(CLONE_NEWNS) != 0 || mount(nullptr, "/", nullptr, MS_REC | MS_PRIVATE, nullptr) != 0) {
        perror("private mount namespace (the harness needs root)");
        return false;
    }
    for (const char *d : {"/etc", "/var"}) {
        if (mount("none", d, "tmpfs", 0, "mode=0755") != 0) {
            perror(d);
            return false;
        }
    }
    // Of /tmp only the library's default change directory is read. The rest
    // stays: the inputs and the fuzzer's corpus may live there (a checkout
    // under /tmp).
    struct stat st {};
    if (stat("/tmp/.uci", &st) == 0 && mount("none", "/tmp/.uci", "tmpfs", 0, "mode=0700") != 0) {
        perror("/tmp/.uci");
        return false;
    }
    mkdir("/etc/config", 0755);
    mkdir("/var/state", 0755);
    return true;
}

void fresh_pool()
{
    for (client_node *n = get_history_list(); n; n = n->next)
        free_ip6_globals(n);
    std::memset(static_cast<void *>(nodes), 0, sizeof(nodes));
    for (int i = 0; i + 1 < MEMORY_QUEUE_SIZE; i++)
        nodes[i].next = &nodes[i + 1];
    queue.head = &nodes[0];
    queue.tail = &nodes[MEMORY_QUEUE_SIZE - 1];
    client_pool = &queue;
    set_history_list(nullptr);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    static bool ready = private_mounts();
    if (!ready)
        abort();
    int fd = open("/etc/config/history_list", O_WRONLY | O_CREAT | O_TRUNC, 0644);
    if (fd < 0)
        abort();
    if (size && write(fd, data, size) != static_cast<ssize_t>(size))
        abort();
    close(fd);
    fresh_pool();
    // Quiet: the store prints every refused section on standard output.
    fflush(stdout);
    int saved = dup(1);
    int null = open("/dev/null", O_WRONLY);
    dup2(null, 1);
    load_history_list_config();
    fflush(stdout);
    dup2(saved, 1);
    close(saved);
    close(null);
    int listed = 0;
    for (const client_node *n = get_history_list(); n; n = n->next) {
        if (n->status != STATUS_DISCONNECT || strnlen(n->hostname, sizeof(n->hostname)) > 64 ||
            strnlen(n->nickname, sizeof(n->nickname)) > 64)
            abort();
        listed++;
    }
    if (listed > MEMORY_QUEUE_SIZE)
        abort();
    return 0;
}
