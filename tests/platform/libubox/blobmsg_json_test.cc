// blobmsg_json: JSON text from blobmsg and blobmsg from JSON.
#include <gtest/gtest.h>

#include <json-c/json.h>

#include <cfloat>
#include <cstdio>
#include <cstring>
#include <string>
#include <vector>

#include "test_util.h"

extern "C" {
#include <libubox/blobmsg_json.h>
}

using ubox_test::Buf;
using ubox_test::CString;
using ubox_test::hex;
using ubox_test::Raw;

namespace {

std::string take(char *s)
{
    CString owner(s);
    return s ? std::string(s) : std::string("<NULL>");
}

std::string compact(blob_attr *a, bool list = true)
{
    return take(blobmsg_format_json(a, list));
}

std::string indented(blob_attr *a, int indent, bool list = true)
{
    return take(blobmsg_format_json_indent(a, list, indent));
}

std::vector<blob_attr *> children(blob_attr *a)
{
    std::vector<blob_attr *> out;
    blob_attr *pos;
    size_t rem;
    blobmsg_for_each_attr(pos, a, rem) out.push_back(pos);
    return out;
}

// {"a":1,"b":{"c":[true,"s"]}}
void build_sample(blob_buf *b)
{
    blob_buf_init(b, 0);
    blobmsg_add_u32(b, "a", 1);
    void *t = blobmsg_open_table(b, "b");
    void *a = blobmsg_open_array(b, "c");
    blobmsg_add_u8(b, nullptr, 1);
    blobmsg_add_string(b, nullptr, "s");
    blobmsg_close_array(b, a);
    blobmsg_close_table(b, t);
}

TEST(JsonFormat, CompactHasNoWhitespace)
{
    Buf buf;
    build_sample(buf.get());
    EXPECT_EQ(compact(buf.head()), R"({"a":1,"b":{"c":[true,"s"]}})");
}

TEST(JsonFormat, IndentedUsesTabsAndColonSpace)
{
    Buf buf;
    build_sample(buf.get());
    EXPECT_EQ(indented(buf.head(), 0),
              "{\n\t\"a\": 1,\n\t\"b\": {\n\t\t\"c\": [\n\t\t\ttrue,\n\t\t\t\"s\"\n\t\t]\n\t}\n}");
}

TEST(JsonFormat, IndentLevelIsStartingLevel)
{
    Buf buf;
    blob_buf_init(buf.get(), 0);
    blobmsg_add_u32(buf.get(), "a", 1);
    EXPECT_EQ(indented(buf.head(), 2), "{\n\t\t\t\"a\": 1\n\t\t}");
}

TEST(JsonFormat, EmptyContainerSpansLines)
{
    Buf buf;
    blob_buf_init(buf.get(), 0);
    EXPECT_EQ(indented(buf.head(), 0), "{\n\t\n}");
    EXPECT_EQ(compact(buf.head()), "{}");
    void *t = blobmsg_open_table(buf.get(), "t");
    blobmsg_close_table(buf.get(), t);
    EXPECT_EQ(indented(buf.head(), 0), "{\n\t\"t\": {\n\t\t\n\t}\n}");
    EXPECT_EQ(compact(buf.head()), R"({"t":{}})");
}

TEST(JsonFormat, TabsCappedAtSixteen)
{
    Buf buf;
    blob_buf_init(buf.get(), 0);
    blobmsg_add_u8(buf.get(), "a", 0);
    std::string sixteen(16, '\t');
    EXPECT_EQ(indented(buf.head(), 20), "{\n" + sixteen + "\"a\": false\n" + sixteen + "}");
}

TEST(JsonFormat, Int8IsBoolean)
{
    Buf buf;
    blob_buf_init(buf.get(), 0);
    blobmsg_add_u8(buf.get(), "t", 2);
    blobmsg_add_u8(buf.get(), "f", 0);
    EXPECT_EQ(compact(buf.head()), R"({"t":true,"f":false})");
}

TEST(JsonFormat, IntegersPrintSigned)
{
    Buf buf;
    blob_buf_init(buf.get(), 0);
    blobmsg_add_u16(buf.get(), "a", 65535);
    blobmsg_add_u32(buf.get(), "b", 0x80000000u);
    blobmsg_add_u64(buf.get(), "c", UINT64_MAX);
    blobmsg_add_u32(buf.get(), "d", 123);
    blobmsg_add_u64(buf.get(), "e", 5000000000ULL);
    blobmsg_add_u16(buf.get(), "f", 7);
    EXPECT_EQ(compact(buf.head()),
              R"({"a":-1,"b":-2147483648,"c":-1,"d":123,"e":5000000000,"f":7})");
}

TEST(JsonFormat, DoublesUseSixDecimals)
{
    Buf buf;
    blob_buf_init(buf.get(), 0);
    blobmsg_add_double(buf.get(), "a", 1.5);
    blobmsg_add_double(buf.get(), "b", 1000);
    blobmsg_add_double(buf.get(), "c", -0.25);
    EXPECT_EQ(compact(buf.head()), R"({"a":1.500000,"b":1000.000000,"c":-0.250000})");
}

TEST(JsonFormat, HugeDoublesPrintEveryDigit)
{
    Buf buf;
    blob_buf_init(buf.get(), 0);
    blobmsg_add_double(buf.get(), "a", 1e300);
    blobmsg_add_double(buf.get(), "b", -DBL_MAX);
    char a[400], b[400];
    snprintf(a, sizeof(a), "%lf", 1e300);
    snprintf(b, sizeof(b), "%lf", -DBL_MAX);
    ASSERT_EQ(strlen(a), 301u + 7u);  // 301 digits and ".000000"
    EXPECT_EQ(compact(buf.head()), std::string("{\"a\":") + a + ",\"b\":" + b + "}");
}

TEST(JsonFormat, UnspecIsNull)
{
    Buf buf;
    blob_buf_init(buf.get(), 0);
    blobmsg_add_field(buf.get(), BLOBMSG_TYPE_UNSPEC, "n", nullptr, 0);
    EXPECT_EQ(compact(buf.head()), R"({"n":null})");
}

TEST(JsonFormat, StringEscapes)
{
    Buf buf;
    blob_buf_init(buf.get(), 0);
    blobmsg_add_string(buf.get(), "s", "q\" b\\ \b \n \t \r \x01 \x1f \x0c / \x7f \xc3\xa9");
    EXPECT_EQ(compact(buf.head()),
              "{\"s\":\"q\\\" b\\\\ \\b \\n \\t \\r \\u0001 \\u001f \\u000c / \x7f \xc3\xa9\"}");
}

TEST(JsonFormat, NamesAreEscapedToo)
{
    Buf buf;
    blob_buf_init(buf.get(), 0);
    blobmsg_add_u8(buf.get(), "a\"b", 1);
    EXPECT_EQ(compact(buf.head()), R"({"a\"b":true})");
}

