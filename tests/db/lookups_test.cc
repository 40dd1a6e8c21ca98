// The kernel's device classes, the brand store and the new-clients file.
// "/proc/client-type/devices" is a fixed path that only a kernel module
// makes: each test runs in a private mount namespace (registry_test_util.h)
// where a tmpfs hides procfs, and the file is written there.
#include <gtest/gtest.h>

#include <cstdlib>
#include <string>
#include <sys/mount.h>
#include <sys/stat.h>

#include "db/lookups.h"
#include "registry_test_util.h"

using regtest::write_file;

namespace
{

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

} // namespace

TEST(Lookups, ProcLineWithOneFieldIsNotCounted)
{
    EXPECT_TRUE(regtest::run_in_sandbox([] {
        proc_client_types("02:00:00:00:00:01 3 Mozilla/5.0\n02:00:00:00:00:02\n02-00-00-00-00-03 6\n");
        device_type_info *rows = nullptr;
        int n = 0;
        ASSERT_EQ(get_pctl_device_type_info(&rows, &n), 0);
        ASSERT_EQ(n, 2);
        EXPECT_EQ(rows[0].mac[5], 1);
        EXPECT_EQ(rows[0].type, 3);
        EXPECT_EQ(rows[1].mac[5], 3);
        EXPECT_EQ(rows[1].type, 6);
        std::free(rows);
    }));
}

TEST(Lookups, MissingProcFileFails)
{
    EXPECT_TRUE(regtest::run_in_sandbox([] {
        proc_client_types("");
        unlink("/proc/client-type/devices");
        device_type_info *rows = nullptr;
        int n = 3;
        EXPECT_EQ(get_pctl_device_type_info(&rows, &n), -1);
        EXPECT_EQ(rows, nullptr);
        EXPECT_EQ(n, 0);
    }));
}

TEST(Lookups, BrandsAndVersionsOfListSections)
{
    EXPECT_TRUE(regtest::run_in_sandbox([] {
        write_file(
            "/etc/config/history_list",
            "config list\n\toption mac '020000000001'\n\toption brand 'Acme'\n\toption systemVersion '2'\n\n"
            "config other\n\toption mac '020000000009'\n\n"
            "config list\n\toption mac '020000000002'\n");
        fing_info *rows = nullptr;
        int n = 0;
        ASSERT_EQ(get_fing_info(&rows, &n), 0);
        ASSERT_EQ(n, 2);
        EXPECT_EQ(rows[0].mac[5], 1);
        EXPECT_STREQ(rows[0].brand, "Acme");
        EXPECT_STREQ(rows[0].system_version, "2");
        EXPECT_EQ(rows[1].mac[5], 2);
        EXPECT_STREQ(rows[1].brand, "");
        std::free(rows);
    }));
}

TEST(Lookups, HistoryWithoutListSectionsGivesNoRows)
{
    EXPECT_TRUE(regtest::run_in_sandbox([] {
        write_file("/etc/config/history_list", "config other 'x'\n\toption mac '020000000001'\n");
        fing_info *rows = nullptr;
        int n = 5;
        ASSERT_EQ(get_fing_info(&rows, &n), 0);
        EXPECT_EQ(n, 0);
        std::free(rows);
    }));
}

TEST(Lookups, NewClientsFileStopsAt388)
{
    EXPECT_TRUE(regtest::run_in_sandbox([] {
        std::string text;
        for (int i = 1; i <= 389; i++)
            text += regtest::hex_mac(i) + "\n";
        write_file("/tmp/new_access_clients", text);
        uint8_t macs[NEW_CLIENT_MAX][6] = {};
        int n = 0;
        ASSERT_EQ(get_new_client(macs, &n), 0);
        EXPECT_EQ(n, 388);
        EXPECT_EQ(macs[387][4], 388 >> 8);
        EXPECT_EQ(macs[387][5], 388 & 0xff);
        EXPECT_EQ(new_client_database_update(nullptr), 0);
        unlink("/tmp/new_access_clients");
        EXPECT_EQ(get_new_client(macs, &n), -1);
        EXPECT_EQ(new_client_database_update(nullptr), -1);
    }));
}
