#include "recognition/http_user_agent.h"

#include <cctype>
#include <cstdio>
#include <cstring>
#include <memory>
#include <unistd.h>

#include "core/locks.h"
#include "core/openwrt.h"
#include "core/uci_util.h"
#include "recognition/fing_report.h"
#include "recognition/fing_state.h"
#include "registry/client_node.h"
#include "registry/history_list_mgmt.h"

namespace
{

bool blank(char c) noexcept
{
    return c == ' ' || c == '\t' || c == '\n' || c == '\r' || c == '\v' || c == '\f';
}

size_t skip_blanks(std::string_view s, size_t at) noexcept
{
    while (at < s.size() && blank(s[at]))
        at++;
    return at;
}

struct file_closer {
    void operator()(FILE *f) const noexcept
    {
        std::fclose(f);
    }
};
using file_ptr = std::unique_ptr<FILE, file_closer>;

// A class field: an optional sign and digits, kept within int range.
bool parse_class(std::string_view s, size_t &at, int &out) noexcept
{
    size_t p = at;
    bool negative = false;
    if (p < s.size() && (s[p] == '-' || s[p] == '+'))
        negative = s[p++] == '-';
    size_t digits = p;
    long long v = 0;
    while (p < s.size() && isdigit(static_cast<unsigned char>(s[p]))) {
        if (v < 1000000000LL)
            v = v * 10 + (s[p] - '0');
        p++;
    }
    if (p == digits)
        return false;
    out = static_cast<int>(negative ? -v : v);
    at = p;
    return true;
}

// Takes the clients of the proc file for one batch; the count taken.
int take_agents(FILE *proc, FILE *report) noexcept
{
    int taken = 0;
    char line[CLIENT_TYPE_LINE_MAX];
    while (std::fgets(line, sizeof(line), proc)) {
        client_type_line parsed{};
        if (!parse_client_type_line(std::string_view(line, std::strlen(line)), parsed) || !parsed.mac[0])
            continue;
        const uint8_t *bytes = mac_text_parse(parsed.mac);
        if (!bytes)
            continue;
        uint8_t mac[6];
        std::memcpy(mac, bytes, sizeof(mac));
        char text[13];
        snprintf(text, sizeof(text), "%02X%02X%02X%02X%02X%02X", mac[0], mac[1], mac[2], mac[3], mac[4],
                 mac[5]);
        if (mac_in_history(mac) != 0)
            continue;
        // A client the store has no row for keeps -1 and is not taken.
        uint8_t has_agent = 0xff, uploaded = 0xff;
        fing_state_lookup_http(text, &has_agent, &uploaded);
        if (taken >= FING_REQUEST_CLIENTS || uploaded != 0)
            continue;
        if (has_agent == 0) {
            fing_state_ensure(FING_PACKAGE, text);
            fing_state_set(FING_PACKAGE, text, "http_user_agent", parsed.agent);
        }
        std::fprintf(report, "%s\n", text);
        taken++;
    }
    return taken;
}

} // namespace

bool parse_client_type_line(std::string_view line, client_type_line &out) noexcept
{
    out.mac[0] = '\0';
    out.device_class = -1;
    out.agent[0] = '\0';
    size_t at = skip_blanks(line, 0);
    size_t end = at;
    while (end < line.size() && !blank(line[end]))
        end++;
    if (end == at)
        return false;
    if (end - at < sizeof(out.mac)) {
        std::memcpy(out.mac, line.data() + at, end - at);
        out.mac[end - at] = '\0';
    }
    at = skip_blanks(line, end);
    if (!parse_class(line, at, out.device_class))
        return true;
    at = skip_blanks(line, at);
    size_t stop = line.find('\n', at);
    if (stop == std::string_view::npos)
        stop = line.size();
    size_t len = std::min(stop - at, sizeof(out.agent) - 1);
    std::memcpy(out.agent, line.data() + at, len);
    out.agent[len] = '\0';
    return true;
}

int fing_state_load_http_upload() noexcept
{
    mutex_guard hold(uci_lock);
    uci_context_ptr ctx = new_uci_context(HISTORY_CONFDIR);
    uci_package *pkg = nullptr;
    if (!ctx || uci_load(ctx.get(), HISTORY_PACKAGE, &pkg) != UCI_OK || !pkg)
        return -1;
    uci_element *e = nullptr;
    uci_foreach_element(&pkg->sections, e)
    {
        uci_section *s = uci_to_section(e);
        const char *mac = uci_lookup_option_string(ctx.get(), s, "mac");
        if (!mac)
            continue;
        const char *flag = uci_lookup_option_string(ctx.get(), s, "http_upload");
        if (!flag)
            fing_state_set_http_upload(mac, 0);
        else if (std::strcmp(flag, "1") == 0)
            fing_state_set_http_upload(mac, 1);
    }
    uci_unload(ctx.get(), pkg);
    return 0;
}

int check_http_user_agent(client_node * /*unused*/) noexcept
{
    if (!fing_gates_open())
        return 0;
    if (http_counter <= 4) {
        http_counter++;
        return 0;
    }
    http_counter = 0;
    int taken = 0;
    {
        file_ptr proc(std::fopen(CLIENT_TYPE_PROC_FILE, "r"));
        file_ptr report(std::fopen(FING_HTTP_REPORT_FILE, "a"));
        if (!proc || !report || fing_state_load_table() != 0 || fing_state_load_http_upload() != 0) {
            fing_report_message(__func__, __LINE__, "open file /proc/pctl/devices error!");
            return -1;
        }
        taken = take_agents(proc.get(), report.get());
    }
    if (taken > 0)
        fing_report_file(FING_HTTP_REPORT_FILE);
    if (access(FING_HTTP_REPORT_FILE, F_OK) == 0)
        unlink(FING_HTTP_REPORT_FILE);
    return 0;
}
