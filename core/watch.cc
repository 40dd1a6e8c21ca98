#include "core/watch.h"

int db_inotify_init() noexcept
{
    return 0;
}

void db_inotify_deinit() noexcept {}
