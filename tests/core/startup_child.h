// Runs the daemon's start sequence in a child process with a mount and a
// network namespace of its own, so that the bus socket and the neighbour
// table are the test's own. The test binary runs in the sandbox (its
// "/etc/config" and "/dev/console" are its own, and the child inherits them).
#pragma once

#include <string>

namespace startup_child
{

int wait_status(int pid);

// In a child: a private mount namespace with an empty /run (no bus socket
// unless the test starts one) and a fresh network namespace.
bool isolate();

// In a child that has isolated itself: "/etc" becomes an empty tmpfs with
// what every device ships: "/etc/config/access_control" and the factory
// "/etc/profile.d/profile", which the capability snapshot needs at start.
bool device_packages();

struct run_result {
    int status = 0;      // the child's wait status
    std::string console; // console lines and the daemon's standard output
};

// Starts a private ubusd on "/run/ubus.sock", sets the console threshold to
// 7, runs `prepare` (may be null) and lanroster_main, and stops the daemon
// with SIGTERM as soon as its loop runs. The console is a FIFO that keeps
// every line, and the daemon's standard output goes into it too, so the
// text is in the order written. The child exits 0 when main returned 0 and
// the bus was torn down; `after` (may be null) can veto that.
run_result run_with_bus(void (*prepare)(), bool (*after)());

} // namespace startup_child
