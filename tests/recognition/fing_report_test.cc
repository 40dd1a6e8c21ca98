// The cloud report through a recording "fing_device_recognize": requests as
// the command found them, replies as the test tells it, and what came back
// into the records, the history package and the state store (root: private
// "/tmp", "/etc" and "/var").
#include <gtest/gtest.h>

#include <cjson/cJSON.h>
#include <string>
#include <csignal>
#include <sys/mount.h>
#include <sys/stat.h>
#include <vector>

#include "../registry/registry_test_util.h"
#include "recog_test_util.h"
#include "recognition/fing_report.h"
#include "recognition/fing_state.h"
#include "recognition/http_user_agent.h"
#include "recognition/new_client_notify.h"
#include "registry/client_node.h"
#include "registry/compare.h"
#include "registry/history_list_mgmt.h"

using namespace recogtest;
using regtest::file_exists;
using regtest::read_file;
using regtest::write_file;

namespace
{

// Reply N of the run comes from "/tmp/replies/N", else from "/tmp/reply";
// with neither the command writes no reply. Request N is kept as
// "/tmp/requests/N".
const char recognize_script[] = R"(#!/bin/sh
n=$(( $(cat /tmp/recognize.count 2>/dev/null || echo 0) + 1 ))
echo $n > /tmp/recognize.count
mkdir -p /tmp/requests /tmp/fing
cp /tmp/cloud/cloud_report_fing /tmp/requests/$n
if [ -f /tmp/replies/$n ]; then cp /tmp/replies/$n /tmp/fing/update_fing_type
elif [ -f /tmp/reply ]; then cp /tmp/reply /tmp/fing/update_fing_type; fi
)";

void cloud_env(const char *mode = "router", const char *consent = "yes")
{
    fing_report_reset();
    write_file("/etc/config/fing", std::string("config setting 'setting'\n\toption pp_state '") + consent +
                                       "'\n\nconfig state 'global'\n\toption mac_num '0'\n");
    write_file("/etc/config/sysmode",
               std::string("config sysmode 'sysmode'\n\toption mode '") + mode + "'\n");
    write_file("/tmp/bin/boardprobe",
               "#!/bin/sh\n[ \"$1\" = DEV_ID ] && echo DEV-0123456789-0123456789-0123456789-XYZ-MORE\n",
               0755);
    write_file(
        "/tmp/bin/online-test",
        "#!/bin/sh\necho x >> /tmp/online.calls\nexit $(cat /tmp/online.status 2>/dev/null || echo 0)\n",
        0755);
    write_file(std::string("/tmp/bin/") + FING_RECOGNIZE_COMMAND, recognize_script, 0755);
    mkdir("/tmp/fing", 0755);
    mkdir("/tmp/replies", 0755);
}

int requests()
{
    return file_exists("/tmp/recognize.count") ? std::stoi(read_file("/tmp/recognize.count")) : 0;
}

struct json_doc {
    cJSON *root = nullptr;
    explicit json_doc(const std::string &text) : root(cJSON_Parse(text.c_str())) {}
    ~json_doc()
    {
        cJSON_Delete(root);
    }
    json_doc(const json_doc &) = delete;
    json_doc &operator=(const json_doc &) = delete;
};

// The MACs of request n, in order.
std::vector<std::string> request_macs(int n)
{
    json_doc doc(read_file("/tmp/requests/" + std::to_string(n)));
    std::vector<std::string> out;
    cJSON *list = cJSON_GetObjectItemCaseSensitive(doc.root, "clientList");
    cJSON *el = nullptr;
    cJSON_ArrayForEach(el, list) out.push_back(cJSON_GetObjectItemCaseSensitive(el, "mac")->valuestring);
    return out;
}

std::string dashed(int i)
{
    std::string hex = client_name(i);
    std::string out;
    for (int k = 0; k < 12; k += 2)
        out += (k ? "-" : "") + hex.substr(k, 2);
    return out;
}

// A state section for client i with the given options.
void state(int i, const std::vector<std::pair<std::string, std::string>> &options)
{
    ASSERT_GE(fing_state_ensure(FING_PACKAGE, client_name(i).c_str()), 0);
    for (const auto &[k, v] : options)
        ASSERT_EQ(fing_state_set(FING_PACKAGE, client_name(i).c_str(), k.c_str(), v.c_str()), 0);
}

