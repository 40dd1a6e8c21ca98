#include "db/policy_mirror.h"

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <optional>

#include "core/locks.h"
#include "core/log.h"
#include "core/text.h"
#include "core/uci_util.h"
#include "db/system_info.h"
#include "registry/client_node.h"
#include "registry/rwlock_guard.h"

namespace
{

// What a reader says when its context, its package or its array can't be
// had; each reader has always used its own words.
struct reader_words {
    int ctx_level;
    const char *ctx;
    int pkg_level;
    const char *pkg; // nullptr: a failed load is silent
    const char *malloc_text;
};

// A package in a fresh context, loaded under uci_lock held by the caller.
struct package_read {
    uci_context_ptr ctx;
    uci_package *pkg = nullptr;
};

bool load_package(package_read &p, const char *name, const reader_words &words)
{
    p.ctx = new_uci_context(DB_CONFDIR);
    if (!p.ctx) {
        LR_LOG(words.ctx_level, "%s", words.ctx);
        return false;
    }
    if (uci_load(p.ctx.get(), name, &p.pkg) != UCI_OK) {
        if (words.pkg)
            LR_LOG(words.pkg_level, "%s", words.pkg);
        return false;
    }
    return true;
}

int count_sections(uci_package *pkg, const char *type)
{
    int n = 0;
    uci_element *e = nullptr;
    uci_foreach_element(&pkg->sections, e)
    {
        if (std::strcmp(uci_to_section(e)->type, type) == 0)
            n++;
    }
    return n;
}

// Counts the sections of `type`, allocates that many cleared rows and
// fills them in file order. No section is success with no array.
template <typename Row, typename Fill>
int fill_rows(package_read &p, const char *type, Row **rows, int *count, const char *malloc_text, Fill fill)
{
    int n = count_sections(p.pkg, type);
    Row *out = nullptr;
    if (n > 0) {
        out = static_cast<Row *>(std::calloc(static_cast<size_t>(n), sizeof(Row)));
        if (!out) {
            if (malloc_text)
                LR_LOG(7, "%s", malloc_text);
            else
                fputs("Memory allocation failed\n", stderr);
            return -1;
        }
    }
    int i = 0;
    uci_element *e = nullptr;
    uci_foreach_element(&p.pkg->sections, e)
    {
        uci_section *s = uci_to_section(e);
        if (std::strcmp(s->type, type) == 0 && i < n)
            fill(p.ctx.get(), s, out[i++]);
    }
    *rows = out;
    *count = n;
    return 0;
}

bool is_on(const char *text)
{
    return text && std::strcmp(text, "on") == 0;
}

int32_t int_or(const char *text, int32_t absent)
{
    return text ? std::atoi(text) : absent;
}

int32_t time_mode_of(const char *text)
{
    if (text && std::strcmp(text, "schedule") == 0)
        return 2;
    if (text && std::strcmp(text, "period") == 0)
        return 1;
    return 0;
}

void read_mac(const char *text, uint8_t mac[6])
{
    if (text)
        mac_text_to_bytes17(text, mac);
}

// The schedule of a client of the daemon's package, in both readers.
template <typename Row> void read_schedule(uci_context *ctx, uci_section *s, Row &row)
{
    row.slots[0] = 0xff;
    if (!system_info.support_qos_schedule)
        return;
    row.schedule_enable = is_on(uci_option_string(ctx, s, "schedule_enable"));
    row.time_mode = time_mode_of(uci_option_string(ctx, s, "time_mode"));
    const char *slots = uci_option_string(ctx, s, "slots");
    parse_time_slots(slots, uci_option_string(ctx, s, "slots_next_day"), row.slots);
    row.qos_status = is_on(uci_option_string(ctx, s, "status"));
    row.repeats = weekdays_to_mask(uci_option_string(ctx, s, "repeats"));
}

void fill_speed_limit(uci_context *ctx, uci_section *s, speed_limit_row &row)
{
    read_mac(uci_option_string(ctx, s, "mac"), row.mac);
    row.enable = is_on(uci_option_string(ctx, s, "enable"));
    row.up_band = int_or(uci_option_string(ctx, s, "up_band"), 0);
    row.down_band = int_or(uci_option_string(ctx, s, "down_band"), 0);
}

void fill_black_list(uci_context *ctx, uci_section *s, black_list_row &row)
{
    read_mac(uci_option_string(ctx, s, "mac"), row.mac);
}

void log_slot_words(const char *slots)
{
    char begin[5] = {};
    char end[5] = {};
    split_two_words(slots, " \t", begin, sizeof(begin), end, sizeof(end));
    LR_LOG(7, "[lr] time_begin = %s,time_end = %s\n", begin, end);
}

void fill_qos(uci_context *ctx, uci_section *s, qos_row &row)
{
    // real_mac wins; mac isn't read when it is there.
    const char *real_mac = uci_option_string(ctx, s, "real_mac");
    read_mac(real_mac ? real_mac : uci_option_string(ctx, s, "mac"), row.mac);
    row.prio = is_on(uci_option_string(ctx, s, "prio"));
    row.prio_time = int_or(uci_option_string(ctx, s, "prio_time"), -1);
    row.time_period = int_or(uci_option_string(ctx, s, "time_period"), -1);
    row.owner_id = int_or(uci_option_string(ctx, s, "owner_id"), -1);
    read_schedule(ctx, s, row);
    const char *slots = uci_option_string(ctx, s, "slots");
    if (slots && system_info.support_qos_schedule)
        log_slot_words(slots);
    const char *changed = uci_option_string(ctx, s, "client_type_changed");
    row.client_type_changed = changed && std::strcmp(changed, "true") == 0;
    const char *type = uci_option_string(ctx, s, "type");
    if (type)
        std::memcpy(row.type, type, strnlen(type, sizeof(row.type)));
}

void fill_owner(uci_context *ctx, uci_section *s, owner_row &row)
{
    row.owner_id = int_or(uci_option_string(ctx, s, "owner_id"), -1);
    const char *name = uci_option_string(ctx, s, "name");
    if (name)
        copy_str(row.name, name);
}

void fill_file_client(uci_context *ctx, uci_section *s, file_client &row)
{
    // mac first, then a present real_mac over it: the reverse of get_qos.
    read_mac(uci_option_string(ctx, s, "mac"), row.mac);
    read_mac(uci_option_string(ctx, s, "real_mac"), row.mac);
    const char *name = uci_option_string(ctx, s, "name");
    if (name)
        copy_str(row.name, name, FILE_CLIENT_TEXT_KEEP);
    const char *type = uci_option_string(ctx, s, "type");
    if (type)
        copy_str(row.type, type, FILE_CLIENT_TEXT_KEEP);
    row.owner_id = int_or(uci_option_string(ctx, s, "owner_id"), -1);
    row.prio = is_on(uci_option_string(ctx, s, "prio"));
    row.prio_time = -1;
    row.time_period = -1;
    if (row.prio == 1) {
        row.prio_time = int_or(uci_option_string(ctx, s, "prio_time"), -1);
        row.time_period = int_or(uci_option_string(ctx, s, "time_period"), -1);
    }
    read_schedule(ctx, s, row);
    row.access_time = int_or(uci_option_string(ctx, s, "access_time"), -1);
    LR_LOG(7, "qos sche slot=%hhu:%hhu-%hhu:%hhu repeats=%02X", row.slots[0], row.slots[1], row.slots[2],
           row.slots[3], row.repeats);
}

// The write lock of an update over all records, which takes it itself; an
// update with a list runs inside its caller's hold.
class scope_hold
{
  public:
    explicit scope_hold(const mac_list *scope) noexcept
    {
        if (!scope)
            hold_.emplace(history_list_lock);
    }

