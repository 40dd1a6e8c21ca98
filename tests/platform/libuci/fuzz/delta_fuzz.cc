// Fuzzes the change-file reader: any change file replays onto a package
// without a crash, and the merged package writes and reads back the same.
#include "../../../../platform/libuci/internal.h"

#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <string>

namespace {

const char base[] =
    "config system 'main'\n"
    "\toption hostname 'router'\n"
    "\tlist l 'a'\n"
    "\tlist l 'b'\n"
    "config host\n"
    "\toption mac '00:11:22:33:44:55'\n"
    "config host\n"
    "\toption mac '66:77:88:99:AA:BB'\n";

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size);

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    if (size > 1 << 16)
        return 0;
    uci_context *ctx = uci_alloc_context();
    try {
        uci_package *p = uci_impl::package_new(ctx, "fuzz");
        p->has_delta = true;
        if (uci_impl::parse_config(ctx, base, p, nullptr, uci_impl::parse_mode::file).code != UCI_OK)
            std::abort();
        std::string text(reinterpret_cast<const char *>(data), size);
        uci_impl::replay_delta(ctx, p, text);
        std::string once = uci_impl::export_package(ctx, p, false);
        uci_package *q = uci_impl::package_new(ctx, "fuzz");
        if (uci_impl::parse_config(ctx, once, q, nullptr, uci_impl::parse_mode::file).code != UCI_OK)
            std::abort();
        if (uci_impl::export_package(ctx, q, false) != once)
            std::abort();
        uci_impl::filter_delta(text, "fuzz", "main", nullptr);
        uci_impl::package_free(q);
        uci_impl::package_free(p);
    } catch (...) {
        std::abort();
    }
    uci_free_context(ctx);
    return 0;
}
