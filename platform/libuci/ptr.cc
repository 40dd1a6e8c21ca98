// Addressing: "pkg.sec.opt=value" split in place, and its lookup,
// including the extended "@type[index]" section form.
#include "internal.h"

#include <charconv>
#include <cstring>
#include <new>

using namespace uci_impl;

namespace {

void set_flags(uci_ptr *ptr, int flags) noexcept
{
    ptr->flags = static_cast<decltype(ptr->flags)>(flags);
}

struct extended_section {
    std::string_view type;  // empty: any type
    long index = 0;
};

// "@type[index]", "@type[]" (index 0), "@[index]" (any type).
bool parse_extended(std::string_view sv, extended_section &out) noexcept
{
    if (sv.size() < 3 || sv[0] != '@' || sv.back() != ']')
        return false;
    size_t open = sv.find('[');
    if (open == std::string_view::npos || open + 1 >= sv.size())
        return false;
    out.type = sv.substr(1, open - 1);
    std::string_view digits = sv.substr(open + 1, sv.size() - open - 2);
    if (out.type.find_first_of("[]") != std::string_view::npos)
        return false;
    out.index = 0;
    if (!digits.empty()) {
        auto res = std::from_chars(digits.data(), digits.data() + digits.size(), out.index);
        if (res.ec != std::errc() || res.ptr != digits.data() + digits.size())
            return false;
    }
    return true;
}

int lookup_extended(uci_ptr *ptr) noexcept
{
    extended_section ext;
    if (!parse_extended(ptr->section, ext))
        return UCI_ERR_INVAL;
    std::string_view type = ext.type;
    long index = ext.index;
    long count = 0;
    uci_element *e;
    uci_foreach_element(&ptr->p->sections, e) {
        if (type.empty() || type == uci_to_section(e)->type)
            count++;
    }
    if (index < 0)
        index += count;
    if (index < 0 || index >= count)
        return UCI_OK;  // out of range: simply not found
    uci_foreach_element(&ptr->p->sections, e) {
        if (!type.empty() && type != uci_to_section(e)->type)
            continue;
        if (index-- == 0) {
            ptr->s = uci_to_section(e);
            ptr->section = e->name;
            break;
        }
    }
    return UCI_OK;
}

}  // namespace

namespace uci_impl {

// Splits in place: the first '=' starts the value, then up to three
// dot-separated names. A section that is no plain name is left for the
// extended lookup to judge.
int parse_ptr(uci_ptr *ptr, char *str) noexcept
{
    std::memset(ptr, 0, sizeof(*ptr));
    if (!str)
        return UCI_ERR_PARSE;
    char *eq = std::strchr(str, '=');
    if (eq) {
        *eq = '\0';
        ptr->value = eq + 1;
    }
    const char *parts[3] = {nullptr, nullptr, nullptr};
    int n = 0;
    char *cur = str;
    while (true) {
        if (n == 3)
            goto fail;
        parts[n++] = cur;
        char *dot = std::strchr(cur, '.');
        if (!dot)
            break;
        *dot = '\0';
        cur = dot + 1;
    }
    ptr->package = parts[0];
    ptr->section = parts[1];
    ptr->option = parts[2];
    ptr->target = n == 1 ? UCI_TYPE_PACKAGE : n == 2 ? UCI_TYPE_SECTION : UCI_TYPE_OPTION;
    if (!valid_package(ptr->package))
        goto fail;
    if (ptr->section && !valid_name(ptr->section))
        set_flags(ptr, ptr->flags | uci_ptr::UCI_LOOKUP_EXTENDED);
    if (ptr->option && !valid_name(ptr->option))
        goto fail;
    if (ptr->value && !valid_text(ptr->value))
        goto fail;
    return UCI_OK;
fail:
    std::memset(ptr, 0, sizeof(*ptr));
    return UCI_ERR_PARSE;
}

// Missing sections or options are no error: only UCI_LOOKUP_COMPLETE tells.
int lookup_ptr(uci_context *ctx, uci_ptr *ptr, bool extended)
{
    set_flags(ptr, (ptr->flags | uci_ptr::UCI_LOOKUP_DONE) & ~uci_ptr::UCI_LOOKUP_COMPLETE);
    if (!ptr->s && ptr->o)
        ptr->s = ptr->o->section;
    if (!ptr->p && ptr->s)
        ptr->p = ptr->s->package;
    if (!ptr->p) {
        if (!ptr->package)
            return UCI_ERR_INVAL;
        uci_element *e = find_element(&ctx->root, ptr->package);
        if (e) {
            ptr->p = uci_to_package(e);
        } else {
            int r = load_package(ctx, ptr->package, &ptr->p);
            if (r != UCI_OK)
                return r;
        }
    }
    ptr->package = ptr->p->e.name;
    ptr->last = &ptr->p->e;
    if (!ptr->s && ptr->section) {
        if (ptr->flags & uci_ptr::UCI_LOOKUP_EXTENDED) {
            if (!extended)
                return UCI_ERR_INVAL;
            int r = lookup_extended(ptr);
            if (r != UCI_OK)
                return r;
        } else {
            uci_element *e = find_element(&ptr->p->sections, ptr->section);
            ptr->s = e ? uci_to_section(e) : nullptr;
        }
    }
    if (ptr->s) {
        ptr->section = ptr->s->e.name;
        ptr->last = &ptr->s->e;
        if (!ptr->o && ptr->option) {
            uci_element *e = find_element(&ptr->s->options, ptr->option);
            ptr->o = e ? uci_to_option(e) : nullptr;
        }
        if (ptr->o) {
            ptr->option = ptr->o->e.name;
            ptr->last = &ptr->o->e;
        }
    }
    bool complete = (!ptr->section || ptr->s) && (!ptr->option || ptr->o);
    if (complete)
        set_flags(ptr, ptr->flags | uci_ptr::UCI_LOOKUP_COMPLETE);
    return UCI_OK;
}

}  // namespace uci_impl

extern "C" int uci_parse_ptr(uci_context *ctx, uci_ptr *ptr, char *str)
{
    if (!ctx)
        return UCI_ERR_INVAL;
    api_enter(ctx, __func__);
    if (!ptr || !str)
        return set_error(ctx, UCI_ERR_INVAL);
    return set_error(ctx, parse_ptr(ptr, str));
}

extern "C" int uci_lookup_ptr(uci_context *ctx, uci_ptr *ptr, char *str, bool extended)
{
    if (!ctx)
        return UCI_ERR_INVAL;
    api_enter(ctx, __func__);
    if (!ptr)
        return set_error(ctx, UCI_ERR_INVAL);
    if (str) {
        int r = parse_ptr(ptr, str);
        if (r != UCI_OK)
            return set_error(ctx, r);
        // The whole expression is judged before anything is looked up: a
        // malformed section leaves the pointer as zeroed as a parse error.
        extended_section ext;
        if (extended && (ptr->flags & uci_ptr::UCI_LOOKUP_EXTENDED) && !parse_extended(ptr->section, ext)) {
            std::memset(ptr, 0, sizeof(*ptr));
            return set_error(ctx, UCI_ERR_INVAL);
        }
    }
    try {
        int r = lookup_ptr(ctx, ptr, extended);
        if (r != UCI_OK && ctx->err == r)
            return r;  // keeps the parse position of a failed load
        return set_error(ctx, r);
    } catch (const std::bad_alloc &) {
        return set_error(ctx, UCI_ERR_MEM);
    }
}
