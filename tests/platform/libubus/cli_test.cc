// Golden tests of the ubus command line: output forms, error texts and exit
// codes (stderr is a pipe here, so the non-terminal forms apply).
#include "ubus_fixture.h"

#include <regex>
#include <string>
#include <vector>

using ubus_test::Server;
using ubus_test::Ubusd;

namespace {

struct Outcome {
	int code = -1;
	std::string out, err;
};

class Child {
public:
	explicit Child(const std::vector<std::string> &args)
	{
		int o[2], e[2];
		if (pipe(o) || pipe(e))
			std::abort();
		pid_ = fork();
		if (pid_ == 0) {
			dup2(o[1], 1);
			dup2(e[1], 2);
			close(o[0]);
			close(e[0]);
			std::string bin = std::string(LR_BINARY_DIR) + "/platform-bin/ubus";
			std::vector<char *> argv{const_cast<char *>("ubus")};
			for (const std::string &a : args)
				argv.push_back(const_cast<char *>(a.c_str()));
			argv.push_back(nullptr);
			execv(bin.c_str(), argv.data());
			_exit(127);
		}
		close(o[1]);
		close(e[1]);
		out_ = o[0];
		err_ = e[0];
	}
	~Child()
	{
		if (pid_ > 0) {
			kill(pid_, SIGKILL);
			waitpid(pid_, nullptr, 0);
		}
		if (out_ >= 0)
			close(out_);
		if (err_ >= 0)
			close(err_);
	}
	// Reads until `want` shows up in stdout (or EOF, or 10 s).
	bool read_until(const std::string &want)
	{
		for (int i = 0; i < 1000 && res_.out.find(want) == std::string::npos; i++)
			if (!pump(10) && open_ == 0)
				break;
		return res_.out.find(want) != std::string::npos;
	}
	Outcome finish()
	{
		while (open_ > 0)
			pump(1000);
		int st = 0;
		waitpid(pid_, &st, 0);
		pid_ = -1;
		res_.code = WIFEXITED(st) ? WEXITSTATUS(st) : 128 + WTERMSIG(st);
		return res_;
	}
	void terminate() { kill(pid_, SIGTERM); }

private:
	bool pump(int ms)
	{
		pollfd p[2];
		int *fds[2];
		std::string *dst[2];
		int n = 0;
		if (out_ >= 0) {
			p[n] = {out_, POLLIN, 0};
			fds[n] = &out_;
			dst[n++] = &res_.out;
		}
		if (err_ >= 0) {
			p[n] = {err_, POLLIN, 0};
			fds[n] = &err_;
			dst[n++] = &res_.err;
		}
		if (n == 0 || poll(p, static_cast<nfds_t>(n), ms) <= 0)
			return false;
		for (int i = 0; i < n; i++) {
			if (!p[i].revents)
				continue;
			char buf[4096];
			ssize_t got = read(*fds[i], buf, sizeof(buf));
			if (got > 0) {
				dst[i]->append(buf, static_cast<size_t>(got));
			} else {
				close(*fds[i]);
				*fds[i] = -1;
				open_--;
			}
		}
		return true;
	}
	pid_t pid_ = -1;
	int out_ = -1, err_ = -1;
	int open_ = 2;
	Outcome res_;
};

blob_buf g_buf;
ubus_request_data g_parked;

int h_echo(ubus_context *ctx, ubus_object *, ubus_request_data *req, const char *, blob_attr *msg)
{
	blob_buf_init(&g_buf, 0);
	blob_attr *a;
	size_t rem;
	blob_for_each_attr(a, msg, rem)
		blobmsg_add_blob(&g_buf, a);
	ubus_send_reply(ctx, req, g_buf.head);
	return 0;
}

int h_empty(ubus_context *, ubus_object *, ubus_request_data *, const char *, blob_attr *) { return 0; }
int h_fail(ubus_context *, ubus_object *, ubus_request_data *, const char *, blob_attr *) { return UBUS_STATUS_NO_DATA; }
int h_inval(ubus_context *, ubus_object *, ubus_request_data *, const char *, blob_attr *) { return UBUS_STATUS_INVALID_ARGUMENT; }
int h_neg(ubus_context *, ubus_object *, ubus_request_data *, const char *, blob_attr *) { return -1; }

int h_multi(ubus_context *ctx, ubus_object *, ubus_request_data *req, const char *, blob_attr *)
{
	blob_buf_init(&g_buf, 0);
	blobmsg_add_u32(&g_buf, "a", 1);
	ubus_send_reply(ctx, req, g_buf.head);
	blob_buf_init(&g_buf, 0);
	ubus_send_reply(ctx, req, g_buf.head);
	blob_buf_init(&g_buf, 0);
	blobmsg_add_string(&g_buf, "b", "x");
	ubus_send_reply(ctx, req, g_buf.head);
	return 0;
}

int h_slow(ubus_context *ctx, ubus_object *, ubus_request_data *req, const char *, blob_attr *)
{
	ubus_defer_request(ctx, req, &g_parked);
	return 0;
}

const blobmsg_policy echo_policy[] = {
	{"name", BLOBMSG_TYPE_STRING},
	{"num", BLOBMSG_TYPE_INT32},
	{"flag", BLOBMSG_TYPE_BOOL},
};
const blobmsg_policy types_policy[] = {
	{"arr", BLOBMSG_TYPE_ARRAY},   {"tbl", BLOBMSG_TYPE_TABLE},  {"i64", BLOBMSG_TYPE_INT64},
	{"i16", BLOBMSG_TYPE_INT16},   {"dbl", BLOBMSG_TYPE_DOUBLE}, {"any", BLOBMSG_TYPE_UNSPEC},
	{"cast", BLOBMSG_CAST_INT64},
};
const ubus_method obj_methods[] = {
	UBUS_METHOD("echo", h_echo, echo_policy),
	UBUS_METHOD_NOARG("empty", h_empty),
	UBUS_METHOD_NOARG("multi", h_multi),
	UBUS_METHOD_NOARG("fail", h_fail),
	UBUS_METHOD_NOARG("inval", h_inval),
	UBUS_METHOD_NOARG("neg", h_neg),
	UBUS_METHOD_NOARG("slow", h_slow),
};
const ubus_method other_methods[] = {
	UBUS_METHOD("types", h_empty, types_policy),
};
ubus_object_type obj_type = UBUS_OBJECT_TYPE("test.obj", obj_methods);
ubus_object_type other_type = UBUS_OBJECT_TYPE("test.other", other_methods);

class CliTest : public ::testing::Test {
protected:
	void SetUp() override
	{
		obj_type.id = 0;
		other_type.id = 0;
		owner_ = ubus_connect(bus_.path());
		ASSERT_NE(owner_, nullptr);
		obj_.name = "test.obj";
		obj_.type = &obj_type;
		obj_.methods = obj_methods;
		obj_.n_methods = static_cast<int>(std::size(obj_methods));
		other_.name = "test.other";
		other_.type = &other_type;
		other_.methods = other_methods;
		other_.n_methods = 1;
		// Added in reverse order: list must sort by path.
		ASSERT_EQ(ubus_add_object(owner_, &other_), 0);
		ASSERT_EQ(ubus_add_object(owner_, &obj_), 0);
		server_ = std::make_unique<Server>(owner_);
		server_->start();
	}
	void TearDown() override
	{
		server_.reset();
		ubus_free(owner_);
	}
	Outcome ubus(std::vector<std::string> args)
	{
		args.insert(args.begin(), {"-s", bus_.path()});
		return Child(args).finish();
	}
	static std::string mask_ids(const std::string &s)
	{
		return std::regex_replace(s, std::regex("@[0-9a-f]{8}"), "@ID");
	}

