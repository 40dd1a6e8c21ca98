// client_count - the same libraries from C++: the headers carry no
// extern "C" of their own, so the program wraps them.
//
// Build: c++ -std=c++20 client_count.cc -lblobmsg_json -lubox
#include <cstdio>
#include <cstdlib>

extern "C" {
#include <libubox/uloop.h>
#include <libubox/blobmsg.h>
#include <libubox/blobmsg_json.h>
}

namespace {

blob_buf buf{};
int fired;

void on_timer(uloop_timeout *) noexcept
{
    fired++;
    blob_buf_init(&buf, 0);
    void *t = blobmsg_open_table(&buf, "lanroster");
    blobmsg_add_u32(&buf, "clients", 3);
    void *a = blobmsg_open_array(&buf, "names");
    blobmsg_add_string(&buf, nullptr, "a");
    blobmsg_add_string(&buf, nullptr, "b");
    blobmsg_close_array(&buf, a);
    blobmsg_close_table(&buf, t);
    uloop_end();
}

}  // namespace

int main()
{
    uloop_init();
    uloop_timeout timer{};
    timer.cb = on_timer;
    uloop_timeout_set(&timer, 1);
    int ret = uloop_run();
    std::printf("fired %d ret %d\n", fired, ret);

    char *json = blobmsg_format_json(buf.head, true);
    std::printf("%s\n", json);
    std::free(json);

    static const blobmsg_policy policy[] = {{"lanroster", BLOBMSG_TYPE_TABLE}};
    blob_attr *tb[1];
    std::printf("parse %d\n", blobmsg_parse(policy, 1, tb, blob_data(buf.head), blob_len(buf.head)));
    char *inner = blobmsg_format_json_value(tb[0]);
    std::printf("%s\n", inner);
    std::free(inner);

    uloop_done();
    blob_buf_free(&buf);
    return 0;
}
