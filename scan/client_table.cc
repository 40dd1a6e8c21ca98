#include "scan/client_table.h"


#include <unistd.h>
#include <arpa/inet.h>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>

#include "core/log.h"
#include "core/text.h"
#include "registry/client_node.h"
#include "recognition/fing_state.h"
#include "recognition/name_probe.h"
#include "scan/arp.h"
#include "scan/bridge.h"
#include "scan/lan_info.h"
#include "scan/ip6.h"
#include "scan/lease.h"
#include "scan/neigh.h"
#include "scan/topology.h"

struct client_table client_table = {nullptr, nullptr};
pthread_rwlock_t client_table_lock = PTHREAD_RWLOCK_INITIALIZER;
struct arp_item arp_item[ARP_ITEM_ROWS] = {};


client_table_entry *find_entry_by_mac(const uint8_t mac[6]) noexcept
{
    for (client_table_entry *e = client_table.head; e; e = e->next)
        if (std::memcmp(e->mac, mac, 6) == 0)
            return e;
    return nullptr;
}

client_table_entry *find_entry_by_ip(uint32_t ip) noexcept
{
    for (client_table_entry *e = client_table.head; e; e = e->next)
        if (e->ip == ip)
            return e;
    return nullptr;
}

client_table_entry *new_entry() noexcept
{
    auto *e = static_cast<client_table_entry *>(calloc(1, sizeof(client_table_entry)));
    if (!e) {
        lr_write_line(STDERR_FILENO, "lanroster: out of memory.\n");
        return nullptr;
    }
    e->device_type = -1;
    e->type_source = TYPE_SOURCE_NONE;
    return e;
}

void append_entry(client_table_entry *entry) noexcept
{
    entry->next = nullptr;
    if (client_table.tail)
        client_table.tail->next = entry;
    else
        client_table.head = entry;
    client_table.tail = entry;
}

void set_arp_row(uint32_t ip, const uint8_t mac[6]) noexcept
{
    struct arp_item &row = arp_row(ip);
    row.ip = ip;
    std::memcpy(row.mac, mac, 6);
    row.active = 1;
}

void clear_arp_row(uint32_t ip) noexcept
{
    arp_row(ip) = {};
}

void free_client_table_locked() noexcept
{
    client_table_entry *e = client_table.head;
    while (e) {
        client_table_entry *next = e->next;
        free(e);
        e = next;
    }
    client_table.head = nullptr;
    client_table.tail = nullptr;
}

