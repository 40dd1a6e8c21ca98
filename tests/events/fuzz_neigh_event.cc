// Whole rtnetlink datagrams into the neighbour event task: truncated
// headers, lengths that lie, attributes past the end, many messages in one
// datagram. Each input is a heap copy of exactly its size, so a read past
// it is caught by the address sanitizer.
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <cstring>

#include "events/neigh_event.h"
#include "events/nl_intake.h"
#include "scan/lan_info.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size);

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    if (size > NL_RECV_BUF_SIZE)
        return 0; // the intake never hands over more
    // Interface 1 (lo) stands for a LAN port, so the bridge branches run.
    lan_info.ifnum = 1;
    lan_info.ifindex[0] = 1;
    auto *msg = static_cast<nl_event_msg *>(calloc(1, sizeof(nl_event_msg)));
    msg->buf = static_cast<uint8_t *>(malloc(size ? size : 1));
    if (size)
        std::memcpy(msg->buf, data, size);
    msg->len = static_cast<int32_t>(size);
    nl_neigh_handle(msg);

    // The attribute walker on its own, over the raw bytes.
    const rtattr *table[NL_NEIGH_ATTR_MAX + 1];
    auto *copy = static_cast<uint8_t *>(malloc(size ? size : 1));
    if (size)
        std::memcpy(copy, data, size);
    parse_nl_attrs(table, copy, NL_NEIGH_ATTR_MAX, static_cast<int>(size));
    for (const rtattr *a : table)
        if (a && (reinterpret_cast<const uint8_t *>(a) < copy ||
                  reinterpret_cast<const uint8_t *>(a) + 4 > copy + size))
            abort();
    free(copy);
    return 0;
}
