// The radio driver table and the Broadcom adapter: datagrams in the
// driver's layout through the intake and the parse into the live list, on
// a real "br-lan" with radio-like ports in a private network namespace.
#include <gtest/gtest.h>

#include <arpa/inet.h>
#include <malloc.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cstring>
#include <functional>
#include <string>
#include <vector>

#include "core/openwrt.h"
#include "db/system_info.h"
#include "events/assoc.h"
#include "events/nl_intake.h"
#include "events/wlan_bcm.h"
#include "events/wlan_ops.h"
#include "registry/client_node.h"
#include "scan/lan_info.h"
#include "scan/lease.h"
#include "scan/topology.h"
#include "tests/events/event_test_util.h"
#include "tests/registry/registry_test_util.h"
#include "tests/scan/netns_util.h"

namespace
{

using regtest::add_node;
using regtest::list_order;

constexpr char LEASES[] = "/tmp/dhcp.leases";

// A driver datagram of `size` bytes (the driver's messages are longer than
// the fields read): name at 0, big-endian type at 44, MAC at 64.
std::vector<uint8_t> bcm_datagram(const char *ifname, uint32_t type, int id, size_t size = 160)
{
    std::vector<uint8_t> d(size, 0);
    std::memcpy(d.data(), ifname, std::min(std::strlen(ifname), size_t{16}));
    d[44] = static_cast<uint8_t>(type >> 24);
    d[45] = static_cast<uint8_t>(type >> 16);
    d[46] = static_cast<uint8_t>(type >> 8);
    d[47] = static_cast<uint8_t>(type);
    regtest::test_mac(d.data() + 64, id);
    return d;
}

void handle(const std::vector<uint8_t> &datagram)
{
    EXPECT_EQ(wlan_event_handle(evtest::copy_msg(datagram)), 0);
}

// Bytes held by malloc (the sanitizer runtimes report 0).
size_t heap_in_use()
{
    return mallinfo2().uordblks;
}

// Handles `datagram` twenty times, and then a hundred times more: the heap
// in use stays where it was after the first twenty (by then malloc's
// per-thread caches of freed blocks are full), so each copy was freed; a
// kept copy of each would add kilobytes.
void handle_and_expect_freed(const std::vector<uint8_t> &datagram)
{
    for (int i = 0; i < 20; i++)
        handle(datagram);
    size_t before = heap_in_use();
    for (int i = 0; i < 100; i++)
        handle(datagram);
    EXPECT_EQ(heap_in_use(), before);
}

// "br-lan" with a wired port "lan1" and the radio ports "wl0" and "wl1"
// (LAN members); "wl9" is a radio outside the bridge. An empty store, a
// fresh pool, router mode, the Broadcom table.
void radio_setup()
{
    scantest::lan_router();
    scantest::lan_host("h1", "lan1", "02:00:00:00:00:01", {"192.168.1.11"});
    scantest::lan_host("h2", "wl0", "02:00:00:00:00:02", {"192.168.1.12"});
    scantest::lan_host("h3", "wl1", "02:00:00:00:00:03", {"192.168.1.13"});
    ASSERT_TRUE(scantest::sh("ip link add wl9 type veth peer name wl9p"));
    regtest::write_file("/etc/config/history_list", "");
    std::strcpy(lease_file_name, LEASES);
    lan_info.ifnum = 0;
    lan_info.gateway_port = -1;
    system_info.sys_mode = SYS_MODE_ROUTER;
    port_count = 0;
    std::memset(port_info_table, 0, sizeof(port_info_table));
    get_lan_wlanif();
    ASSERT_EQ(lan_wlanif_num, 2);
    regtest::fresh_pool();
    wlan_adapter = &wlan_ops_bcm;
}

void radio_test(const std::function<void()> &body)
{
    EXPECT_TRUE(scantest::in_private_lan([&] {
        radio_setup();
        if (!::testing::Test::HasFatalFailure())
            body();
    }));
}

int port_row(const char *name)
{
    for (int i = 0; i < port_count; i++)
        if (std::strcmp(port_info_table[i].ifname, name) == 0)
            return i;
    return -1;
}

TEST(WlanBcm, EventOnARadioOutsideTheLanChangesNothing)
{
    radio_test([] {
        client_node *n = add_node(2, STATUS_ONLINE_LAST_TIME);
        handle_and_expect_freed(bcm_datagram("wl9", BCM_E_ASSOC_IND, 1));
        handle_and_expect_freed(bcm_datagram("wl9", BCM_E_DISASSOC_IND, 2));
        // A name that only begins like a member is no member either.
        handle_and_expect_freed(bcm_datagram("wl0.1", BCM_E_ASSOC_IND, 1));
        EXPECT_EQ(list_order(), (std::vector<int>{2}));
        EXPECT_EQ(n->status, STATUS_ONLINE_LAST_TIME);
    });
}

TEST(WlanBcm, AssociationCompletedOnTheClientSideIsIgnored)
{
    radio_test([] {
        client_node *n = add_node(2, STATUS_ONLINE_LAST_TIME);
        handle_and_expect_freed(bcm_datagram("wl0", 7, 1));
        handle_and_expect_freed(bcm_datagram("wl0", 7, 2));
        EXPECT_EQ(list_order(), (std::vector<int>{2}));
        EXPECT_EQ(n->status, STATUS_ONLINE_LAST_TIME);
        // The same client by an association indication does join.
        handle(bcm_datagram("wl0", BCM_E_ASSOC_IND, 1));
        EXPECT_EQ(list_order(), (std::vector<int>{1, 2}));
    });
}

TEST(WlanBcm, DisassociationOfAClientWithStatus5GivesStatus8AndAClearedIfname)
{
    radio_test([] {
        client_node *n = add_node(2, STATUS_ONLINE_LAST_TIME);
        add_node(1, STATUS_ONLINE_LAST_TIME);
        std::strcpy(n->ifname, "wl0");
        ASSERT_EQ(n->status, 5);
        handle(bcm_datagram("wl0", BCM_E_DISASSOC_IND, 2));
        EXPECT_EQ(n->status, STATUS_EVENT_OFFLINE);
        EXPECT_STREQ(n->ifname, "");
        EXPECT_GT(n->leave_time, 0);
        EXPECT_EQ(list_order(), (std::vector<int>{1, 2}));
    });
}

TEST(WlanBcm, DeauthenticationAndItsIndicationAreLeavesToo)
{
    radio_test([] {
        client_node *a = add_node(1, STATUS_ONLINE_LAST_TIME);
        client_node *b = add_node(2, STATUS_ONLINE_LAST_TIME);
        handle(bcm_datagram("wl1", BCM_E_DEAUTH, 1));
        handle(bcm_datagram("wl1", BCM_E_DEAUTH_IND, 2));
        EXPECT_EQ(a->status, STATUS_EVENT_OFFLINE);
        EXPECT_EQ(b->status, STATUS_EVENT_OFFLINE);
    });
}

TEST(WlanBcm, AssociationOfAnUnknownMacCreatesARecordWithIp0)
{
    radio_test([] {
        handle(bcm_datagram("wl1", BCM_E_ASSOC_IND, 7));
        ASSERT_EQ(list_order(), (std::vector<int>{7}));
        client_node *n = get_history_list();
        EXPECT_EQ(n->status, STATUS_EVENT_ONLINE);
        EXPECT_EQ(n->ip, 0u);
        EXPECT_STREQ(n->ifname, "wl1");
        int row = port_row("wl1");
        ASSERT_GE(row, 0);
        EXPECT_EQ(n->wire_type, port_info_table[row].wire_type);
        EXPECT_EQ(n->guest, port_info_table[row].guest);
    });
}

TEST(WlanBcm, AssociationOfAnUnknownMacWithALeaseTakesTheLeaseAddress)
{
    radio_test([] {
        regtest::write_file(LEASES, "100 02:00:00:00:00:07 192.168.1.77 phone * 5\n");
        handle(bcm_datagram("wl0", BCM_E_REASSOC_IND, 7));
        ASSERT_EQ(list_order(), (std::vector<int>{7}));
        client_node *n = get_history_list();
        EXPECT_EQ(n->status, STATUS_EVENT_ONLINE);
        EXPECT_EQ(n->ip, inet_addr("192.168.1.77"));
        EXPECT_STREQ(n->hostname, "phone");
        EXPECT_STREQ(n->ifname, "wl0");
    });
}

TEST(WlanBcm, DatagramsShorterThanTheFieldsAreDropped)
{
    radio_test([] {
        std::vector<uint8_t> whole = bcm_datagram("wl0", BCM_E_ASSOC_IND, 1, BCM_EVENT_MIN_SIZE);
        for (size_t n = 0; n < BCM_EVENT_MIN_SIZE; n++)
            handle_and_expect_freed(
                std::vector<uint8_t>(whole.begin(), whole.begin() + static_cast<long>(n)));
        EXPECT_TRUE(list_order().empty());
        handle(whole); // exactly long enough
        EXPECT_EQ(list_order(), (std::vector<int>{1}));
    });
}

TEST(WlanBcm, NameOfSixteenBytesWithoutNulMatchesNoMember)
{
    radio_test([] {
        std::vector<uint8_t> d = bcm_datagram("wl0", BCM_E_ASSOC_IND, 1);
        std::memset(d.data(), 'w', 16);
        handle(d);
        EXPECT_TRUE(list_order().empty());
    });
}

TEST(WlanOps, NullTableStartsWithNoDriverSocket)
{
    EXPECT_TRUE(scantest::in_private_lan([] {
        uloop_init();
        wlan_adapter = nullptr;
        ASSERT_EQ(new_client_asscess_init(), 0);
        EXPECT_GE(rtnl_event_socket.sock, 0);
        EXPECT_EQ(wlan_event_socket.sock, -1);
        // Nobody holds the driver's port.
        int s = socket(AF_INET, SOCK_DGRAM, 0);
        sockaddr_in a{};
        a.sin_family = AF_INET;
        a.sin_port = htons(BCM_EVENT_PORT);
        a.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        EXPECT_EQ(bind(s, reinterpret_cast<sockaddr *>(&a), sizeof(a)), 0);
        close(s);
        // A datagram posted anyway is freed by the dispatcher.
        handle_and_expect_freed(std::vector<uint8_t>(100, 1));
        EXPECT_EQ(enable_assoc_event("wl0"), 0);
        close_event_sockets();
    }));
}

TEST(WlanOps, TableWithNullOperationsCountsAsSuccess)
{
    EXPECT_TRUE(scantest::in_private_lan([] {
        uloop_init();
        static const wlan_ops empty = {nullptr, nullptr, nullptr};
        wlan_adapter = &empty;
        ASSERT_EQ(new_client_asscess_init(), 0);
        EXPECT_EQ(wlan_event_socket.sock, -1);
        handle_and_expect_freed(std::vector<uint8_t>(10, 1));
        close_event_sockets();
    }));
}

int enabled_calls = 0;
char enabled_names[4][16];
int record_enable(const char ifname[16])
{
    if (enabled_calls < 4)
        std::memcpy(enabled_names[enabled_calls], ifname, 16);
    return ++enabled_calls == 2 ? 5 : 0;
}

TEST(WlanOps, EachLanRadioIsEnabledAndARefusalClosesBothSockets)
{
    radio_test([] {
        uloop_init();
        static const wlan_ops table = {wlan_aware_init_bcm, record_enable, wlan_event_handle_bcm};
        wlan_adapter = &table;
        enabled_calls = 0;
        EXPECT_EQ(new_client_asscess_init(), -1);
        ASSERT_EQ(enabled_calls, 2);
        EXPECT_STREQ(enabled_names[0], lan_wlanif[0]);
        EXPECT_STREQ(enabled_names[1], lan_wlanif[1]);
        EXPECT_EQ(rtnl_event_socket.sock, -1);
        EXPECT_EQ(wlan_event_socket.sock, -1);
    });
}

// Sends `d` to the driver's port on the loopback.
void send_to_driver_port(const std::vector<uint8_t> &d)
{
    int s = socket(AF_INET, SOCK_DGRAM, 0);
    sockaddr_in a{};
    a.sin_family = AF_INET;
    a.sin_port = htons(BCM_EVENT_PORT);
    a.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    EXPECT_EQ(sendto(s, d.data(), d.size(), 0, reinterpret_cast<sockaddr *>(&a), sizeof(a)),
              static_cast<ssize_t>(d.size()));
    close(s);
}

TEST(WlanIntake, DatagramsOnTheDriverPortArePostedWithTheirLength)
{
    radio_test([] {
        uloop_init();
        threadpool *pool = evtest::idle_pool();
        ASSERT_EQ(new_client_asscess_init(), 0);
        ASSERT_GE(wlan_event_socket.sock, 0);
        std::vector<uint8_t> a = bcm_datagram("wl0", BCM_E_ASSOC_IND, 1);
        std::vector<uint8_t> b = bcm_datagram("wl1", BCM_E_DISASSOC_IND, 2, 1500);
        send_to_driver_port(a);
        send_to_driver_port(b);
        wlan_nl_event_handler(&wlan_event_socket.ufd, 0);
        auto got = evtest::drain_pool(pool);
        ASSERT_EQ(got.size(), 2u);
        EXPECT_EQ(got[0], a);
        EXPECT_EQ(got[1], b);
        close_event_sockets();
        EXPECT_EQ(wlan_event_socket.sock, -1);
    });
}

TEST(WlanIntake, PostedDatagramRunsTheAdapterOnTheTask)
{
    radio_test([] {
        uloop_init();
        threadpool *pool = evtest::idle_pool();
        ASSERT_EQ(new_client_asscess_init(), 0);
        send_to_driver_port(bcm_datagram("wl0", BCM_E_ASSOC_IND, 3));
        wlan_nl_event_handler(&wlan_event_socket.ufd, 0);
        pthread_mutex_lock(&pool->mutex);
        threadpool_task *t = task_dequeue(&pool->task_queue);
        pthread_mutex_unlock(&pool->mutex);
        ASSERT_NE(t, nullptr);
        t->fn(t->arg);
        free(t);
        EXPECT_EQ(list_order(), (std::vector<int>{3}));
        close_event_sockets();
    });
}

TEST(WlanIntake, RefusedTasksFreeTheirCopiesAndReadingGoesOn)
{
    radio_test([] {
        uloop_init();
        threadpool *pool = evtest::idle_pool();
        ASSERT_EQ(new_client_asscess_init(), 0);
        for (int i = 0; i < TASK_QUEUE_MAX + 10; i++)
            send_to_driver_port(bcm_datagram("wl0", BCM_E_ASSOC_IND, i + 1));
        wlan_nl_event_handler(&wlan_event_socket.ufd, 0);
        EXPECT_EQ(evtest::queued(pool), TASK_QUEUE_MAX);
        uint8_t byte;
        EXPECT_LT(recv(wlan_event_socket.sock, &byte, 1, MSG_DONTWAIT), 0);
        evtest::drain_pool(pool);
        close_event_sockets();
    });
}

TEST(WlanIntake, PortInUseFailsStartUpAndLeavesNothingOpen)
{
    EXPECT_TRUE(scantest::in_private_lan([] {
        uloop_init();
        wlan_adapter = &wlan_ops_bcm;
        int s = socket(AF_INET, SOCK_DGRAM, 0);
        sockaddr_in a{};
        a.sin_family = AF_INET;
        a.sin_port = htons(BCM_EVENT_PORT);
        a.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        ASSERT_EQ(bind(s, reinterpret_cast<sockaddr *>(&a), sizeof(a)), 0);
        EXPECT_EQ(new_client_asscess_init(), -1);
        EXPECT_EQ(rtnl_event_socket.sock, -1);
        EXPECT_EQ(wlan_event_socket.sock, -1);
        close(s);
    }));
}

} // namespace
