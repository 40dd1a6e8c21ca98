#include "registry/run_command.h"

#include <cerrno>
#include <cstring>
#include <fcntl.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

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

int run_command_output(const char *const argv[], char *buffer, size_t size) noexcept
{
    if (buffer && size)
        std::memset(buffer, 0, size);
    int fds[2];
    if (pipe2(fds, O_CLOEXEC) != 0)
        return -1;
    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    posix_spawn_file_actions_adddup2(&actions, fds[1], STDOUT_FILENO);
    posix_spawn_file_actions_addopen(&actions, STDIN_FILENO, "/dev/null", O_RDONLY, 0);
    pid_t pid = -1;
    int rc = posix_spawnp(&pid, argv[0], &actions, nullptr, const_cast<char *const *>(argv), environ);
    posix_spawn_file_actions_destroy(&actions);
    close(fds[1]);
    if (rc != 0) {
        close(fds[0]);
        return -1;
    }
    size_t got = 0;
    char sink[256];
    for (;;) {
        // Whatever does not fit is read and dropped, so the program never
        // blocks on a full pipe.
        bool room = buffer && got < size;
        ssize_t n = room ? read(fds[0], buffer + got, size - got) : read(fds[0], sink, sizeof(sink));
        if (n < 0 && errno == EINTR)
            continue;
        if (n <= 0)
            break;
        if (room)
            got += static_cast<size_t>(n);
    }
    close(fds[0]);
    int status = 0;
    while (waitpid(pid, &status, 0) < 0 && errno == EINTR) {
    }
    return static_cast<int>(got);
}
