// The device commands: checks, codes, the live list, the history package
// and the flash save after each call.
#include <gtest/gtest.h>

#include <cstring>
#include <string>

#include "bus/device_commands.h"
#include "bus/ubus_server.h"
#include "bus_test_util.h"
#include "recognition/fing_auth.h"
#include "registry/client_node.h"
#include "registry/history_list_mgmt.h"
#include "registry_test_util.h"
#include "reply_shape.h"

using bus_test::fields_of;
using bus_test::value_of;
using namespace regtest;
using shape_test::request;
using shape_test::root_shape;

namespace
{

constexpr char SAVECONFIG_CALL[] = "-e\nrequire(\"luci.sys.config\").saveconfig()\n";

std::string code_of()
{
    return value_of(fields_of(reply_buf.head), "code");
}

std::string result_of()
{
    return value_of(fields_of(reply_buf.head), "result");
}

std::string dash_mac(int id)
{
    uint8_t mac[6];
    test_mac(mac, id);
    char text[MAC_DASH_TEXT_SIZE];
    mac_to_dash_text(mac, text);
    return text;
}

std::string json_of(const std::string &key, const std::string &value, const std::string &mac)
{
    return "{\"" + key + "\":\"" + value + "\",\"device_mac\":\"" + mac + "\"}";
}

bool nickname(const std::string &name, const std::string &mac)
{
    request r(json_of("nickname", name, mac).c_str());
    return compose_device_nickname_set(r.msg());
}

bool device_type(const std::string &name, const std::string &mac)
{
    request r(json_of("device_type", name, mac).c_str());
    return compose_device_type_set(r.msg());
}

bool by_mac(bool (*compose)(blob_attr *) noexcept, const std::string &mac)
{
    request r(("{\"device_mac\":\"" + mac + "\"}").c_str());
    return compose(r.msg());
}

// A pool with clients 1 (online, status 5) and 2 (offline), both in the
// package.
void two_clients()
{
    fresh_pool();
    client_node *off = add_node(2, STATUS_DISCONNECT);
    client_node *on = add_node(1, STATUS_ONLINE_LAST_TIME);
    ASSERT_EQ(uci_update_cfg_file(off), 1);
    ASSERT_EQ(uci_update_cfg_file(on), 1);
}

} // namespace

TEST(DeviceCommands, NicknameOf65IsRefusedAnd64IsStoredWhole)
{
    ASSERT_TRUE(run_in_sandbox([] {
        two_clients();
        std::string n65(65, 'n'), n64(64, 'm');
        ASSERT_TRUE(nickname(n65, dash_mac(1)));
        EXPECT_EQ(code_of(), "1");
        EXPECT_STREQ(find_node_by_mac(get_history_list()->mac)->nickname, "");
        EXPECT_FALSE(file_exists("/tmp/lua.calls")) << "a refused call never reaches flash";
        ASSERT_TRUE(nickname(n64, dash_mac(1)));
        EXPECT_EQ(code_of(), "0");
        uint8_t mac[6];
        test_mac(mac, 1);
        EXPECT_EQ(find_node_by_mac(mac)->nickname, n64);
        EXPECT_EQ(read_history()[hex_mac(1)]["nickname"], n64);
        EXPECT_EQ(read_file("/tmp/lua.calls"), SAVECONFIG_CALL);
    }));
}

TEST(DeviceCommands, NicknameOf10000IsRefusedAndBytesOutsideUtf8AreStoredAsTheyCame)
{
    ASSERT_TRUE(run_in_sandbox([] {
        two_clients();
        ASSERT_TRUE(nickname(std::string(10000, 'n'), dash_mac(1)));
        EXPECT_EQ(code_of(), "1");
        EXPECT_FALSE(file_exists("/tmp/lua.calls"));
        const std::string odd = "\xff\xfe caf\xc3(";
        ASSERT_TRUE(nickname(odd, dash_mac(1)));
        EXPECT_EQ(code_of(), "0");
        EXPECT_EQ(read_history()[hex_mac(1)]["nickname"], odd);
        EXPECT_EQ(history_macs().size(), 2u);
    }));
}

TEST(DeviceCommands, PresentNicknameRepliesZeroAndLeavesTheStore)
{
    ASSERT_TRUE(run_in_sandbox([] {
        two_clients();
        uint8_t mac[6];
        test_mac(mac, 2);
        std::strcpy(find_node_by_mac(mac)->nickname, "Desk");
        ASSERT_TRUE(nickname("Desk", dash_mac(2)));
        EXPECT_EQ(code_of(), "0");
        EXPECT_FALSE(file_exists("/tmp/lua.calls"));
        EXPECT_EQ(read_history()[hex_mac(2)].count("nickname"), 0u);
    }));
}

