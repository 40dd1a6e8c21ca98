// libmac-oui stand-in: the IEEE MA-L, MA-M and MA-S registries in memory.
//
// Each registry is a sorted array of (prefix, name) pairs, so a query is
// three binary searches, longest prefix first. The names share one text
// pool, which keeps the loaded database near 1.5 MB for the ~42000 rows.
// The directory of the CSV files is MAC_OUI_DEFAULT_DIR, or the one named
// by the environment variable MAC_OUI_DATA_DIR (used by tests).
#include <mac_oui.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <mutex>
#include <string>
#include <string_view>
#include <vector>

namespace
{

struct oui_row {
    uint64_t prefix; // the assignment's hex digits as a number
    uint32_t name_off;
    uint32_t name_len;
};

// One registry: all its assignments have the same number of hex digits.
struct registry {
    const char *file;
    unsigned digits;
    std::vector<oui_row> rows;
};

struct database {
    registry regs[3] = {{"oui36.csv", 9, {}}, {"mam.csv", 7, {}}, {"oui.csv", 6, {}}};
    std::string names;
};

std::mutex db_mutex;
std::unique_ptr<database> db;

int hex_value(char c) noexcept
{
    if (c >= '0' && c <= '9')
        return c - '0';
    if (c >= 'a' && c <= 'f')
        return c - 'a' + 10;
    if (c >= 'A' && c <= 'F')
        return c - 'A' + 10;
    return -1;
}

// Splits one CSV line into at most `max` fields; quoted fields may hold
// commas and doubled quotes. The unquoted text is written into `scratch`.
size_t split_csv(std::string_view line, std::string &scratch, std::string_view *fields, size_t max)
{
    scratch.clear();
    scratch.reserve(line.size());
    std::vector<std::pair<size_t, size_t>> spans;
    size_t i = 0;
    while (spans.size() < max) {
        size_t start = scratch.size();
        if (i < line.size() && line[i] == '"') {
            ++i;
            while (i < line.size()) {
                if (line[i] == '"') {
                    if (i + 1 < line.size() && line[i + 1] == '"') {
                        scratch.push_back('"');
                        i += 2;
                        continue;
                    }
                    ++i;
                    break;
                }
                scratch.push_back(line[i++]);
            }
            while (i < line.size() && line[i] != ',')
                scratch.push_back(line[i++]);
        } else {
            while (i < line.size() && line[i] != ',')
                scratch.push_back(line[i++]);
        }
        spans.emplace_back(start, scratch.size() - start);
        if (i >= line.size())
            break;
        ++i; // the comma
    }
    for (size_t k = 0; k < spans.size(); ++k)
        fields[k] = std::string_view(scratch).substr(spans[k].first, spans[k].second);
    return spans.size();
}

std::string_view trim(std::string_view s) noexcept
{
    while (!s.empty() && (s.back() == ' ' || s.back() == '\t' || s.back() == '\r'))
        s.remove_suffix(1);
    while (!s.empty() && (s.front() == ' ' || s.front() == '\t'))
        s.remove_prefix(1);
    return s;
}

bool parse_prefix(std::string_view text, unsigned digits, uint64_t &out) noexcept
{
    if (text.size() != digits)
        return false;
    uint64_t v = 0;
    for (char c : text) {
        int h = hex_value(c);
        if (h < 0)
            return false;
        v = v << 4 | static_cast<uint64_t>(h);
    }
    out = v;
    return true;
}

bool read_file(const std::string &path, std::string &out)
{
    FILE *f = std::fopen(path.c_str(), "rb");
    if (!f)
        return false;
    char buf[65536];
    size_t n;
    while ((n = std::fread(buf, 1, sizeof(buf), f)) > 0)
        out.append(buf, n);
    std::fclose(f);
    return true;
}

// Reads one registry file; rows that don't parse are passed over.
void load_registry(const std::string &dir, registry &reg, std::string &names)
{
    std::string text;
    if (!read_file(dir + "/" + reg.file, text))
        return;
    std::string scratch;
    std::string_view rest(text);
    while (!rest.empty()) {
        size_t eol = rest.find('\n');
        std::string_view line = rest.substr(0, eol);
        rest = eol == std::string_view::npos ? std::string_view() : rest.substr(eol + 1);
        std::string_view f[3];
        if (split_csv(line, scratch, f, 3) < 3)
            continue;
        uint64_t prefix;
        if (!parse_prefix(trim(f[1]), reg.digits, prefix))
            continue; // the header line, or a broken row
        std::string_view name = trim(f[2]);
        reg.rows.push_back({prefix, static_cast<uint32_t>(names.size()), static_cast<uint32_t>(name.size())});
        names.append(name);
    }
    std::stable_sort(reg.rows.begin(), reg.rows.end(),
                     [](const oui_row &a, const oui_row &b) { return a.prefix < b.prefix; });
}

uint64_t mac_prefix(const uint8_t mac[6], unsigned digits) noexcept
{
    uint64_t v = 0;
    for (int i = 0; i < 6; ++i)
        v = v << 8 | mac[i];
    return v >> (48 - 4 * digits);
}

} // namespace

extern "C" int load_mac_oui_database(void)
{
    std::lock_guard<std::mutex> hold(db_mutex);
    if (db)
        return 0;
    const char *dir = std::getenv("MAC_OUI_DATA_DIR");
    if (!dir || !*dir)
        dir = MAC_OUI_DEFAULT_DIR;
    auto fresh = std::make_unique<database>();
    size_t total = 0;
    for (registry &reg : fresh->regs) {
        load_registry(dir, reg, fresh->names);
        total += reg.rows.size();
    }
    if (total == 0)
        return -1;
    fresh->names.shrink_to_fit();
    db = std::move(fresh);
    return 0;
}

extern "C" void release_mac_oui_database(void)
{
    std::lock_guard<std::mutex> hold(db_mutex);
    db.reset();
}

extern "C" int mac_oui_database_ready(void)
{
    std::lock_guard<std::mutex> hold(db_mutex);
    return db ? 1 : 0;
}

extern "C" int mac_oui_check_mac(const char *mac)
{
    if (!mac)
        return 0;
    size_t len = std::strlen(mac);
    if (len == 12)
        return std::all_of(mac, mac + 12, [](char c) { return hex_value(c) >= 0; }) ? 1 : 0;
    if (len != 17)
        return 0;
    char sep = mac[2];
    if (sep != ':' && sep != '-')
        return 0;
    for (size_t i = 0; i < 17; ++i) {
        bool ok = i % 3 == 2 ? mac[i] == sep : hex_value(mac[i]) >= 0;
        if (!ok)
            return 0;
    }
    return 1;
}

extern "C" int query_mac_oui(const uint8_t mac[6], char *vendor, size_t size)
{
    if (!mac || !vendor || size == 0)
        return -1;
    std::lock_guard<std::mutex> hold(db_mutex);
    if (!db)
        return -1;
    for (const registry &reg : db->regs) {
        uint64_t key = mac_prefix(mac, reg.digits);
        auto it = std::lower_bound(reg.rows.begin(), reg.rows.end(), key,
                                   [](const oui_row &r, uint64_t k) { return r.prefix < k; });
        if (it == reg.rows.end() || it->prefix != key)
            continue;
        size_t n = std::min<size_t>(it->name_len, size - 1);
        std::memcpy(vendor, db->names.data() + it->name_off, n);
        vendor[n] = '\0';
        return 0;
    }
    return -1;
}
