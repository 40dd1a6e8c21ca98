// The broker without sockets: framing errors, bounded queues, routing.
#include "broker.h"

#include <gtest/gtest.h>

using namespace ubuswire;

namespace {

std::vector<uint8_t> frame(Builder &b)
{
	auto f = b.finish();
	return {f.begin(), f.end()};
}

// Pops every whole frame queued for a client.
std::vector<std::vector<uint8_t>> drain(ubusd::Broker &br, uint32_t id)
{
	std::vector<std::vector<uint8_t>> v;
	ubusd::Client *c = br.client(id);
	while (c && !c->out.empty()) {
		v.push_back(std::move(c->out.front()));
		c->out.pop_front();
	}
	if (c)
		c->out_bytes = 0;
	return v;
}

int status_of(const std::vector<uint8_t> &f)
{
	AttrTable tb;
	EXPECT_TRUE(parse_attrs(frame_body(f), tb));
	return tb[kAttrStatus] ? static_cast<int>(tb[kAttrStatus].u32()) : -1;
}

uint32_t add_object(ubusd::Broker &br, uint32_t cl, const char *path)
{
	Builder b;
	b.begin(kAddObject, 1, 0);
	b.put_string(kAttrObjPath, path);
	size_t sig = b.nest_start(kAttrSignature);
	size_t m = b.bm_start(kBmTable, "get");
	b.bm_u32("mac", kBmString);
	b.bm_end(m);
	b.nest_end(sig);
	EXPECT_TRUE(br.on_input(cl, frame(b)));
	auto out = drain(br, cl);
	EXPECT_EQ(out.size(), 2u);
	AttrTable tb;
	EXPECT_TRUE(parse_attrs(frame_body(out.at(0)), tb));
	return tb[kAttrObjId] ? tb[kAttrObjId].u32() : 0;
}

}  // namespace

TEST(Broker, HelloCarriesClientId)
{
	ubusd::Broker br;
	uint32_t a = br.add_client("root", "root");
	auto out = drain(br, a);
	ASSERT_EQ(out.size(), 1u);
	Header h = parse_header(out[0]);
	EXPECT_EQ(h.type, kHello);
	EXPECT_EQ(h.peer, a);
}

TEST(Broker, MalformedFrameClosesOnlyThatClient)
{
	ubusd::Broker br;
	uint32_t a = br.add_client("u", "g");
	uint32_t bad = br.add_client("u", "g");
	drain(br, a);
	drain(br, bad);
	uint32_t obj = add_object(br, a, "keep");
	ASSERT_NE(obj, 0u);
	// Version 1 can never become valid.
	std::vector<uint8_t> junk = {1, 5, 0, 1, 0, 0, 0, 0, 0, 0, 0, 4};
	EXPECT_FALSE(br.on_input(bad, junk));
	EXPECT_EQ(br.take_doomed(), std::vector<uint32_t>{bad});
	br.remove_client(bad);
	EXPECT_EQ(br.client_count(), 1u);
	EXPECT_EQ(br.object_count(), 1u);
}

TEST(Broker, OversizedLengthIsRejected)
{
	ubusd::Broker br;
	uint32_t a = br.add_client("u", "g");
	std::vector<uint8_t> big = {0, 4, 0, 1, 0, 0, 0, 0, 0, 0x20, 0, 0};  // 2 MiB body
	EXPECT_FALSE(br.on_input(a, big));
}

TEST(Broker, BadAttributeInsideFrameIsRejected)
{
	ubusd::Broker br;
	uint32_t a = br.add_client("u", "g");
	Builder b;
	b.begin(kInvoke, 1, 0);
	b.put_raw(kAttrObjId, std::vector<uint8_t>{1, 2});  // an id must be 4 bytes
	EXPECT_FALSE(br.on_input(a, frame(b)));
}

TEST(Broker, FramesMayArriveByteByByte)
{
	ubusd::Broker br;
	uint32_t a = br.add_client("u", "g");
	drain(br, a);
	Builder b;
	b.begin(kLookup, 9, 0);
	auto f = frame(b);
	for (uint8_t byte : f)
		ASSERT_TRUE(br.on_input(a, std::span<const uint8_t>(&byte, 1)));
	auto out = drain(br, a);
	ASSERT_EQ(out.size(), 1u);
	EXPECT_EQ(parse_header(out[0]).seq, 9);
	EXPECT_EQ(status_of(out[0]), kOk);
}

