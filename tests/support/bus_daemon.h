// Starting a private ubusd for a test or a benchmark. Only the options every
// ubusd has are used (-s), and readiness is seen by connecting to the socket
// until it answers, so the same code runs our stand-in and the router's
// ubusd (LR_UBUSD_BIN, set at configure time).
#pragma once

#include <signal.h>
#include <sys/prctl.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <time.h>
#include <unistd.h>

#include <cstring>
#include <string>

namespace lr_test {

inline const char *ubusd_binary() { return LR_UBUSD_BIN; }

// True once a connection to the socket at path is accepted.
inline bool socket_answers(const char *path)
{
    sockaddr_un addr{};
    addr.sun_family = AF_UNIX;
    if (std::strlen(path) >= sizeof(addr.sun_path))
        return false;
    std::strcpy(addr.sun_path, path);
    int fd = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    if (fd < 0)
        return false;
    bool ok = connect(fd, reinterpret_cast<sockaddr *>(&addr), sizeof(addr)) == 0;
    close(fd);
    return ok;
}

// Waits until the socket answers; false when the process pid ended first or
// timeout_ms passed. Polls every 5 ms.
inline bool wait_for_socket(const char *path, pid_t pid, int timeout_ms)
{
    for (int waited = 0; waited <= timeout_ms; waited += 5) {
        if (socket_answers(path))
            return true;
        if (pid > 0 && waitpid(pid, nullptr, WNOHANG) == pid)
            return false;
        timespec step{0, 5 * 1000 * 1000};
        nanosleep(&step, nullptr);
    }
    return false;
}

// Forks "ubusd -s path"; the child gets SIGTERM when the caller dies if
// die_with_parent is set. Returns the child's pid, or -1.
inline pid_t spawn_ubusd(const char *path, bool die_with_parent = false)
{
    const char *bin = ubusd_binary();
    pid_t pid = fork();
    if (pid == 0) {
        if (die_with_parent)
            prctl(PR_SET_PDEATHSIG, SIGTERM);
        execlp(bin, "ubusd", "-s", path, static_cast<char *>(nullptr));
        _exit(127);
    }
    return pid;
}

// Both of the above: a running ubusd whose socket answers, or -1.
inline pid_t start_ubusd(const char *path, bool die_with_parent = false, int timeout_ms = 10000)
{
    pid_t pid = spawn_ubusd(path, die_with_parent);
    if (pid < 0)
        return -1;
    if (!wait_for_socket(path, pid, timeout_ms)) {
        kill(pid, SIGTERM);
        waitpid(pid, nullptr, 0);
        return -1;
    }
    return pid;
}

}  // namespace lr_test
