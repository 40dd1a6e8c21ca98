#include "core/timers.h"


#include <unistd.h>
#include <cstdio>
#include <cstdlib>

#include "core/log.h"
#include "core/openwrt.h"
#include "core/stop.h"
#include "core/threadpool.h"
#include "registry/compare.h"
#include "scan/client_table.h"

int32_t local_report_interval = LOCAL_REPORT_INTERVAL_MS;

namespace
{

void local_report_timeout_cb(uloop_timeout *t) noexcept;

uloop_timeout local_report_timeout = [] {
    uloop_timeout t{};
    t.cb = local_report_timeout_cb;
    return t;
}();

// Posts one scan task and re-arms, whether or not the task could be made:
// a tick without memory is simply lost.
void local_report_timeout_cb(uloop_timeout *t) noexcept
{
    auto *task = static_cast<threadpool_task *>(calloc(1, sizeof(threadpool_task)));
    if (task) {
        task->fn = local_report_task;
        threadpool_add_task(task, thread_pool);
    }
    uloop_timeout_set(t, local_report_interval);
}

} // namespace

int local_report_timer_init() noexcept
{
    if (uloop_timeout_set(&local_report_timeout, local_report_interval) < 0) {
        lr_perror("uloop_timeout_set local_report_timeout");
        return -1;
    }
    return 0;
}

void local_report_timer_cancel() noexcept
{
    uloop_timeout_cancel(&local_report_timeout);
}

bool local_report_timer_pending() noexcept
{
    return local_report_timeout.pending;
}

void local_report_task(void *) noexcept
{
    create_client_table();
    // A pass cut short by a stop saw only part of the LAN.
    if (!lr_stopping())
        compare_scan_list();
}
