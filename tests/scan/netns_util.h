// A private LAN for the scan tests: a child process with a network and a
// mount namespace of its own, where "/sys" shows only its interfaces and
// "/etc/config", "/etc/profile.d", "/tmp" and "/run" are empty tmpfs mounts.
// Bridges, veths, neighbours and packages made there are real and vanish
// with the child.
#pragma once

#include <functional>
#include <string>

namespace scantest
{

// Runs `body` in such a child; true when the child's checks passed.
bool in_private_lan(const std::function<void()> &body);

// Runs a command line of fixed text with /bin/sh; true on exit status 0.
bool sh(const std::string &command);

void write_file(const std::string &path, const std::string &text);

// What `fn` printed on standard output (printf, puts, ...).
std::string capture_stdout(const std::function<void()> &fn);

} // namespace scantest
