// A bus service for the lab: publishes one object whose methods answer the
// JSON they were given, so that readers which go through the `ubus` command
// line see real `ubus call` output.
//
//   ubus_answer [-s SOCKET] OBJECT METHOD=JSON | METHOD=@FILE ...
//
// An answer "@FILE" is read at each call, so a test may change it while the
// service runs; a file that is missing or not JSON gives no reply (the call
// then fails with status 4 or as the file says). A method whose answer is
// the word "hang" never answers.
#include <cstdio>
#include <cstring>
#include <string>
#include <unistd.h>
#include <vector>

extern "C" {
#include <libubox/blobmsg_json.h>
#include <libubox/uloop.h>
#include <libubus.h>
}

namespace
{

struct answer {
    std::string method;
    std::string text; // JSON, or "@path"
};

std::vector<answer> answers;
blob_buf reply;

int handle(ubus_context *ctx, ubus_object *, ubus_request_data *req, const char *method, blob_attr *)
{
    for (const answer &a : answers) {
        if (a.method != method)
            continue;
        if (a.text == "hang")
            pause();
        blob_buf_init(&reply, 0);
        bool ok = a.text.size() > 1 && a.text[0] == '@'
                      ? blobmsg_add_json_from_file(&reply, a.text.c_str() + 1)
                      : blobmsg_add_json_from_string(&reply, a.text.c_str());
        if (!ok)
            return UBUS_STATUS_NOT_FOUND;
        ubus_send_reply(ctx, req, reply.head);
        return UBUS_STATUS_OK;
    }
    return UBUS_STATUS_METHOD_NOT_FOUND;
}

} // namespace

int main(int argc, char **argv)
{
    const char *socket = nullptr;
    int at = 1;
    if (at + 1 < argc && std::strcmp(argv[at], "-s") == 0) {
        socket = argv[at + 1];
        at += 2;
    }
    if (at >= argc) {
        std::fprintf(stderr, "usage: %s [-s SOCKET] OBJECT METHOD=JSON|METHOD=@FILE ...\n", argv[0]);
        return 2;
    }
    const char *object_name = argv[at++];
    for (; at < argc; at++) {
        const char *eq = std::strchr(argv[at], '=');
        if (!eq) {
            std::fprintf(stderr, "ubus_answer: %s is not METHOD=ANSWER\n", argv[at]);
            return 2;
        }
        answers.push_back({std::string(argv[at], static_cast<size_t>(eq - argv[at])), std::string(eq + 1)});
    }
    std::vector<ubus_method> methods(answers.size());
    for (size_t i = 0; i < answers.size(); i++) {
        methods[i] = {};
        methods[i].name = answers[i].method.c_str();
        methods[i].handler = handle;
    }
    ubus_object_type type = {};
    type.name = object_name;
    type.methods = methods.data();
    type.n_methods = static_cast<int>(methods.size());
    ubus_object object = {};
    object.name = object_name;
    object.type = &type;
    object.methods = methods.data();
    object.n_methods = static_cast<int>(methods.size());
    uloop_init();
    ubus_context *ctx = ubus_connect(socket);
    if (!ctx) {
        std::fprintf(stderr, "ubus_answer: cannot connect to the bus\n");
        return 1;
    }
    ubus_add_uloop(ctx);
    if (ubus_add_object(ctx, &object) != 0) {
        std::fprintf(stderr, "ubus_answer: cannot publish %s\n", object_name);
        return 1;
    }
    uloop_run();
    ubus_free(ctx);
    uloop_done();
    return 0;
}
