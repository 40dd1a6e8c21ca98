// Forwarding and port tables of the bridges, read from "/sys/class/net/"
// with the bridge ioctls as fallback. The tables stand between two reads and
// have no lock of their own: they are rewritten only under the scan pass's
// write lock.
#pragma once

#include <cstddef>
#include <cstdint>
#include <span>

inline constexpr int FDB_RECORDS_START = 64;
inline constexpr int FDB_RAW_RECORD = 16;
// Kernel tables are read in chunks of this many records.
inline constexpr int FDB_CHUNK = 64;
inline constexpr int FDB_BUCKETS = 256;
inline constexpr int BRIDGE_ROWS = 64;
inline constexpr int PORTNUM = 64;
// Room for the MACs of one port grows by 32 MACs (192 bytes) at a time.
inline constexpr int SAME_PORT_GROW = 32;

// One forwarding record as the scan keeps it.
struct fdb_entry {
    uint8_t mac[6];
    uint8_t port_no;
    uint8_t is_local;
    uint32_t ageing_timer;
    uint8_t port_hi;
    char bridge[16];
    fdb_entry *hash_next;
};

struct bridge_row {
    char name[16];
    int32_t record_count;
};

struct bridge_port {
    char bridge[16];
    uint8_t port_no;
    char ifname[16];
};

extern bridge_row bridge_table[BRIDGE_ROWS];
extern int bridge_count;
extern bridge_port bridge_port_table[PORTNUM];
extern int bridge_port_count;
// The local stream socket of the bridge ioctls; -1 outside a read.
extern int br_socket_fd;

// Fills *buffer (malloc'd, *capacity records of 16 bytes, grown as needed)
// with the raw forwarding records of all bridges, and rebuilds the bridge
// and port tables. Returns the count, 1 when the bridge control socket
// failed, -1 on failure.
int read_bridges(uint8_t **buffer, int *capacity) noexcept;

// All raw records of one bridge into *buffer (grown in chunks of 64).
// Returns the count or -1.
int fdb_read(const char *bridge, uint8_t **buffer, int *capacity) noexcept;

// One raw record into an entry; `bridge` and `hash_next` are left alone.
void parse_fdb_record(std::span<const uint8_t, FDB_RAW_RECORD> raw, fdb_entry &out) noexcept;

uint8_t fdb_bucket(const uint8_t mac[6]) noexcept;

// Fills `entries` (count rows) from `raw` (count records) and chains them
// into `buckets` (256 heads, cleared here), each record named after the
// bridge of the bridge table that it came from.
void build_fdb_table(const uint8_t *raw, fdb_entry *entries, int count, fdb_entry **buckets) noexcept;

// The first entry of the hash with this MAC, or nullptr.
const fdb_entry *fdb_find(fdb_entry *const *buckets, const uint8_t mac[6]) noexcept;

// The name of port `port_no` of `bridge` from the port table: 0, or -1.
int fdb_port_name(char (&out)[16], uint8_t port_no, const char *bridge) noexcept;

// Reads "br-lan" and stores in *buffer (malloc'd room for *capacity MACs of 6
// bytes, grown as needed) the non-local MACs on the port where `mac` sits.
// Returns their count, 0 when `mac` is not in the table, 1 when the control
// socket failed, -1 when the work buffer could not be had.
int macs_on_same_port(uint8_t **buffer, int *capacity, const uint8_t mac[6]) noexcept;
