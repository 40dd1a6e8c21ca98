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

#include "core/log.h"
#include "core/threadpool.h"
#include "events/neigh_event.h"

nl_event_socket rtnl_event_socket = {.sock = -1, .ufd = {}};

namespace
{

// Both handlers run on the uloop thread only, so one buffer does.
uint8_t recv_buffer[NL_RECV_BUF_SIZE];

// The driver's association socket comes with the radio drivers; not in yet.
int wlan_event_intake_init() noexcept
{
    return 0;
}

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
bool post_datagram(const uint8_t *data, int size) noexcept
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
    task->fn = nl_neigh_handle;
    task->arg = msg;
    task->next = nullptr;
    // A full queue turns the task away and frees the record; the copy is
    // still ours. This is no reason for drop mode: the next one may fit.
    if (threadpool_add_task(task, thread_pool) != 0)
        nl_event_msg_free(msg);
    return true;
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
    bool dropping = false;
    for (;;) {
        std::memset(recv_buffer, 0, sizeof(recv_buffer));
        sockaddr_nl source{};
        socklen_t source_len = sizeof(source);
        ssize_t size = recvfrom(ufd->fd, recv_buffer, sizeof(recv_buffer), MSG_DONTWAIT,
                                reinterpret_cast<sockaddr *>(&source), &source_len);
        if (size > 0) {
            if (dropping)
                continue;
            if (!post_datagram(recv_buffer, static_cast<int>(size)))
                dropping = true;
            continue;
        }
        if (size == 0)
            return; // nothing a kernel sends; the level-triggered loop calls again
        if (errno == EAGAIN || errno == EWOULDBLOCK)
            return;
        if (errno == ENOBUFS) {
            // The kernel lost events when the socket overran; what is still
            // queued is read normally, and the next pass repairs the rest.
            LR_LOG(2, "[lr] rtnl ENOBUFS drop detected, draining data...");
            continue;
        }
        LR_LOG(2, "[lr] rtnl recv error %d", errno);
        return;
    }
}

int new_client_asscess_init() noexcept
{
    if (create_nl_event(NETLINK_ROUTE, NL_GROUP_NEIGH, rtnl_event_handler, &rtnl_event_socket) != 0)
        return -1;
    if (wlan_event_intake_init() != 0) {
        close_socket(&rtnl_event_socket);
        return -1;
    }
    LR_LOG(7, "[lr] new_client_asscess_init completed");
    return 0;
}

void close_event_sockets() noexcept
{
    close_socket(&rtnl_event_socket);
}
