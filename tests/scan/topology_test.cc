// Interface classes, the radio lists and the station list, on packages in
// a private "/etc/config" and "/etc/profile.d", radio members of a real
// bridge and station files of the iwinfo stand-in.
#include <cstring>
#include <gtest/gtest.h>
#include <string>
#include <sys/stat.h>

#include "netns_util.h"
#include "scan/topology.h"

using scantest::in_private_lan;
using scantest::sh;
using scantest::write_file;

namespace
{

const char profile[] = R"(
config wireless
	option wireless_mesh_bh_2g 'wlbh0'
	option wireless_mesh_bh_5g 'wlbh1'
	option wireless_mesh_bh_cfg_2g 'wlcf0'
	option wireless_mesh_bh_cfg_5g 'wlcf1'
	option wireless_mesh_ifname_2g 'mesh2g'
	option wireless_mesh_ifname_5g 'mesh5g'
	option wireless_mesh_config_2g 'wlmc0'
	option wireless_mesh_config_5g 'wlmc1'
	option wireless_iot_ifname_2g 'wliot0'
	option wireless_iot_ifname_5g 'wliot1'
	option wireless_iot_ifname_5g_2 'wliot2'
)";

const char weavelink[] = R"(
config wifi-iface 'mesh2g'
	option ifname 'wlm0'
	option guest '1'

config wifi-iface 'mesh5g'
	option ifname 'wlm1'

config wifi-iface 'cfg'
	option ifname 'wlmc0'

config wifi-iface 'other'
	option ifname 'wlx0'
)";

const char wireless[] = R"(
config wifi-device 'radio0'
	option band '2g'
config wifi-device 'radio1'
	option band '5g'
config wifi-device 'radio2'
	option band '5g_2'
config wifi-device 'radio3'
	option band '6g'
config wifi-device 'radio4'
	option band '2.4GHz'
config wifi-device 'radio5'
	option band '60g'

config wifi-iface
	option ifname 'wl0'
	option device 'radio0'
config wifi-iface
	option ifname 'wl1'
	option device 'radio1'
config wifi-iface
	option ifname 'wl2'
	option device 'radio2'
config wifi-iface
	option ifname 'wl3'
	option device 'radio3'
config wifi-iface
	option ifname 'wl4'
	option device 'radio4'
config wifi-iface
	option ifname 'wl5'
	option device 'radio5'
config wifi-iface
	option ifname 'wl6'
	option device 'nosuch'
config wifi-iface
	option ifname 'wl7'
config wifi-iface
	option ifname 'wl0.1'
	option device 'radio0'
	option guest '1'
	option enable 'on'
config wifi-iface
	option ifname 'wl1.1'
	option device 'radio1'
	option guest '1'
	option enable 'off'
config wifi-iface
	option ifname 'wlmlo'
	option mlo_host 'on'
	option device 'radio1'
config wifi-iface 'wliot0'
	option ifname 'ath10'
	option iot '1'
config wifi-iface
	option ifname 'wliot1'
	option iot '1'
config wifi-iface
	option ifname 'wliot2'
	option iot '1'
config wifi-iface
	option ifname 'wliot9'
	option iot '1'
)";

void write_all()
{
    write_file("/etc/profile.d/profile", profile);
    write_file("/etc/config/weavelink", weavelink);
    write_file("/etc/config/wireless", wireless);
}

struct port_class {
    int wire_type;
    int guest;
    bool operator==(const port_class &) const = default;
};

std::ostream &operator<<(std::ostream &os, const port_class &c)
{
    return os << "{" << c.wire_type << ", " << c.guest << "}";
}

port_class classify(const char *name)
{
    int row = find_port_row(name);
    if (row < 0)
        row = add_port_row(name);
    if (row < 0)
        return {-1, -1};
    return {port_info_table[row].wire_type, port_info_table[row].guest};
}

} // namespace

