// Platform commands of the registry, run without a shell: the arguments go
// to the program as they are, so no text ever reaches a command line.
#pragma once

#include <cstddef>

// Runs argv[0] (searched on PATH) and waits for it; its exit status, or -1
// when it could not be started.
int run_command_wait(const char *const argv[]) noexcept;

// Starts argv[0] and does not wait for it, like "cmd &" in a shell: the
// program is left to init, so no zombie stays behind.
void run_command_detached(const char *const argv[]) noexcept;

// Runs argv[0] like run_command_wait and reads at most `size` bytes of its
// standard output into `buffer` (cleared first). The count read, or -1 when
// it could not be started.
int run_command_output(const char *const argv[], char *buffer, size_t size) noexcept;
