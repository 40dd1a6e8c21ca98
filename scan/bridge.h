// Forwarding and port tables of the bridges. The readers are not in yet:
// every bridge reads as empty, so no client gets a port.
#pragma once

#include <cstdint>

inline constexpr int FDB_RECORDS_START = 64;
inline constexpr int FDB_RAW_RECORD = 16;

// Fills *buffer (malloc'd, *capacity records of 16 bytes, grown as needed)
// with the raw forwarding records of all bridges. Returns the count, 1 when
// the bridge control socket failed, -1 on failure.
int read_bridges(uint8_t **buffer, int *capacity) noexcept;
