// The merge of a mesh peer's client list: statuses, places, fields, rows,
// and what the compare pass then does with the records it holds.
#include <gtest/gtest.h>

#include <cstring>
#include <string>
#include <vector>

#include "bus/ubus_server.h"
#include "core/log.h"
#include "core/threadpool.h"
#include "db/system_info.h"
#include "events/mesh_client.h"
#include "mesh_test_util.h"
#include "recognition/new_client_notify.h"
#include "registry/compare.h"
#include "registry_test_util.h"

using namespace regtest;
using namespace meshtest;

namespace
{

using ids = std::vector<int>;

constexpr char SELF[] = "02-00-00-5E-00-01";
constexpr char PEER_A[] = "02-00-00-AA-00-01";
constexpr char PEER_B[] = "02-00-00-BB-00-01";

client_node *node_of(int id)
{
    uint8_t mac[6];
    test_mac(mac, id);
    return find_node_by_mac(mac);
}

int status_of(int id)
{
    client_node *n = node_of(id);
    return n ? n->status : -1;
}

std::string peer_of(int id)
{
    client_node *n = node_of(id);
    if (!n)
        return "<none>";
    char text[MAC_DASH_TEXT_SIZE];
    mac_to_dash_text(n->connect_device_mac, text);
    return text;
}

entry client(int id)
{
    entry e;
    e.mac = client_mac(id);
    return e;
}

void send(const char *peer, const std::vector<entry> &list)
{
    mesh_client_update_handler(mesh_message(peer, list));
}

int line_count(const std::string &path)
{
    std::string text = file_exists(path) ? read_file(path) : "";
    int n = 0;
    for (char c : text)
        n += c == '\n';
    return n;
}

void fresh_registry()
{
    fresh_pool();
    system_info = {};
    is_mesh_agent = true;
    std::strcpy(main_device_mac, SELF);
    new_access_count = 0;
    smart_home_new_count = 0;
}

TEST(MeshClient, OwnUpdateIsIgnoredInAnyCaseOrSeparator)
{
    ASSERT_TRUE(run_in_sandbox([] {
        fresh_registry();
        for (const char *self : {"02-00-00-5E-00-01", "02:00:00:5e:00:01", "02-00:00-5e:00-01"}) {
            send(self, {client(1)});
            EXPECT_EQ(list_count(), 0) << self;
        }
        // This node's clients are not taken offline by its own list either.
        send(PEER_A, {client(1)});
        ASSERT_EQ(status_of(1), STATUS_MESH_ONLINE);
        send("02:00:00:aa:00:01", {});
        EXPECT_EQ(status_of(1), STATUS_EVENT_OFFLINE) << "the peer's MAC in another form is still the peer";
        send(PEER_A, {client(1)});
        send("02:00:00:5E:00:01", {});
        EXPECT_EQ(status_of(1), STATUS_MESH_ONLINE);
    }));
}

TEST(MeshClient, NewClientComesUpAsNetworkDeviceWithTheRowsOfANewAccess)
{
    ASSERT_TRUE(run_in_sandbox([] {
        fresh_registry();
        send(PEER_A, {client(9)});
        entry e = client(1);
        e.ip = "192.168.1.77";
        e.name = "pixel";
        e.signal = -61;
        e.rxrate = 1200;
        e.txrate = 960;
        e.connection_type = 1;
        mesh_client_update_handler(mesh_message(PEER_A, {client(9), e}, {}, "node-a-id"));
        EXPECT_EQ(list_order(), (ids{1, 9})) << "a new client is linked at the head";
        client_node *n = node_of(1);
        ASSERT_NE(n, nullptr);
        EXPECT_EQ(n->status, STATUS_MESH_ONLINE);
        EXPECT_EQ(n->is_mesh_client, 1);
        EXPECT_STREQ(n->hostname, "network_device") << "the peer's name is not taken";
        EXPECT_EQ(n->ip, 0x4d01a8c0u);
        EXPECT_EQ(n->signal, -61);
        EXPECT_EQ(n->rxrate, 1200);
        EXPECT_EQ(n->txrate, 960);
        EXPECT_EQ(n->wire_type, 1);
        EXPECT_EQ(n->guest, 2);
        EXPECT_EQ(n->access_host, 1);
        EXPECT_EQ(peer_of(1), PEER_A);
        EXPECT_STREQ(n->connect_device_id, "node-a-id");
        EXPECT_NE(n->access_time, 0);
        EXPECT_EQ(n->first_access_time, n->access_time);
        EXPECT_EQ(n->clock_state, CLOCK_NOT_SET);
        // The rows of a new access: queued for the notifier, section written.
        EXPECT_EQ(line_count(NEW_ACCESS_CLIENTS_FILE), 2);
        auto s = read_history()[hex_mac(1)];
        EXPECT_EQ(s["hostname"], "network_device");
        EXPECT_EQ(s["access_host"], "1");
    }));
}

TEST(MeshClient, ConnectionTypesGiveTheirKinds)
{
    EXPECT_EQ(mesh_wire_type(2, 3), 7) << "an IoT client on 5G";
    const int kinds[] = {0, 1, 2, 3, 4, 0, 0, 0, 10};
    for (int t = 0; t <= 8; t++)
        EXPECT_EQ(mesh_wire_type(t, 0), kinds[t]) << t;
    EXPECT_EQ(mesh_wire_type(1, 3), 6);
    EXPECT_EQ(mesh_wire_type(9, 0), 0);
    EXPECT_EQ(mesh_wire_type(9, 3), 0) << "above 8 gives 0";
    EXPECT_EQ(mesh_wire_type(1000000, 0), 0);
    EXPECT_EQ(mesh_wire_type(-1, 3), 0);
    EXPECT_EQ(mesh_wire_type(INT32_MIN, 0), 0);
    EXPECT_EQ(mesh_wire_type(8, 3), 10) << "no IoT row behind wired";
    ASSERT_TRUE(run_in_sandbox([] {
        fresh_registry();
        entry iot = client(1);
        iot.client_type = 3;
        entry odd = client(2);
        odd.connection_type = 9;
        send(PEER_A, {iot, odd});
        EXPECT_EQ(node_of(1)->wire_type, 7);
        EXPECT_EQ(node_of(2)->wire_type, 0);
    }));
}

TEST(MeshClient, OnlyTheExactWordGuestIsTheGuestNetwork)
{
    ASSERT_TRUE(run_in_sandbox([] {
        fresh_registry();
        entry lower = client(1);
        lower.guest = "guest";
        entry upper = client(2);
        upper.guest = "GUEST";
        send(PEER_A, {lower, upper});
        EXPECT_EQ(node_of(1)->guest, 2);
        EXPECT_EQ(node_of(1)->access_host, 1);
        EXPECT_EQ(node_of(2)->guest, GUEST_NETWORK);
        EXPECT_EQ(node_of(2)->access_host, 0);
        EXPECT_EQ(node_of(2)->event_access_host, 0);
    }));
}

TEST(MeshClient, TwoReportsRunTheNewAccessRowsOnceAndTheKeepAliveRowsOnce)
{
    ASSERT_TRUE(run_in_sandbox([] {
        fresh_registry();
        send(PEER_A, {client(1)});
        EXPECT_EQ(line_count(NEW_ACCESS_CLIENTS_FILE), 1);
        // A connection time corrected since: the keep-alive row writes it.
        client_node *n = node_of(1);
        n->clock_state = CLOCK_CORRECTED;
        n->access_time = 1000;
        entry moved = client(1);
        moved.signal = -70;
        send(PEER_A, {moved});
        EXPECT_EQ(line_count(NEW_ACCESS_CLIENTS_FILE), 1);
        EXPECT_EQ(n->status, STATUS_MESH_ONLINE);
        EXPECT_EQ(n->signal, -70);
        EXPECT_EQ(read_history()[hex_mac(1)]["access_time"], "1000");
        EXPECT_EQ(n->clock_state, CLOCK_SET) << "written once";
        n->access_time = 2000;
        send(PEER_A, {client(1)});
        EXPECT_EQ(read_history()[hex_mac(1)]["access_time"], "1000");
        // The same client twice in one list: one new access, one refresh.
        send(PEER_A, {client(1), client(2), client(2)});
        EXPECT_EQ(line_count(NEW_ACCESS_CLIENTS_FILE), 2);
        EXPECT_EQ(list_count(), 2);
    }));
}

TEST(MeshClient, ClientOfPeerAReportedByPeerBChangesItsPeerAndKeepsItsStatus)
{
    ASSERT_TRUE(run_in_sandbox([] {
        fresh_registry();
        send(PEER_A, {client(1), client(2)});
        EXPECT_EQ(peer_of(1), PEER_A);
        mesh_client_update_handler(mesh_message(PEER_B, {client(1)}, {}, "node-b-id"));
        EXPECT_EQ(peer_of(1), PEER_B);
        EXPECT_STREQ(node_of(1)->connect_device_id, "node-b-id");
        EXPECT_EQ(status_of(1), STATUS_MESH_ONLINE);
        EXPECT_EQ(list_order(), (ids{2, 1})) << "a refresh does not move the record";
        // A's next list lacks it: it is B's client now and stays.
        send(PEER_A, {client(2)});
        EXPECT_EQ(status_of(1), STATUS_MESH_ONLINE);
        // A scan client (keep-alive) that a peer reports takes that peer.
        client_node *scan = add_node(3, STATUS_ONLINE_LAST_TIME);
        send(PEER_B, {client(1), client(3)});
        EXPECT_EQ(scan->status, STATUS_ONLINE_LAST_TIME);
        EXPECT_EQ(peer_of(3), PEER_B);
    }));
}

TEST(MeshClient, ClientsNoLongerListedByTheirPeerGoOffline)
{
    ASSERT_TRUE(run_in_sandbox([] {
        fresh_registry();
        add_node(50, STATUS_DISCONNECT);
        send(PEER_A, {client(1), client(2), client(3)});
        send(PEER_B, {client(7)});
        EXPECT_EQ(list_order(), (ids{7, 3, 2, 1, 50}));
        send(PEER_A, {client(1), client(3)});
        EXPECT_EQ(list_order(), (ids{7, 3, 1, 2, 50})) << "first in the offline part";
        client_node *n = node_of(2);
        EXPECT_EQ(n->status, STATUS_EVENT_OFFLINE);
        EXPECT_EQ(n->ip, 0u);
        EXPECT_EQ(n->is_mesh_client, 0);
        EXPECT_EQ(peer_of(2), "00-00-00-00-00-00");
        EXPECT_EQ(n->connect_device_id[0], '\0');
        EXPECT_STREQ(n->hostname, "network_device");
        EXPECT_EQ(read_history()[hex_mac(2)]["leave_time"], std::to_string(n->leave_time));
        // An empty list takes all of that peer's clients offline, and
        // nobody else's.
        send(PEER_A, {});
        EXPECT_EQ(status_of(1), STATUS_EVENT_OFFLINE);
        EXPECT_EQ(status_of(3), STATUS_EVENT_OFFLINE);
        EXPECT_EQ(status_of(7), STATUS_MESH_ONLINE);
        EXPECT_EQ(status_of(50), STATUS_DISCONNECT);
    }));
}

TEST(MeshClient, OfflineClientListedAgainReconnectsAtTheHead)
{
    ASSERT_TRUE(run_in_sandbox([] {
        fresh_registry();
        send(PEER_A, {client(1), client(2)});
        send(PEER_A, {client(2)});
        ASSERT_EQ(status_of(1), STATUS_EVENT_OFFLINE);
        client_node *n = node_of(1);
        n->access_time = 1234;
        add_node(5, STATUS_DISCONNECT);
        ASSERT_EQ(status_of(5), STATUS_DISCONNECT);
        send(PEER_B, {client(5), client(1)});
        EXPECT_EQ(list_order(), (ids{1, 5, 2}));
        EXPECT_EQ(n->status, STATUS_MESH_ONLINE);
        EXPECT_EQ(n->access_time, 1234) << "a reconnection keeps the connection time";
        EXPECT_EQ(n->ip, 0u) << "the ip stays as the leave cleared it";
        EXPECT_EQ(peer_of(1), PEER_B);
        EXPECT_EQ(n->is_mesh_client, 1);
        EXPECT_EQ(status_of(5), STATUS_MESH_ONLINE);
        EXPECT_EQ(read_history().count(hex_mac(5)), 1u) << "the reconnection row writes the section";
    }));
}

TEST(MeshClient, ScanClientWithoutPeerIsNeverRemovedByAnyPeer)
{
    ASSERT_TRUE(run_in_sandbox([] {
        fresh_registry();
        client_node *scan = add_node(1, STATUS_NEW_ACCESS);
        scan->status = STATUS_KEEP_ALIVE;
        client_node *other = add_node(2, STATUS_ONLINE_LAST_TIME);
        // Listed by A while the compare holds it at 2: nothing is done.
        send(PEER_A, {client(1)});
        EXPECT_EQ(scan->status, STATUS_KEEP_ALIVE);
        EXPECT_EQ(peer_of(1), "00-00-00-00-00-00");
        for (const char *peer : {PEER_A, PEER_B}) {
            send(peer, {});
            send(peer, {client(9)});
        }
        EXPECT_EQ(scan->status, STATUS_KEEP_ALIVE);
        EXPECT_EQ(other->status, STATUS_ONLINE_LAST_TIME);
        // A peer that sends no parsable MAC of its own claims nobody.
        send("not-a-mac", {});
        EXPECT_EQ(other->status, STATUS_ONLINE_LAST_TIME);
    }));
}

TEST(MeshClient, MissingKeyInOneEntrySkipsItAndItsClientGoesOffline)
{
    ASSERT_TRUE(run_in_sandbox([] {
        fresh_registry();
        send(PEER_A, {client(1), client(2)});
        entry bad = client(2);
        bad.omit = {"rxrate"};
        entry bad_new = client(3);
        bad_new.omit = {"mac"};
        entry no_signal = client(4);
        no_signal.omit = {"signal_strength"};
        send(PEER_A, {client(1), bad, bad_new, no_signal});
        EXPECT_EQ(status_of(1), STATUS_MESH_ONLINE);
        EXPECT_EQ(status_of(2), STATUS_EVENT_OFFLINE) << "a bad entry counts as absent";
        EXPECT_EQ(status_of(3), -1);
        EXPECT_EQ(status_of(4), -1);
        EXPECT_EQ(list_count(), 2);
    }));
}

TEST(MeshClient, MessageWithoutAllFourKeysChangesNothing)
{
    ASSERT_TRUE(run_in_sandbox([] {
        fresh_registry();
        send(PEER_A, {client(1)});
        for (const char *key : {"device_mac", "device_id", "client_num", "mesh_client_list"}) {
            mesh_client_update_handler(mesh_message(PEER_A, {client(2)}, {key}));
            EXPECT_EQ(status_of(1), STATUS_MESH_ONLINE) << key;
            EXPECT_EQ(status_of(2), -1) << key;
        }
        // A key of the wrong type counts as missing.
        blob_buf b = {};
        blob_buf_init(&b, 0);
        blobmsg_add_u32(&b, "device_mac", 7);
        blobmsg_add_string(&b, "device_id", "x");
        blobmsg_add_u32(&b, "client_num", 0);
        blobmsg_add_string(&b, "mesh_client_list", "[]");
        void *copy = std::malloc(blob_raw_len(b.head));
        std::memcpy(copy, b.head, blob_raw_len(b.head));
        blob_buf_free(&b);
        mesh_client_update_handler(copy);
        EXPECT_EQ(status_of(1), STATUS_MESH_ONLINE);
        mesh_client_update_handler(nullptr);
    }));
}

TEST(MeshClient, OutsideValuesStayInsideTheirFields)
{
    ASSERT_TRUE(run_in_sandbox([] {
        fresh_registry();
        entry e = client(1);
        e.name = std::string(1024, 'n');
        e.guest = std::string(1024, 'G');
        e.ip = "300.1.1.1";
        e.signal = INT32_MIN;
        e.rxrate = INT32_MAX;
        e.txrate = -1;
        e.connection_type = -5;
        entry bad_mac = client(2);
        bad_mac.mac = "02:00:00:00:00:0G";
        mesh_client_update_handler(mesh_message(PEER_A, {e, bad_mac}, {}, std::string(1024, 'i')));
        client_node *n = node_of(1);
        ASSERT_NE(n, nullptr);
        EXPECT_EQ(n->ip, 0u);
        EXPECT_EQ(n->signal, INT32_MIN);
        EXPECT_EQ(n->rxrate, INT32_MAX);
        EXPECT_EQ(n->txrate, -1);
        EXPECT_EQ(n->wire_type, 0);
        EXPECT_EQ(n->guest, 2);
        EXPECT_EQ(std::strlen(n->connect_device_id), sizeof(n->connect_device_id) - 1);
        // A MAC that does not parse stands for the all-zero MAC.
        uint8_t zero[6] = {};
        client_node *z = find_node_by_mac(zero);
        ASSERT_NE(z, nullptr);
        EXPECT_EQ(z->status, STATUS_MESH_ONLINE);
    }));
}

TEST(MeshClient, LongListNeverEvictsAClientThisNodeHolds)
{
    ASSERT_TRUE(run_in_sandbox([] {
        fresh_registry();
        for (int id = 1; id <= 300; id++)
            add_node(id, STATUS_ONLINE_LAST_TIME);
        add_node(301, STATUS_NEW_ACCESS)->status = STATUS_EVENT_ONLINE;
        for (int id = 302; id <= 310; id++)
            add_node(id, STATUS_DISCONNECT);
        std::vector<entry> flood;
        for (int id = 1000; id < 1600; id++)
            flood.push_back(client(id));
        send(PEER_A, flood);
        for (int id = 1; id <= 300; id++)
            ASSERT_EQ(status_of(id), STATUS_ONLINE_LAST_TIME) << id;
        EXPECT_EQ(status_of(301), STATUS_EVENT_ONLINE);
        EXPECT_EQ(list_count(), MEMORY_QUEUE_SIZE);
        for (int id = 302; id <= 310; id++)
            EXPECT_EQ(status_of(id), -1) << "offline clients make room";
        // The free records and the offline ones: 78 + 9; the oldest record
        // is then a scan client, and the rest of the list is skipped.
        EXPECT_EQ(status_of(1000 + 86), STATUS_MESH_ONLINE);
        EXPECT_EQ(status_of(1000 + 87), -1);
    }));
}

TEST(MeshClient, StrToMacTakesExactlySeventeenCharacters)
{
    uint8_t mac[6];
    const uint8_t want[6] = {0xaa, 0xbb, 0xcc, 0x0d, 0xee, 0xff};
    for (const char *ok :
         {"AA:BB:CC:0D:EE:FF", "aa-bb-cc-0d-ee-ff", "aA:Bb-cc:0d-EE:ff", ":AABB:CC:0D:EE:FF"}) {
        std::memset(mac, 1, 6);
        EXPECT_EQ(str_to_mac(ok, mac), 0) << ok;
        EXPECT_EQ(std::memcmp(mac, want, 6), 0) << ok;
    }
    for (const char *bad : {"", "AABBCC0DEEFF", "AA:BB:CC:0D:EE:F", "AA:BB:CC:0D:EE:FF:", "AA:BB:CC:0D:EE:FG",
                            "AA::BB:CC:0D:EE:F", "AA BB CC 0D EE FF", "AA:BB:CC:0D:EE:FFF"}) {
        std::memset(mac, 1, 6);
        EXPECT_EQ(str_to_mac(bad, mac), -1) << bad;
        EXPECT_EQ(std::memcmp(mac, "\0\0\0\0\0\0", 6), 0) << bad;
    }
}

TEST(MeshClient, MeshClientSeenByAScanStaysHeldWithoutRows)
{
    ASSERT_TRUE(run_in_sandbox([] {
        fresh_registry();
        entry e = client(1);
        e.connection_type = 2;
        send(PEER_A, {e});
        section_map before = read_history()[hex_mac(1)];
        entries scan;
        scan.add(1, "phone-name", 1, 0, 0x0901a8c0);
        scan.add(2, "tv");
        for (int pass = 0; pass < 2; pass++) {
            ASSERT_EQ(compare_client_table(scan.head()), 0);
            EXPECT_EQ(status_of(1), STATUS_MESH_ONLINE);
        }
        client_node *n = node_of(1);
        EXPECT_EQ(n->wire_type, 2) << "the peer's port class stays";
        EXPECT_EQ(n->guest, 2);
        EXPECT_EQ(n->ip, 0x0901a8c0u);
        EXPECT_STREQ(n->hostname, "phone-name");
        EXPECT_EQ(peer_of(1), PEER_A);
        EXPECT_EQ(read_history()[hex_mac(1)], before) << "no row runs for a held client";
    }));
}

TEST(MeshClient, TheBusEventPostsTheHandler)
{
    threadpool pool_record{};
    ASSERT_EQ(threadpool_init(&pool_record, 1), 0); // no workers: the task waits
    thread_pool = &pool_record;
    void *msg = mesh_message(PEER_A, {client(1)});
    event_dispatch(nullptr, nullptr, "lanroster.meshd_client_update", static_cast<blob_attr *>(msg));
    threadpool_task *t = task_dequeue(&pool_record.task_queue);
    ASSERT_NE(t, nullptr);
    EXPECT_EQ(t->fn, static_cast<void (*)(void *)>(mesh_client_update_handler));
    EXPECT_EQ(std::memcmp(t->arg, msg, blob_raw_len(static_cast<blob_attr *>(msg))), 0);
    std::free(t->arg);
    std::free(t);
    std::free(msg);
    thread_pool = nullptr;
    std::free(pool_record.worker_arr);
    std::free(pool_record.task_queue.head);
}

} // namespace
