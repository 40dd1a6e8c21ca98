#include "core/timers.h"

#include <gtest/gtest.h>

#include <cstdlib>

#include "core/openwrt.h"
#include "core/threadpool.h"

namespace {

// Ends the loop once the report timer has fired `want` times, seen as tasks
// in a pool without workers.
int want_ticks = 0;
uloop_timeout watcher{};

void watch(uloop_timeout *t) noexcept
{
    pthread_mutex_lock(&thread_pool->mutex);
    int queued = thread_pool->task_queue.len;
    pthread_mutex_unlock(&thread_pool->mutex);
    if (queued >= want_ticks) {
        uloop_end();
        return;
    }
    uloop_timeout_set(t, 1);
}

}  // namespace

TEST(LocalReportTimer, PostsTheScanTaskAndRearms)
{
    ASSERT_EQ(uloop_init(), 0);
    thread_pool = static_cast<threadpool *>(malloc(sizeof(threadpool)));
    ASSERT_EQ(threadpool_init(thread_pool, 0), 0);
    int32_t saved = local_report_interval;
    local_report_interval = 5;
    ASSERT_EQ(local_report_timer_init(), 0);
    EXPECT_TRUE(local_report_timer_pending());
    want_ticks = 3;
    watcher.cb = watch;
    uloop_timeout_set(&watcher, 1);
    uloop_run();
    EXPECT_TRUE(local_report_timer_pending()) << "re-armed after each tick";
    for (int i = 0; i < 3; i++) {
        threadpool_task *t = task_dequeue(&thread_pool->task_queue);
        ASSERT_NE(t, nullptr);
        EXPECT_EQ(t->fn, local_report_task);
        EXPECT_EQ(t->arg, nullptr);
        free(t);
    }
    while (threadpool_task *t = task_dequeue(&thread_pool->task_queue))
        free(t);
    local_report_timer_cancel();
    EXPECT_FALSE(local_report_timer_pending());
    local_report_interval = saved;
    threadpool_deinit(thread_pool);
    thread_pool = nullptr;
    uloop_done();
}
