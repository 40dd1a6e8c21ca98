// Frames of the raw IPv6 intake while solicitations are out: any bytes from
// the wire, parsed and matched against a few probes. Only a frame that
// answers a probe may add to the table.
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <span>

#include "scan/client_table.h"
#include "scan/ip6.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size);

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    static bool probes = [] {
        const uint8_t mac[6] = {0x02, 0, 0, 0, 0, 0x01};
        add_ns_probe("fd00::1", mac);
        add_ns_probe("fe80::1", mac);
        add_ns_probe("fd00::2", mac);
        return true;
    }();
    (void)probes;
    // Several frames in one input, each prefixed by its length byte.
    std::span<const uint8_t> rest(data, size);
    while (!rest.empty()) {
        size_t len = rest[0] < rest.size() - 1 ? rest[0] : rest.size() - 1;
        na_frame_info info{};
        if (parse_na_frame(rest.subspan(1, len), info))
            take_advertisement_locked(info.source, info.source_mac);
        rest = rest.subspan(1 + len);
    }
    for (ns_probe *p = ns_probe_list; p; p = p->next)
        p->replied = 0;
    free_ip6_infos_locked();
    free_client_table_locked();
    return 0;
}
