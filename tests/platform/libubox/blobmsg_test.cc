// blobmsg: element layout, builders, getters, validation and parsing.
#include <gtest/gtest.h>

#include <cmath>
#include <vector>

#include "test_util.h"

using ubox_test::Buf;
using ubox_test::hex;
using ubox_test::Raw;

namespace {

// The first child of a root.
blob_attr *first(blob_attr *root)
{
    return static_cast<blob_attr *>(blob_data(root));
}

TEST(BlobmsgLayout, StringElement)
{
    Buf buf;
    blob_buf_init(buf.get(), 0);
    ASSERT_EQ(blobmsg_add_string(buf.get(), "s", "ab"), 0);
    // root | ext type 3 raw 11 | namelen 1 's' NUL | "ab" NUL pad
    EXPECT_BYTES(buf.head(), "00000010 8300000b 00017300 61620000");
}

TEST(BlobmsgLayout, U32Element)
{
    Buf buf;
    blob_buf_init(buf.get(), 0);
    blobmsg_add_u32(buf.get(), "i", 0x01020304);
    EXPECT_BYTES(first(buf.head()), "8500000c 00016900 01020304");
}

TEST(BlobmsgLayout, EmptyNameStillHasNameHeader)
{
    Buf buf;
    blob_buf_init(buf.get(), 0);
    blobmsg_add_u8(buf.get(), "", 1);
    blobmsg_add_u8(buf.get(), nullptr, 0);
    EXPECT_BYTES(buf.head(), "0000001c 87000009 00000000 01000000 87000009 00000000 00000000");
    EXPECT_TRUE(blob_is_extended(first(buf.head())));
}

TEST(BlobmsgLayout, U64WithLongName)
{
    Buf buf;
    blob_buf_init(buf.get(), 0);
    blobmsg_add_u64(buf.get(), "abcdefgh", 1);
    EXPECT_BYTES(first(buf.head()),
                 "84000018 00086162 63646566 67680000 00000000 00000001");
}

TEST(BlobmsgLayout, U16AndThreeLetterName)
{
    Buf buf;
    blob_buf_init(buf.get(), 0);
    blobmsg_add_u16(buf.get(), "x", 7);
    blobmsg_add_u32(buf.get(), "abc", 5);
    // u16: 4 + 4 + 2 = 10; "abc" header: 2 + 3 + 1 = 6, padded to 8.
    EXPECT_BYTES(buf.head(), "00000020 8600000a 00017800 00070000 85000010 00036162 63000000 00000005");
}

TEST(BlobmsgLayout, DoubleIsBigEndianBitPattern)
{
    Buf buf;
    blob_buf_init(buf.get(), 0);
    blobmsg_add_double(buf.get(), "d", 1.5);
    EXPECT_BYTES(first(buf.head()), "88000010 00016400 3ff80000 00000000");
}

TEST(BlobmsgLayout, TableHoldingU16)
{
    Buf buf;
    blob_buf_init(buf.get(), 0);
    void *c = blobmsg_open_table(buf.get(), "t");
    EXPECT_EQ(c, reinterpret_cast<void *>(0x1234567));
    blobmsg_add_u16(buf.get(), "x", 7);
    blobmsg_close_table(buf.get(), c);
    EXPECT_BYTES(buf.head(), "00000018 82000014 00017400 8600000a 00017800 00070000");
}

TEST(BlobmsgLayout, NestedArrayInTable)
{
    Buf buf;
    blob_buf_init(buf.get(), 0);
    void *t = blobmsg_open_table(buf.get(), "t");
    void *a = blobmsg_open_array(buf.get(), "a");
    blobmsg_add_u32(buf.get(), nullptr, 1);
    blobmsg_close_array(buf.get(), a);
    blobmsg_close_table(buf.get(), t);
    blobmsg_add_u8(buf.get(), "z", 0);
    EXPECT_BYTES(buf.head(),
                 "0000002c 8200001c 00017400 81000014 00016100 8500000c 00000000 00000001"
                 " 87000009 00017a00 00000000");
}

TEST(BlobmsgLayout, EmptyContainers)
{
    Buf buf;
    blob_buf_init(buf.get(), 0);
    void *a = blobmsg_open_array(buf.get(), "a");
    blobmsg_close_array(buf.get(), a);
    void *t = blobmsg_open_table(buf.get(), nullptr);
    blobmsg_close_table(buf.get(), t);
    EXPECT_BYTES(buf.head(), "00000014 81000008 00016100 82000008 00000000");
}

TEST(BlobmsgLayout, BufInitUsesTableId)
{
    Buf buf;
    ASSERT_EQ(blobmsg_buf_init(buf.get()), 0);
    EXPECT_BYTES(buf.head(), "02000004");
}

TEST(BlobmsgLayout, AddFieldRaw)
{
    Buf buf;
    blob_buf_init(buf.get(), 0);
    EXPECT_EQ(blobmsg_add_field(buf.get(), BLOBMSG_TYPE_UNSPEC, "n", nullptr, 0), 0);
    EXPECT_BYTES(buf.head(), "0000000c 80000008 00016e00");
}

TEST(BlobmsgLayout, AddBlobCopiesElement)
{
    Buf src;
    blob_buf_init(src.get(), 0);
    blobmsg_add_string(src.get(), "name", "value");
    Buf buf;
    blob_buf_init(buf.get(), 0);
    ASSERT_EQ(blobmsg_add_blob(buf.get(), first(src.head())), 0);
    EXPECT_EQ(ubox_test::bytes(buf.head()), ubox_test::bytes(src.head()));
    // namelen 4: 2 + 4 + 1 = 7 -> 8; "value" NUL = 6 -> raw 18
    EXPECT_BYTES(first(buf.head()), "83000012 00046e61 6d650000 76616c75 65000000");
}

TEST(BlobmsgLayout, PrintfBuildsString)
{
    Buf buf;
    blob_buf_init(buf.get(), 0);
    EXPECT_EQ(blobmsg_printf(buf.get(), "p", "%d-%s", 42, "x"), 4);
    EXPECT_BYTES(buf.head(), "00000014 8300000d 00017000 34322d78 00000000");
    blobmsg_add_u8(buf.get(), "b", 1);
    EXPECT_EQ(blob_raw_len(buf.head()), 20u + 12u);
}

TEST(BlobmsgLayout, StringBufferInPlace)
{
    Buf buf;
    blob_buf_init(buf.get(), 0);
    char *s = static_cast<char *>(blobmsg_alloc_string_buffer(buf.get(), "s", 10));
    ASSERT_NE(s, nullptr);
    std::strcpy(s, "ab");
    blobmsg_add_string_buffer(buf.get());
    EXPECT_BYTES(buf.head(), "00000010 8300000b 00017300 61620000");
}

TEST(BlobmsgLayout, StringBufferRealloc)
{
    Buf buf;
    blob_buf_init(buf.get(), 0);
    char *s = static_cast<char *>(blobmsg_alloc_string_buffer(buf.get(), "s", 4));
    ASSERT_NE(s, nullptr);
    s = static_cast<char *>(blobmsg_realloc_string_buffer(buf.get(), 2000));
    ASSERT_NE(s, nullptr);
    std::memset(s, 'x', 1999);
    s[1999] = 0;
    blobmsg_add_string_buffer(buf.get());
    blob_attr *a = first(buf.head());
    EXPECT_EQ(blobmsg_type(a), BLOBMSG_TYPE_STRING);
    EXPECT_EQ(std::strlen(blobmsg_get_string(a)), 1999u);
    EXPECT_EQ(blob_raw_len(a), 4u + 4u + 2000u);
    EXPECT_EQ(blob_raw_len(buf.head()), 4u + 2008u);
    EXPECT_TRUE(blobmsg_check_attr(a, true));
}

TEST(BlobmsgLayout, CookiesSurviveGrowth)
{
    Buf buf;
    blob_buf_init(buf.get(), 0);
    void *t = blobmsg_open_table(buf.get(), "t");
    for (int i = 0; i < 100; i++)
        blobmsg_add_u32(buf.get(), "n", static_cast<uint32_t>(i));
    blobmsg_close_table(buf.get(), t);
    blob_attr *table = first(buf.head());
    EXPECT_EQ(blob_raw_len(table), 4u + 4u + 100u * 12u);
    EXPECT_EQ(blobmsg_check_array(table, BLOBMSG_TYPE_INT32), 100);
}

TEST(BlobmsgRead, NameTypeAndData)
{
    Buf buf;
    blob_buf_init(buf.get(), 0);
    blobmsg_add_u32(buf.get(), "abc", 5);
    blob_attr *a = first(buf.head());
    EXPECT_STREQ(blobmsg_name(a), "abc");
    EXPECT_EQ(blobmsg_name(a), reinterpret_cast<char *>(a) + 6);
    EXPECT_EQ(blobmsg_type(a), BLOBMSG_TYPE_INT32);
    EXPECT_EQ(blobmsg_data(a), reinterpret_cast<char *>(a) + 12);
    EXPECT_EQ(blobmsg_data_len(a), 4u);
    EXPECT_EQ(blobmsg_len(a), 4u);
    EXPECT_EQ(blobmsg_hdrlen(0), 4);
    EXPECT_EQ(blobmsg_hdrlen(1), 4);
    EXPECT_EQ(blobmsg_hdrlen(2), 8);
    EXPECT_EQ(blobmsg_hdrlen(5), 8);
    EXPECT_EQ(blobmsg_hdrlen(6), 12);
    EXPECT_EQ(BLOBMSG_PADDING(5), 8);
}

TEST(BlobmsgRead, RootIsNotExtended)
{
    Buf buf;
    blob_buf_init(buf.get(), 0);
    blobmsg_add_u8(buf.get(), "a", 1);
    EXPECT_EQ(blobmsg_data(buf.head()), blob_data(buf.head()));
    EXPECT_EQ(blobmsg_data_len(buf.head()), blob_len(buf.head()));
    EXPECT_EQ(blobmsg_data(nullptr), nullptr);
    EXPECT_EQ(blobmsg_data_len(nullptr), 0u);
}

TEST(BlobmsgRead, ClearNameKeepsValue)
{
    Buf buf;
    blob_buf_init(buf.get(), 0);
    blobmsg_add_u32(buf.get(), "abc", 5);
    blob_attr *a = first(buf.head());
    blobmsg_clear_name(a);
    EXPECT_STREQ(blobmsg_name(a), "");
    EXPECT_EQ(blobmsg_get_u32(a), 5u);
}

TEST(BlobmsgRead, Getters)
{
    Buf buf;
    blob_buf_init(buf.get(), 0);
    blobmsg_add_u8(buf.get(), "u8", 200);
    blobmsg_add_u16(buf.get(), "u16", 0xfffe);
    blobmsg_add_u32(buf.get(), "u32", 0xfffffffd);
    blobmsg_add_u64(buf.get(), "u64", 0xfffffffffffffffcULL);
    blobmsg_add_double(buf.get(), "d", -2.25);
    blobmsg_add_string(buf.get(), "s", "str");
    blobmsg_add_u8(buf.get(), "b", 0);
    std::vector<blob_attr *> e;
    blob_attr *pos;
    size_t rem;
    blobmsg_for_each_attr(pos, buf.head(), rem) e.push_back(pos);
    ASSERT_EQ(e.size(), 7u);
    EXPECT_EQ(blobmsg_get_u8(e[0]), 200);
    EXPECT_TRUE(blobmsg_get_bool(e[0]));
    EXPECT_EQ(blobmsg_get_u16(e[1]), 0xfffe);
    EXPECT_EQ(blobmsg_get_u32(e[2]), 0xfffffffdu);
    EXPECT_EQ(blobmsg_get_u64(e[3]), 0xfffffffffffffffcULL);
    EXPECT_EQ(blobmsg_get_double(e[4]), -2.25);
    EXPECT_STREQ(blobmsg_get_string(e[5]), "str");
    EXPECT_FALSE(blobmsg_get_bool(e[6]));
    EXPECT_EQ(blobmsg_get_string(nullptr), nullptr);
}

TEST(BlobmsgRead, CastWidensIntegers)
{
    Buf buf;
    blob_buf_init(buf.get(), 0);
    blobmsg_add_u8(buf.get(), "a", 0xff);
    blobmsg_add_u16(buf.get(), "b", 0xffff);
    blobmsg_add_u32(buf.get(), "c", 0xffffffff);
    blobmsg_add_u64(buf.get(), "d", 0xffffffffffffffffULL);
    blobmsg_add_string(buf.get(), "e", "1");
    blobmsg_add_double(buf.get(), "f", 1.0);
    std::vector<blob_attr *> e;
    blob_attr *pos;
    size_t rem;
    blobmsg_for_each_attr(pos, buf.head(), rem) e.push_back(pos);
    ASSERT_EQ(e.size(), 6u);
    EXPECT_EQ(blobmsg_cast_u64(e[0]), 0xffu);
    EXPECT_EQ(blobmsg_cast_u64(e[1]), 0xffffu);
    EXPECT_EQ(blobmsg_cast_u64(e[2]), 0xffffffffu);
    EXPECT_EQ(blobmsg_cast_u64(e[3]), 0xffffffffffffffffULL);
    EXPECT_EQ(blobmsg_cast_s64(e[0]), -1);
    EXPECT_EQ(blobmsg_cast_s64(e[1]), -1);
    EXPECT_EQ(blobmsg_cast_s64(e[2]), -1);
    EXPECT_EQ(blobmsg_cast_s64(e[3]), -1);
    EXPECT_EQ(blobmsg_cast_u64(e[4]), 0u);
    EXPECT_EQ(blobmsg_cast_s64(e[5]), 0);
}

TEST(BlobmsgRead, ForEachOverTableAndRoot)
{
    Buf buf;
    blob_buf_init(buf.get(), 0);
    void *t = blobmsg_open_table(buf.get(), "t");
    blobmsg_add_u8(buf.get(), "a", 1);
    blobmsg_add_u8(buf.get(), "b", 2);
    blobmsg_close_table(buf.get(), t);
    blob_attr *pos;
    size_t rem;
    std::string names;
    blobmsg_for_each_attr(pos, first(buf.head()), rem) names += blobmsg_name(pos);
    EXPECT_EQ(names, "ab");
    int n = 0;
    blobmsg_for_each_attr(pos, buf.head(), rem) n++;
    EXPECT_EQ(n, 1);
    rem = blobmsg_data_len(first(buf.head()));
    n = 0;
    __blobmsg_for_each_attr(pos, first(buf.head()), rem) n++;
    EXPECT_EQ(n, 2);
}

TEST(BlobmsgIter, UnderscoreFormTakesTheContainerAndTheCallersCount)
{
    Buf buf;
    blob_buf_init(buf.get(), 0);
    void *t = blobmsg_open_table(buf.get(), "t");
    blobmsg_add_string(buf.get(), "a", "x");
    blobmsg_add_string(buf.get(), "b", "y");
    blobmsg_add_string(buf.get(), "c", "z");
    blobmsg_close_table(buf.get(), t);
    blob_attr *table = first(buf.head());
    blob_attr *pos;
    std::string names;
    // A count that covers only the first child stops the walk after it.
    size_t rem = blob_pad_len(static_cast<blob_attr *>(blobmsg_data(table)));
    __blobmsg_for_each_attr(pos, table, rem) names += blobmsg_name(pos);
    EXPECT_EQ(names, "a");
    names.clear();
    rem = blobmsg_data_len(table);
    __blobmsg_for_each_attr(pos, table, rem) names += blobmsg_name(pos);
    EXPECT_EQ(names, "abc");
    EXPECT_EQ(rem, 0u);
}

// ---- blobmsg_check_attr ------------------------------------------------

TEST(BlobmsgCheck, ValidElements)
{
    Raw u32(hex("8500000c 00016900 01020304"));
    EXPECT_TRUE(blobmsg_check_attr(u32.attr(), true));
    EXPECT_TRUE(blobmsg_check_attr(u32.attr(), false));
    Raw str(hex("8300000b 00017300 61620000"));
    EXPECT_TRUE(blobmsg_check_attr(str.attr(), true));
}

TEST(BlobmsgCheck, TooShortRawLength)
{
    Raw r(hex("85000003 00000000"));
    EXPECT_FALSE(blobmsg_check_attr(r.attr(), false));
}

TEST(BlobmsgCheck, NonExtendedPassesOnlyWithoutName)
{
    Raw r(hex("05000008 00000001"));
    EXPECT_TRUE(blobmsg_check_attr(r.attr(), false));
    EXPECT_FALSE(blobmsg_check_attr(r.attr(), true));
}

TEST(BlobmsgCheck, EmptyNameFailsWhenNameRequired)
{
    Raw r(hex("87000009 00000000 01000000"));
    EXPECT_TRUE(blobmsg_check_attr(r.attr(), false));
    EXPECT_FALSE(blobmsg_check_attr(r.attr(), true));
}

TEST(BlobmsgCheck, NameHeaderMustFit)
{
    Raw half(hex("85000005 00000000"));  // one payload byte: no room for namelen
    EXPECT_FALSE(blobmsg_check_attr(half.attr(), false));
    Raw longname(hex("85000008 00056100"));  // namelen 5 needs 8 header bytes
    EXPECT_FALSE(blobmsg_check_attr(longname.attr(), false));
}

TEST(BlobmsgCheck, NameMustEndInNul)
{
    Raw r(hex("8500000c 00016978 01020304"));
    EXPECT_FALSE(blobmsg_check_attr(r.attr(), false));
}

TEST(BlobmsgCheck, TypeAboveLast)
{
    Raw r(hex("89000008 00000000"));
    EXPECT_FALSE(blobmsg_check_attr(r.attr(), false));
    Raw plain(hex("09000004"));
    EXPECT_FALSE(blobmsg_check_attr(plain.attr(), false));
}

TEST(BlobmsgCheck, FixedSizes)
{
    EXPECT_FALSE(blobmsg_check_attr(Raw(hex("8500000a 00000000 0102")).attr(), false));
    EXPECT_TRUE(blobmsg_check_attr(Raw(hex("8600000a 00000000 0102")).attr(), false));
    EXPECT_FALSE(blobmsg_check_attr(Raw(hex("8700000a 00000000 0102")).attr(), false));
    EXPECT_FALSE(blobmsg_check_attr(Raw(hex("8400000c 00000000 01020304")).attr(), false));
    EXPECT_TRUE(blobmsg_check_attr(Raw(hex("88000014 00000000 00000000 00000000 00000000")).attr(), false));
    EXPECT_FALSE(blobmsg_check_attr(Raw(hex("8800000c 00000000 00000000")).attr(), false));
}

TEST(BlobmsgCheck, StringNeedsTrailingNul)
{
    EXPECT_FALSE(blobmsg_check_attr(Raw(hex("8300000a 00000000 6162")).attr(), false));
    EXPECT_FALSE(blobmsg_check_attr(Raw(hex("83000008 00000000")).attr(), false));
    EXPECT_TRUE(blobmsg_check_attr(Raw(hex("8300000b 00000000 610062")).attr(), false) == false);
    EXPECT_TRUE(blobmsg_check_attr(Raw(hex("8300000b 00000000 620000")).attr(), false));
}

TEST(BlobmsgCheck, UnspecTakesAnything)
{
    EXPECT_TRUE(blobmsg_check_attr(Raw(hex("8000000b 00000000 ffffff")).attr(), false));
}

TEST(BlobmsgCheck, ContainerContentsNotChecked)
{
    // A table holding a 2-byte INT32.
    Raw r(hex("82000014 00000000 8500000a 00000000 01020000"));
    EXPECT_TRUE(blobmsg_check_attr(r.attr(), false));
    EXPECT_EQ(blobmsg_check_array(r.attr(), BLOBMSG_TYPE_UNSPEC), -1);
}

TEST(BlobmsgCheck, AttrLenBoundsRawLength)
{
    Raw r(hex("8500000c 00016900 01020304"));
    EXPECT_TRUE(blobmsg_check_attr_len(r.attr(), true, 12));
    EXPECT_FALSE(blobmsg_check_attr_len(r.attr(), true, 11));
}

TEST(BlobmsgCheck, ArrayCountsAndTypes)
{
    Buf buf;
    blob_buf_init(buf.get(), 0);
    void *a = blobmsg_open_array(buf.get(), "a");
    blobmsg_add_u32(buf.get(), nullptr, 1);
    blobmsg_add_u32(buf.get(), nullptr, 2);
    blobmsg_close_array(buf.get(), a);
    void *t = blobmsg_open_table(buf.get(), "t");
    blobmsg_add_u32(buf.get(), "x", 1);
    blobmsg_add_string(buf.get(), "y", "s");
    blobmsg_close_table(buf.get(), t);
    void *bad = blobmsg_open_table(buf.get(), "bad");
    blobmsg_add_u32(buf.get(), nullptr, 1);  // unnamed in a table
    blobmsg_close_table(buf.get(), bad);
    blobmsg_add_u32(buf.get(), "n", 3);

    std::vector<blob_attr *> e;
    blob_attr *pos;
    size_t rem;
    blobmsg_for_each_attr(pos, buf.head(), rem) e.push_back(pos);
    ASSERT_EQ(e.size(), 4u);
    EXPECT_EQ(blobmsg_check_array(e[0], BLOBMSG_TYPE_UNSPEC), 2);
    EXPECT_EQ(blobmsg_check_array(e[0], BLOBMSG_TYPE_INT32), 2);
    EXPECT_EQ(blobmsg_check_array(e[0], BLOBMSG_TYPE_STRING), -1);
    EXPECT_EQ(blobmsg_check_array(e[1], BLOBMSG_TYPE_UNSPEC), 2);
    EXPECT_EQ(blobmsg_check_array(e[1], BLOBMSG_TYPE_INT32), -1);
    EXPECT_EQ(blobmsg_check_array(e[2], BLOBMSG_TYPE_UNSPEC), -1);
    EXPECT_EQ(blobmsg_check_array(e[3], BLOBMSG_TYPE_UNSPEC), -1);
    EXPECT_TRUE(blobmsg_check_attr_list(e[0], BLOBMSG_TYPE_INT32));
    EXPECT_FALSE(blobmsg_check_attr_list(e[2], BLOBMSG_TYPE_UNSPEC));
    EXPECT_EQ(blobmsg_check_array_len(e[0], BLOBMSG_TYPE_UNSPEC, blob_raw_len(e[0]) - 1), -1);
    EXPECT_TRUE(blobmsg_check_attr_list_len(e[0], BLOBMSG_TYPE_UNSPEC, blob_raw_len(e[0])));
    EXPECT_FALSE(blobmsg_check_attr_list_len(e[0], BLOBMSG_TYPE_UNSPEC, 4));
}

// ---- blobmsg_parse -----------------------------------------------------

enum { P_S, P_N, P_ANY, P_MAX };
const blobmsg_policy policy[P_MAX] = {
    {"s", BLOBMSG_TYPE_STRING},
    {"n", BLOBMSG_TYPE_INT32},
    {"s", BLOBMSG_TYPE_UNSPEC},
};

TEST(BlobmsgParse, FillsByName)
{
    Buf buf;
    blob_buf_init(buf.get(), 0);
    blobmsg_add_string(buf.get(), "s", "x");
    blobmsg_add_u32(buf.get(), "n", 5);
    blobmsg_add_u32(buf.get(), "other", 6);
    blob_attr *tb[P_MAX];
    ASSERT_EQ(blobmsg_parse(policy, P_MAX, tb, blob_data(buf.head()), blob_len(buf.head())), 0);
    ASSERT_NE(tb[P_S], nullptr);
    EXPECT_STREQ(blobmsg_get_string(tb[P_S]), "x");
    ASSERT_NE(tb[P_N], nullptr);
    EXPECT_EQ(blobmsg_get_u32(tb[P_N]), 5u);
    EXPECT_EQ(tb[P_ANY], tb[P_S]);
}

TEST(BlobmsgParse, EmptyMessageIsEinvalWithAllNull)
{
    Buf buf;
    blob_buf_init(buf.get(), 0);
    blob_attr *tb[P_MAX];
    std::memset(tb, 0xff, sizeof(tb));
    EXPECT_EQ(blobmsg_parse(policy, P_MAX, tb, blob_data(buf.head()), blob_len(buf.head())), -22);
    for (auto *t : tb)
        EXPECT_EQ(t, nullptr);
    std::memset(tb, 0xff, sizeof(tb));
    EXPECT_EQ(blobmsg_parse(policy, P_MAX, tb, nullptr, 16), -EINVAL);
    for (auto *t : tb)
        EXPECT_EQ(t, nullptr);
    EXPECT_EQ(blobmsg_parse_attr(policy, P_MAX, tb, buf.head()), -EINVAL);
    EXPECT_EQ(blobmsg_parse_attr(policy, P_MAX, tb, nullptr), -EINVAL);
}

TEST(BlobmsgParse, WrongTypeIsAbsentWithoutError)
{
    Buf buf;
    blob_buf_init(buf.get(), 0);
    blobmsg_add_u32(buf.get(), "s", 5);
    blob_attr *tb[P_MAX];
    EXPECT_EQ(blobmsg_parse_attr(policy, P_MAX, tb, buf.head()), 0);
    EXPECT_EQ(tb[P_S], nullptr);
    EXPECT_NE(tb[P_ANY], nullptr);
}

TEST(BlobmsgParse, LaterRightTypeStillMatches)
{
    Buf buf;
    blob_buf_init(buf.get(), 0);
    blobmsg_add_u32(buf.get(), "s", 5);
    blobmsg_add_string(buf.get(), "s", "first");
    blobmsg_add_string(buf.get(), "s", "second");
    blob_attr *tb[P_MAX];
    EXPECT_EQ(blobmsg_parse_attr(policy, P_MAX, tb, buf.head()), 0);
    ASSERT_NE(tb[P_S], nullptr);
    EXPECT_STREQ(blobmsg_get_string(tb[P_S]), "first");
    ASSERT_NE(tb[P_ANY], nullptr);
    EXPECT_EQ(blobmsg_type(tb[P_ANY]), BLOBMSG_TYPE_INT32);
}

TEST(BlobmsgParse, FirstDuplicateWins)
{
    Buf buf;
    blob_buf_init(buf.get(), 0);
    blobmsg_add_u32(buf.get(), "n", 1);
    blobmsg_add_u32(buf.get(), "n", 2);
    blob_attr *tb[P_MAX];
    EXPECT_EQ(blobmsg_parse_attr(policy, P_MAX, tb, buf.head()), 0);
    ASSERT_NE(tb[P_N], nullptr);
    EXPECT_EQ(blobmsg_get_u32(tb[P_N]), 1u);
}

TEST(BlobmsgParse, InvalidElementAbortsKeepingPartialResult)
{
    Buf buf;
    blob_buf_init(buf.get(), 0);
    blobmsg_add_string(buf.get(), "s", "ok");
    uint16_t two = 0;
    blobmsg_add_field(buf.get(), BLOBMSG_TYPE_INT32, "bad", &two, 2);
    blobmsg_add_u32(buf.get(), "n", 1);
    blob_attr *tb[P_MAX];
    EXPECT_EQ(blobmsg_parse_attr(policy, P_MAX, tb, buf.head()), -1);
    EXPECT_NE(tb[P_S], nullptr);
    EXPECT_EQ(tb[P_N], nullptr);
}

TEST(BlobmsgParse, ZeroLengthElementEndsWalkQuietly)
{
    Raw raw(hex("8500000c 00016e00 00000001 00000000 8500000c 00016e00 00000002"));
    blob_attr *tb[P_MAX];
    EXPECT_EQ(blobmsg_parse(policy, P_MAX, tb, raw.data(), static_cast<unsigned>(raw.size)), 0);
    ASSERT_NE(tb[P_N], nullptr);
    EXPECT_EQ(blobmsg_get_u32(tb[P_N]), 1u);
}

TEST(BlobmsgParse, LengthOneToThreeIsInvalid)
{
    for (const char *word : {"00000001", "00000002", "85000003"}) {
        Raw raw(hex(std::string(word) + " 00000000"));
        blob_attr *tb[P_MAX];
        EXPECT_EQ(blobmsg_parse(policy, P_MAX, tb, raw.data(), 8), -1) << word;
    }
}

TEST(BlobmsgParse, TrailingBytesIgnored)
{
    Raw raw(hex("8500000c 00016e00 00000007 ffffff"));
    blob_attr *tb[P_MAX];
    EXPECT_EQ(blobmsg_parse(policy, P_MAX, tb, raw.data(), 15), 0);
    ASSERT_NE(tb[P_N], nullptr);
    EXPECT_EQ(blobmsg_get_u32(tb[P_N]), 7u);
}

TEST(BlobmsgParse, UnnamedElementsSkipped)
{
    Buf buf;
    blob_buf_init(buf.get(), 0);
    blob_put_u32(buf.get(), BLOBMSG_TYPE_INT32, 9);  // not extended
    blobmsg_add_u32(buf.get(), "n", 1);
    blob_attr *tb[P_MAX];
    EXPECT_EQ(blobmsg_parse_attr(policy, P_MAX, tb, buf.head()), 0);
    ASSERT_NE(tb[P_N], nullptr);
    EXPECT_EQ(blobmsg_get_u32(tb[P_N]), 1u);
    static const blobmsg_policy empty_name[] = {{"", BLOBMSG_TYPE_UNSPEC}};
    blob_attr *one[1];
    EXPECT_EQ(blobmsg_parse_attr(empty_name, 1, one, buf.head()), 0);
    EXPECT_EQ(one[0], nullptr);
}

TEST(BlobmsgParse, NameComparisonExact)
{
    Buf buf;
    blob_buf_init(buf.get(), 0);
    blobmsg_add_u32(buf.get(), "N", 1);
    blobmsg_add_u32(buf.get(), "nn", 2);
    blobmsg_add_u32(buf.get(), "", 3);
    blob_attr *tb[P_MAX];
    EXPECT_EQ(blobmsg_parse_attr(policy, P_MAX, tb, buf.head()), 0);
    EXPECT_EQ(tb[P_N], nullptr);
}

TEST(BlobmsgParse, NullPolicyNamesIgnored)
{
    static const blobmsg_policy p[] = {{nullptr, BLOBMSG_TYPE_UNSPEC}, {"a", BLOBMSG_TYPE_UNSPEC}};
    Buf buf;
    blob_buf_init(buf.get(), 0);
    blobmsg_add_u32(buf.get(), "a", 1);
    blob_attr *tb[2];
    EXPECT_EQ(blobmsg_parse_attr(p, 2, tb, buf.head()), 0);
    EXPECT_EQ(tb[0], nullptr);
    EXPECT_NE(tb[1], nullptr);
}

TEST(BlobmsgParse, CastInt64AcceptsEveryIntegerWidth)
{
    static const blobmsg_policy p[] = {
        {"a", BLOBMSG_CAST_INT64}, {"b", BLOBMSG_CAST_INT64}, {"c", BLOBMSG_CAST_INT64},
        {"d", BLOBMSG_CAST_INT64}, {"e", BLOBMSG_CAST_INT64}, {"f", BLOBMSG_TYPE_BOOL},
    };
    Buf buf;
    blob_buf_init(buf.get(), 0);
    blobmsg_add_u8(buf.get(), "a", 1);
    blobmsg_add_u16(buf.get(), "b", 2);
    blobmsg_add_u32(buf.get(), "c", 3);
    blobmsg_add_u64(buf.get(), "d", 4);
    blobmsg_add_string(buf.get(), "e", "5");
    blobmsg_add_u8(buf.get(), "f", 1);
    blob_attr *tb[6];
    EXPECT_EQ(blobmsg_parse_attr(p, 6, tb, buf.head()), 0);
    for (int i = 0; i < 4; i++) {
        ASSERT_NE(tb[i], nullptr) << i;
        EXPECT_EQ(blobmsg_cast_u64(tb[i]), static_cast<uint64_t>(i + 1));
    }
    EXPECT_EQ(tb[4], nullptr);
    EXPECT_NE(tb[5], nullptr);
    EXPECT_EQ(BLOBMSG_TYPE_BOOL, BLOBMSG_TYPE_INT8);
}

TEST(BlobmsgParse, NestedTableNotValidated)
{
    static const blobmsg_policy p[] = {{"t", BLOBMSG_TYPE_TABLE}};
    Buf buf;
    blob_buf_init(buf.get(), 0);
    void *t = blobmsg_open_table(buf.get(), "t");
    uint16_t two = 0;
    blobmsg_add_field(buf.get(), BLOBMSG_TYPE_INT32, "bad", &two, 2);
    blobmsg_close_table(buf.get(), t);
    blob_attr *tb[1];
    EXPECT_EQ(blobmsg_parse_attr(p, 1, tb, buf.head()), 0);
    EXPECT_NE(tb[0], nullptr);
}

TEST(BlobmsgParse, WorksOnNestedTable)
{
    static const blobmsg_policy p[] = {{"x", BLOBMSG_TYPE_INT16}};
    Buf buf;
    blob_buf_init(buf.get(), 0);
    void *t = blobmsg_open_table(buf.get(), "t");
    blobmsg_add_u16(buf.get(), "x", 7);
    blobmsg_close_table(buf.get(), t);
    blob_attr *tb[1];
    EXPECT_EQ(blobmsg_parse(p, 1, tb, blobmsg_data(first(buf.head())),
                            static_cast<unsigned>(blobmsg_data_len(first(buf.head())))), 0);
    ASSERT_NE(tb[0], nullptr);
    EXPECT_EQ(blobmsg_get_u16(tb[0]), 7);
}

TEST(BlobmsgParseArray, FillsByPosition)
{
    static const blobmsg_policy p[] = {{nullptr, BLOBMSG_TYPE_STRING}, {nullptr, BLOBMSG_TYPE_INT32}};
    Buf buf;
    blob_buf_init(buf.get(), 0);
    void *a = blobmsg_open_array(buf.get(), "a");
    blobmsg_add_u32(buf.get(), nullptr, 1);   // mismatch: position 0 stays open
    blobmsg_add_string(buf.get(), nullptr, "s");
    blobmsg_add_u32(buf.get(), nullptr, 2);
    blobmsg_add_u32(buf.get(), nullptr, 3);   // beyond the policy
    blobmsg_close_array(buf.get(), a);
    blob_attr *tb[2];
    EXPECT_EQ(blobmsg_parse_array_attr(p, 2, tb, first(buf.head())), 0);
    ASSERT_NE(tb[0], nullptr);
    EXPECT_STREQ(blobmsg_get_string(tb[0]), "s");
    ASSERT_NE(tb[1], nullptr);
    EXPECT_EQ(blobmsg_get_u32(tb[1]), 2u);
}

TEST(BlobmsgParseArray, EmptyIsZeroInvalidIsMinusOne)
{
    static const blobmsg_policy p[] = {{nullptr, BLOBMSG_TYPE_UNSPEC}};
    blob_attr *tb[1];
    EXPECT_EQ(blobmsg_parse_array(p, 1, tb, nullptr, 0), 0);
    Raw raw(hex("00000000"));
    EXPECT_EQ(blobmsg_parse_array(p, 1, tb, raw.data(), 0), 0);
    Raw bad(hex("8500000a 00000000 0102"));
    EXPECT_EQ(blobmsg_parse_array(p, 1, tb, bad.data(), 12), -1);
}

}  // namespace