std::string state_of(int i, const char *option)
{
    char out[256] = {};
    fing_state_get(FING_PACKAGE, client_name(i).c_str(), option, out, sizeof(out));
    return out;
}

void batch(const std::string &path, const std::vector<int> &ids)
{
    std::string text;
    for (int i : ids)
        text += client_name(i) + "\n";
    write_file(path, text);
}

std::string reply_for(const std::vector<std::string> &elements, int code = 0)
{
    std::string list;
    for (const auto &e : elements)
        list += (list.empty() ? "" : ",") + e;
    return "{\"code\":" + std::to_string(code) + ",\"result\":{\"clientList\":[" + list + "]}}";
}

std::string element(int i, const char *type, long interval, const char *brand = nullptr,
                    const char *version = nullptr)
{
    std::string e = "{\"mac\":\"" + dashed(i) + "\",\"clientType\":\"" + type +
                    "\",\"nextQueryInterval\":" + std::to_string(interval);
    if (brand)
        e += ",\"brand\":\"" + std::string(brand) + "\"";
    if (version)
        e += ",\"systemVersion\":\"" + std::string(version) + "\"";
    return e + "}";
}

// Clients 1..n on the live list with history sections, sent nowhere: the
// consent is off while the pass runs, as before the user agreed.
void live_clients(int n)
{
    regtest::fresh_pool();
    fing_auth_cache = 0;
    regtest::entries e;
    for (int i = 1; i <= n; i++)
        e.add(i, "host");
    ASSERT_EQ(compare_client_table(e.head()), 0);
    new_access_flush(nullptr);
    report_total_count = 0;
    report_file_count = 0;
    system("rm -f /tmp/fing_report_mac*");
    fing_auth_cache = 1;
}

} // namespace

TEST(FingReport, SecondClientWithParamsErrorStopsTheWholeBatch)
{
    EXPECT_TRUE(run_in_store([] {
        cloud_env();
        state(1, {{"dhcp_params", "1,3,6"}});
        state(2, {{"params_error", "1"}});
        batch("/tmp/batch", {1, 2});
        EXPECT_EQ(fing_report_file("/tmp/batch"), 0);
        EXPECT_EQ(requests(), 0);
        EXPECT_FALSE(file_exists("/tmp/batch"));
    }));
}

TEST(FingReport, FreshLastQueryTimeHoldsTheFirstClientBack)
{
    EXPECT_TRUE(run_in_store([] {
        cloud_env();
        state(1, {{"last_query_time", std::to_string(time(nullptr) - 10)}});
        state(2, {{"dhcp_hostname", "laptop"}});
        batch("/tmp/batch", {1, 2});
        EXPECT_EQ(fing_report_file("/tmp/batch"), 0);
        ASSERT_EQ(requests(), 1);
        EXPECT_EQ(request_macs(1), std::vector<std::string>{dashed(2)});
    }));
}

TEST(FingReport, OldLastQueryTimeIsRevertedAndTheClientGoes)
{
    EXPECT_TRUE(run_in_store([] {
        cloud_env();
        state(1, {{"last_query_time", std::to_string(time(nullptr) - 3601)}});
        batch("/tmp/batch", {1});
        EXPECT_EQ(fing_report_file("/tmp/batch"), 0);
        ASSERT_EQ(requests(), 1);
        EXPECT_EQ(request_macs(1), std::vector<std::string>{dashed(1)});
        EXPECT_EQ(state_of(1, "last_query_time"), "");
    }));
}

TEST(FingReport, TwentyOneNewClientsGiveTwoFilesAndTwoRequests)
{
    EXPECT_TRUE(run_in_store([] {
        cloud_env();
        write_file("/tmp/reply", reply_for({}));
        for (int i = 1; i <= 21; i++) {
            client_node n{};
            regtest::test_mac(n.mac, i);
            fing_report_client_add(&n);
        }
        EXPECT_EQ(read_file("/tmp/fing_report_mac2"), client_name(21) + "\n");
        fing_report_flush(nullptr);
        ASSERT_EQ(requests(), 2);
        EXPECT_EQ(request_macs(1).size(), 20u);
        EXPECT_EQ(request_macs(2), std::vector<std::string>{dashed(21)});
        EXPECT_EQ(report_total_count, 0);
        EXPECT_EQ(report_file_suffix, '1');
        EXPECT_FALSE(file_exists("/tmp/fing_report_mac1"));
    }));
}

