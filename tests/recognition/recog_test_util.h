// Helpers of the recognition tests: the registry's private file system
// with the platform's uci command on PATH and a default "fing" package.
#pragma once

#include <functional>
#include <string>
#include <vector>

namespace recogtest {

// Runs `body` like regtest::run_in_sandbox, with "/etc/config/fing" holding
// section global (mac_num "0"), an empty "/var/state", and the stand-in uci
// first on PATH after the recording commands of "/tmp/bin".
bool run_in_store(const std::function<void()> &body);

// The delta file's lines.
std::vector<std::string> delta_lines();
// Writes the delta file whole.
void write_delta(const std::vector<std::string> &lines);
// "fing.<name>='state'" for client `i`, and its name.
std::string client_name(int i);
std::string section_line(int i);
// Output of `uci -P /var/state get <target>` without the newline.
std::string uci_get(const std::string &target);
int uci_run(const std::vector<std::string> &args);

}  // namespace recogtest
