#include "registry/run_command.h"

#include <cerrno>
#include <csignal>
#include <cstring>
#include <ctime>
#include <fcntl.h>
#include <poll.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include "core/unique_fd.h"

extern char **environ;

int run_command_wait(const char *const argv[]) noexcept
{
    pid_t pid = -1;
    // posix_spawn takes char *const[]; it does not write through it.
    if (posix_spawnp(&pid, argv[0], nullptr, nullptr, const_cast<char *const *>(argv), environ) != 0)
        return -1;
    int status = 0;
    while (waitpid(pid, &status, 0) < 0) {
        if (errno != EINTR)
            return -1;
    }
    return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
}

void run_command_detached(const char *const argv[]) noexcept
{
    // The middle child ends at once, so the program itself is reparented
    // and nobody has to reap it.
    pid_t middle = fork();
    if (middle < 0)
        return;
    if (middle == 0) {
        pid_t pid = -1;
        int rc = posix_spawnp(&pid, argv[0], nullptr, nullptr, const_cast<char *const *>(argv), environ);
        _exit(rc == 0 ? 0 : 127);
    }
    int status = 0;
    while (waitpid(middle, &status, 0) < 0 && errno == EINTR) {
    }
}

namespace
{

long long now_ms()
{
    timespec ts{};
    clock_gettime(CLOCK_MONOTONIC, &ts);
    return static_cast<long long>(ts.tv_sec) * 1000 + ts.tv_nsec / 1000000;
}

// Reads into `buffer` until it is full, the writer closes, or the deadline
// passes; returns the count read.
size_t read_until(int fd, char *buffer, size_t size, long long deadline)
{
    size_t got = 0;
    while (got < size) {
        long long left = deadline - now_ms();
        if (left <= 0)
            break;
        pollfd p{.fd = fd, .events = POLLIN, .revents = 0};
        int r = poll(&p, 1, static_cast<int>(left));
        if (r < 0 && errno == EINTR)
            continue;
        if (r <= 0)
            break;
        ssize_t n = read(fd, buffer + got, size - got);
        if (n < 0 && errno == EINTR)
            continue;
        if (n <= 0)
            break;
        got += static_cast<size_t>(n);
    }
    return got;
}

// Waits for the child until the deadline; then kills its group and reaps it.
void reap_by(pid_t pid, long long deadline)
{
    int status = 0;
    while (now_ms() < deadline) {
        pid_t r = waitpid(pid, &status, WNOHANG);
        if (r == pid || (r < 0 && errno != EINTR))
            return;
        usleep(10000);
    }
    kill(-pid, SIGKILL);
    while (waitpid(pid, &status, 0) < 0 && errno == EINTR) {
    }
}

} // namespace

int run_command_capture(const char *const argv[], char *buffer, size_t size, int timeout_ms) noexcept
{
    if (!argv || !argv[0] || !buffer || size == 0)
        return -1;
    std::memset(buffer, 0, size);
    int fds[2];
    if (pipe2(fds, O_CLOEXEC) != 0)
        return -1;
    unique_fd rd(fds[0]);
    unique_fd wr(fds[1]);
    posix_spawn_file_actions_t actions;
    posix_spawnattr_t attr;
    posix_spawn_file_actions_init(&actions);
    posix_spawn_file_actions_adddup2(&actions, wr.get(), STDOUT_FILENO);
    posix_spawnattr_init(&attr);
    // A group of its own, so that a helper it starts dies with it.
    posix_spawnattr_setflags(&attr, POSIX_SPAWN_SETPGROUP);
    posix_spawnattr_setpgroup(&attr, 0);
    pid_t pid = -1;
    int rc = posix_spawnp(&pid, argv[0], &actions, &attr, const_cast<char *const *>(argv), environ);
    posix_spawn_file_actions_destroy(&actions);
    posix_spawnattr_destroy(&attr);
    if (rc != 0)
        return -1;
    wr.reset();
    long long deadline = now_ms() + (timeout_ms > 0 ? timeout_ms : 0);
    size_t got = read_until(rd.get(), buffer, size, deadline);
    // What didn't fit isn't wanted: the program needn't finish saying it.
    reap_by(pid, got == size ? now_ms() : deadline);
    return static_cast<int>(got);
}

int run_command_wait_timeout(const char *const argv[], int timeout_ms) noexcept
{
    if (!argv || !argv[0])
        return -1;
    posix_spawnattr_t attr;
    posix_spawnattr_init(&attr);
    posix_spawnattr_setflags(&attr, POSIX_SPAWN_SETPGROUP);
    posix_spawnattr_setpgroup(&attr, 0);
    pid_t pid = -1;
    int rc = posix_spawnp(&pid, argv[0], nullptr, &attr, const_cast<char *const *>(argv), environ);
    posix_spawnattr_destroy(&attr);
    if (rc != 0)
        return -1;
    long long deadline = now_ms() + (timeout_ms > 0 ? timeout_ms : 0);
    int status = 0;
    for (;;) {
        pid_t r = waitpid(pid, &status, WNOHANG);
        if (r == pid)
            return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
        if (r < 0 && errno != EINTR)
            return -1;
        if (now_ms() >= deadline)
            break;
        usleep(10000);
    }
    kill(-pid, SIGKILL);
    while (waitpid(pid, &status, 0) < 0 && errno == EINTR) {
    }
    return -1;
}
