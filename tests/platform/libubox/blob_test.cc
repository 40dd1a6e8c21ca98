// blob: layout of attributes, buffer growth, nesting, parsing, iteration.
#include <gtest/gtest.h>

#include "test_util.h"

using ubox_test::Buf;
using ubox_test::hex;
using ubox_test::Raw;

namespace {

TEST(Blob, InitMakesEmptyRootWithId)
{
    Buf buf;
    ASSERT_EQ(blob_buf_init(buf.get(), 0), 0);
    EXPECT_BYTES(buf.head(), "00000004");
    ASSERT_EQ(blob_buf_init(buf.get(), 5), 0);
    EXPECT_BYTES(buf.head(), "05000004");
    EXPECT_FALSE(blob_is_extended(buf.head()));
    EXPECT_EQ(blob_len(buf.head()), 0u);
    EXPECT_EQ(blob_raw_len(buf.head()), 4u);
}

TEST(Blob, InitReusesMemoryAndDropsContents)
{
    Buf buf;
    blob_buf_init(buf.get(), 0);
    blob_put_u32(buf.get(), 1, 7);
    void *mem = buf.b.buf;
    int len = buf.b.buflen;
    ASSERT_EQ(blob_buf_init(buf.get(), 0), 0);
    EXPECT_EQ(buf.b.buf, mem);
    EXPECT_EQ(buf.b.buflen, len);
    EXPECT_BYTES(buf.head(), "00000004");
}

TEST(Blob, FreeClearsButKeepsGrow)
{
    Buf buf;
    blob_buf_init(buf.get(), 0);
    auto grow = buf.b.grow;
    ASSERT_NE(grow, nullptr);
    blob_buf_free(buf.get());
    EXPECT_EQ(buf.b.buf, nullptr);
    EXPECT_EQ(buf.b.head, nullptr);
    EXPECT_EQ(buf.b.buflen, 0);
    EXPECT_EQ(buf.b.grow, grow);
    ASSERT_EQ(blob_buf_init(buf.get(), 0), 0);
    EXPECT_BYTES(buf.head(), "00000004");
}

TEST(Blob, PutIntegersBigEndianAndPadded)
{
    Buf buf;
    blob_buf_init(buf.get(), 0);
    blob_put_u8(buf.get(), 1, 0xab);
    blob_put_u16(buf.get(), 2, 0x1234);
    blob_put_u32(buf.get(), 3, 0x01020304);
    blob_put_u64(buf.get(), 4, 0x0102030405060708ULL);
    EXPECT_BYTES(buf.head(),
                 "00000028 01000005 ab000000 02000006 12340000 03000008 01020304"
                 " 0400000c 01020304 05060708");
}

TEST(Blob, PutIntAliases)
{
    Buf buf;
    blob_buf_init(buf.get(), 0);
    blob_put_int8(buf.get(), 1, static_cast<uint8_t>(-1));
    blob_put_int16(buf.get(), 2, static_cast<uint16_t>(-2));
    blob_put_int32(buf.get(), 3, static_cast<uint32_t>(-3));
    blob_put_int64(buf.get(), 4, static_cast<uint64_t>(-4));
    EXPECT_BYTES(buf.head(),
                 "00000028 01000005 ff000000 02000006 fffe0000 03000008 fffffffd"
                 " 0400000c ffffffff fffffffc");
}

TEST(Blob, PutStringStoresNul)
{
    Buf buf;
    blob_buf_init(buf.get(), 0);
    blob_put_string(buf.get(), 3, "abc");
    blob_put_string(buf.get(), 3, "abcd");
    EXPECT_BYTES(buf.head(), "00000018 03000008 61626300 03000009 61626364 00000000");
}

TEST(Blob, PutReturnsAttributeAndCopiesPayload)
{
    Buf buf;
    blob_buf_init(buf.get(), 0);
    const char data[3] = {'x', 'y', 'z'};
    blob_attr *a = blob_put(buf.get(), 9, data, 3);
    ASSERT_NE(a, nullptr);
    EXPECT_EQ(blob_id(a), 9u);
    EXPECT_EQ(blob_len(a), 3u);
    EXPECT_EQ(blob_pad_len(a), 8u);
    EXPECT_EQ(std::memcmp(blob_data(a), "xyz", 3), 0);
    EXPECT_BYTES(buf.head(), "0000000c 09000007 78797a00");
}

TEST(Blob, PaddingIsZeroAfterReuse)
{
    Buf buf;
    blob_buf_init(buf.get(), 0);
    blob_put_u32(buf.get(), 1, 0xffffffff);
    blob_buf_init(buf.get(), 0);
    blob_put_u8(buf.get(), 1, 1);
    EXPECT_BYTES(buf.head(), "0000000c 01000005 01000000");
}

TEST(Blob, NewLeavesPayloadForCaller)
{
    Buf buf;
    blob_buf_init(buf.get(), 0);
    blob_attr *a = blob_new(buf.get(), 2, 4);
    ASSERT_NE(a, nullptr);
    std::memcpy(blob_data(a), "\x01\x02\x03\x04", 4);
    EXPECT_BYTES(buf.head(), "0000000c 02000008 01020304");
}

TEST(Blob, NestCookiesAreOffsetsPlusMagic)
{
    Buf buf;
    blob_buf_init(buf.get(), 0);
    void *c1 = blob_nest_start(buf.get(), 1);
    EXPECT_EQ(c1, reinterpret_cast<void *>(0x1234567));
    blob_put_u32(buf.get(), 2, 7);
    void *c2 = blob_nest_start(buf.get(), 3);
    // The parent of the second nest is the first one, at offset 4.
    EXPECT_EQ(c2, reinterpret_cast<void *>(0x1234567 + 4));
    blob_put_u8(buf.get(), 4, 1);
    blob_nest_end(buf.get(), c2);
    blob_nest_end(buf.get(), c1);
    blob_put_u8(buf.get(), 5, 9);
    EXPECT_BYTES(buf.head(),
                 "00000024 01000018 02000008 00000007 0300000c 04000005 01000000"
                 " 05000005 09000000");
}

TEST(Blob, GrowthKeepsCookiesValid)
{
    Buf buf;
    blob_buf_init(buf.get(), 0);
    void *c = blob_nest_start(buf.get(), 1);
    for (uint32_t i = 0; i < 200; i++)
        ASSERT_NE(blob_put_u32(buf.get(), 2, i), nullptr);
    blob_nest_end(buf.get(), c);
    EXPECT_GE(buf.b.buflen, 4 + 4 + 200 * 8);
    EXPECT_EQ(buf.b.buflen % 256, 0);
    EXPECT_EQ(blob_raw_len(buf.head()), 4u + 4u + 200u * 8u);
    blob_attr *nest = static_cast<blob_attr *>(blob_data(buf.head()));
    EXPECT_EQ(blob_raw_len(nest), 4u + 200u * 8u);
    blob_attr *pos;
    size_t rem;
    uint32_t expect = 0;
    blob_for_each_attr(pos, nest, rem) {
        EXPECT_EQ(blob_get_u32(pos), expect);
        expect++;
    }
    EXPECT_EQ(expect, 200u);
}

TEST(Blob, GrowFailureReportsNull)
{
    Buf buf;
    buf.b.grow = [](blob_buf *, int) -> bool { return false; };
    EXPECT_EQ(blob_buf_init(buf.get(), 0), -ENOMEM);
    EXPECT_EQ(blob_buf_grow(buf.get(), 16), false);
}

TEST(Blob, BufGrowAddsZeroedSpace)
{
    Buf buf;
    blob_buf_init(buf.get(), 0);
    int before = buf.b.buflen;
    ASSERT_TRUE(blob_buf_grow(buf.get(), 1000));
    EXPECT_GE(buf.b.buflen, before + 1000);
    const auto *p = static_cast<const uint8_t *>(buf.b.buf);
    for (int i = before; i < buf.b.buflen; i++)
        ASSERT_EQ(p[i], 0) << i;
    EXPECT_EQ(buf.head(), buf.b.buf);
}

TEST(Blob, AccessorsReadHeader)
{
    Raw raw(hex("85000009 01020304 05000000"));
    blob_attr *a = raw.attr();
    EXPECT_EQ(blob_id(a), 5u);
    EXPECT_TRUE(blob_is_extended(a));
    EXPECT_EQ(blob_raw_len(a), 9u);
    EXPECT_EQ(blob_len(a), 5u);
    EXPECT_EQ(blob_pad_len(a), 12u);
    EXPECT_EQ(blob_next(a), reinterpret_cast<blob_attr *>(reinterpret_cast<char *>(a) + 12));
    EXPECT_EQ(blob_data(a), reinterpret_cast<char *>(a) + 4);
}

TEST(Blob, GettersConvertFromBigEndian)
{
    Raw attr(hex("0000000c ff fe fd fc fb fa f9 f8"));
    blob_attr *a = attr.attr();
    EXPECT_EQ(blob_get_u8(a), 0xffu);
    EXPECT_EQ(blob_get_u16(a), 0xfffeu);
    EXPECT_EQ(blob_get_u32(a), 0xfffefdfcu);
    EXPECT_EQ(blob_get_u64(a), 0xfffefdfcfbfaf9f8ULL);
    EXPECT_EQ(blob_get_int8(a), -1);
    EXPECT_EQ(blob_get_int16(a), -2);
    EXPECT_EQ(blob_get_int32(a), static_cast<int32_t>(0xfffefdfcu));
    EXPECT_EQ(blob_get_int64(a), static_cast<int64_t>(0xfffefdfcfbfaf9f8ULL));
    Raw s(hex("03000007 616200 00"));
    EXPECT_STREQ(blob_get_string(s.attr()), "ab");
}

TEST(Blob, SetRawLenKeepsIdAndExtendedBit)
{
    Raw raw(hex("85000009 00000000 00000000"));
    blob_set_raw_len(raw.attr(), 12);
    EXPECT_BYTES(raw.attr(), "8500000c 00000000 00000000");
    EXPECT_EQ(blob_id(raw.attr()), 5u);
    EXPECT_TRUE(blob_is_extended(raw.attr()));
}

TEST(Blob, FillPadZeroesTail)
{
    Raw raw(hex("01000005 aaffffff"));
    blob_fill_pad(raw.attr());
    EXPECT_BYTES(raw.attr(), "01000005 aa000000");
}

TEST(Blob, MemdupAndEqual)
{
    Buf buf;
    blob_buf_init(buf.get(), 0);
    blob_put_string(buf.get(), 3, "hello");
    blob_attr *copy = blob_memdup(buf.head());
    ASSERT_NE(copy, nullptr);
    EXPECT_TRUE(blob_attr_equal(copy, buf.head()));
    EXPECT_EQ(ubox_test::bytes(copy), ubox_test::bytes(buf.head()));
    blob_attr *first = static_cast<blob_attr *>(blob_data(copy));
    std::memcpy(blob_data(first), "jello", 5);
    EXPECT_FALSE(blob_attr_equal(copy, buf.head()));
    EXPECT_TRUE(blob_attr_equal(nullptr, nullptr));
    EXPECT_FALSE(blob_attr_equal(nullptr, buf.head()));
    EXPECT_FALSE(blob_attr_equal(buf.head(), nullptr));
    std::free(copy);
}

TEST(Blob, EqualComparesLength)
{
    Raw a(hex("01000005 aa000000"));
    Raw b(hex("01000006 aa000000"));
    EXPECT_FALSE(blob_attr_equal(a.attr(), b.attr()));
}

TEST(Blob, CheckType)
{
    const char s[] = "ab";
    const char nonul[] = {'a', 'b'};
    const uint8_t n[8] = {};
    EXPECT_TRUE(blob_check_type(n, 1, BLOB_ATTR_INT8));
    EXPECT_FALSE(blob_check_type(n, 2, BLOB_ATTR_INT8));
    EXPECT_TRUE(blob_check_type(n, 2, BLOB_ATTR_INT16));
    EXPECT_FALSE(blob_check_type(n, 4, BLOB_ATTR_INT16));
    EXPECT_TRUE(blob_check_type(n, 4, BLOB_ATTR_INT32));
    EXPECT_FALSE(blob_check_type(n, 8, BLOB_ATTR_INT32));
    EXPECT_TRUE(blob_check_type(n, 8, BLOB_ATTR_INT64));
    EXPECT_FALSE(blob_check_type(n, 4, BLOB_ATTR_INT64));
    EXPECT_TRUE(blob_check_type(n, 8, BLOB_ATTR_DOUBLE));
    EXPECT_FALSE(blob_check_type(n, 7, BLOB_ATTR_DOUBLE));
    EXPECT_TRUE(blob_check_type(s, 3, BLOB_ATTR_STRING));
    EXPECT_FALSE(blob_check_type(nonul, 2, BLOB_ATTR_STRING));
    EXPECT_FALSE(blob_check_type(s, 0, BLOB_ATTR_STRING));
    EXPECT_TRUE(blob_check_type(n, 0, BLOB_ATTR_BINARY));
    EXPECT_TRUE(blob_check_type(n, 5, BLOB_ATTR_NESTED));
    EXPECT_TRUE(blob_check_type(n, 3, BLOB_ATTR_UNSPEC));
}

enum { A_NONE, A_NUM, A_NAME, A_MAX };

const blob_attr_info test_info[A_MAX] = {
    {},
    {BLOB_ATTR_INT32, 0, 0, nullptr},
    {BLOB_ATTR_STRING, 0, 0, nullptr},
};

TEST(Blob, ParseFillsByIdLaterDuplicateWins)
{
    Buf buf;
    blob_buf_init(buf.get(), 0);
    blob_put_u32(buf.get(), A_NUM, 1);
    blob_put_string(buf.get(), A_NAME, "x");
    blob_put_u32(buf.get(), A_NUM, 2);
    blob_put_u32(buf.get(), 7, 3);  // id beyond max: ignored
    blob_attr *tb[A_MAX];
    EXPECT_EQ(blob_parse(buf.head(), tb, test_info, A_MAX), 2);
    EXPECT_EQ(tb[A_NONE], nullptr);
    ASSERT_NE(tb[A_NUM], nullptr);
    EXPECT_EQ(blob_get_u32(tb[A_NUM]), 2u);
    ASSERT_NE(tb[A_NAME], nullptr);
    EXPECT_STREQ(blob_get_string(tb[A_NAME]), "x");
}

TEST(Blob, ParseChecksPayloadAgainstInfo)
{
    Buf buf;
    blob_buf_init(buf.get(), 0);
    blob_put_u16(buf.get(), A_NUM, 1);       // wrong size for INT32
    blob_put(buf.get(), A_NAME, "ab", 2);    // no NUL
    blob_attr *tb[A_MAX];
    EXPECT_EQ(blob_parse(buf.head(), tb, test_info, A_MAX), 0);
    EXPECT_EQ(tb[A_NUM], nullptr);
    EXPECT_EQ(tb[A_NAME], nullptr);
}

TEST(Blob, ParseHonoursMinMaxAndValidate)
{
    static const blob_attr_info info[2] = {
        {},
        {BLOB_ATTR_BINARY, 2, 3,
         [](const blob_attr_info *, blob_attr *a) -> bool {
             return static_cast<const char *>(blob_data(a))[0] == 'o';
         }},
    };
    blob_attr *tb[2];
    Buf buf;
    blob_buf_init(buf.get(), 0);
    blob_put(buf.get(), 1, "o", 1);
    EXPECT_EQ(blob_parse(buf.head(), tb, info, 2), 0);
    blob_buf_init(buf.get(), 0);
    blob_put(buf.get(), 1, "oooo", 4);
    EXPECT_EQ(blob_parse(buf.head(), tb, info, 2), 0);
    blob_buf_init(buf.get(), 0);
    blob_put(buf.get(), 1, "xx", 2);
    EXPECT_EQ(blob_parse(buf.head(), tb, info, 2), 0);
    blob_buf_init(buf.get(), 0);
    blob_put(buf.get(), 1, "ok", 2);
    EXPECT_EQ(blob_parse(buf.head(), tb, info, 2), 1);
    EXPECT_NE(tb[1], nullptr);
}

TEST(Blob, ParseWithoutInfoTakesAll)
{
    Buf buf;
    blob_buf_init(buf.get(), 0);
    blob_put_u8(buf.get(), 0, 1);
    blob_put_u8(buf.get(), 1, 2);
    blob_attr *tb[2];
    EXPECT_EQ(blob_parse(buf.head(), tb, nullptr, 2), 2);
}

TEST(Blob, ParseUntrustedBoundsByLength)
{
    Buf buf;
    blob_buf_init(buf.get(), 0);
    blob_put_u32(buf.get(), A_NUM, 5);
    blob_attr *tb[A_MAX];
    size_t len = blob_raw_len(buf.head());
    EXPECT_EQ(blob_parse_untrusted(buf.head(), len, tb, test_info, A_MAX), 1);
    EXPECT_NE(tb[A_NUM], nullptr);
    // The root claims more than the caller has: nothing is read.
    EXPECT_EQ(blob_parse_untrusted(buf.head(), len - 1, tb, test_info, A_MAX), 0);
    EXPECT_EQ(tb[A_NUM], nullptr);
    EXPECT_EQ(blob_parse_untrusted(buf.head(), 3, tb, test_info, A_MAX), 0);
}

TEST(Blob, ParseUntrustedStopsAtTruncatedChild)
{
    // The root says 12 bytes but its child claims 12 bytes of its own.
    Raw raw(hex("0000000c 0600000c 00000001"));
    blob_attr *tb[8];
    EXPECT_EQ(blob_parse_untrusted(raw.attr(), 12, tb, nullptr, 8), 0);
}

TEST(Blob, PutRawAppendsWholeAttributes)
{
    Buf src;
    blob_buf_init(src.get(), 0);
    blob_put_u32(src.get(), 1, 0x11223344);
    blob_attr *child = static_cast<blob_attr *>(blob_data(src.head()));

    Buf buf;
    blob_buf_init(buf.get(), 0);
    ASSERT_NE(blob_put_raw(buf.get(), child, static_cast<unsigned>(blob_pad_len(child))), nullptr);
    EXPECT_BYTES(buf.head(), "0000000c 01000008 11223344");
    EXPECT_EQ(blob_put_raw(buf.get(), child, 0), nullptr);
}

TEST(Blob, ForEachStopsOnZeroLengthAndTruncation)
{
    // Two good children, then a header with length 0.
    Raw raw(hex("00000018 01000005 01000000 01000005 02000000 00000000"));
    blob_attr *pos;
    size_t rem;
    int n = 0;
    blob_for_each_attr(pos, raw.attr(), rem) n++;
    EXPECT_EQ(n, 2);

    // The second child claims more than what is left.
    Raw trunc(hex("00000014 01000005 01000000 01000010 02000000"));
    n = 0;
    blob_for_each_attr(pos, trunc.attr(), rem) n++;
    EXPECT_EQ(n, 1);

    blob_attr *none = nullptr;
    n = 0;
    blob_for_each_attr(pos, none, rem) n++;
    EXPECT_EQ(n, 0);
}

TEST(Blob, ForEachFirstAndLen)
{
    Raw raw(hex("00000014 01000005 01000000 01000005 02000000"));
    blob_attr *pos;
    size_t rem = 16;
    int n = 0;
    __blob_for_each_attr(pos, blob_data(raw.attr()), rem) n++;
    EXPECT_EQ(n, 2);

    n = 0;
    blob_for_each_attr_len(pos, raw.attr(), 20u, rem) n++;
    EXPECT_EQ(n, 2);
    n = 0;
    blob_for_each_attr_len(pos, raw.attr(), 19u, rem) n++;
    EXPECT_EQ(n, 0);
}

}  // namespace
