// libubus: connecting, publishing objects, calls, replies and events.
#include "libubus_impl.h"

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <new>

using namespace ubuswire;
using ubus_impl::Impl;
using ubus_impl::impl;
using ubus_impl::InFrame;

// The codec carries its own copy of the protocol numbers.
static constexpr int num(int v) { return v; }
static_assert(num(UBUS_MSG_INVOKE) == kInvoke && num(UBUS_MSG_MONITOR) == kMonitor);
static_assert(num(UBUS_ATTR_DATA) == kAttrData && num(UBUS_ATTR_GROUP) == kAttrGroup &&
	      num(UBUS_ATTR_MAX) == kAttrMax);
static_assert(num(UBUS_STATUS_SYSTEM_ERROR) == kSystemError);
static_assert(num(BLOBMSG_TYPE_INT32) == kBmInt32 && num(BLOBMSG_TYPE_TABLE) == kBmTable);

namespace {

void build_signature(Builder &b, const ubus_object_type *type)
{
	size_t sig = b.nest_start(kAttrSignature);
	for (int i = 0; i < type->n_methods; i++) {
		const ubus_method *m = &type->methods[i];
		if (!m->name)
			continue;
		size_t tbl = b.bm_start(kBmTable, m->name);
		for (int j = 0; j < m->n_policy; j++) {
			const blobmsg_policy *p = &m->policy[j];
			if (!p->name || (m->mask && !(m->mask & (1ul << j))))
				continue;
			b.bm_u32(p->name, static_cast<uint32_t>(p->type));
		}
		b.bm_end(tbl);
	}
	b.nest_end(sig);
}

// Parses the attributes of a DATA reply handed to an internal callback.
bool reply_attrs(blob_attr *root, AttrTable &tb)
{
	return parse_attrs(ubus_impl::blob_payload(root), tb);
}

void add_object_cb(ubus_request *req, int, blob_attr *root)
{
	AttrTable tb;
	auto *obj = static_cast<ubus_object *>(req->priv);
	if (!reply_attrs(root, tb) || !tb[kAttrObjId])
		return;
	obj->id = tb[kAttrObjId].u32();
	if (obj->type && tb[kAttrObjType])
		obj->type->id = tb[kAttrObjType].u32();
}

struct LookupCall {
	ubus_lookup_handler_t cb;
	void *priv;
	uint32_t *id;
};

void lookup_cb(ubus_request *req, int, blob_attr *root)
{
	AttrTable tb;
	auto *call = static_cast<LookupCall *>(req->priv);
	if (!reply_attrs(root, tb) || !tb[kAttrObjId] || !tb[kAttrObjPath])
		return;
	if (call->id) {
		*call->id = tb[kAttrObjId].u32();
		call->id = nullptr;  // the first match wins
		return;
	}
	if (!call->cb)
		return;
	ubus_object_data data{};
	data.id = tb[kAttrObjId].u32();
	data.type_id = tb[kAttrObjType] ? tb[kAttrObjType].u32() : 0;
	data.path = tb[kAttrObjPath].c_str();
	data.signature = tb[kAttrSignature] ? InFrame::attr(tb[kAttrSignature]) : nullptr;
	call->cb(req->ctx, &data, call->priv);
}

int run_lookup(ubus_context *ctx, const char *path, LookupCall *call)
{
	Impl *im = impl(ctx);
	im->builder.begin(kLookup, 0, 0);
	if (path)
		im->builder.put_string(kAttrObjPath, path);
	ubus_request req;
	if (int ret = ubus_impl::start_request(ctx, &req, 0))
		return ret;
	req.raw_data_cb = lookup_cb;
	req.priv = call;
	return ubus_impl::wait_request(ctx, &req, 0);
}

int event_trampoline(ubus_context *ctx, ubus_object *obj, ubus_request_data *,
		     const char *method, blob_attr *msg)
{
	// The handler object is the first member of the event handler.
	auto *ev = reinterpret_cast<ubus_event_handler *>(obj);
	if (ev->cb)
		ev->cb(ctx, ev, method, msg);
	return 0;
}

const ubus_method event_catch_all = {nullptr, event_trampoline, 0, 0, nullptr, 0};

int call_event_service(ubus_context *ctx)
{
	ubus_request req;
	if (int ret = ubus_impl::start_request(ctx, &req, kEventObject))
		return ret;
	return ubus_impl::wait_request(ctx, &req, 0);
}

int add_object_once(ubus_context *ctx, ubus_object *obj)
{
	Builder &b = impl(ctx)->builder;
	b.begin(kAddObject, 0, 0);
	if (obj->name)
		b.put_string(kAttrObjPath, obj->name);
	if (obj->type) {
		if (obj->type->id)
			b.put_u32(kAttrObjType, obj->type->id);
		else
			build_signature(b, obj->type);
	}
	ubus_request req;
	if (int ret = ubus_impl::start_request(ctx, &req, 0))
		return ret;
	obj->id = 0;
	req.raw_data_cb = add_object_cb;
	req.priv = obj;
	return ubus_impl::wait_request(ctx, &req, 0);
}

bool init_context(ubus_context *ctx)
{
	std::memset(ctx, 0, sizeof(*ctx));
	Impl *im = new (std::nothrow) Impl;
	if (!im)
		return false;
	ctx->objects.cmp_ptr = im;
	INIT_LIST_HEAD(&ctx->requests);
	INIT_LIST_HEAD(&ctx->pending);
	ctx->sock.fd = -1;
	ctx->sock.cb = ubus_impl::sock_cb;
	ctx->pending_timer.cb = ubus_impl::pending_timer_cb;
	ctx->connection_lost = ubus_impl::default_connection_lost;
	return true;
}

}  // namespace

