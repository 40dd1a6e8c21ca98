/*
 * uloop.c - the event loop: epoll for descriptors, a sorted list of
 * timeouts, waitpid for child processes, and a self-pipe so that signal
 * handlers can wake a sleeping loop.
 *
 * Each iteration runs the expired timeouts, reaps children, then dispatches
 * ONE ready descriptor. Up to ULOOP_MAX_EVENTS readiness reports are fetched
 * at a time and handed out over the following iterations, so timeouts get
 * their turn between descriptor callbacks.
 */
#define _GNU_SOURCE
#include <libubox/uloop.h>
#include <libubox/utils.h>

#include <errno.h>
#include <fcntl.h>
#include <limits.h>
#include <string.h>
#include <sys/epoll.h>
#include <sys/wait.h>
#include <time.h>
#include <unistd.h>

#define ULOOP_MAX_EVENTS 10

struct uloop_fd_event {
	struct uloop_fd *fd;
	unsigned int events;
};

/* One entry per callback in progress, innermost first (nested uloop_run). */
struct uloop_fd_stack {
	struct uloop_fd_stack *next;
	struct uloop_fd *fd;
	unsigned int events;
};

bool uloop_cancelled = false;
bool uloop_handle_sigchld = true;
uloop_fd_handler uloop_fd_set_cb = NULL;

static int poll_fd = -1;
static int waker_pipe[2] = { -1, -1 };
static struct uloop_fd waker_fd;

static LIST_HEAD(timeouts);
static LIST_HEAD(processes);

static struct uloop_fd_event cur_fds[ULOOP_MAX_EVENTS];
static int cur_fd, cur_nfds;
static struct uloop_fd_stack *fd_stack;

static int uloop_run_depth;
static int uloop_status;
static volatile sig_atomic_t do_sigchld;

struct saved_signal {
	int signo;
	bool changed;
	struct sigaction old;
};

static struct saved_signal saved_signals[] = {
	{ .signo = SIGINT }, { .signo = SIGTERM }, { .signo = SIGCHLD }, { .signo = SIGPIPE },
};

static void
uloop_gettime(struct timeval *tv)
{
	struct timespec ts;

	clock_gettime(CLOCK_MONOTONIC, &ts);
	tv->tv_sec = ts.tv_sec;
	tv->tv_usec = ts.tv_nsec / 1000;
}

/* t1 - t2 in milliseconds. */
static int64_t
tv_diff(const struct timeval *t1, const struct timeval *t2)
{
	return (int64_t) (t1->tv_sec - t2->tv_sec) * 1000 +
	       (t1->tv_usec - t2->tv_usec) / 1000;
}

static void
waker_write(void)
{
	int saved = errno;
	ssize_t ret;

	do {
		ret = write(waker_pipe[1], "w", 1);
	} while (ret < 0 && errno == EINTR);
	errno = saved;
}

static void
waker_consume(struct uloop_fd *fd, unsigned int events)
{
	char buf[64];

	(void) events;
	while (read(fd->fd, buf, sizeof(buf)) > 0)
		;
}

static void
uloop_handle_stop(int signo)
{
	uloop_status = signo;
	uloop_cancelled = true;
	waker_write();
}

static void
uloop_sigchld(int signo)
{
	(void) signo;
	do_sigchld = 1;
	waker_write();
}

/*
 * Signals only take our handler while at the default action: a program
 * with its own SIGINT/SIGTERM handler keeps it and ends the loop itself,
 * and one with its own SIGCHLD handler reaps its children itself.
 */
static void
uloop_install_signal(struct saved_signal *s, void (*handler)(int))
{
	struct sigaction sa;

	if (sigaction(s->signo, NULL, &s->old) < 0)
		return;
	if ((s->old.sa_flags & SA_SIGINFO) || s->old.sa_handler != SIG_DFL)
		return;

	memset(&sa, 0, sizeof(sa));
	sa.sa_handler = handler;
	sigemptyset(&sa.sa_mask);
	sa.sa_flags = SA_RESTART;
	if (sigaction(s->signo, &sa, NULL) == 0)
		s->changed = true;
}

