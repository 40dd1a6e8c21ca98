// Monotonic time for the bounded waits of a pass (probe answers), which a
// change of the wall clock must not stretch or cut.
#pragma once

#include <ctime>

// Milliseconds since `start`, taken with CLOCK_MONOTONIC.
inline double elapsed_ms(const timespec &start) noexcept
{
    timespec now{};
    clock_gettime(CLOCK_MONOTONIC, &now);
    return static_cast<double>(now.tv_sec - start.tv_sec) * 1000.0 +
           static_cast<double>(now.tv_nsec - start.tv_nsec) / 1000000.0;
}