TEST(Broker, StuckClientIsDroppedNotBuffered)
{
	ubusd::Limits lim;
	lim.max_out_bytes = 4096;
	ubusd::Broker br(lim);
	uint32_t reader = br.add_client("u", "g");
	uint32_t stuck = br.add_client("u", "g");
	drain(br, reader);
	// stuck never drains: lookups pile up answers until it is dropped.
	Builder b;
	for (int i = 0; i < 1000 && br.take_doomed().empty(); i++) {
		b.begin(kLookup, static_cast<uint16_t>(i), 0);
		br.on_input(stuck, frame(b));
		ASSERT_LE(br.client(stuck)->out_bytes, lim.max_out_bytes);
	}
	EXPECT_TRUE(br.client(stuck)->doomed);
	EXPECT_FALSE(br.client(reader)->doomed);
}

TEST(Broker, RepliesOnlyFromTheCalledOwner)
{
	ubusd::Broker br;
	uint32_t owner = br.add_client("u", "g");
	uint32_t caller = br.add_client("u", "g");
	uint32_t intruder = br.add_client("u", "g");
	drain(br, owner);
	drain(br, caller);
	drain(br, intruder);
	uint32_t obj = add_object(br, owner, "o");
	Builder b;
	b.begin(kInvoke, 5, obj);
	b.put_u32(kAttrObjId, obj);
	b.put_string(kAttrMethod, "get");
	b.put_raw(kAttrData, {});
	ASSERT_TRUE(br.on_input(caller, frame(b)));
	auto inv = drain(br, owner);
	ASSERT_EQ(inv.size(), 1u);
	EXPECT_EQ(parse_header(inv[0]).peer, caller);
	// A forged status from another client goes nowhere.
	b.begin(kStatus, 5, caller);
	b.put_u32(kAttrStatus, 0);
	b.put_u32(kAttrObjId, obj);
	ASSERT_TRUE(br.on_input(intruder, frame(b)));
	EXPECT_TRUE(drain(br, caller).empty());
	ASSERT_TRUE(br.on_input(owner, frame(b)));
	auto st = drain(br, caller);
	ASSERT_EQ(st.size(), 1u);
	EXPECT_EQ(parse_header(st[0]).peer, obj);
	EXPECT_EQ(status_of(st[0]), kOk);
}

TEST(Broker, DeadOwnerFailsPendingCalls)
{
	ubusd::Broker br;
	uint32_t owner = br.add_client("u", "g");
	uint32_t caller = br.add_client("u", "g");
	drain(br, owner);
	drain(br, caller);
	uint32_t obj = add_object(br, owner, "o");
	Builder b;
	b.begin(kInvoke, 3, obj);
	b.put_u32(kAttrObjId, obj);
	b.put_string(kAttrMethod, "get");
	b.put_raw(kAttrData, {});
	ASSERT_TRUE(br.on_input(caller, frame(b)));
	br.remove_client(owner);
	auto st = drain(br, caller);
	ASSERT_EQ(st.size(), 1u);
	EXPECT_EQ(status_of(st[0]), kNotFound);
	EXPECT_EQ(br.object_count(), 0u);
}

TEST(Broker, StoredStateIsBoundedPerClient)
{
	ubusd::Limits lim;
	lim.max_state_bytes = 64 * 1024;
	ubusd::Broker br(lim);
	uint32_t a = br.add_client("u", "g");
	drain(br, a);
	uint32_t obj = add_object(br, a, "listener");
	ASSERT_NE(obj, 0u);
	std::string pattern(1000, 'p');
	int last = kOk;
	for (int i = 0; i < 200 && last == kOk; i++) {
		pattern[0] = static_cast<char>('a' + i % 26);
		pattern[1] = static_cast<char>('a' + i / 26);
		Builder b;
		b.begin(kInvoke, static_cast<uint16_t>(i), kEventObject);
		b.put_u32(kAttrObjId, kEventObject);
		b.put_string(kAttrMethod, "register");
		size_t d = b.nest_start(kAttrData);
		b.bm_u32("object", obj);
		b.bm_string("pattern", pattern);
		b.nest_end(d);
		ASSERT_TRUE(br.on_input(a, frame(b)));
		auto out = drain(br, a);
		ASSERT_EQ(out.size(), 1u);
		last = status_of(out[0]);
	}
	EXPECT_EQ(last, kNoMemory);
	EXPECT_LE(br.client(a)->state_bytes, lim.max_state_bytes);
}