TEST(JsonFormat, EmptyNameOmittedInTable)
{
    Buf buf;
    blob_buf_init(buf.get(), 0);
    blobmsg_add_u32(buf.get(), "", 1);
    blobmsg_add_u32(buf.get(), "x", 2);
    EXPECT_EQ(compact(buf.head()), R"({1,"x":2})");
}

TEST(JsonFormat, ArrayIgnoresNames)
{
    Buf buf;
    blob_buf_init(buf.get(), 0);
    void *a = blobmsg_open_array(buf.get(), "a");
    blobmsg_add_u32(buf.get(), "x", 1);
    blobmsg_add_string(buf.get(), "y", "z");
    blobmsg_close_array(buf.get(), a);
    EXPECT_EQ(compact(buf.head()), R"({"a":[1,"z"]})");
}

TEST(JsonFormat, ListOfExtendedArrayUsesBrackets)
{
    Buf buf;
    blob_buf_init(buf.get(), 0);
    void *a = blobmsg_open_array(buf.get(), "a");
    blobmsg_add_u32(buf.get(), nullptr, 1);
    blobmsg_add_u32(buf.get(), nullptr, 2);
    blobmsg_close_array(buf.get(), a);
    blob_attr *arr = children(buf.head())[0];
    EXPECT_EQ(compact(arr, true), "[1,2]");
    EXPECT_EQ(compact(arr, false), R"("a":[1,2])");
}

TEST(JsonFormat, NonExtendedArrayRootPrintsBraces)
{
    Buf buf;
    blob_buf_init(buf.get(), BLOBMSG_TYPE_ARRAY);
    blobmsg_add_u32(buf.get(), nullptr, 1);
    EXPECT_EQ(compact(buf.head()), "{1}");
}

TEST(JsonFormat, RootWithoutListPrintsNull)
{
    Buf buf;
    blob_buf_init(buf.get(), 0);
    blobmsg_add_u32(buf.get(), "a", 1);
    EXPECT_EQ(compact(buf.head(), false), "null");
}

