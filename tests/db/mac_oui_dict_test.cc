// The vendor dictionary: loaded on demand, released after the last query.
// Runs on the libmac-oui stand-in over Debian's IEEE registries.
#include <gtest/gtest.h>

#include <cstdlib>
#include <cstring>
#include <string>
#include <unistd.h>

#include "core/openwrt.h"
#include "db/lookups.h"
#include "db/mac_oui_lib.h"

namespace
{

class MacOuiDict : public ::testing::Test
{
  protected:
    void SetUp() override
    {
        uloop_init();
        release_mac_oui_database();
    }
    void TearDown() override
    {
        uloop_timeout_cancel(&mac_oui_dict_clean_timeout);
        release_mac_oui_database();
        uloop_done();
    }
};

const uint8_t cisco[6] = {0x00, 0x00, 0x0c, 0x01, 0x02, 0x03};
const char cisco_vendor[] = "Cisco Systems, Inc";

TEST_F(MacOuiDict, QueryLoadsAndArmsTheRelease)
{
    ASSERT_EQ(mac_oui_database_ready(), 0);
    char out[VENDOR_TEXT_SIZE] = "";
    ASSERT_EQ(query_name_by_mac_oui_v2(cisco, out), 0);
    EXPECT_STREQ(out, cisco_vendor);
    EXPECT_EQ(mac_oui_database_ready(), 1);
    EXPECT_TRUE(mac_oui_dict_clean_timeout.pending);
    EXPECT_GT(uloop_timeout_remaining64(&mac_oui_dict_clean_timeout), MAC_OUI_DICT_HOLD_MS - 100);
}

TEST_F(MacOuiDict, TwoQueriesFiveSecondsApartReleaseTenSecondsAfterTheSecond)
{
    char out[VENDOR_TEXT_SIZE];
    ASSERT_EQ(query_name_by_mac_oui_v2(cisco, out), 0);
    // Five seconds pass: the release is then 5 s away.
    uloop_timeout_set(&mac_oui_dict_clean_timeout, MAC_OUI_DICT_HOLD_MS - 5000);
    ASSERT_EQ(query_name_by_mac_oui_v2(cisco, out), 0);
    EXPECT_EQ(mac_oui_database_ready(), 1);
    // The second query pushed the release back to a full 10 s.
    EXPECT_GT(uloop_timeout_remaining64(&mac_oui_dict_clean_timeout), MAC_OUI_DICT_HOLD_MS - 100);
    EXPECT_EQ(mac_oui_dict_clean_timeout.cb, mac_oui_dict_clean_cb);
    // The timer fires: the dictionary is gone, and the next query loads it again.
    mac_oui_dict_clean_timeout.cb(&mac_oui_dict_clean_timeout);
    EXPECT_EQ(mac_oui_database_ready(), 0);
    ASSERT_EQ(query_name_by_mac_oui_v2(cisco, out), 0);
    EXPECT_EQ(mac_oui_database_ready(), 1);
    EXPECT_STREQ(out, cisco_vendor);
}

TEST_F(MacOuiDict, TheTimerReleasesOnTheLoop)
{
    char out[VENDOR_TEXT_SIZE];
    ASSERT_EQ(query_name_by_mac_oui_v2(cisco, out), 0);
    uloop_timeout_set(&mac_oui_dict_clean_timeout, 1);
    static uloop_timeout stop = {};
    stop.cb = [](uloop_timeout *) { uloop_end(); };
    uloop_timeout_set(&stop, 50);
    uloop_run();
    EXPECT_EQ(mac_oui_database_ready(), 0);
}

TEST_F(MacOuiDict, FailedLoadGivesMinusOneAndArmsNothing)
{
    // A registry folder without registries: the library cannot load.
    char dir[] = "/tmp/lr-oui-XXXXXX";
    ASSERT_NE(mkdtemp(dir), nullptr);
    setenv("MAC_OUI_DATA_DIR", dir, 1);
    char out[VENDOR_TEXT_SIZE] = "";
    EXPECT_EQ(query_name_by_mac_oui_v2(cisco, out), -1);
    unsetenv("MAC_OUI_DATA_DIR");
    rmdir(dir);
    EXPECT_FALSE(mac_oui_dict_clean_timeout.pending);
    EXPECT_EQ(mac_oui_database_ready(), 0);
}

TEST_F(MacOuiDict, UnknownPrefixGivesMinusOneWithTheDictionaryLoaded)
{
    // A locally administered address belongs to no registry.
    const uint8_t local[6] = {0x02, 0, 0, 0, 0, 1};
    char out[VENDOR_TEXT_SIZE] = "";
    EXPECT_EQ(query_name_by_mac_oui_v2(local, out), -1);
    EXPECT_EQ(mac_oui_database_ready(), 1);
    EXPECT_TRUE(mac_oui_dict_clean_timeout.pending);
}

} // namespace