extern "C" {

int ubus_connect_ctx(struct ubus_context *ctx, const char *path)
{
	uloop_init();
	if (!init_context(ctx))
		return UBUS_STATUS_NO_MEMORY;
	int ret = ubus_impl::open_connection(ctx, path);
	if (ret) {
		delete impl(ctx);
		ctx->objects.cmp_ptr = nullptr;
	}
	return ret;
}

struct ubus_context *ubus_connect(const char *path)
{
	auto *ctx = static_cast<ubus_context *>(std::calloc(1, sizeof(ubus_context)));
	if (!ctx)
		return nullptr;
	if (ubus_connect_ctx(ctx, path)) {
		std::free(ctx);
		return nullptr;
	}
	return ctx;
}

int ubus_reconnect(struct ubus_context *ctx, const char *path)
{
	Impl *im = impl(ctx);
	if (!im)
		return UBUS_STATUS_INVALID_ARGUMENT;
	auto objects = std::move(im->objects);
	ubus_impl::close_connection(ctx);
	for (auto &[seq, req] : im->requests) {
		req->status_code = UBUS_STATUS_CONNECTION_FAILED;
		req->status_msg = true;
	}
	if (int ret = ubus_impl::open_connection(ctx, path))
		return ret;
	// The objects come back under new ids; event patterns do not.
	for (auto &[id, obj] : objects) {
		obj->id = 0;
		if (obj->type)
			obj->type->id = 0;
	}
	for (auto &[id, obj] : objects)
		ubus_add_object(ctx, obj);
	return 0;
}

void ubus_shutdown(struct ubus_context *ctx)
{
	Impl *im = impl(ctx);
	if (!im)
		return;
	uloop_timeout_cancel(&ctx->pending_timer);
	ubus_impl::close_connection(ctx);
	for (auto &[seq, req] : im->requests) {
		req->status_code = UBUS_STATUS_CONNECTION_FAILED;
		req->status_msg = true;
	}
	delete im;
	ctx->objects.cmp_ptr = nullptr;
}

void ubus_free(struct ubus_context *ctx)
{
	if (!ctx)
		return;
	ubus_shutdown(ctx);
	std::free(ctx);
}

const char *ubus_strerror(int error)
{
	static const char *const texts[] = {
		"Success", "Invalid command", "Invalid argument", "Method not found",
		"Not found", "No response", "Permission denied", "Request timed out",
		"Operation not supported", "Unknown error", "Connection failed",
		"Out of memory", "Parsing message data failed", "System error",
	};
	static thread_local char buf[32];
	if (error >= 0 && error < __UBUS_STATUS_LAST)
		return texts[error];
	std::snprintf(buf, sizeof(buf), "Unknown error: %d", error);
	return buf;
}

int ubus_add_object(struct ubus_context *ctx, struct ubus_object *obj)
{
	ubus_impl::SyncScope scope(ctx);
	Impl *im = impl(ctx);
	for (auto &[id, o] : im->objects)
		if (o == obj)
			return UBUS_STATUS_INVALID_ARGUMENT;
	int ret = add_object_once(ctx, obj);
	if (ret == UBUS_STATUS_INVALID_ARGUMENT && obj->type && obj->type->id) {
		// The cached type id may have died with its last object or with
		// an earlier daemon: publish the signature again.
		obj->type->id = 0;
		ret = add_object_once(ctx, obj);
	}
	if (ret)
		return ret;
	if (!obj->id)
		return UBUS_STATUS_NO_DATA;
	im->objects[obj->id] = obj;
	return 0;
}

int ubus_remove_object(struct ubus_context *ctx, struct ubus_object *obj)
{
	ubus_impl::SyncScope scope(ctx);
	Impl *im = impl(ctx);
	im->builder.begin(kRemoveObject, 0, 0);
	im->builder.put_u32(kAttrObjId, obj->id);
	ubus_request req;
	if (int ret = ubus_impl::start_request(ctx, &req, 0))
		return ret;
	int ret = ubus_impl::wait_request(ctx, &req, 0);
	if (ret == 0 || ret == UBUS_STATUS_NOT_FOUND) {
		auto it = im->objects.find(obj->id);
		if (it != im->objects.end() && it->second == obj)
			im->objects.erase(it);
	}
	if (ret == 0)
		obj->id = 0;
	return ret;
}

int ubus_lookup(struct ubus_context *ctx, const char *path, ubus_lookup_handler_t cb, void *priv)
{
	ubus_impl::SyncScope scope(ctx);
	LookupCall call{cb, priv, nullptr};
	return run_lookup(ctx, path, &call);
}

int ubus_lookup_id(struct ubus_context *ctx, const char *path, uint32_t *id)
{
	ubus_impl::SyncScope scope(ctx);
	if (!path || !id)
		return UBUS_STATUS_INVALID_ARGUMENT;
	uint32_t found = 0;
	LookupCall call{nullptr, nullptr, &found};
	int ret = run_lookup(ctx, path, &call);
	if (ret)
		return ret;
	if (!found)
		return UBUS_STATUS_NOT_FOUND;
	*id = found;
	return 0;
}

int ubus_invoke_async_fd(struct ubus_context *ctx, uint32_t obj, const char *method,
			 struct blob_attr *msg, struct ubus_request *req, int fd)
{
	(void)fd;  // descriptors do not travel on this bus
	if (!method)
		return UBUS_STATUS_INVALID_ARGUMENT;
	Builder &b = impl(ctx)->builder;
	b.begin(kInvoke, 0, obj);
	b.put_u32(kAttrObjId, obj);
	b.put_string(kAttrMethod, method);
	b.put_raw(kAttrData, ubus_impl::blob_payload(msg));
	if (b.body_size() > kMaxBody)
		return UBUS_STATUS_INVALID_ARGUMENT;
	return ubus_impl::start_request(ctx, req, obj);
}

int ubus_invoke_fd(struct ubus_context *ctx, uint32_t obj, const char *method,
		   struct blob_attr *msg, ubus_data_handler_t cb, void *priv, int timeout, int fd)
{
	ubus_impl::SyncScope scope(ctx);
	ubus_request req;
	if (int ret = ubus_invoke_async_fd(ctx, obj, method, msg, &req, fd))
		return ret;
	req.data_cb = cb;
	req.priv = priv;
	return ubus_impl::wait_request(ctx, &req, timeout);
}

int ubus_complete_request(struct ubus_context *ctx, struct ubus_request *req, int timeout)
{
	ubus_impl::SyncScope scope(ctx);
	return ubus_impl::wait_request(ctx, req, timeout);
}

void ubus_complete_request_async(struct ubus_context *, struct ubus_request *req)
{
	// Every started request is matched from the socket callback; its
	// complete_cb runs when the status arrives.
	req->blocked = false;
}

void ubus_abort_request(struct ubus_context *ctx, struct ubus_request *req)
{
	Impl *im = impl(ctx);
	auto it = im->requests.find(req->seq);
	if (it != im->requests.end() && it->second == req)
		im->requests.erase(it);
	req->cancelled = true;
}

int ubus_send_reply(struct ubus_context *ctx, struct ubus_request_data *req, struct blob_attr *msg)
{
	Builder &b = impl(ctx)->builder;
	b.begin(kData, req->seq, req->peer);
	b.put_u32(kAttrObjId, req->object);
	b.put_raw(kAttrData, ubus_impl::blob_payload(msg));
	return ubus_impl::send_frame(ctx, b.finish()) ? UBUS_STATUS_NO_DATA : 0;
}

void ubus_complete_deferred_request(struct ubus_context *ctx, struct ubus_request_data *req, int ret)
{
	Builder &b = impl(ctx)->builder;
	b.begin(kStatus, req->seq, req->peer);
	b.put_u32(kAttrStatus, static_cast<uint32_t>(ret));
	b.put_u32(kAttrObjId, req->object);
	ubus_impl::send_frame(ctx, b.finish());
}

int ubus_send_event(struct ubus_context *ctx, const char *id, struct blob_attr *data)
{
	ubus_impl::SyncScope scope(ctx);
	if (!id)
		return UBUS_STATUS_INVALID_ARGUMENT;
	Builder &b = impl(ctx)->builder;
	b.begin(kInvoke, 0, kEventObject);
	b.put_u32(kAttrObjId, kEventObject);
	b.put_string(kAttrMethod, "send");
	size_t d = b.nest_start(kAttrData);
	b.bm_string("id", id);
	size_t t = b.bm_start(kBmTable, "data");
	b.append(ubus_impl::blob_payload(data));
	b.bm_end(t);
	b.nest_end(d);
	if (b.body_size() > kMaxBody)
		return UBUS_STATUS_INVALID_ARGUMENT;
	return call_event_service(ctx);
}

int ubus_register_event_handler(struct ubus_context *ctx, struct ubus_event_handler *ev,
				const char *pattern)
{
	ubus_impl::SyncScope scope(ctx);
	ubus_object *obj = &ev->obj;
	if (!obj->id) {
		if (!!obj->name != !!obj->type)
			return UBUS_STATUS_INVALID_ARGUMENT;
		if (!obj->methods) {
			obj->methods = &event_catch_all;
			obj->n_methods = 1;
		}
		if (int ret = ubus_add_object(ctx, obj))
			return ret;
	}
	Builder &b = impl(ctx)->builder;
	b.begin(kInvoke, 0, kEventObject);
	b.put_u32(kAttrObjId, kEventObject);
	b.put_string(kAttrMethod, "register");
	size_t d = b.nest_start(kAttrData);
	b.bm_u32("object", obj->id);
	b.bm_string("pattern", pattern ? pattern : "");
	b.nest_end(d);
	return call_event_service(ctx);
}

}  // extern "C"
