// Private mounts for the tests of code that uses the daemon's fixed paths
// ("/etc/config", "/dev/console", "/tmp/...", "/var/state"). A test gets a
// mount namespace of its own and mounts throw-away files and directories
// over those paths, so the daemon's code runs unchanged and the host's files
// are never read or written. All of it needs root.
//
// Two ways to use it: a whole test binary linked with the sandbox main
// (lr_add_gtest(... SANDBOX)) enters `enter()` before its first test; a
// single test runs its body in a child with `in_child`.
#pragma once

#include <functional>
#include <string>

namespace sandbox
{

// Moves the calling process into a mount namespace of its own and makes "/"
// private, so that what it mounts afterwards is seen by it and its children
// only. Threads that exist already stay behind: call it before any starts.
bool private_mounts();

// Whether private_mounts has moved this process (or the one it was forked
// from) out of the namespace it started in; nothing here binds over a path
// of the host's unless it has.
bool in_private_namespace();

// An empty tmpfs on `dir`, which is created first when it is missing.
bool mount_tmpfs(const char *dir);

// What the sandbox main does before the first test: private mounts, an empty
// private "/etc" holding an empty "/etc/config", an empty "/var/run" (where
// the bus socket is), and a plain file as "/dev/console", so that no line
// of a test reaches the host's console.
bool enter();

// A fresh console bound over "/dev/console" for the object's life.
// As a plain file it behaves as the daemon's "> /dev/console" on a file: each
// line replaces the last. As a FIFO every line stays, in the order written
// (the test reads it; up to 1 MiB waits unread).
class console
{
  public:
    enum kind { file, fifo };
    explicit console(kind k = file);
    ~console();
    console(const console &) = delete;
    console &operator=(const console &) = delete;

    bool ok() const
    {
        return fd_ >= 0;
    }
    // A file: what it holds now. A FIFO: everything written to it so far.
    std::string text();

  private:
    kind kind_;
    int fd_ = -1;
    std::string seen_;
};

// Runs `setup` and then `body` in a forked child (with a 60 s alarm) and
// returns whether the set-up worked and the body's checks passed. The
// child's failures print on the shared standard output.
bool in_child(const std::function<bool()> &setup, const std::function<void()> &body);

} // namespace sandbox
