// rtnetlink neighbour and bridge forwarding events into joins and leaves.
#include "events/neigh_event.h"

#include <arpa/inet.h>
#include <linux/neighbour.h>
#include <net/if.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <dirent.h>

#include "core/log.h"
#include "core/text.h"
#include "db/system_info.h"
#include "events/assoc.h"
#include "events/nl_intake.h"
#include "scan/bridge.h" // FDB_CHUNK
#include "scan/lan_info.h"
#include "scan/topology.h"

namespace
{

constexpr int NL_HDR_LEN = 16;    // nlmsghdr
constexpr int NDMSG_LEN = 12;     // ndmsg
constexpr int RTA_HDR_LEN = 4;    // rtattr
constexpr int FDB_ENTRY_LEN = 16; // one record of "brforward"
constexpr int FRONT_FDB_ROWS = 256;
constexpr uint8_t FAMILY_INET = 2;
constexpr uint8_t FAMILY_BRIDGE = 7;
constexpr uint16_t TYPE_NEWNEIGH = 28;
constexpr uint16_t TYPE_DELNEIGH = 29;
constexpr uint16_t STATE_REACHABLE = 0x02;
constexpr uint16_t STATE_FAILED = 0x20;
constexpr uint16_t STATE_PERMANENT = 0x80;
constexpr char LAN_BRFORWARD[] = "/sys/class/net/br-lan/brforward";
constexpr char LAN_BRIF[] = "/sys/class/net/br-lan/brif";

constexpr int align4(int n) noexcept
{
    return (n + 3) & ~3;
}

// One message's header fields, read with memcpy: the copy has no alignment
// promise for what follows an odd message.
struct neigh_view {
    uint16_t type;
    uint8_t family;
    int32_t ifindex;
    uint16_t state;
    const uint8_t *mac; // NDA_LLADDR payload of at least 6 bytes, or NULL
    uint32_t ip;        // NDA_DST, network order, or 0
};

// Reads a record header out of possibly unaligned memory.
rtattr load_rta(const rtattr *a) noexcept
{
    rtattr r{};
    std::memcpy(&r, a, sizeof(r));
    return r;
}

// The payload of a record when it holds at least `need` bytes, else NULL.
const uint8_t *attr_data(const rtattr *a, size_t need) noexcept
{
    if (!a)
        return nullptr;
    rtattr r = load_rta(a);
    if (r.rta_len < RTA_HDR_LEN + need)
        return nullptr;
    return reinterpret_cast<const uint8_t *>(a) + RTA_HDR_LEN;
}

// The whole forwarding table of "br-lan" from its sysfs file, read in
// chunks of 64 records into a buffer the caller frees: the record count, or
// -1. Only the file: the bridge ioctl needs the scan's control socket.
int read_lan_fdb(uint8_t **records) noexcept
{
    FILE *f = fopen(LAN_BRFORWARD, "rb");
    if (!f)
        return -1;
    int count = 0;
    int capacity = 0;
    for (;;) {
        if (count + FDB_CHUNK > capacity) {
            capacity += FDB_CHUNK;
            void *p = realloc(*records, static_cast<size_t>(capacity) * FDB_ENTRY_LEN);
            if (!p) {
                fclose(f);
                return -1;
            }
            *records = static_cast<uint8_t *>(p);
        }
        size_t n = fread(*records + static_cast<size_t>(count) * FDB_ENTRY_LEN, FDB_ENTRY_LEN, FDB_CHUNK, f);
        count += static_cast<int>(n);
        if (n < static_cast<size_t>(FDB_CHUNK))
            break;
    }
    fclose(f);
    return count;
}

void handle_join(const neigh_view &v) noexcept
{
    assoc_event event{};
    uint8_t *records = nullptr;
    int count = read_lan_fdb(&records);
    for (int i = 0; i < count; i++) {
        const uint8_t *rec = records + static_cast<size_t>(i) * FDB_ENTRY_LEN;
        if (std::memcmp(rec, v.mac, 6) != 0)
            continue;
        unsigned port_no = rec[6] | static_cast<unsigned>(rec[12]) << 8;
        char name[16] = {};
        if (lan_port_name(name, port_no) == 0) {
            LR_LOG(7, "[lr] assoc ifname is %s ", name);
            copy_str(event.ifname, name, 15);
            if (is_lan_ifindex(static_cast<int>(if_nametoindex(name))) == 0)
                event.active_port = 1;
        }
        break;
    }
    free(records);
    std::memcpy(event.mac, v.mac, 6);
    event.ip = v.ip;
    event.remove = 0;
    assco_event_handler(event);
}

void handle_inet(const neigh_view &v) noexcept
{
    if (v.ifindex != static_cast<int32_t>(if_nametoindex(lan_bridge_name)))
        return;
    if (v.state == STATE_REACHABLE && v.type == TYPE_NEWNEIGH) {
        if (!v.mac)
            return;
        if (system_info.sys_mode == SYS_MODE_ROUTER || filter_front_client(v.mac) == 0)
            handle_join(v);
        return;
    }
    if (v.state == STATE_FAILED && v.type == TYPE_NEWNEIGH) {
        // A failed entry has no link address, so no record matches; the
        // handler says so in its log.
        assoc_event event{};
        event.remove = 1;
        event.ip = v.ip;
        assco_event_handler(event);
    }
}

void handle_bridge(const neigh_view &v) noexcept
{
    if (is_lan_ifindex(v.ifindex) == 0) {
        // A radio joined or left the bridge: read the member list again.
        if (v.state == STATE_PERMANENT)
            get_lan_wlanif();
        return;
    }
    if (v.type == TYPE_DELNEIGH) {
        if (!v.mac)
            return;
        assoc_event event{};
        event.remove = 1;
        std::memcpy(event.mac, v.mac, 6);
        assco_event_handler(event);
        return;
    }
    if (v.type == TYPE_NEWNEIGH && v.mac && std::memcmp(v.mac, lan_info.gateway_mac, 6) == 0) {
        char name[IF_NAMESIZE] = {};
        if (if_indextoname(static_cast<unsigned>(v.ifindex), name))
            update_gateway_info(name);
    }
}

// One message of `len` bytes (at least header and ndmsg) at `p`.
void handle_message(const uint8_t *p, int len, uint16_t type) noexcept
{
    neigh_view v{};
    v.type = type;
    ndmsg nd{};
    std::memcpy(&nd, p + NL_HDR_LEN, sizeof(nd));
    v.family = nd.ndm_family;
    v.ifindex = nd.ndm_ifindex;
    v.state = nd.ndm_state;
    if (v.family != FAMILY_BRIDGE && v.family != FAMILY_INET) {
        LR_LOG(7, "[lr] ndm_family = %d, nlh->nlmsg_type = %d, only handle bridge fdb & neighbout table",
               v.family, type);
        return;
    }
    const rtattr *table[NL_NEIGH_ATTR_MAX + 1];
    parse_nl_attrs(table, p + NL_HDR_LEN + NDMSG_LEN, NL_NEIGH_ATTR_MAX, len - NL_HDR_LEN - NDMSG_LEN);
    char name[IF_NAMESIZE] = {};
    if_indextoname(static_cast<unsigned>(v.ifindex), name);
    LR_LOG(7, "[lr] ndm_family=%hhu, if_index=%d if_name=%s, ndm_state=0x%02X, type = %s", v.family,
           v.ifindex, name, v.state, type == TYPE_NEWNEIGH ? "RTM_NEWNEIGH" : "RTM_DELNEIGH");
    if (v.state != STATE_FAILED)
        v.mac = attr_data(table[NDA_LLADDR], 6);
    if (v.family == FAMILY_INET) {
        if (const uint8_t *dst = attr_data(table[NDA_DST], 4))
            std::memcpy(&v.ip, dst, 4);
        handle_inet(v);
    } else {
        handle_bridge(v);
    }
}

// Reads up to 256 records of the LAN bridge's forwarding file.
int get_br_fdb(uint8_t *out, int rows) noexcept
{
    FILE *f = fopen(LAN_BRFORWARD, "rb");
    if (!f) {
        LR_LOG(3, "[lr error] can't open br_filepath");
        return -1;
    }
    size_t n = fread(out, FDB_ENTRY_LEN, static_cast<size_t>(rows), f);
    bool failed = ferror(f) != 0;
    fclose(f);
    if (failed) {
        LR_LOG(3, "[lr error] can't read fdb_entry");
        return -1;
    }
    return static_cast<int>(n);
}

int get_port_no_by_name(const char *ifname, int *port_no) noexcept
{
    char path[96];
    std::snprintf(path, sizeof(path), "/sys/class/net/%s/brport/port_no", ifname);
    FILE *f = fopen(path, "r");
    if (!f) {
        LR_LOG(2, "[lr error] can't get port_no");
        return -1;
    }
    unsigned value = 0;
    int got = fscanf(f, "%x", &value);
    fclose(f);
    if (got != 1)
        return -1;
    *port_no = static_cast<int>(value);
    return 0;
}

} // namespace

