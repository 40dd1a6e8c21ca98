#include "scan/arp.h"

#include <gtest/gtest.h>

#include <arpa/inet.h>
#include <cstring>

TEST(ArpFrame, RequestLayout)
{
    const uint8_t client[6] = {0x02, 0xaa, 0xbb, 0xcc, 0xdd, 0xee};
    const uint8_t lan[6] = {0x02, 0x00, 0x00, 0x00, 0x00, 0x01};
    uint32_t lan_ip = 0, client_ip = 0;
    inet_pton(AF_INET, "192.168.1.1", &lan_ip);
    inet_pton(AF_INET, "192.168.1.23", &client_ip);
    uint8_t f[ARP_FRAME_LEN];
    std::memset(f, 0x5a, sizeof(f));
    build_arp_request(f, client, lan, lan_ip, client_ip);
    const uint8_t expect[ARP_FRAME_LEN] = {
        0x02, 0xaa, 0xbb, 0xcc, 0xdd, 0xee,  // destination: the client, unicast
        0x02, 0x00, 0x00, 0x00, 0x00, 0x01,  // source: the LAN
        0x08, 0x06,                          // ARP
        0x00, 0x01,                          // hardware type Ethernet
        0x08, 0x00,                          // protocol IPv4
        6, 4,                                // address lengths
        0x00, 0x01,                          // request
        0x02, 0x00, 0x00, 0x00, 0x00, 0x01,  // sender MAC
        192, 168, 1, 1,                      // sender IP
        0, 0, 0, 0, 0, 0,                    // target MAC zero
        192, 168, 1, 23,                     // target IP
    };
    EXPECT_EQ(std::memcmp(f, expect, sizeof(expect)), 0);
}

TEST(ArpFrame, ParseReply)
{
    uint8_t f[60] = {};
    f[12] = 0x08;
    f[13] = 0x06;
    f[21] = 2;
    const uint8_t mac[6] = {0x02, 1, 2, 3, 4, 5};
    std::memcpy(f + 22, mac, 6);
    f[28] = 10;
    f[29] = 0;
    f[30] = 0;
    f[31] = 7;
    arp_frame_info info{};
    ASSERT_TRUE(parse_arp_frame(std::span<const uint8_t>(f, sizeof(f)), info));
    EXPECT_EQ(info.op, 2);
    EXPECT_EQ(std::memcmp(info.sender_mac, mac, 6), 0);
    EXPECT_STREQ(info.sender_ip_text, "10.0.0.7");
}

TEST(ArpFrame, ShortFrameIsRefused)
{
    uint8_t f[41] = {};
    arp_frame_info info{};
    EXPECT_FALSE(parse_arp_frame(std::span<const uint8_t>(f, sizeof(f)), info));
    EXPECT_FALSE(parse_arp_frame({}, info));
}
