// Without memory for the sorted copy of the listed MACs the merge walks the
// peer's list once per record instead, with the same outcome.
#include <gtest/gtest.h>

#include <cstring>
#include <vector>

#include "db/system_info.h"
#include "events/mesh_client.h"
#include "mesh_test_util.h"
#include "registry_test_util.h"
#include "tests/core/fail_calloc.h"

using namespace regtest;
using namespace meshtest;

namespace
{

int status_of(int id)
{
    uint8_t mac[6];
    test_mac(mac, id);
    client_node *n = find_node_by_mac(mac);
    return n ? n->status : -1;
}

std::vector<entry> clients(int first, int last, int skip)
{
    std::vector<entry> out;
    for (int id = first; id <= last; id++) {
        if (id == skip)
            continue;
        entry e;
        e.mac = client_mac(id);
        out.push_back(e);
    }
    return out;
}

TEST(MeshClientNoMemory, UnlistedClientsGoOfflineAllTheSame)
{
    ASSERT_TRUE(run_in_sandbox([] {
        fresh_pool();
        std::strcpy(main_device_mac, "02-00-00-5E-00-01");
        const char peer[] = "02-00-00-AA-00-01";
        mesh_client_update_handler(mesh_message(peer, clients(1, 37, 0)));
        ASSERT_EQ(status_of(5), STATUS_MESH_ONLINE);
        // 36 entries: the copy would be 36 MACs of 6 bytes.
        fail_calloc_count = 0;
        fail_calloc_size = 36 * 6;
        mesh_client_update_handler(mesh_message(peer, clients(1, 37, 5)));
        fail_calloc_size = 0;
        EXPECT_GE(fail_calloc_count.load(), 1);
        EXPECT_EQ(status_of(5), STATUS_EVENT_OFFLINE);
        for (int id = 1; id <= 37; id++) {
            if (id != 5) {
                EXPECT_EQ(status_of(id), STATUS_MESH_ONLINE) << id;
            }
        }
    }));
}

} // namespace
