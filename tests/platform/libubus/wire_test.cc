// The bytes on the wire: frames built by the codec and by libubus match the
// documented layout, so real ubus tools and this bus can talk.
#include "ubus_fixture.h"

#include <sys/eventfd.h>
#include <sys/socket.h>
#include <sys/un.h>

#include <cstring>
#include <vector>

#include "ubus_wire.h"

using namespace ubuswire;

namespace {

// The documented INVOKE of ubus_invoke(ctx, 0x4869ea1e, "echo", {"name":"x"}).
const std::vector<uint8_t> kEchoInvoke = {
	0x00, 0x05, 0x00, 0x01, 0x48, 0x69, 0xea, 0x1e,
	0x00, 0x00, 0x00, 0x2c,
	0x03, 0x00, 0x00, 0x08, 0x48, 0x69, 0xea, 0x1e,
	0x04, 0x00, 0x00, 0x09, 0x65, 0x63, 0x68, 0x6f, 0x00, 0x00, 0x00, 0x00,
	0x07, 0x00, 0x00, 0x14, 0x83, 0x00, 0x00, 0x0e, 0x00, 0x04, 0x6e, 0x61,
	0x6d, 0x65, 0x00, 0x00, 0x78, 0x00, 0x00, 0x00,
};

std::vector<uint8_t> read_frame(int fd)
{
	std::vector<uint8_t> f(12);
	if (recv(fd, f.data(), 12, MSG_WAITALL) != 12)
		return {};
	size_t total = 0;
	if (frame_size(f, total) != Frame::kIncomplete && total != 12)
		return {};
	f.resize(total);
	if (total > 12 && recv(fd, f.data() + 12, total - 12, MSG_WAITALL) != static_cast<ssize_t>(total - 12))
		return {};
	return f;
}

// A listening socket where the test plays the daemon by hand.
class FakeDaemonSocket {
public:
	FakeDaemonSocket()
	{
		char tmpl[] = "/tmp/ubus-wire-XXXXXX";
		dir_ = mkdtemp(tmpl);
		path_ = dir_ + "/ubus.sock";
		fd_ = socket(AF_UNIX, SOCK_STREAM, 0);
		sockaddr_un addr{};
		addr.sun_family = AF_UNIX;
		std::strncpy(addr.sun_path, path_.c_str(), sizeof(addr.sun_path) - 1);
		ok_ = bind(fd_, reinterpret_cast<sockaddr *>(&addr), sizeof(addr)) == 0 && listen(fd_, 1) == 0;
	}
	~FakeDaemonSocket()
	{
		close(fd_);
		unlink(path_.c_str());
		rmdir(dir_.c_str());
	}
	bool ok() const { return ok_; }
	int fd() const { return fd_; }
	const std::string &path() const { return path_; }

private:
	std::string dir_, path_;
	int fd_ = -1;
	bool ok_ = false;
};

}  // namespace

TEST(Wire, CodecBuildsTheDocumentedInvoke)
{
	Builder b;
	b.begin(kInvoke, 1, 0x4869ea1e);
	b.put_u32(kAttrObjId, 0x4869ea1e);
	b.put_string(kAttrMethod, "echo");
	size_t d = b.nest_start(kAttrData);
	b.bm_string("name", "x");
	b.nest_end(d);
	auto f = b.finish();
	EXPECT_EQ(std::vector<uint8_t>(f.begin(), f.end()), kEchoInvoke);
}

TEST(Wire, CodecParsesItBack)
{
	size_t total = 0;
	ASSERT_EQ(frame_size(kEchoInvoke, total), Frame::kOk);
	EXPECT_EQ(total, kEchoInvoke.size());
	Header h = parse_header(kEchoInvoke);
	EXPECT_EQ(h.type, kInvoke);
	EXPECT_EQ(h.seq, 1);
	EXPECT_EQ(h.peer, 0x4869ea1eu);
	AttrTable tb;
	ASSERT_TRUE(parse_attrs(frame_body(kEchoInvoke), tb));
	EXPECT_EQ(tb[kAttrObjId].u32(), 0x4869ea1eu);
	EXPECT_EQ(tb[kAttrMethod].str(), "echo");
	std::vector<BmElem> args;
	ASSERT_TRUE(bm_parse(tb[kAttrData].payload(), args));
	ASSERT_EQ(args.size(), 1u);
	EXPECT_EQ(args[0].name, "name");
	EXPECT_EQ(args[0].type, kBmString);
}

