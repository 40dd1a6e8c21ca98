// Functions of the log and LAN modules that the bus face calls and that
// are about to land with those modules; declared here until they do.
#pragma once

void set_log_level(void *message) noexcept;
void update_lan_info_by_uci() noexcept;
