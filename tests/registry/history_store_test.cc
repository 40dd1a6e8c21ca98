// The history store: load at start, writers, full rewrite, crontab line.
#include <cstring>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include "registry/compare.h"
#include "registry/history_list_mgmt.h"
#include "registry_test_util.h"

using namespace regtest;

namespace {

using ids = std::vector<int>;

std::string section(const std::string &mac, const std::string &options)
{
    return "\nconfig list\n\toption mac '" + mac + "'\n" + options;
}

std::string opt(const std::string &name, const std::string &value)
{
    return "\toption " + name + " '" + value + "'\n";
}

client_node *node_of(int id)
{
    uint8_t mac[6];
    test_mac(mac, id);
    return find_node_by_mac(mac);
}

TEST(HistoryStore, LoadGivesOfflineRecordsInReversedOrder)
{
    ASSERT_TRUE(run_in_sandbox([] {
        write_file("/etc/config/history_list",
                   section(hex_mac(1), opt("hostname", "one") + opt("type", "laptop") +
                                           opt("nickname", "Mine") + opt("access_host", "257") +
                                           opt("access_time", "99") + opt("leave_time", "98")) +
                       section(hex_mac(2), opt("hostname", "two")) +
                       section(hex_mac(3), opt("hostname", "three")));
        fresh_pool();
        load_history_list_config();
        EXPECT_EQ(list_order(), (ids{3, 2, 1}));
        EXPECT_EQ(list_statuses(), (ids{4, 4, 4}));
        client_node *one = node_of(1);
        ASSERT_NE(one, nullptr);
        EXPECT_STREQ(one->hostname, "one");
        EXPECT_EQ(one->device_type, 26);
        EXPECT_EQ(one->type_cloud_set, 0);
        EXPECT_STREQ(one->nickname, "Mine");
        EXPECT_EQ(one->access_host, 1) << "low 8 bits of 257";
        EXPECT_EQ(one->access_time, 0) << "times are not loaded";
        EXPECT_EQ(one->leave_time, 0);
        EXPECT_EQ(node_of(3)->device_type, 0) << "no type option: the fresh record's 0";
        EXPECT_EQ(pool_count(), MEMORY_QUEUE_SIZE - 3);
    }));
}

TEST(HistoryStore, SectionWithoutHostnameIsSkippedAndCostsARecord)
{
    ASSERT_TRUE(run_in_sandbox([] {
        write_file("/etc/config/history_list",
                   section(hex_mac(1), opt("type", "Laptop")) +
                       section(hex_mac(2), opt("hostname", "two")) +
                       "\nconfig list\n\toption hostname 'no-mac'\n");
        fresh_pool();
        std::string out = capture_stdout([] { load_history_list_config(); });
        EXPECT_EQ(list_order(), (ids{2}));
        EXPECT_EQ(pool_count(), MEMORY_QUEUE_SIZE - 3) << "two bad sections, two records lost";
        EXPECT_NE(out.find("| history_list_mgmt:"), std::string::npos) << out;
        EXPECT_NE(out.find("| error | load_history_list_config | load failed, args is null.\n"),
                  std::string::npos)
            << out;
    }));
}

TEST(HistoryStore, UnknownTypeLoadsAsMinusOne)
{
    ASSERT_TRUE(run_in_sandbox([] {
        write_file("/etc/config/history_list",
                   section(hex_mac(1), opt("hostname", "a") + opt("type", "Toaster")) +
                       section(hex_mac(2), opt("hostname", "b") + opt("type", "unknown")));
        fresh_pool();
        load_history_list_config();
        EXPECT_EQ(node_of(1)->device_type, -1);
        EXPECT_EQ(node_of(2)->device_type, -1);
    }));
}

TEST(HistoryStore, BrandSetsTheCloudFlagOnlyForAKnownType)
{
    ASSERT_TRUE(run_in_sandbox([] {
        write_file("/etc/config/history_list",
                   section(hex_mac(1), opt("hostname", "a") + opt("type", "Other") + opt("brand", "Acme")) +
                       section(hex_mac(2), opt("hostname", "b") + opt("type", "Printer") +
                                               opt("brand", "Acme")) +
                       section(hex_mac(3), opt("hostname", "c") + opt("type", "Printer")) +
                       section(hex_mac(4), opt("hostname", "d") + opt("type", "Toaster") +
                                               opt("brand", "Acme")));
        fresh_pool();
        load_history_list_config();
        EXPECT_EQ(node_of(1)->type_cloud_set, 0);
        EXPECT_EQ(node_of(1)->type_source, 4u);
        EXPECT_EQ(node_of(2)->type_cloud_set, 1);
        EXPECT_EQ(node_of(2)->type_source, 1u);
        EXPECT_EQ(node_of(3)->type_cloud_set, 0);
        EXPECT_EQ(node_of(4)->type_cloud_set, 0);
    }));
}

TEST(HistoryStore, TooLongTextsAreRefused)
{
    ASSERT_TRUE(run_in_sandbox([] {
        std::string n64(64, 'n');
        std::string n65(65, 'n');
        write_file("/etc/config/history_list",
                   section(hex_mac(1), opt("hostname", "a") + opt("nickname", n65)) +
                       section(hex_mac(2), opt("hostname", "b") + opt("nickname", n64)) +
                       section(hex_mac(3), opt("hostname", std::string(65, 'h'))) +
                       section(hex_mac(4), opt("hostname", "d") + opt("type", std::string(33, 't'))) +
                       section(hex_mac(5), opt("hostname", std::string(64, 'h'))));
        fresh_pool();
        std::string out = capture_stdout([] { load_history_list_config(); });
        EXPECT_EQ(node_of(1), nullptr) << "a nickname of 65 characters is refused";
        ASSERT_NE(node_of(2), nullptr);
        EXPECT_EQ(std::strlen(node_of(2)->nickname), 64u);
        EXPECT_EQ(node_of(3), nullptr);
        EXPECT_EQ(node_of(4), nullptr);
        ASSERT_NE(node_of(5), nullptr);
        EXPECT_EQ(pool_count(), MEMORY_QUEUE_SIZE - 5);
        EXPECT_NE(out.find("nickname too long!"), std::string::npos) << out;
        EXPECT_NE(out.find("Hostname too long!"), std::string::npos) << out;
        EXPECT_NE(out.find("Devicetype too long!"), std::string::npos) << out;
    }));
}

TEST(HistoryStore, MissingPackageLoadsNothing)
{
    ASSERT_TRUE(run_in_sandbox([] {
        unlink("/etc/config/history_list");
        fresh_pool();
        load_history_list_config();
        EXPECT_EQ(list_count(), 0);
        EXPECT_EQ(pool_count(), MEMORY_QUEUE_SIZE);
    }));
}

TEST(HistoryStore, MoreSectionsThanRecordsEvictWhileLoading)
{
    ASSERT_TRUE(run_in_sandbox([] {
        std::string text;
        for (int id = 1; id <= MEMORY_QUEUE_SIZE + 2; id++)
            text += section(hex_mac(id), opt("hostname", "h"));
        write_file("/etc/config/history_list", text);
        fresh_pool();
        load_history_list_config();
        EXPECT_EQ(list_count(), MEMORY_QUEUE_SIZE);
        // The tail is evicted each time: the first sections of the file.
        EXPECT_EQ(node_of(1), nullptr);
        EXPECT_EQ(node_of(2), nullptr);
        EXPECT_NE(node_of(3), nullptr);
        auto macs = history_macs();
        EXPECT_EQ(macs.size(), static_cast<size_t>(MEMORY_QUEUE_SIZE));
        EXPECT_EQ(macs.front(), hex_mac(3)) << "their sections are gone";
    }));
}

TEST(HistoryStore, ReconnectionAfterTheSectionWasDeletedRecreatesIt)
{
    ASSERT_TRUE(run_in_sandbox([] {
        fresh_pool();
        entries e;
        e.add(1, "a");
        e.add(2, "b");
        ASSERT_EQ(compare_client_table(e.head()), 0);
        entries only_b;
        only_b.add(2, "b");
        ASSERT_EQ(compare_client_table(only_b.head()), 0);
        ASSERT_EQ(node_of(1)->status, STATUS_DISCONNECT);
        // Someone removes the section behind the daemon's back.
        ASSERT_EQ(uci_delete_section_by_node(node_of(1)), 1);
        ASSERT_EQ(read_history().count(hex_mac(1)), 0u);
        ASSERT_EQ(compare_client_table(e.head()), 0);
        auto s = read_history()[hex_mac(1)];
        EXPECT_EQ(s["hostname"], "a");
        EXPECT_EQ(s["first_access_time"], std::to_string(node_of(1)->first_access_time));
        EXPECT_EQ(s["access_time"], std::to_string(node_of(1)->access_time));
    }));
}

TEST(HistoryStore, UpdateCommitsTheSectionAndWritesNicknameOnlyWhenSet)
{
    ASSERT_TRUE(run_in_sandbox([] {
        client_node n{};
        test_mac(n.mac, 7);
        std::strcpy(n.hostname, "seven");
        n.device_type = 39;
        n.event_access_host = 1;
        n.first_access_time = 100;
        n.access_time = 200;
        ASSERT_EQ(uci_update_cfg_file(&n), 1);
        auto s = read_history()[hex_mac(7)];
        EXPECT_EQ(s["type"], "Router");
        EXPECT_EQ(s.count("nickname"), 0u);
        EXPECT_EQ(s["first_access_time"], "100");
        EXPECT_EQ(s["access_time"], "200");
        // The section was committed: nothing waits in the save directory.
        EXPECT_EQ(read_file("/tmp/.uci/history_list"), "");
        std::strcpy(n.nickname, "Router!");
        n.first_access_time = 300;
        n.access_time = 400;
        n.device_type = -1;
        ASSERT_EQ(uci_update_cfg_file(&n), 1);
        s = read_history()[hex_mac(7)];
        EXPECT_EQ(s["nickname"], "Router!");
        EXPECT_EQ(s["type"], "unknown");
        EXPECT_EQ(s["first_access_time"], "100") << "only for a new section";
        EXPECT_EQ(s["access_time"], "400");
        EXPECT_EQ(history_macs().size(), 1u);
    }));
}

TEST(HistoryStore, TimeWritersNeedASectionButDoNotFailWithout)
{
    ASSERT_TRUE(run_in_sandbox([] {
        client_node n{};
        test_mac(n.mac, 8);
        n.leave_time = 555;
        n.access_time = 444;
        n.clock_state = CLOCK_CORRECTED;
        EXPECT_EQ(uci_update_leave_time(&n), 1);
        EXPECT_EQ(uci_update_access_time(&n), 1);
        EXPECT_TRUE(read_history().empty());
        std::strcpy(n.hostname, "eight");
        ASSERT_EQ(uci_update_cfg_file(&n), 1);
        n.access_time = 777;
        EXPECT_EQ(uci_update_leave_time(&n), 1);
        n.clock_state = CLOCK_NOT_SET;
        EXPECT_EQ(uci_update_access_time(&n), 1);
        EXPECT_EQ(read_history()[hex_mac(8)]["access_time"], "444") << "not corrected: not written";
        n.clock_state = CLOCK_CORRECTED;
        EXPECT_EQ(uci_update_access_time(&n), 1);
        auto s = read_history()[hex_mac(8)];
        EXPECT_EQ(s["access_time"], "777");
        EXPECT_EQ(s["leave_time"], "555");
        // Without the package the writers fail with their word.
        unlink("/etc/config/history_list");
        std::string out = capture_stdout([&] { EXPECT_EQ(uci_update_leave_time(&n), 0); });
        EXPECT_NE(out.find("update leave_time error."), std::string::npos) << out;
        out = capture_stdout([&] { EXPECT_EQ(uci_update_cfg_file(&n), 0); });
        EXPECT_NE(out.find("update config error."), std::string::npos) << out;
    }));
}

TEST(HistoryStore, SetByStringFailureWords)
{
    ASSERT_TRUE(run_in_sandbox([] {
        std::string out = capture_stdout([] {
            EXPECT_EQ(uci_set_by_string(nullptr, "history_list", "x"), 0);
        });
        EXPECT_NE(out.find("| error | uci_set_by_string | input paras invalid.\n"), std::string::npos)
            << out;
        uci_context *ctx = uci_alloc_context();
        uci_set_confdir(ctx, "/etc/config");
        out = capture_stdout([&] {
            EXPECT_EQ(uci_set_by_string(ctx, "history_list", "history_list.a.b.c.d=1"), 0);
        });
        EXPECT_NE(out.find("uci_lookup_ptr != UCI_OK"), std::string::npos) << out;
        out = capture_stdout([&] {
            EXPECT_EQ(uci_set_by_string(ctx, "history_list", "history_list.nosuch.opt=1"), 0);
        });
        EXPECT_NE(out.find("uci_set != UCI_OK"), std::string::npos) << out;
        // A control character in a value never reaches the file.
        out = capture_stdout([&] {
            EXPECT_EQ(uci_set_by_string(ctx, "history_list", "history_list.x=list\x01"), 0);
        });
        EXPECT_NE(out.find("uci_lookup_ptr != UCI_OK"), std::string::npos) << out;
        uci_free_context(ctx);
    }));
}

TEST(HistoryStore, MacLookupSkipsSectionsWithoutMac)
{
    ASSERT_TRUE(run_in_sandbox([] {
        write_file("/etc/config/history_list",
                   "\nconfig list\n\toption hostname 'x'\n" + section(hex_mac(1), opt("hostname", "a")));
        uci_context *ctx = uci_alloc_context();
        uci_set_confdir(ctx, "/etc/config");
        uci_package *p = nullptr;
        ASSERT_EQ(uci_load(ctx, "history_list", &p), UCI_OK);
        char name[UCI_SECTION_NAME_SIZE] = {};
        std::string out = capture_stdout([&] {
            EXPECT_EQ(uci_dev_mac_in_cfg_file(ctx, "history_list", hex_mac(1).c_str(), name), 1);
        });
        EXPECT_STREQ(name, "cfg021661");
        EXPECT_NE(out.find("MAC is NULL"), std::string::npos) << out;
        EXPECT_EQ(uci_dev_mac_in_cfg_file(ctx, "history_list", hex_mac(2).c_str(), name), 0);
        uci_free_context(ctx);
    }));
}

TEST(HistoryStore, DeleteSectionRevertsTheRecognitionStateFirst)
{
    ASSERT_TRUE(run_in_sandbox([] {
        write_file("/etc/config/fing", "\nconfig setting 'setting'\n");
        std::string mine = hex_mac(1);
        std::string other = hex_mac(2);
        write_file("/var/state/fing", "fing." + mine + "='device'\nfing." + mine +
                                          ".mdns_name='tv'\nfing." + other + "='device'\n");
        client_node n{};
        test_mac(n.mac, 1);
        EXPECT_EQ(uci_delete_section_by_node(&n), 0) << "no section to delete";
        EXPECT_EQ(read_file("/var/state/fing"), "fing." + other + "='device'\n");
        std::strcpy(n.hostname, "a");
        ASSERT_EQ(uci_update_cfg_file(&n), 1);
        EXPECT_EQ(uci_delete_section_by_node(&n), 1);
        EXPECT_TRUE(read_history().empty());
    }));
}

TEST(HistoryStore, CleanAndSaveRewriteTheFileFromTheList)
{
    ASSERT_TRUE(run_in_sandbox([] {
        fresh_pool();
        entries e;
        e.add(1, "a");
        e.add(2, "b", 1);
        ASSERT_EQ(compare_client_table(e.head()), 0);
        std::strcpy(node_of(1)->nickname, "nick");
        for (int id = 3; id <= 5; id++) {
            client_node n{};
            test_mac(n.mac, id);
            ASSERT_EQ(uci_update_cfg_file(&n), 1);
        }
        ASSERT_EQ(history_macs().size(), 5u);
        EXPECT_EQ(save_history_list(), 1);
        auto macs = history_macs();
        EXPECT_EQ(macs, (std::vector<std::string>{hex_mac(2), hex_mac(1)})) << "list order";
        auto s = read_history()[hex_mac(1)];
        EXPECT_EQ(s["nickname"], "nick");
        EXPECT_EQ(s["hostname"], "a");
        EXPECT_EQ(s["type"], "unknown");
        EXPECT_EQ(s["access_host"], "1");
        EXPECT_EQ(s.count("access_time"), 0u) << "the rewrite loses the times";
        EXPECT_EQ(read_history()[hex_mac(2)].count("nickname"), 0u);
        EXPECT_EQ(read_history()[hex_mac(2)]["access_host"], "0");
        EXPECT_EQ(clean_config_file(), 1);
        EXPECT_TRUE(history_macs().empty());
        EXPECT_EQ(clean_config_file(), 1) << "an empty package is no failure";
    }));
}

TEST(HistoryStore, UserSetWritesTypeAndNicknameThenSavesToFlash)
{
    ASSERT_TRUE(run_in_sandbox([] {
        client_node n{};
        test_mac(n.mac, 1);
        std::strcpy(n.hostname, "a");
        ASSERT_EQ(uci_update_cfg_file(&n), 1);
        EXPECT_EQ(save_user_set_to_flash(n.mac, 27, "Office printer"), 1);
        auto s = read_history()[hex_mac(1)];
        EXPECT_EQ(s["type"], "Printer");
        EXPECT_EQ(s["nickname"], "Office printer");
        EXPECT_EQ(read_file("/tmp/lua.calls"), "-e\nrequire(\"luci.sys.config\").saveconfig()\n");
        EXPECT_EQ(save_user_set_to_flash(n.mac, -1, ""), 1);
        EXPECT_EQ(read_history()[hex_mac(1)]["type"], "Printer");
        // A nickname full of shell syntax is just text.
        EXPECT_EQ(save_user_set_to_flash(n.mac, -1, "$(touch /tmp/pwned)'\";"), 1);
        EXPECT_EQ(read_history()[hex_mac(1)]["nickname"], "$(touch /tmp/pwned)'\";");
        EXPECT_FALSE(file_exists("/tmp/pwned"));
    }));
}

TEST(HistoryStore, RecognitionResultUpdatesRecordAndSection)
{
    ASSERT_TRUE(run_in_sandbox([] {
        fresh_pool();
        entries e;
        e.add(1, "a");
        ASSERT_EQ(compare_client_table(e.head()), 0);
        client_node result{};
        test_mac(result.mac, 1);
        result.device_type = 45;
        EXPECT_EQ(write_to_history_list(&result, "Acme", "1.2", 1), 0);
        client_node *n = node_of(1);
        EXPECT_EQ(n->device_type, 45);
        EXPECT_EQ(n->type_cloud_set, 1);
        EXPECT_EQ(n->type_source, 1u);
        auto s = read_history()[hex_mac(1)];
        EXPECT_EQ(s["type"], "IP Camera");
        EXPECT_EQ(s["brand"], "Acme");
        EXPECT_EQ(s["systemVersion"], "1.2");
        EXPECT_EQ(s["http_upload"], "1");
        // A user's type wins over the service, and "Other" is not known.
        n->type_user_set = 1;
        result.device_type = 9;
        write_to_history_list(&result, "B", "2", 0);
        EXPECT_EQ(n->device_type, 45);
        EXPECT_EQ(read_history()[hex_mac(1)]["type"], "Television");
        result.device_type = 7;
        write_to_history_list(&result, "C", "3", 0);
        EXPECT_EQ(read_history()[hex_mac(1)]["type"], "Television");
        EXPECT_EQ(read_history()[hex_mac(1)]["brand"], "C");
        test_mac(result.mac, 9);
        EXPECT_EQ(write_to_history_list(&result, "C", "3", 0), 0);
    }));
}

TEST(HistoryStore, CrontabWithSaveconfigIsLeftAlone)
{
    ASSERT_TRUE(run_in_sandbox([] {
        std::string crontab = "0 * * * * something\n30 1 * * * lua -e 'saveconfig()'\n";
        write_file("/etc/crontabs/root", crontab);
        ensure_crontab_line();
        EXPECT_EQ(read_file("/etc/crontabs/root"), crontab);
        EXPECT_FALSE(file_exists("/tmp/cron.calls"));
    }));
}

// The cron script is started in the background; it writes into a FIFO, so
// the test waits for its call without guessing a time.
std::string wait_for_cron_call()
{
    int fd = open("/tmp/cron.fifo", O_RDONLY);
    std::string got;
    char buf[64];
    ssize_t n;
    while (fd >= 0 && (n = read(fd, buf, sizeof(buf))) > 0)
        got.append(buf, static_cast<size_t>(n));
    if (fd >= 0)
        close(fd);
    return got;
}

TEST(HistoryStore, MissingCrontabGetsTheLineAndCronIsRestarted)
{
    ASSERT_TRUE(run_in_sandbox([] {
        mkfifo("/tmp/cron.fifo", 0600);
        write_file("/etc/init.d/cron", "#!/bin/sh\necho \"$*\" > /tmp/cron.fifo\n", 0755);
        ensure_crontab_line();
        EXPECT_EQ(wait_for_cron_call(), "restart\n");
        EXPECT_EQ(read_file("/etc/crontabs/root"),
                  "55 2 * * * lua -e 'require(\"luci.sys.config\").saveconfig()' \n");
        // Once is enough.
        ensure_crontab_line();
        EXPECT_EQ(read_file("/etc/crontabs/root"),
                  "55 2 * * * lua -e 'require(\"luci.sys.config\").saveconfig()' \n");
    }));
}

TEST(HistoryStore, CrontabWithoutTheLineGetsItAppended)
{
    ASSERT_TRUE(run_in_sandbox([] {
        mkfifo("/tmp/cron.fifo", 0600);
        write_file("/etc/init.d/cron", "#!/bin/sh\necho \"$*\" > /tmp/cron.fifo\n", 0755);
        write_file("/etc/crontabs/root", "0 * * * * other\n");
        ensure_crontab_line();
        EXPECT_EQ(wait_for_cron_call(), "restart\n");
        EXPECT_EQ(read_file("/etc/crontabs/root"),
                  "0 * * * * other\n55 2 * * * lua -e 'require(\"luci.sys.config\").saveconfig()' \n");
    }));
}

TEST(HistoryStore, CreateMemoryQueueLoadsAndEnsuresTheCrontab)
{
    ASSERT_TRUE(run_in_sandbox([] {
        mkfifo("/tmp/cron.fifo", 0600);
        write_file("/etc/init.d/cron", "#!/bin/sh\necho \"$*\" > /tmp/cron.fifo\n", 0755);
        write_file("/etc/config/history_list", section(hex_mac(1), opt("hostname", "a")));
        client_pool = nullptr;
        set_history_list(nullptr);
        EXPECT_EQ(create_memory_queue(), 1);
        EXPECT_EQ(list_order(), (ids{1}));
        EXPECT_EQ(pool_count(), MEMORY_QUEUE_SIZE - 1);
        EXPECT_EQ(wait_for_cron_call(), "restart\n");
    }));
}

}  // namespace
