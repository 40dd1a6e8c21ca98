// The recognition state store against the stand-in libuci and uci command,
// in a private "/var/state" (root).
#include <gtest/gtest.h>
#include <sys/stat.h>

#include <cstring>
#include <string>
#include <thread>
#include <vector>

#include "../registry/registry_test_util.h"
#include "recog_test_util.h"
#include "recognition/fing_state.h"

using namespace recogtest;

namespace {

std::string get(const std::string &section, const char *option)
{
    char buf[128] = {};
    EXPECT_EQ(fing_state_get(FING_PACKAGE, section.c_str(), option, buf, sizeof(buf)), 0);
    return buf;
}

int client_sections()
{
    int n = 0;
    for (const auto &l : delta_lines()) {
        char name[13];
        if (fing_state_section_line(l, name))
            n++;
    }
    return n;
}

std::vector<std::string> sections_with_mac_num(int count, int mac_num)
{
    std::vector<std::string> lines;
    for (int i = 0; i < count; i++)
        lines.push_back(section_line(i));
    lines.push_back("fing.global.mac_num='" + std::to_string(mac_num) + "'");
    return lines;
}

}  // namespace

TEST(FingTextClean, ReplacesBytesOutsidePrintableRange)
{
    char text[] = "caf\xc3\xa9-tv";
    EXPECT_EQ(fing_text_clean(text), 1);
    EXPECT_STREQ(text, "caf^^-tv");
    char ctl[] = "a\tb\x7f" "c\x1f";
    EXPECT_EQ(fing_text_clean(ctl), 1);
    EXPECT_STREQ(ctl, "a^b^c^");
    char plain[] = " ~printable~ ";
    EXPECT_EQ(fing_text_clean(plain), 1);
    EXPECT_STREQ(plain, " ~printable~ ");
}

TEST(FingTextClean, EmptyAndNullGiveZero)
{
    char empty[4] = "";
    EXPECT_EQ(fing_text_clean(empty), 0);
    EXPECT_STREQ(empty, "");
    EXPECT_EQ(fing_text_clean(nullptr), 0);
}

TEST(FingStateLine, ClientSectionLines)
{
    char name[13] = {};
    EXPECT_TRUE(fing_state_section_line("fing.AABBCCDDEEFF='state'\n", name));
    EXPECT_STREQ(name, "AABBCCDDEEFF");
    EXPECT_TRUE(fing_state_section_line("fing.001122334455=state", name));
    EXPECT_STREQ(name, "001122334455");
    EXPECT_TRUE(fing_state_section_line("fing.001122334455=\"state\"\r\n", name));
}

TEST(FingStateLine, OtherLinesAreNotSections)
{
    char name[13] = "untouched";
    for (const char *line : {"fing.global='state'", "fing.AABBCCDDEEFF.mdns_name='x'", "fing.AABBCCDDEEFF='other'",
                             "fing.AABBCCDDEEFF='states'", "fing.AABBCCDDEEF='state'", "fing.AABBCCDDEEFFA='state'",
                             "net.AABBCCDDEEFF='state'", "-fing.AABBCCDDEEFF", "fing.AABB$(reboot='state'",
                             "fing.AABBCCDDEE;F='state'", "", "=", "fing.", "fing.AABBCCDDEEFF=", "garbage\x01\xff",
                             "fing.AABBCCDDEEFF='state"})
        EXPECT_FALSE(fing_state_section_line(line, name)) << line;
    const char nul[] = "fing.AABBC\0\0\0\x1a" "EFF='state'";
    EXPECT_FALSE(fing_state_section_line(std::string_view(nul, sizeof(nul) - 1), name));
    EXPECT_STREQ(name, "untouched");
}

TEST(FingStateStore, EnsureMakesSectionAndCountsIt)
{
    EXPECT_TRUE(run_in_store([] {
        EXPECT_EQ(fing_state_ensure(FING_PACKAGE, "AABBCCDDEEFF"), 0);
        EXPECT_EQ(fing_state_ensure(FING_PACKAGE, "AABBCCDDEEFF"), 1);
        EXPECT_EQ(get("global", "mac_num"), "1");
        EXPECT_EQ(uci_get("fing.AABBCCDDEEFF"), "state");
        EXPECT_EQ(client_sections(), 1);
    }));
}