static void
uloop_setup_signals(void)
{
	size_t i;

	for (i = 0; i < ARRAY_SIZE(saved_signals); i++) {
		struct saved_signal *s = &saved_signals[i];

		s->changed = false;
		switch (s->signo) {
		case SIGINT:
		case SIGTERM:
			uloop_install_signal(s, uloop_handle_stop);
			break;
		case SIGCHLD:
			if (uloop_handle_sigchld)
				uloop_install_signal(s, uloop_sigchld);
			break;
		case SIGPIPE:
			uloop_install_signal(s, SIG_IGN);
			break;
		default:
			break;
		}
	}
}

static void
uloop_restore_signals(void)
{
	size_t i;

	for (i = 0; i < ARRAY_SIZE(saved_signals); i++) {
		struct saved_signal *s = &saved_signals[i];

		if (s->changed)
			sigaction(s->signo, &s->old, NULL);
		s->changed = false;
	}
}

static void
close_fd(int *fd)
{
	if (*fd >= 0)
		close(*fd);
	*fd = -1;
}

int
uloop_init(void)
{
	if (poll_fd >= 0)
		return 0;

	poll_fd = epoll_create1(EPOLL_CLOEXEC);
	if (poll_fd < 0)
		return -1;

	if (pipe2(waker_pipe, O_CLOEXEC | O_NONBLOCK) < 0) {
		close_fd(&poll_fd);
		return -1;
	}

	memset(&waker_fd, 0, sizeof(waker_fd));
	waker_fd.fd = waker_pipe[0];
	waker_fd.cb = waker_consume;
	if (uloop_fd_add(&waker_fd, ULOOP_READ) < 0) {
		close_fd(&waker_pipe[0]);
		close_fd(&waker_pipe[1]);
		close_fd(&poll_fd);
		return -1;
	}

	uloop_setup_signals();
	return 0;
}

/* Drops fetched-but-undispatched events for fd, and any buffered ones. */
static void
uloop_forget_events(struct uloop_fd *fd)
{
	struct uloop_fd_stack *cur;
	int i;

	for (i = cur_fd; i < cur_fd + cur_nfds && i < ULOOP_MAX_EVENTS; i++) {
		if (cur_fds[i].fd == fd)
			cur_fds[i].fd = NULL;
	}
	for (cur = fd_stack; cur; cur = cur->next) {
		if (cur->fd == fd)
			cur->fd = NULL;
	}
}

int
uloop_fd_delete(struct uloop_fd *fd)
{
	int ret = 0;

	uloop_forget_events(fd);
	if (!fd->registered)
		return 0;

	if (uloop_fd_set_cb)
		uloop_fd_set_cb(fd, 0);

	fd->registered = false;
	fd->flags = 0;
	if (poll_fd >= 0)
		ret = epoll_ctl(poll_fd, EPOLL_CTL_DEL, fd->fd, NULL);
	return ret;
}

int
uloop_fd_add(struct uloop_fd *sock, unsigned int flags)
{
	struct epoll_event ev;
	int ret;

	if (!(flags & (ULOOP_READ | ULOOP_WRITE)))
		return uloop_fd_delete(sock);

	if (!sock->registered && !(flags & ULOOP_BLOCKING)) {
		int fl = fcntl(sock->fd, F_GETFL, 0);

		if (fl >= 0 && !(fl & O_NONBLOCK))
			fcntl(sock->fd, F_SETFL, fl | O_NONBLOCK);
	}

	memset(&ev, 0, sizeof(ev));
	if (flags & ULOOP_READ)
		ev.events |= EPOLLIN | EPOLLRDHUP;
	if (flags & ULOOP_WRITE)
		ev.events |= EPOLLOUT;
	if (flags & ULOOP_EDGE_TRIGGER)
		ev.events |= EPOLLET;
	ev.data.ptr = sock;

	ret = epoll_ctl(poll_fd, sock->registered ? EPOLL_CTL_MOD : EPOLL_CTL_ADD, sock->fd, &ev);
	/* registered with a loop that uloop_done() closed since */
	if (ret < 0 && sock->registered && errno == ENOENT)
		ret = epoll_ctl(poll_fd, EPOLL_CTL_ADD, sock->fd, &ev);
	if (ret < 0)
		return -1;

	sock->flags = (uint8_t) flags;
	sock->registered = true;
	sock->eof = false;
	sock->error = false;

	if (uloop_fd_set_cb)
		uloop_fd_set_cb(sock, flags);
	return 0;
}

