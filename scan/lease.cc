#include "scan/lease.h"

char lease_file_name[100] = {};

int read_dhcp_leases(lease_row ** /*rows*/, int * /*capacity*/) noexcept
{
    return 0;
}

void read_dhcpv6_leases() noexcept {}

char *dhcpv6_hostname(const uint8_t * /*address*/) noexcept
{
    return nullptr;
}

int hook_lookup(hook_client * /*out*/, const uint8_t * /*mac*/) noexcept
{
    return 0;
}
