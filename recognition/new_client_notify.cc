#include "recognition/new_client_notify.h"

#include <cstdio>
#include <cstring>

#include "core/locks.h"
#include "core/uci_util.h"
#include "recognition/fing_state.h"
#include "registry/client_node.h"
#include "registry/run_command.h"

int32_t smart_home_new_count = 0;
int32_t new_access_count = 0;
int32_t report_file_count = 0;
int32_t report_total_count = 0;
char report_file_suffix = '1';
const char *smart_home_confdir = "/etc/config";

namespace
{

// The files are opened for appending and never truncated here: the command
// that receives the path clears them.
void append_mac(const char *path, const uint8_t mac[6])
{
    char text[13];
    fing_mac_text(mac, text);
    FILE *f = fopen(path, "a");
    if (!f)
        return;
    fprintf(f, "%s\n", text);
    fclose(f);
}

// The path is the one argument; nothing of any client is on the command
// line, and no shell runs it.
void run_report(const char *command, const char *path)
{
    const char *argv[] = {command, path, nullptr};
    run_command_wait(argv);
}

} // namespace

int smart_home_enabled() noexcept
{
    mutex_guard hold(uci_lock);
    uci_context_ptr ctx = new_uci_context(smart_home_confdir);
    if (!ctx)
        return -1;
    uci_package *pkg = nullptr;
    if (uci_load(ctx.get(), "smart_home", &pkg) != UCI_OK || !pkg) {
        uci_perror(ctx.get(), "smart_home");
        return -1;
    }
    uci_section *info = uci_lookup_section(ctx.get(), pkg, "info");
    const char *enable = info ? uci_string(ctx.get(), info, "enable") : nullptr;
    return enable && enable[0] == '1' ? 0 : -1;
}

int smart_home_client_add(client_node *node) noexcept
{
    if (!node || smart_home_enabled() != 0)
        return 0;
    append_mac(SMART_HOME_CLIENTS_FILE, node->mac);
    smart_home_new_count++;
    return 0;
}

int new_access_client_add(client_node *node) noexcept
{
    if (!node)
        return 0;
    append_mac(NEW_ACCESS_CLIENTS_FILE, node->mac);
    new_access_count++;
    return 0;
}

int fing_report_client_add(client_node *node) noexcept
{
    if (!node)
        return 0;
    if (report_file_count > FING_REPORT_BATCH - 1) {
        report_file_count = 0;
        report_file_suffix++;
    }
    char path[64];
    snprintf(path, sizeof(path), "%s%c", FING_REPORT_MAC_FILE, report_file_suffix);
    append_mac(path, node->mac);
    report_file_count++;
    report_total_count++;
    return 0;
}

int smart_home_flush(client_node * /*unused*/) noexcept
{
    if (smart_home_new_count > 0) {
        run_report(SMART_HOME_REPORT_COMMAND, SMART_HOME_CLIENTS_FILE);
        smart_home_new_count = 0;
    }
    return 0;
}

int new_access_flush(client_node * /*unused*/) noexcept
{
    if (new_access_count > 0) {
        run_report(NEW_ACCESS_REPORT_COMMAND, NEW_ACCESS_CLIENTS_FILE);
        new_access_count = 0;
    }
    return 0;
}
