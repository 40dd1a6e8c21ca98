// libubus against a real ubusd: objects, calls, replies, status codes,
// time-outs, events, lookups, lost connections and many callers at once.
#include "ubus_fixture.h"

#include <sys/socket.h>
#include <sys/un.h>

#include <chrono>
#include <cstring>
#include <mutex>
#include <string>
#include <vector>

using ubus_test::Server;
using ubus_test::Ubusd;

namespace {

enum { ECHO_NAME, ECHO_NUM, __ECHO_MAX };
const blobmsg_policy echo_policy[] = {
	{"name", BLOBMSG_TYPE_STRING},
	{"num", BLOBMSG_TYPE_INT32},
};

blob_buf g_reply;             // used on the server thread only
ubus_request_data g_deferred;  // a call parked by "park"
std::atomic<bool> g_have_deferred{false};

int h_echo(ubus_context *ctx, ubus_object *, ubus_request_data *req, const char *method, blob_attr *msg)
{
	// The message is the bare data attribute: id 7, no name header.
	if (blob_id(msg) != UBUS_ATTR_DATA || blob_is_extended(msg))
		return UBUS_STATUS_UNKNOWN_ERROR;
	blob_attr *tb[__ECHO_MAX];
	blobmsg_parse(echo_policy, __ECHO_MAX, tb, blob_data(msg), blob_len(msg));
	blob_buf_init(&g_reply, 0);
	blobmsg_add_string(&g_reply, "method", method);
	if (tb[ECHO_NAME])
		blobmsg_add_string(&g_reply, "name", blobmsg_get_string(tb[ECHO_NAME]));
	if (tb[ECHO_NUM])
		blobmsg_add_u32(&g_reply, "num", blobmsg_get_u32(tb[ECHO_NUM]));
	ubus_send_reply(ctx, req, g_reply.head);
	return 0;
}

int h_status(ubus_context *, ubus_object *, ubus_request_data *, const char *, blob_attr *)
{
	return UBUS_STATUS_NO_DATA;
}

int h_twice(ubus_context *ctx, ubus_object *, ubus_request_data *req, const char *, blob_attr *)
{
	blob_buf_init(&g_reply, 0);
	blobmsg_add_u32(&g_reply, "n", 1);
	ubus_send_reply(ctx, req, g_reply.head);
	blob_buf_init(&g_reply, 0);
	blobmsg_add_u32(&g_reply, "n", 2);
	ubus_send_reply(ctx, req, g_reply.head);
	return UBUS_STATUS_PERMISSION_DENIED;
}

int h_park(ubus_context *ctx, ubus_object *, ubus_request_data *req, const char *, blob_attr *)
{
	ubus_defer_request(ctx, req, &g_deferred);
	g_have_deferred = true;
	return 0;
}

int h_any(ubus_context *ctx, ubus_object *, ubus_request_data *req, const char *method, blob_attr *)
{
	blob_buf_init(&g_reply, 0);
	blobmsg_add_string(&g_reply, "caught", method);
	ubus_send_reply(ctx, req, g_reply.head);
	return 0;
}

const ubus_method test_methods[] = {
	UBUS_METHOD("echo", h_echo, echo_policy),
	UBUS_METHOD_NOARG("status", h_status),
	UBUS_METHOD_NOARG("twice", h_twice),
	UBUS_METHOD_NOARG("park", h_park),
};
ubus_object_type test_type = UBUS_OBJECT_TYPE("test", test_methods);

const ubus_method any_methods[] = {{nullptr, h_any, 0, 0, nullptr, 0}};
ubus_object_type any_type = UBUS_OBJECT_TYPE("any", any_methods);

// Type ids are cached in the (writable) type; every test has its own daemon.
void fresh_types()
{
	test_type.id = 0;
	any_type.id = 0;
}

ubus_object make_object(const char *name, ubus_object_type *type)
{
	ubus_object o{};
	o.name = name;
	o.type = type;
	o.methods = type->methods;
	o.n_methods = type->n_methods;
	return o;
}

// Collects the replies of one call as compact JSON.
void collect(ubus_request *req, int type, blob_attr *msg)
{
	auto *out = static_cast<std::vector<std::string> *>(req->priv);
	EXPECT_EQ(type, UBUS_MSG_DATA);
	EXPECT_EQ(blob_id(msg), UBUS_ATTR_DATA);
	char *s = blobmsg_format_json(msg, true);
	out->push_back(s ? s : "(null)");
	free(s);
}

class LibubusTest : public ::testing::Test {
protected:
	void SetUp() override
	{
		fresh_types();
		owner_ = ubus_connect(bus_.path());
		caller_ = ubus_connect(bus_.path());
		ASSERT_NE(owner_, nullptr);
		ASSERT_NE(caller_, nullptr);
		obj_ = make_object("test", &test_type);
		ASSERT_EQ(ubus_add_object(owner_, &obj_), 0);
		server_ = std::make_unique<Server>(owner_);
	}
	void TearDown() override
	{
		server_.reset();
		ubus_free(caller_);
		ubus_free(owner_);
		blob_buf_free(&b_);
	}
	int call(const char *method, const char *json, std::vector<std::string> *out, int timeout = 5000)
	{
		blob_buf_init(&b_, 0);
		if (json) {
			EXPECT_TRUE(blobmsg_add_json_from_string(&b_, json));
		}
		return ubus_invoke(caller_, obj_.id, method, b_.head, collect, out, timeout);
	}