static void
uloop_fetch_events(int timeout)
{
	struct epoll_event events[ULOOP_MAX_EVENTS];
	int n, i;

	n = epoll_wait(poll_fd, events, ULOOP_MAX_EVENTS, timeout);
	cur_fd = 0;
	cur_nfds = 0;
	for (i = 0; i < n; i++) {
		struct uloop_fd *u = events[i].data.ptr;
		uint32_t e = events[i].events;
		unsigned int ev = 0;

		if (e & (EPOLLERR | EPOLLHUP)) {
			u->error = true;
			/* without ERROR_CB the fd is dropped now and told once below */
			if (!(u->flags & ULOOP_ERROR_CB))
				uloop_fd_delete(u);
		}
		if (!(e & (EPOLLRDHUP | EPOLLIN | EPOLLOUT | EPOLLERR | EPOLLHUP)))
			continue;
		if (e & EPOLLRDHUP)
			u->eof = true;
		if (e & EPOLLIN)
			ev |= ULOOP_READ;
		if (e & EPOLLOUT)
			ev |= ULOOP_WRITE;

		cur_fds[cur_nfds].fd = u;
		cur_fds[cur_nfds].events = ev;
		cur_nfds++;
	}
}

/*
 * An edge-triggered fd whose callback is already running (we are in a
 * nested loop) gets its event recorded for that callback to repeat.
 */
static bool
uloop_buffer_event(struct uloop_fd *fd, unsigned int events)
{
	struct uloop_fd_stack *cur;

	if (!(fd->flags & ULOOP_EDGE_TRIGGER))
		return false;

	for (cur = fd_stack; cur; cur = cur->next) {
		if (cur->fd != fd)
			continue;
		cur->events |= events | ULOOP_EVENT_BUFFERED;
		return true;
	}
	return false;
}

static void
uloop_run_events(int timeout)
{
	if (!cur_nfds)
		uloop_fetch_events(timeout);

	while (cur_nfds > 0) {
		struct uloop_fd_event *cur = &cur_fds[cur_fd++];
		struct uloop_fd_stack stack_cur;
		struct uloop_fd *fd = cur->fd;
		unsigned int events = cur->events;

		cur_nfds--;
		if (!fd)
			continue;
		if (uloop_buffer_event(fd, events))
			continue;

		stack_cur.next = fd_stack;
		stack_cur.fd = fd;
		fd_stack = &stack_cur;
		do {
			stack_cur.events = 0;
			if (fd->cb)
				fd->cb(fd, events);
			events = stack_cur.events & ULOOP_EVENT_MASK;
		} while (stack_cur.fd && (stack_cur.events & ULOOP_EVENT_BUFFERED));
		fd_stack = stack_cur.next;
		return;
	}
}

int
uloop_timeout_add(struct uloop_timeout *timeout)
{
	struct uloop_timeout *tmp;
	struct list_head *h = &timeouts;

	if (timeout->pending)
		return -1;

	/* after every timeout due no later: same-time timeouts keep arming order */
	list_for_each_entry(tmp, &timeouts, list) {
		if (tv_diff(&tmp->time, &timeout->time) > 0) {
			h = &tmp->list;
			break;
		}
	}

	list_add_tail(&timeout->list, h);
	timeout->pending = true;
	return 0;
}

int
uloop_timeout_set(struct uloop_timeout *timeout, int msecs)
{
	struct timeval *time = &timeout->time;

	if (timeout->pending)
		uloop_timeout_cancel(timeout);

	uloop_gettime(time);
	time->tv_sec += msecs / 1000;
	time->tv_usec += (msecs % 1000) * 1000;
	if (time->tv_usec >= 1000000) {
		time->tv_sec++;
		time->tv_usec -= 1000000;
	} else if (time->tv_usec < 0) {
		time->tv_sec--;
		time->tv_usec += 1000000;
	}

	return uloop_timeout_add(timeout);
}