TEST(FingReport, FortyClientsAfterNineteenGiveThreeFilesOfWhichTwoAreSent)
{
    EXPECT_TRUE(run_in_store([] {
        cloud_env();
        write_file("/tmp/reply", reply_for({}));
        report_file_count = 19;
        for (int i = 1; i <= 40; i++) {
            client_node n{};
            regtest::test_mac(n.mac, i);
            fing_report_client_add(&n);
        }
        EXPECT_TRUE(file_exists("/tmp/fing_report_mac3"));
        fing_report_flush(nullptr);
        ASSERT_EQ(requests(), 2);
        EXPECT_EQ(request_macs(1).size(), 1u);
        EXPECT_EQ(request_macs(2).size(), 20u);
        EXPECT_FALSE(file_exists("/tmp/fing_report_mac3")) << "the third file goes unsent";
    }));
}

TEST(FingReport, RefusedBatchOfThreeIsRetriedOneByOne)
{
    EXPECT_TRUE(run_in_store([] {
        cloud_env();
        for (int i = 1; i <= 2; i++)
            state(i, {{"dhcp_params", "1,3"}}); // client 3 has no section yet
        write_file("/tmp/reply", "{\"code\":-5002}");
        batch("/tmp/batch", {1, 2, 3});
        EXPECT_EQ(fing_report_file("/tmp/batch"), 0);
        ASSERT_EQ(requests(), 4);
        EXPECT_EQ(request_macs(1).size(), 3u);
        for (int i = 1; i <= 3; i++) {
            EXPECT_EQ(request_macs(i + 1), std::vector<std::string>{dashed(i)});
            EXPECT_EQ(state_of(i, "params_error"), "1");
        }
        // Never sent again while the state lasts.
        batch("/tmp/batch", {2});
        fing_report_file("/tmp/batch");
        EXPECT_EQ(requests(), 4);
    }));
}

TEST(FingReport, OtherCodeDropsTheBatchWithoutBackoff)
{
    EXPECT_TRUE(run_in_store([] {
        cloud_env();
        write_file("/tmp/reply", "{\"code\":1}");
        batch("/tmp/batch", {1});
        std::string out = regtest::capture_stdout([] { fing_report_file("/tmp/batch"); });
        EXPECT_NE(out.find("cloud reponse error!"), std::string::npos);
        EXPECT_EQ(last_query_fail_time, 0);
        EXPECT_EQ(wait_cloud_time, 2);
        EXPECT_FALSE(file_exists("/tmp/batch"));
        EXPECT_FALSE(file_exists(FING_REPLY_FILE));
        batch("/tmp/batch", {2});
        fing_report_file("/tmp/batch");
        EXPECT_EQ(requests(), 2);
    }));
}

TEST(FingReport, NoReplyDoublesTheWaitAndDropsTheNextBatch)
{
    EXPECT_TRUE(run_in_store([] {
        cloud_env();
        batch("/tmp/batch", {1});
        EXPECT_EQ(fing_report_file("/tmp/batch"), 0);
        EXPECT_EQ(wait_cloud_time, 4);
        EXPECT_NE(last_query_fail_time, 0);
        batch("/tmp/batch", {2});
        EXPECT_EQ(fing_report_file("/tmp/batch"), -1);
        EXPECT_EQ(requests(), 1);
        EXPECT_FALSE(file_exists("/tmp/batch"));
        // Once the wait is over the next batch goes.
        last_query_fail_time -= 4;
        batch("/tmp/batch", {3});
        EXPECT_EQ(fing_report_file("/tmp/batch"), 0);
        EXPECT_EQ(wait_cloud_time, 8);
    }));
}

TEST(FingReport, BackoffStopsDoublingAt8192)
{
    fing_report_reset();
    for (int i = 0; i < 20; i++)
        query_fail_handle();
    EXPECT_EQ(wait_cloud_time, 8192);
    fing_report_reset();
}