	Ubusd bus_;
	ubus_context *owner_ = nullptr, *caller_ = nullptr;
	ubus_object obj_{};
	std::unique_ptr<Server> server_;
	blob_buf b_{};
};

}  // namespace

TEST(LibubusConnect, HelloGivesAnId)
{
	Ubusd bus;
	ubus_context *ctx = ubus_connect(bus.path());
	ASSERT_NE(ctx, nullptr);
	EXPECT_GE(ctx->local_id, 1024u);
	ubus_free(ctx);
}

TEST(LibubusConnect, NoDaemonGivesNull)
{
	EXPECT_EQ(ubus_connect("/nonexistent/ubus.sock"), nullptr);
}

TEST(LibubusStrerror, TextsAndUnknown)
{
	EXPECT_STREQ(ubus_strerror(0), "Success");
	EXPECT_STREQ(ubus_strerror(UBUS_STATUS_TIMEOUT), "Request timed out");
	EXPECT_STREQ(ubus_strerror(UBUS_STATUS_PARSE_ERROR), "Parsing message data failed");
	EXPECT_STREQ(ubus_strerror(13), "System error");
	EXPECT_STREQ(ubus_strerror(14), "Unknown error: 14");
	EXPECT_STREQ(ubus_strerror(-1), "Unknown error: -1");
}

TEST_F(LibubusTest, AddObjectSetsIds)
{
	EXPECT_GE(obj_.id, 1024u);
	EXPECT_GE(test_type.id, 1024u);
}

TEST_F(LibubusTest, CallWithReply)
{
	server_->start();
	std::vector<std::string> out;
	EXPECT_EQ(call("echo", R"({"name":"x","num":7})", &out), 0);
	ASSERT_EQ(out.size(), 1u);
	EXPECT_EQ(out[0], R"({"method":"echo","name":"x","num":7})");
}

TEST_F(LibubusTest, PolicyIsNotEnforced)
{
	server_->start();
	std::vector<std::string> out;
	EXPECT_EQ(call("echo", R"({"name":5})", &out), 0);
	ASSERT_EQ(out.size(), 1u);
	EXPECT_EQ(out[0], R"({"method":"echo"})");
}

TEST_F(LibubusTest, StatusWithoutData)
{
	server_->start();
	std::vector<std::string> out;
	EXPECT_EQ(call("status", nullptr, &out), UBUS_STATUS_NO_DATA);
	EXPECT_TRUE(out.empty());
}

TEST_F(LibubusTest, DataRepliesComeBeforeStatus)
{
	server_->start();
	std::vector<std::string> out;
	EXPECT_EQ(call("twice", nullptr, &out), UBUS_STATUS_PERMISSION_DENIED);
	ASSERT_EQ(out.size(), 2u);
	EXPECT_EQ(out[0], R"({"n":1})");
	EXPECT_EQ(out[1], R"({"n":2})");
}

TEST_F(LibubusTest, UnknownMethodAndObject)
{
	server_->start();
	std::vector<std::string> out;
	EXPECT_EQ(call("nosuch", nullptr, &out), UBUS_STATUS_METHOD_NOT_FOUND);
	blob_buf_init(&b_, 0);
	EXPECT_EQ(ubus_invoke(caller_, 4242, "echo", b_.head, nullptr, nullptr, 1000), UBUS_STATUS_NOT_FOUND);
}

