#include "recognition/fing_state.h"

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <mutex>
#include <sys/stat.h>
#include <unistd.h>

#include "core/text.h"
#include "core/uci_util.h"
#include "registry/run_command.h"

int32_t fing_state_count = 0;
fing_state_row fing_state_table[FING_STATE_ROWS] = {};

namespace
{

// Lines of the delta file are read with this limit; a longer line is read
// past in pieces, none of which looks like a section line.
constexpr size_t DELTA_LINE_MAX = 512;
// "uci get" of a section prints its type; only the start is looked at.
constexpr size_t ENSURE_READ = 32;
// mac_num is read into a buffer of this size.
constexpr size_t MAC_NUM_SIZE = 8;
// Lines of the delete list: a section name and its newline.
constexpr size_t DELETE_LINE_MAX = 16;
constexpr char MAC_NUM_OPTION[] = "mac_num";
// The daemon's writers of the store (probe threads, workers) go one at a
// time: a save, a revert and the uci command each rewrite the delta file,
// and two at once could lose the other's change (mac_num above all).
// Scripts still race with the daemon; what they lose is learnt again.
std::recursive_mutex store_lock;

struct file_close {
    void operator()(FILE *f) const noexcept
    {
        fclose(f);
    }
};
using file_ptr = std::unique_ptr<FILE, file_close>;

// A context that reads like `uci -P /var/state`: the default change
// directory stays a delta path, and changes are saved under "/var/state".
uci_context_ptr state_context() noexcept
{
    uci_context_ptr ctx(uci_alloc_context());
    if (!ctx) {
        puts("uci_alloc_context failed.");
        return ctx;
    }
    if (ctx->savedir)
        uci_add_delta_path(ctx.get(), ctx->savedir);
    uci_set_savedir(ctx.get(), FING_STATE_DIR);
    return ctx;
}

// "package.section.option" in `buf`, which uci_lookup_ptr cuts into pieces.
bool option_path(char *buf, size_t size, const char *package, const char *section, const char *option)
{
    if (!fing_state_name_ok(package) || !fing_state_name_ok(section) || !fing_state_name_ok(option))
        return false;
    int n = snprintf(buf, size, "%s.%s.%s", package, section, option);
    return n > 0 && static_cast<size_t>(n) < size;
}

const char *option_value(const uci_ptr &ptr)
{
    if (!(ptr.flags & uci_ptr::UCI_LOOKUP_COMPLETE) || !ptr.o || ptr.o->type != UCI_TYPE_STRING)
        return nullptr;
    return ptr.o->v.string;
}

// The uci command on the state directory; no shell is involved, so a name
// is one argument whatever it holds.
int state_command(const char *verb, const char *target)
{
    const char *argv[] = {"uci", "-P", FING_STATE_DIR, verb, target, nullptr};
    return run_command_wait(argv);
}

int revert_section(const char *name)
{
    char target[64];
    snprintf(target, sizeof(target), "%s.%s", FING_PACKAGE, name);
    return state_command("revert", target);
}

// Calls `fn(name)` for each client section line of the delta file, in file
// order, until it returns false. -1 when the file does not open, else the
// number of sections passed to fn.
template <typename Fn> int each_client_section(Fn fn)
{
    file_ptr f(fopen(FING_DELTA_FILE, "r"));
    if (!f)
        return -1;
    char line[DELTA_LINE_MAX];
    int count = 0;
    bool line_start = true;
    while (fgets(line, sizeof(line), f.get())) {
        bool at_start = line_start;
        line_start = std::strchr(line, '\n') != nullptr;
        char name[13];
        if (!at_start || !fing_state_section_line(line, name))
            continue;
        count++;
        if (!fn(name))
            break;
    }
    return count;
}

int read_mac_num()
{
    char text[MAC_NUM_SIZE] = {};
    fing_state_get(FING_PACKAGE, FING_GLOBAL_SECTION, MAC_NUM_OPTION, text, sizeof(text));
    return atoi(text);
}

void write_mac_num(int value)
{
    char text[16];
    snprintf(text, sizeof(text), "%d", value);
    fing_state_set(FING_PACKAGE, FING_GLOBAL_SECTION, MAC_NUM_OPTION, text);
}

fing_state_row *find_row(const char *mac_text)
{
    for (int i = 0; i < fing_state_count && i < FING_STATE_ROWS; i++)
        if (std::strncmp(fing_state_table[i].mac_text, mac_text, sizeof(fing_state_table[i].mac_text)) == 0)
            return &fing_state_table[i];
    return nullptr;
}

bool non_empty(const uci_option *o)
{
    return o->type == UCI_TYPE_STRING && o->v.string && o->v.string[0] != '\0';
}

void fill_row(fing_state_row &row, uci_section *s)
{
    copy_str(row.mac_text, s->e.name);
    uci_element *oe = nullptr;
    uci_foreach_element(&s->options, oe)
    {
        uci_option *o = uci_to_option(oe);
        if (!non_empty(o))
            continue;
        if (std::strcmp(oe->name, "dhcp_params") == 0)
            row.has_dhcp_params = 1;
        else if (std::strcmp(oe->name, "params_error") == 0)
            row.has_params_error = 1;
        else if (std::strcmp(oe->name, "http_user_agent") == 0)
            row.has_http_user_agent = 1;
    }
}

} // namespace