TEST(FingStateStore, EnsureRefusesBadArguments)
{
    EXPECT_TRUE(run_in_store([] {
        EXPECT_EQ(fing_state_ensure(nullptr, "AABBCCDDEEFF"), -1);
        EXPECT_EQ(fing_state_ensure(FING_PACKAGE, nullptr), -1);
        EXPECT_EQ(fing_state_ensure(FING_PACKAGE, "AA;reboot"), -1);
        EXPECT_EQ(fing_state_ensure(FING_PACKAGE, ""), -1);
        EXPECT_EQ(client_sections(), 0);
    }));
}

TEST(FingStateStore, SetAndGetSeenByScripts)
{
    EXPECT_TRUE(run_in_store([] {
        ASSERT_EQ(fing_state_ensure(FING_PACKAGE, "AABBCCDDEEFF"), 0);
        EXPECT_EQ(fing_state_set(FING_PACKAGE, "AABBCCDDEEFF", "mdns_name", "living room"), 0);
        EXPECT_EQ(uci_get("fing.AABBCCDDEEFF.mdns_name"), "living room");
        // A script's change is seen by the daemon.
        EXPECT_EQ(uci_run({"set", "fing.AABBCCDDEEFF.dhcp_vendor=android-dhcp-13"}), 0);
        EXPECT_EQ(get("AABBCCDDEEFF", "dhcp_vendor"), "android-dhcp-13");
        // A changed value keeps one line per option.
        EXPECT_EQ(fing_state_set(FING_PACKAGE, "AABBCCDDEEFF", "mdns_name", "kitchen"), 0);
        EXPECT_EQ(get("AABBCCDDEEFF", "mdns_name"), "kitchen");
        int lines = 0;
        for (const auto &l : delta_lines())
            lines += l.find(".mdns_name=") != std::string::npos;
        EXPECT_EQ(lines, 1);
    }));
}

TEST(FingStateStore, GetOfMissingValueLeavesBuffer)
{
    EXPECT_TRUE(run_in_store([] {
        char buf[16] = "before";
        EXPECT_EQ(fing_state_get(FING_PACKAGE, "AABBCCDDEEFF", "mdns_name", buf, sizeof(buf)), 0);
        EXPECT_STREQ(buf, "before");
        EXPECT_EQ(fing_state_get(FING_PACKAGE, "AABBCCDDEEFF", nullptr, buf, sizeof(buf)), -1);
        EXPECT_EQ(fing_state_get(FING_PACKAGE, "AA.BB", "x", buf, sizeof(buf)), -1);
        EXPECT_STREQ(buf, "before");
    }));
}

TEST(FingStateStore, GetCopiesAtMostSizeMinusOne)
{
    EXPECT_TRUE(run_in_store([] {
        ASSERT_EQ(fing_state_ensure(FING_PACKAGE, "AABBCCDDEEFF"), 0);
        ASSERT_EQ(fing_state_set(FING_PACKAGE, "AABBCCDDEEFF", "mdns_name", "0123456789"), 0);
        char buf[5];
        std::memset(buf, 'x', sizeof(buf));
        EXPECT_EQ(fing_state_get(FING_PACKAGE, "AABBCCDDEEFF", "mdns_name", buf, sizeof(buf)), 0);
        EXPECT_STREQ(buf, "0123");
    }));
}

TEST(FingStateStore, SetWithoutSectionFails)
{
    EXPECT_TRUE(run_in_store([] {
        EXPECT_EQ(fing_state_set(FING_PACKAGE, "AABBCCDDEEFF", "mdns_name", "x"), -1);
        EXPECT_EQ(fing_state_set(FING_PACKAGE, "AABBCCDDEEFF", "mdns_name", nullptr), -1);
    }));
}

