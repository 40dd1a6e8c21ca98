// The radio interfaces, the radio members of the LAN bridge, and the class
// of each port, from the `wireless` and `weavelink` packages and the
// factory profile.
#include "scan/topology.h"

#include <cstdio>
#include <cstring>
#include <dirent.h>
#include <new>
#include <string_view>

#include "core/locks.h"
#include "core/log.h"
#include "core/text.h"
#include "core/uci_util.h"

struct port_info port_info_table[PORT_INFO_ROWS] = {};
uint8_t port_count = 0;
char radio_list[RADIO_LIST_ROWS][16] = {};
int radio_count = 0;
char lan_wlanif[RADIO_LIST_ROWS][16] = {};
int lan_wlanif_num = 0;
pthread_mutex_t wlan_lock = PTHREAD_MUTEX_INITIALIZER;


bool sys_mode_is_node() noexcept
{
    return sys_mode_text[0] != '\0' && std::strcmp(sys_mode_text, "router") != 0 &&
           std::strcmp(sys_mode_text, "hotspot") != 0;
}

int read_profile(const char *section_type, const char *key, char *out, size_t out_size) noexcept
{
    if (!out || out_size == 0)
        return 0;
    out[0] = '\0';
    uci_context_ptr ctx = new_uci_context(PROFILE_CONFDIR);
    if (!ctx)
        return 0;
    uci_package *pkg = nullptr;
    if (uci_load(ctx.get(), "profile", &pkg) != UCI_OK) {
        uci_perror(ctx.get(), "load profile");
        return 0;
    }
    char expr[128];
    std::snprintf(expr, sizeof(expr), "profile.@%s[0].%s", section_type, key);
    uci_ptr ptr{};
    if (uci_lookup_ptr(ctx.get(), &ptr, expr, true) != UCI_OK) {
        uci_perror(ctx.get(), "lookup ptr");
        return 0;
    }
    if (!(ptr.flags & uci_ptr::UCI_LOOKUP_COMPLETE) || !ptr.o || ptr.o->type != UCI_TYPE_STRING)
        return 0;
    std::strncpy(out, ptr.o->v.string, out_size);
    out[out_size - 1] = '\0';
    return static_cast<int>(std::strlen(out));
}

