// Messages of a mesh peer, built the way the bus hands them over.
#pragma once

#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <set>
#include <string>
#include <vector>

#include "core/openwrt.h"

namespace meshtest
{

// One entry of "mesh_client_list"; a key named in `omit` is left out.
struct entry {
    std::string mac;
    std::string ip = "192.168.1.20";
    std::string name = "phone";
    std::string guest = "MAIN";
    int32_t connection_type = 2;
    int32_t client_type = 0;
    int32_t signal = -40;
    int32_t rxrate = 866;
    int32_t txrate = 650;
    std::set<std::string> omit;
};

// The whole message; a top-level key named in `omit` is left out. The
// result is a heap copy of the attribute (header and payload), as the bus
// listener hands it to the task, which frees it.
inline void *mesh_message(const std::string &device_mac, const std::vector<entry> &list,
                          const std::set<std::string> &omit = {}, const std::string &device_id = "node-peer")
{
    blob_buf b = {};
    blob_buf_init(&b, 0);
    if (!omit.count("device_mac"))
        blobmsg_add_string(&b, "device_mac", device_mac.c_str());
    if (!omit.count("device_id"))
        blobmsg_add_string(&b, "device_id", device_id.c_str());
    if (!omit.count("client_num"))
        blobmsg_add_u32(&b, "client_num", static_cast<uint32_t>(list.size()));
    if (!omit.count("mesh_client_list")) {
        void *array = blobmsg_open_array(&b, "mesh_client_list");
        for (const entry &e : list) {
            void *t = blobmsg_open_table(&b, nullptr);
            auto str = [&](const char *k, const std::string &v) {
                if (!e.omit.count(k))
                    blobmsg_add_string(&b, k, v.c_str());
            };
            auto num = [&](const char *k, int32_t v) {
                if (!e.omit.count(k))
                    blobmsg_add_u32(&b, k, static_cast<uint32_t>(v));
            };
            str("mac", e.mac);
            str("ip", e.ip);
            str("name", e.name);
            str("guest", e.guest);
            num("connection_type", e.connection_type);
            num("client_type", e.client_type);
            num("signal_strength", e.signal);
            num("rxrate", e.rxrate);
            num("txrate", e.txrate);
            blobmsg_close_table(&b, t);
        }
        blobmsg_close_array(&b, array);
    }
    size_t n = blob_raw_len(b.head);
    void *copy = std::malloc(n);
    std::memcpy(copy, b.head, n);
    blob_buf_free(&b);
    return copy;
}

// The dashed text of the registry tests' MAC of client `id`.
inline std::string client_mac(int id, const char *sep = ":")
{
    char text[32];
    std::snprintf(text, sizeof(text), "02%s00%s00%s%02X%s%02X%s%02X", sep, sep, sep, (id >> 16) & 0xff, sep,
                  (id >> 8) & 0xff, sep, id & 0xff);
    return text;
}

} // namespace meshtest
