// How the daemon is told to stop: SIGTERM or SIGINT, at any moment.
//
// uloop_run clears its cancel flag on entry, so a signal that libubox's own
// handler caught between uloop_init and uloop_run (the start-up pass takes
// seconds) would be forgotten. The daemon therefore installs its handler
// before uloop_init, which makes libubox leave both signals alone: the
// handler records the request in a flag that never goes back, and wakes the
// loop through a pipe, whose callback ends the loop from inside uloop_run.
#pragma once

// Installs the handler of SIGTERM and SIGINT and opens the wake pipe; call
// before uloop_init. 0, or -1 after perror.
int stop_signals_init() noexcept;

// Puts the wake pipe into the loop; call after uloop_init.
void stop_signals_watch() noexcept;

// Whether a stop was asked for. Long work (a scan pass, a probe wait) looks
// at it between steps and gives up, so that the process ends promptly.
bool lr_stopping() noexcept;
