/* Preloaded into the ARM daemon under qemu-user for the memory report only
 * (bench/target_report). qemu-user cannot translate a netlink RTM_GETNEIGH
 * request: send() fails with EOPNOTSUPP and the daemon's start-up scan then
 * waits for a dump that never comes. Here such a request is answered the way
 * the kernel answers it for an empty neighbour table: one NLMSG_DONE. Every
 * other call goes to the C library unchanged. */
#define _GNU_SOURCE
#include <dlfcn.h>
#include <errno.h>
#include <linux/netlink.h>
#include <linux/rtnetlink.h>
#include <string.h>
#include <sys/socket.h>
#include <sys/types.h>

ssize_t send(int fd, const void *buf, size_t len, int flags);
ssize_t recv(int fd, void *buf, size_t len, int flags);

/* A dump is asked and read on one thread. */
static __thread int pending_fd = -1;
static __thread __u32 pending_seq;

ssize_t send(int fd, const void *buf, size_t len, int flags)
{
	static ssize_t (*real_send)(int, const void *, size_t, int);
	if (!real_send)
		real_send = (ssize_t (*)(int, const void *, size_t, int)) dlsym(RTLD_NEXT, "send");
	ssize_t r = real_send(fd, buf, len, flags);
	if (r < 0 && errno == EOPNOTSUPP && len >= sizeof(struct nlmsghdr)) {
		struct nlmsghdr h;
		memcpy(&h, buf, sizeof(h));
		if (h.nlmsg_type == RTM_GETNEIGH) {
			pending_fd = fd;
			pending_seq = h.nlmsg_seq;
			return (ssize_t) len;
		}
	}
	return r;
}

ssize_t recv(int fd, void *buf, size_t len, int flags)
{
	static ssize_t (*real_recv)(int, void *, size_t, int);
	if (!real_recv)
		real_recv = (ssize_t (*)(int, void *, size_t, int)) dlsym(RTLD_NEXT, "recv");
	if (fd == pending_fd && len >= NLMSG_LENGTH(sizeof(int))) {
		struct nlmsghdr h = {0};
		pending_fd = -1;
		h.nlmsg_len = NLMSG_LENGTH(sizeof(int));
		h.nlmsg_type = NLMSG_DONE;
		h.nlmsg_flags = NLM_F_MULTI;
		h.nlmsg_seq = pending_seq;
		memset(buf, 0, h.nlmsg_len);
		memcpy(buf, &h, sizeof(h));
		return (ssize_t) h.nlmsg_len;
	}
	return real_recv(fd, buf, len, flags);
}