  private:
    std::optional<rwlock_write_guard> hold_;
};

bool in_scope(const mac_list *scope, const client_node &n)
{
    return !scope || mac_in_list(n.mac, scope);
}

template <typename Row> const Row *find_row(const Row *rows, int count, const uint8_t mac[6])
{
    for (int i = 0; i < count; i++) {
        if (std::memcmp(rows[i].mac, mac, 6) == 0)
            return &rows[i];
    }
    return nullptr;
}

// Rows a reader handed over, freed when the update is done with them.
template <typename Row> struct owned_rows {
    Row *rows = nullptr;
    int count = 0;
    ~owned_rows()
    {
        std::free(rows);
    }
};

// The first device type whose whole name begins the text a user chose.
int device_type_prefix_of(const char (&type)[32])
{
    size_t len = strnlen(type, sizeof(type));
    for (int i = 0; i < DEVICE_TYPE_COUNT; i++) {
        size_t row_len = std::strlen(device_type_table[i]);
        if (row_len <= len && std::memcmp(device_type_table[i], type, row_len) == 0)
            return i;
    }
    return -1;
}

void clear_qos(client_node &n)
{
    n.prio = 0;
    n.schedule_enable = 0;
    n.time_mode = 0;
    n.qos_status = 0;
    n.repeats = 0;
    n.prio_time = -1;
    n.time_period = -1;
    n.owner_id = -1;
    n.slots[0] = 0xff;
    n.slots[1] = n.slots[2] = n.slots[3] = 0;
    if (n.owner_name[0])
        n.owner_name[0] = '\0';
}

// Copies a found row; true when the owner changed.
bool apply_qos(client_node &n, const qos_row &r)
{
    n.prio = r.prio;
    n.prio_time = r.prio_time;
    n.time_period = r.time_period;
    if (system_info.support_qos_schedule) {
        n.schedule_enable = r.schedule_enable;
        n.time_mode = r.time_mode;
        n.qos_status = r.qos_status;
        n.repeats = r.repeats;
        std::memcpy(n.slots, r.slots, sizeof(n.slots));
    }
    bool owner_changed = n.owner_id != r.owner_id;
    n.owner_id = r.owner_id;
    if (n.owner_id == -1)
        n.owner_name[0] = '\0';
    if (r.client_type_changed == 1) {
        int type = device_type_prefix_of(r.type);
        if (type >= 0) {
            n.device_type = type;
            n.type_source = TYPE_SOURCE_USER;
            n.type_user_set = 1;
        }
    }
    return owner_changed;
}

} // namespace

