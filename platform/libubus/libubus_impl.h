// State of one bus connection that the public struct ubus_context has no
// room for, and the I/O routines shared by the library's source files.
#pragma once

#include <libubus.h>

#include <cstdint>
#include <deque>
#include <memory>
#include <span>
#include <string>
#include <unordered_map>
#include <vector>

#include "ubus_wire.h"

namespace ubus_impl {

// One received frame, copied into 4-byte aligned storage so that the
// blob_attr pointers handed to callbacks may be read as words.
struct InFrame {
	std::vector<uint32_t> store;
	size_t size = 0;
	ubuswire::Header hdr;
	ubuswire::AttrTable tb;
	const uint8_t *bytes() const { return reinterpret_cast<const uint8_t *>(store.data()); }
	blob_attr *root() const { return reinterpret_cast<blob_attr *>(const_cast<uint8_t *>(bytes()) + ubuswire::kHeaderLen); }
	static blob_attr *attr(const ubuswire::Attr &a) { return reinterpret_cast<blob_attr *>(const_cast<uint8_t *>(a.raw)); }
};

inline constexpr size_t kMaxOutBytes = 16u << 20;  // unsent bytes before sends fail

struct Impl {
	std::vector<uint8_t> in;
	size_t in_off = 0;
	std::deque<std::vector<uint8_t>> out;
	size_t out_off = 0;
	size_t out_bytes = 0;
	std::deque<std::unique_ptr<InFrame>> queued;  // calls and events held during a synchronous call
	std::unordered_map<uint32_t, ubus_object *> objects;
	std::unordered_map<uint16_t, ubus_request *> requests;
	ubuswire::Builder builder;
	bool dead = false;
	bool attached = false;  // the socket has been served by uloop
	bool in_sock_cb = false;
};

Impl *impl(ubus_context *ctx);

// Opens the socket and reads HELLO; 0 or a status code.
int open_connection(ubus_context *ctx, const char *path);
void close_connection(ubus_context *ctx);

// Queues a frame and writes what the socket takes now. 0 or a status.
int send_frame(ubus_context *ctx, std::span<const uint8_t> frame);
// Sends a request frame built in impl->builder and registers `req`.
int start_request(ubus_context *ctx, ubus_request *req, uint32_t peer);
// Held by every public function that waits for the daemon: while one is
// active, incoming calls and events are queued, not dispatched.
class SyncScope {
public:
	explicit SyncScope(ubus_context *ctx);
	~SyncScope();
	SyncScope(const SyncScope &) = delete;
	SyncScope &operator=(const SyncScope &) = delete;

private:
	ubus_context *ctx_;
};

// Waits for the status of `req`; 0 waits without limit. Call it within a
// SyncScope.
int wait_request(ubus_context *ctx, ubus_request *req, int timeout);
// Payload bytes of a root blob given by the program (nullptr: none).
std::span<const uint8_t> blob_payload(const blob_attr *msg);

void sock_cb(uloop_fd *u, unsigned int events);
void pending_timer_cb(uloop_timeout *t);
void default_connection_lost(ubus_context *ctx);

}  // namespace ubus_impl
