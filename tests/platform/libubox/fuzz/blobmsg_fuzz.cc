// Raw bytes as the payload of a message root: everything that reads a
// message received from outside (parse, validation, JSON output) must
// cope with any of them.
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <vector>

extern "C" {
#include <libubox/blobmsg.h>
#include <libubox/blobmsg_json.h>
}

namespace {

enum { F_S, F_I, F_T, F_A, F_C, F_U, F_B, F_D, F_MAX };
const blobmsg_policy policy[F_MAX] = {
    {"s", BLOBMSG_TYPE_STRING}, {"i", BLOBMSG_TYPE_INT32}, {"t", BLOBMSG_TYPE_TABLE},
    {"a", BLOBMSG_TYPE_ARRAY},  {"c", BLOBMSG_CAST_INT64}, {"", BLOBMSG_TYPE_UNSPEC},
    {"b", BLOBMSG_TYPE_BOOL},   {"d", BLOBMSG_TYPE_DOUBLE},
};

const char *format_cb(void *priv, blob_attr *attr)
{
    auto *count = static_cast<int *>(priv);
    ++*count;
    return blobmsg_type(attr) == BLOBMSG_TYPE_INT16 ? "16" : nullptr;
}

void consume(char *s)
{
    std::free(s);
}

// What a handler would do with a parsed, type-checked element.
uint64_t read_value(blob_attr *a)
{
    switch (blobmsg_type(a)) {
    case BLOBMSG_TYPE_STRING:
        return std::strlen(blobmsg_get_string(a));
    case BLOBMSG_TYPE_INT8:
    case BLOBMSG_TYPE_INT16:
    case BLOBMSG_TYPE_INT32:
    case BLOBMSG_TYPE_INT64:
        return blobmsg_cast_u64(a) + static_cast<uint64_t>(blobmsg_cast_s64(a));
    case BLOBMSG_TYPE_DOUBLE:
        return blobmsg_get_double(a) > 0;
    case BLOBMSG_TYPE_TABLE:
    case BLOBMSG_TYPE_ARRAY:
        return static_cast<uint64_t>(blobmsg_check_array(a, BLOBMSG_TYPE_UNSPEC));
    default:
        return blobmsg_data_len(a);
    }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size);

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    if (size > (1u << 20))
        return 0;

    // A root header, then the input, in 4-byte aligned memory.
    std::vector<uint32_t> words(size / 4 + 2, 0);
    uint32_t hdr = cpu_to_be32(static_cast<uint32_t>(size + 4));
    std::memcpy(words.data(), &hdr, 4);
    if (size)
        std::memcpy(words.data() + 1, data, size);
    auto *root = reinterpret_cast<blob_attr *>(words.data());
    void *payload = words.data() + 1;

    blob_attr *tb[F_MAX];
    uint64_t sink = 0;
    if (blobmsg_parse(policy, F_MAX, tb, payload, static_cast<unsigned>(size)) >= -1) {
        blob_buf copy{};
        blob_buf_init(&copy, 0);
        for (auto *a : tb) {
            if (!a)
                continue;
            sink += read_value(a);
            consume(blobmsg_format_json(a, false));
            consume(blobmsg_format_json_value_indent(a, 1));
            blobmsg_add_blob(&copy, a);
        }
        consume(blobmsg_format_json(copy.head, true));
        blob_buf_free(&copy);
    }

    blob_attr *pos_tb[3];
    static const blobmsg_policy array_policy[3] = {
        {nullptr, BLOBMSG_TYPE_UNSPEC}, {nullptr, BLOBMSG_TYPE_STRING}, {nullptr, BLOBMSG_TYPE_INT32}};
    blobmsg_parse_array(array_policy, 3, pos_tb, payload, static_cast<unsigned>(size));

    int calls = 0;
    consume(blobmsg_format_json(root, true));
    consume(blobmsg_format_json_indent(root, true, 0));
    consume(blobmsg_format_json_with_cb(root, true, format_cb, &calls, 2));
    consume(blobmsg_format_json(root, false));

    blob_attr *pos;
    size_t rem;
    blobmsg_for_each_attr(pos, root, rem) {
        if (blobmsg_check_attr_len(pos, false, rem))
            sink += static_cast<uint64_t>(blobmsg_check_array_len(pos, BLOBMSG_TYPE_UNSPEC, rem));
    }

    blob_attr *btb[16];
    blob_parse_untrusted(root, size + 4, btb, nullptr, 16);
    return sink == 42 ? 0 : 0;
}
