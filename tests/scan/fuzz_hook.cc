// The hook file: any bytes as JSON, looked up for a fixed MAC and for the
// MAC of the first object that has one.
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <json-c/json.h>
#include <string>

#include "scan/lease.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size);

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    std::string text(reinterpret_cast<const char *>(data), size);
    json_tokener *tok = json_tokener_new();
    if (!tok)
        return 0;
    json_object *root = json_tokener_parse_ex(tok, text.c_str(), static_cast<int>(text.size()));
    json_tokener_free(tok);
    hook_client out{};
    const uint8_t fixed[6] = {0x02, 0xaa, 0xbb, 0xcc, 0xdd, 0x01};
    if (hook_lookup_in(root, &out, fixed) == 1 && (out.name[64] != '\0' || out.ipaddr[15] != '\0'))
        __builtin_trap();
    if (root && json_object_is_type(root, json_type_array) && json_object_array_length(root) > 0) {
        json_object *first = json_object_array_get_idx(root, 0);
        json_object *mac = nullptr;
        uint8_t wanted[6];
        if (first && json_object_object_get_ex(first, "mac", &mac) &&
            decode_hook_mac(json_object_get_string(mac) ? json_object_get_string(mac) : "", wanted))
            hook_lookup_in(root, &out, wanted);
    }
    json_object_put(root);
    return 0;
}