TEST(DeviceCommands, EmptyNicknameIsRefused)
{
    ASSERT_TRUE(run_in_sandbox([] {
        two_clients();
        ASSERT_TRUE(nickname("", dash_mac(1)));
        EXPECT_EQ(code_of(), "1");
        EXPECT_FALSE(file_exists("/tmp/lua.calls"));
    }));
}

TEST(DeviceCommands, TypeNameIgnoresCaseAndStoresTheTablesText)
{
    ASSERT_TRUE(run_in_sandbox([] {
        two_clients();
        uint8_t mac[6];
        test_mac(mac, 1);
        client_node *n = find_node_by_mac(mac);
        n->type_source = TYPE_SOURCE_CLOUD;
        ASSERT_TRUE(device_type("laptop", dash_mac(1)));
        EXPECT_EQ(code_of(), "0");
        EXPECT_EQ(n->device_type, get_device_type_index("Laptop"));
        EXPECT_STREQ(device_type_name(n->device_type), "Laptop");
        EXPECT_EQ(n->type_user_set, 1);
        EXPECT_EQ(n->type_source, TYPE_SOURCE_USER);
        EXPECT_EQ(read_history()[hex_mac(1)]["type"], "Laptop");
        EXPECT_EQ(read_file("/tmp/lua.calls"), SAVECONFIG_CALL);
    }));
}

TEST(DeviceCommands, PresentTypeChangesNeitherFlagNorStore)
{
    ASSERT_TRUE(run_in_sandbox([] {
        two_clients();
        uint8_t mac[6];
        test_mac(mac, 1);
        client_node *n = find_node_by_mac(mac);
        n->device_type = get_device_type_index("Laptop");
        n->type_source = TYPE_SOURCE_DHCP;
        ASSERT_TRUE(device_type("LAPTOP", dash_mac(1)));
        EXPECT_EQ(code_of(), "0");
        EXPECT_EQ(n->type_user_set, 0);
        EXPECT_EQ(n->type_source, TYPE_SOURCE_DHCP);
        EXPECT_FALSE(file_exists("/tmp/lua.calls"));
    }));
}

TEST(DeviceCommands, TypeNotInTheTableIsRefusedEvenForAnUnknownMac)
{
    ASSERT_TRUE(run_in_sandbox([] {
        two_clients();
        ASSERT_TRUE(device_type("Toaster oven", dash_mac(99)));
        EXPECT_EQ(code_of(), "1");
        // The category table is no device type table.
        ASSERT_TRUE(device_type("iot_device", dash_mac(1)));
        EXPECT_EQ(code_of(), "1");
        ASSERT_TRUE(device_type(std::string(33, 'x'), dash_mac(1)));
        EXPECT_EQ(code_of(), "1");
        EXPECT_FALSE(file_exists("/tmp/lua.calls"));
    }));
}

TEST(DeviceCommands, ValidUnknownMacGivesCodeTwoForBothSetters)
{
    ASSERT_TRUE(run_in_sandbox([] {
        two_clients();
        ASSERT_TRUE(nickname("Tablet", dash_mac(99)));
        EXPECT_EQ(code_of(), "2");
        ASSERT_TRUE(device_type("Tablet", "02:00:00:00:00:63"));
        EXPECT_EQ(code_of(), "2");
        EXPECT_FALSE(file_exists("/tmp/lua.calls"));
    }));
}

TEST(DeviceCommands, SettersTakeEveryAcceptedMacForm)
{
    ASSERT_TRUE(run_in_sandbox([] {
        two_clients();
        ASSERT_TRUE(nickname("a", "02:00:00:00:00:01"));
        EXPECT_EQ(code_of(), "0");
        ASSERT_TRUE(nickname("b", "020000000001"));
        EXPECT_EQ(code_of(), "0");
        ASSERT_TRUE(nickname("c", "02-00:00-00:00-01"));
        EXPECT_EQ(code_of(), "0");
        EXPECT_EQ(read_history()[hex_mac(1)]["nickname"], "c");
    }));
}