TEST(FingReport, MalformedEmptyOrHugeReplyStartsTheBackoff)
{
    EXPECT_TRUE(run_in_store([] {
        for (std::string reply :
             {std::string("{\"code\":0,"), std::string(""), std::string(FING_REPLY_MAX + 1, ' ')}) {
            cloud_env();
            write_file("/tmp/reply", reply);
            batch("/tmp/batch", {1});
            EXPECT_EQ(fing_report_file("/tmp/batch"), 0);
            EXPECT_EQ(wait_cloud_time, 4);
            EXPECT_FALSE(file_exists(FING_REPLY_FILE));
            system("rm -f /tmp/recognize.count");
        }
    }));
}

TEST(FingReport, RepeaterFlushDoesNothingAndFilesStay)
{
    EXPECT_TRUE(run_in_store([] {
        cloud_env("repeater");
        client_node n{};
        regtest::test_mac(n.mac, 1);
        fing_report_client_add(&n);
        fing_report_flush(nullptr);
        EXPECT_EQ(requests(), 0);
        EXPECT_TRUE(file_exists("/tmp/fing_report_mac1"));
        EXPECT_EQ(report_total_count, 1);
        EXPECT_FALSE(file_exists("/tmp/online.calls")) << "the cheap gates come first";
    }));
}

TEST(FingReport, NoConsentOrOfflineSendsNothing)
{
    EXPECT_TRUE(run_in_store([] {
        cloud_env("router", "init");
        batch("/tmp/batch", {1});
        EXPECT_EQ(fing_report_file("/tmp/batch"), -1);
        cloud_env();
        write_file("/tmp/online.status", "1");
        batch("/tmp/batch", {1});
        EXPECT_EQ(fing_report_file("/tmp/batch"), -1);
        EXPECT_EQ(requests(), 0);
        // Another status: a second try decides.
        write_file("/tmp/online.status", "3");
        batch("/tmp/batch", {1});
        EXPECT_EQ(fing_report_file("/tmp/batch"), -1);
        EXPECT_EQ(read_file("/tmp/online.calls"), "x\nx\nx\n");
    }));
}

TEST(FingReport, OtherWithAnotherIntervalStoresBrandButNotType)
{
    EXPECT_TRUE(run_in_store([] {
        cloud_env();
        live_clients(1);
        write_file("/tmp/reply", reply_for({element(1, "Other", 60000, "Acme", "2.0")}));
        batch("/tmp/batch", {1});
        EXPECT_EQ(fing_report_file("/tmp/batch"), 0);
        auto s = regtest::read_history()[regtest::hex_mac(1)];
        EXPECT_EQ(s["brand"], "Acme");
        EXPECT_EQ(s["systemVersion"], "2.0");
        EXPECT_NE(s["type"], "Other");
        uint8_t mac[6];
        regtest::test_mac(mac, 1);
        EXPECT_EQ(find_node_by_mac(mac)->type_cloud_set, 0);
        EXPECT_GE(wait_cloud_time, 2);
        EXPECT_LE(wait_cloud_time, 9);
    }));
}

TEST(FingReport, OtherWithTheHourIntervalWaitsAnHour)
{
    EXPECT_TRUE(run_in_store([] {
        cloud_env();
        live_clients(1);
        state(1, {});
        write_file("/tmp/reply", reply_for({element(1, "other", FING_ASK_LATER_MS, "Acme")}));
        batch("/tmp/batch", {1});
        fing_report_file("/tmp/batch");
        EXPECT_NE(state_of(1, "last_query_time"), "");
        EXPECT_EQ(regtest::read_history()[regtest::hex_mac(1)].count("brand"), 0u);
        batch("/tmp/batch", {1});
        fing_report_file("/tmp/batch");
        EXPECT_EQ(requests(), 1) << "asked again only after an hour";
    }));
}

TEST(FingReport, TypeBrandAndVersionComeBackUnlessTheUserSetTheType)
{
    EXPECT_TRUE(run_in_store([] {
        cloud_env();
        live_clients(2);
        uint8_t mac2[6];
        regtest::test_mac(mac2, 2);
        find_node_by_mac(mac2)->type_user_set = 1;
        find_node_by_mac(mac2)->device_type = 3;
        write_file("/tmp/reply", reply_for({element(1, "ip camera", 0, "Acme", ""),
                                            element(2, "IP Camera", 0, nullptr, "9")}));
        batch("/tmp/batch", {1, 2});
        fing_report_file("/tmp/batch");
        auto h = regtest::read_history();
        EXPECT_EQ(h[regtest::hex_mac(1)]["type"], "IP Camera");
        EXPECT_EQ(h[regtest::hex_mac(1)]["brand"], "Acme");
        EXPECT_EQ(h[regtest::hex_mac(1)]["systemVersion"], "unknown");
        EXPECT_EQ(h[regtest::hex_mac(2)]["brand"], "unknown");
        EXPECT_EQ(find_node_by_mac(mac2)->device_type, 3);
        uint8_t mac1[6];
        regtest::test_mac(mac1, 1);
        EXPECT_EQ(find_node_by_mac(mac1)->type_cloud_set, 1);
    }));
}

