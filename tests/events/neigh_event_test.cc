// Neighbour and bridge events through nl_neigh_handle into the live list,
// on a real "br-lan" in a private network namespace.
#include <gtest/gtest.h>

#include <arpa/inet.h>
#include <ctime>
#include <net/if.h>

#include <fstream>
#include <string>

#include "db/system_info.h"
#include "events/assoc.h"
#include "events/neigh_event.h"
#include "registry/client_node.h"
#include "scan/lan_info.h"
#include "scan/topology.h"
#include "tests/events/event_test_util.h"
#include "tests/registry/registry_test_util.h"
#include "tests/scan/netns_util.h"
#include "tests/scan/nl_build.h"

namespace
{

using regtest::add_node;
using regtest::list_order;

std::vector<uint8_t> mac_of(int id)
{
    std::vector<uint8_t> m(6);
    regtest::test_mac(m.data(), id);
    return m;
}

int ifindex(const char *name)
{
    return static_cast<int>(if_nametoindex(name));
}

nlb::bytes event(uint8_t family, uint16_t state, const char *dev, int id, const std::string &ip = "",
                 uint16_t type = RTM_NEWNEIGH)
{
    nlb::neigh n;
    n.family = family;
    n.state = state;
    n.ifindex = ifindex(dev);
    n.ip = ip;
    if (id > 0)
        n.mac = mac_of(id);
    nlb::bytes m = nlb::neigh_msg(n);
    m[4] = static_cast<uint8_t>(type);
    m[5] = static_cast<uint8_t>(type >> 8);
    return m;
}

void handle(const nlb::bytes &datagram)
{
    nl_neigh_handle(evtest::copy_msg(datagram));
}

int port_no(const char *port)
{
    std::ifstream in(std::string("/sys/class/net/") + port + "/brport/port_no");
    int no = -1;
    in >> std::hex >> no;
    return no;
}

// "br-lan" with a wired LAN port "lan1" (client 1) and a radio-like port
// "wl0" (client 2) that is not in the LAN's member list; an empty store and
// a fresh pool; router mode.
void lan_setup()
{
    scantest::lan_router();
    scantest::lan_host("h1", "lan1", "02:00:00:00:00:01", {"192.168.1.11"});
    scantest::lan_host("h2", "wl0", "02:00:00:00:00:02", {"192.168.1.12"});
    regtest::write_file("/etc/config/history_list", "");
    lan_info.ifnum = 1;
    lan_info.ifindex[0] = ifindex("lan1");
    lan_info.gateway_port = -1;
    system_info.sys_mode = SYS_MODE_ROUTER;
    port_count = 0;
    regtest::fresh_pool();
}

void lan_test(const std::function<void()> &body)
{
    EXPECT_TRUE(scantest::in_private_lan([&] {
        lan_setup();
        if (!::testing::Test::HasFatalFailure())
            body();
    }));
}

bool has_section(int id)
{
    return regtest::read_history().count(regtest::hex_mac(id)) == 1;
}

TEST(NeighEvent, UnknownMacJoinsAtTheHeadWithStatus6AndRunsNewAccessRows)
{
    lan_test([] {
        add_node(9, STATUS_ONLINE_LAST_TIME);
        handle(event(AF_INET, NUD_REACHABLE, "br-lan", 1, "192.168.1.11"));
        ASSERT_EQ(list_order(), (std::vector<int>{1, 9}));
        client_node *n = get_history_list();
        EXPECT_EQ(n->status, STATUS_EVENT_ONLINE);
        EXPECT_STREQ(n->ifname, "lan1");
        EXPECT_EQ(n->wire_type, WIRE_WIRED);
        EXPECT_EQ(n->guest, GUEST_NO);
        EXPECT_EQ(n->ip, inet_addr("192.168.1.11"));
        EXPECT_GT(n->access_time, 0);
        EXPECT_EQ(n->access_time, n->first_access_time);
        EXPECT_TRUE(has_section(1)); // the new-access rows wrote it
    });
}

TEST(NeighEvent, KnownOnlineClientChangesNothing)
{
    lan_test([] {
        client_node *n = add_node(1, STATUS_ONLINE_LAST_TIME);
        add_node(5, STATUS_ONLINE_LAST_TIME);
        handle(event(AF_INET, NUD_REACHABLE, "br-lan", 1, "192.168.1.11"));
        EXPECT_EQ(list_order(), (std::vector<int>{5, 1}));
        EXPECT_EQ(n->status, STATUS_ONLINE_LAST_TIME);
        EXPECT_EQ(n->ip, 0u);
        EXPECT_STREQ(n->ifname, "");
        EXPECT_FALSE(has_section(1));
    });
}

TEST(NeighEvent, OfflineClientComesBackAtTheHeadKeepingItsFirstAccess)
{
    lan_test([] {
        add_node(2, STATUS_ONLINE_LAST_TIME);
        client_node *n = add_node(1, STATUS_DISCONNECT);
        n->access_time = 1000;
        n->first_access_time = 1000;
        ASSERT_EQ(list_order(), (std::vector<int>{2, 1}));
        handle(event(AF_INET, NUD_REACHABLE, "br-lan", 1, "192.168.1.11"));
        EXPECT_EQ(list_order(), (std::vector<int>{1, 2}));
        EXPECT_EQ(n->status, STATUS_EVENT_ONLINE);
        EXPECT_EQ(n->first_access_time, 1000);
        EXPECT_GE(n->access_time, static_cast<lr_time32>(time(nullptr)) - 60);
        EXPECT_TRUE(has_section(1)); // the reconnection row rewrote it
    });
}

TEST(NeighEvent, EventsOffTheLanBridgeAreIgnoredWhateverTheirState)
{
    lan_test([] {
        for (uint16_t state : {NUD_REACHABLE, NUD_FAILED, NUD_STALE, NUD_PERMANENT})
            handle(event(AF_INET, state, "lan1", 1, "192.168.1.11"));
        EXPECT_TRUE(list_order().empty());
    });
}

TEST(NeighEvent, StaleDelayAndProbeChangeNothing)
{
    lan_test([] {
        client_node *n = add_node(2, STATUS_ONLINE_LAST_TIME);
        for (uint16_t state : {NUD_STALE, NUD_DELAY, NUD_PROBE}) {
            handle(event(AF_INET, state, "br-lan", 1, "192.168.1.11"));
            handle(event(AF_INET, state, "br-lan", 2, "192.168.1.12"));
        }
        EXPECT_EQ(list_order(), (std::vector<int>{2}));
        EXPECT_EQ(n->status, STATUS_ONLINE_LAST_TIME);
        // Only a deletion of a reachable entry: nothing either.
        handle(event(AF_INET, NUD_REACHABLE, "br-lan", 1, "192.168.1.11", RTM_DELNEIGH));
        EXPECT_EQ(list_order(), (std::vector<int>{2}));
    });
}

TEST(NeighEvent, FailedNeighbourFindsNoRecord)
{
    lan_test([] {
        client_node *n = add_node(1, STATUS_ONLINE_LAST_TIME);
        handle(event(AF_INET, NUD_FAILED, "br-lan", 1, "192.168.1.11"));
        EXPECT_EQ(n->status, STATUS_ONLINE_LAST_TIME);
        EXPECT_EQ(list_order(), (std::vector<int>{1}));
    });
}

TEST(NeighEvent, ApModeMacOnTheGatewayPortGivesNoJoin)
{
    lan_test([] {
        system_info.sys_mode = SYS_MODE_AP;
        lan_info.gateway_port = port_no("lan1");
        ASSERT_GT(lan_info.gateway_port, 0);
        handle(event(AF_INET, NUD_REACHABLE, "br-lan", 1, "192.168.1.11"));
        EXPECT_TRUE(list_order().empty());
        // A client on another port does join, with the port's own class.
        handle(event(AF_INET, NUD_REACHABLE, "br-lan", 2, "192.168.1.12"));
        ASSERT_EQ(list_order(), (std::vector<int>{2}));
        EXPECT_STREQ(get_history_list()->ifname, "wl0");
        // The router takes the client on the gateway port too.
        system_info.sys_mode = SYS_MODE_ROUTER;
        handle(event(AF_INET, NUD_REACHABLE, "br-lan", 1, "192.168.1.11"));
        EXPECT_EQ(list_order(), (std::vector<int>{1, 2}));
    });
}

TEST(NeighEvent, BridgeDeletionOnAPortOutsideTheLanGivesNoLeave)
{
    lan_test([] {
        client_node *n = add_node(2, STATUS_ONLINE_LAST_TIME);
        add_node(1, STATUS_ONLINE_LAST_TIME);
        handle(event(AF_BRIDGE, NUD_REACHABLE, "wl0", 2, "", RTM_DELNEIGH));
        EXPECT_EQ(n->status, STATUS_ONLINE_LAST_TIME);
        // On a LAN port the same deletion is a leave: status 8, first of the
        // offline part, with the leave row run.
        add_node(7, STATUS_DISCONNECT);
        handle(event(AF_BRIDGE, NUD_REACHABLE, "lan1", 2, "", RTM_DELNEIGH));
        EXPECT_EQ(list_order(), (std::vector<int>{1, 2, 7}));
        EXPECT_EQ(n->status, STATUS_EVENT_OFFLINE);
        EXPECT_GT(n->leave_time, 0);
        EXPECT_STREQ(n->ifname, "");
    });
}

TEST(NeighEvent, LeaveOfAClientAlreadyAt8ChangesNothingAndRunsNoRow)
{
    lan_test([] {
        client_node *n = add_node(1, STATUS_DISCONNECT);
        n->status = STATUS_EVENT_OFFLINE;
        n->leave_time = 1234;
        handle(event(AF_BRIDGE, NUD_REACHABLE, "lan1", 1, "", RTM_DELNEIGH));
        EXPECT_EQ(n->status, STATUS_EVENT_OFFLINE);
        EXPECT_EQ(n->leave_time, 1234);
        EXPECT_FALSE(has_section(1));
    });
}

TEST(NeighEvent, LeaveOfAClientBehindTheFirstStatus4IsNotFound)
{
    lan_test([] {
        client_node *behind = add_node(1, STATUS_DISCONNECT);
        add_node(4, STATUS_DISCONNECT);
        behind->status = STATUS_ONLINE_LAST_TIME;
        add_node(3, STATUS_ONLINE_LAST_TIME);
        ASSERT_EQ(list_order(), (std::vector<int>{3, 4, 1}));
        handle(event(AF_BRIDGE, NUD_REACHABLE, "lan1", 1, "", RTM_DELNEIGH));
        EXPECT_EQ(behind->status, STATUS_ONLINE_LAST_TIME);
        EXPECT_EQ(list_order(), (std::vector<int>{3, 4, 1}));
    });
}

TEST(NeighEvent, DatagramCutInAMessageKeepsTheMessagesBefore)
{
    lan_test([] {
        nlb::bytes d = event(AF_INET, NUD_REACHABLE, "br-lan", 1, "192.168.1.11");
        nlb::bytes second = event(AF_INET, NUD_REACHABLE, "br-lan", 2, "192.168.1.12");
        d.insert(d.end(), second.begin(), second.end() - 6);
        handle(d);
        EXPECT_EQ(list_order(), (std::vector<int>{1}));
    });
}

TEST(NeighEvent, GatewayOnALanPortUpdatesTheGatewayPort)
{
    lan_test([] {
        regtest::test_mac(lan_info.gateway_mac, 1);
        handle(event(AF_BRIDGE, NUD_REACHABLE, "lan1", 1));
        EXPECT_EQ(lan_info.gateway_port, port_no("lan1"));
        EXPECT_TRUE(list_order().empty());
    });
}

TEST(NeighEvent, PermanentEntryOfANewBridgeMemberRereadsTheRadios)
{
    lan_test([] {
        lan_wlanif_num = 0;
        handle(event(AF_BRIDGE, NUD_PERMANENT, "wl0", 2));
        ASSERT_EQ(lan_wlanif_num, 1);
        EXPECT_STREQ(lan_wlanif[0], "wl0");
    });
}

TEST(NeighEvent, OtherFamiliesAndMessageTypesAreSkipped)
{
    lan_test([] {
        handle(event(AF_INET6, NUD_REACHABLE, "br-lan", 1, "fd00::1"));
        nlb::bytes route = event(AF_INET, NUD_REACHABLE, "br-lan", 1, "192.168.1.11");
        route[4] = RTM_NEWROUTE;
        handle(route);
        EXPECT_TRUE(list_order().empty());
    });
}

TEST(AssocEvent, RemoveValuesOtherThan0And1DoNothing)
{
    lan_test([] {
        assoc_event e{};
        e.remove = 2;
        regtest::test_mac(e.mac, 1);
        EXPECT_EQ(assco_event_handler(e), 0);
        EXPECT_TRUE(list_order().empty());
    });
}

} // namespace