int get_client_speed_limit(speed_limit_row **rows, int *count) noexcept
{
    static const reader_words words = {7, "Fail to uci ctx\n", 7, "Fail to uci pkg\n", "Fail to malloc\n"};
    LR_LOG(7, "get_client_speed_limit\n");
    if (!rows || !count)
        return -1;
    mutex_guard hold(uci_lock);
    package_read p;
    if (!load_package(p, "client_speed_limit", words))
        return -1;
    return fill_rows(p, "client", rows, count, words.malloc_text, fill_speed_limit);
}

int get_black_list(black_list_row **rows, int *count) noexcept
{
    static const reader_words words = {2, "[lr error] Fail to uci ctx\n", 0, nullptr, "fail to malloc"};
    if (!rows || !count)
        return -1;
    mutex_guard hold(uci_lock);
    package_read p;
    if (!load_package(p, "access_control", words))
        return -1;
    uci_section *settings = uci_find_section(p.ctx.get(), p.pkg, "settings");
    if (!is_on(uci_option_string(p.ctx.get(), settings, "enable"))) {
        LR_LOG(7, "enable != on \n");
        system_info.access_enable = 0;
        return -1;
    }
    system_info.access_enable = 1;
    const char *mode = uci_option_string(p.ctx.get(), settings, "access_mode");
    if (!mode || std::strcmp(mode, "black") != 0) {
        LR_LOG(7, "access_mode != black \n");
        system_info.access_mode_black = 0;
        return -1;
    }
    system_info.access_mode_black = 1;
    return fill_rows(p, "black_list", rows, count, words.malloc_text, fill_black_list);
}

int get_qos(qos_row **rows, int *count) noexcept
{
    static const reader_words words = {2, "[lr error] Fail to uci ctx", 2, "[lr error] Fail to uci pkg",
                                       "fail to malloc"};
    LR_LOG(7, "[lr] get qos\n");
    if (!rows || !count)
        return -1;
    mutex_guard hold(uci_lock);
    package_read p;
    if (!load_package(p, "lanroster", words))
        return -1;
    return fill_rows(p, "client", rows, count, words.malloc_text, fill_qos);
}

int get_parentalctl(owner_row **rows, int *count) noexcept
{
    static const reader_words words = {7, "Fail to uci ctx\n", 7, "Fail to uci pkg\n", "fail to malloc"};
    LR_LOG(7, "get_parentalctl\n");
    if (!rows || !count)
        return -1;
    mutex_guard hold(uci_lock);
    package_read p;
    if (!load_package(p, "parental_control_v2", words))
        return -1;
    return fill_rows(p, "owner", rows, count, words.malloc_text, fill_owner);
}

