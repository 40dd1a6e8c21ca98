#include "broker.h"

#include <algorithm>
#include <cstring>

namespace ubusd {

using namespace ubuswire;

Broker::Broker(Limits limits, uint32_t seed) : limits_(limits), rng_(seed) {}

uint32_t Broker::new_id()
{
	// Ids are random so that a stale id held by a client rarely names a
	// new object; all kinds share one space so no id means two things.
	for (;;) {
		uint32_t id = limits_.sequential_ids ? next_seq_id_++ : static_cast<uint32_t>(rng_());
		if (id >= kFirstDynamicId && ids_.insert(id).second)
			return id;
	}
}

Client *Broker::client(uint32_t id)
{
	auto it = clients_.find(id);
	return it == clients_.end() ? nullptr : it->second.get();
}

std::vector<uint32_t> Broker::take_dirty()
{
	std::vector<uint32_t> v(dirty_.begin(), dirty_.end());
	dirty_.clear();
	return v;
}

std::vector<uint32_t> Broker::take_doomed()
{
	std::vector<uint32_t> v;
	v.swap(doomed_);
	return v;
}

uint32_t Broker::add_client(std::string user, std::string group)
{
	auto cl = std::make_unique<Client>();
	cl->id = new_id();
	cl->user = std::move(user);
	cl->group = std::move(group);
	Client &ref = *cl;
	clients_.emplace(ref.id, std::move(cl));
	out_.begin(kHello, 0, ref.id);
	queue(ref, out_.finish());
	return ref.id;
}

void Broker::queue(Client &cl, std::span<const uint8_t> frame)
{
	if (cl.doomed)
		return;
	// A client that does not read is dropped rather than allowed to hold
	// the broker's memory hostage.
	if (cl.out_bytes + frame.size() > limits_.max_out_bytes) {
		cl.doomed = true;
		doomed_.push_back(cl.id);
		return;
	}
	cl.out.emplace_back(frame.begin(), frame.end());
	cl.out_bytes += frame.size();
	dirty_.insert(cl.id);
}

bool Broker::on_input(uint32_t id, std::span<const uint8_t> bytes)
{
	Client *cl = client(id);
	if (!cl || cl->doomed)
		return false;
	cl->in.insert(cl->in.end(), bytes.begin(), bytes.end());
	size_t off = 0;
	for (;;) {
		size_t total = 0;
		std::span<const uint8_t> rest(cl->in.data() + off, cl->in.size() - off);
		Frame f = frame_size(rest, total);
		if (f == Frame::kIncomplete)
			break;
		if (f == Frame::kBad) {
			cl->doomed = true;
			doomed_.push_back(id);
			return false;
		}
		// Handling may queue output for this client but never touches its
		// input buffer, so the span stays valid.
		handle_frame(*cl, rest.first(total));
		off += total;
		if (cl->doomed)
			return false;
	}
	cl->in.erase(cl->in.begin(), cl->in.begin() + static_cast<std::ptrdiff_t>(off));
	return true;
}

void Broker::handle_frame(Client &cl, std::span<const uint8_t> frame)
{
	Header h = parse_header(frame);
	AttrTable tb;
	if (!parse_attrs(frame_body(frame), tb)) {
		cl.doomed = true;
		doomed_.push_back(cl.id);
		return;
	}
	dispatch(cl, h, tb, frame);
}

void Broker::dispatch(Client &cl, const Header &h, const AttrTable &tb,
		      std::span<const uint8_t> frame)
{
	switch (h.type) {
	case kHello:
		return;
	case kStatus:
	case kData:
		return handle_reply(cl, h, tb, frame);
	case kPing:
		out_.begin(kData, h.seq, h.peer);
		return queue(cl, out_.finish());
	case kLookup:
		return handle_lookup(cl, h, tb);
	case kInvoke:
		return handle_invoke(cl, h, tb);
	case kAddObject:
		if (int st = handle_add(cl, h, tb))
			send_status(cl, h, st, 0, false);
		return;
	case kRemoveObject:
		if (int st = handle_remove(cl, h, tb))
			send_status(cl, h, st, 0, false);
		return;
	case kSubscribe:
	case kUnsubscribe:
	case kNotify:
	case kMonitor:
		return send_status(cl, h, kNotSupported, 0, false);
	default:
		return send_status(cl, h, kInvalidCommand, 0, false);
	}
}

void Broker::send_status(Client &cl, const Header &h, int status, uint32_t objid, bool with_obj)
{
	out_.begin(kStatus, h.seq, h.peer);
	out_.put_u32(kAttrStatus, static_cast<uint32_t>(status));
	if (with_obj)
		out_.put_u32(kAttrObjId, objid);
	queue(cl, out_.finish());
}

// An answer of an object owner to a call: forwarded to the caller only if
// the broker routed that call to this owner, so nobody can inject replies.
void Broker::handle_reply(Client &cl, const Header &h, const AttrTable &tb,
			  std::span<const uint8_t> frame)
{
	auto it = pending_.find(PendingKey{cl.id, h.peer, h.seq});
	if (it == pending_.end())
		return;
	uint32_t object = it->second.object;
	if (tb[kAttrObjId] && tb[kAttrObjId].u32() != object)
		return;
	if (h.type == kStatus) {
		pending_age_[cl.id].erase(it->second.age);
		pending_.erase(it);
	}
	Client *caller = client(h.peer);
	if (!caller)
		return;
	std::vector<uint8_t> copy(frame.begin(), frame.end());
	store_be32(copy.data() + 4, object);
	queue(*caller, copy);
}

void Broker::add_pending(uint32_t owner, uint32_t caller, uint16_t seq, uint32_t object)
{
	PendingKey key{owner, caller, seq};
	auto &ages = pending_age_[owner];
	auto old = pending_.find(key);
	if (old != pending_.end()) {
		ages.erase(old->second.age);
		pending_.erase(old);
	}
	if (ages.size() >= limits_.max_pending_per_owner) {
		// The owner sits on too many calls: the oldest caller is told it
		// timed out, so the table stays bounded.
		PendingKey oldest = ages.front();
		ages.pop_front();
		auto it = pending_.find(oldest);
		uint32_t obj = it->second.object;
		pending_.erase(it);
		if (Client *c = client(oldest.caller))
			send_status(*c, Header{0, kStatus, oldest.seq, obj}, kTimeout, obj, true);
	}
	ages.push_back(key);
	pending_.emplace(key, Pending{object, std::prev(ages.end())});
}

void Broker::fail_pending_of(uint32_t owner)
{
	auto ages = pending_age_.find(owner);
	if (ages == pending_age_.end())
		return;
	for (const PendingKey &key : ages->second) {
		auto it = pending_.find(key);
		uint32_t obj = it->second.object;
		pending_.erase(it);
		if (Client *c = client(key.caller))
			send_status(*c, Header{0, kStatus, key.seq, obj}, kNotFound, obj, true);
	}
	pending_age_.erase(ages);
}

void Broker::send_lookup_entry(Client &cl, const Header &h, const Object &o)
{
	out_.begin(kData, h.seq, h.peer);
	out_.put_string(kAttrObjPath, o.path);
	out_.put_u32(kAttrObjId, o.id);
	out_.put_u32(kAttrObjType, o.type);
	auto t = types_.find(o.type);
	if (t != types_.end())
		out_.put_raw(kAttrSignature, t->second.signature);
	else
		out_.put_raw(kAttrSignature, {});
	queue(cl, out_.finish());
}

void Broker::handle_lookup(Client &cl, const Header &h, const AttrTable &tb)
{
	if (!tb[kAttrObjPath]) {
		for (const auto &[path, id] : paths_)
			send_lookup_entry(cl, h, objects_.at(id));
		return send_status(cl, h, kOk, 0, false);
	}
	std::string_view path = tb[kAttrObjPath].str();
	bool found = false;
	if (!path.empty() && path.back() == '*') {
		std::string_view prefix = path.substr(0, path.size() - 1);
		for (auto it = paths_.lower_bound(prefix);
		     it != paths_.end() && std::string_view(it->first).starts_with(prefix); ++it) {
			send_lookup_entry(cl, h, objects_.at(it->second));
			found = true;
		}
	} else if (auto it = paths_.find(path); it != paths_.end()) {
		send_lookup_entry(cl, h, objects_.at(it->second));
		found = true;
	}
	send_status(cl, h, found ? kOk : kNotFound, 0, false);
}

void Broker::handle_invoke(Client &cl, const Header &h, const AttrTable &tb)
{
	if (!tb[kAttrObjId])
		return send_status(cl, h, kInvalidArgument, 0, false);
	uint32_t objid = tb[kAttrObjId].u32();
	if (!tb[kAttrMethod])
		return send_status(cl, h, kInvalidArgument, objid, true);
	if (objid == kEventObject) {
		std::string_view method = tb[kAttrMethod].str();
		int st = kMethodNotFound;
		if (method == "register")
			st = event_register(cl, tb);
		else if (method == "send")
			st = event_send(cl, tb);
		return send_status(cl, h, st, objid, true);
	}
	auto it = objects_.find(objid);
	if (it == objects_.end())
		return send_status(cl, h, kNotFound, objid, true);
	Client *owner = client(it->second.client);
	bool no_reply = tb[kAttrNoReply] && tb[kAttrNoReply].u8();
	out_.begin(kInvoke, h.seq, cl.id);
	out_.put_u32(kAttrObjId, objid);
	out_.put_string(kAttrMethod, tb[kAttrMethod].str());
	if (tb[kAttrData])
		out_.put_raw(kAttrData, tb[kAttrData].payload());
	if (no_reply)
		out_.put_u8(kAttrNoReply, 1);
	out_.put_string(kAttrUser, cl.user);
	out_.put_string(kAttrGroup, cl.group);
	queue(*owner, out_.finish());
	// After queueing: evicting an old call builds a frame of its own.
	if (!no_reply)
		add_pending(owner->id, cl.id, h.seq, objid);
}

namespace {

// A signature is a list of tables named after methods, each holding one
// integer per argument (its blobmsg type).
bool signature_ok(std::span<const uint8_t> sig)
{
	std::vector<BmElem> methods, args;
	if (!bm_parse(sig, methods))
		return false;
	for (const BmElem &m : methods) {
		if (m.type != kBmTable || m.name.empty() || !bm_parse(m.value, args))
			return false;
		for (const BmElem &a : args)
			if (a.type != kBmInt32)
				return false;
	}
	return true;
}

}  // namespace

int Broker::handle_add(Client &cl, const Header &h, const AttrTable &tb)
{
	if (cl.objects.size() >= limits_.max_objects_per_client)
		return kNoMemory;
	std::string path;
	if (tb[kAttrObjPath]) {
		path = tb[kAttrObjPath].str();
		if (path.empty() || paths_.count(path))
			return kInvalidArgument;
	}
	size_t cost = path.size() + (tb[kAttrSignature] ? tb[kAttrSignature].len : 0) + sizeof(Object);
	if (cl.state_bytes + cost > limits_.max_state_bytes)
		return kNoMemory;
	uint32_t type = 0;
	if (tb[kAttrSignature]) {
		if (!signature_ok(tb[kAttrSignature].payload()))
			return kInvalidArgument;
		type = new_id();
		auto sig = tb[kAttrSignature].payload();
		types_.emplace(type, Type{type, {sig.begin(), sig.end()}, 0});
	} else if (tb[kAttrObjType]) {
		type = tb[kAttrObjType].u32();
		if (!types_.count(type))
			return kInvalidArgument;
	}
	if (type)
		types_.at(type).refs++;
	Object o;
	o.id = new_id();
	o.client = cl.id;
	o.type = type;
	o.path = std::move(path);
	o.charged = cost;
	cl.state_bytes += cost;
	if (!o.path.empty())
		paths_.emplace(o.path, o.id);
	cl.objects.push_back(o.id);
	const Object &ref = objects_.emplace(o.id, std::move(o)).first->second;

	out_.begin(kData, h.seq, h.peer);
	out_.put_u32(kAttrObjId, ref.id);
	out_.put_u32(kAttrObjType, ref.type);
	queue(cl, out_.finish());
	send_status(cl, h, kOk, 0, false);
	if (!ref.path.empty())
		emit_object_event("ubus.object.add", ref);
	return kOk;
}

int Broker::handle_remove(Client &cl, const Header &h, const AttrTable &tb)
{
	if (!tb[kAttrObjId])
		return kInvalidArgument;
	uint32_t id = tb[kAttrObjId].u32();
	auto it = objects_.find(id);
	if (it == objects_.end() || it->second.client != cl.id)
		return kNotFound;
	out_.begin(kData, h.seq, h.peer);
	out_.put_u32(kAttrObjId, id);
	out_.put_u32(kAttrObjType, it->second.type);
	queue(cl, out_.finish());
	send_status(cl, h, kOk, 0, false);
	remove_object(id);
	return kOk;
}

void Broker::remove_object(uint32_t id)
{
	auto it = objects_.find(id);
	if (it == objects_.end())
		return;
	Object o = std::move(it->second);
	objects_.erase(it);
	ids_.erase(id);
	if (Client *cl = client(o.client)) {
		std::erase(cl->objects, id);
		cl->state_bytes -= o.charged;
	}
	std::erase(listeners_, id);
	if (o.type) {
		auto t = types_.find(o.type);
		if (t != types_.end() && --t->second.refs == 0) {
			ids_.erase(o.type);
			types_.erase(t);
		}
	}
	if (!o.path.empty()) {
		paths_.erase(o.path);
		emit_object_event("ubus.object.remove", o);
	}
}

void Broker::remove_client(uint32_t id)
{
	auto it = clients_.find(id);
	if (it == clients_.end())
		return;
	it->second->doomed = true;  // queue nothing more for it
	std::vector<uint32_t> objs = it->second->objects;
	for (uint32_t o : objs)
		remove_object(o);
	fail_pending_of(id);
	clients_.erase(id);
	ids_.erase(id);
	dirty_.erase(id);
}

bool Broker::pattern_match(std::string_view pattern, std::string_view name)
{
	if (!pattern.empty() && pattern.back() == '*')
		return name.starts_with(pattern.substr(0, pattern.size() - 1));
	return pattern == name;
}

int Broker::event_register(Client &cl, const AttrTable &tb)
{
	std::vector<BmElem> args;
	if (!tb[kAttrData] || !bm_parse(tb[kAttrData].payload(), args))
		return kInvalidArgument;
	const BmElem *obj = bm_find(args, "object", kBmInt32);
	const BmElem *pat = bm_find(args, "pattern", kBmString);
	if (!obj || !pat)
		return kInvalidArgument;
	std::string_view pattern(reinterpret_cast<const char *>(pat->value.data()), pat->value.size() - 1);
	if (pattern.empty() || pattern.size() != std::strlen(pattern.data()))
		return kPermissionDenied;
	auto it = objects_.find(load_be32(obj->value.data()));
	if (it == objects_.end() || it->second.client != cl.id)
		return kNotFound;
	Object &o = it->second;
	if (std::find(o.patterns.begin(), o.patterns.end(), pattern) != o.patterns.end())
		return kOk;
	if (o.patterns.size() >= limits_.max_patterns_per_object ||
	    cl.state_bytes + pattern.size() > limits_.max_state_bytes)
		return kNoMemory;
	cl.state_bytes += pattern.size();
	o.charged += pattern.size();
	if (o.patterns.empty())
		listeners_.push_back(o.id);
	o.patterns.emplace_back(pattern);
	return kOk;
}

int Broker::event_send(Client &cl, const AttrTable &tb)
{
	std::vector<BmElem> args;
	if (!tb[kAttrData] || !bm_parse(tb[kAttrData].payload(), args))
		return kInvalidArgument;
	const BmElem *name = bm_find(args, "id", kBmString);
	if (!name)
		return kInvalidArgument;
	std::string_view id(reinterpret_cast<const char *>(name->value.data()), name->value.size() - 1);
	if (id.size() != std::strlen(id.data()))
		return kInvalidArgument;
	if (id.starts_with("ubus."))
		return kPermissionDenied;
	const BmElem *data = bm_find(args, "data", kBmTable);
	emit_event(cl.id, id, data ? data->value : std::span<const uint8_t>{});
	return kOk;
}

void Broker::emit_event(uint32_t sender, std::string_view name, std::span<const uint8_t> payload)
{
	// Copy: delivering may doom clients, which must not disturb the walk.
	std::vector<uint32_t> targets = listeners_;
	for (uint32_t id : targets) {
		auto it = objects_.find(id);
		if (it == objects_.end() || it->second.client == sender)
			continue;
		const Object &o = it->second;
		bool hit = std::any_of(o.patterns.begin(), o.patterns.end(),
				       [&](const std::string &p) { return pattern_match(p, name); });
		Client *owner = client(o.client);
		if (!hit || !owner)
			continue;
		out_.begin(kInvoke, 0, 0);
		out_.put_u32(kAttrObjId, o.id);
		out_.put_string(kAttrMethod, name);
		out_.put_raw(kAttrData, payload);
		out_.put_u8(kAttrNoReply, 1);
		queue(*owner, out_.finish());
	}
}

void Broker::emit_object_event(const char *name, const Object &o)
{
	Builder b;
	b.begin(kData, 0, 0);
	b.bm_u32("id", o.id);
	b.bm_string("path", o.path);
	std::span<const uint8_t> payload = frame_body(b.finish());
	std::vector<uint8_t> copy(payload.begin(), payload.end());
	emit_event(0, name, copy);
}

}  // namespace ubusd
