// Answers of the traffic and mesh services as `ubus call` prints them: any
// bytes through every reader's parser. The first byte picks the parser.
#include <cstdint>
#include <cstdlib>

#include "db/traffic.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size);

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    if (size == 0)
        return 0;
    const char *text = reinterpret_cast<const char *>(data + 1);
    size_t len = size - 1;
    int count = -1;
    switch (data[0] % 6) {
    case 0:
    case 1: {
        tfstats_entry *rows = nullptr;
        if (parse_tfstats(text, len, &rows, &count, data[0] % 6 == 1) == 0 &&
            (!rows || count < 0 || count > TFSTATS_ROWS_MAX))
            abort();
        std::free(rows);
        break;
    }
    case 2:
    case 3: {
        uint8_t *macs = nullptr;
        int r = data[0] % 6 == 2 ? parse_hi_bw_occ(text, len, &macs, &count)
                                 : parse_mesh_agent(text, len, &macs, &count);
        if (r == 0 && macs && count < 0)
            abort();
        std::free(macs);
        break;
    }
    case 4:
        if (parse_seg_over_limit(text, len) > 1)
            abort();
        break;
    default: {
        mesh_access_entry *rows = nullptr;
        if (parse_mesh_access(text, len, &rows, &count) == 0 && rows && count < 1)
            abort();
        std::free(rows);
    }
    }
    return 0;
}
