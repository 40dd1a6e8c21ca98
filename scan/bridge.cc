#include "scan/bridge.h"

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <dirent.h>
#include <memory>
#include <net/if.h>
#include <sys/ioctl.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>

#include <linux/if_bridge.h>
#include <linux/sockios.h>

#include "core/text.h"
#include "core/unique_fd.h"

bridge_row bridge_table[BRIDGE_ROWS] = {};
int bridge_count = 0;
bridge_port bridge_port_table[PORTNUM] = {};
int bridge_port_count = 0;
int br_socket_fd = -1;

namespace
{

constexpr int MAX_BRIDGE_INDICES = 1024;
constexpr int MAX_PORT_SLOTS = 1024;
constexpr int EAGAIN_TRIES = 10;
constexpr char sys_net[] = "/sys/class/net/";

int br_init() noexcept
{
    br_socket_fd = socket(AF_LOCAL, SOCK_STREAM, 0);
    return br_socket_fd < 0 ? -1 : 0;
}

void br_close() noexcept
{
    if (br_socket_fd >= 0)
        close(br_socket_fd);
    br_socket_fd = -1;
}

struct dirents {
    dirent **list = nullptr;
    int count = 0;
    dirents() = default;
    dirents(const dirents &) = delete;
    dirents &operator=(const dirents &) = delete;
    ~dirents()
    {
        for (int i = 0; i < count; i++)
            free(list[i]);
        free(list);
    }
};

int is_bridge(const dirent *d) noexcept
{
    if (d->d_name[0] == '.')
        return 0;
    char path[64 + sizeof(d->d_name)];
    std::snprintf(path, sizeof(path), "%s%s/bridge", sys_net, d->d_name);
    struct stat st {
    };
    return stat(path, &st) == 0 ? 1 : 0;
}

void add_bridge(const char *name) noexcept
{
    if (bridge_count >= BRIDGE_ROWS)
        return;
    copy_str(bridge_table[bridge_count].name, name, 15);
    bridge_table[bridge_count].record_count = 0;
    bridge_count++;
}

// The bridges as the kernel's old interface lists them. -1 on failure.
int bridges_by_ioctl() noexcept
{
    int indices[MAX_BRIDGE_INDICES] = {};
    unsigned long args[3] = {BRCTL_GET_BRIDGES, reinterpret_cast<unsigned long>(indices), MAX_BRIDGE_INDICES};
    int n = ioctl(br_socket_fd, SIOCGIFBR, args);
    if (n < 0) {
        fprintf(stderr, "Get bridge indices failed: %s\n", strerror(errno));
        return -1;
    }
    for (int i = 0; i < n && i < MAX_BRIDGE_INDICES; i++) {
        char name[IF_NAMESIZE] = {};
        if (!if_indextoname(static_cast<unsigned>(indices[i]), name)) {
            fprintf(stderr, "get find name for ifindex %d\n", indices[i]);
            continue;
        }
        add_bridge(name);
    }
    return 0;
}

int list_bridges() noexcept
{
    dirents d;
    d.count = scandir(sys_net, &d.list, is_bridge, alphasort);
    if (d.count > 0) {
        for (int i = 0; i < d.count; i++)
            add_bridge(d.list[i]->d_name);
        return 0;
    }
    if (d.count < 0)
        d.count = 0;
    return bridges_by_ioctl();
}

// Up to 64 records at record `offset` through the bridge's old interface.
int chunk_by_ioctl(const char *bridge, uint8_t *out, int offset) noexcept
{
    unsigned long args[4] = {BRCTL_GET_FDB_ENTRIES, reinterpret_cast<unsigned long>(out), FDB_CHUNK,
                             static_cast<unsigned long>(offset)};
    ifreq ifr{};
    copy_str(ifr.ifr_name, bridge);
    ifr.ifr_data = reinterpret_cast<char *>(args);
    int n = -1;
    for (int tries = 0; tries < EAGAIN_TRIES; tries++) {
        n = ioctl(br_socket_fd, SIOCDEVPRIVATE, &ifr);
        if (n >= 0 || errno != EAGAIN)
            break;
        sleep(0);
    }
    return n;
}

// Up to 64 records of the bridge's table from record `offset` on.
int read_chunk(const char *bridge, uint8_t *out, int offset) noexcept
{
    char path[320];
    std::snprintf(path, sizeof(path), "%s%s/brforward", sys_net, bridge);
    FILE *f = fopen(path, "r");
    if (!f)
        return chunk_by_ioctl(bridge, out, offset);
    int n = 0;
    if (fseek(f, static_cast<long>(offset) * FDB_RAW_RECORD, SEEK_SET) == 0)
        n = static_cast<int>(fread(out, FDB_RAW_RECORD, FDB_CHUNK, f));
    fclose(f);
    return n;
}

bool grow_records(uint8_t **buffer, int *capacity, int needed) noexcept
{
    if (needed <= *capacity)
        return true;
    void *p = realloc(*buffer, static_cast<size_t>(needed) * FDB_RAW_RECORD);
    if (!p)
        return false;
    *buffer = static_cast<uint8_t *>(p);
    *capacity = needed;
    return true;
}

uint8_t read_port_no(const char *port) noexcept
{
    char dir[320];
    std::snprintf(dir, sizeof(dir), "%s%s/brport", sys_net, port);
    DIR *d = opendir(dir);
    if (!d) {
        fprintf(stderr, "fail to open path %s", dir);
        return 0xff;
    }
    closedir(d);
    char path[340];
    std::snprintf(path, sizeof(path), "%s/port_no", dir);
    FILE *f = fopen(path, "r");
    if (!f)
        return 0;
    int no = 0;
    if (fscanf(f, "%i", &no) != 1)
        no = 0;
    fclose(f);
    return static_cast<uint8_t>(no & 0xff);
}

bool add_port(const char *bridge, uint8_t port_no, const char *ifname) noexcept
{
    if (bridge_port_count >= PORTNUM) {
        printf("Error: count2(%d) >= PORTNUM(%d)", bridge_port_count, PORTNUM);
        return false;
    }
    bridge_port &row = bridge_port_table[bridge_port_count++];
    copy_str(row.bridge, bridge, 15);
    row.port_no = port_no;
    copy_str(row.ifname, ifname, 15);
    return true;
}

void ports_by_ioctl(const char *bridge) noexcept
{
    int ifindices[MAX_PORT_SLOTS] = {};
    unsigned long args[4] = {BRCTL_GET_PORT_LIST, reinterpret_cast<unsigned long>(ifindices), MAX_PORT_SLOTS,
                             0};
    ifreq ifr{};
    copy_str(ifr.ifr_name, bridge);
    ifr.ifr_data = reinterpret_cast<char *>(args);
    if (ioctl(br_socket_fd, SIOCDEVPRIVATE, &ifr) < 0) {
        fprintf(stderr, "list ports for bridge:'%s' failed: %s\n", bridge, strerror(errno));
        return;
    }
    for (int slot = 0; slot < MAX_PORT_SLOTS; slot++) {
        if (!ifindices[slot])
            continue;
        char name[IF_NAMESIZE] = {};
        if (!if_indextoname(static_cast<unsigned>(ifindices[slot]), name)) {
            fprintf(stderr, "can't find name for ifindex:%d\n", ifindices[slot]);
            continue;
        }
        if (!add_port(bridge, static_cast<uint8_t>(slot), name))
            return;
    }
}

void read_ports(const char *bridge) noexcept
{
    char path[320];
    std::snprintf(path, sizeof(path), "%s%s/brif", sys_net, bridge);
    dirents d;
    d.count = scandir(path, &d.list, nullptr, alphasort);
    if (d.count < 0) {
        d.count = 0;
        ports_by_ioctl(bridge);
        return;
    }
    for (int i = 0; i < d.count; i++) {
        const char *name = d.list[i]->d_name;
        if (std::strcmp(name, ".") == 0 || std::strcmp(name, "..") == 0)
            continue;
        if (!add_port(bridge, read_port_no(name), name))
            return;
    }
}

// Reads one bridge and appends its records to the output. False when the
// output could not grow.
bool append_bridge(bridge_row &row, uint8_t **buffer, int *capacity, int &total) noexcept
{
    int cap = FDB_CHUNK;
    std::unique_ptr<uint8_t, decltype(&free)> own(
        static_cast<uint8_t *>(malloc(static_cast<size_t>(cap) * FDB_RAW_RECORD)), free);
    if (!own)
        return true; // this bridge alone is lost
    uint8_t *records = own.release();
    int n = fdb_read(row.name, &records, &cap);
    own.reset(records);
    if (n < 0)
        return true;
    row.record_count = n;
    if (!grow_records(buffer, capacity, total + n)) {
        fputs("Out of memory\n", stderr);
        return false;
    }
    if (n > 0)
        std::memcpy(*buffer + static_cast<size_t>(total) * FDB_RAW_RECORD, records,
                    static_cast<size_t>(n) * FDB_RAW_RECORD);
    total += n;
    read_ports(row.name);
    return true;
}

uint32_t le32(const uint8_t *p) noexcept
{
    return uint32_t{p[0]} | uint32_t{p[1]} << 8 | uint32_t{p[2]} << 16 | uint32_t{p[3]} << 24;
}

} // namespace

