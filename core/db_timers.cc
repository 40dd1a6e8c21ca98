#include "core/db_timers.h"

#include <cstdlib>

#include "core/log.h"
#include "core/openwrt.h"
#include "core/threadpool.h"
#include "db/lookups.h"
#include "db/stations.h"
#include "db/traffic.h"
#include "registry/client_node.h"

uloop_timeout db_timeouts[DB_TIMER_ROWS] = {};

namespace
{

int row_of(const uloop_timeout *t) noexcept
{
    return static_cast<int>(t - db_timeouts);
}

void rearm(uloop_timeout *t) noexcept
{
    uloop_timeout_set(t, db_timer_table[row_of(t)].interval * 1000);
}

// "wireless" and "fing" stop for good when a task can't be had.
void post_or_stop(uloop_timeout *t, void (*fn)(void *)) noexcept
{
    auto *task = static_cast<threadpool_task *>(calloc(1, sizeof(threadpool_task)));
    if (!task)
        return;
    task->fn = fn;
    threadpool_add_task(task, thread_pool);
    rearm(t);
}

void wireless_cb(uloop_timeout *t) noexcept
{
    post_or_stop(t, test_wireless);
}
void tfstats_cb(uloop_timeout *t) noexcept
{
    test_tfstats();
    rearm(t);
}
// "pctl" keeps ticking whatever the allocation gave; a missing task is a
// missed check.
void pctl_cb(uloop_timeout *t) noexcept
{
    auto *task = static_cast<threadpool_task *>(calloc(1, sizeof(threadpool_task)));
    if (task) {
        task->fn = test_pctl;
        threadpool_add_task(task, thread_pool);
    }
    rearm(t);
}
void tfstats_seg_cb(uloop_timeout *t) noexcept
{
    test_tfstats_seg();
    rearm(t);
}
void fing_cb(uloop_timeout *t) noexcept
{
    post_or_stop(t, test_fing);
}

} // namespace

db_timer db_timer_table[DB_TIMER_ROWS] = {
    {"wireless", 5, wireless_cb},        {"tfstats", 20, tfstats_cb}, {"pctl", 10, pctl_cb},
    {"tfstats_seg", 20, tfstats_seg_cb}, {"fing", 20, fing_cb},
};

int db_timeout_init() noexcept
{
    LR_LOG(7, "[lr] db_timeout_init");
    for (int i = 0; i < DB_TIMER_ROWS; i++) {
        db_timeouts[i].cb = db_timer_table[i].cb;
        uloop_timeout_set(&db_timeouts[i], db_timer_table[i].interval * 1000);
    }
    LR_LOG(7, "[lr] db_timeout_init complete");
    return 0;
}

void db_timeout_cancel() noexcept
{
    for (uloop_timeout &t : db_timeouts)
        uloop_timeout_cancel(&t);
}

void test_wireless(void *) noexcept
{
    LR_LOG(7, "[lr] test_wireless\n");
    wireless_station *rows = nullptr;
    int count = 0;
    if (get_wireless_info(&rows, &count) != 0) {
        LR_LOG(7, "[lr] get_wireless_info fail\n");
        return;
    }
    LR_LOG(7, "[lr] get_wireless_info success\n");
    for (int i = 0; i < count; i++) {
        char mac[MAC_DASH_TEXT_SIZE];
        mac_to_dash_text(rows[i].mac, mac);
        LR_LOG(7, "[lr] mac = %s ,rxrate = %u,txrate = %u,signal_strength = %hhd\n", mac, rows[i].rxrate,
               rows[i].txrate, rows[i].signal);
    }
    free(rows);
}

void test_tfstats() noexcept
{
    LR_LOG(7, "[lr] test_tfstats\n");
    tfstats_entry *entries = nullptr;
    int count = 0;
    if (ubus_get_tfstats(&entries, &count) != 0) {
        LR_LOG(7, "[lr]ubus_get_tfstats fail\n");
        return;
    }
    LR_LOG(7, "[lr]ubus_get_tfstats success\n");
    free(entries);
}

void test_pctl(void *) noexcept
{
    LR_LOG(7, "[lr] test_pctl\n");
    device_type_info *rows = nullptr;
    int count = 0;
    if (get_pctl_device_type_info(&rows, &count) != 0) {
        LR_LOG(7, "[lr] get_pctl_device_type_info fail\n");
        return;
    }
    for (int i = 0; i < count; i++) {
        char mac[MAC_DASH_TEXT_SIZE];
        mac_to_dash_text(rows[i].mac, mac);
        LR_LOG(7, "[lr] mac = %s, device type = %s\n", mac, device_type_name(rows[i].type));
    }
    free(rows);
}

void test_tfstats_seg() noexcept
{
    LR_LOG(7, "[lr] test_tfstats_seg\n");
    int ret = tfstats_seg_over_limit("192.168.0.205", "minute");
    LR_LOG(7, "[lr] ret = %d\n", ret);
}

void test_fing(void *) noexcept
{
    LR_LOG(7, "[lr] test_fing\n");
    fing_info *rows = nullptr;
    int count = 0;
    if (get_fing_info(&rows, &count) != 0)
        return;
    for (int i = 0; i < count; i++)
        LR_LOG(7, "brand = %s, sys_version = %s\n", rows[i].brand, rows[i].system_version);
    free(rows);
}
