// The rtnetlink intake on the uloop thread: socket, filter, and the drain.
#include "events/nl_intake.h"

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <linux/filter.h>
#include <linux/netlink.h>
#include <sys/socket.h>
#include <unistd.h>

#include "core/locks.h"
#include "core/log.h"
#include "core/threadpool.h"
#include "events/neigh_event.h"
#include "events/wlan_ops.h"
#include "scan/topology.h"

nl_event_socket rtnl_event_socket = {.sock = -1, .ufd = {}};
nl_event_socket wlan_event_socket = {.sock = -1, .ufd = {}};

namespace
{

// Both handlers run on the uloop thread only, so one buffer does.
uint8_t recv_buffer[NL_RECV_BUF_SIZE];

// Byte 16 of a neighbour message is ndm_family, the first byte behind the
// netlink header. Bridge forwarding and IPv4 neighbour events pass whole,
// everything else (the IPv6 churn above all) stays in the kernel.
sock_filter neigh_filter_code[] = {
    {0x30, 0, 0, 16},         // ldb [16]
    {0x15, 2, 0, 7},          // AF_BRIDGE: pass
    {0x15, 1, 0, 2},          // AF_INET: pass
    {0x06, 0, 0, 0},          // drop
    {0x06, 0, 0, 0xffffffff}, // pass whole
};

int set_nl_bpf_filter(int sock) noexcept
{
    sock_fprog prog{};
    prog.len = sizeof(neigh_filter_code) / sizeof(neigh_filter_code[0]);
    prog.filter = neigh_filter_code;
    if (setsockopt(sock, SOL_SOCKET, SO_ATTACH_FILTER, &prog, sizeof(prog)) == 0)
        return 0;
    LR_LOG(2, "[lr] Failed to set BPF filter: %s", strerror(errno));
    return -1;
}

void close_socket(nl_event_socket *rec) noexcept
{
    if (rec->sock < 0)
        return;
    if (rec->ufd.registered)
        uloop_fd_delete(&rec->ufd);
    close(rec->sock);
    rec->sock = -1;
    rec->ufd.fd = -1;
}

// Copies one datagram into a task and posts it; false when an allocation
// failed, which puts the caller into drop mode.
bool post_datagram(const uint8_t *data, int size, void (*task_fn)(void *)) noexcept
{
    auto *msg = static_cast<nl_event_msg *>(calloc(1, sizeof(nl_event_msg)));
    if (!msg) {
        LR_LOG(2, "[lr] msg alloc failed, entering drop mode");
        return false;
    }
    msg->buf = static_cast<uint8_t *>(malloc(static_cast<size_t>(size)));
    if (!msg->buf) {
        free(msg);
        LR_LOG(2, "[lr] buf alloc failed, entering drop mode");
        return false;
    }
    std::memcpy(msg->buf, data, static_cast<size_t>(size));
    msg->len = size;
    auto *task = static_cast<threadpool_task *>(calloc(1, sizeof(threadpool_task)));
    if (!task) {
        nl_event_msg_free(msg);
        LR_LOG(2, "[lr] task alloc failed, entering drop mode");
        return false;
    }
    task->fn = task_fn;
    task->arg = msg;
    task->next = nullptr;
    // A full queue turns the task away and frees the record; the copy is
    // still ours. This is no reason for drop mode: the next one may fit.
    if (threadpool_add_task(task, thread_pool) != 0)
        nl_event_msg_free(msg);
    return true;
}

// Reads every datagram waiting on `fd` and posts each copy as a `task_fn`
// task; `name` tells the socket in the logs.
void drain_event_socket(int fd, void (*task_fn)(void *), const char *name) noexcept
{
    bool dropping = false;
    for (;;) {
        std::memset(recv_buffer, 0, sizeof(recv_buffer));
        sockaddr_storage source{};
        socklen_t source_len = sizeof(source);
        ssize_t size = recvfrom(fd, recv_buffer, sizeof(recv_buffer), MSG_DONTWAIT,
                                reinterpret_cast<sockaddr *>(&source), &source_len);
        if (size > 0) {
            if (dropping)
                continue;
            if (!post_datagram(recv_buffer, static_cast<int>(size), task_fn))
                dropping = true;
            continue;
        }
        if (size == 0)
            return; // an empty datagram: nothing to post, the level-triggered loop calls again
        if (errno == EAGAIN || errno == EWOULDBLOCK)
            return;
        if (errno == ENOBUFS) {
            // The kernel lost events when the socket overran; what is still
            // queued is read normally, and the next pass repairs the rest.
            LR_LOG(2, "[lr] %s ENOBUFS drop detected, draining data...", name);
            continue;
        }
        LR_LOG(2, "[lr] %s recv error %d", name, errno);
        return;
    }
}

} // namespace