int get_lanroster_file_clients(file_client **rows, int *count) noexcept
{
    LR_LOG(7, "[lr] begin get_lanroster_file_clients");
    if (!rows || !count)
        return -1;
    mutex_guard hold(uci_lock);
    package_read p;
    p.ctx = new_uci_context(DB_CONFDIR);
    if (!p.ctx)
        return -1;
    if (uci_load(p.ctx.get(), "lanroster", &p.pkg) != UCI_OK) {
        uci_perror(p.ctx.get(), "lanroster");
        return -1;
    }
    return fill_rows(p, "client", rows, count, nullptr, fill_file_client);
}

int update_client_speed_limit(const mac_list *scope) noexcept
{
    LR_LOG(7, "[lr] update_client_speed_limit\n");
    owned_rows<speed_limit_row> r;
    if (get_client_speed_limit(&r.rows, &r.count) != 0 || r.count == 0) {
        LR_LOG(7, "[lr] get_client_speed_limitfail\n");
        return -1;
    }
    scope_hold hold(scope);
    for (client_node *n = get_history_list(); n; n = n->next) {
        if (!in_scope(scope, *n))
            continue;
        const speed_limit_row *row = find_row(r.rows, r.count, n->mac);
        n->limit_enable = row && row->enable == 1 ? 1 : 0;
        n->upload_limit = row ? row->up_band : 0;
        n->download_limit = row ? row->down_band : 0;
        if (row) {
            char hex[MAC_HEX_TEXT_SIZE];
            mac_to_hex_text(n->mac, hex);
            LR_LOG(7, "[lr] update_client_speed_limit mac = %s, upload_limit = %d\n", hex, n->upload_limit);
        }
    }
    return 0;
}

int update_black_list(const mac_list *scope) noexcept
{
    LR_LOG(7, "[lr] update_black_list\n");
    owned_rows<black_list_row> r;
    if (get_black_list(&r.rows, &r.count) != 0) {
        LR_LOG(7, "[lr] get_black_list failed\n");
        return -1;
    }
    // An empty list is no failure: it unblocks everyone.
    scope_hold hold(scope);
    for (client_node *n = get_history_list(); n; n = n->next) {
        if (in_scope(scope, *n))
            n->blocked = find_row(r.rows, r.count, n->mac) ? 1 : 0;
    }
    return 0;
}

int update_qos(const mac_list *scope) noexcept
{
    LR_LOG(7, "[lr] update_qos , arg = %s", scope ? "not null" : "null");
    bool owner_changed = false;
    {
        owned_rows<qos_row> r;
        if (get_qos(&r.rows, &r.count) != 0 || r.count == 0) {
            LR_LOG(7, "fail\n");
            return -1;
        }
        scope_hold hold(scope);
        for (client_node *n = get_history_list(); n; n = n->next) {
            if (!in_scope(scope, *n))
                continue;
            const qos_row *row = find_row(r.rows, r.count, n->mac);
            if (!row)
                clear_qos(*n);
            else if (apply_qos(*n, *row))
                owner_changed = true;
        }
    }
    // The owner's name follows a new id.
    if (!scope && owner_changed)
        update_parentalctl(nullptr);
    LR_LOG(7, "success\n");
    return 0;
}

int update_parentalctl(const mac_list *scope) noexcept
{
    LR_LOG(7, "[lr] update_parentalctl\n");
    owned_rows<owner_row> r;
    if (get_parentalctl(&r.rows, &r.count) != 0) {
        LR_LOG(7, "[lr] get_parentalctl fail\n");
        return 0;
    }
    scope_hold hold(scope);
    for (client_node *n = get_history_list(); n; n = n->next) {
        if (!in_scope(scope, *n))
            continue;
        const owner_row *owner = nullptr;
        for (int i = 0; i < r.count && !owner; i++) {
            if (r.rows[i].owner_id != -1 && r.rows[i].owner_id == n->owner_id)
                owner = &r.rows[i];
        }
        if (!owner) {
            n->owner_name[0] = '\0';
            continue;
        }
        copy_str(n->owner_name, owner->name);
        LR_LOG(7, "[lr] update pctl mac = %2X-%2X, name = %s", n->mac[0], n->mac[1], n->owner_name);
    }
    return 0;
}
