// The traffic readers through real `ubus call` output: a private ubusd on the
// daemon's socket path, the lab's ubus_answer publishing "tfstats" and
// "meshd" with the answers of each test (root: private "/var", "/etc",
// "/tmp").
#include <gtest/gtest.h>

#include <csignal>
#include <cstdlib>
#include <cstring>
#include <string>
#include <sys/mount.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>
#include <vector>

#include "../support/bus_daemon.h"
#include "db/traffic.h"
#include "registry/run_command.h"
#include "registry_test_util.h"

using regtest::write_file;

namespace
{

const char socket_path[] = "/var/run/ubus.sock";

// ubusd on the default socket and one ubus_answer per object, for the
// life of the object.
class services
{
  public:
    services()
    {
        mkdir("/var/run", 0755);
        std::string bin = LR_UBUS_BIN;
        std::string path =
            bin.substr(0, bin.rfind('/')) + ":" + (getenv("PATH") ? getenv("PATH") : "/usr/bin:/bin");
        setenv("PATH", path.c_str(), 1);
        ubusd_ = lr_test::start_ubusd(socket_path, true);
        EXPECT_GT(ubusd_, 0);
    }
    ~services()
    {
        for (pid_t p : pids_) {
            kill(p, SIGTERM);
            waitpid(p, nullptr, 0);
        }
        if (ubusd_ > 0) {
            kill(ubusd_, SIGTERM);
            waitpid(ubusd_, nullptr, 0);
        }
    }
    services(const services &) = delete;
    services &operator=(const services &) = delete;

    // Publishes `object` with METHOD=ANSWER arguments and waits until
    // `ubus list` shows it.
    void publish(const std::string &object, const std::vector<std::string> &methods)
    {
        std::vector<std::string> args = {LANROSTER_UBUS_ANSWER, "-s", socket_path, object};
        args.insert(args.end(), methods.begin(), methods.end());
        pid_t pid = fork();
        if (pid == 0) {
            std::vector<char *> argv;
            for (auto &a : args)
                argv.push_back(a.data());
            argv.push_back(nullptr);
            execv(argv[0], argv.data());
            _exit(127);
        }
        pids_.push_back(pid);
        for (int i = 0; i < 500; i++) {
            const char *argv[] = {"ubus", "list", object.c_str(), nullptr};
            char out[256];
            if (run_command_capture(argv, out, sizeof(out), 2000) > 0)
                return;
            usleep(10000);
        }
        ADD_FAILURE() << object << " did not appear on the bus";
    }

  private:
    pid_t ubusd_ = -1;
    std::vector<pid_t> pids_;
};

const char tfstats_answer[] =
    R"({"total":2,"tfslist":[{"mac":"02:00:00:00:00:01","total_byte":1000,"retx_byte":10,"rerx_byte":20},)"
    R"({"mac":"02-00-00-00-00-02","total_byte":2000,"retx_byte":30,"rerx_byte":40}]})";

} // namespace

TEST(Traffic, TfstatsRowsFromTheService)
{
    EXPECT_TRUE(regtest::run_in_sandbox([] {
        services s;
        s.publish("tfstats", {std::string("get=") + tfstats_answer});
        tfstats_entry *rows = nullptr;
        int n = 0;
        ASSERT_EQ(ubus_get_tfstats(&rows, &n), 0);
        ASSERT_EQ(n, 2);
        EXPECT_EQ(rows[0].mac[5], 1);
        EXPECT_EQ(rows[0].total_byte, 1000);
        EXPECT_EQ(rows[1].retx_byte, 30);
        EXPECT_EQ(rows[1].rerx_byte, 40);
        std::free(rows);
    }));
}

TEST(Traffic, AbsentServiceFailsTheReader)
{
    EXPECT_TRUE(regtest::run_in_sandbox([] {
        services s;
        tfstats_entry *rows = nullptr;
        int n = 5;
        EXPECT_EQ(ubus_get_tfstats(&rows, &n), -1);
        EXPECT_EQ(rows, nullptr);
        EXPECT_EQ(n, 0);
        uint8_t *macs = nullptr;
        EXPECT_EQ(ubus_get_mesh_agent(&macs, &n), -1);
        EXPECT_EQ(tfstats_seg_over_limit("192.168.0.205", "minute"), 0);
    }));
}

