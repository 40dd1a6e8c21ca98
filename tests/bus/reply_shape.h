// Requests from JSON and the shape of replies (names, order, blobmsg types)
// for the tests of the older bus methods.
#pragma once

#include <string>
#include <vector>

#include "core/openwrt.h"

namespace shape_test
{

// A request message built from JSON, as the bus hands it to a handler.
class request
{
  public:
    explicit request(const char *json)
    {
        blob_buf_init(&b_, 0);
        if (json)
            blobmsg_add_json_from_string(&b_, json);
    }
    request()
    {
        blob_buf_init(&b_, 0);
    }
    ~request()
    {
        blob_buf_free(&b_);
    }
    request(const request &) = delete;
    request &operator=(const request &) = delete;
    blob_buf *buf()
    {
        return &b_;
    }
    blob_attr *msg()
    {
        return b_.head;
    }

  private:
    blob_buf b_{};
};

inline const char *type_word(blob_attr *a)
{
    switch (blobmsg_type(a)) {
    case BLOBMSG_TYPE_STRING:
        return "string";
    case BLOBMSG_TYPE_INT32:
        return "int32";
    case BLOBMSG_TYPE_INT8:
        return "int8";
    case BLOBMSG_TYPE_TABLE:
        return "table";
    case BLOBMSG_TYPE_ARRAY:
        return "array";
    default:
        return "other";
    }
}

// "name:type" of each field in `len` bytes at `data`, in order.
inline std::vector<std::string> shape_in(void *data, size_t len)
{
    std::vector<std::string> out;
    blob_attr *pos;
    size_t rem = len;
    __blob_for_each_attr(pos, static_cast<blob_attr *>(data), rem)
    {
        out.push_back(std::string(blobmsg_name(pos)) + ":" + type_word(pos));
    }
    return out;
}

// The fields at the root of a reply.
inline std::vector<std::string> root_shape(blob_attr *root)
{
    return shape_in(blob_data(root), blob_len(root));
}

// The shape of each table at the root of a reply.
inline std::vector<std::vector<std::string>> table_shapes(blob_attr *root)
{
    std::vector<std::vector<std::string>> out;
    blob_attr *pos;
    size_t rem = blob_len(root);
    __blob_for_each_attr(pos, static_cast<blob_attr *>(blob_data(root)), rem)
    {
        out.push_back(shape_in(blobmsg_data(pos), blobmsg_data_len(pos)));
    }
    return out;
}

} // namespace shape_test