TEST(FingReport, BadElementsAreSkippedAndTheRestMerged)
{
    EXPECT_TRUE(run_in_store([] {
        cloud_env();
        live_clients(1);
        std::string bad = "{\"mac\":\"nonsense\",\"clientType\":\"NAS\",\"nextQueryInterval\":0},"
                          "{\"mac\":7,\"clientType\":[],\"nextQueryInterval\":\"x\"},"
                          "{\"clientType\":\"NAS\"},3,null,";
        write_file("/tmp/reply", "{\"CODE\":0,\"result\":{\"clientList\":[" + bad +
                                     element(1, "NAS", 0, "Syn", "7") + "]}}");
        batch("/tmp/batch", {1});
        EXPECT_EQ(fing_report_file("/tmp/batch"), 0);
        EXPECT_EQ(regtest::read_history()[regtest::hex_mac(1)]["brand"], "Syn");
    }));
}

TEST(FingReport, HugeClientListIsCutAndDeepNestingFailsCleanly)
{
    EXPECT_TRUE(run_in_store([] {
        cloud_env();
        std::vector<std::string> many;
        for (int i = 0; i < 10000; i++)
            many.push_back(element(1000 + i, "Other", FING_ASK_LATER_MS));
        std::string text = reply_for(many);
        time_t start = time(nullptr);
        EXPECT_EQ(update_fing_type_from_text("/tmp/batch", text.data(), text.size(), start), 0);
        EXPECT_LT(time(nullptr) - start, 30);
        std::string deep(100000, '[');
        EXPECT_EQ(update_fing_type_from_text("/tmp/batch", deep.data(), deep.size(), start), -1);
        std::string wrong = "{\"code\":0,\"result\":{\"clientList\":{\"mac\":1}}}";
        EXPECT_EQ(update_fing_type_from_text("/tmp/batch", wrong.data(), wrong.size(), start), 0);
        std::string code_text = "{\"code\":\"0\"}";
        EXPECT_EQ(update_fing_type_from_text("/tmp/batch", code_text.data(), code_text.size(), start), -1);
    }));
}

TEST(FingReport, RequestCarriesNamesAsTheServiceWantsThem)
{
    EXPECT_TRUE(run_in_store([] {
        cloud_env();
        state(1, {{"dhcp_hostname", "null"},
                  {"mdns_name", "Kitchen\tPad"},
                  {"netbios_name", "null"},
                  {"netbios_domain", "WORK"},
                  {"dhcp_vendor", "android-dhcp-13"},
                  {"dhcp_params", "1,3,6,15"},
                  {"http_user_agent", "Mozilla/5.0 \"quoted\""}});
        state(2, {});
        batch("/tmp/batch", {1, 2});
        fing_report_file("/tmp/batch");
        ASSERT_EQ(requests(), 1);
        std::string text = read_file("/tmp/requests/1");
        EXPECT_NE(text.find("\t\"deviceId\":\t\"DEV-0123456789-0123456789-0123456789-XYZ\""),
                  std::string::npos)
            << text;
        json_doc doc(text);
        cJSON *list = cJSON_GetObjectItemCaseSensitive(doc.root, "clientList");
        ASSERT_EQ(cJSON_GetArraySize(list), 2);
        cJSON *c = cJSON_GetArrayItem(list, 0);
        char *printed = cJSON_PrintUnformatted(c);
        EXPECT_STREQ(printed, ("{\"mac\":\"" + dashed(1) +
                               "\",\"hostname\":\"Kitchen^Pad\",\"dhcp\":{\"vendor\":\"android-dhcp-13\","
                               "\"params\":\"1,3,6,15\"},\"netBios\":{\"name\":\"null\",\"domain\":\"WORK\"},"
                               "\"bonjour\":{\"name\":\"Kitchen^Pad\",\"services\":[{\"name\":\"Kitchen^Pad."
                               "local\"}]},\"hua\":[{\"userAgent\":\"Mozilla/5.0 \\\"quoted\\\"\"}]}")
                                  .c_str());
        cJSON_free(printed);
        printed = cJSON_PrintUnformatted(cJSON_GetArrayItem(list, 1));
        EXPECT_STREQ(printed, ("{\"mac\":\"" + dashed(2) + "\"}").c_str());
        cJSON_free(printed);
        EXPECT_EQ(state_of(1, "hua_status"), "1");
        EXPECT_EQ(state_of(2, "hua_status"), "");
    }));
}

