// Fill-in of a record put online by an event: lease or hook data and the
// port table, in a private mount namespace with its own "/tmp".
#include <gtest/gtest.h>

#include <arpa/inet.h>

#include <cstring>
#include <functional>
#include <string>

#include "db/system_info.h"
#include "events/fill_info.h"
#include "registry/client_node.h"
#include "scan/lease.h"
#include "scan/topology.h"
#include "tests/registry/registry_test_util.h"
#include "tests/scan/netns_util.h"

namespace
{

constexpr char LEASES[] = "/tmp/dhcp.leases";

void fill_test(const std::function<void()> &body)
{
    EXPECT_TRUE(scantest::in_private_lan([&] {
        system_info.sys_mode = SYS_MODE_ROUTER;
        std::strcpy(lease_file_name, LEASES);
        port_count = 0;
        std::memset(port_info_table, 0, sizeof(port_info_table));
        body();
    }));
}

client_node fresh_node(int id)
{
    client_node n{};
    regtest::test_mac(n.mac, id);
    n.type_source = TYPE_SOURCE_UNSET;
    n.device_type = DEVICE_TYPE_UNKNOWN;
    return n;
}

assoc_event port_event(const char *ifname, uint8_t active_port, uint32_t ip = 0)
{
    assoc_event e{};
    std::strncpy(e.ifname, ifname, sizeof(e.ifname) - 1);
    e.active_port = active_port;
    e.ip = ip;
    return e;
}

void set_row(int i, const char *name, uint8_t wire_type, uint8_t guest)
{
    std::strncpy(port_info_table[i].ifname, name, 15);
    port_info_table[i].wire_type = wire_type;
    port_info_table[i].guest = guest;
    if (port_count <= i)
        port_count = static_cast<uint8_t>(i + 1);
}

TEST(FillInfo, InactivePortIsAlwaysWiredOnTheMainNetwork)
{
    fill_test([] {
        set_row(0, "wl1", WIRE_5G, GUEST_YES);
        client_node n = fresh_node(1);
        fill_ifinfo(&n, port_event("wl1", 0));
        EXPECT_EQ(n.wire_type, WIRE_WIRED);
        EXPECT_EQ(n.guest, GUEST_NO);
        EXPECT_STREQ(n.ifname, "wl1");
        EXPECT_EQ(port_count, 1);
    });
}

TEST(FillInfo, ActivePortWithoutANameTakesRowZero)
{
    fill_test([] {
        set_row(0, "wl0", WIRE_2G, GUEST_YES);
        set_row(1, "wl1", WIRE_5G, GUEST_NO);
        client_node n = fresh_node(1);
        fill_ifinfo(&n, port_event("", 1));
        EXPECT_EQ(n.wire_type, WIRE_2G);
        EXPECT_EQ(n.guest, GUEST_YES);
        EXPECT_STREQ(n.ifname, "");
    });
}

TEST(FillInfo, RadioWithARowYieldsItsClassAndGuestState)
{
    fill_test([] {
        set_row(0, "lan1", WIRE_WIRED, GUEST_NO);
        set_row(1, "wl0", WIRE_2G, GUEST_NO);
        set_row(2, "wl0-guest", WIRE_5G, GUEST_YES);
        client_node n = fresh_node(1);
        fill_ifinfo(&n, port_event("wl0-guest", 1));
        EXPECT_EQ(n.wire_type, WIRE_5G);
        EXPECT_EQ(n.guest, GUEST_YES);
        EXPECT_STREQ(n.ifname, "wl0-guest");
        fill_ifinfo(&n, port_event("wl0", 1));
        EXPECT_EQ(n.wire_type, WIRE_2G);
        EXPECT_EQ(n.guest, GUEST_NO);
    });
}

TEST(FillInfo, NewInterfaceAddsOneRowThatTheNextEventReuses)
{
    fill_test([] {
        set_row(0, "lan1", WIRE_WIRED, GUEST_NO);
        client_node n = fresh_node(1);
        fill_ifinfo(&n, port_event("newport", 1));
        ASSERT_EQ(port_count, 2);
        EXPECT_STREQ(port_info_table[1].ifname, "newport");
        EXPECT_EQ(n.wire_type, port_info_table[1].wire_type);
        client_node m = fresh_node(2);
        fill_ifinfo(&m, port_event("newport", 1));
        EXPECT_EQ(port_count, 2);
    });
}

TEST(FillInfo, FullTableWithAnUnknownNameGivesTheWiredDefaults)
{
    fill_test([] {
        for (int i = 0; i < PORT_INFO_ROWS; i++)
            set_row(i, ("p" + std::to_string(i)).c_str(), WIRE_2G, GUEST_YES);
        client_node n = fresh_node(1);
        fill_ifinfo(&n, port_event("unknown", 1));
        EXPECT_EQ(port_count, PORT_INFO_ROWS);
        EXPECT_EQ(n.wire_type, WIRE_WIRED);
        EXPECT_EQ(n.guest, GUEST_NO);
    });
}

TEST(FillInfo, HostNameBytesOutsidePrintableAsciiBecomeCarets)
{
    fill_test([] {
        regtest::write_file(LEASES, "100 02:00:00:00:00:01 192.168.1.50 a\x7f"
                                    "b\x01"
                                    "c\xc3\xa9 * 5\n");
        client_node n = fresh_node(1);
        fill_info(&n, port_event("", 0, inet_addr("192.168.1.9")));
        EXPECT_STREQ(n.hostname, "a^b^c^^");
        EXPECT_EQ(n.ip, inet_addr("192.168.1.50")); // the lease wins
    });
}

TEST(FillInfo, RouterLeaseTypeFillsOnlyARecordWithoutAType)
{
    fill_test([] {
        regtest::write_file(LEASES, "100 02:00:00:00:00:01 192.168.1.50 tv * 5\n"
                                    "100 02:00:00:00:00:02 192.168.1.51 phone * 5\n");
        client_node untyped = fresh_node(1);
        fill_dhcp_info(&untyped, port_event("", 0));
        EXPECT_EQ(untyped.type_source, TYPE_SOURCE_DHCP);
        EXPECT_EQ(untyped.device_type, 5);
        EXPECT_STREQ(untyped.hostname, "tv");
        client_node typed = fresh_node(2);
        typed.type_source = TYPE_SOURCE_CLOUD;
        typed.device_type = 12;
        fill_dhcp_info(&typed, port_event("", 0));
        EXPECT_EQ(typed.type_source, TYPE_SOURCE_CLOUD);
        EXPECT_EQ(typed.device_type, 12);
        EXPECT_STREQ(typed.hostname, "phone");
    });
}

TEST(FillInfo, UnparsableLeaseAddressGivesZero)
{
    fill_test([] {
        regtest::write_file(LEASES, "100 02:00:00:00:00:01 not-an-address tv * 5\n");
        client_node n = fresh_node(1);
        n.ip = inet_addr("192.168.1.9");
        fill_dhcp_info(&n, port_event("", 0));
        EXPECT_EQ(n.ip, 0u);
    });
}

TEST(FillInfo, ApModeDoesNotReadTheLeaseFile)
{
    fill_test([] {
        system_info.sys_mode = SYS_MODE_AP;
        regtest::write_file(LEASES, "100 02:00:00:00:00:01 192.168.1.50 tv * 5\n");
        client_node n = fresh_node(1);
        n.ip = inet_addr("192.168.1.9");
        std::strcpy(n.hostname, "old");
        fill_info(&n, port_event("", 0));
        EXPECT_EQ(n.ip, inet_addr("192.168.1.9"));
        EXPECT_STREQ(n.hostname, "old");
        EXPECT_EQ(n.type_source, TYPE_SOURCE_UNSET);
    });
}

} // namespace
