// Diagnostic timers: five uloop timers that prove the data sources work by
// reading them and logging the result. Armed only by db_timeout_init, which
// the normal start does not call; in normal operation they stay idle.
#pragma once

#include <cstdint>

struct uloop_timeout;

struct db_timer {
    const char *name;
    int32_t interval; // seconds: the period and the first delay
    void (*cb)(uloop_timeout *t);
};
inline constexpr int DB_TIMER_ROWS = 5;
extern db_timer db_timer_table[DB_TIMER_ROWS];
// The timer of each row, in the table's order.
extern uloop_timeout db_timeouts[DB_TIMER_ROWS];

// Arms every row with its interval: always 0.
int db_timeout_init() noexcept;
// Cancels every row (teardown and tests).
void db_timeout_cancel() noexcept;

// The checks: each reads its source, logs at level 7 and keeps nothing.
void test_wireless(void *arg) noexcept;
void test_tfstats() noexcept;
void test_pctl(void *arg) noexcept;
void test_tfstats_seg() noexcept;
void test_fing(void *arg) noexcept;
