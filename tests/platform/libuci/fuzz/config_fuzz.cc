// Fuzzes the configuration file reader: any input either fails cleanly or
// reads back, after export, to exactly the same export.
#include <uci.h>

#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <string>

namespace {

bool import_export(const std::string &text, bool strict, std::string &out)
{
    uci_context *ctx = uci_alloc_context();
    if (!strict)
        ctx->flags = static_cast<uci_flags>(ctx->flags & ~(UCI_FLAG_STRICT | UCI_FLAG_PERROR));
    FILE *in = ::fmemopen(const_cast<char *>(text.data()), text.size(), "r");
    bool ok = false;
    out.clear();
    uci_package *first = nullptr;
    if (in && uci_import(ctx, in, "fuzz", &first, false) == UCI_OK) {
        ok = true;
        char *buf = nullptr;
        size_t size = 0;
        FILE *mem = ::open_memstream(&buf, &size);
        uci_element *e;
        uci_foreach_element(&ctx->root, e) uci_export(ctx, mem, uci_to_package(e), true);
        std::fclose(mem);
        out.assign(buf, size);
        std::free(buf);
    }
    if (in)
        std::fclose(in);
    uci_free_context(ctx);
    return ok;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size);

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    if (size > 1 << 16)
        return 0;
    std::string text(reinterpret_cast<const char *>(data), size);
    for (bool strict : {true, false}) {
        std::string once, twice;
        if (!import_export(text, strict, once))
            continue;
        if (!import_export(once, true, twice) || twice != once)
            std::abort();  // what the writer wrote must read back the same
    }
    return 0;
}
