// Reading a peer's message: bounded texts and the walk over its list.
#pragma once

#include <cstddef>
#include <cstdint>
#include <cstring>

#include "core/openwrt.h"
#include "events/assoc.h"
#include "events/mesh_client.h"

// The text of a STRING attribute, or "" when it is absent or its payload is
// not terminated inside the attribute: nothing past it is ever read.
inline const char *mesh_attr_text(const blob_attr *attr) noexcept
{
    if (!attr)
        return "";
    const char *text = static_cast<const char *>(blobmsg_data(attr));
    size_t len = blobmsg_data_len(attr);
    return len > 0 && text[len - 1] == '\0' ? text : "";
}

inline int32_t mesh_attr_int(const blob_attr *attr) noexcept
{
    return attr ? static_cast<int32_t>(blobmsg_get_u32(const_cast<blob_attr *>(attr))) : 0;
}

// Parses one element of the list into `tb`; true when it is a well-formed
// table inside `room` bytes and has all nine keys.
inline bool parse_mesh_entry(blob_attr *elem, size_t room, blob_attr **tb) noexcept
{
    for (int i = 0; i < MESH_CLIENT_ATTR_MAX; i++)
        tb[i] = nullptr;
    if (!blobmsg_check_attr_len(elem, false, room) || blobmsg_type(elem) != BLOBMSG_TYPE_TABLE)
        return false;
    blobmsg_parse(mesh_client_policy, MESH_CLIENT_ATTR_MAX, tb, blobmsg_data(elem), blobmsg_data_len(elem));
    for (int i = 0; i < MESH_CLIENT_ATTR_MAX; i++) {
        if (!tb[i])
            return false;
    }
    return true;
}

// A walk over the elements of `list`. It stops at an element whose padded
// length is below a header or beyond what is left.
class mesh_cursor
{
  public:
    explicit mesh_cursor(blob_attr *list) noexcept
        : elem_(list ? static_cast<blob_attr *>(blobmsg_data(list)) : nullptr),
          remaining_(list ? blobmsg_data_len(list) : 0)
    {
    }

    // Parses the next element into `tb`: false at the end; `valid` tells
    // whether it is a table with all nine keys.
    bool next(blob_attr **tb, bool &valid) noexcept
    {
        if (remaining_ < sizeof(blob_attr))
            return false;
        size_t pad = blob_pad_len(elem_);
        if (pad <= 3 || pad > remaining_)
            return false;
        valid = parse_mesh_entry(elem_, remaining_, tb);
        remaining_ -= pad;
        elem_ = reinterpret_cast<blob_attr *>(reinterpret_cast<char *>(elem_) + pad);
        return true;
    }

  private:
    blob_attr *elem_;
    size_t remaining_;
};

// Calls fn(tb) for each element of `list` with all nine keys and
// fn(nullptr) for each other one, in order.
template <typename F> void for_each_mesh_element(blob_attr *list, F &&fn) noexcept
{
    mesh_cursor cursor(list);
    blob_attr *tb[MESH_CLIENT_ATTR_MAX];
    bool valid = false;
    while (cursor.next(tb, valid))
        fn(valid ? tb : nullptr);
}

// Parses the message attribute with the four-key policy: true when all
// four are there.
inline bool parse_mesh_message(const blob_attr *msg, blob_attr **tb) noexcept
{
    for (int i = 0; i < MESH_MSG_ATTR_MAX; i++)
        tb[i] = nullptr;
    if (!msg)
        return false;
    blobmsg_parse(mesh_msg_policy, MESH_MSG_ATTR_MAX, tb, blob_data(msg), blob_len(msg));
    for (int i = 0; i < MESH_MSG_ATTR_MAX; i++) {
        if (!tb[i])
            return false;
    }
    return true;
}
