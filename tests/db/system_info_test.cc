// The capability snapshot, read from packages in a private mount namespace
// the way a device has them: "/etc/config" and the factory profile in
// "/etc/profile.d"; "boardprobe" is a script on PATH.
#include <cerrno>
#include <csignal>
#include <cstring>
#include <gtest/gtest.h>
#include <sched.h>
#include <sys/stat.h>
#include <unistd.h>

#include "tests/sandbox/sandbox.h"
#include "core/log.h"
#include "db/system_info.h"
#include "registry_test_util.h"
#include "scan/topology.h"

using namespace regtest;

namespace
{

void fresh_snapshot()
{
    system_info = {};
    is_mesh_agent = true;
    main_device_mac[0] = main_device_id[0] = self_mac[0] = '\0';
    mkdir("/etc/profile.d", 0755);
}

void sysmode(const char *mode)
{
    write_file("/etc/config/sysmode",
               std::string("config sysmode 'sysmode'\n\toption mode '") + mode + "'\n");
}

void meshd(const char *role)
{
    write_file("/etc/config/meshd", std::string("config meshd 'meshd'\n\toption role '") + role + "'\n");
}

// What a device ships with: access control and a profile.
void device_packages()
{
    write_file("/etc/config/access_control",
               "config settings 'settings'\n\toption enable 'on'\n\toption access_mode 'black'\n");
    write_file("/etc/profile.d/profile", "config qos\n\toption qos_schedule_support 'yes'\n");
}

void boardprobe(const std::string &body)
{
    write_file("/tmp/bin/boardprobe", "#!/bin/sh\necho \"$@\" >> /tmp/boardprobe.calls\n" + body, 0755);
}

TEST(SystemInfo, SysModeWordsAndBridgeCountsAsRouter)
{
    ASSERT_TRUE(run_in_sandbox([] {
        fresh_snapshot();
        const std::pair<const char *, int> cases[] = {
            {"ap", SYS_MODE_AP},         {"repeater", SYS_MODE_REPEATER},
            {"client", SYS_MODE_CLIENT}, {"router", SYS_MODE_ROUTER},
            {"ap", SYS_MODE_AP},         {"bridge", SYS_MODE_ROUTER},
            {"AP", SYS_MODE_ROUTER},     {"hotspot", SYS_MODE_ROUTER}};
        for (auto [word, mode] : cases) {
            system_info.sys_mode = 9;
            sysmode(word);
            EXPECT_EQ(update_sysmode(nullptr), 0) << word;
            EXPECT_EQ(system_info.sys_mode, mode) << word;
        }
    }));
}

TEST(SystemInfo, SysModeWithoutOptionOrPackageStays)
{
    ASSERT_TRUE(run_in_sandbox([] {
        fresh_snapshot();
        system_info.sys_mode = SYS_MODE_REPEATER;
        EXPECT_EQ(update_sysmode(nullptr), -1); // no package
        EXPECT_EQ(system_info.sys_mode, SYS_MODE_REPEATER);
        write_file("/etc/config/sysmode", "config sysmode 'sysmode'\n\toption other 'x'\n");
        EXPECT_EQ(update_sysmode(nullptr), -1);
        EXPECT_EQ(system_info.sys_mode, SYS_MODE_REPEATER);
        write_file("/etc/config/sysmode", "config sysmode 'sysmode'\n\tlist mode 'ap'\n");
        EXPECT_EQ(update_sysmode(nullptr), -1); // a list is no text
        EXPECT_EQ(system_info.sys_mode, SYS_MODE_REPEATER);
    }));
}

TEST(SystemInfo, OnlyControllerIsNoMeshAgent)
{
    ASSERT_TRUE(run_in_sandbox([] {
        fresh_snapshot();
        EXPECT_EQ(update_mesh_role(nullptr), -1); // no package: stays true
        EXPECT_TRUE(is_mesh_agent);
        meshd("controller");
        EXPECT_EQ(update_mesh_role(nullptr), 0);
        EXPECT_FALSE(is_mesh_agent);
        meshd("agent");
        EXPECT_EQ(update_mesh_role(nullptr), 0);
        EXPECT_TRUE(is_mesh_agent);
        meshd("controller");
        update_mesh_role(nullptr);
        meshd("satellite");
        EXPECT_EQ(update_mesh_role(nullptr), 0);
        EXPECT_TRUE(is_mesh_agent);
        meshd("controller");
        update_mesh_role(nullptr);
        write_file("/etc/config/meshd", "config meshd 'meshd'\n\toption enable 'on'\n");
        EXPECT_EQ(update_mesh_role(nullptr), -1); // no role: the flag stays
        EXPECT_FALSE(is_mesh_agent);
    }));
}

TEST(SystemInfo, WanTypeWordsAndMissingSectionKeepsTheLastValue)
{
    ASSERT_TRUE(run_in_sandbox([] {
        fresh_snapshot();
        auto wan = [](const char *type) {
            write_file("/etc/config/network",
                       std::string("config interface 'wan'\n\toption wan_type '") + type + "'\n");
        };
        wan("v6plus");
        EXPECT_EQ(update_wan_type(nullptr), 0);
        EXPECT_EQ(system_info.wan_type, 1);
        wan("dslite");
        EXPECT_EQ(update_wan_type(nullptr), 0);
        EXPECT_EQ(system_info.wan_type, 2);
        write_file("/etc/config/network", "config interface 'lan'\n\toption proto 'static'\n");
        EXPECT_EQ(update_wan_type(nullptr), 0);
        EXPECT_EQ(system_info.wan_type, 2);
        wan("pppoe");
        EXPECT_EQ(update_wan_type(nullptr), 0);
        EXPECT_EQ(system_info.wan_type, 0);
        wan("dslite");
        update_wan_type(nullptr);
        write_file("/etc/config/network", "config interface 'wan'\n\toption proto 'dhcp'\n");
        EXPECT_EQ(update_wan_type(nullptr), 0); // no option: other
        EXPECT_EQ(system_info.wan_type, 0);
    }));
}

TEST(SystemInfo, SwitchesMissingOptionIsOffFailedLoadKeeps)
{
    ASSERT_TRUE(run_in_sandbox([] {
        fresh_snapshot();
        write_file("/etc/config/qos_v2", "config settings 'settings'\n\toption enable 'on'\n");
        write_file("/etc/config/tfstats",
                   "config switch 'switch'\n\toption enable 'on'\n\toption workaround 'on'\n");
        EXPECT_EQ(update_qos_switch(nullptr), 0);
        EXPECT_EQ(update_tfstats_switch(nullptr), 0);
        EXPECT_EQ(system_info.qos_enable, 1);
        EXPECT_EQ(system_info.support_tfstats, 1);
        EXPECT_EQ(system_info.support_tfstats_workaround, 1);
        write_file("/etc/config/tfstats", "config switch 'switch'\n\toption enable 'yes'\n");
        EXPECT_EQ(update_tfstats_switch(nullptr), 0);
        EXPECT_EQ(system_info.support_tfstats, 0);
        EXPECT_EQ(system_info.support_tfstats_workaround, 0);
        unlink("/etc/config/qos_v2");
        std::string out = capture_stdout([] { EXPECT_EQ(update_qos_switch(nullptr), -1); });
        EXPECT_EQ(system_info.qos_enable, 1);
        write_file("/etc/config/qos_v2", "config settings 'settings'\n");
        EXPECT_EQ(update_qos_switch(nullptr), 0);
        EXPECT_EQ(system_info.qos_enable, 0);
    }));
}

TEST(SystemInfo, ProfileFlagsAreSetOnlyByYes)
{
    ASSERT_TRUE(run_in_sandbox([] {
        fresh_snapshot();
        write_file("/etc/profile.d/profile",
                   "config isHighBandwidthOccupancy\n\toption isHighBandwidthOccupancy 'yes'\n"
                   "config client_speed_limit\n\toption support 'yes'\n"
                   "config qos\n\toption qos_schedule_support 'yes'\n"
                   "config weavelink\n\toption easymesh_support 'yes'\n\toption weavelink_support 'yes'\n"
                   "config wireless\n\toption support_mlo_host 'yes'\n"
                   "config qos_v2\n\toption gaming_lan_support 'yes'\n");
        EXPECT_EQ(get_profile_support(), 0);
        EXPECT_EQ(system_info.support_high_bandwidth_occupancy, 1);
        EXPECT_EQ(system_info.support_client_speed_limit, 1);
        EXPECT_EQ(system_info.support_qos_schedule, 1);
        EXPECT_EQ(system_info.support_easymesh, 1);
        EXPECT_EQ(system_info.support_weavelink, 1);
        EXPECT_EQ(system_info.support_mlo, 1);
        EXPECT_EQ(system_info.support_gaming_lan, 1);
    }));
}

TEST(SystemInfo, ProfileWithoutTheSixTypesSetsNothing)
{
    ASSERT_TRUE(run_in_sandbox([] {
        fresh_snapshot();
        // Names instead of types, an unknown type, "no" and other words.
        write_file("/etc/profile.d/profile", "config other 'qos'\n\toption qos_schedule_support 'yes'\n"
                                             "config factory\n\toption support 'yes'\n"
                                             "config qos\n\toption qos_schedule_support 'no'\n"
                                             "config wireless\n\toption support_mlo_host 'YES'\n"
                                             "config qos_v2\n\tlist gaming_lan_support 'yes'\n");
        EXPECT_EQ(get_profile_support(), 0);
        struct system_info zero = {};
        EXPECT_EQ(std::memcmp(&system_info, &zero, sizeof(zero)), 0);
        write_file("/etc/profile.d/profile", "");
        EXPECT_EQ(get_profile_support(), 0);
        EXPECT_EQ(std::memcmp(&system_info, &zero, sizeof(zero)), 0);
    }));
}

TEST(SystemInfo, WeavelinkGivesBothFlagsInAnyOrderOthersStopAtTheFirstOption)
{
    ASSERT_TRUE(run_in_sandbox([] {
        fresh_snapshot();
        write_file("/etc/profile.d/profile",
                   "config weavelink\n\toption weavelink_support 'yes'\n\toption easymesh_support 'yes'\n"
                   "config qos\n\toption qos_schedule_support 'no'\n"
                   "config qos\n\toption qos_schedule_support 'yes'\n");
        EXPECT_EQ(get_profile_support(), 0);
        EXPECT_EQ(system_info.support_easymesh, 1);
        EXPECT_EQ(system_info.support_weavelink, 1);
        // A later section of the same type still counts: flags only go up.
        EXPECT_EQ(system_info.support_qos_schedule, 1);
    }));
}

TEST(SystemInfo, MissingOrUnreadableProfileFailsTheSnapshot)
{
    ASSERT_TRUE(run_in_sandbox([] {
        fresh_snapshot();
        device_packages();
        EXPECT_EQ(get_system_info(), 0);
        unlink("/etc/profile.d/profile");
        EXPECT_EQ(get_profile_support(), -1);
        EXPECT_EQ(get_system_info(), -1);
        write_file("/etc/profile.d/profile", "config qos\n\toption 'unterminated\n");
        EXPECT_EQ(get_system_info(), -1);
        write_file("/etc/profile.d/profile", "config qos\n", 0000);
        if (geteuid() != 0) {
            EXPECT_EQ(get_system_info(), -1);
        }
    }));
}

TEST(SystemInfo, AccessControlIsNeededAndMissingOptionsReadAsOff)
{
    ASSERT_TRUE(run_in_sandbox([] {
        fresh_snapshot();
        device_packages();
        unlink("/etc/config/access_control");
        EXPECT_EQ(get_system_info(), -1);
        write_file("/etc/config/access_control", "config settings 'settings'\n");
        system_info.access_enable = 1;
        EXPECT_EQ(get_access_control(), 0);
        EXPECT_EQ(system_info.access_enable, 0);
        EXPECT_EQ(system_info.access_mode_black, 0);
        write_file("/etc/config/access_control",
                   "config settings 'settings'\n\toption enable 'on'\n\toption access_mode 'white'\n");
        EXPECT_EQ(get_access_control(), 0);
        EXPECT_EQ(system_info.access_enable, 1);
        EXPECT_EQ(system_info.access_mode_black, 0);
    }));
}

TEST(SystemInfo, SnapshotReadsEveryPackageInOrder)
{
    ASSERT_TRUE(run_in_sandbox([] {
        fresh_snapshot();
        device_packages();
        sysmode("repeater");
        meshd("agent");
        write_file("/etc/config/network", "config interface 'wan'\n\toption wan_type 'v6plus'\n");
        boardprobe("case \"$1\" in MAC) echo 02-AA-BB-CC-DD-EE;; DEV_ID) echo DEV123;; esac\n");
        EXPECT_EQ(get_system_info(), 0);
        EXPECT_EQ(system_info.sys_mode, SYS_MODE_REPEATER);
        EXPECT_TRUE(is_mesh_agent);
        EXPECT_EQ(system_info.wan_type, 1);
        EXPECT_EQ(system_info.access_enable, 1);
        EXPECT_EQ(system_info.access_mode_black, 1);
        EXPECT_EQ(system_info.support_qos_schedule, 1);
        EXPECT_STREQ(main_device_mac, "02-AA-BB-CC-DD-EE");
        EXPECT_STREQ(main_device_id, "DEV123");
        // Each with its one word as the only argument: nothing else reaches it.
        EXPECT_EQ(read_file("/tmp/boardprobe.calls"), "MAC\nDEV_ID\n");
    }));
}

TEST(SystemInfo, BoardprobeSilentMissingOrFailingClearsTheTexts)
{
    ASSERT_TRUE(run_in_sandbox([] {
        fresh_snapshot();
        std::strcpy(main_device_mac, "02-00-00-00-00-01");
        std::strcpy(main_device_id, "old");
        EXPECT_EQ(get_device_identity(), 0); // no boardprobe on PATH
        EXPECT_STREQ(main_device_mac, "");
        EXPECT_STREQ(main_device_id, "");
        boardprobe("exit 3\n");
        std::strcpy(main_device_id, "old");
        EXPECT_EQ(get_device_identity(), 0);
        EXPECT_STREQ(main_device_id, "");
        boardprobe("printf '\\n'\n");
        EXPECT_EQ(get_device_identity(), 0);
        EXPECT_STREQ(main_device_mac, "");
    }));
}

TEST(SystemInfo, BoardprobeGarbageIsCutToTheFieldsAndTheFirstLine)
{
    ASSERT_TRUE(run_in_sandbox([] {
        fresh_snapshot();
        boardprobe(
            "printf 'ABCDEFGHIJKLMNOPQRSTUVWXYZ0123456789abcdefghijklmnopqrstuvwxyz!#$%%&()*\\nsecond\\n'\n");
        EXPECT_EQ(get_device_identity(), 0);
        EXPECT_STREQ(main_device_mac, "ABCDEFGHIJKLMNOPQ");
        EXPECT_EQ(std::strlen(main_device_id), sizeof(main_device_id) - 1);
        EXPECT_EQ(std::strncmp(main_device_id, "ABCDEFGHIJ", 10), 0);
        boardprobe("printf 'id-1\\r\\nmore'\n");
        EXPECT_EQ(get_device_identity(), 0);
        EXPECT_STREQ(main_device_id, "id-1");
        // Shell words in the output are text, never run.
        boardprobe("printf '$(touch /tmp/ran)`touch /tmp/ran`\\n'\n");
        EXPECT_EQ(get_device_identity(), 0);
        EXPECT_STREQ(main_device_id, "$(touch /tmp/ran)`touch /tmp/ran`");
        EXPECT_FALSE(file_exists("/tmp/ran"));
    }));
}

TEST(SystemInfo, BoardprobeFloodingOrHangingIsStoppedAndKilled)
{
    ASSERT_TRUE(run_in_sandbox([] {
        fresh_snapshot();
        // 10 MB of output: the first bytes are kept, the rest isn't waited for.
        boardprobe("echo $$ > /tmp/boardprobe.pid\nhead -c 10485760 /dev/zero | tr '\\0' 'x'\n");
        EXPECT_EQ(get_device_identity(), 0);
        EXPECT_STREQ(main_device_mac, "xxxxxxxxxxxxxxxxx");
        // Hanging without a word: start-up goes on, and the tool is gone.
        boardprobe("echo $$ > /tmp/boardprobe.pid\nexec sleep 600\n");
        EXPECT_EQ(get_device_identity(), 0);
        EXPECT_STREQ(main_device_mac, "");
        pid_t pid = std::atoi(read_file("/tmp/boardprobe.pid").c_str());
        ASSERT_GT(pid, 0);
        EXPECT_EQ(kill(pid, 0), -1);
        EXPECT_EQ(errno, ESRCH);
        // Hanging after its answer: the answer counts.
        boardprobe("echo 02-AA-00-00-00-09\necho $$ > /tmp/boardprobe.pid\nexec sleep 600\n");
        EXPECT_EQ(get_device_identity(), 0);
        EXPECT_STREQ(main_device_mac, "02-AA-00-00-00-09");
    }));
}

TEST(SystemInfo, SelfMacIsTheBridgeAddress)
{
    ASSERT_TRUE(run_in_sandbox([] {
        fresh_snapshot();
        ASSERT_EQ(unshare(CLONE_NEWNET), 0);
        char text[13] = "unchanged";
        EXPECT_EQ(get_if_mac_text("br-lan", text), -1);
        EXPECT_STREQ(text, "unchanged");
        EXPECT_EQ(get_device_identity(), 0);
        EXPECT_STREQ(self_mac, "");
        ASSERT_EQ(system("ip link add br-lan type bridge && ip link set br-lan address 02:1a:2b:3c:4d:5e"),
                  0);
        EXPECT_EQ(get_device_identity(), 0);
        EXPECT_STREQ(self_mac, "021A2B3C4D5E");
    }));
}

TEST(SystemInfo, PrintsTheSnapshotInItsOrderAtLevel7)
{
    ASSERT_TRUE(run_in_sandbox([] {
        fresh_snapshot();
        device_packages();
        sysmode("ap");
        boardprobe("case \"$1\" in MAC) echo 02-AA-BB-CC-DD-EE;; DEV_ID) echo DEV123;; esac\n");
        // Each console line is written on its own (as echo > /dev/console
        // does): a FIFO keeps them all.
        sandbox::console console(sandbox::console::fifo);
        ASSERT_TRUE(console.ok());
        log_level = 7;
        EXPECT_EQ(get_system_info(), 0);
        log_level = 2;
        std::string text = console.text();
        const char *in_order[] = {"[lr] get_system_info\n",
                                  "access_enable: 1\n",
                                  "access_mode_black: 1\n",
                                  "qos_enable: 0\n",
                                  "support_tfstats: 0\n",
                                  "support_tfstats_workaround: 0\n",
                                  "support_high_bandwidth_occupancy: 0\n",
                                  "support_client_speed_limit: 0\n",
                                  "support_qos_schedule: 1\n",
                                  "support_easymesh: 0\n",
                                  "support_weavelink: 0\n",
                                  "support_mlo: 0\n",
                                  "support_gaming_lan: 0\n",
                                  "main_device_mac: 02-AA-BB-CC-DD-EE\n",
                                  "main_device_id: DEV123\n",
                                  "self_mac: "};
        size_t at = 0;
        for (const char *want : in_order) {
            size_t found = text.find(want, at);
            EXPECT_NE(found, std::string::npos) << want << "\n" << text;
            if (found != std::string::npos)
                at = found;
        }
        // At the default level nothing of it shows.
        EXPECT_EQ(get_system_info(), 0);
        EXPECT_EQ(console.text(), text);
    }));
}

TEST(SysModeText, CopiesTheWordBounded)
{
    ASSERT_TRUE(run_in_sandbox([] {
        read_sysmode(); // no package: stays empty
        EXPECT_STREQ(sys_mode_text, "");
        sysmode("hotspot");
        read_sysmode();
        EXPECT_STREQ(sys_mode_text, "hotspot");
        EXPECT_TRUE(sys_mode_is_node() == false);
        sysmode("a-mode-of-more-than-sixteen-characters");
        read_sysmode();
        EXPECT_STREQ(sys_mode_text, "a-mode-of-more-");
        sysmode("repeater");
        read_sysmode();
        EXPECT_TRUE(sys_mode_is_node());
    }));
}

} // namespace