TEST(FingStateStore, EqualValueLeavesDeltaFileUntouched)
{
    EXPECT_TRUE(run_in_store([] {
        ASSERT_EQ(fing_state_ensure(FING_PACKAGE, "AABBCCDDEEFF"), 0);
        ASSERT_EQ(fing_state_set(FING_PACKAGE, "AABBCCDDEEFF", "mdns_name", "tv"), 0);
        std::string before = regtest::read_file("/var/state/fing");
        struct stat st1 {};
        stat("/var/state/fing", &st1);
        EXPECT_EQ(fing_state_set(FING_PACKAGE, "AABBCCDDEEFF", "mdns_name", "tv"), 0);
        struct stat st2 {};
        stat("/var/state/fing", &st2);
        EXPECT_EQ(regtest::read_file("/var/state/fing"), before);
        EXPECT_EQ(st1.st_ino, st2.st_ino);
        EXPECT_EQ(st1.st_mtim.tv_sec, st2.st_mtim.tv_sec);
        EXPECT_EQ(st1.st_mtim.tv_nsec, st2.st_mtim.tv_nsec);
    }));
}

TEST(FingStateStore, FullStoreEvictsFirstSectionAndKeepsMacNum)
{
    EXPECT_TRUE(run_in_store([] {
        write_delta(sections_with_mac_num(200, 200));
        ASSERT_EQ(client_sections(), 200);
        EXPECT_EQ(fing_state_ensure(FING_PACKAGE, "AABBCCDDEEFF"), 0);
        EXPECT_EQ(get("global", "mac_num"), "200");
        EXPECT_EQ(client_sections(), 200);
        EXPECT_EQ(uci_get("fing." + client_name(0)), "");
        EXPECT_EQ(uci_get("fing." + client_name(1)), "state");
        EXPECT_EQ(uci_get("fing.AABBCCDDEEFF"), "state");
    }));
}

TEST(FingStateStore, EvictOneWithoutFileOrSections)
{
    EXPECT_TRUE(run_in_store([] {
        EXPECT_EQ(fing_state_evict_one(), -1);
        write_delta({"fing.global.mac_num='0'"});
        EXPECT_EQ(fing_state_evict_one(), -1);
    }));
}

TEST(FingStateStore, ResyncTrimsTo200)
{
    EXPECT_TRUE(run_in_store([] {
        write_delta(sections_with_mac_num(205, 205));
        EXPECT_EQ(fing_state_resync(), 0);
        EXPECT_EQ(client_sections(), 200);
        EXPECT_EQ(get("global", "mac_num"), "200");
        for (int i = 0; i < 5; i++)
            EXPECT_EQ(uci_get("fing." + client_name(i)), "") << i;
        EXPECT_EQ(uci_get("fing." + client_name(5)), "state");
        EXPECT_EQ(uci_get("fing." + client_name(204)), "state");
        EXPECT_FALSE(regtest::file_exists(FING_DELETE_FILE));
    }));
}

TEST(FingStateStore, ResyncRepairsMacNum)
{
    EXPECT_TRUE(run_in_store([] {
        write_delta(sections_with_mac_num(7, 3));
        EXPECT_EQ(fing_state_resync(), 0);
        EXPECT_EQ(get("global", "mac_num"), "7");
        EXPECT_EQ(client_sections(), 7);
    }));
}

TEST(FingStateStore, ResyncWithoutDeltaFile)
{
    EXPECT_TRUE(run_in_store([] { EXPECT_EQ(fing_state_resync(), -1); }));
}

TEST(FingStateStore, GarbageLinesAreReadPast)
{
    EXPECT_TRUE(run_in_store([] {
        std::vector<std::string> lines = {"garbage without dot", "\x01\x02\xff\xfe", "fing.$(reboot)='state'",
                                          "fing.AABBCCDDEEF='state'", std::string(2000, 'x'),
                                          "fing." + std::string(600, 'A') + "='state'"};
        for (int i = 0; i < 3; i++)
            lines.push_back(section_line(i));
        lines.push_back("fing.global.mac_num='9'");
        write_delta(lines);
        EXPECT_EQ(fing_state_resync(), 0);
        EXPECT_EQ(get("global", "mac_num"), "3");
        EXPECT_EQ(fing_state_load_table(), 0);
        EXPECT_EQ(fing_state_count, 3);
    }));
}