int fdb_read(const char *bridge, uint8_t **buffer, int *capacity) noexcept
{
    int count = 0;
    for (;;) {
        if (!grow_records(buffer, capacity, count + FDB_CHUNK)) {
            fputs("Out of memory\n", stderr);
            return -1;
        }
        int n = read_chunk(bridge, *buffer + static_cast<size_t>(count) * FDB_RAW_RECORD, count);
        if (n < 0) {
            fprintf(stderr, "read of forward table failed: %s\n", strerror(errno));
            return -1;
        }
        if (n == 0)
            return count;
        count += n;
    }
}

int read_bridges(uint8_t **buffer, int *capacity) noexcept
{
    if (br_init() != 0) {
        fprintf(stderr, "br_init fail: %s\n", strerror(errno));
        return 1;
    }
    bridge_count = 0;
    bridge_port_count = 0;
    std::memset(bridge_table, 0, sizeof(bridge_table));
    std::memset(bridge_port_table, 0, sizeof(bridge_port_table));
    if (list_bridges() != 0) {
        fputs("ARP_sniffer: obtain bridge failed\n", stderr);
        br_close();
        return -1;
    }
    int total = 0;
    for (int i = 0; i < bridge_count; i++) {
        if (!append_bridge(bridge_table[i], buffer, capacity, total)) {
            br_close();
            return -1;
        }
    }
    br_close();
    return total;
}

