// JSON text into blobmsg (as the bus tool does with its arguments), and
// the result back out as JSON.
#include <cstdint>
#include <cstdlib>
#include <string>

extern "C" {
#include <libubox/blobmsg.h>
#include <libubox/blobmsg_json.h>
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size);

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    if (size > 65536)
        return 0;
    std::string text(reinterpret_cast<const char *>(data), size);

    blob_buf b{};
    blob_buf_init(&b, 0);
    if (blobmsg_add_json_from_string(&b, text.c_str())) {
        char *compact = blobmsg_format_json(b.head, true);
        char *indented = blobmsg_format_json_indent(b.head, true, 0);
        if (compact) {
            // Our own output must read back in.
            blob_buf again{};
            blob_buf_init(&again, 0);
            blobmsg_add_json_from_string(&again, compact);
            blob_buf_free(&again);
        }
        std::free(compact);
        std::free(indented);
    }
    blob_buf_free(&b);
    return 0;
}
