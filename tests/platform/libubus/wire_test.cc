// The bytes on the wire: frames built by the codec and by libubus match the
// documented layout, so real ubus tools and this bus can talk.
#include "ubus_fixture.h"

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
	char tmpl[] = "/tmp/ubus-wire-XXXXXX";
	std::string dir = mkdtemp(tmpl);
	std::string path = dir + "/ubus.sock";
	int lfd = socket(AF_UNIX, SOCK_STREAM, 0);
	sockaddr_un addr{};
	addr.sun_family = AF_UNIX;
	std::strncpy(addr.sun_path, path.c_str(), sizeof(addr.sun_path) - 1);
	ASSERT_EQ(bind(lfd, reinterpret_cast<sockaddr *>(&addr), sizeof(addr)), 0);
	ASSERT_EQ(listen(lfd, 1), 0);
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
	close(lfd);
	unlink(path.c_str());
	rmdir(dir.c_str());
}
