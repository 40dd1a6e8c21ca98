// libiwinfo stand-in. One backend, "nl80211", claims an interface when a
// station file exists for it: IWINFO_STATION_DIR/<ifname> (on the lab's
// router "/var/run/iwinfo/wl0" and so on). Every other name gets no backend,
// as a wired or missing interface gets none from the real library.
//
// The station file has one station per line; "#" starts a comment line.
// A line is white-space separated key=value words:
//
//   mac=02:00:00:00:10:01 inactive=1200 signal=-45 rx_rate=866700 tx_rate=650000
//   mac=... mlo_addr=02:00:00:00:99:01 mlo_rx_2g=1000 mlo_tx_2g=900 mlo_rx_5g=2000 ...
//
// `mac` is required; `inactive` (ms), `signal` and `noise` (dBm),
// `rx_rate` and `tx_rate` (kbit/s), `rx_packets`, `tx_packets`, `rx_bytes`,
// `tx_bytes`, `connected_time` (s) default to 0. A link's rate keys
// (`mlo_rx_2g`, `mlo_tx_2g`, `mlo_rx_5g`, `mlo_tx_5g`, `mlo_rx_6g`,
// `mlo_tx_6g`) set that link's valid flag; `mlo_addr` is the MLD address.
// A file with any line that does not parse (unknown key, bad number, bad
// MAC) gives no stations: assoclist fails for that interface.
extern "C" {
#include <iwinfo.h>
}

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <string_view>

struct uci_context *uci_ctx = nullptr;

