// A fresh UCI context per use, freed however the use ends. Callers hold
// uci_lock for as long as the context lives.
#pragma once

#include <memory>

#include "core/openwrt.h"

struct uci_context_free {
    void operator()(uci_context *ctx) const noexcept
    {
        uci_free_context(ctx);
    }
};
using uci_context_ptr = std::unique_ptr<uci_context, uci_context_free>;

// Where the daemon's UCI packages live, and the factory profile.
inline constexpr char UCI_CONFIG_DIR[] = "/etc/config";
inline constexpr char PROFILE_CONFDIR[] = "/etc/profile.d";

// A context reading packages from `confdir` (UCI_CONFIG_DIR in the daemon).
inline uci_context_ptr new_uci_context(const char *confdir) noexcept
{
    uci_context_ptr ctx(uci_alloc_context());
    if (ctx && confdir)
        uci_set_confdir(ctx.get(), confdir);
    return ctx;
}

// The string value of option `name` of a section, or nullptr for a missing
// option or a list.
inline const char *uci_string(uci_context *ctx, uci_section *s, const char *name) noexcept
{
    return uci_lookup_option_string(ctx, s, name);
}