TEST(FingStateStore, DeleteListedRevertsNamedSections)
{
    EXPECT_TRUE(run_in_store([] {
        write_delta(sections_with_mac_num(3, 3));
        mkdir(FING_DELETE_DIR, 0755);
        regtest::write_file(FING_DELETE_FILE, client_name(1) + "\n$(reboot)\n" + client_name(2) + "\n");
        EXPECT_EQ(fing_state_delete_listed(), 0);
        EXPECT_FALSE(regtest::file_exists(FING_DELETE_FILE));
        EXPECT_EQ(uci_get("fing." + client_name(0)), "state");
        EXPECT_EQ(uci_get("fing." + client_name(1)), "");
        EXPECT_EQ(uci_get("fing." + client_name(2)), "");
        EXPECT_EQ(fing_state_delete_listed(), -1);
    }));
}

TEST(FingStateTable, GlobalNeverEntersAndFlagsAreRead)
{
    EXPECT_TRUE(run_in_store([] {
        write_delta({section_line(0), "fing." + client_name(0) + ".dhcp_params='1,3,6'",
                     "fing." + client_name(0) + ".params_error='1'", section_line(1),
                     "fing." + client_name(1) + ".http_user_agent='Mozilla'",
                     "fing." + client_name(1) + ".dhcp_params=''", "fing.global.mac_num='2'"});
        EXPECT_EQ(fing_state_load_table(), 0);
        ASSERT_EQ(fing_state_count, 2);
        for (int i = 0; i < fing_state_count; i++)
            EXPECT_STRNE(fing_state_table[i].mac_text, "global");
        uint8_t params = 9, error = 9;
        EXPECT_EQ(fing_state_lookup(client_name(0).c_str(), &params, &error), 0);
        EXPECT_EQ(params, 1);
        EXPECT_EQ(error, 1);
        EXPECT_EQ(fing_state_lookup(client_name(1).c_str(), &params, &error), 0);
        EXPECT_EQ(params, 0);
        EXPECT_EQ(error, 0);
        uint8_t agent = 9, upload = 9;
        EXPECT_EQ(fing_state_lookup_http(client_name(1).c_str(), &agent, &upload), 0);
        EXPECT_EQ(agent, 1);
        EXPECT_EQ(upload, 0);
        EXPECT_EQ(fing_state_set_http_upload(client_name(1).c_str(), 1), 0);
        EXPECT_EQ(fing_state_lookup_http(client_name(1).c_str(), &agent, &upload), 0);
        EXPECT_EQ(upload, 1);
        // Unknown MACs leave the outputs alone; a null MAC is refused.
        params = 7;
        EXPECT_EQ(fing_state_lookup("FFFFFFFFFFFF", &params, &error), 0);
        EXPECT_EQ(params, 7);
        EXPECT_EQ(fing_state_lookup(nullptr, &params, &error), -1);
        EXPECT_EQ(fing_state_lookup_http(nullptr, &agent, &upload), -1);
        EXPECT_EQ(fing_state_set_http_upload(nullptr, 1), -1);
    }));
}

TEST(FingStateTable, NeverMoreThan200Rows)
{
    EXPECT_TRUE(run_in_store([] {
        write_delta(sections_with_mac_num(201, 201));
        EXPECT_EQ(fing_state_load_table(), 0);
        EXPECT_EQ(fing_state_count, 200);
        EXPECT_EQ(std::string(fing_state_table[199].mac_text), client_name(199));
    }));
}

TEST(FingStateTable, FailedLoadKeepsTable)
{
    EXPECT_TRUE(run_in_store([] {
        write_delta(sections_with_mac_num(2, 2));
        ASSERT_EQ(fing_state_load_table(), 0);
        ASSERT_EQ(fing_state_count, 2);
        unlink("/etc/config/fing");
        EXPECT_EQ(fing_state_load_table(), 0);
        EXPECT_EQ(fing_state_count, 2);
    }));
}

TEST(FingStateStore, ConcurrentEnsuresCountEverySection)
{
    EXPECT_TRUE(run_in_store([] {
        std::vector<std::thread> threads;
        for (int i = 0; i < 8; i++)
            threads.emplace_back([i] { fing_state_ensure(FING_PACKAGE, client_name(i).c_str()); });
        for (auto &t : threads)
            t.join();
        EXPECT_EQ(get("global", "mac_num"), "8");
        EXPECT_EQ(client_sections(), 8);
    }));
}