	Ubusd bus_;
	ubus_context *owner_ = nullptr;
	ubus_object obj_{}, other_{};
	std::unique_ptr<Server> server_;
};

const char kUsageStart[] = "Usage: ubus [<options>] <command> [arguments...]\n";

}  // namespace

TEST_F(CliTest, ListSorted)
{
	Outcome r = ubus({"list"});
	EXPECT_EQ(r.code, 0);
	EXPECT_EQ(r.out, "test.obj\ntest.other\n");
	EXPECT_EQ(r.err, "");
	r = ubus({"list", "test.o*"});
	EXPECT_EQ(r.out, "test.obj\ntest.other\n");
}

TEST_F(CliTest, ListVerbose)
{
	Outcome r = ubus({"-v", "list"});
	EXPECT_EQ(r.code, 0);
	EXPECT_EQ(mask_ids(r.out),
		  "'test.obj' @ID\n"
		  "\t\"echo\":{\"name\":\"String\",\"num\":\"Integer\",\"flag\":\"Boolean\"}\n"
		  "\t\"empty\":{}\n"
		  "\t\"multi\":{}\n"
		  "\t\"fail\":{}\n"
		  "\t\"inval\":{}\n"
		  "\t\"neg\":{}\n"
		  "\t\"slow\":{}\n"
		  "'test.other' @ID\n"
		  "\t\"types\":{\"arr\":\"Array\",\"tbl\":\"Table\",\"i64\":\"(unknown)\",\"i16\":\"(unknown)\","
		  "\"dbl\":\"(unknown)\",\"any\":\"(unknown)\",\"cast\":\"(unknown)\"}\n");
	char id[16];
	std::snprintf(id, sizeof(id), "@%08x", obj_.id);
	EXPECT_NE(r.out.find(id), std::string::npos);
	// "list -v" after the command works too.
	EXPECT_EQ(ubus({"list", "-v", "test.other"}).out.substr(0, 14), "'test.other' @");
}

