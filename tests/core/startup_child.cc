#include "tests/core/startup_child.h"

#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <ctime>
#include <fcntl.h>
#include <sched.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include "bus/ubus_server.h"
#include "core/log.h"
#include "core/openwrt.h"
#include "core/startup.h"
#include "scan/lan_info.h"
#include "tests/sandbox/sandbox.h"
#include "tests/support/bus_daemon.h"

namespace startup_child
{

namespace
{

// Written by a timer that only the running loop can fire: the hand-shake
// that tells the test a SIGTERM now reaches uloop_run. A signal that came
// earlier would be forgotten when uloop_run starts.
int loop_marker_fd = -1;
void loop_marker(uloop_timeout *) noexcept
{
    ssize_t r = write(loop_marker_fd, "LOOP-RUNNING\n", 13);
    (void)r;
}

// The child: bus, console, level, then the start sequence.
[[noreturn]] void child(void (*prepare)(), bool (*after)())
{
    if (!isolate() || !device_packages())
        _exit(10);
    pid_t bus = lr_test::start_ubusd("/run/ubus.sock");
    if (bus < 0)
        _exit(13);
    // The error form goes to standard output: unbuffered into the console
    // FIFO, so nothing is lost at _exit and the order of lines is kept.
    int console_fd = open("/dev/console", O_WRONLY);
    if (console_fd < 0 || dup2(console_fd, 1) != 1)
        _exit(16);
    setvbuf(stdout, nullptr, _IONBF, 0);
    log_level = 7;
    loop_marker_fd = 1;
    static uloop_timeout marker{};
    marker.cb = loop_marker;
    uloop_timeout_set(&marker, 0);
    if (prepare)
        prepare();
    int r = lanroster_main();
    kill(bus, SIGTERM);
    waitpid(bus, nullptr, 0);
    if (after && !after())
        _exit(15);
    _exit(r == 0 && ubus_ctx == nullptr ? 0 : 14);
}

} // namespace

int wait_status(int pid)
{
    int status = 0;
    while (waitpid(pid, &status, 0) < 0 && errno == EINTR) {
    }
    return status;
}

bool isolate()
{
    // A private /tmp too: the start creates the lease file it watches.
    return sandbox::private_mounts() && unshare(CLONE_NEWNET) == 0 && sandbox::mount_tmpfs("/run") &&
           sandbox::mount_tmpfs("/tmp");
}

bool device_packages()
{
    // The test binary's sandbox has a throw-away /etc already.
    if ((mkdir("/etc/config", 0755) != 0 && errno != EEXIST) ||
        (mkdir("/etc/profile.d", 0755) != 0 && errno != EEXIST))
        return false;
    FILE *f = std::fopen("/etc/config/access_control", "w");
    if (!f)
        return false;
    std::fputs("config settings 'settings'\n\toption enable 'off'\n\toption access_mode 'black'\n", f);
    std::fclose(f);
    f = std::fopen("/etc/profile.d/profile", "w");
    if (!f)
        return false;
    std::fputs("config qos\n\toption qos_schedule_support 'yes'\n", f);
    std::fclose(f);
    return true;
}

run_result run_with_bus(void (*prepare)(), bool (*after)())
{
    run_result result;
    result.status = -1;
    sandbox::console console(sandbox::console::fifo);
    if (!console.ok())
        return result;
    std::fflush(nullptr);
    pid_t pid = fork();
    if (pid < 0)
        return result;
    if (pid == 0)
        child(prepare, after);
    // Read the console until the loop has started, then stop the daemon the
    // way init does; read on until the child is gone.
    bool signalled = false;
    for (;;) {
        pid_t done = waitpid(pid, &result.status, WNOHANG);
        result.console = console.text();
        if (done == pid)
            break;
        if (done < 0 && errno != EINTR) {
            result.status = -1;
            break;
        }
        if (!signalled && result.console.find("LOOP-RUNNING") != std::string::npos) {
            kill(pid, SIGTERM);
            signalled = true;
        }
        const timespec tick{0, 10 * 1000 * 1000};
        nanosleep(&tick, nullptr);
    }
    return result;
}

} // namespace startup_child
