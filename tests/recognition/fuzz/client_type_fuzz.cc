// Lines of the kernel's client-type file: the user-agent reader's line
// parser and the device-class reader take any bytes.
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string_view>

#include "db/lookups.h"
#include "recognition/http_user_agent.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size);

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    std::string_view text(reinterpret_cast<const char *>(data), size);
    size_t at = 0;
    while (at < text.size()) {
        size_t end = text.find('\n', at);
        end = end == std::string_view::npos ? text.size() : end + 1;
        client_type_line line{};
        if (parse_client_type_line(text.substr(at, std::min<size_t>(end - at, CLIENT_TYPE_LINE_MAX - 1)),
                                   line)) {
            if (std::strlen(line.mac) > 17 || std::strlen(line.agent) >= sizeof(line.agent))
                abort();
        }
        at = end;
    }
    if (size == 0)
        return 0;
    FILE *f = fmemopen(const_cast<uint8_t *>(data), size, "r");
    if (!f)
        return 0;
    int lines = pctl_device_lines(f, nullptr, 0);
    std::fclose(f);
    f = fmemopen(const_cast<uint8_t *>(data), size, "r");
    if (!f)
        return 0;
    auto *rows =
        static_cast<device_type_info *>(std::calloc(lines > 0 ? lines : 1, sizeof(device_type_info)));
    if (rows && pctl_device_lines(f, rows, lines) != lines)
        abort();
    std::free(rows);
    std::fclose(f);
    return 0;
}