TEST(DeviceCommands, MalformedMacsAreRefusedWithCodeOne)
{
    ASSERT_TRUE(run_in_sandbox([] {
        two_clients();
        for (const char *bad : {"", "02-00-00-00-00", "02-00-00-00-00-0G", "02_00_00_00_00_01",
                                "0200000000011", "02-00-00-00-00-01-", "zz0000000001"}) {
            ASSERT_TRUE(nickname("x", bad));
            EXPECT_EQ(code_of(), "1") << bad;
            ASSERT_TRUE(device_type("Tablet", bad));
            EXPECT_EQ(code_of(), "1") << bad;
            ASSERT_TRUE(by_mac(compose_offline_device_delete, bad));
            EXPECT_EQ(code_of(), "1") << bad;
            ASSERT_TRUE(by_mac(compose_remove_device_by_mac, bad));
            EXPECT_EQ(result_of(), "fail") << bad;
        }
        EXPECT_EQ(list_count(), 2);
        EXPECT_FALSE(file_exists("/tmp/lua.calls"));
    }));
}

TEST(DeviceCommands, DeleteWithLowerCaseMacRemovesNothingAndRewritesThePackage)
{
    ASSERT_TRUE(run_in_sandbox([] {
        fresh_pool();
        client_node *off = add_node(0xAB, STATUS_DISCONNECT);
        client_node *on = add_node(1, STATUS_ONLINE_LAST_TIME);
        ASSERT_EQ(uci_update_cfg_file(off), 1);
        ASSERT_EQ(uci_update_cfg_file(on), 1);
        // A section no record holds goes with the rewrite.
        client_node stray{};
        test_mac(stray.mac, 7);
        ASSERT_EQ(uci_update_cfg_file(&stray), 1);
        ASSERT_EQ(history_macs().size(), 3u);
        ASSERT_EQ(dash_mac(0xAB), "02-00-00-00-00-AB");
        ASSERT_TRUE(by_mac(compose_offline_device_delete, "02-00-00-00-00-ab"));
        EXPECT_EQ(code_of(), "0");
        EXPECT_EQ(list_count(), 2) << "only the upper-case dashed form can match";
        EXPECT_EQ(history_macs().size(), 2u) << "the package was rewritten from the live list";
        EXPECT_EQ(read_history().count(hex_mac(7)), 0u);
        ASSERT_TRUE(by_mac(compose_offline_device_delete, "02:00:00:00:00:AB"));
        EXPECT_EQ(code_of(), "0");
        EXPECT_EQ(list_count(), 2);
        ASSERT_TRUE(by_mac(compose_offline_device_delete, "02-00-00-00-00-AB"));
        EXPECT_EQ(list_order(), (std::vector<int>{1}));
    }));
}

TEST(DeviceCommands, DeleteOfAnOnlineClientChangesNothingInMemory)
{
    ASSERT_TRUE(run_in_sandbox([] {
        two_clients();
        ASSERT_TRUE(by_mac(compose_offline_device_delete, dash_mac(1)));
        EXPECT_EQ(code_of(), "0");
        EXPECT_EQ(list_order(), (std::vector<int>{1, 2}));
        EXPECT_EQ(list_statuses(), (std::vector<int>{STATUS_ONLINE_LAST_TIME, STATUS_DISCONNECT}));
    }));
}

TEST(DeviceCommands, DeleteOfAnOfflineClientBehindTheHeadRemovesIt)
{
    ASSERT_TRUE(run_in_sandbox([] {
        two_clients();
        ASSERT_TRUE(by_mac(compose_offline_device_delete, dash_mac(2)));
        EXPECT_EQ(code_of(), "0");
        EXPECT_EQ(list_order(), (std::vector<int>{1}));
        EXPECT_EQ(history_macs(), (std::vector<std::string>{hex_mac(1)}));
    }));
}

// Kept as it always was: deleting an offline head leaves the live list
// empty, and the rewrite then empties the package.
TEST(DeviceCommands, DeleteOfAnOfflineHeadEmptiesTheListAndThePackage)
{
    ASSERT_TRUE(run_in_sandbox([] {
        fresh_pool();
        client_node *c = add_node(3, STATUS_DISCONNECT);
        client_node *b = add_node(2, STATUS_DISCONNECT);
        client_node *a = add_node(1, STATUS_DISCONNECT);
        for (client_node *n : {a, b, c})
            ASSERT_EQ(uci_update_cfg_file(n), 1);
        ASSERT_EQ(list_order(), (std::vector<int>{1, 2, 3}));
        ASSERT_TRUE(by_mac(compose_offline_device_delete, dash_mac(1)));
        EXPECT_EQ(code_of(), "0");
        EXPECT_EQ(list_count(), 0);
        EXPECT_TRUE(history_macs().empty());
    }));
}