TEST(Wire, TruncatedAndOversizedFrames)
{
	size_t total = 0;
	std::vector<uint8_t> part(kEchoInvoke.begin(), kEchoInvoke.begin() + 20);
	EXPECT_EQ(frame_size(part, total), Frame::kIncomplete);
	std::vector<uint8_t> ext = kEchoInvoke;
	ext[8] = 0x80;  // an extended root
	EXPECT_EQ(frame_size(ext, total), Frame::kBad);
	std::vector<uint8_t> unpadded_string = {0x04, 0x00, 0x00, 0x07, 'a', 'b', 'c', 0x00};
	AttrTable tb;
	EXPECT_FALSE(parse_attrs(unpadded_string, tb));  // "abc" lacks its NUL
}

TEST(Wire, LibubusSendsTheDocumentedInvoke)
{
	FakeDaemonSocket sock;
	ASSERT_TRUE(sock.ok());
	int lfd = sock.fd();
	const std::string &path = sock.path();
	std::vector<uint8_t> seen;
	std::thread fake([&] {
		int fd = accept(lfd, nullptr, nullptr);
		Builder b;
		b.begin(kHello, 0, 0x1234abcd);
		auto hello = b.finish();
		send(fd, hello.data(), hello.size(), MSG_NOSIGNAL);
		seen = read_frame(fd);
		b.begin(kStatus, 1, 0x4869ea1e);
		b.put_u32(kAttrStatus, 0);
		b.put_u32(kAttrObjId, 0x4869ea1e);
		auto st = b.finish();
		send(fd, st.data(), st.size(), MSG_NOSIGNAL);
		char c;
		recv(fd, &c, 1, 0);  // until the client goes
		close(fd);
	});
	ubus_context *ctx = ubus_connect(path.c_str());
	ASSERT_NE(ctx, nullptr);
	EXPECT_EQ(ctx->local_id, 0x1234abcdu);
	blob_buf b{};
	blob_buf_init(&b, 0);
	blobmsg_add_string(&b, "name", "x");
	EXPECT_EQ(ubus_invoke(ctx, 0x4869ea1e, "echo", b.head, nullptr, nullptr, 5000), 0);
	ubus_free(ctx);
	fake.join();
	EXPECT_EQ(seen, kEchoInvoke);
	blob_buf_free(&b);
}

namespace {

bool g_timer_ran = false;
int g_sent_ok = 0;
blob_buf g_big;

int h_flood(ubus_context *ctx, ubus_object *, ubus_request_data *req, const char *, blob_attr *)
{
	// 40 replies of 512 KiB to a peer that reads nothing: each must return
	// at once, the first ones queued, the rest refused once the bound is hit.
	for (int i = 0; i < 40; i++)
		if (ubus_send_reply(ctx, req, g_big.head) == 0)
			g_sent_ok++;
	return 0;
}

}  // namespace

