// New-client notifications through the compare pass: the files fill during a
// pass and each command runs once per pass that had new clients, with the
// file's path as its only argument (root: private "/tmp" and "/etc").
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "../registry/registry_test_util.h"
#include "recog_test_util.h"
#include "recognition/new_client_notify.h"
#include "registry/compare.h"

using namespace recogtest;

namespace {

// A recording stand-in: one line per call with its arguments, then the
// number of lines of the file it was handed; it empties the file.
void install_report_commands()
{
    for (const char *cmd : {SMART_HOME_REPORT_COMMAND, NEW_ACCESS_REPORT_COMMAND})
        regtest::write_file(std::string("/tmp/bin/") + cmd,
                            std::string("#!/bin/sh\n") + "echo \"$# $*\" >> /tmp/" + cmd +
                                ".calls\nwc -l < \"$1\" >> /tmp/" + cmd + ".calls\n: > \"$1\"\n",
                            0755);
}

void smart_home_enable(const char *value)
{
    regtest::write_file("/etc/config/smart_home",
                        std::string("config info 'info'\n\toption enable '") + value + "'\n");
}

std::vector<std::string> lines_of(const std::string &path)
{
    std::vector<std::string> out;
    std::string text = regtest::file_exists(path) ? regtest::read_file(path) : "";
    size_t at = 0;
    while (at < text.size()) {
        size_t nl = text.find('\n', at);
        out.push_back(text.substr(at, nl - at));
        at = nl == std::string::npos ? text.size() : nl + 1;
    }
    return out;
}

void pass_with_new_clients(int first, int count)
{
    regtest::entries e;
    for (int i = first; i < first + count; i++)
        e.add(i, "host");
    ASSERT_EQ(compare_client_table(e.head()), 0);
}

void fresh()
{
    regtest::fresh_pool();
    install_report_commands();
}

}  // namespace

TEST(NewClientNotify, PassWithoutNewClientRunsNoCommand)
{
    EXPECT_TRUE(run_in_store([] {
        fresh();
        smart_home_enable("1");
        pass_with_new_clients(1, 2);
        EXPECT_EQ(lines_of("/tmp/smart_home_report.calls").size(), 2u);
        pass_with_new_clients(1, 2); // the same clients again: no new one
        EXPECT_EQ(lines_of("/tmp/smart_home_report.calls").size(), 2u);
        EXPECT_EQ(lines_of("/tmp/new_client_access_report.calls").size(), 2u);
        smart_home_flush(nullptr);
        new_access_flush(nullptr);
        EXPECT_EQ(lines_of("/tmp/smart_home_report.calls").size(), 2u);
    }));
}

TEST(NewClientNotify, TwentyOneNewClientsGiveOneCallEachAndTwoBatches)
{
    EXPECT_TRUE(run_in_store([] {
        fresh();
        smart_home_enable("1");
        pass_with_new_clients(1, 21);
        auto sh = lines_of("/tmp/smart_home_report.calls");
        ASSERT_EQ(sh.size(), 2u);
        EXPECT_EQ(sh[0], std::string("1 ") + SMART_HOME_CLIENTS_FILE);
        EXPECT_EQ(sh[1], "21");
        auto na = lines_of("/tmp/new_client_access_report.calls");
        ASSERT_EQ(na.size(), 2u);
        EXPECT_EQ(na[0], std::string("1 ") + NEW_ACCESS_CLIENTS_FILE);
        EXPECT_EQ(na[1], "21");
        auto b1 = lines_of(std::string(FING_REPORT_MAC_FILE) + "1");
        auto b2 = lines_of(std::string(FING_REPORT_MAC_FILE) + "2");
        EXPECT_EQ(b1.size(), 20u);
        ASSERT_EQ(b2.size(), 1u);
        EXPECT_EQ(b1[0], regtest::hex_mac(1));
        EXPECT_EQ(b2[0], regtest::hex_mac(21));
        EXPECT_EQ(report_total_count, 21);
    }));
}

TEST(NewClientNotify, FiftyNewClientsInOnePassGiveOneCallEach)
{
    EXPECT_TRUE(run_in_store([] {
        fresh();
        smart_home_enable("1");
        pass_with_new_clients(1, 50);
        EXPECT_EQ(lines_of("/tmp/smart_home_report.calls"), (std::vector<std::string>{std::string("1 ") + SMART_HOME_CLIENTS_FILE, "50"}));
        EXPECT_EQ(lines_of("/tmp/new_client_access_report.calls").size(), 2u);
    }));
}

TEST(NewClientNotify, SmartHomeOffLeavesItsFileUntouched)
{
    EXPECT_TRUE(run_in_store([] {
        fresh();
        smart_home_enable("0");
        pass_with_new_clients(1, 3);
        EXPECT_FALSE(regtest::file_exists(SMART_HOME_CLIENTS_FILE));
        EXPECT_FALSE(regtest::file_exists("/tmp/smart_home_report.calls"));
        EXPECT_EQ(lines_of("/tmp/new_client_access_report.calls").size(), 2u);
        EXPECT_EQ(lines_of(std::string(FING_REPORT_MAC_FILE) + "1").size(), 3u);
    }));
}

TEST(NewClientNotify, SmartHomeEnableReadsOnlyFirstCharacter)
{
    EXPECT_TRUE(run_in_store([] {
        smart_home_enable("10");
        EXPECT_EQ(smart_home_enabled(), 0);
        smart_home_enable("01");
        EXPECT_EQ(smart_home_enabled(), -1);
        smart_home_enable("");
        EXPECT_EQ(smart_home_enabled(), -1);
        regtest::write_file("/etc/config/smart_home", "config info 'info'\n");
        EXPECT_EQ(smart_home_enabled(), -1);
        regtest::write_file("/etc/config/smart_home", "config other 'other'\n\toption enable '1'\n");
        EXPECT_EQ(smart_home_enabled(), -1);
        unlink("/etc/config/smart_home");
        EXPECT_EQ(smart_home_enabled(), -1);
    }));
}

TEST(NewClientNotify, FilesAreAppendedNeverTruncated)
{
    EXPECT_TRUE(run_in_store([] {
        fresh();
        smart_home_enable("1");
        regtest::write_file(NEW_ACCESS_CLIENTS_FILE, "000000000001\n");
        // Without a command to empty it, the file keeps what was there.
        unlink("/tmp/bin/new_client_access_report");
        pass_with_new_clients(7, 1);
        EXPECT_EQ(lines_of(NEW_ACCESS_CLIENTS_FILE), (std::vector<std::string>{"000000000001", regtest::hex_mac(7)}));
        EXPECT_EQ(new_access_count, 0); // reset after the attempt
    }));
}
