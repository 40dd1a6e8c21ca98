// The MAC text helpers of the bus face.
#include <gtest/gtest.h>

#include <string>

#include "bus/mac_text.h"

namespace
{

std::string hex(const uint8_t b[6])
{
    char out[18];
    mac_bytes_to_text(b, out);
    return out;
}

TEST(MacTextValid, LengthsAndSeparators)
{
    EXPECT_EQ(mac_text_valid("aabbccddeeff"), 0);
    EXPECT_EQ(mac_text_valid("AABBCCDDEEFF"), 0);
    EXPECT_EQ(mac_text_valid("aa-bb-cc-dd-ee-ff"), 0);
    EXPECT_EQ(mac_text_valid("AA:BB:CC:DD:EE:FF"), 0);
    EXPECT_EQ(mac_text_valid("AA:BB-CC:DD-EE:FF"), 0); // the two may be mixed
    EXPECT_EQ(mac_text_valid(nullptr), -1);
    EXPECT_EQ(mac_text_valid(""), -1);
    EXPECT_EQ(mac_text_valid("aabbccddeef"), -1);
    EXPECT_EQ(mac_text_valid("aabbccddeeffa"), -1);
    EXPECT_EQ(mac_text_valid("aabbccddeefg"), -1);
    EXPECT_EQ(mac_text_valid("AA.BB.CC.DD.EE.FF"), -1);
    EXPECT_EQ(mac_text_valid("AA:BB:CC:DD:EE:F"), -1);
    EXPECT_EQ(mac_text_valid("AA:BB:CC:DD:EE:FG"), -1);
    EXPECT_EQ(mac_text_valid("AAB:BC:CD:DE:EF:F"), -1);
}

TEST(MacTextToBytes, PairsWithOptionalSeparators)
{
    uint8_t b[6] = {};
    ASSERT_EQ(mac_text_to_bytes("aa-bb-cc-dd-ee-0f", b), 0);
    EXPECT_EQ(hex(b), "AA-BB-CC-DD-EE-0F");
    ASSERT_EQ(mac_text_to_bytes("0123456789AB", b), 0);
    EXPECT_EQ(hex(b), "01-23-45-67-89-AB");
    ASSERT_EQ(mac_text_to_bytes("01:23-45:67-89:ab", b), 0);
    EXPECT_EQ(hex(b), "01-23-45-67-89-AB");
    EXPECT_EQ(mac_text_to_bytes(nullptr, b), -1);
}

TEST(MacTextToBytes, BadDigitStopsAndKeepsWhatWasWritten)
{
    uint8_t b[6] = {9, 9, 9, 9, 9, 9};
    EXPECT_EQ(mac_text_to_bytes("11-22-3x-44-55-66", b), -1);
    EXPECT_EQ(b[0], 0x11);
    EXPECT_EQ(b[1], 0x22);
    EXPECT_EQ(b[2], 9);
    EXPECT_EQ(mac_text_to_bytes("11-22", b), -1); // the end is not a digit
}

TEST(MacBytesToText, UpperCaseDashedForm)
{
    const uint8_t b[6] = {0x00, 0x0a, 0xbc, 0xde, 0xf0, 0x01};
    EXPECT_EQ(hex(b), "00-0A-BC-DE-F0-01");
}

TEST(Macstr2num, SeparatorAndLooseSecondDigit)
{
    uint8_t b[6] = {};
    ASSERT_EQ(macstr2num("AA:bb:CC:dd:EE:ff", b, ":"), 0);
    EXPECT_EQ(hex(b), "AA-BB-CC-DD-EE-FF");
    ASSERT_EQ(macstr2num("aabbccddeeff", b, nullptr), 0);
    EXPECT_EQ(hex(b), "AA-BB-CC-DD-EE-FF");
    // Any separator, as long as it is the one given.
    ASSERT_EQ(macstr2num("01.23.45.67.89.ab", b, "."), 0);
    EXPECT_EQ(hex(b), "01-23-45-67-89-AB");
    // The second character isn't checked: 'G' is 'A' + 6, so 16, OR-ed in.
    ASSERT_EQ(macstr2num("1G2233445566", b, nullptr), 0);
    EXPECT_EQ(b[0], 0x10 | 16);
    EXPECT_EQ(b[1], 0x22);
    // The first one is.
    EXPECT_EQ(macstr2num("G12233445566", b, nullptr), -1);
    // A separator not given is not skipped.
    EXPECT_EQ(macstr2num("aa:bb:cc:dd:ee:ff", b, nullptr), -1);
    EXPECT_EQ(macstr2num(nullptr, b, nullptr), -1);
    EXPECT_EQ(macstr2num("aabbccddeeff", nullptr, nullptr), -1);
    // Never past the end of the text.
    EXPECT_EQ(macstr2num("aabbc", b, nullptr), -1);
}

} // namespace