TEST_F(LibubusTest, CatchAllMethod)
{
	ubus_object any = make_object("any", &any_type);
	ASSERT_EQ(ubus_add_object(owner_, &any), 0);
	server_->start();
	std::vector<std::string> out;
	blob_buf_init(&b_, 0);
	EXPECT_EQ(ubus_invoke(caller_, any.id, "whatever", b_.head, collect, &out, 5000), 0);
	ASSERT_EQ(out.size(), 1u);
	EXPECT_EQ(out[0], R"({"caught":"whatever"})");
	server_->stop();
	EXPECT_EQ(ubus_remove_object(owner_, &any), 0);
}

TEST_F(LibubusTest, HandlerThatNeverRepliesTimesOut)
{
	server_->start();
	std::vector<std::string> out;
	auto t0 = std::chrono::steady_clock::now();
	EXPECT_EQ(call("park", nullptr, &out, 200), UBUS_STATUS_TIMEOUT);
	auto ms = std::chrono::duration_cast<std::chrono::milliseconds>(std::chrono::steady_clock::now() - t0).count();
	EXPECT_GE(ms, 190);
	EXPECT_LT(ms, 3000);
	// The connection stays usable after a time-out.
	EXPECT_EQ(call("echo", R"({"name":"after"})", &out), 0);
}

TEST_F(LibubusTest, DeferredReply)
{
	server_->start([this] {
		if (g_have_deferred.exchange(false)) {
			blob_buf_init(&g_reply, 0);
			blobmsg_add_string(&g_reply, "late", "yes");
			ubus_send_reply(owner_, &g_deferred, g_reply.head);
			ubus_complete_deferred_request(owner_, &g_deferred, UBUS_STATUS_NOT_SUPPORTED);
		}
	});
	std::vector<std::string> out;
	EXPECT_EQ(call("park", nullptr, &out), UBUS_STATUS_NOT_SUPPORTED);
	ASSERT_EQ(out.size(), 1u);
	EXPECT_EQ(out[0], R"({"late":"yes"})");
}

TEST_F(LibubusTest, DuplicateNameAndDoubleRemove)
{
	ubus_object dup = make_object("test", &test_type);
	EXPECT_EQ(ubus_add_object(caller_, &dup), UBUS_STATUS_INVALID_ARGUMENT);
	ubus_object other = make_object("other", &test_type);
	ASSERT_EQ(ubus_add_object(caller_, &other), 0);
	EXPECT_EQ(ubus_remove_object(caller_, &other), 0);
	EXPECT_EQ(other.id, 0u);
	EXPECT_EQ(ubus_remove_object(caller_, &other), UBUS_STATUS_NOT_FOUND);
}

TEST_F(LibubusTest, LookupIdExactAndPrefix)
{
	uint32_t id = 0;
	EXPECT_EQ(ubus_lookup_id(caller_, "test", &id), 0);
	EXPECT_EQ(id, obj_.id);
	id = 0;
	EXPECT_EQ(ubus_lookup_id(caller_, "te*", &id), 0);
	EXPECT_EQ(id, obj_.id);
	id = 77;
	EXPECT_EQ(ubus_lookup_id(caller_, "tes", &id), UBUS_STATUS_NOT_FOUND);
	EXPECT_EQ(id, 77u);
}

TEST_F(LibubusTest, LookupGivesSignature)
{
	struct Seen {
		std::vector<std::string> paths;
		std::string sig;
	} seen;
	auto cb = [](ubus_context *, ubus_object_data *o, void *priv) {
		auto *s = static_cast<Seen *>(priv);
		s->paths.push_back(o->path);
		char *j = blobmsg_format_json(o->signature, true);
		s->sig = j ? j : "";
		free(j);
	};
	EXPECT_EQ(ubus_lookup(caller_, nullptr, cb, &seen), 0);
	ASSERT_EQ(seen.paths, std::vector<std::string>{"test"});
	EXPECT_EQ(seen.sig, R"({"echo":{"name":3,"num":5},"status":{},"twice":{},"park":{}})");
}

