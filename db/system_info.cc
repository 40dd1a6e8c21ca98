#include "db/system_info.h"

#include <cstdio>
#include <cstring>
#include <net/if.h>
#include <sys/ioctl.h>
#include <sys/socket.h>

#include "core/locks.h"
#include "core/log.h"
#include "core/text.h"
#include "core/uci_util.h"
#include "core/unique_fd.h"
#include "db/db_util.h"
#include "registry/client_node.h"
#include "registry/run_command.h"

struct system_info system_info = {};
bool is_mesh_agent = true;
char main_device_mac[18] = "";
char main_device_id[64] = "";
char self_mac[13] = "";

namespace
{

// One package of "/etc/config" loaded into a fresh context that lives as
// long as this object; callers hold uci_lock.
struct loaded_package {
    uci_context_ptr ctx;
    uci_package *pkg = nullptr;

    loaded_package(const char *confdir, const char *name) noexcept : ctx(new_uci_context(confdir))
    {
        if (ctx && uci_load(ctx.get(), name, &pkg) != UCI_OK)
            pkg = nullptr;
    }
    uci_section *section(const char *name) const noexcept
    {
        return uci_find_section(ctx.get(), pkg, name);
    }
    const char *option(const char *section_name, const char *option) const noexcept
    {
        return uci_option_string(ctx.get(), section(section_name), option);
    }
};

bool text_is(const char *text, const char *word)
{
    return text && std::strcmp(text, word) == 0;
}

uint8_t sys_mode_of(const char *mode)
{
    static const char *const modes[] = {"router", "ap", "repeater", "client"};
    for (uint8_t i = 0; i < 4; i++) {
        if (std::strcmp(mode, modes[i]) == 0)
            return i;
    }
    return SYS_MODE_ROUTER; // "bridge" and any other word
}

// One "switch" package of two flags read the same way: a missing option is
// off; a failed load is reported and leaves the fields.
int read_switch(const char *package, const char *section,
                void (*apply)(const loaded_package &p, const char *section))
{
    mutex_guard hold(uci_lock);
    loaded_package p(DB_CONFDIR, package);
    if (!p.ctx)
        return -1;
    if (!p.pkg) {
        uci_perror(p.ctx.get(), package);
        return -1;
    }
    apply(p, section);
    return 0;
}

// The six section types of the factory profile and the flags they give.
struct profile_flag {
    const char *section_type;
    const char *option;
    uint8_t *flag;
};

void apply_profile_section(uci_section *s, const profile_flag *flags, size_t count)
{
    bool weavelink = std::strcmp(s->type, "weavelink") == 0;
    for (size_t i = 0; i < count; i++) {
        if (std::strcmp(s->type, flags[i].section_type) != 0)
            continue;
        uci_element *e = nullptr;
        uci_foreach_element(&s->options, e)
        {
            uci_option *o = uci_to_option(e);
            if (std::strcmp(e->name, flags[i].option) != 0)
                continue;
            if (o->type == UCI_TYPE_STRING && text_is(o->v.string, "yes"))
                *flags[i].flag = 1;
            // weavelink yields two flags: its walk goes over all options.
            if (!weavelink)
                break;
        }
    }
}

// Output of "boardprobe <what>" up to the first line end; empty when it
// printed nothing, failed or took too long.
template <size_t N> void read_boardprobe(const char *what, char (&out)[N])
{
    char buf[64];
    const char *const argv[] = {"boardprobe", what, nullptr};
    int got = run_command_capture(argv, buf, sizeof(buf) - 1, BOARDPROBE_TIMEOUT_MS);
    if (got < 1) {
        out[0] = '\0';
        return;
    }
    std::string_view text(buf, static_cast<size_t>(got));
    copy_str(out, text.substr(0, text.find_first_of("\r\n")));
}

} // namespace

int update_sysmode(void * /*arg*/) noexcept
{
    mutex_guard hold(uci_lock);
    loaded_package p(DB_CONFDIR, "sysmode");
    if (!p.ctx) {
        LR_LOG(7, "[lr error]  uci_alloc_context\n");
        return -1;
    }
    if (!p.pkg) {
        LR_LOG(7, "[lr error]  uci_load\n");
        return -1;
    }
    const char *mode = p.option("sysmode", "mode");
    if (!mode) {
        LR_LOG(7, "[lr error] no sys_mode\n");
        return -1;
    }
    system_info.sys_mode = sys_mode_of(mode);
    return 0;
}

int update_mesh_role(void * /*arg*/) noexcept
{
    mutex_guard hold(uci_lock);
    loaded_package p(DB_CONFDIR, "meshd");
    if (!p.ctx)
        return -1;
    if (!p.pkg) {
        uci_perror(p.ctx.get(), "meshd");
        return -1;
    }
    const char *role = p.option("meshd", "role");
    if (!role) {
        LR_LOG(7, "[lr error] no mesh_role\n");
        return -1;
    }
    is_mesh_agent = !text_is(role, "controller");
    return 0;
}

