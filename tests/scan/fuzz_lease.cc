// The DHCP lease file: any bytes, read line by line with the columns
// carried from one line to the next as the reader does.
#include <cstddef>
#include <cstdint>
#include <string_view>

#include "scan/lease.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size);

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    std::string_view text(reinterpret_cast<const char *>(data), size);
    lease_scan scan;
    unsigned rows = 0;
    while (!text.empty()) {
        size_t end = text.find('\n');
        size_t len = end == std::string_view::npos ? text.size() : end + 1;
        lease_row row{};
        if (parse_lease_line(text.substr(0, len), scan, row))
            rows += row.hostname[63] == '\0' && row.ip[19] == '\0' ? 1 : 1000;
        text.remove_prefix(len);
    }
    volatile unsigned sink = rows;
    (void)sink;
    return 0;
}
