// The daemon's life: the start sequence, the loop and the teardown.
#pragma once

#include <cstddef>

// The whole of main: 0 after the loop ended and everything was torn down,
// -1 when a step of the start failed (nothing is torn down then).
int lanroster_main() noexcept;

// Step 1, which cannot fail as a whole: each reader only reports.
void load_early_config() noexcept;

// Reads the `dhcp` package from "/etc/config" and copies the `leasefile`
// option of every section that has one, in order, over `out`; so the last
// one wins. On a failed load, uci_perror with "dhcp" and `out` stays empty.
void read_lease_file_name(char *out, size_t size) noexcept;
