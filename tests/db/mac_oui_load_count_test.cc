// How often the vendor dictionary is loaded, counted at the library's
// entry: the test binary is linked with --wrap=load_mac_oui_database, so
// every call of the daemon's code passes through the counter below.
#include <gtest/gtest.h>

#include <chrono>

#include "core/openwrt.h"
#include "db/lookups.h"
#include "db/mac_oui_lib.h"

extern "C" int __real_load_mac_oui_database(void);
extern "C" int __wrap_load_mac_oui_database(void);
static int load_calls = 0;
extern "C" int __wrap_load_mac_oui_database(void)
{
    load_calls++;
    return __real_load_mac_oui_database();
}

namespace
{

const uint8_t cisco[6] = {0x00, 0x00, 0x0c, 0x01, 0x02, 0x03};
using clock_type = std::chrono::steady_clock;
clock_type::time_point released_at;

// Runs the loop until `ms` have passed, or stops earlier with uloop_end.
void run_loop_for(int ms)
{
    static uloop_timeout stop;
    stop.cb = [](uloop_timeout *) { uloop_end(); };
    uloop_timeout_set(&stop, ms);
    uloop_run();
    uloop_timeout_cancel(&stop);
}

} // namespace

TEST(MacOuiLoadCount, TwoQueriesFiveSecondsApartLoadOnceAndReleaseTenSecondsAfterTheSecond)
{
    uloop_init();
    release_mac_oui_database();
    load_calls = 0;
    char out[VENDOR_TEXT_SIZE];
    ASSERT_EQ(query_name_by_mac_oui_v2(cisco, out), 0);
    run_loop_for(5000);
    ASSERT_EQ(query_name_by_mac_oui_v2(cisco, out), 0);
    auto second = clock_type::now();
    EXPECT_EQ(load_calls, 1);
    // The release is the daemon's own timer on the loop; it ends the wait.
    auto cb = mac_oui_dict_clean_timeout.cb;
    ASSERT_EQ(cb, mac_oui_dict_clean_cb);
    static bool released = false;
    mac_oui_dict_clean_timeout.cb = [](uloop_timeout *t) {
        mac_oui_dict_clean_cb(t);
        released = true;
        released_at = clock_type::now();
        uloop_end();
    };
    run_loop_for(12000);
    ASSERT_TRUE(released);
    EXPECT_EQ(mac_oui_database_ready(), 0);
    auto after = std::chrono::duration_cast<std::chrono::milliseconds>(released_at - second).count();
    EXPECT_GE(after, MAC_OUI_DICT_HOLD_MS - 50);
    EXPECT_LT(after, MAC_OUI_DICT_HOLD_MS + 1000);
    EXPECT_EQ(load_calls, 1);
    uloop_done();
}
