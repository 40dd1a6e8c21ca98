#include "recog_test_util.h"

#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <sstream>

#include "../registry/registry_test_util.h"
#include "registry/run_command.h"

namespace recogtest {

bool run_in_store(const std::function<void()> &body)
{
    return regtest::run_in_sandbox([&] {
        std::string path = std::string("/tmp/bin:") + LR_BINARY_DIR + "/platform-bin:" +
                           (getenv("PATH") ? getenv("PATH") : "/usr/bin:/bin");
        setenv("PATH", path.c_str(), 1);
        regtest::write_file("/etc/config/fing",
                            "config setting 'setting'\n\toption enable '1'\n\n"
                            "config state 'global'\n\toption mac_num '0'\n");
        body();
    });
}

std::vector<std::string> delta_lines()
{
    std::vector<std::string> out;
    std::ifstream f("/var/state/fing");
    std::string line;
    while (std::getline(f, line))
        out.push_back(line);
    return out;
}

void write_delta(const std::vector<std::string> &lines)
{
    std::string text;
    for (const auto &l : lines)
        text += l + "\n";
    regtest::write_file("/var/state/fing", text);
}

std::string client_name(int i)
{
    char buf[16];
    snprintf(buf, sizeof(buf), "0200000%05X", i);
    return buf;
}

std::string section_line(int i)
{
    return "fing." + client_name(i) + "='state'";
}

std::string uci_get(const std::string &target)
{
    const char *argv[] = {"uci", "-P", "/var/state", "get", target.c_str(), nullptr};
    char buf[512];
    int n = run_command_capture(argv, buf, sizeof(buf) - 1, 10000);
    std::string s = n > 0 ? std::string(buf, static_cast<size_t>(n)) : std::string();
    while (!s.empty() && s.back() == '\n')
        s.pop_back();
    return s;
}

int uci_run(const std::vector<std::string> &args)
{
    std::vector<const char *> argv{"uci", "-P", "/var/state"};
    for (const auto &a : args)
        argv.push_back(a.c_str());
    argv.push_back(nullptr);
    return run_command_wait(argv.data());
}

}  // namespace recogtest
