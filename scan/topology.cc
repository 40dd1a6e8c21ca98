#include "scan/topology.h"

#include <cstring>

void read_radio_list() noexcept {}
void get_lan_wlanif() noexcept {}
void refresh_stations() noexcept {}

int station_is_active(const uint8_t * /*mac*/) noexcept
{
    return -1;
}

int station_radio(const uint8_t * /*mac*/) noexcept
{
    return -1;
}

bool sys_mode_is_node() noexcept
{
    return sys_mode_text[0] != '\0' && std::strcmp(sys_mode_text, "router") != 0 &&
           std::strcmp(sys_mode_text, "hotspot") != 0;
}
