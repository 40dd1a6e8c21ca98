// Station rows of get_wireless_info from the iwinfo stand-in's station
// files, for the radio members of the LAN bridge.
#include <cstdlib>
#include <cstring>
#include <gtest/gtest.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include "tests/sandbox/sandbox.h"
#include "../scan/netns_util.h"
#include "core/log.h"
#include "core/text.h"
#include "core/openwrt.h"
#include "db/station_element.h"
#include "db/stations.h"
#include "db/system_info.h"
#include "scan/topology.h"

using scantest::in_private_lan;
using scantest::write_file;

namespace
{

void members(std::initializer_list<const char *> names)
{
    lan_wlanif_num = 0;
    for (const char *n : names)
        copy_str(lan_wlanif[lan_wlanif_num++], n);
}

struct rows {
    rows()
    {
        result = get_wireless_info(&data, &count);
    }
    ~rows()
    {
        free(data);
    }
    const wireless_station *find(uint8_t last) const
    {
        for (int i = 0; i < count; i++)
            if (data[i].mac[5] == last)
                return &data[i];
        return nullptr;
    }
    int result;
    wireless_station *data = nullptr;
    int count = -1;
};

// One MLO station (MLD address ..:99:01) with its 2.4 GHz link on wl0 and
// its 5 GHz link on wl1, and a plain station on wl0.
void two_radios()
{
    mkdir("/var/run/iwinfo", 0755);
    write_file("/var/run/iwinfo/wl0",
               "mac=02:00:00:00:10:01 signal=-40 rx_rate=100 tx_rate=50\n"
               "mac=02:00:00:00:10:02 mlo_addr=02:00:00:00:99:01 signal=-50 rx_rate=300 tx_rate=200 "
               "mlo_rx_2g=300 mlo_tx_2g=200\n");
    write_file("/var/run/iwinfo/wl1", "mac=02:00:00:00:11:02 mlo_addr=02:00:00:00:99:01 signal=-60 "
                                      "rx_rate=900 tx_rate=800 mlo_rx_5g=900 mlo_tx_5g=800\n");
}

} // namespace

TEST(WirelessInfo, NullArgumentsFail)
{
    wireless_station *data = nullptr;
    int count = 0;
    EXPECT_EQ(get_wireless_info(nullptr, &count), -1);
    EXPECT_EQ(get_wireless_info(&data, nullptr), -1);
}

TEST(WirelessInfo, NoMembersIsSuccessWithNothing)
{
    EXPECT_TRUE(in_private_lan([] {
        members({});
        rows r;
        EXPECT_EQ(r.result, 0);
        EXPECT_EQ(r.data, nullptr);
        EXPECT_EQ(r.count, 0);
    }));
}

TEST(WirelessInfo, FailingRadiosAreSkipped)
{
    EXPECT_TRUE(in_private_lan([] {
        mkdir("/var/run/iwinfo", 0755);
        write_file("/var/run/iwinfo/wl1", "garbage\n");
        write_file("/var/run/iwinfo/wl2", "");
        write_file("/var/run/iwinfo/wl3", "mac=02:00:00:00:13:01 signal=-70 rx_rate=5 tx_rate=6\n");
        members({"wl0", "wl1", "wl2", "wl3"});
        rows r;
        EXPECT_EQ(r.result, 0);
        ASSERT_EQ(r.count, 1);
        EXPECT_EQ(r.data[0].signal, -70);
        EXPECT_EQ(r.data[0].rxrate, 5u);
        EXPECT_EQ(r.data[0].txrate, 6u);
    }));
}

TEST(WirelessInfo, WithoutMloEveryElementIsARow)
{
    EXPECT_TRUE(in_private_lan([] {
        system_info.support_mlo = 0;
        two_radios();
        members({"wl0", "wl1"});
        rows r;
        ASSERT_EQ(r.count, 3);
        const wireless_station *link2 = r.find(0x02);
        ASSERT_NE(link2, nullptr);
        EXPECT_EQ(link2->rxrate, 300u);
        EXPECT_EQ(link2->mlo_valid_2G, 0); // the MLO fields are not set
        EXPECT_EQ(link2->mlo_rx_rate_2G, 0u);
    }));
}

