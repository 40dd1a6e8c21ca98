// lr_event_storm SOCKET COUNT NAME [JSON]: sends COUNT copies of one bus
// event as fast as the bus takes them, for the storm test of the daemon's
// event intake.
#include <cstdio>
#include <cstdlib>

#include "core/openwrt.h"

int main(int argc, char **argv)
{
    if (argc < 4) {
        std::fprintf(stderr, "usage: %s SOCKET COUNT NAME [JSON]\n", argv[0]);
        return 2;
    }
    ubus_context *ctx = ubus_connect(argv[1]);
    if (!ctx) {
        std::fprintf(stderr, "cannot connect to %s\n", argv[1]);
        return 1;
    }
    blob_buf b = {};
    blob_buf_init(&b, 0);
    if (argc > 4 && !blobmsg_add_json_from_string(&b, argv[4])) {
        std::fprintf(stderr, "bad JSON\n");
        return 2;
    }
    long count = std::strtol(argv[2], nullptr, 10);
    int failed = 0;
    for (long i = 0; i < count; i++)
        failed += ubus_send_event(ctx, argv[3], b.head) != 0;
    blob_buf_free(&b);
    ubus_free(ctx);
    std::printf("%ld sent, %d failed\n", count - failed, failed);
    return failed ? 1 : 0;
}
