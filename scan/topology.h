// Interfaces of the LAN side: radios, their stations and the system mode.
// The readers are not in yet: no interface is a radio, no MAC is a station
// and the system mode is unknown, so every client takes the wired way.
#pragma once

#include <cstdint>

// The option `mode` of the `sysmode` package; empty when unknown.
extern char sys_mode_text[16];

void read_sysmode() noexcept;
void read_radio_list() noexcept;
void get_lan_wlanif() noexcept;
void refresh_stations() noexcept;
// 1 when the station was active within 60000 ms, 0 when not, -1 when the MAC
// is no station.
int station_is_active(const uint8_t mac[6]) noexcept;
int station_radio(const uint8_t mac[6]) noexcept;

// Whether the system mode is set and is neither "router" nor "hotspot".
bool sys_mode_is_node() noexcept;