TEST(FingReport, ShellTextInStateAndFileNamesRunsNothing)
{
    EXPECT_TRUE(run_in_store([] {
        cloud_env();
        state(1, {{"dhcp_hostname", "$(touch /tmp/pwned)"}, {"http_user_agent", "`touch /tmp/pwned`"}});
        batch("/tmp/batch", {1});
        write_file("/tmp/batch", read_file("/tmp/batch") + "$(touch /tmp/pwned)\n;touch /tmp/pwned\n");
        fing_report_file("/tmp/batch");
        EXPECT_FALSE(file_exists("/tmp/pwned"));
    }));
}

TEST(FingReport, MissingBatchFileOrDeviceIdSendsNothing)
{
    EXPECT_TRUE(run_in_store([] {
        cloud_env();
        std::string out = regtest::capture_stdout([] { fing_report_file("/tmp/none"); });
        EXPECT_NE(out.find("[new-client-access-report]: \033[1m[ add_deviceArray ]"), std::string::npos)
            << out;
        EXPECT_NE(out.find("FING_REPORT_MAC_FILE not exist! \n\033[0m"), std::string::npos);
        write_file("/tmp/bin/boardprobe", "#!/bin/sh\nexit 0\n", 0755);
        batch("/tmp/batch", {1});
        out = regtest::capture_stdout([] { fing_report_file("/tmp/batch"); });
        EXPECT_NE(out.find("Failed to get device id."), std::string::npos);
        EXPECT_NE(out.find("get deviceid error:-1"), std::string::npos);
        EXPECT_EQ(requests(), 0);
        EXPECT_EQ(last_query_fail_time, 0) << "a failed device id starts no backoff";
    }));
}

TEST(FingReport, CollectPassSendsClientsWithParamsAndNoBrand)
{
    EXPECT_TRUE(run_in_store([] {
        cloud_env();
        live_clients(3);
        state(1, {{"dhcp_params", "1,3"}});
        state(2, {{"dhcp_params", "1,3"}, {"params_error", "1"}});
        state(3, {});
        EXPECT_EQ(fing_collect_report(), 0);
        ASSERT_EQ(requests(), 1);
        EXPECT_EQ(request_macs(1), std::vector<std::string>{dashed(1)});
        EXPECT_FALSE(file_exists(FING_COLLECT_FILE));
    }));
}

TEST(FingReport, PeriodicCollectsOnEverySeventhCall)
{
    EXPECT_TRUE(run_in_store([] {
        cloud_env();
        for (int i = 0; i < 6; i++)
            EXPECT_EQ(fing_periodic(nullptr), -1);
        EXPECT_EQ(fing_periodic(nullptr), 0);
        EXPECT_EQ(collect_counter, 0);
        EXPECT_EQ(resync_counter, 7);
    }));
}

TEST(FingReport, MacTextConverters)
{
    EXPECT_STREQ(mac_text_dashed("aabbccddeeff\n"), "AA-BB-CC-DD-EE-FF");
    EXPECT_EQ(mac_text_dashed("AABBCCDDEEFF"), nullptr);
    EXPECT_EQ(mac_text_dashed(nullptr), nullptr);
    const uint8_t *b = mac_text_parse("aa:bb:cc:dd:ee:0f");
    ASSERT_NE(b, nullptr);
    EXPECT_EQ(b[0], 0xaa);
    EXPECT_EQ(b[5], 0x0f);
    EXPECT_NE(mac_text_parse("AA-BB-CC-DD-EE-FF"), nullptr);
    EXPECT_EQ(mac_text_parse("AA-BB-CC-DD-EE-F"), nullptr);
    EXPECT_EQ(mac_text_parse("AA-BB:CC-DD-EE-FF"), nullptr);
    EXPECT_EQ(mac_text_parse("GG-BB-CC-DD-EE-FF"), nullptr);
}

