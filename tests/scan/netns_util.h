// A private LAN for the scan tests: a child process with a network and a
// mount namespace of its own, where "/sys" shows only its interfaces and
// "/etc" (with "/etc/config" and "/etc/profile.d"), "/tmp" and "/run" are
// empty tmpfs mounts.
// Bridges, veths, neighbours and packages made there are real and vanish
// with the child.
#pragma once

#include <functional>
#include <string>
#include <sys/types.h>
#include <vector>

namespace scantest
{

// Runs `body` in such a child; true when the child's checks passed.
bool in_private_lan(const std::function<void()> &body);

// Runs a command line of fixed text with /bin/sh; true on exit status 0.
bool sh(const std::string &command);

void write_file(const std::string &path, const std::string &text);

// What `fn` printed on standard output (printf, puts, ...).
std::string capture_stdout(const std::function<void()> &fn);

// The router's side: "br-lan" with 192.168.1.1/24 and MAC 02:4c:52:00:00:01.
void lan_router();

// A host in network namespace `name` behind a new veth port `port` of
// "br-lan", with its MAC and addresses (the first with /24, the others /32).
// The bridge knows its MAC on that port, as after its first frame. A host
// that does not answer ARP has ARP off.
void lan_host(const std::string &name, const std::string &port, const std::string &mac,
              const std::vector<std::string> &ips, bool answers_arp = true);

// A neighbour entry of the router: `state` as "ip neigh" spells it.
void lan_neigh(const std::string &ip, const std::string &mac, const std::string &state = "reachable");

// Runs `fn` in a child process inside network namespace `name` (made with
// "ip netns add"); returns its pid. wait_child() reaps it: true on exit 0.
pid_t in_netns(const std::string &name, const std::function<int()> &fn);
bool wait_child(pid_t pid);

} // namespace scantest
