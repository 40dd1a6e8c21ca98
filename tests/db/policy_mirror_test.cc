// The policy mirrors: packages of the other services written in a private
// mount namespace, read into the records of a fresh pool.
#include <cstring>
#include <gtest/gtest.h>
#include <string>

#include "db/policy_mirror.h"
#include "db/system_info.h"
#include "registry/history_list_mgmt.h"
#include "registry_test_util.h"

using namespace regtest;

namespace
{

std::string mac_text(int id)
{
    uint8_t mac[6];
    test_mac(mac, id);
    char out[MAC_DASH_TEXT_SIZE];
    mac_to_dash_text(mac, out);
    return out;
}

client_node *node(int id)
{
    uint8_t mac[6];
    test_mac(mac, id);
    return find_node_by_mac(mac);
}

std::string section(const char *type, const std::string &opts)
{
    return std::string("config ") + type + "\n" + opts;
}

std::string opt(const char *name, const std::string &value)
{
    return std::string("\toption ") + name + " '" + value + "'\n";
}

void fresh()
{
    fresh_pool();
    system_info = {};
    system_info.support_qos_schedule = 1;
    for (int id = 1; id <= 3; id++) {
        client_node *n = add_node(id, STATUS_NEW_ACCESS);
        n->owner_id = -1;
        n->device_type = DEVICE_TYPE_UNKNOWN;
        n->type_source = TYPE_SOURCE_UNSET;
    }
}

void speed_limits(std::initializer_list<std::tuple<int, const char *, int, int>> rows)
{
    std::string text;
    for (auto [id, enable, up, down] : rows)
        text += section("client", opt("mac", mac_text(id)) + opt("enable", enable) +
                                      opt("up_band", std::to_string(up)) +
                                      opt("down_band", std::to_string(down)));
    write_file("/etc/config/client_speed_limit", section("settings 'settings'", opt("enable", "on")) + text);
}

void access_control(const char *enable, const char *mode, std::initializer_list<int> ids)
{
    std::string text = section("settings 'settings'", opt("enable", enable) + opt("access_mode", mode));
    for (int id : ids)
        text += section("black_list", opt("mac", mac_text(id)));
    write_file("/etc/config/access_control", text);
}

TEST(PolicyMirror, SpeedLimitsFollowTheLastSectionRule)
{
    ASSERT_TRUE(run_in_sandbox([] {
        fresh();
        speed_limits({{1, "on", 100, 200}, {2, "off", 5, 6}});
        EXPECT_EQ(update_client_speed_limit(nullptr), 0);
        EXPECT_EQ(node(1)->limit_enable, 1);
        EXPECT_EQ(node(1)->upload_limit, 100);
        EXPECT_EQ(node(1)->download_limit, 200);
        EXPECT_EQ(node(2)->limit_enable, 0);
        EXPECT_EQ(node(2)->upload_limit, 5);
        EXPECT_EQ(node(3)->upload_limit, 0);
        // All but one gone: the others are zeroed.
        speed_limits({{2, "on", 7, 8}});
        EXPECT_EQ(update_client_speed_limit(nullptr), 0);
        EXPECT_EQ(node(1)->limit_enable, 0);
        EXPECT_EQ(node(1)->upload_limit, 0);
        EXPECT_EQ(node(1)->download_limit, 0);
        EXPECT_EQ(node(2)->limit_enable, 1);
        // The last one gone: everything stays as it was.
        speed_limits({});
        EXPECT_EQ(update_client_speed_limit(nullptr), -1);
        EXPECT_EQ(node(2)->limit_enable, 1);
        EXPECT_EQ(node(2)->upload_limit, 7);
        unlink("/etc/config/client_speed_limit");
        EXPECT_EQ(update_client_speed_limit(nullptr), -1);
        EXPECT_EQ(node(2)->download_limit, 8);
    }));
}

TEST(PolicyMirror, SpeedLimitAbsentOptionsAndBadMacs)
{
    ASSERT_TRUE(run_in_sandbox([] {
        fresh();
        write_file("/etc/config/client_speed_limit",
                   section("client", opt("mac", mac_text(1))) +
                       section("client", opt("mac", mac_text(2) + "-00") + opt("up_band", "9")) +
                       section("client", opt("up_band", "x12")));
        speed_limit_row *rows = nullptr;
        int count = -1;
        ASSERT_EQ(get_client_speed_limit(&rows, &count), 0);
        ASSERT_EQ(count, 3);
        EXPECT_EQ(rows[0].enable, 0);
        EXPECT_EQ(rows[0].up_band, 0);
        EXPECT_EQ(rows[0].down_band, 0);
        const uint8_t zero[6] = {};
        EXPECT_EQ(std::memcmp(rows[1].mac, zero, 6), 0); // 20 characters: not read
        EXPECT_EQ(rows[2].up_band, 0);
        free(rows);
        EXPECT_EQ(update_client_speed_limit(nullptr), 0);
        EXPECT_EQ(node(2)->upload_limit, 0);
        EXPECT_EQ(get_client_speed_limit(nullptr, &count), -1);
    }));
}

TEST(PolicyMirror, AccessControlOffKeepsBlockedAndTheFlagFollows)
{
    ASSERT_TRUE(run_in_sandbox([] {
        fresh();
        access_control("on", "black", {1, 3});
        EXPECT_EQ(update_black_list(nullptr), 0);
        EXPECT_EQ(system_info.access_enable, 1);
        EXPECT_EQ(system_info.access_mode_black, 1);
        EXPECT_EQ(node(1)->blocked, 1);
        EXPECT_EQ(node(2)->blocked, 0);
        EXPECT_EQ(node(3)->blocked, 1);
        access_control("off", "black", {2});
        EXPECT_EQ(update_black_list(nullptr), -1);
        EXPECT_EQ(system_info.access_enable, 0);
        EXPECT_EQ(system_info.access_mode_black, 1); // keeps its old value
        EXPECT_EQ(node(1)->blocked, 1);
        EXPECT_EQ(node(2)->blocked, 0);
        access_control("on", "white", {2});
        EXPECT_EQ(update_black_list(nullptr), -1);
        EXPECT_EQ(system_info.access_enable, 1);
        EXPECT_EQ(system_info.access_mode_black, 0);
        EXPECT_EQ(node(1)->blocked, 1);
        // An empty black list that is on unblocks every client.
        access_control("on", "black", {});
        EXPECT_EQ(update_black_list(nullptr), 0);
        EXPECT_EQ(node(1)->blocked, 0);
        EXPECT_EQ(node(3)->blocked, 0);
        unlink("/etc/config/access_control");
        access_control("on", "black", {2});
        unlink("/etc/config/access_control");
        EXPECT_EQ(update_black_list(nullptr), -1);
    }));
}

TEST(PolicyMirror, ScopedUpdateTouchesOnlyItsMacs)
{
    ASSERT_TRUE(run_in_sandbox([] {
        fresh();
        access_control("on", "black", {1, 2, 3});
        uint8_t macs[1][6];
        test_mac(macs[0], 2);
        mac_list scope{macs, 1};
        {
            // The caller of a scoped update holds the write lock.
            pthread_rwlock_wrlock(&history_list_lock);
            EXPECT_EQ(update_black_list(&scope), 0);
            pthread_rwlock_unlock(&history_list_lock);
        }
        EXPECT_EQ(node(1)->blocked, 0);
        EXPECT_EQ(node(2)->blocked, 1);
        EXPECT_EQ(node(3)->blocked, 0);
        EXPECT_EQ(mac_in_list(macs[0], nullptr), 0);
        mac_list empty{macs, 0};
        EXPECT_EQ(mac_in_list(macs[0], &empty), 0);
        mac_list negative{macs, -3};
        EXPECT_EQ(mac_in_list(macs[0], &negative), 0);
        EXPECT_EQ(mac_in_list(nullptr, &scope), 0);
        EXPECT_EQ(mac_in_list(macs[0], &scope), 1);
    }));
}

std::string qos_client(int id, const std::string &more)
{
    return section("client", opt("mac", mac_text(id)) + more);
}

TEST(PolicyMirror, QosCopiesScheduleAndDefaultsTheOthers)
{
    ASSERT_TRUE(run_in_sandbox([] {
        fresh();
        node(2)->prio = 1;
        std::strcpy(node(2)->owner_name, "Ann");
        write_file("/etc/config/lanroster",
                   section("settings 'settings'", opt("log_level", "2")) +
                       qos_client(1, opt("prio", "on") + opt("prio_time", "60") + opt("time_period", "30") +
                                         opt("schedule_enable", "on") + opt("time_mode", "schedule") +
                                         opt("slots", "2200 2359") + opt("slots_next_day", "0000 0600") +
                                         opt("status", "on") + opt("repeats", "Mon Tue") +
                                         opt("owner_id", "4")));
        EXPECT_EQ(update_qos(nullptr), 0);
        client_node *n = node(1);
        EXPECT_EQ(n->prio, 1);
        EXPECT_EQ(n->prio_time, 60);
        EXPECT_EQ(n->time_period, 30);
        EXPECT_EQ(n->schedule_enable, 1);
        EXPECT_EQ(n->time_mode, 2);
        EXPECT_EQ(n->qos_status, 1);
        EXPECT_EQ(n->repeats, 6);
        const uint8_t slots[4] = {22, 0, 6, 0};
        EXPECT_EQ(std::memcmp(n->slots, slots, 4), 0);
        EXPECT_EQ(n->owner_id, 4);
        client_node *other = node(2);
        EXPECT_EQ(other->prio, 0);
        EXPECT_EQ(other->prio_time, -1);
        EXPECT_EQ(other->time_period, -1);
        EXPECT_EQ(other->owner_id, -1);
        EXPECT_EQ(other->slots[0], 0xff);
        EXPECT_STREQ(other->owner_name, "");
    }));
}

TEST(PolicyMirror, QosScheduleNeedsTheProfileFlag)
{
    ASSERT_TRUE(run_in_sandbox([] {
        fresh();
        system_info.support_qos_schedule = 0;
        write_file("/etc/config/lanroster",
                   qos_client(1, opt("prio", "on") + opt("schedule_enable", "on") +
                                     opt("time_mode", "period") + opt("slots", "0830 2215") +
                                     opt("repeats", "Sun")));
        EXPECT_EQ(update_qos(nullptr), 0);
        EXPECT_EQ(node(1)->prio, 1);
        EXPECT_EQ(node(1)->schedule_enable, 0);
        EXPECT_EQ(node(1)->repeats, 0);
        qos_row *rows = nullptr;
        int count = 0;
        ASSERT_EQ(get_qos(&rows, &count), 0);
        ASSERT_EQ(count, 1);
        EXPECT_EQ(rows[0].time_mode, 0);
        free(rows);
        // With the flag: "period" is 1.
        system_info.support_qos_schedule = 1;
        ASSERT_EQ(get_qos(&rows, &count), 0);
        EXPECT_EQ(rows[0].time_mode, 1);
        EXPECT_EQ(rows[0].slots[0], 8);
        EXPECT_EQ(rows[0].slots[1], 30);
        EXPECT_EQ(rows[0].slots[2], 22);
        EXPECT_EQ(rows[0].slots[3], 15);
        free(rows);
    }));
}

TEST(PolicyMirror, QosWithoutSectionsChangesNothing)
{
    ASSERT_TRUE(run_in_sandbox([] {
        fresh();
        node(1)->prio = 1;
        write_file("/etc/config/lanroster", section("settings 'settings'", opt("log_level", "2")));
        EXPECT_EQ(update_qos(nullptr), -1);
        EXPECT_EQ(node(1)->prio, 1);
        unlink("/etc/config/lanroster");
        EXPECT_EQ(update_qos(nullptr), -1);
        EXPECT_EQ(node(1)->prio, 1);
    }));
}

TEST(PolicyMirror, RealMacWinsInBothReadersShortRealMacDiffers)
{
    ASSERT_TRUE(run_in_sandbox([] {
        fresh();
        write_file(
            "/etc/config/lanroster",
            section("client", opt("mac", mac_text(1)) + opt("real_mac", mac_text(2)) + opt("prio", "on")) +
                section("client", opt("mac", mac_text(3)) + opt("real_mac", "02-00-00") + opt("prio", "on")));
        qos_row *q = nullptr;
        int qn = 0;
        ASSERT_EQ(get_qos(&q, &qn), 0);
        ASSERT_EQ(qn, 2);
        uint8_t two[6], three[6];
        test_mac(two, 2);
        test_mac(three, 3);
        EXPECT_EQ(std::memcmp(q[0].mac, two, 6), 0);
        EXPECT_NE(std::memcmp(q[1].mac, three, 6), 0); // mac isn't read then
        free(q);
        file_client *f = nullptr;
        int fn = 0;
        ASSERT_EQ(get_lanroster_file_clients(&f, &fn), 0);
        ASSERT_EQ(fn, 2);
        EXPECT_EQ(std::memcmp(f[0].mac, two, 6), 0);
        EXPECT_EQ(std::memcmp(f[1].mac, three, 6), 0); // keeps mac
        free(f);
        EXPECT_EQ(update_qos(nullptr), 0);
        EXPECT_EQ(node(2)->prio, 1);
        EXPECT_EQ(node(1)->prio, 0);
        EXPECT_EQ(node(3)->prio, 0);
    }));
}

TEST(PolicyMirror, UserTypeFromThePackageStandsAgainstOtherSources)
{
    ASSERT_TRUE(run_in_sandbox([] {
        fresh();
        node(1)->device_type = 10;
        node(1)->type_source = TYPE_SOURCE_DHCP;
        node(2)->device_type = 10;
        node(2)->type_source = TYPE_SOURCE_DHCP;
        write_file("/etc/config/lanroster",
                   qos_client(1, opt("client_type_changed", "true") + opt("type", "Mobile")) +
                       qos_client(2, opt("client_type_changed", "true") + opt("type", "Gadget")) +
                       qos_client(3, opt("client_type_changed", "yes") + opt("type", "Mobile")));
        EXPECT_EQ(update_qos(nullptr), 0);
        EXPECT_EQ(node(1)->device_type, 3);
        EXPECT_EQ(node(1)->type_source, TYPE_SOURCE_USER);
        EXPECT_EQ(node(1)->type_user_set, 1);
        EXPECT_EQ(node(2)->device_type, 10); // no row begins so: as it was
        EXPECT_EQ(node(2)->type_source, TYPE_SOURCE_DHCP);
        EXPECT_EQ(node(2)->type_user_set, 0);
        EXPECT_EQ(node(3)->device_type, DEVICE_TYPE_UNKNOWN);
    }));
}

TEST(PolicyMirror, OwnerNamesFollowTheIdsOfQos)
{
    ASSERT_TRUE(run_in_sandbox([] {
        fresh();
        write_file("/etc/config/parental_control_v2",
                   section("settings 'settings'", opt("enable", "on")) +
                       section("owner", opt("owner_id", "-1") + opt("name", "Nobody")) +
                       section("owner", opt("owner_id", "4") + opt("name", "Ann")) +
                       section("owner", opt("owner_id", "4") + opt("name", "Second Ann")) +
                       section("owner", opt("name", "No id")));
        write_file("/etc/config/lanroster",
                   qos_client(1, opt("owner_id", "4")) + qos_client(2, opt("owner_id", "5")));
        // A new owner id brings its name along.
        EXPECT_EQ(update_qos(nullptr), 0);
        EXPECT_STREQ(node(1)->owner_name, "Ann");
        EXPECT_STREQ(node(2)->owner_name, "");
        EXPECT_STREQ(node(3)->owner_name, "");
        // An empty owner table clears the names; a missing package leaves them.
        write_file("/etc/config/parental_control_v2", section("settings 'settings'", opt("enable", "on")));
        unlink("/etc/config/parental_control_v2");
        EXPECT_EQ(update_parentalctl(nullptr), 0);
        EXPECT_STREQ(node(1)->owner_name, "Ann");
        write_file("/etc/config/parental_control_v2", section("settings 'settings'", opt("enable", "on")));
        EXPECT_EQ(update_parentalctl(nullptr), 0);
        EXPECT_STREQ(node(1)->owner_name, "");
        EXPECT_EQ(node(1)->owner_id, 4); // the id comes from QoS alone
    }));
}

TEST(PolicyMirror, FileClientKeepsFourCharactersAndReadsPrioTimesOnlyWithPrio)
{
    ASSERT_TRUE(run_in_sandbox([] {
        fresh();
        write_file("/etc/config/lanroster",
                   qos_client(7, opt("name", "Living room") + opt("type", "Television") +
                                     opt("prio_time", "5") + opt("time_period", "6") +
                                     opt("access_time", "1700000000")) +
                       qos_client(8, opt("prio", "on") + opt("prio_time", "5") + opt("time_period", "6")));
        file_client *f = nullptr;
        int n = 0;
        ASSERT_EQ(get_lanroster_file_clients(&f, &n), 0);
        ASSERT_EQ(n, 2);
        EXPECT_STREQ(f[0].name, "Livi");
        EXPECT_STREQ(f[0].type, "Tele");
        EXPECT_EQ(f[0].prio_time, -1);
        EXPECT_EQ(f[0].time_period, -1);
        EXPECT_EQ(f[0].owner_id, -1);
        EXPECT_EQ(f[0].access_time, 1700000000);
        EXPECT_EQ(f[0].slots[0], 0xff);
        EXPECT_EQ(f[1].prio_time, 5);
        EXPECT_EQ(f[1].time_period, 6);
        EXPECT_EQ(f[1].access_time, -1);
        free(f);
        EXPECT_EQ(get_lanroster_file_clients(nullptr, &n), -1);
        EXPECT_EQ(get_lanroster_file_clients(&f, nullptr), -1);
        unlink("/etc/config/lanroster");
        EXPECT_EQ(get_lanroster_file_clients(&f, &n), -1);
    }));
}

TEST(PolicyMirror, BadPackagesEndInDefaultsNeverOverruns)
{
    ASSERT_TRUE(run_in_sandbox([] {
        fresh();
        std::string long_text(300, 'z');
        std::string text;
        for (int i = 0; i < 300; i++)
            text += qos_client(1000 + i, opt("name", long_text) + opt("type", std::string(40, 'T')) +
                                             opt("slots", std::string(40, '9') + " " + std::string(40, '8')) +
                                             opt("slots_next_day", "x y z") + opt("repeats", long_text) +
                                             opt("real_mac", long_text) + opt("time_mode", "never") +
                                             opt("prio", "ON") + opt("owner_id", "99999999999999"));
        write_file("/etc/config/lanroster", text);
        write_file("/etc/config/parental_control_v2",
                   section("owner", opt("owner_id", "3") + opt("name", long_text)));
        file_client *f = nullptr;
        int n = 0;
        ASSERT_EQ(get_lanroster_file_clients(&f, &n), 0);
        ASSERT_EQ(n, 300);
        EXPECT_STREQ(f[299].name, "zzzz");
        EXPECT_EQ(f[299].slots[0], 99);
        EXPECT_EQ(f[299].slots[2], 0); // the second word of slots_next_day, "y", wins
        EXPECT_EQ(f[299].repeats, 0);
        EXPECT_EQ(f[299].time_mode, 0);
        EXPECT_EQ(f[299].prio, 0);
        free(f);
        qos_row *q = nullptr;
        ASSERT_EQ(get_qos(&q, &n), 0);
        EXPECT_EQ(std::string(q[0].type, sizeof(q[0].type)), std::string(32, 'T')); // no terminator
        free(q);
        owner_row *o = nullptr;
        ASSERT_EQ(get_parentalctl(&o, &n), 0);
        EXPECT_EQ(std::strlen(o[0].name), sizeof(o[0].name) - 1);
        free(o);
        node(1)->owner_id = 3;
        EXPECT_EQ(update_parentalctl(nullptr), 0);
        EXPECT_EQ(std::strlen(node(1)->owner_name), 64u);
        write_file("/etc/config/lanroster", "config client\n\toption 'broken\n");
        EXPECT_EQ(update_qos(nullptr), -1);
    }));
}

TEST(PolicyMirror, StartFillsTheLoadedRecordsAndBringsBackTheUserType)
{
    ASSERT_TRUE(run_in_sandbox([] {
        system_info = {};
        client_pool = nullptr;
        set_history_list(nullptr);
        std::string hex = hex_mac(1);
        write_file("/etc/config/history_list", "config client '" + hex + "'\n" + opt("mac", hex) +
                                                   opt("hostname", "phone") + opt("type", "unknown") +
                                                   opt("access_time", "1700000000") +
                                                   opt("first_access_time", "1700000000"));
        speed_limits({{1, "on", 10, 20}});
        access_control("on", "black", {1});
        write_file("/etc/config/lanroster",
                   qos_client(1, opt("prio", "on") + opt("owner_id", "2") +
                                     opt("client_type_changed", "true") + opt("type", "Laptop")));
        write_file("/etc/config/parental_control_v2",
                   section("owner", opt("owner_id", "2") + opt("name", "Bo")));
        ASSERT_EQ(create_memory_queue(), 1);
        client_node *n = node(1);
        ASSERT_NE(n, nullptr);
        EXPECT_EQ(n->upload_limit, 10);
        EXPECT_EQ(n->blocked, 1);
        EXPECT_EQ(n->prio, 1);
        EXPECT_STREQ(n->owner_name, "Bo");
        EXPECT_STREQ(device_type_name(n->device_type), "Laptop");
        EXPECT_EQ(n->type_user_set, 1);
    }));
}

} // namespace