TEST(ClassifyPort, ProfileBackhaulKeysComeFirst)
{
    EXPECT_TRUE(in_private_lan([] {
        write_all();
        EXPECT_EQ(classify("wlbh0"), (port_class{1, 2}));
        EXPECT_EQ(classify("wlbh0.2"), (port_class{1, 2})); // a prefix match
        EXPECT_EQ(classify("wlbh1"), (port_class{2, 2}));
        EXPECT_EQ(classify("wlcf0"), (port_class{9, 2}));
        EXPECT_EQ(classify("wlcf1"), (port_class{9, 2}));
    }));
}

TEST(ClassifyPort, WeavelinkSections)
{
    EXPECT_TRUE(in_private_lan([] {
        write_all();
        EXPECT_EQ(classify("wlm0"), (port_class{1, 1})); // key names the section; guest option
        EXPECT_EQ(classify("wlm1"), (port_class{2, 2}));
        EXPECT_EQ(classify("wlmc0"), (port_class{9, 2}));
        EXPECT_EQ(classify("wlx0"), (port_class{11, 2})); // no key claims it
    }));
}

TEST(ClassifyPort, AMeshKeyNamingNoSectionMatchesEveryWeavelinkPort)
{
    EXPECT_TRUE(in_private_lan([] {
        write_file("/etc/profile.d/profile",
                   "config wireless\n\toption wireless_mesh_ifname_5g 'nosection'\n");
        write_file("/etc/config/weavelink", weavelink);
        write_file("/etc/config/wireless", wireless);
        EXPECT_EQ(classify("wlx0"), (port_class{2, 2}));
        EXPECT_EQ(classify("wl0"), (port_class{1, 2})); // not in weavelink
    }));
}

TEST(ClassifyPort, WirelessBands)
{
    EXPECT_TRUE(in_private_lan([] {
        write_all();
        EXPECT_EQ(classify("wl0"), (port_class{1, 2}));
        EXPECT_EQ(classify("wl1"), (port_class{2, 2}));
        EXPECT_EQ(classify("wl2"), (port_class{3, 2}));
        EXPECT_EQ(classify("wl3"), (port_class{4, 2}));
        EXPECT_EQ(classify("wl4"), (port_class{1, 2}));  // a band beginning with 2
        EXPECT_EQ(classify("wl5"), (port_class{11, 2})); // an unknown band
        EXPECT_EQ(classify("wl6"), (port_class{11, 2})); // no such device section
        EXPECT_EQ(classify("wl7"), (port_class{11, 2})); // no device at all
        EXPECT_EQ(classify("wlmlo"), (port_class{5, 2}));
    }));
}

TEST(ClassifyPort, GuestNeedsTheOptionAndEnableOn)
{
    EXPECT_TRUE(in_private_lan([] {
        write_all();
        EXPECT_EQ(classify("wl0.1"), (port_class{1, 1}));
        EXPECT_EQ(classify("wl1.1"), (port_class{2, 2}));
    }));
}

TEST(ClassifyPort, IotInterfaces)
{
    EXPECT_TRUE(in_private_lan([] {
        write_all();
        EXPECT_EQ(classify("ath10"), (port_class{6, 2})); // by the section's own name
        EXPECT_EQ(classify("wliot1"), (port_class{7, 2}));
        EXPECT_EQ(classify("wliot2"), (port_class{8, 2}));
        EXPECT_EQ(classify("wliot9"), (port_class{11, 2}));
    }));
}

TEST(ClassifyPort, IotWithoutProfileKeysIsOther)
{
    EXPECT_TRUE(in_private_lan([] {
        write_file("/etc/config/weavelink", weavelink);
        write_file("/etc/config/wireless", wireless);
        EXPECT_EQ(classify("wliot1"), (port_class{11, 2}));
    }));
}

TEST(ClassifyPort, UnknownNameIsWiredMainNetwork)
{
    EXPECT_TRUE(in_private_lan([] {
        write_all();
        EXPECT_EQ(classify("lan1"), (port_class{10, 2}));
        EXPECT_EQ(classify("eth0.4"), (port_class{10, 2}));
    }));
}

