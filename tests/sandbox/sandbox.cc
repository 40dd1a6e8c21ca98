#include "tests/sandbox/sandbox.h"

#include <gtest/gtest.h>

#include <cerrno>
#include <csignal>
#include <cstdio>
#include <fcntl.h>
#include <sched.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

namespace sandbox
{

namespace
{

constexpr char console_path[] = "/dev/console";

ino_t mount_namespace()
{
    struct stat st {
    };
    return stat("/proc/self/ns/mnt", &st) == 0 ? st.st_ino : 0;
}

// The namespace this process (or the one it was forked from) left in
// private_mounts; 0 while it never did.
ino_t left_namespace = 0;

// A file or FIFO made on a scratch tmpfs, bound over the console, and the
// tmpfs detached again: afterwards it has no name but "/dev/console", and no
// trace is left in "/tmp". (Unlinking it instead would forbid the next
// console to be bound over it.) Returns a descriptor for reading it, or -1.
int bind_console(console::kind kind)
{
    if (!in_private_namespace()) {
        std::fprintf(stderr, "sandbox: refusing to bind over %s outside a private mount namespace\n",
                     console_path);
        return -1;
    }
    char dir[] = "/tmp/lr-console-XXXXXX";
    if (!mkdtemp(dir)) {
        perror("mkdtemp");
        return -1;
    }
    if (!mount_tmpfs(dir)) {
        rmdir(dir);
        return -1;
    }
    std::string path = std::string(dir) + "/console";
    int fd = -1;
    if (kind == console::fifo) {
        if (mkfifo(path.c_str(), 0600) == 0)
            fd = open(path.c_str(), O_RDWR | O_NONBLOCK | O_CLOEXEC);
        // Room for a whole test's lines, so that no writer waits on the test.
        if (fd >= 0)
            fcntl(fd, F_SETPIPE_SZ, 1 << 20);
    } else {
        fd = open(path.c_str(), O_RDWR | O_CREAT | O_EXCL | O_CLOEXEC, 0600);
    }
    if (fd < 0 || mount(path.c_str(), console_path, nullptr, MS_BIND, nullptr) != 0) {
        perror("bind a console over /dev/console");
        if (fd >= 0)
            close(fd);
        fd = -1;
    }
    umount2(dir, MNT_DETACH);
    rmdir(dir);
    return fd;
}

} // namespace

bool private_mounts()
{
    if (left_namespace == 0)
        left_namespace = mount_namespace();
    if (unshare(CLONE_NEWNS) != 0) {
        perror("unshare(CLONE_NEWNS) (these tests need root)");
        return false;
    }
    if (mount(nullptr, "/", nullptr, MS_REC | MS_PRIVATE, nullptr) != 0) {
        perror("mount --make-rprivate /");
        return false;
    }
    return true;
}

bool in_private_namespace()
{
    ino_t own = mount_namespace();
    return left_namespace != 0 && own != 0 && own != left_namespace;
}

bool mount_tmpfs(const char *dir)
{
    mkdir(dir, 0755);
    if (mount("none", dir, "tmpfs", 0, "mode=0755") != 0) {
        perror(dir);
        return false;
    }
    return true;
}

bool enter()
{
    if (!private_mounts() || !mount_tmpfs("/etc") || mkdir("/etc/config", 0755) != 0 ||
        !mount_tmpfs("/var/run"))
        return false;
    // Lives as long as the process; leaves its mount to the namespace's end.
    static console *whole_run = new console(console::file);
    return whole_run->ok();
}

console::console(kind k) : kind_(k), fd_(bind_console(k)) {}

console::~console()
{
    if (fd_ < 0)
        return;
    umount2(console_path, MNT_DETACH);
    close(fd_);
}

std::string console::text()
{
    if (fd_ < 0)
        return {};
    char buf[65536];
    if (kind_ == file) {
        std::string out;
        off_t at = 0;
        ssize_t n;
        while ((n = pread(fd_, buf, sizeof(buf), at)) > 0) {
            out.append(buf, static_cast<size_t>(n));
            at += n;
        }
        return out;
    }
    ssize_t n;
    while ((n = read(fd_, buf, sizeof(buf))) > 0)
        seen_.append(buf, static_cast<size_t>(n));
    return seen_;
}

bool in_child(const std::function<bool()> &setup, const std::function<void()> &body)
{
    std::fflush(stdout);
    std::fflush(stderr);
    pid_t pid = fork();
    if (pid < 0)
        return false;
    if (pid == 0) {
        if (!setup())
            _exit(2);
        alarm(60);
        body();
        std::fflush(stdout);
        std::fflush(stderr);
        _exit(::testing::Test::HasFailure() ? 1 : 0);
    }
    int status = 0;
    pid_t done;
    while ((done = waitpid(pid, &status, 0)) < 0 && errno == EINTR) {
    }
    return done == pid && WIFEXITED(status) && WEXITSTATUS(status) == 0;
}

} // namespace sandbox
