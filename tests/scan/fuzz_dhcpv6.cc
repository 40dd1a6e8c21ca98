// The DHCPv6 lease file: any bytes, one "name address" line at a time.
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <string_view>

#include "scan/lease.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size);

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    std::string_view text(reinterpret_cast<const char *>(data), size);
    size_t kept = 0;
    while (!text.empty()) {
        size_t end = text.find('\n');
        size_t len = end == std::string_view::npos ? text.size() : end + 1;
        ip6_lease_row row{};
        if (parse_dhcpv6_line(text.substr(0, len), row))
            kept += strnlen(row.ip6, sizeof(row.ip6)) + strnlen(row.hostname, sizeof(row.hostname));
        text.remove_prefix(len);
    }
    volatile size_t sink = kept;
    (void)sink;
    return 0;
}