TEST(Traffic, WorkaroundArraysAndTheEmptyWiredOne)
{
    EXPECT_TRUE(regtest::run_in_sandbox([] {
        services s;
        write_file("/tmp/lan.json", R"({"total":0,"tfslist":[]})");
        s.publish(
            "tfstats",
            {R"(get_wlan={"total":1,"tfslist":[{"mac":"02:00:00:00:00:03","upload_bytes":5,"download_bytes":6}]})",
             "get_lan=@/tmp/lan.json"});
        tfstats_entry *wlan = nullptr, *lan = nullptr;
        int wn = 0, ln = 0;
        ASSERT_EQ(ubus_get_workaround_tfstats(&wlan, &lan, &wn, &ln), 0);
        ASSERT_EQ(wn, 1);
        EXPECT_EQ(wlan[0].total_byte, 0);
        EXPECT_EQ(wlan[0].retx_byte, 5);
        EXPECT_EQ(wlan[0].rerx_byte, 6);
        EXPECT_NE(lan, nullptr) << "an answered empty wired list exists";
        EXPECT_EQ(ln, 0);
        std::free(wlan);
        std::free(lan);
        write_file("/tmp/lan.json", "not json");
        EXPECT_EQ(ubus_get_workaround_tfstats(&wlan, &lan, &wn, &ln), -1);
        EXPECT_EQ(wlan, nullptr);
        EXPECT_EQ(lan, nullptr);
    }));
}

TEST(Traffic, HeavyUsersMissingEmptyAndListed)
{
    EXPECT_TRUE(regtest::run_in_sandbox([] {
        services s;
        write_file("/tmp/hi.json", R"({"devices":["02:00:00:00:00:07","02-00-00-00-00-08"]})");
        s.publish("tfstats", {"hi_bw_occ_get=@/tmp/hi.json"});
        uint8_t *macs = nullptr;
        int n = 0;
        ASSERT_EQ(ubus_get_hi_bw_occ_macs(&macs, &n), 0);
        ASSERT_EQ(n, 2);
        EXPECT_EQ(macs[5], 7);
        EXPECT_EQ(macs[11], 8);
        std::free(macs);
        write_file("/tmp/hi.json", R"({"devices":[]})");
        EXPECT_EQ(ubus_get_hi_bw_occ_macs(&macs, &n), 0);
        EXPECT_EQ(macs, nullptr);
        write_file("/tmp/hi.json", R"({"other":1})");
        EXPECT_EQ(ubus_get_hi_bw_occ_macs(&macs, &n), 0);
        EXPECT_EQ(macs, nullptr);
    }));
}

TEST(Traffic, MeshAgentsCountZeroRadioMacsOut)
{
    EXPECT_TRUE(regtest::run_in_sandbox([] {
        services s;
        s.publish(
            "meshd",
            {R"(mesh_dev_list={"mesh_dev_list":[{"device":{"mac":"00-00-00-00-00-00",)"
             R"("mac_5g":"00-00-00-00-00-00","mac_24g":"02-00-00-00-00-24"}},)"
             R"({"device":{"mac":"02-00-00-00-00-01","mac_6g":"02-00-00-00-00-06"}},{"nodevice":1}]})"});
        uint8_t *macs = nullptr;
        int n = 0;
        ASSERT_EQ(ubus_get_mesh_agent(&macs, &n), 0);
        ASSERT_EQ(n, 4);
        EXPECT_EQ(macs[5], 0); // a `mac` of zeros still counts
        EXPECT_EQ(macs[11], 0x24);
        EXPECT_EQ(macs[17], 1);
        EXPECT_EQ(macs[23], 6);
        std::free(macs);
    }));
}

TEST(Traffic, SegmentLimitIsStrictlyAbove)
{
    EXPECT_TRUE(regtest::run_in_sandbox([] {
        services s;
        write_file("/tmp/seg.json", R"({"data":[{"ups":52428000,"downs":800}]})");
        s.publish("tfstats", {"seg_get=@/tmp/seg.json"});
        EXPECT_EQ(tfstats_seg_over_limit("192.168.0.205", "minute"), 0);
        write_file("/tmp/seg.json", R"({"data":[{"ups":52428000,"downs":801}]})");
        EXPECT_EQ(tfstats_seg_over_limit("192.168.0.205", "minute"), 1);
        write_file("/tmp/seg.json", R"({"data":[{"ups":99999999}]})");
        EXPECT_EQ(tfstats_seg_over_limit("192.168.0.205", "minute"), 0);
    }));
}

TEST(Traffic, HangingServiceIsCutOff)
{
    EXPECT_TRUE(regtest::run_in_sandbox([] {
        services s;
        s.publish("tfstats", {"get=hang"});
        tfstats_entry *rows = nullptr;
        int n = 0;
        time_t start = time(nullptr);
        EXPECT_EQ(ubus_get_tfstats(&rows, &n), -1);
        EXPECT_LE(time(nullptr) - start, UBUS_CALL_TIMEOUT_MS / 1000 + 2);
    }));
}

