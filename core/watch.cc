#include "core/watch.h"

#include <fcntl.h>
#include <sys/inotify.h>
#include <unistd.h>
#include <arpa/inet.h>
#include <cstdlib>
#include <cstring>

#include "core/log.h"
#include "core/openwrt.h"
#include "core/text.h"
#include "core/threadpool.h"
#include "db/policy_mirror.h"
#include "db/system_info.h"
#include "recognition/fing_state.h"
#include "registry/client_node.h"
#include "registry/rwlock_guard.h"
#include "scan/lease.h"

int inot_fd = -1;
int uci_wd = -1;
int dhcp_wd = -1;

namespace
{

// The refresh functions have their own result and scope arguments; the pool
// wants void(void *), and each of these ignores its (null) argument.
void client_speed_limit_task(void *) noexcept
{
    update_client_speed_limit(nullptr);
}
void black_list_task(void *) noexcept
{
    update_black_list(nullptr);
}
void qos_task(void *) noexcept
{
    update_qos(nullptr);
}
void parentalctl_task(void *) noexcept
{
    update_parentalctl(nullptr);
}
void sysmode_task(void *arg) noexcept
{
    update_sysmode(arg);
}
void mesh_role_task(void *arg) noexcept
{
    update_mesh_role(arg);
}
void tfstats_switch_task(void *arg) noexcept
{
    update_tfstats_switch(arg);
}
void qos_switch_task(void *arg) noexcept
{
    update_qos_switch(arg);
}
void wan_type_task(void *arg) noexcept
{
    update_wan_type(arg);
}

uloop_fd inot_ufd = [] {
    uloop_fd u{};
    u.cb = inot_ufd_handler;
    u.fd = -1;
    return u;
}();

// One flag per row of the table and one for the DHCP file: a file is acted
// on at most once per read, however many events it produced.
bool pending[WATCH_ROWS + 1];
constexpr int DHCP_FLAG = WATCH_ROWS;

// Posts fn under flag `row`; false when the task could not be allocated,
// which ends the walk.
bool post_once(int row, void (*fn)(void *)) noexcept
{
    if (pending[row])
        return true;
    pending[row] = true;
    auto *task = static_cast<threadpool_task *>(malloc(sizeof(threadpool_task)));
    if (!task)
        return false;
    task->fn = fn;
    task->arg = nullptr;
    task->next = nullptr;
    threadpool_add_task(task, thread_pool);
    return true;
}

bool handle_uci_event(const char *name) noexcept
{
    LR_LOG(7, "[lr] uloop handle uci inotify_event, event.name = %s\n", name);
    for (int i = 0; i < WATCH_ROWS; i++)
        if (std::strcmp(name, watch_table[i].file) == 0)
            return post_once(i, watch_table[i].fn);
    return true;
}

const char *chosen_dhcp_file() noexcept
{
    return system_info.sys_mode == SYS_MODE_ROUTER ? DHCP_LEASES_FILE : DHCP_HOOK_FILE;
}

void create_if_missing(const char *file) noexcept
{
    bool router = file == DHCP_LEASES_FILE;
    if (access(file, F_OK) == 0)
        return;
    LR_LOG(2, router ? "[lr error] no DHCP_LEASES_FILE" : "[lr error] no DHCP_HOOK_FILE");
    int fd = open(file, O_CREAT | O_WRONLY | O_CLOEXEC, 0644);
    if (fd < 0) {
        LR_LOG(2, router ? "[lr error] can not create DHCP_LEASES_FILE"
                         : "[lr error] can not create DHCP_HOOK_FILE");
        return;
    }
    close(fd);
}

// Names of records may lack the terminator inside `len`; a copy bounded by
// the record keeps the walk inside the buffer.
void record_name(const inotify_event *ev, size_t avail, char *out, size_t size) noexcept
{
    size_t len = ev->len < avail ? ev->len : avail;
    if (len >= size)
        len = size - 1;
    size_t n = strnlen(ev->name, len);
    std::memcpy(out, ev->name, n);
    out[n] = '\0';
}

} // namespace

const watch_row watch_table[WATCH_ROWS] = {
    {"client_speed_limit", client_speed_limit_task},
    {"access_control", black_list_task},
    {"lanroster", qos_task},
    {"parental_control_v2", parentalctl_task},
    {"sysmode", sysmode_task},
    {"meshd", mesh_role_task},
    {"tfstats", tfstats_switch_task},
    {"qos_v2", qos_switch_task},
    {"network", wan_type_task},
};