namespace
{

using profile_value = char[PROFILE_VALUE_SIZE];

// Whether `name` begins with `value`; an empty value never matches.
bool prefix_match(const char *name, const char *value) noexcept
{
    size_t len = std::strlen(value);
    return len > 0 && std::strncmp(name, value, len) == 0;
}

bool profile_matches(const char *key, const char *name) noexcept
{
    profile_value v{};
    return read_profile("wireless", key, v, sizeof(v)) > 0 && prefix_match(name, v);
}

// The sections of a loaded package; a failed load prints with `package` as
// the prefix and gives nullptr.
uci_package *load_package(uci_context *ctx, const char *package) noexcept
{
    uci_package *pkg = nullptr;
    if (uci_load(ctx, package, &pkg) != UCI_OK) {
        uci_perror(ctx, package);
        return nullptr;
    }
    return pkg;
}

uci_section *section_by_ifname(uci_context *ctx, uci_package *pkg, const char *name) noexcept
{
    uci_element *e = nullptr;
    uci_foreach_element(&pkg->sections, e)
    {
        uci_section *s = uci_to_section(e);
        const char *ifname = uci_string(ctx, s, "ifname");
        if (ifname && std::strcmp(ifname, name) == 0)
            return s;
    }
    return nullptr;
}

bool has_option(uci_context *ctx, uci_section *s, const char *option) noexcept
{
    uci_element *e = nullptr;
    return uci_lookup_next(ctx, &e, &s->options, option) == UCI_OK && e;
}

bool option_begins(uci_context *ctx, uci_section *s, const char *option, const char *text) noexcept
{
    const char *v = uci_string(ctx, s, option);
    return v && std::strncmp(v, text, std::strlen(text)) == 0;
}

// A mesh key of the profile and the `ifname` of the `weavelink` section it
// names.
struct mesh_key {
    profile_value value{};
    profile_value resolved{};
};

void read_mesh_key(uci_context *ctx, uci_package *pkg, const char *key, mesh_key &out) noexcept
{
    read_profile("wireless", key, out.value, sizeof(out.value));
    if (!out.value[0])
        return;
    uci_section *s = uci_lookup_section(ctx, pkg, out.value);
    const char *ifname = s ? uci_string(ctx, s, "ifname") : nullptr;
    if (ifname)
        copy_str(out.resolved, ifname);
}

bool mesh_key_matches(const mesh_key &k, const char *ifname) noexcept
{
    if (!k.value[0])
        return false;
    return prefix_match(ifname, k.value) || std::strncmp(ifname, k.resolved, std::strlen(k.resolved)) == 0;
}

// A port of the `weavelink` package: mesh backhaul or configuration.
void classify_mesh(uci_context *ctx, uci_package *pkg, uci_section *s, port_info &row) noexcept
{
    mesh_key if2g, if5g, cfg2g, cfg5g;
    read_mesh_key(ctx, pkg, "wireless_mesh_ifname_2g", if2g);
    read_mesh_key(ctx, pkg, "wireless_mesh_ifname_5g", if5g);
    read_mesh_key(ctx, pkg, "wireless_mesh_config_2g", cfg2g);
    read_mesh_key(ctx, pkg, "wireless_mesh_config_5g", cfg5g);
    row.guest = has_option(ctx, s, "guest") ? GUEST_YES : GUEST_NO;
    const char *ifname = uci_string(ctx, s, "ifname");
    if (mesh_key_matches(if2g, ifname))
        row.wire_type = WIRE_2G;
    else if (mesh_key_matches(if5g, ifname))
        row.wire_type = WIRE_5G;
    else if (prefix_match(row.ifname, cfg2g.value) || prefix_match(row.ifname, cfg5g.value)) {
        row.wire_type = WIRE_MESH_CONFIG;
        row.guest = GUEST_NO;
    } else
        row.wire_type = WIRE_OTHER;
}

uint8_t iot_kind(const char *section_name, const char *ifname) noexcept
{
    static const struct {
        const char *key;
        uint8_t wire_type;
    } keys[] = {
        {"wireless_iot_ifname_2g", WIRE_IOT_2G},
        {"wireless_iot_ifname_5g", WIRE_IOT_5G},
        {"wireless_iot_ifname_5g_2", WIRE_IOT_5G_2},
    };
    for (const auto &k : keys) {
        profile_value v{};
        if (read_profile("wireless", k.key, v, sizeof(v)) > 0 &&
            (prefix_match(section_name, v) || prefix_match(ifname, v)))
            return k.wire_type;
    }
    return WIRE_OTHER;
}

uint8_t band_kind(uci_context *ctx, uci_package *pkg, const char *device) noexcept
{
    uci_section *dev = uci_lookup_section(ctx, pkg, device);
    const char *band = dev ? uci_string(ctx, dev, "band") : nullptr;
    if (!band)
        return WIRE_OTHER;
    if (band[0] == '2')
        return WIRE_2G;
    if (std::strcmp(band, "5g") == 0)
        return WIRE_5G;
    if (std::strcmp(band, "5g_2") == 0)
        return WIRE_5G_2;
    if (std::strcmp(band, "6g") == 0)
        return WIRE_6G;
    return WIRE_OTHER;
}

// A radio interface of the `wireless` package.
void classify_radio(uci_context *ctx, uci_package *pkg, uci_section *s, port_info &row) noexcept
{
    bool guest = has_option(ctx, s, "guest") && option_begins(ctx, s, "enable", "on");
    row.guest = guest ? GUEST_YES : GUEST_NO;
    const char *device = uci_string(ctx, s, "device");
    if (has_option(ctx, s, "iot"))
        row.wire_type = iot_kind(s->e.name, uci_string(ctx, s, "ifname"));
    else if (option_begins(ctx, s, "mlo_host", "on"))
        row.wire_type = WIRE_MLO;
    else if (device)
        row.wire_type = band_kind(ctx, pkg, device);
    else
        row.wire_type = WIRE_OTHER;
}

// The packages' part of the classification; false when no section claimed
// the port or a package could not be read.
bool classify_by_packages(port_info &row) noexcept
{
    uci_context_ptr mesh_ctx = new_uci_context(UCI_CONFIG_DIR);
    uci_package *mesh = mesh_ctx ? load_package(mesh_ctx.get(), "weavelink") : nullptr;
    if (!mesh)
        return false;
    if (uci_section *s = section_by_ifname(mesh_ctx.get(), mesh, row.ifname)) {
        classify_mesh(mesh_ctx.get(), mesh, s, row);
        return true;
    }
    uci_context_ptr ctx = new_uci_context(UCI_CONFIG_DIR);
    uci_package *wireless = ctx ? load_package(ctx.get(), "wireless") : nullptr;
    if (!wireless)
        return false;
    if (uci_section *s = section_by_ifname(ctx.get(), wireless, row.ifname)) {
        classify_radio(ctx.get(), wireless, s, row);
        return true;
    }
    return false;
}

} // namespace

