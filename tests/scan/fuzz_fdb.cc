// Forwarding records as the kernel hands them over: 16-byte records of any
// content, in a buffer of any length, spread over bridges whose record
// counts need not add up to the buffer's.
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <vector>

#include "scan/bridge.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size);

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    // The first byte: how many bridges; one byte each: its record count.
    size_t pos = 0;
    int bridges = size > 0 ? data[pos++] % 4 : 0;
    bridge_count = 0;
    bridge_port_count = 0;
    for (int i = 0; i < bridges && pos < size; i++, pos++) {
        bridge_row &row = bridge_table[bridge_count++];
        std::memset(row.name, 0, sizeof(row.name));
        row.name[0] = static_cast<char>('a' + i);
        row.record_count = data[pos] % 8;
        bridge_port &port = bridge_port_table[bridge_port_count++];
        std::memcpy(port.bridge, row.name, sizeof(port.bridge));
        port.port_no = data[pos];
        std::strcpy(port.ifname, "p");
    }
    int count = static_cast<int>((size - pos) / FDB_RAW_RECORD);
    std::vector<uint8_t> raw(data + pos, data + size);
    std::vector<fdb_entry> entries(static_cast<size_t>(count > 0 ? count : 1));
    fdb_entry *buckets[FDB_BUCKETS];
    build_fdb_table(raw.data(), entries.data(), count, buckets);
    for (int i = 0; i < count; i++) {
        const fdb_entry *e = fdb_find(buckets, entries[static_cast<size_t>(i)].mac);
        if (!e)
            __builtin_trap(); // every record is in its bucket
        char name[16];
        fdb_port_name(name, e->port_no, e->bridge);
    }
    return 0;
}
