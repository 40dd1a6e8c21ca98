// Whole UDP payloads as replies to the reverse mDNS queries over IPv4 (for
// every length an IPv4 query can have) and IPv6: no read out of bounds, and
// a name no longer than the buffer allows.
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <span>

#include "recognition/name_packet.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size);

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    std::span<const uint8_t> reply(data, size);
    uint16_t id = size >= 2 ? static_cast<uint16_t>(data[0] << 8 | data[1]) : 0;
    char name[NAME_TEXT_MAX];
    for (size_t query_len = 38; query_len <= MDNS_IP4_QUERY_MAX; query_len++) {
        int n = mdns_parse_ip4_reply(reply, id, query_len, name);
        if (n > 255 || (n >= 0 && std::strlen(name) > static_cast<size_t>(n)))
            abort();
    }
    int n = mdns_parse_ip6_reply(reply, name);
    if (n > static_cast<int>(NAME_KEEP) || (n >= 0 && std::strlen(name) > static_cast<size_t>(n)))
        abort();
    return 0;
}