TEST(JsonFormat, SingleElementWithoutList)
{
    Buf buf;
    blob_buf_init(buf.get(), 0);
    blobmsg_add_u32(buf.get(), "a", 1);
    blobmsg_add_string(buf.get(), "", "v");
    auto e = children(buf.head());
    EXPECT_EQ(compact(e[0], false), R"("a":1)");
    EXPECT_EQ(compact(e[1], false), R"("v")");
    EXPECT_EQ(indented(e[0], 0, false), R"("a": 1)");
}

TEST(JsonFormat, InvalidElementLeavesEmptySlot)
{
    Buf buf;
    blob_buf_init(buf.get(), 0);
    blobmsg_add_u32(buf.get(), "a", 1);
    uint16_t two = 0;
    blobmsg_add_field(buf.get(), BLOBMSG_TYPE_INT32, "bad", &two, 2);
    blobmsg_add_u32(buf.get(), "b", 2);
    EXPECT_EQ(compact(buf.head()), R"({"a":1,,"b":2})");
}

TEST(JsonFormat, ValueOnly)
{
    Buf buf;
    build_sample(buf.get());
    auto e = children(buf.head());
    EXPECT_EQ(take(blobmsg_format_json_value(e[0])), "1");
    EXPECT_EQ(take(blobmsg_format_json_value(e[1])), R"({"c":[true,"s"]})");
    EXPECT_EQ(take(blobmsg_format_json_value_indent(e[1], 0)),
              "{\n\t\"c\": [\n\t\ttrue,\n\t\t\"s\"\n\t]\n}");
}

const char *replace_ints(void *priv, blob_attr *attr)
{
    auto *seen = static_cast<std::vector<std::string> *>(priv);
    seen->push_back(blobmsg_name(attr));
    return blobmsg_type(attr) == BLOBMSG_TYPE_INT32 ? "\"X\"" : nullptr;
}

TEST(JsonFormat, CallbackReplacesValues)
{
    Buf buf;
    build_sample(buf.get());
    std::vector<std::string> seen;
    EXPECT_EQ(take(blobmsg_format_json_with_cb(buf.head(), true, replace_ints, &seen, -1)),
              R"({"a":"X","b":{"c":[true,"s"]}})");
    EXPECT_EQ(seen, (std::vector<std::string>{"a", "b", "c", "", ""}));

    seen.clear();
    auto e = children(buf.head());
    EXPECT_EQ(take(blobmsg_format_json_with_cb(e[0], false, replace_ints, &seen, -1)), R"("a":"X")");
    EXPECT_EQ(seen, (std::vector<std::string>{"a"}));
    seen.clear();
    EXPECT_EQ(take(blobmsg_format_json_value_with_cb(e[0], replace_ints, &seen, -1)), R"("X")");
}

TEST(JsonFormat, NullAttributeGivesNull)
{
    EXPECT_EQ(blobmsg_format_json(nullptr, true), nullptr);
    EXPECT_EQ(blobmsg_format_json_value(nullptr), nullptr);
}

TEST(JsonFormat, TruncatedRootHeaderIsEmpty)
{
    Raw raw(hex("00000002 00000000"));
    EXPECT_EQ(compact(raw.attr()), "{}");
}

// ---- JSON to blobmsg ---------------------------------------------------

TEST(JsonParse, ConvertsEachType)
{
    Buf buf;
    blob_buf_init(buf.get(), 0);
    ASSERT_TRUE(blobmsg_add_json_from_string(buf.get(),
        R"({"s":"x","t":true,"f":false,"i":5,"big":2147483648,"neg":-2147483648,)"
        R"("d":1.5,"e":1e3,"n":null,"o":{"a":1},"arr":[1,"x"]})"));
    auto e = children(buf.head());
    ASSERT_EQ(e.size(), 11u);
    const int types[] = {BLOBMSG_TYPE_STRING, BLOBMSG_TYPE_INT8, BLOBMSG_TYPE_INT8,
                         BLOBMSG_TYPE_INT32, BLOBMSG_TYPE_INT64, BLOBMSG_TYPE_INT32,
                         BLOBMSG_TYPE_DOUBLE, BLOBMSG_TYPE_DOUBLE, BLOBMSG_TYPE_UNSPEC,
                         BLOBMSG_TYPE_TABLE, BLOBMSG_TYPE_ARRAY};
    for (size_t i = 0; i < e.size(); i++)
        EXPECT_EQ(blobmsg_type(e[i]), types[i]) << blobmsg_name(e[i]);
    EXPECT_STREQ(blobmsg_get_string(e[0]), "x");
    EXPECT_EQ(blobmsg_get_u8(e[1]), 1);
    EXPECT_EQ(blobmsg_get_u8(e[2]), 0);
    EXPECT_EQ(blobmsg_get_u32(e[3]), 5u);
    EXPECT_EQ(blobmsg_get_u64(e[4]), 2147483648ULL);
    EXPECT_EQ(static_cast<int32_t>(blobmsg_get_u32(e[5])), INT32_MIN);
    EXPECT_EQ(blobmsg_get_double(e[6]), 1.5);
    EXPECT_EQ(blobmsg_get_double(e[7]), 1000.0);
    EXPECT_EQ(blobmsg_data_len(e[8]), 0u);
    auto arr = children(e[10]);
    ASSERT_EQ(arr.size(), 2u);
    EXPECT_STREQ(blobmsg_name(arr[0]), "");
    EXPECT_TRUE(blob_is_extended(arr[0]));
    EXPECT_EQ(blobmsg_check_array(e[9], BLOBMSG_TYPE_UNSPEC), 1);
}