void classify_port(int index) noexcept
{
    if (index < 0 || index >= PORT_INFO_ROWS)
        return;
    port_info &row = port_info_table[index];
    mutex_guard hold(uci_lock);
    if (profile_matches("wireless_mesh_bh_2g", row.ifname)) {
        row.wire_type = WIRE_2G;
        row.guest = GUEST_NO;
        return;
    }
    if (profile_matches("wireless_mesh_bh_5g", row.ifname)) {
        row.wire_type = WIRE_5G;
        row.guest = GUEST_NO;
        return;
    }
    if (profile_matches("wireless_mesh_bh_cfg_2g", row.ifname) ||
        profile_matches("wireless_mesh_bh_cfg_5g", row.ifname)) {
        row.wire_type = WIRE_MESH_CONFIG;
        row.guest = GUEST_NO;
        return;
    }
    if (!classify_by_packages(row)) {
        row.wire_type = WIRE_WIRED;
        row.guest = GUEST_NO;
    }
}

int find_port_row(const char *name) noexcept
{
    int rows = port_count < PORT_INFO_ROWS ? port_count : PORT_INFO_ROWS;
    for (int i = 0; i < rows; i++)
        if (std::strncmp(port_info_table[i].ifname, name, sizeof(port_info_table[i].ifname)) == 0)
            return i;
    return -1;
}

int add_port_row(const char *name) noexcept
{
    if (port_count >= PORT_INFO_ROWS)
        return -1;
    int index = port_count;
    port_info &row = port_info_table[index];
    row = {};
    copy_str(row.ifname, name, 15);
    classify_port(index);
    // The count grows only once the row is complete.
    __atomic_store_n(&port_count, static_cast<uint8_t>(index + 1), __ATOMIC_RELEASE);
    return index;
}

namespace
{

bool radio_name(const char *name) noexcept
{
    return std::strncmp(name, "ath", 3) == 0 || std::strncmp(name, "wl", 2) == 0;
}

// Names (shorter than 16) of the option `ifname` of every section, appended
// to `out` while there is room.
void collect_ifnames(const char *package, char (*out)[16], int &count, bool enabled_only) noexcept
{
    uci_context_ptr ctx = new_uci_context(UCI_CONFIG_DIR);
    uci_package *pkg = ctx ? load_package(ctx.get(), package) : nullptr;
    if (!pkg)
        return;
    uci_element *e = nullptr;
    uci_foreach_element(&pkg->sections, e)
    {
        if (count >= RADIO_LIST_ROWS)
            return;
        uci_section *s = uci_to_section(e);
        const char *ifname = uci_string(ctx.get(), s, "ifname");
        if (!ifname || !ifname[0] || std::strlen(ifname) >= 16)
            continue;
        const char *enable = uci_string(ctx.get(), s, "enable");
        if (enabled_only && enable && std::strcmp(enable, "off") == 0)
            continue;
        copy_str(out[count++], ifname);
    }
}

} // namespace