int fing_text_clean(char *text) noexcept
{
    if (!text || text[0] == '\0')
        return 0;
    for (char *p = text; *p; p++) {
        auto c = static_cast<unsigned char>(*p);
        if (c < 0x20 || c > 0x7E)
            *p = '^';
    }
    return 1;
}

bool fing_state_name_ok(const char *text) noexcept
{
    if (!text || text[0] == '\0')
        return false;
    for (const char *p = text; *p; p++) {
        char c = *p;
        bool ok = (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9') || c == '_';
        if (!ok)
            return false;
    }
    return true;
}

void fing_mac_text(const uint8_t mac[6], char out[13]) noexcept
{
    snprintf(out, 13, "%02X%02X%02X%02X%02X%02X", mac[0], mac[1], mac[2], mac[3], mac[4], mac[5]);
}

bool fing_state_section_line(std::string_view line, std::span<char, 13> name) noexcept
{
    while (!line.empty() && (line.back() == '\n' || line.back() == '\r' || line.back() == ' ' || line.back() == '\t'))
        line.remove_suffix(1);
    size_t dot = line.find('.');
    if (dot == std::string_view::npos || line.substr(0, dot) != FING_PACKAGE)
        return false;
    std::string_view rest = line.substr(dot + 1);
    size_t eq = rest.find_first_of(".=");
    if (eq == std::string_view::npos || rest[eq] != '=' || eq != FING_MAC_TEXT)
        return false;
    std::string_view section = rest.substr(0, eq);
    std::string_view value = rest.substr(eq + 1);
    // libuci quotes the values it writes; a hand-written line may not.
    if (value.size() >= 2 && (value.front() == '\'' || value.front() == '"') && value.back() == value.front())
        value = value.substr(1, value.size() - 2);
    if (value != FING_SECTION_TYPE)
        return false;
    char text[13] = {};
    std::memcpy(text, section.data(), FING_MAC_TEXT);
    // A NUL inside the field would hide the rest of it from the name check.
    if (strnlen(text, sizeof(text)) != FING_MAC_TEXT || !fing_state_name_ok(text))
        return false;
    std::memcpy(name.data(), text, sizeof(text));
    return true;
}

int fing_state_get(const char *package, const char *section, const char *option, char *out, size_t size) noexcept
{
    char path[192];
    if (!out || size == 0 || !option_path(path, sizeof(path), package, section, option))
        return -1;
    uci_context_ptr ctx = state_context();
    if (!ctx)
        return -1;
    uci_ptr ptr{};
    if (uci_lookup_ptr(ctx.get(), &ptr, path, true) != UCI_OK)
        return 0;
    if (const char *value = option_value(ptr)) {
        size_t n = strnlen(value, size - 1);
        std::memcpy(out, value, n);
        out[n] = '\0';
    }
    return 0;
}

int fing_state_set(const char *package, const char *section, const char *option, const char *value) noexcept
{
    char path[192];
    if (!value || !option_path(path, sizeof(path), package, section, option))
        return -1;
    std::lock_guard hold(store_lock);
    uci_context_ptr ctx = state_context();
    if (!ctx)
        return -1;
    char work[192];
    std::memcpy(work, path, sizeof(work));
    uci_ptr ptr{};
    if (uci_lookup_ptr(ctx.get(), &ptr, work, true) != UCI_OK)
        return -1;
    if (const char *old = option_value(ptr)) {
        if (std::strcmp(old, value) == 0)
            return 0;
        // The old change goes, so the delta file keeps one line per option
        // however often a value changes.
        uci_revert(ctx.get(), &ptr);
        std::memcpy(work, path, sizeof(work));
        ptr = {};
        if (uci_lookup_ptr(ctx.get(), &ptr, work, true) != UCI_OK)
            return -1;
    }
    if (!ptr.s)
        return -1; // no such section: fing_state_ensure comes first
    ptr.value = value;
    uci_set(ctx.get(), &ptr);
    if (ptr.p)
        uci_save(ctx.get(), ptr.p);
    return 0;
}

// A `uci get` that takes longer than this is stuck; its answer is not
// waited for.
constexpr int UCI_GET_TIMEOUT_MS = 3000;

int fing_state_ensure(const char *package, const char *section) noexcept
{
    if (!fing_state_name_ok(package) || !fing_state_name_ok(section))
        return -1;
    std::lock_guard hold(store_lock);
    char target[64];
    snprintf(target, sizeof(target), "%s.%s", package, section);
    char seen[ENSURE_READ + 1] = {};
    const char *get_argv[] = {"uci", "-P", FING_STATE_DIR, "get", target, nullptr};
    if (run_command_capture(get_argv, seen, ENSURE_READ, UCI_GET_TIMEOUT_MS) < 0)
        return -1;
    if (std::strncmp(seen, FING_SECTION_TYPE, sizeof(FING_SECTION_TYPE) - 1) == 0)
        return 1;
    char assign[96];
    snprintf(assign, sizeof(assign), "%s.%s=%s", package, section, FING_SECTION_TYPE);
    if (state_command("set", assign) < 0)
        return -1;
    int mac_num = read_mac_num();
    // The new section is already there, so the store holds one more than
    // its limit until the oldest goes.
    if (mac_num == FING_STATE_ROWS)
        fing_state_evict_one();
    else
        write_mac_num(mac_num + 1);
    return 0;
}

int fing_state_evict_one() noexcept
{
    std::lock_guard hold(store_lock);
    int evicted = -1;
    int seen = each_client_section([&](const char *name) {
        evicted = revert_section(name) < 0 ? -1 : 0;
        return false;
    });
    return seen < 0 ? -1 : evicted;
}

int fing_state_load_table() noexcept
{
    uci_context_ptr ctx = state_context();
    if (!ctx)
        return -1;
    uci_package *pkg = nullptr;
    if (uci_load(ctx.get(), FING_PACKAGE, &pkg) != UCI_OK || !pkg)
        return 0;
    std::memset(fing_state_table, 0, sizeof(fing_state_table));
    int rows = 0;
    uci_element *e = nullptr;
    uci_foreach_element(&pkg->sections, e)
    {
        if (rows >= FING_STATE_ROWS)
            break;
        uci_section *s = uci_to_section(e);
        // Client sections are named by a MAC; global and anything a script
        // added under another name stay out of the table.
        if (!s->type || std::strcmp(s->type, FING_SECTION_TYPE) != 0 ||
            std::strcmp(e->name, FING_GLOBAL_SECTION) == 0 || std::strlen(e->name) != FING_MAC_TEXT)
            continue;
        fill_row(fing_state_table[rows++], s);
    }
    fing_state_count = rows;
    uci_unload(ctx.get(), pkg);
    return 0;
}

int fing_state_lookup(const char *mac_text, uint8_t *has_dhcp_params, uint8_t *has_params_error) noexcept
{
    if (!mac_text)
        return -1;
    if (const fing_state_row *row = find_row(mac_text)) {
        if (has_dhcp_params)
            *has_dhcp_params = row->has_dhcp_params;
        if (has_params_error)
            *has_params_error = row->has_params_error;
    }
    return 0;
}

int fing_state_lookup_http(const char *mac_text, uint8_t *has_http_user_agent, uint8_t *http_upload) noexcept
{
    if (!mac_text)
        return -1;
    if (const fing_state_row *row = find_row(mac_text)) {
        if (has_http_user_agent)
            *has_http_user_agent = row->has_http_user_agent;
        if (http_upload)
            *http_upload = row->http_upload;
    }
    return 0;
}

int fing_state_set_http_upload(const char *mac_text, uint8_t value) noexcept
{
    if (!mac_text)
        return -1;
    if (fing_state_row *row = find_row(mac_text))
        row->http_upload = value;
    return 0;
}

int fing_state_resync() noexcept
{
    std::lock_guard hold(store_lock);
    int count = each_client_section([](const char *) { return true; });
    if (count < 0)
        return -1;
    int mac_num = read_mac_num();
    if (count <= FING_STATE_ROWS) {
        if (count != mac_num)
            write_mac_num(count);
        return 0;
    }
    int surplus = count - FING_STATE_ROWS;
    unlink(FING_DELETE_FILE);
    mkdir(FING_DELETE_DIR, 0755);
    file_ptr list(fopen(FING_DELETE_FILE, "w"));
    if (!list)
        return -1;
    each_client_section([&](const char *name) {
        fprintf(list.get(), "%s\n", name);
        return --surplus > 0;
    });
    list.reset();
    if (mac_num != FING_STATE_ROWS)
        write_mac_num(FING_STATE_ROWS);
    fing_state_delete_listed();
    return 0;
}

int fing_state_delete_listed() noexcept
{
    std::lock_guard hold(store_lock);
    file_ptr list(fopen(FING_DELETE_FILE, "r"));
    if (!list)
        return -1;
    char line[DELETE_LINE_MAX];
    while (fgets(line, sizeof(line), list.get())) {
        line[strcspn(line, "\r\n")] = '\0';
        // A name that is not one of ours is skipped, not handed to uci.
        if (fing_state_name_ok(line))
            revert_section(line);
    }
    list.reset();
    unlink(FING_DELETE_FILE);
    return 0;
}
