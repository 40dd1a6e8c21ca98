// The bus broker: clients, objects, routing of calls and replies, event
// fan-out. It does no I/O of its own: the transport feeds it the bytes a
// client sent and drains the bytes queued for each client, which keeps the
// broker testable and fuzzable without sockets.
#pragma once

#include <cstddef>
#include <cstdint>
#include <deque>
#include <list>
#include <map>
#include <memory>
#include <random>
#include <set>
#include <span>
#include <string>
#include <string_view>
#include <tuple>
#include <unordered_map>
#include <vector>

#include "ubus_wire.h"

namespace ubusd {


struct Limits {
	size_t max_out_bytes = 8u << 20;      // queued for one client before it is dropped
	size_t max_objects_per_client = 4096;
	size_t max_patterns_per_object = 256;
	size_t max_pending_per_owner = 1024;  // calls awaiting an answer from one client
	size_t max_state_bytes = 4u << 20;    // paths, signatures and patterns of one client
	bool sequential_ids = false;          // 1024, 1025, ... so a fuzzer can name them
};

struct Client {
	uint32_t id = 0;
	std::string user, group;
	std::vector<uint8_t> in;                 // bytes of an incomplete frame
	std::deque<std::vector<uint8_t>> out;    // whole frames waiting to be written
	size_t out_off = 0;                      // bytes of out.front() already written
	size_t out_bytes = 0;
	bool doomed = false;                     // to be closed by the transport
	size_t state_bytes = 0;                  // charged against Limits::max_state_bytes
	std::vector<uint32_t> objects;
};

struct Object {
	uint32_t id = 0;
	uint32_t client = 0;
	uint32_t type = 0;
	std::string path;  // empty for anonymous objects (event listeners)
	std::vector<std::string> patterns;
	size_t charged = 0;  // bytes this object holds in its client's budget
};

struct Type {
	uint32_t id = 0;
	std::vector<uint8_t> signature;  // payload of UBUS_ATTR_SIGNATURE
	size_t refs = 0;
};

class Broker {
public:
	explicit Broker(Limits limits = {}, uint32_t seed = std::random_device{}());

	// A new connection: queues HELLO and returns the client's id.
	uint32_t add_client(std::string user, std::string group);
	// Bytes read from a client. false: the stream is malformed and the client
	// has been marked doomed.
	bool on_input(uint32_t client, std::span<const uint8_t> bytes);
	// Drops a client with its objects, listeners and pending calls.
	void remove_client(uint32_t client);

	Client *client(uint32_t id);
	// Clients that got output since the last call, and clients to close.
	std::vector<uint32_t> take_dirty();
	std::vector<uint32_t> take_doomed();
	size_t client_count() const { return clients_.size(); }
	size_t object_count() const { return objects_.size(); }

private:
	struct PendingKey {
		uint32_t owner, caller;
		uint16_t seq;
		bool operator<(const PendingKey &o) const
		{
			return std::tie(owner, caller, seq) < std::tie(o.owner, o.caller, o.seq);
		}
	};
	struct Pending {
		uint32_t object;
		std::list<PendingKey>::iterator age;
	};

	void handle_frame(Client &cl, std::span<const uint8_t> frame);
	void dispatch(Client &cl, const ubuswire::Header &h, const ubuswire::AttrTable &tb,
		      std::span<const uint8_t> frame);
	void handle_reply(Client &cl, const ubuswire::Header &h, const ubuswire::AttrTable &tb,
			  std::span<const uint8_t> frame);
	void handle_lookup(Client &cl, const ubuswire::Header &h, const ubuswire::AttrTable &tb);
	void handle_invoke(Client &cl, const ubuswire::Header &h, const ubuswire::AttrTable &tb);
	int handle_add(Client &cl, const ubuswire::Header &h, const ubuswire::AttrTable &tb);
	int handle_remove(Client &cl, const ubuswire::Header &h, const ubuswire::AttrTable &tb);
	int event_register(Client &cl, const ubuswire::AttrTable &tb);
	int event_send(Client &cl, const ubuswire::AttrTable &tb);

	void send_status(Client &cl, const ubuswire::Header &h, int status, uint32_t objid, bool with_obj);
	void send_lookup_entry(Client &cl, const ubuswire::Header &h, const Object &o);
	void queue(Client &cl, std::span<const uint8_t> frame);
	void emit_event(uint32_t sender, std::string_view name, std::span<const uint8_t> payload);
	void emit_object_event(const char *name, const Object &o);
	void remove_object(uint32_t id);
	void add_pending(uint32_t owner, uint32_t caller, uint16_t seq, uint32_t object);
	void fail_pending_of(uint32_t owner);
	uint32_t new_id();
	static bool pattern_match(std::string_view pattern, std::string_view name);

	Limits limits_;
	std::mt19937 rng_;
	uint32_t next_seq_id_ = ubuswire::kFirstDynamicId;
	std::unordered_map<uint32_t, std::unique_ptr<Client>> clients_;
	std::unordered_map<uint32_t, Object> objects_;
	std::map<std::string, uint32_t, std::less<>> paths_;  // sorted, for lookups
	std::unordered_map<uint32_t, Type> types_;
	std::vector<uint32_t> listeners_;  // objects with patterns, in registration order
	std::set<uint32_t> ids_;
	std::map<PendingKey, Pending> pending_;
	std::unordered_map<uint32_t, std::list<PendingKey>> pending_age_;  // per owner, oldest first
	std::set<uint32_t> dirty_;
	std::vector<uint32_t> doomed_;
	ubuswire::Builder out_;
};

}  // namespace ubusd