namespace
{

struct free_deleter {
    void operator()(void *p) const noexcept
    {
        free(p);
    }
};
template <typename T> using malloc_ptr = std::unique_ptr<T, free_deleter>;

// Releases the write lock however the pass ends.
struct write_hold {
    write_hold() noexcept
    {
        pthread_rwlock_wrlock(&client_table_lock);
    }
    ~write_hold()
    {
        pthread_rwlock_unlock(&client_table_lock);
    }
    write_hold(const write_hold &) = delete;
    write_hold &operator=(const write_hold &) = delete;
};

// The lease rows of this pass, read once at its start.
lease_row *pass_leases = nullptr;
int pass_lease_count = 0;

// The forwarding table of this pass, hashed by MAC.
struct pass_fdb {
    fdb_entry *entries = nullptr;
    fdb_entry *buckets[FDB_BUCKETS] = {};
};
pass_fdb fdb_of_pass;

// Stations of an access point or repeater that keeps no lease file: each
// station the hook file knows and the pass has no entry for gets one, with
// the hook's address and name ("UNKNOWN" without obt_name_ok is no name).
void add_hook_stations_locked()
{
    for (const auto &mac : station_macs()) {
        if (find_entry_by_mac(mac.data()))
            continue;
        hook_client hook{};
        if (!hook_lookup(&hook, mac.data()))
            continue;
        client_table_entry *e = new_entry();
        if (!e)
            return;
        std::memcpy(e->mac, mac.data(), 6);
        inet_pton(AF_INET, hook.ipaddr, &e->ip);
        if (std::strcmp(hook.name, "UNKNOWN") != 0 || hook.obt_name_ok != 0) {
            copy_str(e->hostname, hook.name);
            fing_text_clean(e->hostname);
        }
        append_entry(e);
    }
}

// Names of the recognition store: its text cleaning, the probe cache and the
// mDNS name a probe once wrote.
void clean_name(char *text)
{
    fing_text_clean(text);
}
int name_from_probe_cache(client_table_entry *e)
{
    return get_client_name(e->ip6_local, e->ip, e->mac, e->hostname);
}
void name_from_state_store(const client_table_entry *e, char *out, size_t size)
{
    char section[13];
    fing_mac_text(e->mac, section);
    fing_state_get(FING_PACKAGE, section, "mdns_name", out, size);
}

bool lease_names(const lease_row &row)
{
    return row.hostname[0] != '\0' && std::strcmp(row.hostname, "*") != 0;
}

// Steps 1 and 2 of the hostname phase: a lease for the MAC, then for the
// address text (equal length, equal in the first 20 characters).
bool name_from_leases(client_table_entry *e, const char *ip_text)
{
    for (int i = 0; i < pass_lease_count; i++) {
        const lease_row &row = pass_leases[i];
        if (std::memcmp(row.mac, e->mac, 6) == 0 && lease_names(row)) {
            copy_str(e->hostname, row.hostname);
            clean_name(e->hostname);
            return true;
        }
    }
    size_t len = std::strlen(ip_text);
    for (int i = 0; i < pass_lease_count; i++) {
        const lease_row &row = pass_leases[i];
        if (std::strlen(row.ip) == len && std::strncmp(row.ip, ip_text, 20) == 0 && lease_names(row)) {
            copy_str(e->hostname, row.hostname);
            clean_name(e->hostname);
            return true;
        }
    }
    return false;
}

void name_from_dhcpv6(client_table_entry *e)
{
    malloc_ptr<char> name(dhcpv6_hostname(e->ip6_local));
    if (name)
        copy_str(e->hostname, std::string_view(name.get(), strnlen(name.get(), 64)));
}

// Whether the hook file finishes the entry's name (step 6).
bool name_from_hook(client_table_entry *e)
{
    hook_client hook{};
    if (!hook_lookup(&hook, e->mac))
        return false;
    clean_name(hook.name);
    if (hook.name[0] == '\0')
        return false;
    copy_str(e->hostname, hook.name);
    return std::strcmp(hook.name, "UNKNOWN") != 0 || hook.obt_name_ok == 1;
}

void name_entry(client_table_entry *e)
{
    char ip_text[INET_ADDRSTRLEN] = {};
    inet_ntop(AF_INET, &e->ip, ip_text, sizeof(ip_text));
    bool leased = name_from_leases(e, ip_text);
    if (e->hostname[0] == '\0')
        name_from_dhcpv6(e);
    bool had_name = e->hostname[0] != '\0';
    char kept[sizeof(e->hostname)];
    std::memcpy(kept, e->hostname, sizeof(kept));
    bool router_like =
        std::strcmp(sys_mode_text, "router") == 0 || std::strcmp(sys_mode_text, "hotspot") == 0;
    if (!leased && !router_like && name_from_hook(e))
        return;
    int probed = name_from_probe_cache(e);
    if (had_name) {
        std::memcpy(e->hostname, kept, sizeof(kept));
        return;
    }
    if (probed > 0)
        return;
    char stored[sizeof(e->hostname)] = {};
    name_from_state_store(e, stored, sizeof(stored));
    copy_str(e->hostname, stored[0] ? std::string_view(stored) : std::string_view(HOSTNAME_FALLBACK));
}

} // namespace

int read_forwarding_locked() noexcept
{
    int fdb_cap = FDB_RECORDS_START;
    malloc_ptr<uint8_t> fdb(static_cast<uint8_t *>(calloc(fdb_cap, FDB_RAW_RECORD)));
    if (!fdb) {
        lr_write_line(STDERR_FILENO, "ARP_sniffer: bridge buff malloc failed.\n");
        return -1;
    }
    uint8_t *raw = fdb.release();
    int records = read_bridges(&raw, &fdb_cap);
    fdb.reset(raw);
    if (records < 0) {
        lr_write_line(STDERR_FILENO, "ARP_sniffer: get bridge failed.\n");
        return -1;
    }
    malloc_ptr<fdb_entry> entries(
        static_cast<fdb_entry *>(calloc(records > 0 ? records : 1, sizeof(fdb_entry))));
    if (!entries) {
        fputs("ARP_sniffer: out of memory.\n", stderr);
        return -1;
    }
    free_pass_fdb();
    build_fdb_table(fdb.get(), entries.get(), records, fdb_of_pass.buckets);
    fdb_of_pass.entries = entries.release();
    return 0;
}

void free_pass_fdb() noexcept
{
    free(fdb_of_pass.entries);
    fdb_of_pass = pass_fdb{};
}

