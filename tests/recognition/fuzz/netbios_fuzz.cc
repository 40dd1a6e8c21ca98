// Whole UDP payloads as a NetBIOS node status reply: any bytes from the LAN
// must parse without a read out of bounds, and what comes out is bounded
// and, once cleaned, printable.
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <span>

#include "recognition/fing_state.h"
#include "recognition/name_packet.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size);

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    // The identifier of the reply itself, so that the rest is reached.
    uint16_t id = size >= 2 ? static_cast<uint16_t>(data[0] << 8 | data[1]) : 0;
    netbios_result r{};
    if (!netbios_parse_reply(std::span<const uint8_t>(data, size), id, r))
        return 0;
    if (r.name_len > 16 || std::strlen(r.name) != r.name_len || std::strlen(r.domain) > NETBIOS_DOMAIN_MAX)
        abort();
    if (r.has_domain)
        for (const char *p = r.domain; *p; p++)
            if (*p < 0x20 || *p > 0x7E)
                abort();
    char name[sizeof(r.name)];
    std::memcpy(name, r.name, sizeof(name));
    fing_text_clean(name);
    for (const char *p = name; *p; p++)
        if (*p < 0x20 || *p > 0x7E)
            abort();
    return 0;
}
