#include "recognition/name_packet.h"

#include <cstdio>
#include <cstring>

namespace
{

constexpr uint16_t QUERY_ID_BASE = 0x1000;
constexpr uint16_t QUERY_SEQ_MOD = 0x6000;
constexpr uint8_t TYPE_PTR = 0x0C;
constexpr uint8_t TYPE_NBSTAT = 0x21;

// NetBIOS node status reply: the name count, then entries of 18 bytes (15
// characters, a suffix, two flag bytes) from offset 57.
constexpr size_t NB_NAME_COUNT = 56;
constexpr size_t NB_TABLE = 57;
constexpr size_t NB_ENTRY_TEXT = 16;
constexpr size_t NB_ENTRY = 18;
constexpr size_t NB_GROUP_FIRST = 75;
constexpr size_t NB_GROUP_FLAG_STRIDE = 16;
constexpr uint8_t NB_GROUP_BIT = 0x80;

constexpr size_t MDNS_IP6_LABEL_LEN = 102;
constexpr size_t MDNS_IP4_ANSWER_SKIP = 12; // from the end of the question to the label length
constexpr size_t MDNS_IP4_ANSWER_TAIL = 6;  // bytes a reply must hold beyond the label

void put16(uint8_t *p, uint16_t v)
{
    p[0] = static_cast<uint8_t>(v >> 8);
    p[1] = static_cast<uint8_t>(v);
}

// The header of every query: identifier, no flags, one question.
void put_header(uint8_t *p, uint16_t id)
{
    std::memset(p, 0, 12);
    put16(p, id);
    put16(p + 4, 1);
}

// A reply as it lies in the zeroed receive buffer: bytes past the end read
// as 0, and nothing past the buffer is ever read.
struct reply_view {
    std::span<const uint8_t> bytes;
    uint8_t at(size_t i) const
    {
        return i < bytes.size() && i < NAME_REPLY_MAX ? bytes[i] : 0;
    }
};

bool one_answer(const reply_view &r)
{
    return r.at(6) == 0 && r.at(7) == 1;
}

size_t cut_blanks(char *text, size_t len)
{
    while (len > 0 && text[len - 1] == ' ')
        len--;
    text[len] = '\0';
    return len;
}

// An entry's text: up to its first 0 byte or 16 characters.
size_t entry_text(const reply_view &r, size_t at, char (&out)[17])
{
    size_t len = 0;
    while (len < NB_ENTRY_TEXT && r.at(at + len) != 0) {
        out[len] = static_cast<char>(r.at(at + len));
        len++;
    }
    out[len] = '\0';
    return len;
}

bool printable(const char *text, size_t len)
{
    for (size_t i = 0; i < len; i++) {
        auto c = static_cast<unsigned char>(text[i]);
        if (c < 0x20 || c > 0x7E)
            return false;
    }
    return true;
}

// The workgroup: the texts of the group entries after the first entry, one
// after the other, for the length goes on from one group entry to the next.
// The group flag of the i-th candidate is read at 75 + 16 * i, which is the
// flag byte of the first entry and a fixed place for the later ones. One
// text with a byte outside 0x20..0x7E and nothing is found.
void find_domain(const reply_view &r, netbios_result &out)
{
    size_t len = 0;
    bool found = false;
    for (size_t i = 1; i <= NETBIOS_GROUP_CANDIDATES; i++) {
        size_t entry = NB_GROUP_FIRST + NB_ENTRY * (i - 1);
        if (entry >= NAME_REPLY_MAX || r.at(entry) == 0)
            break;
        if (!(r.at(NB_GROUP_FIRST + NB_GROUP_FLAG_STRIDE * i) & NB_GROUP_BIT))
            continue;
        char text[17];
        size_t n = entry_text(r, entry, text);
        if (!printable(text, n)) {
            out.domain[0] = '\0';
            return;
        }
        // 53 candidates of 16 characters fill the buffer exactly.
        std::memcpy(out.domain + len, text, n);
        len += n;
        found = true;
    }
    if (!found)
        return;
    out.domain[len] = '\0';
    cut_blanks(out.domain, len);
    out.has_domain = true;
}

} // namespace

uint16_t next_query_id(uint16_t &sequence) noexcept
{
    uint16_t id = static_cast<uint16_t>(sequence + QUERY_ID_BASE);
    sequence = static_cast<uint16_t>((sequence + 1) % QUERY_SEQ_MOD);
    return id;
}