namespace
{

// Steps 2 to 4: the sources read before anything of the last pass is
// dropped. Returns 0, or -1 with the message of the failing source.
int read_sources_locked(malloc_ptr<uint8_t> &dump, int &dump_len)
{
    int lease_cap = LEASE_ROWS_START;
    malloc_ptr<lease_row> leases(static_cast<lease_row *>(calloc(lease_cap, sizeof(lease_row))));
    if (!leases)
        return -1;
    lease_row *rows = leases.release();
    int count = read_dhcp_leases(&rows, &lease_cap);
    leases.reset(rows);
    if (count < 0)
        return -1;

    if (read_forwarding_locked() < 0)
        return -1;

    int dump_cap = NEIGH_DUMP_START;
    dump.reset(static_cast<uint8_t *>(malloc(dump_cap)));
    if (!dump) {
        lr_write_line(STDERR_FILENO, "ARP_sniffer: neigh buff malloc failed.\n");
        return -1;
    }
    uint8_t *buf = dump.release();
    dump_len = dump_neighbours(&buf, &dump_cap);
    dump.reset(buf);
    if (dump_len < 0) {
        lr_write_line(STDERR_FILENO, "ARP_sniffer: get neigh failed.\n");
        return -1;
    }
    free(pass_leases);
    pass_leases = leases.release();
    pass_lease_count = count;
    return 0;
}

} // namespace

int name_entries_locked() noexcept
{
    int count = 0;
    for (client_table_entry *e = client_table.head; e; e = e->next) {
        count++;
        if (e->hostname[0] == '\0')
            name_entry(e);
    }
    return count;
}

void type_entries_locked() noexcept
{
    bool hook_allowed = sys_mode_text[0] != '\0' && std::strcmp(sys_mode_text, "router") != 0;
    for (client_table_entry *e = client_table.head; e; e = e->next) {
        bool typed = false;
        for (int i = 0; i < pass_lease_count && !typed; i++) {
            if (std::memcmp(pass_leases[i].mac, e->mac, 6) == 0 && pass_leases[i].type != -1) {
                e->device_type = pass_leases[i].type;
                e->type_source = TYPE_SOURCE_LEASE;
                typed = true;
            }
        }
        hook_client hook{};
        if (!typed && hook_allowed && hook_lookup(&hook, e->mac) && hook.type != -1) {
            e->device_type = hook.type;
            e->type_source = TYPE_SOURCE_LEASE;
        }
    }
}

void assign_ports_locked() noexcept
{
    for (client_table_entry *e = client_table.head; e; e = e->next) {
        const fdb_entry *rec = fdb_find(fdb_of_pass.buckets, e->mac);
        char name[16] = {};
        if (!rec || fdb_port_name(name, rec->port_no, rec->bridge) != 0 || port_count >= PORT_INFO_ROWS)
            continue;
        int row = find_port_row(name);
        if (row < 0)
            row = add_port_row(name);
        if (row < 0)
            continue;
        e->wire_type = port_info_table[row].wire_type;
        e->guest = port_info_table[row].guest;
        copy_str(e->ifname, port_info_table[row].ifname, 15);
    }
}

void mark_front_clients_locked() noexcept
{
    uint32_t gateway = 0;
    if (inet_pton(AF_INET, lan_info.gateway, &gateway) != 1)
        return;
    const client_table_entry *front = find_entry_by_ip(gateway);
    if (!front)
        return;
    int capacity = SAME_PORT_GROW;
    auto *macs = static_cast<uint8_t *>(calloc(static_cast<size_t>(capacity), 6));
    if (!macs)
        return;
    int count = macs_on_same_port(&macs, &capacity, front->mac);
    for (client_table_entry *e = client_table.head; e; e = e->next)
        for (int i = 0; i < count; i++)
            if (std::memcmp(macs + static_cast<size_t>(i) * 6, e->mac, 6) == 0)
                e->wire_type = WIRE_TYPE_UPSTREAM;
    free(macs);
}

int create_client_table() noexcept
{
    if (pthread_rwlock_tryrdlock(&client_table_lock) != 0)
        return -2;
    pthread_rwlock_unlock(&client_table_lock);
    write_hold hold;

    malloc_ptr<uint8_t> dump;
    int dump_len = 0;
    if (read_sources_locked(dump, dump_len) < 0) {
        free_pass_fdb();
        return -1;
    }

    free_client_table_locked();
    free_arp_probes_locked();
    for (struct arp_item &row : arp_item)
        row.active = 0;
    refresh_stations();

    classify_ipv4_locked(std::span<const uint8_t>(dump.get(), static_cast<size_t>(dump_len)));
    verify_arp_probes_locked();
    drop_unanswered_probes_locked();
    if (sys_mode_is_node())
        add_hook_stations_locked();
    run_ipv6_phases_locked(std::span<const uint8_t>(dump.get(), static_cast<size_t>(dump_len)));
    check_remembered_locked();
    assign_ports_locked();
    if (sys_mode_is_node())
        mark_front_clients_locked();
    read_dhcpv6_leases();
    int count = name_entries_locked();
    type_entries_locked();

    free(pass_leases);
    pass_leases = nullptr;
    pass_lease_count = 0;
    free_pass_fdb();
    return count;
}