TEST(FingReport, TypeCategoryFolds)
{
    char name[32] = "poe switch";
    fing_type_category(name, sizeof(name));
    EXPECT_STREQ(name, "Network");
    snprintf(name, sizeof(name), "Domotz Box");
    fing_type_category(name, sizeof(name));
    EXPECT_STREQ(name, "Network Monitor");
    snprintf(name, sizeof(name), "generic");
    fing_type_category(name, sizeof(name));
    EXPECT_STREQ(name, "Other");
    snprintf(name, sizeof(name), "Smart Plug");
    fing_type_category(name, sizeof(name));
    EXPECT_STREQ(name, "Smart Plug");
}

namespace
{

// The kernel module's file, in a procfs-free view of this test's private
// mount namespace.
void proc_client_types(const std::string &text)
{
    struct stat st {
    };
    if (stat("/proc/client-type", &st) != 0) {
        ASSERT_EQ(mount("none", "/proc", "tmpfs", 0, "mode=0755"), 0);
        ASSERT_EQ(mkdir("/proc/client-type", 0755), 0);
    }
    write_file("/proc/client-type/devices", text);
}

// A recognition stand-in that answers "NAS" for every MAC it was asked about.
void answer_every_mac_as_nas()
{
    write_file(std::string("/tmp/bin/") + FING_RECOGNIZE_COMMAND,
               std::string(recognize_script) +
                   "list=''\nfor m in $(grep -o '[0-9A-F]\\{2\\}\\(-[0-9A-F]\\{2\\}\\)\\{5\\}' "
                   "/tmp/cloud/cloud_report_fing); do\n"
                   "  list=\"$list${list:+,}{\\\"mac\\\":\\\"$m\\\",\\\"clientType\\\":\\\"NAS\\\","
                   "\\\"nextQueryInterval\\\":0}\"\ndone\n"
                   "echo \"{\\\"code\\\":0,\\\"result\\\":{\\\"clientList\\\":[$list]}}\" > "
                   "/tmp/fing/update_fing_type\n",
               0755);
}

std::string proc_line(int i, const char *agent)
{
    std::string line = dashed(i) + " 2";
    if (agent)
        line += std::string(" ") + agent;
    return line + "\n";
}

int run_user_agent_turn()
{
    http_counter = 5;
    return check_http_user_agent(nullptr);
}

} // namespace

TEST(HttpUserAgent, LineWithoutAgentStoresAnEmptyValueAndStillGoes)
{
    EXPECT_TRUE(run_in_store([] {
        cloud_env();
        live_clients(1);
        state(1, {});
        write_file("/tmp/reply", reply_for({}));
        proc_client_types(proc_line(1, nullptr));
        EXPECT_EQ(run_user_agent_turn(), 0);
        ASSERT_EQ(requests(), 1);
        EXPECT_EQ(request_macs(1), std::vector<std::string>{dashed(1)});
        EXPECT_EQ(state_of(1, "http_user_agent"), "");
        EXPECT_FALSE(file_exists(FING_HTTP_REPORT_FILE));
    }));
}

TEST(HttpUserAgent, OfflineClientIsSkipped)
{
    EXPECT_TRUE(run_in_store([] {
        cloud_env();
        live_clients(1);
        state(1, {});
        state(2, {});
        proc_client_types(proc_line(2, "Mozilla/5.0"));
        EXPECT_EQ(run_user_agent_turn(), 0);
        EXPECT_EQ(requests(), 0);
    }));
}