namespace
{

constexpr size_t ELEMENT = sizeof(struct iwinfo_assoclist_entry);
static_assert(ELEMENT == 144, "the platform's station element is 144 bytes");

std::string station_path(const char *ifname)
{
    return std::string(IWINFO_STATION_DIR) + "/" + ifname;
}

bool safe_name(const char *ifname)
{
    if (!ifname || !*ifname || std::strlen(ifname) >= IF_NAMESIZE)
        return false;
    return std::strchr(ifname, '/') == nullptr && std::strcmp(ifname, ".") != 0 &&
           std::strcmp(ifname, "..") != 0;
}

bool parse_mac(std::string_view text, uint8_t out[6])
{
    if (text.size() != 17)
        return false;
    for (int i = 0; i < 6; i++) {
        unsigned v = 0;
        for (int j = 0; j < 2; j++) {
            char c = text[static_cast<size_t>(i * 3 + j)];
            int d = c >= '0' && c <= '9'   ? c - '0'
                    : c >= 'a' && c <= 'f' ? c - 'a' + 10
                    : c >= 'A' && c <= 'F' ? c - 'A' + 10
                                           : -1;
            if (d < 0)
                return false;
            v = v * 16 + static_cast<unsigned>(d);
        }
        if (i < 5 && text[static_cast<size_t>(i * 3 + 2)] != ':' &&
            text[static_cast<size_t>(i * 3 + 2)] != '-')
            return false;
        out[i] = static_cast<uint8_t>(v);
    }
    return true;
}

bool parse_long(std::string_view text, long long lo, long long hi, long long &out)
{
    if (text.empty() || text.size() > 20)
        return false;
    char buf[24];
    std::memcpy(buf, text.data(), text.size());
    buf[text.size()] = '\0';
    char *end = nullptr;
    errno = 0;
    long long v = std::strtoll(buf, &end, 10);
    if (errno != 0 || *end != '\0' || v < lo || v > hi)
        return false;
    out = v;
    return true;
}

bool set_u32(std::string_view v, uint32_t &field)
{
    long long n = 0;
    if (!parse_long(v, 0, 0xffffffffLL, n))
        return false;
    field = static_cast<uint32_t>(n);
    return true;
}

bool set_s8(std::string_view v, int8_t &field)
{
    long long n = 0;
    if (!parse_long(v, -128, 127, n))
        return false;
    field = static_cast<int8_t>(n);
    return true;
}

bool set_link(std::string_view v, struct iwinfo_rate_entry &rate, uint8_t &valid)
{
    valid = 1;
    return set_u32(v, rate.rate);
}

bool set_field(struct iwinfo_assoclist_entry &e, std::string_view key, std::string_view v, bool &has_mac)
{
    if (key == "mac")
        return has_mac = parse_mac(v, e.mac);
    if (key == "mlo_addr")
        return parse_mac(v, e.mlo_addr);
    if (key == "signal")
        return set_s8(v, e.signal);
    if (key == "noise")
        return set_s8(v, e.noise);
    struct {
        const char *key;
        uint32_t *field;
    } const plain[] = {
        {"inactive", &e.inactive},    {"rx_packets", &e.rx_packets},         {"tx_packets", &e.tx_packets},
        {"rx_rate", &e.rx_rate.rate}, {"tx_rate", &e.tx_rate.rate},          {"rx_bytes", &e.rx_bytes},
        {"tx_bytes", &e.tx_bytes},    {"connected_time", &e.connected_time},
    };
    for (const auto &p : plain)
        if (key == p.key)
            return set_u32(v, *p.field);
    if (key == "mlo_rx_2g")
        return set_link(v, e.mlo_rx_rate_2g, e.mlo_valid_2g);
    if (key == "mlo_tx_2g")
        return set_link(v, e.mlo_tx_rate_2g, e.mlo_valid_2g);
    if (key == "mlo_rx_5g")
        return set_link(v, e.mlo_rx_rate_5g, e.mlo_valid_5g);
    if (key == "mlo_tx_5g")
        return set_link(v, e.mlo_tx_rate_5g, e.mlo_valid_5g);
    if (key == "mlo_rx_6g")
        return set_link(v, e.mlo_rx_rate_6g, e.mlo_valid_6g);
    if (key == "mlo_tx_6g")
        return set_link(v, e.mlo_tx_rate_6g, e.mlo_valid_6g);
    return false;
}

// One line into an element. 0: a station; 1: nothing on the line; -1: bad.
int parse_line(std::string_view line, struct iwinfo_assoclist_entry &e)
{
    std::memset(&e, 0, sizeof(e));
    bool has_mac = false;
    bool any = false;
    size_t pos = 0;
    while (pos < line.size()) {
        while (pos < line.size() && std::strchr(" \t\r\n", line[pos]))
            pos++;
        if (pos >= line.size())
            break;
        if (!any && line[pos] == '#')
            return 1;
        size_t end = pos;
        while (end < line.size() && !std::strchr(" \t\r\n", line[end]))
            end++;
        std::string_view word = line.substr(pos, end - pos);
        size_t eq = word.find('=');
        if (eq == std::string_view::npos || !set_field(e, word.substr(0, eq), word.substr(eq + 1), has_mac))
            return -1;
        any = true;
        pos = end;
    }
    if (!any)
        return 1;
    return has_mac ? 0 : -1;
}

int file_probe(const char *ifname)
{
    if (!safe_name(ifname))
        return 0;
    FILE *f = std::fopen(station_path(ifname).c_str(), "r");
    if (!f)
        return 0;
    std::fclose(f);
    return 1;
}

int file_assoclist(const char *ifname, char *buf, int *len)
{
    if (!buf || !len || !safe_name(ifname))
        return -1;
    *len = 0;
    FILE *f = std::fopen(station_path(ifname).c_str(), "r");
    if (!f)
        return -1;
    size_t used = 0;
    char *line = nullptr;
    size_t cap = 0;
    ssize_t n;
    int rc = 0;
    while ((n = getline(&line, &cap, f)) >= 0) {
        struct iwinfo_assoclist_entry e;
        int r = parse_line(std::string_view(line, static_cast<size_t>(n)), e);
        if (r < 0) {
            rc = -1;
            break;
        }
        if (r > 0)
            continue;
        if (used + ELEMENT > static_cast<size_t>(IWINFO_BUFSIZE))
            break; // the buffer is full, as on a crowded radio
        std::memcpy(buf + used, &e, ELEMENT);
        used += ELEMENT;
    }
    std::free(line);
    std::fclose(f);
    if (rc != 0)
        return -1;
    *len = static_cast<int>(used);
    return 0;
}

int no_probe(const char *)
{
    return 0;
}

void no_close() {}

iwinfo_ops make_ops(const char *name, int (*probe)(const char *),
                    int (*assoclist)(const char *, char *, int *))
{
    iwinfo_ops ops{};
    ops.name = name;
    ops.probe = probe;
    ops.assoclist = assoclist;
    ops.close = no_close;
    return ops;
}

} // namespace

extern "C" {

const struct iwinfo_ops nl80211_ops = make_ops("nl80211", file_probe, file_assoclist);
const struct iwinfo_ops madwifi_ops = make_ops("madwifi", no_probe, nullptr);
const struct iwinfo_ops wl_ops = make_ops("wl", no_probe, nullptr);
const struct iwinfo_ops wext_ops = make_ops("wext", no_probe, nullptr);

const struct iwinfo_ops *iwinfo_backend(const char *ifname)
{
    const struct iwinfo_ops *backends[] = {&nl80211_ops, &madwifi_ops, &wl_ops, &wext_ops};
    for (const struct iwinfo_ops *ops : backends)
        if (ops->probe(ifname))
            return ops;
    return nullptr;
}

const struct iwinfo_ops *iwinfo_backend_by_name(const char *name)
{
    const struct iwinfo_ops *backends[] = {&nl80211_ops, &madwifi_ops, &wl_ops, &wext_ops};
    for (const struct iwinfo_ops *ops : backends)
        if (name && std::strcmp(ops->name, name) == 0)
            return ops;
    return nullptr;
}

const char *iwinfo_type(const char *ifname)
{
    const struct iwinfo_ops *ops = iwinfo_backend(ifname);
    return ops ? ops->name : nullptr;
}

// The file backend keeps no sockets open.
void iwinfo_finish(void) {}

} // extern "C"
