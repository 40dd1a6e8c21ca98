#include "registry/run_command.h"

#include <cerrno>
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
