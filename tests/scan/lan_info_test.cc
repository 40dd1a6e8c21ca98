#include "scan/lan_info.h"

#include <gtest/gtest.h>

#include <cstring>

#include "scan/exec.h"

TEST(LanMask, TwentyFour)
{
    EXPECT_EQ(prefix_from_mask("255.255.255.0", 0), 24);
    EXPECT_EQ(prefix_from_mask("255.255.0.0", 0), 16);
    EXPECT_EQ(prefix_from_mask("255.255.255.255", 0), 32);
    EXPECT_EQ(prefix_from_mask("128.0.0.0", 0), 1);
    EXPECT_EQ(prefix_from_mask("255.255.255.128", 0), 25);
}

TEST(LanMask, EmptyOrZeroKeepsOld)
{
    EXPECT_EQ(prefix_from_mask("", 24), 24);
    EXPECT_EQ(prefix_from_mask("0.0.0.0", 16), 16);
    EXPECT_EQ(prefix_from_mask(nullptr, 8), 8);
    EXPECT_EQ(prefix_from_mask("garbage", 20), 20);
}

TEST(LanMask, OnlyTheLowestSetBitCounts)
{
    // A mask with holes is not validated: the lowest set bit decides.
    EXPECT_EQ(prefix_from_mask("255.0.255.0", 0), 24);
}

TEST(LanAddress, DigitScan)
{
    EXPECT_EQ(ip_text_to_host("192.168.1.10"), 0xC0A8010Au);
    EXPECT_EQ(ip_text_to_host("10.0.0.1"), 0x0A000001u);
    EXPECT_EQ(ip_text_to_host(""), 0u);
}

TEST(LanAddress, InLan)
{
    EXPECT_TRUE(ip_in_lan_prefix("192.168.1.77", "192.168.1.1", 24));
    EXPECT_FALSE(ip_in_lan_prefix("192.168.2.77", "192.168.1.1", 24));
    EXPECT_TRUE(ip_in_lan_prefix("192.168.2.77", "192.168.1.1", 16));
    EXPECT_FALSE(ip_in_lan_prefix("10.0.0.1", "192.168.1.1", 8));
    // Before the mask is read every address counts as inside.
    EXPECT_TRUE(ip_in_lan_prefix("10.0.0.1", "192.168.1.1", 0));
    EXPECT_TRUE(ip_in_lan_prefix("192.168.1.1", "192.168.1.1", 32));
    EXPECT_FALSE(ip_in_lan_prefix("192.168.1.2", "192.168.1.1", 32));
}

TEST(LanAddress, UsesGlobalPrefix)
{
    int32_t saved = lan_info.prefix_len;
    lan_info.prefix_len = 24;
    EXPECT_TRUE(ip_in_lan("192.168.1.9", "192.168.1.1"));
    EXPECT_FALSE(ip_in_lan("192.168.3.9", "192.168.1.1"));
    EXPECT_FALSE(ip_in_lan(nullptr, "192.168.1.1"));
    lan_info.prefix_len = saved;
}

TEST(LanDefaults, GatewayUnknown)
{
    EXPECT_EQ(lan_info.gateway_port, -1);
    const uint8_t zero[6] = {};
    EXPECT_EQ(std::memcmp(lan_info.gateway_mac, zero, 6), 0);
}

TEST(Gateway, PortColumnOfShowmacs)
{
    EXPECT_EQ(parse_port_column("  3\t02:11:22:33:44:55\tno\t\t   1.23\n"), 3);
    EXPECT_EQ(parse_port_column("12\taa"), 12);
    EXPECT_EQ(parse_port_column("   \n"), -1);
    EXPECT_EQ(parse_port_column("port no\tmac addr"), -1);
    EXPECT_EQ(parse_port_column(""), -1);
}

TEST(Gateway, WithoutNeighbourEntryIsZeroAndNoPort)
{
    lan_info.gateway_port = 4;
    lan_info.gateway_mac[0] = 0x02;
    // A documentation address that no neighbour table holds.
    get_gateway_mac("203.0.113.254");
    const uint8_t zero[6] = {};
    EXPECT_EQ(std::memcmp(lan_info.gateway_mac, zero, 6), 0);
    EXPECT_EQ(lan_info.gateway_port, -1);
}

TEST(Exec, CapturesOutput)
{
    char buf[64];
    int n = exec_and_res("printf 'hello world'", buf, sizeof(buf));
    ASSERT_EQ(n, 11);
    EXPECT_STREQ(buf, "hello world");
}

TEST(Exec, ReadsAtMostSize)
{
    char buf[16];
    std::memset(buf, 'x', sizeof(buf));
    int n = exec_and_res("printf 'abcdefghij'", buf, 4);
    EXPECT_EQ(n, 4);
    EXPECT_EQ(std::string(buf, 4), "abcd");
}

TEST(Exec, NoOutputIsZeroAndStatusIgnored)
{
    char buf[8];
    EXPECT_EQ(exec_and_res("exit 3", buf, sizeof(buf)), 0);
    EXPECT_EQ(buf[0], '\0');
}

TEST(Exec, NullArgumentsAreRefused)
{
    char buf[8];
    EXPECT_EQ(exec_and_res(nullptr, buf, sizeof(buf)), -1);
    EXPECT_EQ(exec_and_res("true", nullptr, 8), -1);
}