void parse_fdb_record(std::span<const uint8_t, FDB_RAW_RECORD> raw, fdb_entry &out) noexcept
{
    std::memcpy(out.mac, raw.data(), 6);
    out.port_no = raw[6];
    out.is_local = raw[7];
    out.ageing_timer = 0;
    std::memcpy(&out.ageing_timer, raw.data() + 8, 4);
    out.port_hi = raw[12];
}

uint8_t fdb_bucket(const uint8_t mac[6]) noexcept
{
    uint32_t x = le32(mac) * le32(mac + 2);
    return static_cast<uint8_t>((x ^ (x >> 8) ^ (x >> 16) ^ (x >> 24)) & 255);
}

void build_fdb_table(const uint8_t *raw, fdb_entry *entries, int count, fdb_entry **buckets) noexcept
{
    fdb_entry *tails[FDB_BUCKETS] = {};
    for (int b = 0; b < FDB_BUCKETS; b++)
        buckets[b] = nullptr;
    int row = 0;
    int running = bridge_count > 0 ? bridge_table[0].record_count : 0;
    for (int i = 0; i < count; i++) {
        while (row < bridge_count && row < BRIDGE_ROWS && running <= i) {
            row++;
            if (row < bridge_count && row < BRIDGE_ROWS)
                running += bridge_table[row].record_count;
        }
        fdb_entry &e = entries[i];
        parse_fdb_record(std::span<const uint8_t, FDB_RAW_RECORD>(
                             raw + static_cast<size_t>(i) * FDB_RAW_RECORD, FDB_RAW_RECORD),
                         e);
        if (row < bridge_count && row < BRIDGE_ROWS)
            std::memcpy(e.bridge, bridge_table[row].name, sizeof(e.bridge));
        else
            e.bridge[0] = '\0';
        e.hash_next = nullptr;
        uint8_t b = fdb_bucket(e.mac);
        if (tails[b])
            tails[b]->hash_next = &e;
        else
            buckets[b] = &e;
        tails[b] = &e;
    }
}