namespace {

struct EventLog {
	std::mutex m;
	std::vector<std::string> got;
};
EventLog g_events;

void on_event(ubus_context *, ubus_event_handler *, const char *type, blob_attr *msg)
{
	char *s = blobmsg_format_json(msg, true);
	std::lock_guard<std::mutex> l(g_events.m);
	g_events.got.push_back(std::string(type) + " " + (s ? s : ""));
	free(s);
}

}  // namespace

TEST_F(LibubusTest, EventsByPattern)
{
	g_events.got.clear();
	ubus_event_handler ev{};
	ev.cb = on_event;
	EXPECT_EQ(ubus_register_event_handler(owner_, &ev, "lanroster.*"), 0);
	EXPECT_EQ(ubus_register_event_handler(owner_, &ev, "lanroster.twice"), 0);
	EXPECT_EQ(ubus_register_event_handler(owner_, &ev, ""), UBUS_STATUS_PERMISSION_DENIED);
	blob_buf_init(&b_, 0);
	blobmsg_add_u32(&b_, "a", 1);
	EXPECT_EQ(ubus_send_event(caller_, "lanroster.x", b_.head), 0);
	EXPECT_EQ(ubus_send_event(caller_, "lanroster", b_.head), 0);
	EXPECT_EQ(ubus_send_event(caller_, "lanrosterx", b_.head), 0);
	EXPECT_EQ(ubus_send_event(caller_, "lanroster.twice", b_.head), 0);
	EXPECT_EQ(ubus_send_event(caller_, "ubus.object.fake", b_.head), UBUS_STATUS_PERMISSION_DENIED);
	// No loopback: the owner's own event never reaches its handler.
	EXPECT_EQ(ubus_send_event(owner_, "lanroster.self", b_.head), 0);
	// A call round trip orders everything sent before it.
	std::vector<std::string> out;
	server_->start();
	EXPECT_EQ(call("echo", nullptr, &out), 0);
	server_->stop();
	std::lock_guard<std::mutex> l(g_events.m);
	EXPECT_EQ(g_events.got, (std::vector<std::string>{"lanroster.x {\"a\":1}", "lanroster.twice {\"a\":1}"}));
}

TEST_F(LibubusTest, EventHandlerNeedsNameAndTypeTogether)
{
	ubus_event_handler ev{};
	ev.cb = on_event;
	ev.obj.name = "half";
	EXPECT_EQ(ubus_register_event_handler(owner_, &ev, "x"), UBUS_STATUS_INVALID_ARGUMENT);
}

TEST_F(LibubusTest, ObjectEventsFromTheDaemon)
{
	g_events.got.clear();
	ubus_event_handler ev{};
	ev.cb = on_event;
	ASSERT_EQ(ubus_register_event_handler(caller_, &ev, "ubus.object.*"), 0);
	ubus_object extra = make_object("extra", &test_type);
	ASSERT_EQ(ubus_add_object(owner_, &extra), 0);
	uint32_t id = extra.id;
	ASSERT_EQ(ubus_remove_object(owner_, &extra), 0);
	// Events queued during the caller's own synchronous call come later.
	uint32_t dummy;
	EXPECT_EQ(ubus_lookup_id(caller_, "test", &dummy), 0);
	std::lock_guard<std::mutex> l(g_events.m);
	ASSERT_EQ(g_events.got.size(), 2u);
	std::string idtext = std::to_string(static_cast<int32_t>(id));
	EXPECT_EQ(g_events.got[0], "ubus.object.add {\"id\":" + idtext + ",\"path\":\"extra\"}");
	EXPECT_EQ(g_events.got[1], "ubus.object.remove {\"id\":" + idtext + ",\"path\":\"extra\"}");
}

TEST_F(LibubusTest, ObjectVanishingDuringCall)
{
	// The owner parks the call and then goes away: the caller hears at
	// once instead of waiting for its time-out.
	server_->start([this] {
		if (g_have_deferred.exchange(false))
			shutdown(owner_->sock.fd, SHUT_RDWR);
	});
	std::vector<std::string> out;
	auto t0 = std::chrono::steady_clock::now();
	EXPECT_EQ(call("park", nullptr, &out, 20000), UBUS_STATUS_NOT_FOUND);
	EXPECT_LT(std::chrono::steady_clock::now() - t0, std::chrono::seconds(10));
}

