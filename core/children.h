// Commands are started by worker and probe threads, each of which waits for
// its own child and reads its exit status. libubox reaps every child with
// waitpid(-1) when SIGCHLD arrives, unless a handler of the program's own is
// in place at uloop_init; then it leaves the signal alone. Without this, the
// loop thread takes the status of a command that a worker is waiting for,
// and the worker sees ECHILD and takes a command that ran for one that
// failed (a recognition section made without its count, say).
#pragma once

// Installs the daemon's own SIGCHLD handler; call before uloop_init.
// 0, or -1 after perror.
int child_signals_init() noexcept;
