// The daemon's own package as other services leave it: any bytes in
// "/etc/config/lanroster" go through the QoS reader, the file-client reader
// and the QoS mirror into a pool of records. The harness gives itself
// private "/etc" and "/tmp/.uci" on its first input (it needs root).
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <sched.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <unistd.h>

#include "db/policy_mirror.h"
#include "db/system_info.h"
#include "registry/client_node.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size);

namespace
{

memory_queue queue;
client_node nodes[MEMORY_QUEUE_SIZE];

bool private_mounts()
{
    if (unshare(CLONE_NEWNS) != 0 || mount(nullptr, "/", nullptr, MS_REC | MS_PRIVATE, nullptr) != 0) {
        perror("private mount namespace (the harness needs root)");
        return false;
    }
    if (mount("none", "/etc", "tmpfs", 0, "mode=0755") != 0) {
        perror("/etc");
        return false;
    }
    struct stat st {
    };
    if (stat("/tmp/.uci", &st) == 0 && mount("none", "/tmp/.uci", "tmpfs", 0, "mode=0700") != 0) {
        perror("/tmp/.uci");
        return false;
    }
    mkdir("/etc/config", 0755);
    return true;
}

// A few records whose MACs the seeds name: 02:00:00:00:00:01 and :02.
void fresh_pool()
{
    std::memset(static_cast<void *>(nodes), 0, sizeof(nodes));
    for (int i = 0; i + 1 < MEMORY_QUEUE_SIZE; i++)
        nodes[i].next = &nodes[i + 1];
    queue.head = &nodes[0];
    queue.tail = &nodes[MEMORY_QUEUE_SIZE - 1];
    client_pool = &queue;
    set_history_list(nullptr);
    for (uint8_t id = 1; id <= 2; id++) {
        client_node *n = get_free_node();
        const uint8_t mac[6] = {2, 0, 0, 0, 0, id};
        std::memcpy(n->mac, mac, 6);
        n->owner_id = -1;
        set_node_status(n, STATUS_NEW_ACCESS);
    }
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    static bool ready = private_mounts();
    if (!ready)
        abort();
    int fd = open("/etc/config/lanroster", O_WRONLY | O_CREAT | O_TRUNC, 0644);
    if (fd < 0)
        abort();
    if (size && write(fd, data, size) != static_cast<ssize_t>(size))
        abort();
    close(fd);
    system_info.support_qos_schedule = size % 2;
    fresh_pool();
    // Quiet: a failed load is printed on standard error.
    fflush(stderr);
    int saved = dup(2);
    int null = open("/dev/null", O_WRONLY);
    dup2(null, 2);
    file_client *files = nullptr;
    int count = 0;
    if (get_lanroster_file_clients(&files, &count) == 0) {
        for (int i = 0; i < count; i++) {
            if (strnlen(files[i].name, sizeof(files[i].name)) > FILE_CLIENT_TEXT_KEEP ||
                strnlen(files[i].type, sizeof(files[i].type)) > FILE_CLIENT_TEXT_KEEP)
                abort();
        }
        free(files);
    }
    update_qos(nullptr);
    fflush(stderr);
    dup2(saved, 2);
    close(saved);
    close(null);
    for (const client_node *n = get_history_list(); n; n = n->next) {
        if (n->device_type < DEVICE_TYPE_UNKNOWN || n->device_type >= DEVICE_TYPE_COUNT ||
            strnlen(n->owner_name, sizeof(n->owner_name)) > 64)
            abort();
    }
    return 0;
}