TEST(LibubusLoop, LostConnectionEndsUloopRun)
{
	Ubusd bus;
	ubus_context *ctx = ubus_connect(bus.path());
	ASSERT_NE(ctx, nullptr);
	ubus_add_uloop(ctx);
	struct Killer {
		uloop_timeout t{};
		Ubusd *bus;
	} k;
	k.bus = &bus;
	k.t.cb = [](uloop_timeout *t) {
		reinterpret_cast<Killer *>(t)->bus->stop();
	};
	uloop_timeout_set(&k.t, 10);
	uloop_run();  // returns only through connection_lost
	ubus_free(ctx);
	uloop_done();
}

TEST(LibubusLoop, CallsAndEventsThroughUloop)
{
	Ubusd bus;
	fresh_types();
	ubus_context *owner = ubus_connect(bus.path());
	ubus_context *caller = ubus_connect(bus.path());
	ASSERT_NE(owner, nullptr);
	ASSERT_NE(caller, nullptr);
	ubus_object obj = make_object("looped", &test_type);
	ASSERT_EQ(ubus_add_object(owner, &obj), 0);
	static ubus_event_handler ev{};
	ev.cb = [](ubus_context *, ubus_event_handler *, const char *type, blob_attr *) {
		if (!std::strcmp(type, "lanroster.stop"))
			uloop_end();
	};
	ASSERT_EQ(ubus_register_event_handler(owner, &ev, "lanroster.*"), 0);
	ubus_add_uloop(owner);
	std::thread client([&] {
		blob_buf b{};
		blob_buf_init(&b, 0);
		blobmsg_add_string(&b, "name", "loop");
		std::vector<std::string> out;
		for (int i = 0; i < 20; i++)
			EXPECT_EQ(ubus_invoke(caller, obj.id, "echo", b.head, collect, &out, 5000), 0);
		EXPECT_EQ(out.size(), 20u);
		blob_buf_init(&b, 0);
		EXPECT_EQ(ubus_send_event(caller, "lanroster.stop", b.head), 0);
		blob_buf_free(&b);
	});
	uloop_run();
	client.join();
	ubus_free(caller);
	ubus_free(owner);
	uloop_done();
}

TEST(LibubusConcurrency, ManyCallersWhileObjectComesAndGoes)
{
	Ubusd bus;
	fresh_types();
	ubus_context *owner = ubus_connect(bus.path());
	ASSERT_NE(owner, nullptr);
	static ubus_object obj;
	obj = make_object("flappy", &test_type);
	ASSERT_EQ(ubus_add_object(owner, &obj), 0);
	constexpr int kCallers = 8, kCalls = 150;
	std::vector<ubus_context *> callers;
	for (int i = 0; i < kCallers; i++) {
		callers.push_back(ubus_connect(bus.path()));
		ASSERT_NE(callers.back(), nullptr);
	}
	std::atomic<int> flaps{0};
	Server server(owner);
	server.start([&] {
		// Remove and re-add the object between events: callers holding
		// the old id must get NOT_FOUND, never hang.
		if (obj.id && ubus_remove_object(owner, &obj) == 0 && ubus_add_object(owner, &obj) == 0)
			flaps++;
	});
	std::atomic<int> ok{0}, gone{0}, other{0};
	std::vector<std::thread> threads;
	for (ubus_context *c : callers) {
		threads.emplace_back([&, c] {
			blob_buf b{};
			blob_buf_init(&b, 0);
			blobmsg_add_string(&b, "name", "c");
			for (int i = 0; i < kCalls; i++) {
				uint32_t id = 0;
				int ret = ubus_lookup_id(c, "flappy", &id);
				if (ret == 0)
					ret = ubus_invoke(c, id, "echo", b.head, nullptr, nullptr, 5000);
				(ret == 0 ? ok : ret == UBUS_STATUS_NOT_FOUND ? gone : other)++;
			}
			blob_buf_free(&b);
		});
	}
	for (auto &t : threads)
		t.join();
	server.stop();
	EXPECT_EQ(ok + gone, kCallers * kCalls);
	EXPECT_EQ(other, 0);
	EXPECT_GT(ok, 0);
	EXPECT_GT(flaps, 0);
	for (ubus_context *c : callers)
		ubus_free(c);
	ubus_free(owner);
}

