// Watches on the configuration directory and the lease files. Not in yet:
// set-up succeeds and watches nothing.
#pragma once

int db_inotify_init() noexcept;
void db_inotify_deinit() noexcept;