TEST_F(CliTest, ListMissing)
{
	Outcome r = ubus({"list", "nosuch"});
	EXPECT_EQ(r.code, 4);
	EXPECT_EQ(r.out, "");
	EXPECT_EQ(r.err, "Command failed: Not found\n");
}

TEST_F(CliTest, CallPrettyPrintsWithTabs)
{
	Outcome r = ubus({"call", "test.obj", "echo", R"({"method":"echo","tbl":{"x":1,"arr":["s1",2],"empty":{}},"nul":null})"});
	EXPECT_EQ(r.code, 0);
	EXPECT_EQ(r.err, "");
	EXPECT_EQ(r.out,
		  "{\n"
		  "\t\"method\": \"echo\",\n"
		  "\t\"tbl\": {\n"
		  "\t\t\"x\": 1,\n"
		  "\t\t\"arr\": [\n"
		  "\t\t\t\"s1\",\n"
		  "\t\t\t2\n"
		  "\t\t],\n"
		  "\t\t\"empty\": {\n"
		  "\t\t\t\n"
		  "\t\t}\n"
		  "\t},\n"
		  "\t\"nul\": null\n"
		  "}\n");
}

TEST_F(CliTest, CallSimpleIsCompact)
{
	Outcome r = ubus({"-S", "call", "test.obj", "echo", R"({"a":true,"d":1.5})"});
	EXPECT_EQ(r.code, 0);
	EXPECT_EQ(r.out, "{\"a\":true,\"d\":1.500000}\n");
}

TEST_F(CliTest, CallWithoutDataPrintsNothing)
{
	Outcome r = ubus({"call", "test.obj", "empty"});
	EXPECT_EQ(r.code, 0);
	EXPECT_EQ(r.out, "");
	EXPECT_EQ(r.err, "");
}

TEST_F(CliTest, MultiReplyWithEmptyOne)
{
	Outcome r = ubus({"call", "test.obj", "multi"});
	EXPECT_EQ(r.code, 0);
	EXPECT_EQ(r.out, "{\n\t\"a\": 1\n}\n{\n\t\n}\n{\n\t\"b\": \"x\"\n}\n");
}

TEST_F(CliTest, CallErrorsAreNegatedWithoutTerminal)
{
	Outcome r = ubus({"call", "test.obj", "fail"});
	EXPECT_EQ(r.code, 251);
	EXPECT_EQ(r.err, "Command failed: ubus call test.obj fail (No response)\n");
	r = ubus({"call", "test.obj", "nosuch"});
	EXPECT_EQ(r.code, 253);
	EXPECT_EQ(r.err, "Command failed: ubus call test.obj nosuch (Method not found)\n");
	r = ubus({"call", "test.obj", "echo", "{bad"});
	EXPECT_EQ(r.code, 244);
	EXPECT_EQ(r.err, "Command failed: ubus call test.obj echo {bad (Parsing message data failed)\n");
	r = ubus({"call", "test.obj", "echo", "[1]"});
	EXPECT_EQ(r.code, 244);
}

TEST_F(CliTest, InvalidArgumentAlsoPrintsUsage)
{
	Outcome r = ubus({"call", "test.obj", "inval"});
	EXPECT_EQ(r.code, 254);
	EXPECT_EQ(r.err.rfind("Command failed: ubus call test.obj inval (Invalid argument)\n", 0), 0u);
	EXPECT_NE(r.err.find(kUsageStart), std::string::npos);
}

