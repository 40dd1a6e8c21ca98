#include "netns_util.h"

#include <cstdio>
#include <cstdlib>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <sched.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

namespace scantest
{

namespace
{

bool mount_tmpfs(const char *where)
{
    mkdir(where, 0755);
    return mount("none", where, "tmpfs", 0, "mode=0755") == 0;
}

bool enter_private_lan()
{
    if (unshare(CLONE_NEWNET | CLONE_NEWNS) != 0)
        return false;
    if (mount(nullptr, "/", nullptr, MS_REC | MS_PRIVATE, nullptr) != 0)
        return false;
    if (mount("sysfs", "/sys", "sysfs", 0, nullptr) != 0)
        return false;
    if (!mount_tmpfs("/etc/config") || !mount_tmpfs("/etc/profile.d") || !mount_tmpfs("/tmp") ||
        !mount_tmpfs("/run"))
        return false;
    mkdir("/var/run", 0755); // a directory where it is not a link to /run
    return sh("ip link set lo up");
}

} // namespace

bool in_private_lan(const std::function<void()> &body)
{
    fflush(stdout);
    fflush(stderr);
    pid_t pid = fork();
    if (pid < 0)
        return false;
    if (pid == 0) {
        if (!enter_private_lan()) {
            perror("private network and mount namespace (the bridge tests need root)");
            _exit(2);
        }
        alarm(120);
        body();
        fflush(stdout);
        fflush(stderr);
        _exit(::testing::Test::HasFailure() ? 1 : 0);
    }
    int status = 0;
    return waitpid(pid, &status, 0) == pid && WIFEXITED(status) && WEXITSTATUS(status) == 0;
}

bool sh(const std::string &command)
{
    fflush(stdout);
    int rc = std::system(command.c_str());
    return rc == 0;
}

void write_file(const std::string &path, const std::string &text)
{
    FILE *f = fopen(path.c_str(), "w");
    ASSERT_NE(f, nullptr) << path;
    fwrite(text.data(), 1, text.size(), f);
    fclose(f);
}

std::string capture_stdout(const std::function<void()> &fn)
{
    fflush(stdout);
    char path[] = "/tmp/stdout.XXXXXX";
    int fd = mkstemp(path);
    if (fd < 0)
        return {};
    int saved = dup(STDOUT_FILENO);
    dup2(fd, STDOUT_FILENO);
    fn();
    fflush(stdout);
    dup2(saved, STDOUT_FILENO);
    close(saved);
    std::string out;
    lseek(fd, 0, SEEK_SET);
    char buf[4096];
    ssize_t n;
    while ((n = read(fd, buf, sizeof(buf))) > 0)
        out.append(buf, static_cast<size_t>(n));
    close(fd);
    unlink(path);
    return out;
}

} // namespace scantest
