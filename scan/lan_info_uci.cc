// lan_info from the `network` package.
#include <cstring>
#include <net/if.h>
#include <string_view>

#include "core/locks.h"
#include "core/log.h"
#include "core/text.h"
#include "core/uci_util.h"
#include "scan/lan_info.h"

namespace
{

void read_ifnames(const char *list)
{
    for (int i = 0; i < lan_info.ifnum && i < LAN_IF_ROWS; i++) {
        lan_info.ifindex[i] = 0;
        lan_info.ifname[i][0] = '\0';
    }
    lan_info.ifnum = 0;
    std::string_view rest(list);
    while (!rest.empty()) {
        size_t sp = rest.find(' ');
        std::string_view name = rest.substr(0, sp);
        rest = sp == std::string_view::npos ? std::string_view{} : rest.substr(sp + 1);
        if (name.empty())
            continue;
        // The rows are fixed; names past the eighth are not stored.
        if (lan_info.ifnum >= LAN_IF_ROWS)
            break;
        char buf[16];
        copy_str(buf, name);
        lan_info.ifindex[lan_info.ifnum] = static_cast<int32_t>(if_nametoindex(buf));
        copy_str(lan_info.ifname[lan_info.ifnum], name);
        lan_info.ifnum++;
    }
}

// Returns whether the section names a gateway.
bool read_lan_section(uci_context *ctx, uci_section *lan)
{
    if (const char *ip = uci_string(ctx, lan, "ipaddr"))
        copy_str(lan_info.ip, ip);
    if (const char *mask = uci_string(ctx, lan, "netmask"))
        lan_info.prefix_len = prefix_from_mask(mask, lan_info.prefix_len);
    if (const char *ifnames = uci_string(ctx, lan, "ifname"))
        read_ifnames(ifnames);
    const char *gw = uci_string(ctx, lan, "gateway");
    if (gw)
        copy_str(lan_info.gateway, gw);
    return gw != nullptr;
}

} // namespace

void update_lan_info_by_uci() noexcept
{
    bool has_gateway = false;
    {
        mutex_guard hold(uci_lock);
        uci_context_ptr ctx = new_uci_context(UCI_CONFIG_DIR);
        uci_package *pkg = nullptr;
        if (!ctx) {
            // Nothing to read with; lan_info stays as it is.
        } else if (uci_load(ctx.get(), "network", &pkg) != UCI_OK) {
            uci_perror(ctx.get(), "network");
        } else if (uci_section *lan = uci_lookup_section(ctx.get(), pkg, "lan")) {
            has_gateway = read_lan_section(ctx.get(), lan);
        }
    }
    // The gateway lookup runs a command; it does not need the UCI lock.
    if (has_gateway)
        get_gateway_mac(lan_info.gateway);
    LR_LOG(6, "update lan info, ip : %s, mask : %d, ifnum : %d, gateway : %02X-%02X(port %d)", lan_info.ip,
           lan_info.prefix_len, lan_info.ifnum, lan_info.gateway_mac[4], lan_info.gateway_mac[5],
           lan_info.gateway_port);
}
