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

#include "tests/sandbox/sandbox.h"

namespace scantest
{

namespace
{

bool enter_private_lan()
{
    using sandbox::mount_tmpfs;
    if (!sandbox::private_mounts() || unshare(CLONE_NEWNET) != 0)
        return false;
    if (mount("sysfs", "/sys", "sysfs", 0, nullptr) != 0)
        return false;
    // A tmpfs over all of /etc: the package directories are made in it, and
    // nothing is ever created in the host's /etc.
    if (!mount_tmpfs("/etc") || !mount_tmpfs("/etc/config") || !mount_tmpfs("/etc/profile.d") ||
        !mount_tmpfs("/tmp") || !mount_tmpfs("/run"))
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

void lan_router()
{
    ASSERT_TRUE(sh("ip link add br-lan type bridge && ip link set br-lan address 02:4c:52:00:00:01 && "
                   "ip addr add 192.168.1.1/24 dev br-lan && ip link set br-lan up"));
}

void lan_host(const std::string &name, const std::string &port, const std::string &mac,
              const std::vector<std::string> &ips, bool answers_arp)
{
    std::string eth = name + "e";
    ASSERT_TRUE(sh("ip netns add " + name));
    ASSERT_TRUE(sh("ip link add " + port + " type veth peer name " + eth + " && ip link set " + port +
                   " master br-lan && ip link set " + port + " up"));
    std::string cmd = "ip link set " + eth + " netns " + name + " && ip -n " + name + " link set " + eth +
                      " address " + mac + " && ip -n " + name + " link set " + eth + " up";
    for (size_t i = 0; i < ips.size(); i++)
        cmd += " && ip -n " + name + " addr add " + ips[i] + (i == 0 ? "/24" : "/32") + " dev " + eth;
    if (!answers_arp)
        cmd += " && ip -n " + name + " link set " + eth + " arp off";
    ASSERT_TRUE(sh(cmd));
    ASSERT_TRUE(sh("bridge fdb replace " + mac + " dev " + port + " master static"));
}

void lan_neigh(const std::string &ip, const std::string &mac, const std::string &state)
{
    std::string ll = mac.empty() ? "" : " lladdr " + mac;
    ASSERT_TRUE(sh("ip neigh replace " + ip + ll + " dev br-lan nud " + state));
}

pid_t in_netns(const std::string &name, const std::function<int()> &fn)
{
    fflush(stdout);
    fflush(stderr);
    pid_t pid = fork();
    if (pid != 0)
        return pid;
    int fd = open(("/run/netns/" + name).c_str(), O_RDONLY | O_CLOEXEC);
    if (fd < 0 || setns(fd, CLONE_NEWNET) != 0)
        _exit(3);
    close(fd);
    _exit(fn());
}

bool wait_child(pid_t pid)
{
    int status = 0;
    return pid > 0 && waitpid(pid, &status, 0) == pid && WIFEXITED(status) && WEXITSTATUS(status) == 0;
}

} // namespace scantest
