// Platform commands of the registry, run without a shell: the arguments go
// to the program as they are, so no text ever reaches a command line.
#pragma once

#include <cstddef>

// Runs argv[0] (searched on PATH) and waits for it; its exit status, or -1
// when it could not be started.
int run_command_wait(const char *const argv[]) noexcept;

// Like run_command_wait, but a program still running after `timeout_ms`
// is killed with its process group, and the result is then -1.
int run_command_wait_timeout(const char *const argv[], int timeout_ms) noexcept;

// Starts argv[0] and does not wait for it, like "cmd &" in a shell: the
// program is left to init, so no zombie stays behind.
void run_command_detached(const char *const argv[]) noexcept;

// Runs argv[0] (searched on PATH) with its output on a pipe and reads at
// most `size` bytes of it into `buffer` (cleared first), waiting no longer
// than `timeout_ms` in all. A program that is still running then, or that
// has more to say than fits, is killed with its process group. Returns the
// count of bytes read, or -1 when it could not be started.
int run_command_capture(const char *const argv[], char *buffer, size_t size, int timeout_ms) noexcept;