void nl_event_msg_free(nl_event_msg *msg) noexcept
{
    if (!msg)
        return;
    free(msg->buf);
    free(msg);
}

int set_nl_filter(int sock, uint32_t groups) noexcept
{
    if (groups != NL_GROUP_NEIGH)
        return 0;
    return set_nl_bpf_filter(sock);
}

int create_nl_event(int protocol, uint32_t groups, uloop_fd_handler cb, nl_event_socket *rec) noexcept
{
    rec->sock = socket(AF_NETLINK, SOCK_DGRAM | SOCK_CLOEXEC, protocol);
    if (rec->sock < 0) {
        LR_LOG(2, "[lr error]create nl socket error");
        return -1;
    }
    sockaddr_nl local{};
    local.nl_family = AF_NETLINK;
    local.nl_pid = 0; // the kernel gives the socket a free port id
    local.nl_groups = groups;
    // A failed filter only costs efficiency: the task checks the family.
    (void)set_nl_filter(rec->sock, groups);
    if (bind(rec->sock, reinterpret_cast<sockaddr *>(&local), sizeof(local)) < 0) {
        LR_LOG(2, "[lr error]bind nl socket error");
        close_socket(rec);
        return -1;
    }
    int flags = fcntl(rec->sock, F_GETFL);
    if (flags < 0 || fcntl(rec->sock, F_SETFL, flags | O_NONBLOCK) != 0) {
        LR_LOG(2, "[lr error]fcntl error");
        close_socket(rec);
        return -1;
    }
    rec->ufd.cb = cb;
    rec->ufd.fd = rec->sock;
    // Level-triggered: the loop calls again while data waits, and the error
    // flag brings the handler back after an overrun.
    if (uloop_fd_add(&rec->ufd, ULOOP_READ | ULOOP_ERROR_CB) != 0) {
        LR_LOG(2, "[lr error]uloop_fd_add error");
        close_socket(rec);
        return -1;
    }
    return 0;
}

void rtnl_event_handler(uloop_fd *ufd, unsigned int events) noexcept
{
    (void)events;
    LR_LOG(7, "[lr] rtnl_handler");
    drain_event_socket(ufd->fd, nl_neigh_handle, "rtnl");
}

void wlan_nl_event_handler(uloop_fd *ufd, unsigned int events) noexcept
{
    (void)events;
    LR_LOG(7, "[lr] wlan_nl_event_handler");
    drain_event_socket(ufd->fd, wlan_event_task, "wlan_nl");
}

namespace
{

// Asks the driver for the events of each radio member of "br-lan". The
// names are copied under wlan_lock and the driver is called without it.
int enable_lan_radios() noexcept
{
    char names[RADIO_LIST_ROWS][16] = {};
    int count = 0;
    {
        mutex_guard hold(wlan_lock);
        for (; count < lan_wlanif_num && count < RADIO_LIST_ROWS; count++)
            std::memcpy(names[count], lan_wlanif[count], sizeof(names[count]));
    }
    for (int i = 0; i < count; i++) {
        if (enable_assoc_event(names[i]) != 0) {
            LR_LOG(2, "[lr error] cant enable_assoc_event ifname=%s", names[i]);
            return -1;
        }
    }
    return 0;
}

} // namespace

int new_client_asscess_init() noexcept
{
    if (create_nl_event(NETLINK_ROUTE, NL_GROUP_NEIGH, rtnl_event_handler, &rtnl_event_socket) != 0)
        return -1;
    if (wlan_aware_init(&wlan_event_socket, wlan_nl_event_handler) != 0) {
        close_socket(&rtnl_event_socket);
        return -1;
    }
    if (enable_lan_radios() != 0) {
        close_event_sockets();
        return -1;
    }
    LR_LOG(7, "[lr] new_client_asscess_init completed");
    return 0;
}

void close_event_sockets() noexcept
{
    close_socket(&rtnl_event_socket);
    close_socket(&wlan_event_socket);
}
