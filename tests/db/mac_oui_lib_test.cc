// The vendor library stand-in over the IEEE registries.
#include <gtest/gtest.h>

#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <string>

#include "db/mac_oui_lib.h"

namespace
{

std::string vendor_of(std::initializer_list<uint8_t> bytes)
{
    uint8_t mac[6];
    std::copy(bytes.begin(), bytes.end(), mac);
    char out[MAC_OUI_VENDOR_SIZE];
    if (query_mac_oui(mac, out, sizeof(out)) != 0)
        return "<none>";
    return out;
}

class MacOuiLib : public ::testing::Test
{
  protected:
    void TearDown() override
    {
        release_mac_oui_database();
        unsetenv("MAC_OUI_DATA_DIR");
    }
};

// How long the load takes is measured by build/bench/db_mac_oui_bench.
TEST_F(MacOuiLib, LoadsTheSystemRegistries)
{
    ASSERT_EQ(load_mac_oui_database(), 0);
    EXPECT_NE(mac_oui_database_ready(), 0);
    EXPECT_EQ(vendor_of({0x00, 0x00, 0x0c, 0x12, 0x34, 0x56}), "Cisco Systems, Inc");
    EXPECT_EQ(vendor_of({0x3c, 0x5a, 0xb4, 0x00, 0x00, 0x01}), "Google, Inc.");
}

TEST_F(MacOuiLib, LongestPrefixWins)
{
    ASSERT_EQ(load_mac_oui_database(), 0);
    // 70:B3:D5 is a block of the registration authority, split in MA-S rows.
    EXPECT_EQ(vendor_of({0x70, 0xb3, 0xd5, 0xf2, 0xf1, 0x23}), "TELEPLATFORMS");
    // F8:B5:68 is split in MA-M rows.
    EXPECT_EQ(vendor_of({0xf8, 0xb5, 0x68, 0x31, 0x00, 0x00}), "Dongwoo Engineering Co.,Ltd");
    EXPECT_EQ(vendor_of({0xf8, 0xb5, 0x68, 0x00, 0x00, 0x00}), "LifePrint Products, Inc.");
}

TEST_F(MacOuiLib, ReleasedDatabaseAnswersNothing)
{
    ASSERT_EQ(load_mac_oui_database(), 0);
    release_mac_oui_database();
    EXPECT_EQ(mac_oui_database_ready(), 0);
    EXPECT_EQ(vendor_of({0x00, 0x00, 0x0c, 0, 0, 0}), "<none>");
}

TEST_F(MacOuiLib, OwnRegistriesWithQuotingAndBrokenRows)
{
    auto dir = std::filesystem::temp_directory_path() / ("mac-oui-" + std::to_string(getpid()));
    std::filesystem::create_directories(dir);
    std::ofstream(dir / "oui.csv") << "Registry,Assignment,Organization Name,Organization Address\n"
                                      "MA-L,AABBCC,\"Quote \"\"Q\"\", Inc.\",somewhere\r\n"
                                      "MA-L,ZZZZZZ,Broken,x\n"
                                      "MA-L,AABBC,Short,x\n"
                                      "MA-L,112233,  Padded Name  ,x";
    setenv("MAC_OUI_DATA_DIR", dir.c_str(), 1);
    ASSERT_EQ(load_mac_oui_database(), 0);
    EXPECT_EQ(vendor_of({0xaa, 0xbb, 0xcc, 1, 2, 3}), "Quote \"Q\", Inc.");
    EXPECT_EQ(vendor_of({0x11, 0x22, 0x33, 1, 2, 3}), "Padded Name");
    EXPECT_EQ(vendor_of({0x00, 0x00, 0x0c, 1, 2, 3}), "<none>");
    uint8_t mac[6] = {0xaa, 0xbb, 0xcc, 0, 0, 0};
    char small[6];
    ASSERT_EQ(query_mac_oui(mac, small, sizeof(small)), 0);
    EXPECT_STREQ(small, "Quote");
    EXPECT_EQ(query_mac_oui(nullptr, small, sizeof(small)), -1);
    EXPECT_EQ(query_mac_oui(mac, nullptr, 4), -1);
    std::filesystem::remove_all(dir);
}

TEST_F(MacOuiLib, NoRegistryNoDatabase)
{
    setenv("MAC_OUI_DATA_DIR", "/nonexistent-mac-oui", 1);
    EXPECT_EQ(load_mac_oui_database(), -1);
    EXPECT_EQ(mac_oui_database_ready(), 0);
}

TEST(MacOuiCheck, AcceptsTheThreeFormsOnly)
{
    EXPECT_NE(mac_oui_check_mac("00000c123456"), 0);
    EXPECT_NE(mac_oui_check_mac("00-00-0C-12-34-56"), 0);
    EXPECT_NE(mac_oui_check_mac("00:00:0c:12:34:56"), 0);
    EXPECT_EQ(mac_oui_check_mac(nullptr), 0);
    EXPECT_EQ(mac_oui_check_mac(""), 0);
    EXPECT_EQ(mac_oui_check_mac("00:00-0c:12:34:56"), 0);
    EXPECT_EQ(mac_oui_check_mac("00.00.0c.12.34.56"), 0);
    EXPECT_EQ(mac_oui_check_mac("00000g123456"), 0);
    EXPECT_EQ(mac_oui_check_mac("00:00:0c:12:34:5"), 0);
    EXPECT_EQ(mac_oui_check_mac("00:00:0c:12:34:567"), 0);
}

} // namespace