size_t netbios_build_query(std::span<uint8_t, NETBIOS_QUERY_LEN> packet, uint16_t id) noexcept
{
    uint8_t *p = packet.data();
    put_header(p, id);
    p[12] = 0x20;
    // The wildcard name "*" padded with zeros, in the half-byte encoding.
    p[13] = 'C';
    p[14] = 'K';
    std::memset(p + 15, 'A', 30);
    p[45] = 0;
    put16(p + 46, TYPE_NBSTAT);
    put16(p + 48, 1);
    return NETBIOS_QUERY_LEN;
}

bool netbios_parse_reply(std::span<const uint8_t> reply, uint16_t id, netbios_result &out) noexcept
{
    out = {};
    reply_view r{reply};
    if (reply.size() <= NB_NAME_COUNT)
        return false;
    if (r.at(0) != (id >> 8) || r.at(1) != (id & 0xFF) || !one_answer(r))
        return false;
    if (r.at(46) != 0 || r.at(47) != TYPE_NBSTAT || r.at(NB_NAME_COUNT) == 0)
        return false;
    size_t len = entry_text(r, NB_TABLE, out.name);
    out.name_len = cut_blanks(out.name, len);
    find_domain(r, out);
    return true;
}

size_t mdns_build_ip4_query(std::span<uint8_t, MDNS_IP4_QUERY_MAX> packet, uint16_t id, uint32_t ip) noexcept
{
    uint8_t *p = packet.data();
    put_header(p, id);
    const auto *octet = reinterpret_cast<const uint8_t *>(&ip);
    size_t at = 12;
    for (int i = 3; i >= 0; i--) {
        char digits[4];
        int n = snprintf(digits, sizeof(digits), "%u", static_cast<unsigned>(octet[i]));
        p[at++] = static_cast<uint8_t>(n);
        std::memcpy(p + at, digits, static_cast<size_t>(n));
        at += static_cast<size_t>(n);
    }
    static const uint8_t tail[] = {7, 'i', 'n', '-', 'a', 'd', 'd', 'r', 4, 'a', 'r', 'p', 'a', 0};
    std::memcpy(p + at, tail, sizeof(tail));
    at += sizeof(tail);
    put16(p + at, TYPE_PTR);
    put16(p + at + 2, 1);
    return at + 4;
}

int mdns_build_ip6_query(std::span<uint8_t, MDNS_IP6_QUERY_LEN> packet, uint16_t id,
                         const char *hex_text) noexcept
{
    if (!hex_text || strnlen(hex_text, 33) != 32)
        return 0;
    uint8_t *p = packet.data();
    put_header(p, id);
    size_t at = 12;
    for (int i = 31; i >= 0; i--) {
        p[at++] = 1;
        p[at++] = static_cast<uint8_t>(hex_text[i]);
    }
    static const uint8_t tail[] = {3, 'i', 'p', '6', 4, 'a', 'r', 'p', 'a', 0};
    std::memcpy(p + at, tail, sizeof(tail));
    at += sizeof(tail);
    put16(p + at, TYPE_PTR);
    put16(p + at + 2, 1);
    return static_cast<int>(at + 4);
}

int mdns_parse_ip4_reply(std::span<const uint8_t> reply, uint16_t id, size_t query_len,
                         std::span<char, NAME_TEXT_MAX> name) noexcept
{
    name[0] = '\0';
    reply_view r{reply};
    size_t received = reply.size() < NAME_REPLY_MAX ? reply.size() : NAME_REPLY_MAX;
    if (query_len < 30 || received < query_len)
        return -1;
    if (r.at(0) != (id >> 8) || r.at(1) != (id & 0xFF) || !one_answer(r))
        return -1;
    size_t label = query_len + MDNS_IP4_ANSWER_SKIP;
    size_t n = r.at(label);
    if (label + 1 + n + MDNS_IP4_ANSWER_TAIL > received)
        return -1;
    for (size_t i = 0; i < n; i++)
        name[i] = static_cast<char>(r.at(label + 1 + i));
    name[n] = '\0';
    return static_cast<int>(n);
}

int mdns_parse_ip6_reply(std::span<const uint8_t> reply, std::span<char, NAME_TEXT_MAX> name) noexcept
{
    name[0] = '\0';
    reply_view r{reply};
    if (!one_answer(r))
        return -1;
    size_t n = r.at(MDNS_IP6_LABEL_LEN);
    if (n > NAME_KEEP)
        n = NAME_KEEP;
    size_t received = reply.size() < NAME_REPLY_MAX ? reply.size() : NAME_REPLY_MAX;
    if (n == 0 || MDNS_IP6_LABEL_LEN + 1 + n > received)
        return 0;
    for (size_t i = 0; i < n; i++)
        name[i] = static_cast<char>(r.at(MDNS_IP6_LABEL_LEN + 1 + i));
    name[n] = '\0';
    return static_cast<int>(n);
}
