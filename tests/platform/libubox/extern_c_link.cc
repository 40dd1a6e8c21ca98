// Every libubox header included inside extern "C" from C++: the calls below
// must resolve to the libraries' C symbols at link time.
#include <cstdio>
#include <cstdlib>

extern "C" {
#include <libubox/avl-cmp.h>
#include <libubox/avl.h>
#include <libubox/blob.h>
#include <libubox/blobmsg.h>
#include <libubox/blobmsg_json.h>
#include <libubox/list.h>
#include <libubox/uloop.h>
#include <libubox/utils.h>
}

int main()
{
    if (uloop_init() != 0)
        return 1;
    uloop_timeout t{};
    uloop_timeout_set(&t, 1000);
    int64_t left = uloop_timeout_remaining64(&t);
    uloop_timeout_cancel(&t);
    uloop_run_timeout(0);

    blob_buf b{};
    blobmsg_buf_init(&b);
    void *c = blobmsg_open_table(&b, "t");
    blobmsg_add_string(&b, "s", "v");
    blobmsg_printf(&b, "p", "%d", 1);
    blobmsg_close_table(&b, c);
    blobmsg_add_json_from_string(&b, "{\"j\":1}");
    char *json = blobmsg_format_json(b.head, true);
    blob_attr *tb[1];
    static const blobmsg_policy pol[] = {{"j", BLOBMSG_TYPE_INT32}};
    int ret = blobmsg_parse(pol, 1, tb, blob_data(b.head), static_cast<unsigned>(blob_len(b.head)));

    avl_tree tree;
    avl_init(&tree, avl_strcmp, false, nullptr);
    char enc[16];
    b64_encode("x", 1, enc, sizeof(enc));
    void *extra;
    void *block = calloc_a(8, &extra, 8);

    std::printf("%s %d %d\n", json, ret, left > 0);
    std::free(block);
    std::free(json);
    blob_buf_free(&b);
    uloop_done();
    return ret == 0 ? 0 : 1;
}
