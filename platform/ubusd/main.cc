// ubusd: the bus daemon. One Unix stream socket, many clients; all routing
// is done by the Broker, this file only moves bytes between sockets and it.
#include <fcntl.h>
#include <grp.h>
#include <pwd.h>
#include <signal.h>
#include <sys/epoll.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <unordered_map>

#include "broker.h"

namespace {

volatile sig_atomic_t g_stop = 0;

void on_signal(int) { g_stop = 1; }

class Fd {
public:
	explicit Fd(int fd = -1) : fd_(fd) {}
	~Fd() { if (fd_ >= 0) close(fd_); }
	Fd(const Fd &) = delete;
	Fd &operator=(const Fd &) = delete;
	int get() const { return fd_; }
private:
	int fd_;
};

struct Server {
	ubusd::Broker broker;
	int ep = -1;
	int listen_fd = -1;
	int spare_fd = -1;  // kept for refusing connections when out of descriptors
	std::unordered_map<uint32_t, int> fds;          // client id -> socket
	std::unordered_map<uint32_t, bool> want_write;  // EPOLLOUT armed
};

std::string user_of(uid_t uid)
{
	char buf[1024];
	passwd pw{}, *res = nullptr;
	if (getpwuid_r(uid, &pw, buf, sizeof(buf), &res) == 0 && res)
		return pw.pw_name;
	return std::to_string(uid);
}

std::string group_of(gid_t gid)
{
	char buf[1024];
	group gr{}, *res = nullptr;
	if (getgrgid_r(gid, &gr, buf, sizeof(buf), &res) == 0 && res)
		return gr.gr_name;
	return std::to_string(gid);
}

void set_events(Server &s, uint32_t id, bool write)
{
	auto fd = s.fds.find(id);
	if (fd == s.fds.end() || s.want_write[id] == write)
		return;
	epoll_event ev{};
	ev.events = EPOLLIN | (write ? uint32_t{EPOLLOUT} : 0u);
	ev.data.u64 = id;
	epoll_ctl(s.ep, EPOLL_CTL_MOD, fd->second, &ev);
	s.want_write[id] = write;
}

void drop_client(Server &s, uint32_t id)
{
	auto fd = s.fds.find(id);
	if (fd != s.fds.end()) {
		epoll_ctl(s.ep, EPOLL_CTL_DEL, fd->second, nullptr);
		close(fd->second);
		s.fds.erase(fd);
	}
	s.want_write.erase(id);
	s.broker.remove_client(id);
}

// Writes what the socket takes now; the rest waits for EPOLLOUT.
bool flush_client(Server &s, uint32_t id)
{
	ubusd::Client *cl = s.broker.client(id);
	auto fd = s.fds.find(id);
	if (!cl || fd == s.fds.end())
		return true;
	while (!cl->out.empty()) {
		const std::vector<uint8_t> &f = cl->out.front();
		ssize_t n = send(fd->second, f.data() + cl->out_off, f.size() - cl->out_off,
				 MSG_NOSIGNAL | MSG_DONTWAIT);
		if (n < 0) {
			if (errno == EINTR)
				continue;
			if (errno == EAGAIN || errno == EWOULDBLOCK)
				break;
			return false;
		}
		cl->out_off += static_cast<size_t>(n);
		if (cl->out_off == f.size()) {
			cl->out_bytes -= f.size();
			cl->out_off = 0;
			cl->out.pop_front();
		}
	}
	set_events(s, id, !cl->out.empty());
	return true;
}

// After any input: write to everyone who got output, close the doomed.
void settle(Server &s)
{
	for (;;) {
		std::vector<uint32_t> doomed = s.broker.take_doomed();
		for (uint32_t id : s.broker.take_dirty())
			if (!flush_client(s, id))
				doomed.push_back(id);
		if (doomed.empty())
			return;
		for (uint32_t id : doomed)
			drop_client(s, id);
	}
}

// Out of descriptors, a pending connection would keep the listening socket
// readable and the loop spinning: give up the spare descriptor, take the
// connection and close it at once.
void refuse_one(Server &s)
{
	close(s.spare_fd);
	int fd = accept4(s.listen_fd, nullptr, nullptr, SOCK_CLOEXEC);
	if (fd >= 0)
		close(fd);
	s.spare_fd = open("/dev/null", O_RDONLY | O_CLOEXEC);
}

void accept_clients(Server &s)
{
	for (;;) {
		int fd = accept4(s.listen_fd, nullptr, nullptr, SOCK_NONBLOCK | SOCK_CLOEXEC);
		if (fd < 0 && (errno == EMFILE || errno == ENFILE) && s.spare_fd >= 0) {
			refuse_one(s);
			continue;
		}
		if (fd < 0)
			return;
		ucred cred{};
		socklen_t len = sizeof(cred);
		std::string user = "root", group = "root";
		if (getsockopt(fd, SOL_SOCKET, SO_PEERCRED, &cred, &len) == 0) {
			user = user_of(cred.uid);
			group = group_of(cred.gid);
		}
		uint32_t id = s.broker.add_client(std::move(user), std::move(group));
		epoll_event ev{};
		ev.events = EPOLLIN;
		ev.data.u64 = id;
		if (epoll_ctl(s.ep, EPOLL_CTL_ADD, fd, &ev) < 0) {
			close(fd);
			s.broker.remove_client(id);
			continue;
		}
		s.fds[id] = fd;
		s.want_write[id] = false;
	}
}

void read_client(Server &s, uint32_t id)
{
	auto fd = s.fds.find(id);
	if (fd == s.fds.end())
		return;
	uint8_t buf[65536];
	ssize_t n = read(fd->second, buf, sizeof(buf));
	if (n < 0 && (errno == EAGAIN || errno == EINTR))
		return;
	if (n <= 0 || !s.broker.on_input(id, {buf, static_cast<size_t>(n)}))
		drop_client(s, id);
}

int open_socket(const char *path)
{
	sockaddr_un addr{};
	addr.sun_family = AF_UNIX;
	if (std::strlen(path) >= sizeof(addr.sun_path)) {
		std::fprintf(stderr, "Socket path too long: %s\n", path);
		return -1;
	}
	std::strcpy(addr.sun_path, path);
	int fd = socket(AF_UNIX, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0);
	if (fd < 0)
		return -1;
	unlink(path);  // a stale socket of an earlier run
	if (bind(fd, reinterpret_cast<sockaddr *>(&addr), sizeof(addr)) < 0 || listen(fd, 64) < 0) {
		std::fprintf(stderr, "Failed to bind %s: %s\n", path, std::strerror(errno));
		close(fd);
		return -1;
	}
	return fd;
}

void usage(const char *prog)
{
	std::fprintf(stderr, "Usage: %s [<options>]\n"
		     "Options:\n"
		     "  -A <path>:\t\tSet the path to ACL files\n"
		     "  -s <socket>:\t\tSet the unix domain socket to listen on\n"
		     "\n", prog);
}

void install_signals()
{
	struct sigaction sa{};
	sa.sa_handler = on_signal;
	sigaction(SIGINT, &sa, nullptr);
	sigaction(SIGTERM, &sa, nullptr);
	signal(SIGPIPE, SIG_IGN);
}

int run(Server &s)
{
	epoll_event events[32];
	while (!g_stop) {
		int n = epoll_wait(s.ep, events, 32, -1);
		if (n < 0 && errno != EINTR)
			return 1;
		for (int i = 0; i < n; i++) {
			uint64_t id = events[i].data.u64;
			if (id == 0) {
				accept_clients(s);
			} else {
				if (events[i].events & (EPOLLIN | EPOLLHUP | EPOLLERR))
					read_client(s, static_cast<uint32_t>(id));
				if ((events[i].events & EPOLLOUT) && !flush_client(s, static_cast<uint32_t>(id)))
					drop_client(s, static_cast<uint32_t>(id));
			}
			settle(s);
		}
	}
	return 0;
}

}  // namespace

int main(int argc, char **argv)
{
	const char *path = "/var/run/ubus.sock";
	int ch;
	// Only the router's ubusd options: callers see readiness by connecting.
	while ((ch = getopt(argc, argv, "A:s:")) != -1) {
		switch (ch) {
		case 'A':
			break;  // every client may do everything: there is no ACL
		case 's':
			path = optarg;
			break;
		default:
			usage(argv[0]);
			return 1;
		}
	}
	install_signals();
	Server s;
	Fd ep(epoll_create1(EPOLL_CLOEXEC));
	Fd lfd(open_socket(path));
	if (ep.get() < 0 || lfd.get() < 0)
		return 1;
	s.ep = ep.get();
	s.listen_fd = lfd.get();
	s.spare_fd = open("/dev/null", O_RDONLY | O_CLOEXEC);
	epoll_event ev{};
	ev.events = EPOLLIN;
	ev.data.u64 = 0;
	epoll_ctl(s.ep, EPOLL_CTL_ADD, s.listen_fd, &ev);
	int ret = run(s);
	for (auto &[id, fd] : s.fds)
		close(fd);
	unlink(path);
	return ret;
}