TEST(WirelessInfo, SameAddressOnTwoRadiosWithoutMloIsTwoRows)
{
    EXPECT_TRUE(in_private_lan([] {
        system_info.support_mlo = 0;
        mkdir("/var/run/iwinfo", 0755);
        write_file("/var/run/iwinfo/wl0", "mac=02:00:00:00:10:01 rx_rate=1\n");
        write_file("/var/run/iwinfo/wl1", "mac=02:00:00:00:10:01 rx_rate=2\n");
        members({"wl0", "wl1"});
        rows r;
        ASSERT_EQ(r.count, 2);
        EXPECT_EQ(std::memcmp(r.data[0].mac, r.data[1].mac, 6), 0);
    }));
}

TEST(WirelessInfo, MloLinksFoldIntoTheRowOfTheMldAddress)
{
    EXPECT_TRUE(in_private_lan([] {
        system_info.support_mlo = 1;
        two_radios();
        members({"wl0", "wl1"});
        rows r;
        ASSERT_EQ(r.count, 2);
        const wireless_station *plain = r.find(0x01);
        ASSERT_NE(plain, nullptr);
        EXPECT_EQ(plain->mac[4], 0x10); // all-zero MLO address: its own MAC
        EXPECT_EQ(plain->mlo_valid_2G + plain->mlo_valid_5G + plain->mlo_valid_6G, 0);
        const wireless_station *mld = nullptr;
        for (int i = 0; i < r.count; i++)
            if (r.data[i].mac[4] == 0x99)
                mld = &r.data[i];
        ASSERT_NE(mld, nullptr);
        EXPECT_EQ(mld->signal, -50); // the first link seen
        EXPECT_EQ(mld->mlo_valid_2G, 1);
        EXPECT_EQ(mld->mlo_valid_5G, 1);
        EXPECT_EQ(mld->mlo_valid_6G, 0);
        EXPECT_EQ(mld->mlo_rx_rate_2G, 300u);
        EXPECT_EQ(mld->mlo_tx_rate_5G, 800u);
        // The first element's total plus the second's link rates.
        EXPECT_EQ(mld->rxrate, 300u + 900u);
        EXPECT_EQ(mld->txrate, 200u + 800u);
    }));
}

namespace
{

// The element of the distribution's iwinfo: no link fields.
struct upstream_element {
    uint8_t mac[6];
    int8_t signal;
    int8_t signal_avg;
    int8_t noise;
    uint32_t inactive;
    uint32_t connected_time;
    uint32_t rx_packets;
    uint32_t tx_packets;
    uint64_t rx_drop_misc;
    iwinfo_rate_entry rx_rate;
    iwinfo_rate_entry tx_rate;
};

} // namespace

TEST(WirelessInfo, AnElementWithoutLinkFieldsReadsThemAsZero)
{
    upstream_element e{};
    e.mac[5] = 7;
    e.signal = -33;
    e.rx_rate.rate = 11;
    e.tx_rate.rate = 12;
    station_element v = element_view(e);
    EXPECT_EQ(v.mac[5], 7);
    EXPECT_EQ(v.signal, -33);
    EXPECT_EQ(v.rxrate, 11u);
    EXPECT_EQ(v.txrate, 12u);
    const uint8_t zero[6] = {};
    EXPECT_EQ(std::memcmp(v.mlo_addr, zero, 6), 0);
    EXPECT_EQ(v.link_valid[0] + v.link_valid[1] + v.link_valid[2], 0);
    EXPECT_EQ(v.link_rx[1], 0u);
}

TEST(WirelessInfo, PrintAssocEntryAtLevel7)
{
    EXPECT_TRUE(in_private_lan([] {
        // Each console line opens the console anew and truncates it: read
        // the lines through a FIFO, as the lab does.
        sandbox::console console(sandbox::console::fifo);
        ASSERT_TRUE(console.ok());
        log_level = 7;
        system_info.support_mlo = 1;
        iwinfo_assoclist_entry e{};
        e.mac[5] = 0x0a;
        e.signal = -41;
        e.rx_rate.rate = 1200;
        e.mlo_valid_5g = 1;
        e.mlo_rx_rate_5g.rate = 2400;
        e.mlo_addr[0] = 0x02;
        print_assoc_entry(&e);
        print_assoc_entry(nullptr);
        std::string text = console.text();
        for (const char *line :
             {"print_assoc_entry", "MAC: 00:00:00:00:00:0A", "Signal: -41 dBm", "RX Rate: 1200 bps",
              "TX Rate: 0 bps", "MLO 2G Valid: 0", "MLO 5G Valid: 1", "MLO 5G RX Rate: 2400 bps",
              "MLO 6G TX Rate: 0 bps", "MLO Addr: 02:00:00:00:00:00"})
            EXPECT_NE(text.find(line), std::string::npos) << line << "\n" << text;
    }));
}