TEST(ClassifyPort, MissingOrBrokenPackagesGiveTheWiredDefault)
{
    EXPECT_TRUE(in_private_lan([] {
        // No weavelink: the wireless package is never reached.
        write_file("/etc/config/wireless", wireless);
        EXPECT_EQ(classify("wl0"), (port_class{10, 2}));
        write_file("/etc/config/weavelink", "config 'unterminated\n\toption ifname\n");
        EXPECT_EQ(classify("wl1"), (port_class{10, 2}));
        write_file("/etc/config/weavelink", weavelink);
        write_file("/etc/config/wireless", "config\n");
        EXPECT_EQ(classify("wl2"), (port_class{10, 2}));
        write_file("/etc/profile.d/profile", "option without section\n");
        write_file("/etc/config/wireless", wireless);
        EXPECT_EQ(classify("wl3"), (port_class{4, 2}));
    }));
}

TEST(ClassifyPort, ClassIsStoredOnceAndTheTableStopsAt64)
{
    EXPECT_TRUE(in_private_lan([] {
        write_all();
        EXPECT_EQ(classify("wl0"), (port_class{1, 2}));
        write_file("/etc/config/wireless", "");
        EXPECT_EQ(classify("wl0"), (port_class{1, 2})); // not read again
        for (int i = 0; port_count < PORT_INFO_ROWS; i++)
            ASSERT_GE(add_port_row(("p" + std::to_string(i)).c_str()), 0);
        EXPECT_EQ(add_port_row("one-too-many"), -1);
        EXPECT_EQ(port_count, PORT_INFO_ROWS);
        EXPECT_EQ(add_port_row("a-name-of-20-chars-x"), -1);
    }));
}

TEST(ClassifyPort, LongNamesAreCutTo15)
{
    EXPECT_TRUE(in_private_lan([] {
        int row = add_port_row("abcdefghijklmnopqrst");
        ASSERT_GE(row, 0);
        EXPECT_STREQ(port_info_table[row].ifname, "abcdefghijklmno");
    }));
}

TEST(ReadProfile, ValueLengthAndTruncation)
{
    EXPECT_TRUE(in_private_lan([] {
        write_file("/etc/profile.d/profile",
                   "config wireless\n\toption support_mlo_host 'yes'\n\toption long "
                   "'0123456789012345678901234567890123456789'\n");
        char out[PROFILE_VALUE_SIZE];
        EXPECT_EQ(read_profile("wireless", "support_mlo_host", out, sizeof(out)), 3);
        EXPECT_STREQ(out, "yes");
        EXPECT_EQ(read_profile("wireless", "long", out, sizeof(out)), 32);
        EXPECT_EQ(read_profile("wireless", "absent", out, sizeof(out)), 0);
        EXPECT_STREQ(out, "");
        EXPECT_EQ(read_profile("nosection", "absent", out, sizeof(out)), 0);
    }));
}

TEST(RadioList, WirelessThenWeavelinkUpTo24)
{
    EXPECT_TRUE(in_private_lan([] {
        std::string w;
        for (int i = 0; i < 20; i++)
            w += "config wifi-iface\n\toption ifname 'wl" + std::to_string(i) + "'\n";
        w += "config wifi-iface\n\toption ifname ''\n";
        w += "config wifi-iface\n\toption ifname 'a-name-of-16-chr'\n";
        w += "config wifi-device 'radio0'\n\toption band '2g'\n";
        write_file("/etc/config/wireless", w);
        std::string m;
        for (int i = 0; i < 10; i++)
            m += "config wifi-iface\n\toption ifname 'mesh" + std::to_string(i) + "'\n";
        write_file("/etc/config/weavelink", m);
        read_radio_list();
        ASSERT_EQ(radio_count, RADIO_LIST_ROWS);
        EXPECT_STREQ(radio_list[0], "wl0");
        EXPECT_STREQ(radio_list[19], "wl19");
        EXPECT_STREQ(radio_list[20], "mesh0");
        EXPECT_STREQ(radio_list[23], "mesh3");
    }));
}