int db_inotify_init() noexcept
{
    LR_LOG(7, "[lr] db_inotify_init");
    inot_fd = inotify_init1(IN_CLOEXEC);
    if (inot_fd < 0) {
        LR_LOG(7, "[lr error] inotify_init\n");
        return -1;
    }
    // A commit replaces the package by renaming a temporary file over it,
    // which shows as IN_MOVED_TO; an in-place rewrite shows as IN_MODIFY.
    uci_wd = inotify_add_watch(inot_fd, UCI_WATCH_DIR, IN_MODIFY | IN_MOVED_TO);
    if (uci_wd < 0) {
        LR_LOG(7, "[lr error] inotify_add_watch\n");
        close(inot_fd);
        inot_fd = -1;
        return -1;
    }
    const char *file = chosen_dhcp_file();
    create_if_missing(file);
    dhcp_wd = inotify_add_watch(inot_fd, file, IN_MODIFY);
    if (dhcp_wd < 1)
        LR_LOG(7, "[lr error] can not watch dhcp_wd\n");
    LR_LOG(7, "[lr] start to watch dir:%s uci_wd=%d dhcp_wd=%d\n", UCI_WATCH_DIR, uci_wd, dhcp_wd);
    inot_ufd.fd = inot_fd;
    uloop_fd_add(&inot_ufd, ULOOP_READ);
    return 0;
}

void db_inotify_deinit() noexcept
{
    if (inot_fd < 0)
        return;
    if (inot_ufd.registered)
        uloop_fd_delete(&inot_ufd);
    if (uci_wd >= 0)
        inotify_rm_watch(inot_fd, uci_wd);
    close(inot_fd);
    inot_fd = -1;
    uci_wd = -1;
    dhcp_wd = -1;
    inot_ufd.fd = -1;
}

void inot_ufd_handler(uloop_fd *ufd, unsigned int) noexcept
{
    static uint8_t buf[INOTIFY_READ_MAX] __attribute__((aligned(alignof(inotify_event))));
    ssize_t n = read(ufd->fd, buf, sizeof(buf));
    if (n <= 0)
        return;
    inot_handle_events(std::span<const uint8_t>(buf, static_cast<size_t>(n)));
}

void inot_handle_events(std::span<const uint8_t> buf) noexcept
{
    std::memset(pending, 0, sizeof(pending));
    size_t off = 0;
    while (off + sizeof(inotify_event) <= buf.size()) {
        inotify_event ev;
        std::memcpy(&ev, buf.data() + off, sizeof(ev));
        size_t avail = buf.size() - off - sizeof(inotify_event);
        const auto *rec = reinterpret_cast<const inotify_event *>(buf.data() + off);
        off += sizeof(inotify_event) + ev.len;
        if (!(ev.mask & (IN_MODIFY | IN_MOVED_TO)))
            continue;
        LR_LOG(7, "[lr] uloop handle inotify_event IN_MODIFY , wd = %d\n", ev.wd);
        char name[256];
        record_name(rec, avail, name, sizeof(name));
        bool ok = true;
        if (ev.wd == uci_wd) {
            ok = handle_uci_event(name);
        } else if (ev.wd == dhcp_wd) {
            LR_LOG(7, "[lr] uloop handle dhcp inotify_event, event.name = %s\n", name);
            ok = post_once(DHCP_FLAG, update_dhcp);
        }
        if (!ok)
            return;
    }
}

namespace
{

bool replaceable_name(const char *hostname) noexcept
{
    return hostname[0] == '\0' || std::strcmp(hostname, "network device") == 0;
}

void take_name(client_node *n, const char *name) noexcept
{
    if (!replaceable_name(n->hostname) || std::strcmp(name, "*") == 0)
        return;
    copy_str(n->hostname, std::string_view(name, strnlen(name, HOSTNAME_KEEP)), HOSTNAME_KEEP);
    if (n->hostname[0] != '\0')
        fing_text_clean(n->hostname);
}

void dhcp_into_node(client_node *n, bool router) noexcept
{
    if (router) {
        lease_row row{};
        if (!find_lease_by_mac(&row, n->mac))
            return;
        if (inet_pton(AF_INET, row.ip, &n->ip) != 1)
            n->ip = 0;
        if (n->type_source > TYPE_SOURCE_DHCP) {
            n->type_source = TYPE_SOURCE_DHCP;
            n->device_type = row.type;
        }
        LR_LOG(6, "update by dhcp_leases, mac=%02x-%02x, ip=%s, dev_type=%d, hostname=%s", n->mac[4],
               n->mac[5], row.ip, row.type, row.hostname);
        take_name(n, row.hostname);
        return;
    }
    hook_client hook{};
    if (!hook_lookup(&hook, n->mac))
        return;
    if (inet_pton(AF_INET, hook.ipaddr, &n->ip) != 1)
        n->ip = 0;
    LR_LOG(6, "update by dhcp_hook, mac=%02x-%02x, ip=%s, hostname=%s", n->mac[4], n->mac[5], hook.ipaddr,
           hook.name);
    take_name(n, hook.name);
}

} // namespace

void update_dhcp(void *) noexcept
{
    bool router = system_info.sys_mode == SYS_MODE_ROUTER;
    rwlock_write_guard hold(history_list_lock);
    for (client_node *n = get_history_list(); n; n = n->next) {
        if (n->status == STATUS_ONLINE_LAST_TIME || n->status == STATUS_EVENT_ONLINE ||
            n->status == STATUS_MESH_ONLINE)
            dhcp_into_node(n, router);
    }
}
