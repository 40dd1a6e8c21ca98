// Round trips of ubus_invoke through a private ubusd: calls per second and
// the 50th and 99th percentile, for one caller and for several at once.
//   build/bench/ubus_bench [calls-per-caller] [callers]
extern "C" {
#include <libubus.h>
}

#include <poll.h>
#include <signal.h>
#include <sys/eventfd.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <string>
#include <thread>
#include <vector>

#include "../../tests/support/bus_daemon.h"

namespace {

using Clock = std::chrono::steady_clock;

blob_buf reply;

int h_echo(ubus_context *ctx, ubus_object *, ubus_request_data *req, const char *, blob_attr *msg)
{
	blob_buf_init(&reply, 0);
	blob_attr *a;
	size_t rem;
	blob_for_each_attr(a, msg, rem)
		blobmsg_add_blob(&reply, a);
	ubus_send_reply(ctx, req, reply.head);
	return 0;
}

const ubus_method methods[] = {UBUS_METHOD_NOARG("echo", h_echo)};
ubus_object_type type = UBUS_OBJECT_TYPE("bench", methods);
ubus_object object;

pid_t start_ubusd(const std::string &path)
{
	return lr_test::start_ubusd(path.c_str());
}

void run_round(const char *path, int callers, int calls)
{
	std::vector<std::vector<double>> lat(static_cast<size_t>(callers));
	std::vector<std::thread> threads;
	std::atomic<int> failures{0};
	auto t0 = Clock::now();
	for (int c = 0; c < callers; c++) {
		threads.emplace_back([&, c] {
			ubus_context *ctx = ubus_connect(path);
			if (!ctx) {
				failures += calls;
				return;
			}
			blob_buf b{};
			blob_buf_init(&b, 0);
			blobmsg_add_string(&b, "mac", "AA-BB-CC-DD-EE-FF");
			blobmsg_add_u32(&b, "request_type", 1);
			auto &mine = lat[static_cast<size_t>(c)];
			mine.reserve(static_cast<size_t>(calls));
			for (int i = 0; i < calls; i++) {
				auto s = Clock::now();
				if (ubus_invoke(ctx, object.id, "echo", b.head, nullptr, nullptr, 5000))
					failures++;
				mine.push_back(std::chrono::duration<double, std::micro>(Clock::now() - s).count());
			}
			blob_buf_free(&b);
			ubus_free(ctx);
		});
	}
	for (auto &t : threads)
		t.join();
	double secs = std::chrono::duration<double>(Clock::now() - t0).count();
	std::vector<double> all;
	for (auto &v : lat)
		all.insert(all.end(), v.begin(), v.end());
	std::sort(all.begin(), all.end());
	auto pct = [&](double p) { return all.empty() ? 0.0 : all[static_cast<size_t>(p * static_cast<double>(all.size() - 1))]; };
	std::printf("callers=%d calls=%zu failures=%d  %.0f calls/s  p50=%.1f us  p99=%.1f us\n",
		    callers, all.size(), failures.load(), static_cast<double>(all.size()) / secs, pct(0.50), pct(0.99));
}

}  // namespace

int main(int argc, char **argv)
{
	int calls = argc > 1 ? std::atoi(argv[1]) : 20000;
	int callers = argc > 2 ? std::atoi(argv[2]) : 4;
	char tmpl[] = "/tmp/ubus-bench-XXXXXX";
	std::string dir = mkdtemp(tmpl);
	std::string path = dir + "/ubus.sock";
	pid_t daemon = start_ubusd(path);
	if (daemon < 0) {
		std::fprintf(stderr, "ubus_bench: ubusd did not start\n");
		return 1;
	}
	ubus_context *owner = ubus_connect(path.c_str());
	object.name = "bench";
	object.type = &type;
	object.methods = methods;
	object.n_methods = 1;
	if (!owner || ubus_add_object(owner, &object)) {
		std::fprintf(stderr, "ubus_bench: cannot publish the object\n");
		return 1;
	}
	// The owner is served on its own thread, as a daemon's loop would.
	int stop = eventfd(0, 0);
	std::thread server([&] {
		for (;;) {
			pollfd p[2] = {{owner->sock.fd, POLLIN, 0}, {stop, POLLIN, 0}};
			if (poll(p, 2, -1) < 0 || p[1].revents)
				break;
			ubus_handle_event(owner);
		}
	});
	run_round(path.c_str(), 1, calls);
	run_round(path.c_str(), callers, calls / callers);
	uint64_t one = 1;
	if (write(stop, &one, sizeof(one)) < 0)
		return 1;
	server.join();
	ubus_free(owner);
	blob_buf_free(&reply);
	kill(daemon, SIGTERM);
	waitpid(daemon, nullptr, 0);
	rmdir(dir.c_str());
	return 0;
}