const fdb_entry *fdb_find(fdb_entry *const *buckets, const uint8_t mac[6]) noexcept
{
    for (const fdb_entry *e = buckets[fdb_bucket(mac)]; e; e = e->hash_next)
        if (std::memcmp(e->mac, mac, 6) == 0)
            return e;
    return nullptr;
}

int fdb_port_name(char (&out)[16], uint8_t port_no, const char *bridge) noexcept
{
    for (int i = 0; i < bridge_port_count && i < PORTNUM; i++) {
        const bridge_port &p = bridge_port_table[i];
        if (p.port_no == port_no && std::strncmp(p.bridge, bridge, sizeof(p.bridge)) == 0) {
            std::memcpy(out, p.ifname, sizeof(out));
            out[sizeof(out) - 1] = '\0';
            return 0;
        }
    }
    return -1;
}

namespace
{

uint16_t record_port(const uint8_t *rec) noexcept
{
    return static_cast<uint16_t>(rec[6] | rec[12] << 8);
}

// The port of `mac` in "br-lan", or -1 when it is not there.
int port_of_mac(uint8_t *chunk, const uint8_t mac[6]) noexcept
{
    for (int offset = 0;;) {
        int n = read_chunk("br-lan", chunk, offset);
        if (n <= 0)
            return -1;
        for (int i = 0; i < n; i++) {
            const uint8_t *rec = chunk + static_cast<size_t>(i) * FDB_RAW_RECORD;
            if (std::memcmp(rec, mac, 6) == 0)
                return record_port(rec);
        }
        offset += n;
    }
}

bool append_mac(uint8_t **buffer, int *capacity, int count, const uint8_t *mac) noexcept
{
    if (count >= *capacity) {
        void *p = realloc(*buffer, static_cast<size_t>(*capacity + SAME_PORT_GROW) * 6);
        if (!p) {
            fputs("ARP_sniffer: out of memory!\n", stderr);
            return false;
        }
        *buffer = static_cast<uint8_t *>(p);
        *capacity += SAME_PORT_GROW;
    }
    std::memcpy(*buffer + static_cast<size_t>(count) * 6, mac, 6);
    return true;
}

int collect_port(uint8_t *chunk, int port, uint8_t **buffer, int *capacity) noexcept
{
    int count = 0;
    for (int offset = 0;;) {
        int n = read_chunk("br-lan", chunk, offset);
        if (n <= 0)
            return count;
        for (int i = 0; i < n; i++) {
            const uint8_t *rec = chunk + static_cast<size_t>(i) * FDB_RAW_RECORD;
            if (record_port(rec) != port || rec[7] != 0)
                continue;
            if (!append_mac(buffer, capacity, count, rec))
                break; // the rest of this chunk is lost
            count++;
        }
        offset += n;
    }
}

} // namespace

int macs_on_same_port(uint8_t **buffer, int *capacity, const uint8_t mac[6]) noexcept
{
    if (br_init() != 0) {
        fprintf(stderr, "br_init fail: %s\n", strerror(errno));
        return 1;
    }
    std::unique_ptr<uint8_t, decltype(&free)> chunk(
        static_cast<uint8_t *>(malloc(size_t{FDB_CHUNK} * FDB_RAW_RECORD)), free);
    if (!chunk) {
        fputs("ARP_sniffer: bridge buff malloc failed.\n", stderr);
        br_close();
        return -1;
    }
    int port = port_of_mac(chunk.get(), mac);
    int count = port < 0 ? 0 : collect_port(chunk.get(), port, buffer, capacity);
    br_close();
    return count;
}
