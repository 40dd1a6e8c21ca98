#include "core/startup.h"

#include <cstdlib>
#include <cstring>
#include <unistd.h>

#include "bus/ubus_server.h"
#include "core/children.h"
#include "core/locks.h"
#include "core/log.h"
#include "core/openwrt.h"
#include "core/stop.h"
#include "core/threadpool.h"
#include "core/timers.h"
#include "core/uci_util.h"
#include "core/watch.h"
#include "db/system_info.h"
#include "recognition/name_probe.h"
#include "registry/client_node.h"
#include "registry/compare.h"
#include "scan/client_table.h"
#include "scan/lan_info.h"
#include "scan/lease.h"
#include "scan/topology.h"

namespace
{

// Call sites of the parts that are not in yet; each succeeds and does
// nothing, in its place in the order.
int new_client_asscess_init() noexcept
{
    return 0;
} // netlink and driver event sockets
void close_event_sockets() noexcept {}

// Port count of the interface table; starts at 0 on every start.
void reset_port_count() noexcept
{
    port_count = 0;
}

void tear_down() noexcept
{
    bool worker_left = threadpool_deinit(thread_pool) != 0;
    thread_pool = nullptr;
    close_event_sockets();
    db_inotify_deinit();
    iwinfo_finish();
    lanroster_ubus_deinit();
    uloop_done();
    // A worker still inside a task may use globals that exit() would
    // destroy; every log line is already written, so nothing is lost.
    if (worker_left)
        _exit(0);
}

} // namespace

void read_lease_file_name(char *out, size_t size) noexcept
{
    if (!out || size == 0)
        return;
    std::memset(out, 0, size);
    mutex_guard hold(uci_lock);
    uci_context_ptr ctx = new_uci_context(UCI_CONFIG_DIR);
    if (!ctx)
        return;
    uci_package *pkg = nullptr;
    if (uci_load(ctx.get(), "dhcp", &pkg) != UCI_OK) {
        uci_perror(ctx.get(), "dhcp");
        return;
    }
    uci_element *e = nullptr;
    uci_foreach_element(&pkg->sections, e)
    {
        uci_element *opt = nullptr;
        if (uci_lookup_next(ctx.get(), &opt, &uci_to_section(e)->options, "leasefile") != UCI_OK)
            continue;
        uci_option *o = uci_to_option(opt);
        if (o->type != UCI_TYPE_STRING)
            continue;
        size_t len = strnlen(o->v.string, size - 1);
        std::memcpy(out, o->v.string, len);
        out[len] = '\0';
    }
}

void load_early_config() noexcept
{
    name_probe_init();
    reset_port_count();
    read_radio_list();
    read_sysmode();
    update_lan_info_by_uci();
    read_lease_file_name(lease_file_name, sizeof(lease_file_name));
}

int lanroster_main() noexcept
{
    // Without our handler libubox installs its own at uloop_init, and the
    // daemon still stops, only less promptly during the start-up pass.
    stop_signals_init();
    child_signals_init();
    load_early_config();
    uloop_init();
    stop_signals_watch();
    if (lanroster_ubus_init() != 0)
        return -1;
    if (get_system_info() != 0 || db_inotify_init() != 0)
        return -1;
    if (local_report_timer_init() != 0 || new_client_asscess_init() != 0)
        return -1;
    thread_pool = static_cast<threadpool *>(malloc(sizeof(threadpool)));
    if (threadpool_init(thread_pool, 2) != 0 || create_workers(thread_pool) != 0)
        return -1;
    LR_LOG(7, "[lr] begin to create_client_table\n");
    client_table.head = nullptr;
    client_table.tail = nullptr;
    create_memory_queue();
    // A stop during the pass cuts it short; its partial list must not take
    // anybody offline.
    create_client_table();
    if (!lr_stopping())
        compare_scan_list();
    LR_LOG(7, "[lr] begin to start uloop\n");
    if (!lr_stopping())
        uloop_run();
    tear_down();
    return 0;
}