void parse_nl_attrs(const rtattr **table, const uint8_t *first, int max, int len) noexcept
{
    for (int i = 0; i <= max; i++)
        table[i] = nullptr;
    const uint8_t *p = first;
    int remaining = len;
    while (remaining >= RTA_HDR_LEN) {
        rtattr r{};
        std::memcpy(&r, p, sizeof(r));
        if (r.rta_len < RTA_HDR_LEN || r.rta_len > remaining)
            return;
        if (r.rta_type <= max)
            table[r.rta_type] = reinterpret_cast<const rtattr *>(p);
        int step = align4(r.rta_len);
        if (step >= remaining)
            return;
        p += step;
        remaining -= step;
    }
}

void nl_neigh_handle(void *arg) noexcept
{
    auto *msg = static_cast<nl_event_msg *>(arg);
    LR_LOG(7, "[lr] nl_neigh_handle");
    if (!msg)
        return;
    const uint8_t *p = msg->buf;
    int remaining = msg->buf ? msg->len : 0;
    while (remaining >= NL_HDR_LEN) {
        nlmsghdr h{};
        std::memcpy(&h, p, sizeof(h));
        if (h.nlmsg_len < static_cast<uint32_t>(NL_HDR_LEN) || h.nlmsg_len > static_cast<uint32_t>(remaining))
            break;
        int len = static_cast<int>(h.nlmsg_len);
        // A message too short for its ndmsg says nothing about a neighbour.
        if ((h.nlmsg_type == TYPE_NEWNEIGH || h.nlmsg_type == TYPE_DELNEIGH) && len >= NL_HDR_LEN + NDMSG_LEN)
            handle_message(p, len, h.nlmsg_type);
        int step = align4(len);
        if (step >= remaining)
            break;
        p += step;
        remaining -= step;
    }
    nl_event_msg_free(msg);
}

