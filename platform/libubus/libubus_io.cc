// Socket I/O of a bus connection: framing, the write queue, synchronous
// waits and dispatch of incoming calls, events and replies.
#include "libubus_impl.h"

#include <fcntl.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <time.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

using namespace ubuswire;

namespace ubus_impl {

Impl *impl(ubus_context *ctx)
{
	// The object tree of the context is not used by this library; its
	// compare pointer carries the connection state instead.
	return static_cast<Impl *>(ctx->objects.cmp_ptr);
}

std::span<const uint8_t> blob_payload(const blob_attr *msg)
{
	if (!msg)
		return {};
	const uint8_t *p = reinterpret_cast<const uint8_t *>(msg);
	uint32_t raw = load_be32(p) & 0x00ffffffu;
	if (raw < 4)
		return {};
	return {p + 4, raw - 4};
}

namespace {

int64_t now_ms()
{
	timespec ts;
	clock_gettime(CLOCK_MONOTONIC, &ts);
	return int64_t{ts.tv_sec} * 1000 + ts.tv_nsec / 1000000;
}

void update_write_interest(ubus_context *ctx)
{
	if (!ctx->sock.registered)
		return;
	unsigned int want = (ctx->sock.flags & ~ULOOP_WRITE) | (impl(ctx)->out.empty() ? 0 : ULOOP_WRITE);
	if (want != ctx->sock.flags)
		uloop_fd_add(&ctx->sock, want);
}

// Writes queued frames until the socket would block. false: broken.
bool flush(ubus_context *ctx)
{
	Impl *im = impl(ctx);
	while (!im->out.empty()) {
		const std::vector<uint8_t> &f = im->out.front();
		ssize_t n = send(ctx->sock.fd, f.data() + im->out_off, f.size() - im->out_off,
				 MSG_NOSIGNAL | MSG_DONTWAIT);
		if (n < 0) {
			if (errno == EINTR)
				continue;
			return errno == EAGAIN || errno == EWOULDBLOCK;
		}
		im->out_off += static_cast<size_t>(n);
		if (im->out_off == f.size()) {
			im->out_bytes -= f.size();
			im->out_off = 0;
			im->out.pop_front();
		}
	}
	return true;
}

void fail_requests(ubus_context *ctx)
{
	Impl *im = impl(ctx);
	auto reqs = std::move(im->requests);
	im->requests.clear();
	for (auto &[seq, req] : reqs) {
		req->status_code = UBUS_STATUS_CONNECTION_FAILED;
		req->status_msg = true;
		if (req->complete_cb)
			req->complete_cb(req, UBUS_STATUS_CONNECTION_FAILED);
	}
}

void connection_lost(ubus_context *ctx)
{
	Impl *im = impl(ctx);
	if (im->dead)
		return;
	im->dead = true;
	if (ctx->sock.registered) {
		im->attached = true;
		uloop_fd_delete(&ctx->sock);
	}
	fail_requests(ctx);
	if (ctx->connection_lost)
		ctx->connection_lost(ctx);
}

// Reads what is available. >0 bytes, 0 EOF, -1 nothing now, -2 error.
ssize_t read_some(ubus_context *ctx)
{
	Impl *im = impl(ctx);
	if (im->in_off > 0 && im->in_off * 2 >= im->in.size()) {
		im->in.erase(im->in.begin(), im->in.begin() + static_cast<std::ptrdiff_t>(im->in_off));
		im->in_off = 0;
	}
	size_t old = im->in.size();
	im->in.resize(old + 65536);
	ssize_t n;
	do {
		n = read(ctx->sock.fd, im->in.data() + old, 65536);
	} while (n < 0 && errno == EINTR);
	im->in.resize(old + (n > 0 ? static_cast<size_t>(n) : 0));
	if (n < 0)
		return (errno == EAGAIN || errno == EWOULDBLOCK) ? -1 : -2;
	return n;
}

// Takes the next whole frame off the input buffer. false: none (yet);
// a malformed stream is a lost connection.
bool next_frame(ubus_context *ctx, std::unique_ptr<InFrame> &out)
{
	Impl *im = impl(ctx);
	std::span<const uint8_t> rest(im->in.data() + im->in_off, im->in.size() - im->in_off);
	size_t total = 0;
	ubuswire::Frame f = frame_size(rest, total);
	if (f == ubuswire::Frame::kIncomplete)
		return false;
	auto fr = std::make_unique<InFrame>();
	if (f == ubuswire::Frame::kBad) {
		connection_lost(ctx);
		return false;
	}
	fr->store.resize((total + 3) / 4);
	std::memcpy(fr->store.data(), rest.data(), total);
	fr->size = total;
	im->in_off += total;
	std::span<const uint8_t> bytes(fr->bytes(), total);
	fr->hdr = parse_header(bytes);
	if (!parse_attrs(frame_body(bytes), fr->tb)) {
		connection_lost(ctx);
		return false;
	}
	out = std::move(fr);
	return true;
}

void handle_reply(ubus_context *ctx, const InFrame &f)
{
	Impl *im = impl(ctx);
	auto it = im->requests.find(f.hdr.seq);
	if (it == im->requests.end() || it->second->peer != f.hdr.peer)
		return;  // a late answer to a request given up on
	ubus_request *req = it->second;
	if (f.hdr.type == kData) {
		if (req->raw_data_cb)
			req->raw_data_cb(req, UBUS_MSG_DATA, f.root());
		if (req->data_cb && f.tb[kAttrData])
			req->data_cb(req, UBUS_MSG_DATA, InFrame::attr(f.tb[kAttrData]));
		return;
	}
	im->requests.erase(it);
	int status = f.tb[kAttrStatus] ? static_cast<int>(f.tb[kAttrStatus].u32()) : UBUS_STATUS_INVALID_ARGUMENT;
	req->status_code = status;
	req->status_msg = true;
	if (req->complete_cb)
		req->complete_cb(req, status);
}

void send_status(ubus_context *ctx, uint16_t seq, uint32_t peer, uint32_t objid, int status)
{
	Builder &b = impl(ctx)->builder;
	b.begin(kStatus, seq, peer);
	b.put_u32(kAttrStatus, static_cast<uint32_t>(status));
	b.put_u32(kAttrObjId, objid);
	send_frame(ctx, b.finish());
}

const ubus_method *find_method(const ubus_object *obj, const char *name)
{
	for (int i = 0; i < obj->n_methods; i++) {
		const ubus_method *m = &obj->methods[i];
		if (!m->name || std::strcmp(m->name, name) == 0)
			return m;
	}
	return nullptr;
}

void handle_invoke(ubus_context *ctx, const InFrame &f)
{
	const AttrTable &tb = f.tb;
	uint32_t objid = tb[kAttrObjId] ? tb[kAttrObjId].u32() : 0;
	bool no_reply = tb[kAttrNoReply] && tb[kAttrNoReply].u8();
	auto it = impl(ctx)->objects.find(objid);
	int status;
	if (it == impl(ctx)->objects.end()) {
		status = UBUS_STATUS_NOT_FOUND;
	} else if (!tb[kAttrMethod] || !tb[kAttrData]) {
		status = UBUS_STATUS_INVALID_ARGUMENT;
	} else if (const ubus_method *m = find_method(it->second, tb[kAttrMethod].c_str()); !m || !m->handler) {
		status = UBUS_STATUS_METHOD_NOT_FOUND;
	} else {
		ubus_request_data req{};
		req.object = objid;
		req.peer = f.hdr.peer;
		req.seq = f.hdr.seq;
		req.acl.user = tb[kAttrUser] ? tb[kAttrUser].c_str() : nullptr;
		req.acl.group = tb[kAttrGroup] ? tb[kAttrGroup].c_str() : nullptr;
		req.acl.object = it->second->name;
		req.fd = -1;
		req.req_fd = -1;
		status = m->handler(ctx, it->second, &req, tb[kAttrMethod].c_str(), InFrame::attr(tb[kAttrData]));
		if (req.deferred)
			return;
	}
	if (!no_reply && !impl(ctx)->dead)
		send_status(ctx, f.hdr.seq, f.hdr.peer, objid, status);
}

void dispatch(ubus_context *ctx, const InFrame &f)
{
	switch (f.hdr.type) {
	case kStatus:
	case kData:
		return handle_reply(ctx, f);
	case kInvoke:
		return handle_invoke(ctx, f);
	default:
		return;  // HELLO again, or something this client never asked for
	}
}

void dispatch_queued(ubus_context *ctx)
{
	Impl *im = impl(ctx);
	while (!im->queued.empty() && ctx->stack_depth == 0) {
		std::unique_ptr<InFrame> f = std::move(im->queued.front());
		im->queued.pop_front();
		handle_invoke(ctx, *f);
	}
}

// While a synchronous call waits, replies are handled and everything else
// is held back, so the program never sees a callback in the middle of it.
void take_input_sync(ubus_context *ctx)
{
	std::unique_ptr<InFrame> f;
	while (next_frame(ctx, f)) {
		if (f->hdr.type == kInvoke)
			impl(ctx)->queued.push_back(std::move(f));
		else
			dispatch(ctx, *f);
	}
}

// One wait for the socket. false: the connection is gone.
bool wait_io(ubus_context *ctx, int timeout_ms)
{
	Impl *im = impl(ctx);
	if (im->dead)
		return false;
	pollfd pfd{ctx->sock.fd, static_cast<short>(POLLIN | (im->out.empty() ? 0 : POLLOUT)), 0};
	int n = poll(&pfd, 1, timeout_ms);
	if (n < 0)
		return errno == EINTR;
	if (n == 0)
		return true;
	if ((pfd.revents & POLLOUT) && !flush(ctx)) {
		connection_lost(ctx);
		return false;
	}
	if (pfd.revents & (POLLIN | POLLHUP | POLLERR)) {
		ssize_t r = read_some(ctx);
		take_input_sync(ctx);
		if (r == 0 || r == -2) {
			connection_lost(ctx);
			return false;
		}
	}
	return !im->dead;
}

}  // namespace

int send_frame(ubus_context *ctx, std::span<const uint8_t> frame)
{
	Impl *im = impl(ctx);
	if (im->dead || ctx->sock.fd < 0)
		return UBUS_STATUS_CONNECTION_FAILED;
	if (frame.size() - kHeaderLen - 4 > kMaxBody)
		return UBUS_STATUS_INVALID_ARGUMENT;
	if (im->out_bytes + frame.size() > kMaxOutBytes)
		return UBUS_STATUS_NO_MEMORY;
	im->out.emplace_back(frame.begin(), frame.end());
	im->out_bytes += frame.size();
	if (!flush(ctx)) {
		connection_lost(ctx);
		return UBUS_STATUS_CONNECTION_FAILED;
	}
	if (ctx->sock.registered) {
		update_write_interest(ctx);
	} else {
		// Nobody will tell us when the socket drains: wait a bounded time.
		int64_t end = now_ms() + 5000;
		while (!im->out.empty() && !im->dead && now_ms() < end) {
			pollfd pfd{ctx->sock.fd, POLLOUT, 0};
			if (poll(&pfd, 1, 100) > 0 && !flush(ctx))
				connection_lost(ctx);
		}
	}
	return 0;
}

int start_request(ubus_context *ctx, ubus_request *req, uint32_t peer)
{
	Impl *im = impl(ctx);
	std::memset(req, 0, sizeof(*req));
	req->ctx = ctx;
	req->peer = peer;
	req->fd = -1;
	req->seq = ++ctx->request_seq;
	// The seq is patched into the frame built by the caller.
	std::vector<uint8_t> &buf = im->builder.buffer();
	store_be16(buf.data() + 2, req->seq);
	store_be32(buf.data() + 4, peer);
	im->requests[req->seq] = req;
	int ret = send_frame(ctx, im->builder.finish());
	if (ret)
		im->requests.erase(req->seq);
	return ret;
}

int wait_request(ubus_context *ctx, ubus_request *req, int timeout)
{
	Impl *im = impl(ctx);
	int64_t deadline = timeout > 0 ? now_ms() + timeout : 0;
	take_input_sync(ctx);
	while (!req->status_msg) {
		int wait = -1;
		if (deadline) {
			int64_t left = deadline - now_ms();
			if (left <= 0) {
				im->requests.erase(req->seq);
				req->status_code = UBUS_STATUS_TIMEOUT;
				req->status_msg = true;
				break;
			}
			wait = static_cast<int>(left);
		}
		if (!wait_io(ctx, wait) && !req->status_msg) {
			req->status_code = UBUS_STATUS_CONNECTION_FAILED;
			req->status_msg = true;
		}
	}
	return req->status_code;
}

SyncScope::SyncScope(ubus_context *ctx) : ctx_(ctx)
{
	ctx_->stack_depth++;
}

SyncScope::~SyncScope()
{
	// Calls and events that came in meanwhile run once the outermost
	// synchronous function has finished its own bookkeeping.
	if (--ctx_->stack_depth > 0 || !impl(ctx_) || impl(ctx_)->queued.empty())
		return;
	if (ctx_->sock.registered)
		uloop_timeout_set(&ctx_->pending_timer, 1);
	else
		dispatch_queued(ctx_);
}

void sock_cb(uloop_fd *u, unsigned int events)
{
	ubus_context *ctx = reinterpret_cast<ubus_context *>(reinterpret_cast<char *>(u) - offsetof(ubus_context, sock));
	Impl *im = impl(ctx);
	if (im->dead)
		return;
	if (ctx->sock.registered)
		im->attached = true;
	im->in_sock_cb = true;
	if ((events & ULOOP_WRITE) && !flush(ctx))
		connection_lost(ctx);
	dispatch_queued(ctx);
	// A bounded amount per call keeps other descriptors of the loop served;
	// the level-triggered socket brings us back for the rest. After a
	// hang-up uloop has dropped the socket, so read all that is left.
	bool hung_up = ctx->sock.eof || ctx->sock.error;
	for (int round = 0; (hung_up || round < 4) && !im->dead; round++) {
		ssize_t r = read_some(ctx);
		std::unique_ptr<InFrame> f;
		while (!im->dead && next_frame(ctx, f)) {
			if (ctx->stack_depth > 0 && f->hdr.type == kInvoke)
				im->queued.push_back(std::move(f));
			else
				dispatch(ctx, *f);
		}
		if (r == 0 || r == -2)
			connection_lost(ctx);
		if (r <= 0)
			break;
	}
	im->in_sock_cb = false;
	if (!im->dead)
		update_write_interest(ctx);
}

void pending_timer_cb(uloop_timeout *t)
{
	ubus_context *ctx = reinterpret_cast<ubus_context *>(reinterpret_cast<char *>(t) - offsetof(ubus_context, pending_timer));
	dispatch_queued(ctx);
}

void default_connection_lost(ubus_context *ctx)
{
	Impl *im = impl(ctx);
	// uloop drops a hung-up descriptor before its callback runs, so a
	// socket served by uloop may already look unregistered here.
	bool from_loop = im->in_sock_cb && (ctx->sock.eof || ctx->sock.error);
	if (ctx->sock.registered || im->attached || from_loop)
		uloop_end();
}

int open_connection(ubus_context *ctx, const char *path)
{
	Impl *im = impl(ctx);
	sockaddr_un addr{};
	addr.sun_family = AF_UNIX;
	if (!path)
		path = UBUS_UNIX_SOCKET;
	if (std::strlen(path) >= sizeof(addr.sun_path))
		return UBUS_STATUS_INVALID_ARGUMENT;
	std::strcpy(addr.sun_path, path);
	int fd = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
	if (fd < 0)
		return UBUS_STATUS_CONNECTION_FAILED;
	if (connect(fd, reinterpret_cast<sockaddr *>(&addr), sizeof(addr)) < 0) {
		close(fd);
		return UBUS_STATUS_CONNECTION_FAILED;
	}
	fcntl(fd, F_SETFL, fcntl(fd, F_GETFL) | O_NONBLOCK);
	ctx->sock.fd = fd;
	*im = Impl{};
	// The daemon greets every client with its id before anything else.
	int64_t end = now_ms() + 10000;
	std::unique_ptr<InFrame> f;
	while (!im->dead) {
		if (next_frame(ctx, f))
			break;
		int left = static_cast<int>(end - now_ms());
		pollfd pfd{fd, POLLIN, 0};
		if (left <= 0 || poll(&pfd, 1, left) <= 0 || read_some(ctx) <= 0)
			im->dead = true;
	}
	if (im->dead || f->hdr.type != kHello) {
		close_connection(ctx);
		return UBUS_STATUS_CONNECTION_FAILED;
	}
	ctx->local_id = f->hdr.peer;
	return 0;
}

void close_connection(ubus_context *ctx)
{
	if (ctx->sock.registered)
		uloop_fd_delete(&ctx->sock);
	if (ctx->sock.fd >= 0)
		close(ctx->sock.fd);
	ctx->sock.fd = -1;
	impl(ctx)->dead = true;
}

}  // namespace ubus_impl
