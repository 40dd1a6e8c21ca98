// Fuzzes the change-file reader: any change file replays onto a package
// without a crash, and the merged package writes and reads back stably.
#include "../../../../platform/libuci/internal.h"  // the reader itself, not only its API

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

std::string reread(uci_context *ctx, const std::string &text)
{
    uci_package *q = uci_impl::package_new(ctx, "fuzz");
    if (uci_impl::parse_config(ctx, text, q, nullptr, uci_impl::parse_mode::file).code != UCI_OK)
        std::abort();  // whatever the writer wrote must read back
    std::string out = uci_impl::export_package(ctx, q, false);
    uci_impl::package_free(q);
    return out;
}

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
        // Renames may leave two sections of one name, which the reader
        // merges (refusing, when strict, if their types differ). Read
        // leniently; from the first rewrite on, the text must be stable.
        std::string once = uci_impl::export_package(ctx, p, false);
        ctx->flags = static_cast<uci_flags>(ctx->flags & ~UCI_FLAG_STRICT);
        std::string twice = reread(ctx, once);
        if (reread(ctx, twice) != twice)
            std::abort();
        uci_impl::filter_delta(text, "fuzz", "main", nullptr);
        uci_impl::package_free(p);
    } catch (...) {
        std::abort();
    }
    uci_free_context(ctx);
    return 0;
}
