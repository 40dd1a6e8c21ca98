// The periodic local report: every 14000 ms a scan task goes to the pool.
#pragma once

#include <cstdint>

inline constexpr int32_t LOCAL_REPORT_INTERVAL_MS = 14000;

// Period of the local report timer, in milliseconds.
extern int32_t local_report_interval;

// Arms the timer with the interval; 0, or -1 after perror.
int local_report_timer_init() noexcept;
void local_report_timer_cancel() noexcept;
bool local_report_timer_pending() noexcept;

// The scan task: a pass, then the compare pass if the list is not empty.
void local_report_task(void *arg) noexcept;
