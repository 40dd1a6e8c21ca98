#include "tests/core/startup_child.h"

#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <sched.h>
#include <sys/mount.h>
#include <sys/wait.h>
#include <unistd.h>

#include "bus/ubus_server.h"
#include "core/log.h"
#include "core/openwrt.h"
#include "core/startup.h"
#include "scan/lan_info.h"
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
[[noreturn]] void child(int console_fd, const std::string &confdir, void (*prepare)(), bool (*after)())
{
    if (!isolate())
        _exit(10);
    pid_t bus = lr_test::start_ubusd("/run/ubus.sock");
    if (bus < 0)
        _exit(13);
    // The error form goes to standard output: unbuffered into the same pipe,
    // so nothing is lost at _exit.
    dup2(console_fd, 1);
    setvbuf(stdout, nullptr, _IONBF, 0);
    static std::string console_path = "/proc/self/fd/" + std::to_string(console_fd);
    lr_console_path = console_path.c_str();
    startup_confdir = confdir.c_str();
    lan_info_confdir = confdir.c_str();
    log_level = 7;
    loop_marker_fd = console_fd;
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

std::string temp_dir()
{
    char tmpl[] = "/tmp/lr-startup-XXXXXX";
    const char *d = mkdtemp(tmpl);
    return d ? d : "";
}

int wait_status(int pid)
{
    int status = 0;
    while (waitpid(pid, &status, 0) < 0 && errno == EINTR) {
    }
    return status;
}

bool isolate()
{
    if (unshare(CLONE_NEWNS | CLONE_NEWNET) != 0)
        return false;
    if (mount(nullptr, "/", nullptr, MS_REC | MS_PRIVATE, nullptr) != 0)
        return false;
    return mount("none", "/run", "tmpfs", 0, nullptr) == 0;
}

run_result run_with_bus(const std::string &confdir, void (*prepare)(), bool (*after)())
{
    run_result result;
    int console[2];
    if (pipe(console) != 0) {
        result.status = -1;
        return result;
    }
    std::fflush(nullptr);
    pid_t pid = fork();
    if (pid < 0) {
        result.status = -1;
        return result;
    }
    if (pid == 0) {
        close(console[0]);
        child(console[1], confdir, prepare, after);
    }
    close(console[1]);
    // Read the console until the loop has started, then stop the daemon the
    // way init does.
    char buf[4096];
    bool signalled = false;
    for (;;) {
        ssize_t n = read(console[0], buf, sizeof(buf));
        if (n <= 0)
            break;
        result.console.append(buf, static_cast<size_t>(n));
        if (!signalled && result.console.find("LOOP-RUNNING") != std::string::npos) {
            kill(pid, SIGTERM);
            signalled = true;
        }
    }
    close(console[0]);
    result.status = wait_status(pid);
    return result;
}

} // namespace startup_child
