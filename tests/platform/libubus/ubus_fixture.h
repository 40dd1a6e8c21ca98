// Test helpers: a private ubusd per test, and a thread that serves a bus
// connection without uloop (uloop belongs to the main thread).
#pragma once

// The libubox headers have no extern "C" of their own.
extern "C" {
#include <libubox/blobmsg_json.h>
#include <libubox/uloop.h>
#include <libubus.h>
}

#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <sys/eventfd.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <cstdlib>
#include <functional>
#include <string>
#include <thread>

#include <gtest/gtest.h>

#include "../../support/bus_daemon.h"

namespace ubus_test {

// Starts ubusd on a socket in a fresh directory and waits until the socket
// answers, so no test sleeps for start-up.
class Ubusd {
public:
	Ubusd()
	{
		char tmpl[] = "/tmp/ubus-test-XXXXXX";
		dir_ = mkdtemp(tmpl);
		path_ = dir_ + "/ubus.sock";
		start();
	}
	// Starts (again) on the same socket path.
	void start()
	{
		pid_ = lr_test::start_ubusd(path_.c_str());
		if (pid_ < 0)
			ADD_FAILURE() << "ubusd did not start (" << lr_test::ubusd_binary() << ")";
	}
	~Ubusd()
	{
		stop();
		unlink(path_.c_str());
		rmdir(dir_.c_str());
	}
	void stop()
	{
		if (pid_ > 0) {
			kill(pid_, SIGTERM);
			waitpid(pid_, nullptr, 0);
			pid_ = -1;
		}
	}
	const char *path() const { return path_.c_str(); }

private:
	std::string dir_, path_;
	pid_t pid_ = -1;
};

// Serves one context on its own thread with ubus_handle_event.
class Server {
public:
	explicit Server(ubus_context *ctx) : ctx_(ctx), wake_(eventfd(0, EFD_CLOEXEC)) {}
	~Server()
	{
		stop();
		close(wake_);
	}
	void start(std::function<void()> idle = {})
	{
		idle_ = std::move(idle);
		thread_ = std::thread([this] { loop(); });
	}
	void stop()
	{
		if (!thread_.joinable())
			return;
		stop_ = true;
		uint64_t one = 1;
		if (write(wake_, &one, sizeof(one)) < 0)
			std::abort();
		thread_.join();
	}

private:
	void loop()
	{
		while (!stop_) {
			pollfd p[2] = {{ctx_->sock.fd, POLLIN, 0}, {wake_, POLLIN, 0}};
			if (poll(p, 2, 20) < 0)
				break;
			if (p[0].revents)
				ubus_handle_event(ctx_);
			if (idle_)
				idle_();
			if (p[0].revents & (POLLHUP | POLLERR))
				break;
		}
	}
	ubus_context *ctx_;
	int wake_;
	std::atomic<bool> stop_{false};
	std::function<void()> idle_;
	std::thread thread_;
};

}  // namespace ubus_test