void get_lan_wlanif() noexcept
{
    LR_LOG(7, "[lr] get_lan_wlanif");
    mutex_guard hold(wlan_lock);
    lan_wlanif_num = 0;
    std::memset(lan_wlanif, 0, sizeof(lan_wlanif));
    DIR *dir = opendir("/sys/class/net/br-lan/brif/");
    if (dir) {
        while (const dirent *d = readdir(dir)) {
            if (lan_wlanif_num >= RADIO_LIST_ROWS || port_count >= PORT_INFO_ROWS)
                break;
            if (d->d_type != DT_LNK || !radio_name(d->d_name) || std::strlen(d->d_name) >= 16)
                continue;
            copy_str(lan_wlanif[lan_wlanif_num++], d->d_name);
            if (find_port_row(d->d_name) >= 0)
                continue;
            int row = add_port_row(d->d_name);
            if (row >= 0)
                LR_LOG(6, "update wlanif %s, wired : %d, guest : %d", port_info_table[row].ifname,
                       port_info_table[row].wire_type, port_info_table[row].guest);
        }
        closedir(dir);
    }
    LR_LOG(7, "[lr] lan_wlanifnum = %d", lan_wlanif_num);
}

void read_radio_list() noexcept
{
    get_lan_wlanif();
    mutex_guard hold(uci_lock);
    radio_count = 0;
    std::memset(radio_list, 0, sizeof(radio_list));
    collect_ifnames("wireless", radio_list, radio_count, false);
    collect_ifnames("weavelink", radio_list, radio_count, false);
}

namespace
{

constexpr uint32_t STATION_ACTIVE_MS = 60000;

struct station_item {
    uint8_t mac[6];
    uint8_t radio;
    int32_t active;
    station_item *next;
};
station_item *station_list = nullptr;

void drop_stations_locked() noexcept
{
    while (station_list) {
        station_item *next = station_list->next;
        delete station_list;
        station_list = next;
    }
}

bool listed(const char (*names)[16], int count, const char *name) noexcept
{
    for (int i = 0; i < count; i++)
        if (std::strcmp(names[i], name) == 0)
            return true;
    return false;
}

void add_stations_locked(int radio, const char *buf, int len) noexcept
{
    constexpr size_t element = sizeof(iwinfo_assoclist_entry);
    for (size_t off = 0; off + element <= static_cast<size_t>(len); off += element) {
        iwinfo_assoclist_entry e;
        std::memcpy(&e, buf + off, element);
        auto *item = new (std::nothrow) station_item{};
        if (!item)
            return;
        std::memcpy(item->mac, e.mac, 6);
        item->radio = static_cast<uint8_t>(radio);
        item->active = e.inactive <= STATION_ACTIVE_MS ? 1 : 0;
        item->next = station_list;
        station_list = item;
    }
}

const station_item *find_station_locked(const uint8_t mac[6]) noexcept
{
    for (const station_item *s = station_list; s; s = s->next)
        if (std::memcmp(s->mac, mac, 6) == 0)
            return s;
    return nullptr;
}

} // namespace

void refresh_stations() noexcept
{
    mutex_guard hold(wlan_lock);
    char enabled[RADIO_LIST_ROWS][16] = {};
    int enabled_count = 0;
    {
        mutex_guard uci_hold(uci_lock);
        collect_ifnames("wireless", enabled, enabled_count, true);
    }
    drop_stations_locked();
    static char buf[IWINFO_BUFSIZE];
    for (int i = 0; i < radio_count && i < RADIO_LIST_ROWS; i++) {
        if (!listed(enabled, enabled_count, radio_list[i]))
            continue;
        const iwinfo_ops *ops = iwinfo_backend(radio_list[i]);
        int len = 0;
        if (!ops || !ops->assoclist || ops->assoclist(radio_list[i], buf, &len) != 0)
            continue;
        add_stations_locked(i, buf, len);
    }
    iwinfo_finish();
}

int station_is_active(const uint8_t mac[6]) noexcept
{
    mutex_guard hold(wlan_lock);
    const station_item *s = find_station_locked(mac);
    return s ? s->active : -1;
}

std::vector<std::array<uint8_t, 6>> station_macs() noexcept
{
    std::vector<std::array<uint8_t, 6>> macs;
    mutex_guard hold(wlan_lock);
    try {
        for (const station_item *s = station_list; s; s = s->next) {
            std::array<uint8_t, 6> mac;
            std::memcpy(mac.data(), s->mac, 6);
            macs.push_back(mac);
        }
    } catch (...) {
        // Out of memory: the stations gathered so far.
    }
    return macs;
}

int station_radio(const uint8_t mac[6]) noexcept
{
    mutex_guard hold(wlan_lock);
    const station_item *s = find_station_locked(mac);
    return s ? s->radio : -1;
}
