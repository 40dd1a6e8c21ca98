#include "core/timers.h"

#include <cstdio>
#include <cstdlib>

#include "core/openwrt.h"
#include "core/threadpool.h"
#include "registry/compare.h"
#include "scan/client_table.h"

namespace {

int32_t local_report_interval = LOCAL_REPORT_INTERVAL_MS;

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

}  // namespace

int local_report_timer_init() noexcept
{
    if (uloop_timeout_set(&local_report_timeout, local_report_interval) < 0) {
        perror("uloop_timeout_set local_report_timeout");
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

void run_compare_pass() noexcept
{
    compare_client_table(client_table.head);
}

void local_report_task(void *) noexcept
{
    create_client_table();
    if (client_table.head)
        run_compare_pass();
}
