// The history store's start-up side (loading the package, the crontab line)
// and the recognition result writer.
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <memory>
#include <optional>
#include <string>
#include <unistd.h>
#include <vector>

#include "core/locks.h"
#include "core/log.h"
#include "core/uci_util.h"
#include "core/text.h"
#include "registry/client_node.h"
#include "registry/history_list_mgmt.h"
#include "registry/run_command.h"

#define STORE_ERROR(...) LR_ERROR_LOG("history_list_mgmt", __VA_ARGS__)

namespace
{

// The string options of one section, as the file holds them.
struct stored_section {
    std::optional<std::string> mac, hostname, type, nickname, access_host, brand;
};

std::optional<std::string> string_option(uci_context *ctx, uci_section *s, const char *name)
{
    const char *v = uci_lookup_option_string(ctx, s, name);
    if (!v)
        return std::nullopt;
    return std::string(v);
}

// Reads every section under uci_lock and lets it go before records are
// taken: taking one may evict a client, whose section delete needs the lock.
std::vector<stored_section> read_sections()
{
    std::vector<stored_section> out;
    mutex_guard hold(uci_lock);
    uci_context_ptr ctx = new_uci_context(HISTORY_CONFDIR);
    if (!ctx)
        return out;
    uci_package *pkg = nullptr;
    if (uci_load(ctx.get(), HISTORY_PACKAGE, &pkg) != UCI_OK)
        return out;
    uci_element *e = nullptr;
    uci_foreach_element(&pkg->sections, e)
    {
        uci_section *s = uci_to_section(e);
        stored_section row;
        row.mac = string_option(ctx.get(), s, "mac");
        row.hostname = string_option(ctx.get(), s, "hostname");
        row.type = string_option(ctx.get(), s, "type");
        row.nickname = string_option(ctx.get(), s, "nickname");
        row.access_host = string_option(ctx.get(), s, "access_host");
        row.brand = string_option(ctx.get(), s, "brand");
        out.push_back(std::move(row));
    }
    return out;
}

// Fills a record from one section; nullptr, or the word that refuses it.
const char *fill_from_section(client_node *node, const stored_section &row)
{
    if (!row.mac || !row.hostname)
        return "load failed, args is null.";
    hex_text_to_mac(row.mac->c_str(), node->mac);
    if (row.hostname->size() > HOSTNAME_KEEP)
        return "Hostname too long!";
    copy_str(node->hostname, *row.hostname);
    if (row.type) {
        if (row.type->size() > 32)
            return "Devicetype too long!";
        node->device_type = get_device_type_index(row.type->c_str());
        if (row.brand && device_type_known(node->device_type)) {
            node->type_cloud_set = 1;
            node->type_source = TYPE_SOURCE_CLOUD;
        }
    }
    if (row.nickname) {
        if (row.nickname->size() > HOSTNAME_KEEP)
            return "nickname too long!";
        copy_str(node->nickname, *row.nickname);
    }
    if (row.access_host)
        node->access_host = static_cast<uint8_t>(atoi(row.access_host->c_str()));
    return nullptr;
}

} // namespace

void load_history_list_config() noexcept
{
    std::vector<stored_section> rows;
    try {
        rows = read_sections();
    } catch (...) {
        return;
    }
    for (const stored_section &row : rows) {
        // The record is taken before the section is looked at: a refused
        // section costs one record of the pool until the restart.
        client_node *node = delete_oldest_node_from_list();
        if (!node)
            return;
        if (const char *refused = fill_from_section(node, row)) {
            STORE_ERROR("%s", refused);
            continue;
        }
        // Each enters in front of the offline part, so the file's order
        // comes out reversed.
        set_node_status(node, STATUS_DISCONNECT);
    }
}

int write_to_history_list(const client_node *client, const char *brand, const char *system_version,
                          int http_upload) noexcept
{
    if (!client)
        return 0;
    client_node *node = find_node_by_mac(client->mac);
    if (!node)
        return 0;
    int32_t type = client->device_type;
    bool known = device_type_known(type) && type < DEVICE_TYPE_COUNT;
    if (node->type_user_set == 0 && known) {
        node->device_type = type;
        node->type_cloud_set = 1;
        node->type_source = TYPE_SOURCE_CLOUD;
    }
    mutex_guard hold(uci_lock);
    uci_context_ptr ctx = new_uci_context(HISTORY_CONFDIR);
    if (!ctx)
        return 0;
    uci_package *pkg = nullptr;
    if (uci_load(ctx.get(), HISTORY_PACKAGE, &pkg) != UCI_OK) {
        STORE_ERROR("update config error.");
        return 0;
    }
    char mac_text[UCI_MAC_TEXT_SIZE] = {};
    char section[UCI_SECTION_NAME_SIZE] = {};
    mac_to_hex_text(client->mac, mac_text);
    if (uci_dev_mac_in_cfg_file(ctx.get(), HISTORY_PACKAGE, mac_text, section) != 1)
        return 0;
    auto set = [&](const char *option, const char *value) {
        char text[UCI_TEXT_SIZE] = {};
        snprintf(text, sizeof(text), "%s.%s.%s=%s", HISTORY_PACKAGE, section, option, value ? value : "");
        return uci_set_by_string(ctx.get(), HISTORY_PACKAGE, text) == 1;
    };
    bool ok = (!known || set("type", device_type_name(type))) && set("brand", brand) &&
              set("systemVersion", system_version) && (http_upload != 1 || set("http_upload", "1"));
    if (!ok)
        STORE_ERROR("update config error.");
    return 0;
}

namespace
{

// Whether a line of the crontab, read in pieces of up to 100 bytes, already
// runs "saveconfig".
bool crontab_has_saveconfig()
{
    FILE *f = fopen(CRONTAB_PATH, "r");
    if (!f)
        return false;
    char line[100];
    bool found = false;
    while (!found && fgets(line, sizeof(line), f))
        found = std::strstr(line, "saveconfig") != nullptr;
    fclose(f);
    return found;
}

} // namespace

void ensure_crontab_line() noexcept
{
    if (crontab_has_saveconfig())
        return;
    // The working copy goes to flash every day at 02:55.
    static const char line[] = "55 2 * * * lua -e 'require(\"luci.sys.config\").saveconfig()' \n";
    int fd = open(CRONTAB_PATH, O_WRONLY | O_APPEND | O_CREAT | O_CLOEXEC, 0666);
    if (fd >= 0) {
        ssize_t r = write(fd, line, sizeof(line) - 1);
        (void)r;
        close(fd);
    }
    static const char *const restart[] = {"/etc/init.d/cron", "restart", nullptr};
    run_command_detached(restart);
}