int
uloop_timeout_cancel(struct uloop_timeout *timeout)
{
	if (!timeout->pending)
		return -1;

	list_del(&timeout->list);
	timeout->pending = false;
	return 0;
}

int64_t
uloop_timeout_remaining64(struct uloop_timeout *timeout)
{
	struct timeval now;

	if (!timeout->pending)
		return -1;

	uloop_gettime(&now);
	return tv_diff(&timeout->time, &now);
}

int
uloop_timeout_remaining(struct uloop_timeout *timeout)
{
	int64_t td = uloop_timeout_remaining64(timeout);

	if (td > INT_MAX)
		return INT_MAX;
	if (td < INT_MIN)
		return INT_MIN;
	return (int) td;
}

int
uloop_get_next_timeout(void)
{
	struct uloop_timeout *first;
	struct timeval now;
	int64_t diff;

	if (list_empty(&timeouts))
		return -1;

	uloop_gettime(&now);
	first = list_first_entry(&timeouts, struct uloop_timeout, list);
	diff = tv_diff(&first->time, &now);
	if (diff < 0)
		return 0;
	if (diff > INT_MAX)
		return INT_MAX;
	return (int) diff;
}

static void
uloop_process_timeouts(void)
{
	struct timeval now;

	uloop_gettime(&now);
	while (!list_empty(&timeouts)) {
		struct uloop_timeout *t =
			list_first_entry(&timeouts, struct uloop_timeout, list);

		if (tv_diff(&t->time, &now) > 0)
			break;

		uloop_timeout_cancel(t);
		if (t->cb)
			t->cb(t);
	}
}

int
uloop_process_add(struct uloop_process *p)
{
	struct uloop_process *tmp;
	struct list_head *h = &processes;

	if (p->pending)
		return -1;

	list_for_each_entry(tmp, &processes, list) {
		if (tmp->pid > p->pid) {
			h = &tmp->list;
			break;
		}
	}

	list_add_tail(&p->list, h);
	p->pending = true;
	return 0;
}

int
uloop_process_delete(struct uloop_process *p)
{
	if (!p->pending)
		return -1;

	list_del(&p->list);
	p->pending = false;
	return 0;
}

static void
uloop_handle_processes(void)
{
	do_sigchld = 0;

	for (;;) {
		struct uloop_process *p, *tmp;
		int status;
		pid_t pid = waitpid(-1, &status, WNOHANG);

		if (pid < 0 && errno == EINTR)
			continue;
		if (pid <= 0)
			return;

		list_for_each_entry_safe(p, tmp, &processes, list) {
			if (p->pid < pid)
				continue;
			if (p->pid > pid)
				break;

			uloop_process_delete(p);
			if (p->cb)
				p->cb(p, status);
		}
	}
}

bool
uloop_cancelling(void)
{
	return uloop_run_depth > 0 && uloop_cancelled;
}

int
uloop_run_timeout(int timeout)
{
	int next_time;

	uloop_run_depth++;
	uloop_status = 0;
	uloop_cancelled = false;

	do {
		uloop_process_timeouts();

		if (do_sigchld)
			uloop_handle_processes();

		if (uloop_cancelled)
			break;

		next_time = uloop_get_next_timeout();
		if (timeout >= 0 && (next_time < 0 || timeout < next_time))
			next_time = timeout;
		uloop_run_events(next_time);
	} while (!uloop_cancelled && timeout < 0);

	--uloop_run_depth;
	return uloop_status;
}

void
uloop_done(void)
{
	uloop_restore_signals();

	if (waker_fd.registered)
		uloop_fd_delete(&waker_fd);
	close_fd(&poll_fd);
	close_fd(&waker_pipe[0]);
	close_fd(&waker_pipe[1]);
	cur_fd = 0;
	cur_nfds = 0;

	while (!list_empty(&timeouts))
		uloop_timeout_cancel(list_first_entry(&timeouts, struct uloop_timeout, list));
	while (!list_empty(&processes))
		uloop_process_delete(list_first_entry(&processes, struct uloop_process, list));
}