TEST(Traffic, ParsersTakeTotalAsTheBoundAndSurviveBadShapes)
{
    tfstats_entry *rows = nullptr;
    int n = 0;
    std::string longer = R"({"total":1,"tfslist":[{"mac":"02:00:00:00:00:01"},{"mac":"02:00:00:00:00:02"}]})";
    ASSERT_EQ(parse_tfstats(longer.data(), longer.size(), &rows, &n, false), 0);
    EXPECT_EQ(n, 1) << "a list longer than its total is cut there";
    std::free(rows);
    std::string wrong = R"({"total":"x","tfslist":{"mac":1}})";
    ASSERT_EQ(parse_tfstats(wrong.data(), wrong.size(), &rows, &n, false), 0);
    EXPECT_EQ(n, 0);
    std::free(rows);
    std::string huge = R"({"total":1e12,"tfslist":[{"mac":7,"total_byte":1e20,"retx_byte":-1e20}]})";
    ASSERT_EQ(parse_tfstats(huge.data(), huge.size(), &rows, &n, false), 0);
    EXPECT_EQ(n, 1);
    EXPECT_EQ(rows[0].total_byte, INT32_MAX);
    EXPECT_EQ(rows[0].retx_byte, INT32_MIN);
    std::free(rows);
    std::string cut(UBUS_REPLY_BUF, ' ');
    cut.replace(0, 12, R"({"total":1,)");
    EXPECT_EQ(parse_tfstats(cut.data(), cut.size(), &rows, &n, false), -1);
}

TEST(Traffic, NoGamingSectionLeavesTheBridgeAlone)
{
    EXPECT_TRUE(regtest::run_in_sandbox([] {
        write_file("/etc/config/switch", "config port 'lan4'\n\toption ifname 'eth0.4'\n");
        uint8_t *macs = nullptr;
        int n = 0;
        EXPECT_EQ(get_gaming_lan_macs(&macs, &n), -1);
        char name[16];
        EXPECT_EQ(get_gaming_port_name(name, sizeof(name)), -1);
        write_file(
            "/etc/config/switch",
            "config gaming 'gaming'\n\toption switch_port 'lan4'\n\nconfig port 'lan4'\n\toption ifname "
            "'eth0.4'\n");
        EXPECT_EQ(get_gaming_port_name(name, sizeof(name)), 0);
        EXPECT_STREQ(name, "eth0.4");
        EXPECT_EQ(get_gaming_port_name(nullptr, 0), -1);
    }));
}

TEST(Traffic, MeshAccessTimesFromTheFile)
{
    EXPECT_TRUE(regtest::run_in_sandbox([] {
        mesh_access_entry *rows = nullptr;
        int n = 3;
        EXPECT_EQ(get_mesh_access(&rows, &n), -1);
        write_file("/tmp/client_list.json", "[]");
        EXPECT_EQ(get_mesh_access(&rows, &n), 0);
        EXPECT_EQ(rows, nullptr);
        EXPECT_EQ(n, 0);
        write_file(
            "/tmp/client_list.json",
            R"([{"mac":"02:00:00:00:00:01","access_time":1700000000,"access_uptime":55},{"mac":"x"}])");
        ASSERT_EQ(get_mesh_access(&rows, &n), 0);
        ASSERT_EQ(n, 2);
        EXPECT_EQ(rows[0].mac[5], 1);
        EXPECT_EQ(rows[0].access_time, 1700000000);
        EXPECT_EQ(rows[0].access_uptime, 55);
        EXPECT_EQ(rows[1].access_time, 0);
        std::free(rows);
        write_file("/tmp/client_list.json", "{}");
        EXPECT_EQ(get_mesh_access(&rows, &n), -1);
    }));
}

// The bridge files in a sysfs-free view of the test's private mount
// namespace: 300 forwarding records, every third on port 4.
TEST(Traffic, GamingPortClientsFromTheFirst256Records)
{
    EXPECT_TRUE(regtest::run_in_sandbox([] {
        ASSERT_EQ(mount("none", "/sys", "tmpfs", 0, "mode=0755"), 0);
        ASSERT_EQ(system("mkdir -p /sys/class/net/br-lan /sys/class/net/eth0.4/brport"), 0);
        write_file("/sys/class/net/eth0.4/brport/port_no", "0x4\n");
        write_file("/etc/config/switch", "config gaming 'gaming'\n\toption switch_port 'lan4'\n\nconfig port "
                                         "'lan4'\n\toption ifname 'eth0.4'\n");
        std::string records;
        for (int i = 0; i < 300; i++) {
            br_fdb_record r{};
            r.mac[0] = 0x02;
            r.mac[4] = static_cast<uint8_t>(i >> 8);
            r.mac[5] = static_cast<uint8_t>(i);
            r.port_no = i % 3 == 0 ? 4 : 1;
            records.append(reinterpret_cast<const char *>(&r), sizeof(r));
        }
        write_file("/sys/class/net/br-lan/brforward", records);
        uint8_t *macs = nullptr;
        int n = 0;
        ASSERT_EQ(get_gaming_lan_macs(&macs, &n), 0);
        EXPECT_EQ(n, 86) << "records 0, 3 ... 255 of the first 256";
        EXPECT_EQ(macs[5], 0);
        EXPECT_EQ(macs[6 * 85 + 5], 255);
        std::free(macs);
        write_file("/sys/class/net/br-lan/brforward", "");
        EXPECT_EQ(get_gaming_lan_macs(&macs, &n), -1) << "no record is a failure";
    }));
}
