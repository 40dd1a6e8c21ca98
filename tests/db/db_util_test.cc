// Text helpers of the data sources: MAC options, day names, time slots.
#include <cstring>
#include <gtest/gtest.h>

#include "db/db_util.h"

namespace
{

TEST(WeekdayMask, DayNamesInGroupsOfThree)
{
    EXPECT_EQ(weekdays_to_mask("Mon Tue"), 6);
    EXPECT_EQ(weekdays_to_mask("Sun Mon Tue Wed Thu Fri Sat"), 127);
    EXPECT_EQ(weekdays_to_mask("mon"), 0);
    EXPECT_EQ(weekdays_to_mask("Monday"), 2); // "Mon", then "day"
    EXPECT_EQ(weekdays_to_mask("  Sat\tSun\n"), 65);
    EXPECT_EQ(weekdays_to_mask("Mon,Tue"), 2); // ",Tu" matches nothing, "e" neither
    EXPECT_EQ(weekdays_to_mask("Fr"), 0);
    EXPECT_EQ(weekdays_to_mask(""), 0);
    EXPECT_EQ(weekdays_to_mask(nullptr), 0);
}

TEST(TimeSlots, BeginAndEndWithTheNextDay)
{
    uint8_t s[4];
    parse_time_slots("2200 2359", "0000 0600", s);
    EXPECT_EQ(s[0], 22);
    EXPECT_EQ(s[1], 0);
    EXPECT_EQ(s[2], 6);
    EXPECT_EQ(s[3], 0);
    parse_time_slots("0830   2215", nullptr, s);
    EXPECT_EQ(s[0], 8);
    EXPECT_EQ(s[1], 30);
    EXPECT_EQ(s[2], 22);
    EXPECT_EQ(s[3], 15);
    // The first word of the next day has no effect; one word there neither.
    parse_time_slots("0830 2215", "1111", s);
    EXPECT_EQ(s[2], 22);
    EXPECT_EQ(s[3], 15);
}

TEST(TimeSlots, NoUsableSlotsLeavesTheMarker)
{
    uint8_t s[4];
    parse_time_slots(nullptr, "0000 0600", s);
    EXPECT_EQ(s[0], 0xff); // whatever the next day did
    EXPECT_EQ(s[2], 6);
    parse_time_slots("0830", nullptr, s);
    EXPECT_EQ(s[0], 0xff);
    parse_time_slots("", nullptr, s);
    EXPECT_EQ(s[0], 0xff);
    // A word of 40 characters keeps its first four.
    parse_time_slots("1234567890123456789012345678901234567890 2359", nullptr, s);
    EXPECT_EQ(s[0], 12);
    EXPECT_EQ(s[1], 34);
    EXPECT_EQ(s[2], 23);
    parse_time_slots("ab cd", nullptr, s);
    EXPECT_EQ(s[0], 0);
    EXPECT_EQ(s[1], 0);
}

TEST(MacOption, ExactlySeventeenCharactersAnySeparator)
{
    uint8_t mac[6] = {9, 9, 9, 9, 9, 9};
    EXPECT_EQ(mac_text_to_bytes17("aa:BB-cc.DD ee_ff", mac), 6);
    const uint8_t want[6] = {0xaa, 0xbb, 0xcc, 0xdd, 0xee, 0xff};
    EXPECT_EQ(std::memcmp(mac, want, 6), 0);
    uint8_t other[6] = {1, 2, 3, 4, 5, 6};
    EXPECT_EQ(mac_text_to_bytes17("AABBCCDDEEFF", other), -1);
    EXPECT_EQ(mac_text_to_bytes17("AA-BB-CC-DD-EE-FF-", other), -1);
    EXPECT_EQ(mac_text_to_bytes17(nullptr, other), -1);
    const uint8_t same[6] = {1, 2, 3, 4, 5, 6};
    EXPECT_EQ(std::memcmp(other, same, 6), 0);
    // The first pair that can't be read ends it; earlier bytes stay.
    EXPECT_EQ(mac_text_to_bytes17("11-22-zz-44-55-66", other), 2);
    const uint8_t partial[6] = {0x11, 0x22, 3, 4, 5, 6};
    EXPECT_EQ(std::memcmp(other, partial, 6), 0);
    // "%hhx" takes one digit when the second isn't one.
    EXPECT_EQ(mac_text_to_bytes17("1g-22-33-44-55-66", other), 6);
    EXPECT_EQ(other[0], 1);
}

TEST(MacOption, SetAndInList)
{
    EXPECT_EQ(mac_text_is_set("02-AA-BB-CC-DD-EE"), 1);
    EXPECT_EQ(mac_text_is_set("00-00-00-00-00-00"), 0);
    EXPECT_EQ(mac_text_is_set("00-AA-BB-CC-DD-EE"), 0);
    EXPECT_EQ(mac_text_is_set("02AABBCCDDEE"), 0);
    EXPECT_EQ(mac_text_is_set(nullptr), 0);
    uint8_t rows[2][6] = {{1, 2, 3, 4, 5, 6}, {6, 5, 4, 3, 2, 1}};
    mac_list list{rows, 2};
    uint8_t probe[6] = {6, 5, 4, 3, 2, 1};
    EXPECT_EQ(mac_in_list(probe, &list), 1);
    probe[5] = 0;
    EXPECT_EQ(mac_in_list(probe, &list), 0);
    uint8_t copy[6];
    mac_copy(copy, rows[1]);
    EXPECT_EQ(std::memcmp(copy, rows[1], 6), 0);
}

TEST(Ipv4Text, DottedQuadOnly)
{
    uint32_t out = 7;
    EXPECT_EQ(ipv4_text_to_u32("192.168.1.1", &out), 1);
    EXPECT_EQ(out, 0x0101a8c0u);
    EXPECT_EQ(ipv4_text_to_u32("192.168.1", &out), 0);
    EXPECT_EQ(out, 0u);
    EXPECT_EQ(ipv4_text_to_u32(nullptr, &out), -1);
    EXPECT_EQ(ipv4_text_to_u32("1.1.1.1", nullptr), -1);
}

TEST(SplitTwoWords, MissingWordsLeaveTheirBuffers)
{
    char a[5] = "keep";
    char b[5] = "keep";
    split_two_words("", " ", a, sizeof(a), b, sizeof(b));
    EXPECT_STREQ(a, "keep");
    split_two_words("  one  ", " ", a, sizeof(a), b, sizeof(b));
    EXPECT_STREQ(a, "one");
    EXPECT_STREQ(b, "keep");
    split_two_words("alpha beta gamma", " ", a, sizeof(a), b, sizeof(b));
    EXPECT_STREQ(a, "alph");
    EXPECT_STREQ(b, "beta");
}

} // namespace