TEST(Wire, LoopDoesNotBlockOnAPeerThatDoesNotRead)
{
	FakeDaemonSocket sock;
	ASSERT_TRUE(sock.ok());
	int lfd = sock.fd();
	const std::string &path = sock.path();
	int done = eventfd(0, 0);
	std::thread fake([&] {
		int fd = accept(lfd, nullptr, nullptr);
		Builder b;
		b.begin(kHello, 0, 0x1111);
		auto f = b.finish();
		send(fd, f.data(), f.size(), MSG_NOSIGNAL);
		std::vector<uint8_t> add = read_frame(fd);  // ADD_OBJECT
		uint16_t seq = parse_header(add).seq;
		b.begin(kData, seq, 0);
		b.put_u32(kAttrObjId, 0x2222);
		b.put_u32(kAttrObjType, 0x3333);
		f = b.finish();
		send(fd, f.data(), f.size(), MSG_NOSIGNAL);
		b.begin(kStatus, seq, 0);
		b.put_u32(kAttrStatus, 0);
		f = b.finish();
		send(fd, f.data(), f.size(), MSG_NOSIGNAL);
		b.begin(kInvoke, 7, 0x4444);
		b.put_u32(kAttrObjId, 0x2222);
		b.put_string(kAttrMethod, "flood");
		b.put_raw(kAttrData, {});
		f = b.finish();
		send(fd, f.data(), f.size(), MSG_NOSIGNAL);
		// Now read nothing until the test is over.
		uint64_t v;
		if (read(done, &v, sizeof(v)) < 0)
			ADD_FAILURE();
		close(fd);
	});
	ubus_context *ctx = ubus_connect(path.c_str());
	ASSERT_NE(ctx, nullptr);
	static const ubus_method methods[] = {UBUS_METHOD_NOARG("flood", h_flood)};
	static ubus_object_type type = UBUS_OBJECT_TYPE("flood", methods);
	ubus_object obj{};
	obj.name = "flood";
	obj.type = &type;
	obj.methods = methods;
	obj.n_methods = 1;
	blob_buf_init(&g_big, 0);
	std::string chunk(512 * 1024, 'x');
	blobmsg_add_string(&g_big, "blob", chunk.c_str());
	// Served by uloop from the start: the call that arrives while the
	// object is being added runs from the loop afterwards.
	ubus_add_uloop(ctx);
	ASSERT_EQ(ubus_add_object(ctx, &obj), 0);
	static uloop_timeout t;
	t.cb = [](uloop_timeout *) {
		g_timer_ran = true;
		uloop_end();
	};
	uloop_timeout_set(&t, 200);
	uloop_run();
	EXPECT_TRUE(g_timer_ran);
	EXPECT_GT(g_sent_ok, 0);
	EXPECT_LT(g_sent_ok, 40);  // the write queue is bounded
	uint64_t one = 1;
	if (write(done, &one, sizeof(one)) < 0)
		ADD_FAILURE();
	fake.join();
	ubus_free(ctx);
	uloop_done();
	blob_buf_free(&g_big);
	close(done);
}

namespace {

int g_early_calls = 0;

int h_early(ubus_context *, ubus_object *, ubus_request_data *, const char *, blob_attr *)
{
	g_early_calls++;
	return UBUS_STATUS_NO_DATA;
}

}  // namespace

TEST(Wire, CallArrivingDuringAddObjectSeesTheObject)
{
	FakeDaemonSocket sock;
	ASSERT_TRUE(sock.ok());
	int lfd = sock.fd();
	const std::string &path = sock.path();
	int status_seen = -100;
	std::thread fake([&] {
		int fd = accept(lfd, nullptr, nullptr);
		Builder b;
		auto put = [&] {
			auto f = b.finish();
			send(fd, f.data(), f.size(), MSG_NOSIGNAL);
		};
		b.begin(kHello, 0, 0x1111);
		put();
		uint16_t seq = parse_header(read_frame(fd)).seq;
		b.begin(kData, seq, 0);
		b.put_u32(kAttrObjId, 0x2222);
		b.put_u32(kAttrObjType, 0x3333);
		put();
		// A call overtakes the end of the add: the library must hold it
		// until the object is known.
		b.begin(kInvoke, 9, 0x4444);
		b.put_u32(kAttrObjId, 0x2222);
		b.put_string(kAttrMethod, "early");
		b.put_raw(kAttrData, {});
		put();
		b.begin(kStatus, seq, 0);
		b.put_u32(kAttrStatus, 0);
		put();
		std::vector<uint8_t> st = read_frame(fd);
		AttrTable tb;
		if (!st.empty() && parse_attrs(frame_body(st), tb) && tb[kAttrStatus])
			status_seen = static_cast<int>(tb[kAttrStatus].u32());
		close(fd);
	});
	ubus_context *ctx = ubus_connect(path.c_str());
	ASSERT_NE(ctx, nullptr);
	static const ubus_method methods[] = {UBUS_METHOD_NOARG("early", h_early)};
	static ubus_object_type type = UBUS_OBJECT_TYPE("early", methods);
	ubus_object obj{};
	obj.name = "early";
	obj.type = &type;
	obj.methods = methods;
	obj.n_methods = 1;
	ASSERT_EQ(ubus_add_object(ctx, &obj), 0);
	EXPECT_EQ(g_early_calls, 1);
	fake.join();
	EXPECT_EQ(status_seen, UBUS_STATUS_NO_DATA);
	ubus_free(ctx);
}