TEST_F(CliTest, NegativeStatusGivesSecondLine)
{
	Outcome r = ubus({"call", "test.obj", "neg"});
	EXPECT_EQ(r.code, 1);
	EXPECT_EQ(r.err, "Command failed: ubus call test.obj neg (Unknown error: -1)\n"
			 "Command failed: Invalid command\n");
}

TEST_F(CliTest, SimpleSuppressesMessages)
{
	Outcome r = ubus({"-S", "call", "test.obj", "fail"});
	EXPECT_EQ(r.code, 5);
	EXPECT_EQ(r.err, "");
}

TEST_F(CliTest, CallMissingObject)
{
	Outcome r = ubus({"call", "nosuch", "m"});
	EXPECT_EQ(r.code, 4);
	EXPECT_EQ(r.err, "Command failed: Not found\n");
}

TEST_F(CliTest, CallTimeout)
{
	Outcome r = ubus({"-t", "1", "call", "test.obj", "slow"});
	EXPECT_EQ(r.code, 249);
	EXPECT_EQ(r.err, "Command failed: ubus call test.obj slow (Request timed out)\n");
}

TEST_F(CliTest, UsageAndBadCommands)
{
	Outcome r = ubus({"call", "test.obj"});
	EXPECT_EQ(r.code, 254);
	EXPECT_EQ(r.err.rfind(kUsageStart, 0), 0u);
	r = ubus({"frobnicate"});
	EXPECT_EQ(r.code, 254);
	r = ubus({});
	EXPECT_EQ(r.code, 1);
	r = ubus({"-x", "list"});
	EXPECT_EQ(r.code, 1);
	r = Child({"-s", "/nonexistent/ubus.sock", "list"}).finish();
	EXPECT_EQ(r.code, 255);
	EXPECT_EQ(r.err, "Failed to connect to ubus\n");
}

TEST_F(CliTest, SendErrors)
{
	Outcome r = ubus({"send", "x.y", "{bad"});
	EXPECT_EQ(r.code, 12);
	EXPECT_EQ(r.err, "Command failed: Parsing message data failed\n");
	r = ubus({"send", "ubus.object.add", "{}"});
	EXPECT_EQ(r.code, 6);
	EXPECT_EQ(r.err, "Command failed: Permission denied\n");
}

TEST_F(CliTest, SendAndListen)
{
	Child listen({"-s", bus_.path(), "listen", "lanroster.*", "other"});
	// Hand-shake: repeat a marker event until the listener has shown it.
	bool ready = false;
	for (int i = 0; i < 200 && !ready; i++) {
		ubus({"send", "lanroster.sync"});
		ready = listen.read_until("lanroster.sync");
	}
	ASSERT_TRUE(ready);
	EXPECT_EQ(ubus({"send", "lanroster.x", R"({"a":1,"b":{"c":[true,"s"]}})"}).code, 0);
	EXPECT_EQ(ubus({"send", "lanrosterx", "{}"}).code, 0);
	EXPECT_EQ(ubus({"send", "other"}).code, 0);
	ASSERT_TRUE(listen.read_until("{ \"other\": {} }\n"));
	listen.terminate();
	Outcome r = listen.finish();
	std::string tail = r.out.substr(r.out.find("{ \"lanroster.x\""));
	EXPECT_EQ(tail, "{ \"lanroster.x\": {\"a\":1,\"b\":{\"c\":[true,\"s\"]}} }\n{ \"other\": {} }\n");
}

TEST_F(CliTest, ListenStopsAfterTimeout)
{
	Outcome r = ubus({"-t", "1", "listen"});
	EXPECT_EQ(r.code, 0);
}

TEST_F(CliTest, WaitFor)
{
	Outcome r = ubus({"wait_for", "test.obj", "test.other"});
	EXPECT_EQ(r.code, 0);
	Child late_waiter({"-s", bus_.path(), "-t", "10", "wait_for", "test.late"});
	ubus_context *late = ubus_connect(bus_.path());
	ASSERT_NE(late, nullptr);
	ubus_object late_obj{};
	late_obj.name = "test.late";
	late_obj.type = &other_type;
	late_obj.methods = other_methods;
	late_obj.n_methods = 1;
	ASSERT_EQ(ubus_add_object(late, &late_obj), 0);
	EXPECT_EQ(late_waiter.finish().code, 0);
	ubus_free(late);
	r = ubus({"-t", "1", "wait_for", "test.obj", "test.never"});
	EXPECT_EQ(r.code, 7);
	EXPECT_EQ(r.err, "Command failed: Request timed out\n");
}
