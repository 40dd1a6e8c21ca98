// Received ARP frames: any bytes from the wire.
#include <cstddef>
#include <cstdint>
#include <span>

#include "scan/arp.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size);

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    arp_frame_info info{};
    if (parse_arp_frame(std::span<const uint8_t>(data, size), info)) {
        volatile uint16_t op = info.op;
        (void)op;
    }
    return 0;
}