TEST(UbusdRobustness, GarbageClosesOnlyThatClient)
{
	Ubusd bus;
	fresh_types();
	ubus_context *owner = ubus_connect(bus.path());
	ASSERT_NE(owner, nullptr);
	ubus_object obj = make_object("survivor", &test_type);
	ASSERT_EQ(ubus_add_object(owner, &obj), 0);
	Server server(owner);
	server.start();

	int fd = socket(AF_UNIX, SOCK_STREAM, 0);
	sockaddr_un addr{};
	addr.sun_family = AF_UNIX;
	std::strncpy(addr.sun_path, bus.path(), sizeof(addr.sun_path) - 1);
	ASSERT_EQ(connect(fd, reinterpret_cast<sockaddr *>(&addr), sizeof(addr)), 0);
	char hello[12];
	ASSERT_EQ(recv(fd, hello, sizeof(hello), MSG_WAITALL), 12);
	const char junk[] = "\x07garbage that is no frame";
	ASSERT_GT(send(fd, junk, sizeof(junk), MSG_NOSIGNAL), 0);
	char c;
	EXPECT_EQ(recv(fd, &c, 1, 0), 0);  // the daemon hung up on it
	close(fd);

	ubus_context *caller = ubus_connect(bus.path());
	ASSERT_NE(caller, nullptr);
	blob_buf b{};
	blob_buf_init(&b, 0);
	std::vector<std::string> out;
	EXPECT_EQ(ubus_invoke(caller, obj.id, "echo", b.head, collect, &out, 5000), 0);
	EXPECT_EQ(out.size(), 1u);
	blob_buf_free(&b);
	server.stop();
	ubus_free(caller);
	ubus_free(owner);
}

TEST(LibubusLoop, ReconnectRepublishesObjects)
{
	Ubusd bus;
	fresh_types();
	ubus_context *ctx = ubus_connect(bus.path());
	ASSERT_NE(ctx, nullptr);
	ubus_object obj = make_object("phoenix", &test_type);
	ASSERT_EQ(ubus_add_object(ctx, &obj), 0);
	uint32_t first_id = obj.id;
	static Ubusd *g_bus;
	static const char *g_path;
	g_bus = &bus;
	g_path = bus.path();
	ctx->connection_lost = [](ubus_context *c) {
		g_bus->start();
		EXPECT_EQ(ubus_reconnect(c, g_path), 0);
		ubus_add_uloop(c);
		uloop_end();
	};
	ubus_add_uloop(ctx);
	static uloop_timeout kill_timer;
	kill_timer.cb = [](uloop_timeout *) { g_bus->stop(); };
	uloop_timeout_set(&kill_timer, 10);
	uloop_run();
	ubus_context *other = ubus_connect(bus.path());
	ASSERT_NE(other, nullptr);
	uint32_t id = 0;
	EXPECT_EQ(ubus_lookup_id(other, "phoenix", &id), 0);
	EXPECT_EQ(id, obj.id);
	EXPECT_NE(obj.id, first_id);
	ubus_free(other);
	ubus_free(ctx);
	uloop_done();
}

// Like the router's ubusd, ours takes only -A and -s: any other option is
// refused with the usage text and exit status 1, before anything listens.
TEST(UbusdOptions, OnlyTheRoutersOptions)
{
	char tmpl[] = "/tmp/ubus-opt-XXXXXX";
	ASSERT_NE(mkdtemp(tmpl), nullptr);
	std::string path = std::string(tmpl) + "/ubus.sock";
	for (const char *opt : {"-R", "-h", "-x"}) {
		int err[2];
		ASSERT_EQ(pipe(err), 0);
		pid_t pid = fork();
		if (pid == 0) {
			dup2(err[1], 2);
			close(err[0]);
			execl(lr_test::ubusd_binary(), "ubusd", "-s", path.c_str(), opt, "3", (char *)nullptr);
			_exit(127);
		}
		close(err[1]);
		std::string text;
		char buf[256];
		ssize_t n;
		while ((n = read(err[0], buf, sizeof(buf))) > 0)  // ends when ubusd exits
			text.append(buf, static_cast<size_t>(n));
		close(err[0]);
		int st = 0;
		waitpid(pid, &st, 0);
		EXPECT_TRUE(WIFEXITED(st) && WEXITSTATUS(st) == 1) << opt;
		EXPECT_NE(text.find("Usage: "), std::string::npos) << opt;
		EXPECT_FALSE(lr_test::socket_answers(path.c_str())) << opt;
	}
	rmdir(tmpl);
}
