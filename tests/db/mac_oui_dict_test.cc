// The vendor dictionary: loaded on demand, released after the last query.
#include <gtest/gtest.h>

#include <cstring>

#include "core/openwrt.h"
#include "db/lookups.h"

namespace
{

struct fake_library {
    int loads = 0;
    int releases = 0;
    bool loaded = false;
    bool fail_load = false;
};
fake_library lib;

const mac_oui_ops fake_ops = {
    [] {
        ++lib.loads;
        lib.loaded = !lib.fail_load;
        return lib.fail_load ? -1 : 0;
    },
    [] {
        ++lib.releases;
        lib.loaded = false;
    },
    [] { return lib.loaded ? 1 : 0; },
    [](const uint8_t mac[6], char *vendor, size_t size) {
        if (!lib.loaded || mac[0] != 0x00)
            return -1;
        std::snprintf(vendor, size, "Vendor %02X", mac[2]);
        return 0;
    },
};

class MacOuiDict : public ::testing::Test
{
  protected:
    void SetUp() override
    {
        uloop_init();
        lib = {};
        mac_oui_backend = fake_ops;
    }
    void TearDown() override
    {
        uloop_timeout_cancel(&mac_oui_dict_clean_timeout);
        mac_oui_backend = mac_oui_backend_default;
        uloop_done();
    }
};

const uint8_t known[6] = {0x00, 0x11, 0x22, 0x33, 0x44, 0x55};

TEST_F(MacOuiDict, QueryLoadsOnceAndArmsTheRelease)
{
    char out[VENDOR_TEXT_SIZE] = "";
    ASSERT_EQ(query_name_by_mac_oui_v2(known, out), 0);
    EXPECT_STREQ(out, "Vendor 22");
    EXPECT_EQ(lib.loads, 1);
    EXPECT_TRUE(mac_oui_dict_clean_timeout.pending);
    EXPECT_GT(uloop_timeout_remaining64(&mac_oui_dict_clean_timeout), MAC_OUI_DICT_HOLD_MS - 100);
}

TEST_F(MacOuiDict, TwoQueriesFiveSecondsApartLoadOnceAndReleaseTenSecondsAfterTheSecond)
{
    char out[VENDOR_TEXT_SIZE];
    ASSERT_EQ(query_name_by_mac_oui_v2(known, out), 0);
    // Five seconds pass: the release is then 5 s away.
    uloop_timeout_set(&mac_oui_dict_clean_timeout, MAC_OUI_DICT_HOLD_MS - 5000);
    ASSERT_EQ(query_name_by_mac_oui_v2(known, out), 0);
    EXPECT_EQ(lib.loads, 1);
    EXPECT_EQ(lib.releases, 0);
    // The second query pushed the release back to a full 10 s.
    EXPECT_GT(uloop_timeout_remaining64(&mac_oui_dict_clean_timeout), MAC_OUI_DICT_HOLD_MS - 100);
    EXPECT_EQ(mac_oui_dict_clean_timeout.cb, mac_oui_dict_clean_cb);
    // The timer fires: one release, and the next query loads again.
    mac_oui_dict_clean_timeout.cb(&mac_oui_dict_clean_timeout);
    EXPECT_EQ(lib.releases, 1);
    ASSERT_EQ(query_name_by_mac_oui_v2(known, out), 0);
    EXPECT_EQ(lib.loads, 2);
}

TEST_F(MacOuiDict, TheTimerReleasesOnTheLoop)
{
    char out[VENDOR_TEXT_SIZE];
    ASSERT_EQ(query_name_by_mac_oui_v2(known, out), 0);
    uloop_timeout_set(&mac_oui_dict_clean_timeout, 1);
    static uloop_timeout stop = {};
    stop.cb = [](uloop_timeout *) { uloop_end(); };
    uloop_timeout_set(&stop, 50);
    uloop_run();
    EXPECT_EQ(lib.releases, 1);
    EXPECT_FALSE(lib.loaded);
}

TEST_F(MacOuiDict, FailedLoadOrUnknownPrefixGivesMinusOne)
{
    char out[VENDOR_TEXT_SIZE] = "";
    lib.fail_load = true;
    EXPECT_EQ(query_name_by_mac_oui_v2(known, out), -1);
    EXPECT_FALSE(mac_oui_dict_clean_timeout.pending);
    lib.fail_load = false;
    const uint8_t unknown[6] = {0x02, 0, 0, 0, 0, 1};
    EXPECT_EQ(query_name_by_mac_oui_v2(unknown, out), -1);
    EXPECT_EQ(lib.loads, 2);
}

TEST(MacOuiDictReal, RealLibraryBehindTheDictionary)
{
    uloop_init();
    char out[VENDOR_TEXT_SIZE] = "";
    const uint8_t cisco[6] = {0x00, 0x00, 0x0c, 0x01, 0x02, 0x03};
    ASSERT_EQ(query_name_by_mac_oui_v2(cisco, out), 0);
    EXPECT_STREQ(out, "Cisco Systems, Inc");
    mac_oui_dict_clean_cb(&mac_oui_dict_clean_timeout);
    uloop_timeout_cancel(&mac_oui_dict_clean_timeout);
    uloop_done();
}

} // namespace