TEST(RadioList, BridgeRadioMembersGetRowsAndClasses)
{
    EXPECT_TRUE(in_private_lan([] {
        write_all();
        ASSERT_TRUE(sh("ip link add br-lan type bridge"));
        for (const char *p : {"lan1", "wl0", "ath10", "wl1"}) {
            std::string port(p);
            ASSERT_TRUE(sh("ip link add " + port + " type veth peer name " + port + "-x"));
            ASSERT_TRUE(sh("ip link set " + port + " master br-lan"));
        }
        get_lan_wlanif();
        EXPECT_EQ(lan_wlanif_num, 3);
        EXPECT_EQ(port_count, 3); // lan1 is no radio
        EXPECT_EQ(find_port_row("lan1"), -1);
        int row = find_port_row("ath10");
        ASSERT_GE(row, 0);
        EXPECT_EQ(port_info_table[row].wire_type, 6);
        get_lan_wlanif(); // again: no new rows
        EXPECT_EQ(port_count, 3);
        EXPECT_EQ(lan_wlanif_num, 3);
    }));
}

TEST(Stations, ActiveWithin60sFromEnabledRadiosOnly)
{
    EXPECT_TRUE(in_private_lan([] {
        write_file("/etc/config/wireless", "config wifi-iface\n\toption ifname 'wl0'\n"
                                           "config wifi-iface\n\toption ifname 'wl1'\n\toption enable 'off'\n"
                                           "config wifi-iface\n\toption ifname 'wl2'\n\toption enable 'on'\n"
                                           "config wifi-iface\n\toption ifname 'wl3'\n");
        write_file("/etc/config/weavelink", "");
        read_radio_list();
        ASSERT_EQ(radio_count, 4);
        mkdir("/var/run/iwinfo", 0755);
        write_file("/var/run/iwinfo/wl0", "# two stations\n"
                                          "mac=02:00:00:00:10:01 inactive=100 signal=-40 rx_rate=866000\n"
                                          "mac=02:00:00:00:10:02 inactive=60001\n"
                                          "\n"
                                          "mac=02:00:00:00:10:03 inactive=60000\n");
        write_file("/var/run/iwinfo/wl1", "mac=02:00:00:00:11:01 inactive=0\n");
        write_file("/var/run/iwinfo/wl2",
                   "mac=02:00:00:00:12:01 inactive=0\nmac=02:00:00:00:12:02 colour=red\n");
        write_file("/var/run/iwinfo/wl3", "mac=02:00:00:00:13:01 inactive=5\n");
        refresh_stations();
        const uint8_t s1[6] = {2, 0, 0, 0, 0x10, 1}, s2[6] = {2, 0, 0, 0, 0x10, 2},
                      s3[6] = {2, 0, 0, 0, 0x10, 3};
        const uint8_t off[6] = {2, 0, 0, 0, 0x11, 1}, bad[6] = {2, 0, 0, 0, 0x12, 1},
                      w3[6] = {2, 0, 0, 0, 0x13, 1};
        EXPECT_EQ(station_is_active(s1), 1);
        EXPECT_EQ(station_is_active(s2), 0);
        EXPECT_EQ(station_is_active(s3), 1);
        EXPECT_EQ(station_is_active(off), -1); // a disabled radio
        EXPECT_EQ(station_is_active(bad), -1); // a file that does not parse
        EXPECT_EQ(station_radio(s1), 0);
        EXPECT_EQ(station_radio(w3), 3);
        EXPECT_EQ(station_radio(off), -1);
        // The list is rebuilt: a station that left is gone.
        write_file("/var/run/iwinfo/wl0", "");
        refresh_stations();
        EXPECT_EQ(station_is_active(s1), -1);
        EXPECT_EQ(station_is_active(w3), 1);
    }));
}
