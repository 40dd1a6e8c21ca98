// The iwinfo stand-in: its station element has the platform's layout, and
// its backend reports the stations of a station file as the real assoclist
// reports a driver's.
#include <cstddef>
#include <cstring>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <vector>

extern "C" {
#include <iwinfo.h>
}

#include "../../scan/netns_util.h"

using scantest::in_private_lan;
using scantest::write_file;

TEST(IwinfoLayout, TheStationElementIsThePlatformOne)
{
    using E = iwinfo_assoclist_entry;
    EXPECT_EQ(sizeof(E), 144u);
    EXPECT_EQ(sizeof(iwinfo_rate_entry), 12u);
    EXPECT_EQ(offsetof(E, mac), 0u);
    EXPECT_EQ(offsetof(E, signal), 6u);
    EXPECT_EQ(offsetof(E, rx_rate) + offsetof(iwinfo_rate_entry, rate), 20u);
    EXPECT_EQ(offsetof(E, tx_rate), 32u);
    EXPECT_EQ(offsetof(E, mlo_rx_rate_2g), 60u);
    EXPECT_EQ(offsetof(E, mlo_tx_rate_2g), 72u);
    EXPECT_EQ(offsetof(E, mlo_rx_rate_5g), 84u);
    EXPECT_EQ(offsetof(E, mlo_tx_rate_5g), 96u);
    EXPECT_EQ(offsetof(E, mlo_rx_rate_6g), 108u);
    EXPECT_EQ(offsetof(E, mlo_tx_rate_6g), 120u);
    EXPECT_EQ(offsetof(E, mlo_valid_2g), 132u);
    EXPECT_EQ(offsetof(E, mlo_valid_5g), 133u);
    EXPECT_EQ(offsetof(E, mlo_valid_6g), 134u);
    EXPECT_EQ(offsetof(E, mlo_addr), 135u);
    EXPECT_EQ(IWINFO_BUFSIZE, 24576);
}

TEST(IwinfoBackend, NoBackendForANameWithoutStationFile)
{
    EXPECT_TRUE(in_private_lan([] {
        EXPECT_EQ(iwinfo_backend("lo"), nullptr);
        EXPECT_EQ(iwinfo_backend("eth0"), nullptr);
        EXPECT_EQ(iwinfo_backend("../etc"), nullptr);
        EXPECT_EQ(iwinfo_type("wl0"), nullptr);
        EXPECT_NE(iwinfo_backend_by_name("nl80211"), nullptr);
        iwinfo_finish();
    }));
}

TEST(IwinfoBackend, AssoclistGivesBytesOfElements)
{
    EXPECT_TRUE(in_private_lan([] {
        mkdir("/var/run/iwinfo", 0755);
        write_file(
            "/var/run/iwinfo/wl0",
            "mac=02:00:00:00:10:01 inactive=1200 signal=-45 rx_rate=866700 tx_rate=650000\n"
            "# a multi-link station, seen on its 2.4 GHz link\n"
            "mac=02:00:00:00:10:02 mlo_addr=02:00:00:00:99:01 mlo_rx_2g=1000 mlo_tx_2g=900 rx_bytes=7\n");
        write_file("/var/run/iwinfo/wl1", "");
        const iwinfo_ops *ops = iwinfo_backend("wl0");
        ASSERT_NE(ops, nullptr);
        EXPECT_STREQ(iwinfo_type("wl0"), "nl80211");
        std::vector<char> buf(IWINFO_BUFSIZE);
        int len = -1;
        ASSERT_EQ(ops->assoclist("wl0", buf.data(), &len), 0);
        ASSERT_EQ(len, 2 * 144);
        iwinfo_assoclist_entry e[2];
        std::memcpy(e, buf.data(), sizeof(e));
        EXPECT_EQ(e[0].mac[5], 0x01);
        EXPECT_EQ(e[0].inactive, 1200u);
        EXPECT_EQ(e[0].signal, -45);
        EXPECT_EQ(e[0].rx_rate.rate, 866700u);
        EXPECT_EQ(e[0].tx_rate.rate, 650000u);
        EXPECT_EQ(e[0].mlo_valid_2g, 0);
        EXPECT_EQ(e[1].mlo_addr[4], 0x99);
        EXPECT_EQ(e[1].mlo_valid_2g, 1);
        EXPECT_EQ(e[1].mlo_valid_5g, 0);
        EXPECT_EQ(e[1].mlo_rx_rate_2g.rate, 1000u);
        EXPECT_EQ(e[1].mlo_tx_rate_2g.rate, 900u);
        ASSERT_EQ(iwinfo_backend("wl1")->assoclist("wl1", buf.data(), &len), 0);
        EXPECT_EQ(len, 0);
        iwinfo_finish();
    }));
}

TEST(IwinfoBackend, AFileThatDoesNotParseGivesNoStations)
{
    EXPECT_TRUE(in_private_lan([] {
        mkdir("/var/run/iwinfo", 0755);
        const char *bad[] = {
            "mac=02:00:00:00:10:01 signal=-200\n",
            "mac=02:00:00:00:10\n",
            "inactive=5\n",
            "mac=02:00:00:00:10:01 speed=1\n",
            "mac=02:00:00:00:10:01 oops\n",
            "mac=zz:00:00:00:10:01\n",
            "mac=02:00:00:00:10:01 rx_rate=-1\n",
            "mac=02:00:00:00:10:01 rx_rate=99999999999\n",
        };
        std::vector<char> buf(IWINFO_BUFSIZE);
        for (const char *text : bad) {
            write_file("/var/run/iwinfo/wl0", std::string("mac=02:00:00:00:10:09\n") + text);
            int len = -1;
            EXPECT_NE(iwinfo_backend("wl0")->assoclist("wl0", buf.data(), &len), 0) << text;
            EXPECT_EQ(len, 0) << text;
        }
    }));
}

TEST(IwinfoBackend, AFullBufferStopsAt170Stations)
{
    EXPECT_TRUE(in_private_lan([] {
        mkdir("/var/run/iwinfo", 0755);
        std::string text;
        for (int i = 0; i < 200; i++) {
            char line[64];
            std::snprintf(line, sizeof(line), "mac=02:00:00:00:%02x:%02x\n", i / 256, i % 256);
            text += line;
        }
        write_file("/var/run/iwinfo/wl0", text);
        std::vector<char> buf(IWINFO_BUFSIZE);
        int len = 0;
        ASSERT_EQ(iwinfo_backend("wl0")->assoclist("wl0", buf.data(), &len), 0);
        EXPECT_EQ(len, 170 * 144);
    }));
}
