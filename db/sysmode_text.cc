// The system mode as text, for the scan: it compares the text itself with
// "router" and "hotspot", words the capability record has no value for.
#include "core/locks.h"
#include "core/text.h"
#include "core/uci_util.h"
#include "db/db_util.h"
#include "scan/topology.h"

char sys_mode_text[16] = {};

void read_sysmode() noexcept
{
    mutex_guard hold(uci_lock);
    uci_context_ptr ctx = new_uci_context(DB_CONFDIR);
    if (!ctx)
        return;
    uci_package *pkg = nullptr;
    if (uci_load(ctx.get(), "sysmode", &pkg) != UCI_OK) {
        uci_perror(ctx.get(), "sysmode");
        return;
    }
    const char *mode = uci_option_string(ctx.get(), uci_find_section(ctx.get(), pkg, "sysmode"), "mode");
    if (mode)
        copy_str(sys_mode_text, mode);
}