TEST(DeviceCommands, RemoveByMacOfAnUnknownMacFails)
{
    ASSERT_TRUE(run_in_sandbox([] {
        two_clients();
        std::string out =
            capture_stdout([] { ASSERT_TRUE(by_mac(compose_remove_device_by_mac, dash_mac(99))); });
        EXPECT_EQ(result_of(), "fail");
        EXPECT_NE(out.find("device_mac:02-00-00-00-00-63\n"), std::string::npos);
        EXPECT_NE(out.find("delete_specific_node_from_list fail\n"), std::string::npos);
        EXPECT_EQ(list_count(), 2);
    }));
}

TEST(DeviceCommands, RemoveByMacTakesAnyFormAndOnlineClients)
{
    ASSERT_TRUE(run_in_sandbox([] {
        two_clients();
        ASSERT_TRUE(by_mac(compose_remove_device_by_mac, "02:00:00:00:00:01"));
        EXPECT_EQ(result_of(), "success");
        EXPECT_EQ(list_order(), (std::vector<int>{2}));
        EXPECT_EQ(history_macs(), (std::vector<std::string>{hex_mac(2)}));
    }));
}

TEST(DeviceCommands, AuthStateMinusOneFailsBecauseTheComparisonIsUnsigned)
{
    fing_auth_cache = -1;
    request ok("{\"auth_state\":1}");
    ASSERT_TRUE(compose_update_fing_auth_status(ok.msg()));
    EXPECT_EQ(result_of(), "success");
    EXPECT_EQ(fing_auth_cache.load(), 1);
    request minus("{\"auth_state\":-1}");
    ASSERT_TRUE(compose_update_fing_auth_status(minus.msg()));
    EXPECT_EQ(result_of(), "fail");
    EXPECT_EQ(fing_auth_cache.load(), 1) << "the cache stays";
    request two("{\"auth_state\":2}");
    ASSERT_TRUE(compose_update_fing_auth_status(two.msg()));
    EXPECT_EQ(result_of(), "fail");
    request zero("{\"auth_state\":0}");
    ASSERT_TRUE(compose_update_fing_auth_status(zero.msg()));
    EXPECT_EQ(fing_auth_cache.load(), 0);
}

TEST(DeviceCommands, WrongTypeOfDeviceMacLeavesTheKeyAbsentAndGetsNoReply)
{
    ASSERT_TRUE(run_in_sandbox([] {
        two_clients();
        std::string out = capture_stdout([] {
            for (auto compose : {compose_offline_device_delete, compose_remove_device_by_mac}) {
                request r;
                blobmsg_add_u32(r.buf(), "device_mac", 5);
                EXPECT_FALSE(compose(r.msg()));
            }
            request n;
            blobmsg_add_string(n.buf(), "nickname", "x");
            blobmsg_add_u32(n.buf(), "device_mac", 5);
            EXPECT_FALSE(compose_device_nickname_set(n.msg()));
            request t("{\"device_type\":\"Phone\"}");
            EXPECT_FALSE(compose_device_type_set(t.msg())) << "either key missing is enough";
            request a("{\"auth_state\":\"1\"}");
            EXPECT_FALSE(compose_update_fing_auth_status(a.msg()));
        });
        EXPECT_NE(out.find("blog data is NULL."), std::string::npos);
        EXPECT_EQ(list_count(), 2);
        EXPECT_FALSE(file_exists("/tmp/lua.calls"));
    }));
}

TEST(DeviceCommandsShape, CodeRepliesHoldOneInt32)
{
    ASSERT_TRUE(run_in_sandbox([] {
        two_clients();
        ASSERT_TRUE(nickname("", dash_mac(1)));
        EXPECT_EQ(root_shape(reply_buf.head), (std::vector<std::string>{"code:int32"}));
        ASSERT_TRUE(device_type("Tablet", dash_mac(99)));
        EXPECT_EQ(root_shape(reply_buf.head), (std::vector<std::string>{"code:int32"}));
        ASSERT_TRUE(by_mac(compose_offline_device_delete, dash_mac(99)));
        EXPECT_EQ(root_shape(reply_buf.head), (std::vector<std::string>{"code:int32"}));
    }));
}

TEST(DeviceCommandsShape, ResultRepliesHoldOneString)
{
    ASSERT_TRUE(run_in_sandbox([] {
        two_clients();
        ASSERT_TRUE(by_mac(compose_remove_device_by_mac, dash_mac(99)));
        EXPECT_EQ(root_shape(reply_buf.head), (std::vector<std::string>{"result:string"}));
        request a("{\"auth_state\":1}");
        ASSERT_TRUE(compose_update_fing_auth_status(a.msg()));
        EXPECT_EQ(root_shape(reply_buf.head), (std::vector<std::string>{"result:string"}));
    }));
}
