// The one way in which the daemon captures a command's output.
#pragma once

#include <cstddef>

// Runs `command` through the shell, reads at most `size` bytes of what it
// prints into `buffer` (cleared first) and returns the count, or -1. The
// command's exit status is not looked at; callers treat a result below 1 as
// failure. Never build `command` from client-supplied text.
int exec_and_res(const char *command, char *buffer, size_t size) noexcept;
