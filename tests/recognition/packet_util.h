// Replies as responders send them, for the parser tests and fuzz seeds.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

namespace packettest {

using bytes = std::vector<uint8_t>;

// One 18-byte entry of a node status name table.
inline bytes netbios_entry(const std::string &text, uint8_t suffix, uint16_t flags)
{
    bytes e(18, ' ');
    for (size_t i = 0; i < text.size() && i < 15; i++)
        e[i] = static_cast<uint8_t>(text[i]);
    e[15] = suffix;
    e[16] = static_cast<uint8_t>(flags >> 8);
    e[17] = static_cast<uint8_t>(flags);
    return e;
}

// A node status reply for the query `id`, with the given name entries.
inline bytes netbios_reply(uint16_t id, const std::vector<bytes> &entries, uint8_t answers = 1)
{
    bytes r = {static_cast<uint8_t>(id >> 8), static_cast<uint8_t>(id), 0x84, 0x00, 0, 0, 0, answers, 0, 0, 0, 0};
    r.push_back(0x20);
    r.push_back('C');
    r.push_back('K');
    r.insert(r.end(), 30, 'A');
    r.push_back(0);
    r.insert(r.end(), {0x00, 0x21, 0x00, 0x01, 0, 0, 0, 0, 0x00, 0x00});
    r.push_back(static_cast<uint8_t>(entries.size()));
    for (const auto &e : entries)
        r.insert(r.end(), e.begin(), e.end());
    r.insert(r.end(), 46, 0);
    return r;
}

// A legacy unicast reply to `query`: the question echoed, a compressed
// answer name and the PTR data `labels`.
inline bytes mdns_reply(const bytes &query, const std::vector<std::string> &labels, uint8_t answers = 1)
{
    bytes r(query.begin(), query.end());
    r[2] = 0x84;
    r[7] = answers;
    bytes rdata;
    for (const auto &l : labels) {
        rdata.push_back(static_cast<uint8_t>(l.size()));
        rdata.insert(rdata.end(), l.begin(), l.end());
    }
    rdata.push_back(0);
    r.insert(r.end(), {0xC0, 0x0C, 0x00, 0x0C, 0x00, 0x01, 0, 0, 0, 120,
                       static_cast<uint8_t>(rdata.size() >> 8), static_cast<uint8_t>(rdata.size())});
    r.insert(r.end(), rdata.begin(), rdata.end());
    return r;
}

}  // namespace packettest