TEST(JsonParse, ByteExactResult)
{
    Buf buf;
    blob_buf_init(buf.get(), 0);
    ASSERT_TRUE(blobmsg_add_json_from_string(buf.get(), R"({"s":"ab","t":{"x":[true]}})"));
    // "s": 8300000b 00017300 61620000
    // "t": table raw 4+4+[array "x": 4+4+[bool: 87000009 00000000 01000000 = 12] = 20] = 28
    EXPECT_BYTES(buf.head(),
                 "0000002c 8300000b 00017300 61620000 8200001c 00017400 81000014 00017800"
                 " 87000009 00000000 01000000");
}

TEST(JsonParse, RejectsNonObjectTopLevel)
{
    Buf buf;
    blob_buf_init(buf.get(), 0);
    for (const char *text : {"[1,2]", "5", "\"x\"", "true", "null", "not json", "", "{"}) {
        EXPECT_FALSE(blobmsg_add_json_from_string(buf.get(), text)) << text;
        EXPECT_EQ(blob_len(buf.head()), 0u) << text;
    }
}

TEST(JsonParse, AppendsWithoutReset)
{
    Buf buf;
    blob_buf_init(buf.get(), 0);
    ASSERT_TRUE(blobmsg_add_json_from_string(buf.get(), R"({"a":1})"));
    ASSERT_TRUE(blobmsg_add_json_from_string(buf.get(), R"({"b":2})"));
    EXPECT_EQ(compact(buf.head()), R"({"a":1,"b":2})");
}

TEST(JsonParse, AppendsAtCurrentNestingLevel)
{
    Buf buf;
    blob_buf_init(buf.get(), 0);
    void *t = blobmsg_open_table(buf.get(), "t");
    ASSERT_TRUE(blobmsg_add_json_from_string(buf.get(), R"({"a":1})"));
    blobmsg_close_table(buf.get(), t);
    EXPECT_EQ(compact(buf.head()), R"({"t":{"a":1}})");
}

TEST(JsonParse, EmbeddedNulCutsString)
{
    Buf buf;
    blob_buf_init(buf.get(), 0);
    ASSERT_TRUE(blobmsg_add_json_from_string(buf.get(), R"({"a":"a\u0000b"})"));
    auto e = children(buf.head());
    ASSERT_EQ(e.size(), 1u);
    EXPECT_STREQ(blobmsg_get_string(e[0]), "a");
    EXPECT_EQ(blobmsg_data_len(e[0]), 2u);
}

TEST(JsonParse, RepeatedKeyKeepsFirstPositionTakesLastValue)
{
    Buf buf;
    blob_buf_init(buf.get(), 0);
    ASSERT_TRUE(blobmsg_add_json_from_string(buf.get(), R"({"a":1,"b":2,"a":3})"));
    EXPECT_EQ(compact(buf.head()), R"({"a":3,"b":2})");
}

TEST(JsonParse, LenientSyntaxAccepted)
{
    Buf buf;
    blob_buf_init(buf.get(), 0);
    EXPECT_TRUE(blobmsg_add_json_from_string(buf.get(), "{'a':1}"));
    EXPECT_TRUE(blobmsg_add_json_from_string(buf.get(), R"({"b":2,})"));
    EXPECT_TRUE(blobmsg_add_json_from_string(buf.get(), R"({"c":3} trailing)"));
    EXPECT_EQ(compact(buf.head()), R"({"a":1,"b":2,"c":3})");
}