TEST(HttpUserAgent, TwentyFiveClientsGoAsTwentyThenFive)
{
    EXPECT_TRUE(run_in_store([] {
        cloud_env();
        answer_every_mac_as_nas();
        live_clients(25);
        std::string proc;
        for (int i = 1; i <= 25; i++) {
            state(i, {});
            proc += proc_line(i, "Mozilla/5.0 (X11)");
        }
        proc_client_types(proc);
        EXPECT_EQ(run_user_agent_turn(), 0);
        ASSERT_EQ(requests(), 1);
        EXPECT_EQ(request_macs(1).size(), 20u);
        EXPECT_EQ(state_of(1, "http_user_agent"), "Mozilla/5.0 (X11)");
        EXPECT_EQ(regtest::read_history()[regtest::hex_mac(1)]["http_upload"], "1");
        EXPECT_EQ(regtest::read_history()[regtest::hex_mac(21)].count("http_upload"), 0u);
        last_query_fail_time = 0;
        EXPECT_EQ(run_user_agent_turn(), 0);
        ASSERT_EQ(requests(), 2);
        EXPECT_EQ(request_macs(2).size(), 5u);
        EXPECT_EQ(request_macs(2)[0], dashed(21));
        EXPECT_EQ(run_user_agent_turn(), 0);
        EXPECT_EQ(requests(), 2) << "every client is marked now";
    }));
}

TEST(HttpUserAgent, UploadedClientIsNotReportedAgainEvenWithANewAgent)
{
    EXPECT_TRUE(run_in_store([] {
        cloud_env();
        live_clients(1);
        state(1, {{"http_user_agent", "Old/1.0"}});
        client_node marked{};
        regtest::test_mac(marked.mac, 1);
        marked.device_type = DEVICE_TYPE_UNKNOWN;
        write_to_history_list(&marked, "Acme", "1", 1);
        ASSERT_EQ(regtest::read_history()[regtest::hex_mac(1)]["http_upload"], "1");
        proc_client_types(proc_line(1, "New/2.0"));
        EXPECT_EQ(run_user_agent_turn(), 0);
        EXPECT_EQ(requests(), 0);
        EXPECT_EQ(state_of(1, "http_user_agent"), "Old/1.0");
    }));
}

TEST(HttpUserAgent, RunsOnEverySixthCallAndNeedsTheFile)
{
    EXPECT_TRUE(run_in_store([] {
        cloud_env();
        for (int i = 0; i < 5; i++)
            EXPECT_EQ(check_http_user_agent(nullptr), 0);
        std::string out = regtest::capture_stdout([] { EXPECT_EQ(check_http_user_agent(nullptr), -1); });
        EXPECT_NE(out.find("open file /proc/pctl/devices error!"), std::string::npos);
        EXPECT_EQ(http_counter, 0);
    }));
}

TEST(HttpUserAgent, ProcLinesParse)
{
    client_type_line l{};
    EXPECT_TRUE(parse_client_type_line("aa:bb:cc:dd:ee:ff 12 Mozilla/5.0 (X11; Linux)\n", l));
    EXPECT_STREQ(l.mac, "aa:bb:cc:dd:ee:ff");
    EXPECT_EQ(l.device_class, 12);
    EXPECT_STREQ(l.agent, "Mozilla/5.0 (X11; Linux)");
    EXPECT_TRUE(parse_client_type_line("aa:bb:cc:dd:ee:ff\n", l));
    EXPECT_EQ(l.device_class, -1);
    EXPECT_STREQ(l.agent, "");
    EXPECT_TRUE(parse_client_type_line("aa:bb:cc:dd:ee:ff x agent", l));
    EXPECT_EQ(l.device_class, -1);
    EXPECT_STREQ(l.agent, "");
    EXPECT_FALSE(parse_client_type_line("   \n", l));
    EXPECT_TRUE(parse_client_type_line(std::string(40, 'a') + " 1 x", l));
    EXPECT_STREQ(l.mac, "");
}

TEST(FingReport, HangingRecognizerIsKilledAndCountsAsNoReply)
{
    EXPECT_TRUE(run_in_store([] {
        cloud_env();
        write_file(std::string("/tmp/bin/") + FING_RECOGNIZE_COMMAND,
                   "#!/bin/sh\necho $$ > /tmp/recognize.pid\nexec sleep 600\n", 0755);
        batch("/tmp/batch", {1});
        time_t start = time(nullptr);
        EXPECT_EQ(fing_report_file("/tmp/batch"), 0);
        EXPECT_LE(time(nullptr) - start, FING_RECOGNIZE_TIMEOUT_MS / 1000 + 2);
        pid_t pid = std::atoi(read_file("/tmp/recognize.pid").c_str());
        EXPECT_NE(kill(pid, 0), 0) << "the command is gone";
        EXPECT_EQ(wait_cloud_time, 4);
    }));
}
