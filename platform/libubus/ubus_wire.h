// Encoding and decoding of ubus frames, shared by the library and the daemon.
//
// A frame is an 8-byte header (version, type, seq, peer; big-endian) and one
// root blob attribute (id 0, not extended) whose payload holds the message
// attributes. Decoding takes untrusted bytes and checks every length before
// it reads, so both sides may hand it whatever came off the socket.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <span>
#include <string_view>
#include <vector>

namespace ubuswire {

// The numbers of <ubusmsg.h>; kept here so that the daemon needs no libubox.
enum MsgType : uint8_t {
	kHello, kStatus, kData, kPing, kLookup, kInvoke, kAddObject,
	kRemoveObject, kSubscribe, kUnsubscribe, kNotify, kMonitor, kMsgLast
};
enum AttrId : uint8_t {
	kAttrUnspec, kAttrStatus, kAttrObjPath, kAttrObjId, kAttrMethod,
	kAttrObjType, kAttrSignature, kAttrData, kAttrTarget, kAttrActive,
	kAttrNoReply, kAttrSubscribers, kAttrUser, kAttrGroup, kAttrMax
};
enum BlobmsgType : uint8_t {
	kBmUnspec, kBmArray, kBmTable, kBmString, kBmInt64, kBmInt32,
	kBmInt16, kBmInt8, kBmDouble, kBmLast = kBmDouble
};
enum Status : int {
	kOk, kInvalidCommand, kInvalidArgument, kMethodNotFound, kNotFound,
	kNoData, kPermissionDenied, kTimeout, kNotSupported, kUnknownError,
	kConnectionFailed, kNoMemory, kParseError, kSystemError
};

inline constexpr size_t kHeaderLen = 8;
inline constexpr size_t kMaxBody = 1048576;  // bytes of one root payload
inline constexpr uint32_t kExtended = 0x80000000u;
inline constexpr uint32_t kEventObject = 1;
inline constexpr uint32_t kFirstDynamicId = 1024;

uint16_t load_be16(const uint8_t *p);
uint32_t load_be32(const uint8_t *p);
void store_be16(uint8_t *p, uint16_t v);
void store_be32(uint8_t *p, uint32_t v);
constexpr size_t pad4(size_t n) { return (n + 3) & ~size_t{3}; }

struct Header {
	uint8_t version = 0;
	uint8_t type = 0;
	uint16_t seq = 0;
	uint32_t peer = 0;
};

enum class Frame { kIncomplete, kOk, kBad };

// Looks at the start of a byte stream. kOk sets `total` to the size of the
// first whole frame (header plus padded root attribute); kBad means the
// stream can never become valid (wrong version, extended or non-zero root,
// or a body above kMaxBody).
Frame frame_size(std::span<const uint8_t> in, size_t &total);
Header parse_header(std::span<const uint8_t> frame);
// The payload of the root attribute of a whole frame.
std::span<const uint8_t> frame_body(std::span<const uint8_t> frame);

// One attribute: `raw` points at its 4-byte header (what a blob_attr * is).
struct Attr {
	const uint8_t *raw = nullptr;
	uint32_t len = 0;  // payload bytes
	explicit operator bool() const { return raw != nullptr; }
	const uint8_t *data() const { return raw + 4; }
	std::span<const uint8_t> payload() const { return {data(), len}; }
	uint32_t u32() const { return load_be32(data()); }
	uint8_t u8() const { return data()[0]; }
	std::string_view str() const { return {reinterpret_cast<const char *>(data()), len - 1}; }
	const char *c_str() const { return reinterpret_cast<const char *>(data()); }
};
using AttrTable = std::array<Attr, kAttrMax>;

// Splits a frame body into message attributes, checking the size of every
// known one (integers exact, strings NUL-terminated). false: malformed.
bool parse_attrs(std::span<const uint8_t> body, AttrTable &tb);

// One blobmsg element, checked like blobmsg_check_attr(attr, false).
struct BmElem {
	const uint8_t *raw = nullptr;
	size_t raw_len = 0;  // header and payload, unpadded
	uint8_t type = 0;
	std::string_view name;
	std::span<const uint8_t> value;
};
// Walks a sequence of blobmsg elements. false: an element is malformed or
// the bytes do not end on an element boundary.
bool bm_parse(std::span<const uint8_t> payload, std::vector<BmElem> &out);
// First element of `elems` called `name` whose type is `type`, or null.
const BmElem *bm_find(const std::vector<BmElem> &elems, std::string_view name, uint8_t type);

// Builds one frame. Offsets returned by the *_start calls survive growth.
class Builder {
public:
	void begin(uint8_t type, uint16_t seq, uint32_t peer);
	void put_u32(uint8_t id, uint32_t v);
	void put_u8(uint8_t id, uint8_t v);
	void put_string(uint8_t id, std::string_view s);
	void put_raw(uint8_t id, std::span<const uint8_t> payload);
	size_t nest_start(uint8_t id);
	void nest_end(size_t off);

	size_t bm_start(uint8_t type, std::string_view name);
	void bm_end(size_t off) { nest_end(off); }
	void bm_u32(std::string_view name, uint32_t v);
	void bm_string(std::string_view name, std::string_view s);
	// Appends already encoded attributes (e.g. the payload of a root blob).
	void append(std::span<const uint8_t> bytes);

	// Closes the root attribute and returns the whole frame.
	std::span<const uint8_t> finish();
	size_t body_size() const { return buf_.size() - kHeaderLen - 4; }
	std::vector<uint8_t> &buffer() { return buf_; }

private:
	size_t open(uint32_t id_bits);
	void pad();
	std::vector<uint8_t> buf_;
};

}  // namespace ubuswire
