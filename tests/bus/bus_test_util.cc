#include "bus_test_util.h"

#include <cstdlib>
#include <unistd.h>

#include "bus/ubus_server.h"
#include "tests/sandbox/sandbox.h"

namespace bus_test
{

namespace
{

std::string text_of(blob_attr *a)
{
    switch (blobmsg_type(a)) {
    case BLOBMSG_TYPE_STRING:
        return blobmsg_get_string(a);
    case BLOBMSG_TYPE_INT32:
        return std::to_string(static_cast<int32_t>(blobmsg_get_u32(a)));
    case BLOBMSG_TYPE_INT8:
        return std::to_string(blobmsg_get_u8(a));
    default: {
        char *json = blobmsg_format_json(a, true);
        std::string s = json ? json : "";
        std::free(json);
        return s;
    }
    }
}

table fields_in(void *data, size_t len)
{
    table t;
    blob_attr *pos;
    size_t rem = len;
    __blob_for_each_attr(pos, static_cast<blob_attr *>(data), rem)
    {
        t.emplace_back(blobmsg_name(pos), text_of(pos));
    }
    return t;
}

} // namespace

table fields_of(blob_attr *root)
{
    return fields_in(blob_data(root), blob_len(root));
}

std::vector<table> tables_of(blob_attr *root, const char *array)
{
    std::vector<table> out;
    blob_attr *pos;
    size_t rem = blob_len(root);
    __blob_for_each_attr(pos, static_cast<blob_attr *>(blob_data(root)), rem)
    {
        if (std::string(blobmsg_name(pos)) != array || blobmsg_type(pos) != BLOBMSG_TYPE_ARRAY)
            continue;
        blob_attr *item;
        size_t irem = blobmsg_data_len(pos);
        __blob_for_each_attr(item, static_cast<blob_attr *>(blobmsg_data(pos)), irem)
        {
            out.push_back(fields_in(blobmsg_data(item), blobmsg_data_len(item)));
        }
    }
    return out;
}

std::vector<std::string> keys_of(const table &t)
{
    std::vector<std::string> keys;
    for (const auto &f : t)
        keys.push_back(f.first);
    return keys;
}

std::string value_of(const table &t, const std::string &key)
{
    for (const auto &f : t)
        if (f.first == key)
            return f.second;
    return "<absent>";
}

bool point_bus_at(const std::string &socket)
{
    if (!sandbox::in_private_namespace()) {
        ADD_FAILURE() << "the bus tests need the sandbox: lr_add_gtest(... SANDBOX)";
        return false;
    }
    unlink(UBUS_SOCKET_PATH);
    return socket.empty() || symlink(socket.c_str(), UBUS_SOCKET_PATH) == 0;
}

BusFixture::BusFixture()
{
    uloop_init();
    if (!point_bus_at(ubusd_.path()) || lanroster_ubus_init() != 0)
        return;
    server_ = new ubus_test::Server(ubus_ctx);
    server_->start();
    caller_ = ubus_connect(ubusd_.path());
    ok_ = caller_ != nullptr;
}

void BusFixture::stop_server()
{
    if (server_) {
        server_->stop();
        delete server_;
        server_ = nullptr;
    }
}

BusFixture::~BusFixture()
{
    stop_server();
    if (caller_)
        ubus_free(caller_);
    lanroster_ubus_deinit();
    point_bus_at("");
    uloop_done();
}

call_result BusFixture::call(const char *object, const char *method, const char *json)
{
    call_result r;
    uint32_t id = 0;
    if (ubus_lookup_id(caller_, object, &id) != 0)
        return r;
    blob_buf b = {};
    blob_buf_init(&b, 0);
    if (json && !blobmsg_add_json_from_string(&b, json)) {
        blob_buf_free(&b);
        return r;
    }
    auto cb = [](ubus_request *req, int, blob_attr *msg) {
        auto *out = static_cast<call_result *>(req->priv);
        char *text = blobmsg_format_json(msg, true);
        out->replies.emplace_back(text ? text : "");
        std::free(text);
    };
    r.status = ubus_invoke(caller_, id, method, b.head, cb, &r, 5000);
    blob_buf_free(&b);
    return r;
}

void BusFixture::send_event(const char *name, const char *json)
{
    blob_buf b = {};
    blob_buf_init(&b, 0);
    if (json)
        blobmsg_add_json_from_string(&b, json);
    ubus_send_event(caller_, name, b.head);
    blob_buf_free(&b);
    // The bus face handles its messages in order: once it has answered this
    // call, the event before it has been dispatched.
    call("lanroster", "lan_update_probe_never_matches", nullptr);
}

} // namespace bus_test