int update_wan_type(void * /*arg*/) noexcept
{
    mutex_guard hold(uci_lock);
    loaded_package p(DB_CONFDIR, "network");
    if (!p.ctx || !p.pkg)
        return -1;
    if (!p.section("wan"))
        return 0; // no WAN section: the last value stands
    const char *type = p.option("wan", "wan_type");
    system_info.wan_type = text_is(type, "v6plus") ? 1 : text_is(type, "dslite") ? 2 : 0;
    return 0;
}

int update_qos_switch(void * /*arg*/) noexcept
{
    return read_switch("qos_v2", "settings", [](const loaded_package &p, const char *section) {
        system_info.qos_enable = text_is(p.option(section, "enable"), "on");
    });
}

int update_tfstats_switch(void * /*arg*/) noexcept
{
    return read_switch("tfstats", "switch", [](const loaded_package &p, const char *section) {
        system_info.support_tfstats = text_is(p.option(section, "enable"), "on");
        system_info.support_tfstats_workaround = text_is(p.option(section, "workaround"), "on");
    });
}

int get_access_control() noexcept
{
    // Runs once before any worker exists; the package must be there. An
    // option that is missing reads as off.
    mutex_guard hold(uci_lock);
    loaded_package p(DB_CONFDIR, "access_control");
    if (!p.ctx || !p.pkg)
        return -1;
    system_info.access_enable = text_is(p.option("settings", "enable"), "on");
    system_info.access_mode_black = text_is(p.option("settings", "access_mode"), "black");
    return 0;
}

int get_profile_support() noexcept
{
    const profile_flag flags[] = {
        {"isHighBandwidthOccupancy", "isHighBandwidthOccupancy",
         &system_info.support_high_bandwidth_occupancy},
        {"client_speed_limit", "support", &system_info.support_client_speed_limit},
        {"qos", "qos_schedule_support", &system_info.support_qos_schedule},
        {"weavelink", "easymesh_support", &system_info.support_easymesh},
        {"weavelink", "weavelink_support", &system_info.support_weavelink},
        {"wireless", "support_mlo_host", &system_info.support_mlo},
        {"qos_v2", "gaming_lan_support", &system_info.support_gaming_lan},
    };
    mutex_guard hold(uci_lock);
    loaded_package p(PROFILE_CONFDIR, "profile");
    if (!p.ctx || !p.pkg) {
        LR_LOG(7, "[lr error] get uci profile\n");
        return -1;
    }
    uci_element *e = nullptr;
    uci_foreach_element(&p.pkg->sections, e)
    {
        apply_profile_section(uci_to_section(e), flags, std::size(flags));
    }
    return 0;
}

int get_if_mac_text(const char *ifname, char *out) noexcept
{
    if (!ifname || !out)
        return -1;
    unique_fd sock(socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0));
    if (!sock) {
        perror("socket");
        return -1;
    }
    ifreq ifr{};
    std::strncpy(ifr.ifr_name, ifname, IFNAMSIZ - 1);
    if (ioctl(sock.get(), SIOCGIFHWADDR, &ifr) != 0) {
        perror("ioctl");
        return -1;
    }
    uint8_t mac[6];
    std::memcpy(mac, ifr.ifr_hwaddr.sa_data, 6);
    mac_to_hex_text(mac, out);
    return 0;
}

int get_device_identity() noexcept
{
    read_boardprobe("MAC", main_device_mac);
    read_boardprobe("DEV_ID", main_device_id);
    if (get_if_mac_text("br-lan", self_mac) != 0)
        self_mac[0] = '\0';
    return 0;
}

void print_system_info() noexcept
{
    LR_LOG(7, "access_enable: %d\n", system_info.access_enable);
    LR_LOG(7, "access_mode_black: %d\n", system_info.access_mode_black);
    LR_LOG(7, "qos_enable: %d\n", system_info.qos_enable);
    LR_LOG(7, "support_tfstats: %d\n", system_info.support_tfstats);
    LR_LOG(7, "support_tfstats_workaround: %d\n", system_info.support_tfstats_workaround);
    LR_LOG(7, "support_high_bandwidth_occupancy: %d\n", system_info.support_high_bandwidth_occupancy);
    LR_LOG(7, "support_client_speed_limit: %d\n", system_info.support_client_speed_limit);
    LR_LOG(7, "support_qos_schedule: %d\n", system_info.support_qos_schedule);
    LR_LOG(7, "support_easymesh: %d\n", system_info.support_easymesh);
    LR_LOG(7, "support_weavelink: %d\n", system_info.support_weavelink);
    LR_LOG(7, "support_mlo: %d\n", system_info.support_mlo);
    LR_LOG(7, "support_gaming_lan: %d\n", system_info.support_gaming_lan);
    LR_LOG(7, "main_device_mac: %s\n", main_device_mac);
    LR_LOG(7, "main_device_id: %s\n", main_device_id);
    LR_LOG(7, "self_mac: %s\n", self_mac);
}

int get_system_info() noexcept
{
    LR_LOG(7, "[lr] get_system_info\n");
    update_sysmode(nullptr);
    update_mesh_role(nullptr);
    update_tfstats_switch(nullptr);
    update_qos_switch(nullptr);
    update_wan_type(nullptr);
    if (get_access_control() != 0 || get_profile_support() != 0 || get_device_identity() != 0)
        return -1;
    print_system_info();
    return 0;
}
