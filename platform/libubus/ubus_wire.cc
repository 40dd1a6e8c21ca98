#include "ubus_wire.h"

#include <cstring>

namespace ubuswire {

uint16_t load_be16(const uint8_t *p)
{
	return static_cast<uint16_t>((p[0] << 8) | p[1]);
}

uint32_t load_be32(const uint8_t *p)
{
	return (uint32_t{p[0]} << 24) | (uint32_t{p[1]} << 16) | (uint32_t{p[2]} << 8) | p[3];
}

void store_be16(uint8_t *p, uint16_t v)
{
	p[0] = static_cast<uint8_t>(v >> 8);
	p[1] = static_cast<uint8_t>(v);
}

void store_be32(uint8_t *p, uint32_t v)
{
	p[0] = static_cast<uint8_t>(v >> 24);
	p[1] = static_cast<uint8_t>(v >> 16);
	p[2] = static_cast<uint8_t>(v >> 8);
	p[3] = static_cast<uint8_t>(v);
}

Frame frame_size(std::span<const uint8_t> in, size_t &total)
{
	if (!in.empty() && in[0] != 0)
		return Frame::kBad;
	if (in.size() < kHeaderLen + 4)
		return Frame::kIncomplete;
	uint32_t word = load_be32(in.data() + kHeaderLen);
	if (word & 0xff000000u)  // the root is id 0 and not extended
		return Frame::kBad;
	uint32_t raw = word & 0x00ffffffu;
	if (raw < 4 || raw - 4 > kMaxBody)
		return Frame::kBad;
	total = kHeaderLen + pad4(raw);
	return in.size() >= total ? Frame::kOk : Frame::kIncomplete;
}

Header parse_header(std::span<const uint8_t> frame)
{
	Header h;
	h.version = frame[0];
	h.type = frame[1];
	h.seq = load_be16(frame.data() + 2);
	h.peer = load_be32(frame.data() + 4);
	return h;
}

std::span<const uint8_t> frame_body(std::span<const uint8_t> frame)
{
	uint32_t raw = load_be32(frame.data() + kHeaderLen) & 0x00ffffffu;
	return frame.subspan(kHeaderLen + 4, raw - 4);
}

namespace {

// What a message attribute must look like to be used: exact integer
// sizes, strings with their terminating NUL inside the payload.
bool attr_size_ok(uint8_t id, uint32_t len, const uint8_t *data)
{
	switch (id) {
	case kAttrStatus:
	case kAttrObjId:
	case kAttrObjType:
	case kAttrTarget:
		return len == 4;
	case kAttrActive:
	case kAttrNoReply:
		return len == 1;
	case kAttrObjPath:
	case kAttrMethod:
	case kAttrUser:
	case kAttrGroup:
		return len >= 1 && data[len - 1] == 0;
	default:
		return true;
	}
}

bool bm_value_ok(uint8_t type, std::span<const uint8_t> v)
{
	switch (type) {
	case kBmInt8: return v.size() == 1;
	case kBmInt16: return v.size() == 2;
	case kBmInt32: return v.size() == 4;
	case kBmInt64: return v.size() == 8;
	case kBmDouble: return v.size() >= 8;
	case kBmString: return !v.empty() && v.back() == 0;
	default: return type <= kBmLast;
	}
}

}  // namespace

bool parse_attrs(std::span<const uint8_t> body, AttrTable &tb)
{
	tb = {};
	size_t off = 0;
	while (off < body.size()) {
		if (body.size() - off < 4)
			return false;
		const uint8_t *p = body.data() + off;
		uint32_t word = load_be32(p);
		uint32_t raw = word & 0x00ffffffu;
		if ((word & kExtended) || raw < 4 || pad4(raw) > body.size() - off)
			return false;
		uint8_t id = static_cast<uint8_t>((word >> 24) & 0x7f);
		uint32_t len = raw - 4;
		if (!attr_size_ok(id, len, p + 4))
			return false;
		if (id < kAttrMax)
			tb[id] = Attr{p, len};
		off += pad4(raw);
	}
	return true;
}

bool bm_parse(std::span<const uint8_t> payload, std::vector<BmElem> &out)
{
	out.clear();
	size_t off = 0;
	while (off < payload.size()) {
		if (payload.size() - off < 4)
			return false;
		const uint8_t *p = payload.data() + off;
		uint32_t word = load_be32(p);
		uint32_t raw = word & 0x00ffffffu;
		if (raw < 4 || pad4(raw) > payload.size() - off)
			return false;
		BmElem e;
		e.raw = p;
		e.raw_len = raw;
		e.type = static_cast<uint8_t>((word >> 24) & 0x7f);
		std::span<const uint8_t> pl(p + 4, raw - 4);
		if (word & kExtended) {
			if (pl.size() < 2)
				return false;
			size_t namelen = load_be16(pl.data());
			size_t hdr = pad4(2 + namelen + 1);
			if (hdr > pl.size() || pl[2 + namelen] != 0)
				return false;
			e.name = {reinterpret_cast<const char *>(pl.data() + 2), namelen};
			pl = pl.subspan(hdr);
		}
		if (!bm_value_ok(e.type, pl))
			return false;
		e.value = pl;
		out.push_back(e);
		off += pad4(raw);
	}
	return true;
}

const BmElem *bm_find(const std::vector<BmElem> &elems, std::string_view name, uint8_t type)
{
	for (const BmElem &e : elems)
		if (e.type == type && e.name == name)
			return &e;
	return nullptr;
}

void Builder::begin(uint8_t type, uint16_t seq, uint32_t peer)
{
	buf_.assign(kHeaderLen + 4, 0);
	buf_[1] = type;
	store_be16(&buf_[2], seq);
	store_be32(&buf_[4], peer);
}

size_t Builder::open(uint32_t id_bits)
{
	size_t off = buf_.size();
	buf_.resize(off + 4);
	store_be32(&buf_[off], id_bits);
	return off;
}

void Builder::pad()
{
	buf_.resize(pad4(buf_.size()), 0);
}

void Builder::nest_end(size_t off)
{
	uint32_t raw = static_cast<uint32_t>(buf_.size() - off);
	uint32_t bits = load_be32(&buf_[off]) & 0xff000000u;
	store_be32(&buf_[off], bits | (raw & 0x00ffffffu));
	pad();
}

size_t Builder::nest_start(uint8_t id)
{
	return open(uint32_t{id} << 24);
}

void Builder::put_raw(uint8_t id, std::span<const uint8_t> payload)
{
	size_t off = open(uint32_t{id} << 24);
	buf_.insert(buf_.end(), payload.begin(), payload.end());
	nest_end(off);
}

void Builder::put_u32(uint8_t id, uint32_t v)
{
	uint8_t b[4];
	store_be32(b, v);
	put_raw(id, b);
}

void Builder::put_u8(uint8_t id, uint8_t v)
{
	put_raw(id, std::span<const uint8_t>(&v, 1));
}

void Builder::put_string(uint8_t id, std::string_view s)
{
	size_t off = open(uint32_t{id} << 24);
	buf_.insert(buf_.end(), s.begin(), s.end());
	buf_.push_back(0);
	nest_end(off);
}

size_t Builder::bm_start(uint8_t type, std::string_view name)
{
	size_t off = open(kExtended | (uint32_t{type} << 24));
	size_t at = buf_.size();
	buf_.resize(at + pad4(2 + name.size() + 1), 0);
	store_be16(&buf_[at], static_cast<uint16_t>(name.size()));
	std::memcpy(&buf_[at + 2], name.data(), name.size());
	return off;
}

void Builder::bm_u32(std::string_view name, uint32_t v)
{
	size_t off = bm_start(kBmInt32, name);
	size_t at = buf_.size();
	buf_.resize(at + 4);
	store_be32(&buf_[at], v);
	bm_end(off);
}

void Builder::bm_string(std::string_view name, std::string_view s)
{
	size_t off = bm_start(kBmString, name);
	buf_.insert(buf_.end(), s.begin(), s.end());
	buf_.push_back(0);
	bm_end(off);
}

void Builder::append(std::span<const uint8_t> bytes)
{
	buf_.insert(buf_.end(), bytes.begin(), bytes.end());
	pad();
}

std::span<const uint8_t> Builder::finish()
{
	nest_end(kHeaderLen);
	return buf_;
}

}  // namespace ubuswire