TEST(JsonParse, HugeIntegersClampToInt64)
{
    Buf buf;
    blob_buf_init(buf.get(), 0);
    ASSERT_TRUE(blobmsg_add_json_from_string(buf.get(),
        R"({"p":99999999999999999999,"n":-99999999999999999999,"m":9223372036854775807})"));
    auto e = children(buf.head());
    ASSERT_EQ(e.size(), 3u);
    EXPECT_EQ(blobmsg_type(e[0]), BLOBMSG_TYPE_INT64);
    EXPECT_EQ(static_cast<int64_t>(blobmsg_get_u64(e[0])), INT64_MAX);
    EXPECT_EQ(static_cast<int64_t>(blobmsg_get_u64(e[1])), INT64_MIN);
    EXPECT_EQ(static_cast<int64_t>(blobmsg_get_u64(e[2])), INT64_MAX);
}

TEST(JsonParse, FromFile)
{
    char path[] = "/tmp/ubox_json_XXXXXX";
    int fd = mkstemp(path);
    ASSERT_GE(fd, 0);
    FILE *f = fdopen(fd, "w");
    std::fputs(R"({"k":"v"})", f);
    std::fclose(f);
    Buf buf;
    blob_buf_init(buf.get(), 0);
    EXPECT_TRUE(blobmsg_add_json_from_file(buf.get(), path));
    EXPECT_EQ(compact(buf.head()), R"({"k":"v"})");
    std::remove(path);
    EXPECT_FALSE(blobmsg_add_json_from_file(buf.get(), "/nonexistent/ubox.json"));
}

TEST(JsonParse, AddObjectAndElement)
{
    json_object *obj = json_tokener_parse(R"({"a":[1,{"b":null}]})");
    ASSERT_NE(obj, nullptr);
    Buf buf;
    blob_buf_init(buf.get(), 0);
    EXPECT_TRUE(blobmsg_add_object(buf.get(), obj));
    EXPECT_TRUE(blobmsg_add_json_element(buf.get(), "copy", obj));
    json_object *num = json_object_new_int(-3);
    EXPECT_TRUE(blobmsg_add_json_element(buf.get(), "num", num));
    EXPECT_TRUE(blobmsg_add_json_element(buf.get(), "nil", nullptr));
    EXPECT_EQ(compact(buf.head()),
              R"({"a":[1,{"b":null}],"copy":{"a":[1,{"b":null}]},"num":-3,"nil":null})");
    json_object *arr = json_tokener_parse("[1]");
    EXPECT_FALSE(blobmsg_add_object(buf.get(), arr));
    json_object_put(arr);
    json_object_put(num);
    json_object_put(obj);
}

TEST(JsonRoundTrip, TextBlobText)
{
    const char *texts[] = {
        R"({"a":1,"b":{"c":[true,"s"]}})",
        R"({"name":"x\"y\\z","list":[[],{},[1,[2,[3]]]],"n":null,"d":0.500000})",
        R"({"big":-9223372036854775808,"t":{"u":{"v":{"w":"deep"}}}})",
        R"({})",
    };
    for (const char *text : texts) {
        Buf buf;
        blob_buf_init(buf.get(), 0);
        ASSERT_TRUE(blobmsg_add_json_from_string(buf.get(), text)) << text;
        std::string out = compact(buf.head());
        EXPECT_EQ(out, text);
        Buf again;
        blob_buf_init(again.get(), 0);
        ASSERT_TRUE(blobmsg_add_json_from_string(again.get(), out.c_str()));
        EXPECT_TRUE(blob_attr_equal(buf.head(), again.head())) << text;
    }
}

TEST(JsonRoundTrip, BlobTextBlob)
{
    Buf buf;
    build_sample(buf.get());
    blobmsg_add_u64(buf.get(), "u", 1ULL << 40);
    blobmsg_add_double(buf.get(), "d", 2.5);
    std::string text = indented(buf.head(), 0);
    Buf back;
    blob_buf_init(back.get(), 0);
    ASSERT_TRUE(blobmsg_add_json_from_string(back.get(), text.c_str()));
    EXPECT_TRUE(blob_attr_equal(buf.head(), back.head()))
        << ubox_test::to_hex(ubox_test::bytes(buf.head())) << "\n"
        << ubox_test::to_hex(ubox_test::bytes(back.head()));
}

}  // namespace