int is_lan_ifindex(int index) noexcept
{
    int n = lan_info.ifnum < LAN_IF_ROWS ? lan_info.ifnum : LAN_IF_ROWS;
    for (int i = 0; i < n; i++)
        if (lan_info.ifindex[i] == index)
            return 1;
    return 0;
}

int filter_front_client(const uint8_t mac[6]) noexcept
{
    auto *fdb = static_cast<uint8_t *>(malloc(static_cast<size_t>(FRONT_FDB_ROWS) * FDB_ENTRY_LEN));
    if (!fdb) {
        LR_LOG(3, "[lr error] can't malloc fdb_entry");
        return 0;
    }
    int n = get_br_fdb(fdb, FRONT_FDB_ROWS);
    int found = 0;
    if (n >= 0) {
        int gateway_port = lan_info.gateway_port;
        LR_LOG(7, "[lr] port_no=%d", gateway_port);
        for (int i = 0; i < n; i++) {
            const uint8_t *rec = fdb + static_cast<size_t>(i) * FDB_ENTRY_LEN;
            if (rec[6] == gateway_port && std::memcmp(rec, mac, 6) == 0) {
                LR_LOG(6, "[lr] filter front client %02X-%02X from port %d", mac[4], mac[5], gateway_port);
                found = 1;
                break;
            }
        }
    }
    free(fdb);
    return found;
}

int update_gateway_info(const char *ifname) noexcept
{
    int port_no = -1;
    if (get_port_no_by_name(ifname, &port_no) != 0)
        return -1;
    LR_LOG(6, "[lr] update_gateway_info ifname = %s, port_no=%d", ifname, port_no);
    lan_info.gateway_port = port_no;
    return 0;
}

int lan_port_name(char (&out)[16], unsigned port_no) noexcept
{
    DIR *dir = opendir(LAN_BRIF);
    if (!dir)
        return -1;
    int result = -1;
    while (const dirent *d = readdir(dir)) {
        if (d->d_name[0] == '.' || std::strlen(d->d_name) >= sizeof(out))
            continue;
        int number = -1;
        char path[320];
        std::snprintf(path, sizeof(path), "%s/%s/port_no", LAN_BRIF, d->d_name);
        FILE *f = fopen(path, "r");
        if (!f)
            continue;
        unsigned value = 0;
        if (fscanf(f, "%x", &value) == 1)
            number = static_cast<int>(value);
        fclose(f);
        if (number >= 0 && static_cast<unsigned>(number) == port_no) {
            copy_str(out, d->d_name, 15);
            result = 0;
            break;
        }
    }
    closedir(dir);
    return result;
}
