// The traffic readers are not in yet: each one fails, which every caller
// treats as an absence of rows.
#include "db/traffic.h"

int ubus_get_tfstats(tfstats_entry **entries, int *count) noexcept
{
    if (entries)
        *entries = nullptr;
    if (count)
        *count = 0;
    return -1;
}

int ubus_get_workaround_tfstats(tfstats_entry **wlan_entries, tfstats_entry **lan_entries, int *wlan_count,
                                int *lan_count) noexcept
{
    if (wlan_entries)
        *wlan_entries = nullptr;
    if (lan_entries)
        *lan_entries = nullptr;
    if (wlan_count)
        *wlan_count = 0;
    if (lan_count)
        *lan_count = 0;
    return -1;
}

namespace
{

int no_macs(uint8_t **macs, int *count) noexcept
{
    if (macs)
        *macs = nullptr;
    if (count)
        *count = 0;
    return -1;
}

} // namespace

int ubus_get_hi_bw_occ_macs(uint8_t **macs, int *count) noexcept
{
    return no_macs(macs, count);
}

int ubus_get_mesh_agent(uint8_t **macs, int *count) noexcept
{
    return no_macs(macs, count);
}

int get_gaming_lan_macs(uint8_t **macs, int *count) noexcept
{
    return no_macs(macs, count);
}
