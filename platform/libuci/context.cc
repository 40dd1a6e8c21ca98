// Contexts: directories, the change search path, backends and error texts.
#include "internal.h"

#include <cstdlib>
#include <cstring>
#include <new>

using namespace uci_impl;

extern "C" char const uci_command_char[] = {
    '+',  // UCI_CMD_ADD
    '-',  // UCI_CMD_REMOVE
    0,    // UCI_CMD_CHANGE has no prefix
    '@',  // UCI_CMD_RENAME
    '^',  // UCI_CMD_REORDER
    '|',  // UCI_CMD_LIST_ADD
    '~',  // UCI_CMD_LIST_DEL
};

namespace uci_impl {

context_ext *ext(uci_context *ctx) noexcept
{
    static_assert(offsetof(context_ext, pub) == 0, "the public context must come first");
    return reinterpret_cast<context_ext *>(ctx);
}

int set_error(uci_context *ctx, int code) noexcept
{
    ctx->err = code;
    if (code != UCI_ERR_PARSE)
        ext(ctx)->perr.valid = false;
    return code;
}

void set_parse_error(uci_context *ctx, std::string_view reason, int line, int byte) noexcept
{
    auto &perr = ext(ctx)->perr;
    try {
        perr.reason.assign(reason);
    } catch (...) {
        perr.reason.clear();
    }
    perr.line = line;
    perr.byte = byte;
    perr.valid = true;
    ctx->err = UCI_ERR_PARSE;
}

void api_enter(uci_context *ctx, const char *func) noexcept
{
    ctx->err = UCI_OK;
    ctx->func = func;
    ext(ctx)->perr.valid = false;
}

}  // namespace uci_impl

namespace {

const char *const error_texts[] = {
    "Success",        "Out of memory", "Invalid argument", "Entry not found",
    "I/O error",      "Parse error",   "Duplicate entry",  "Unknown error",
};

uci_element *path_find(uci_list *paths, const char *dir) noexcept
{
    uci_element *e;
    uci_foreach_element(paths, e) {
        if (std::strcmp(e->name, dir) == 0)
            return e;
    }
    return nullptr;
}

uci_element *path_new(const char *dir) noexcept
{
    auto *e = static_cast<uci_element *>(std::calloc(1, sizeof(uci_element)));
    if (!e)
        return nullptr;
    e->type = UCI_TYPE_PATH;
    e->name = strdup(dir);
    if (!e->name) {
        std::free(e);
        return nullptr;
    }
    list_init(&e->list);
    return e;
}

void path_free(uci_element *e) noexcept
{
    list_del(&e->list);
    std::free(e->name);
    std::free(e);
}

int replace_dir(char **slot, const char *dir) noexcept
{
    char *copy = strdup(dir);
    if (!copy)
        return UCI_ERR_MEM;
    std::free(*slot);
    *slot = copy;
    return UCI_OK;
}

std::string error_text(uci_context *ctx, const char *prefix)
{
    int err = ctx->err;
    if (err < 0 || err >= UCI_ERR_LAST)
        err = UCI_ERR_UNKNOWN;
    std::string out;
    if (prefix) {
        out += prefix;
        out += ": ";
    }
    out += error_texts[err];
    const auto &perr = ext(ctx)->perr;
    if (err == UCI_ERR_PARSE && perr.valid) {
        out += " (" + perr.reason + ") at line " + std::to_string(perr.line) + ", byte " +
               std::to_string(perr.byte);
    }
    return out;
}

}  // namespace

extern "C" uci_context *uci_alloc_context(void)
{
    auto *x = new (std::nothrow) context_ext{};
    if (!x)
        return nullptr;
    uci_context *ctx = &x->pub;
    list_init(&ctx->root);
    list_init(&ctx->backends);
    list_init(&ctx->delta_path);
    list_init(&x->file_backend.e.list);
    x->file_backend.e.type = UCI_TYPE_BACKEND;
    x->file_backend.e.name = const_cast<char *>("file");
    list_add_tail(&ctx->backends, &x->file_backend.e.list);
    ctx->backend = &x->file_backend;
    ctx->flags = static_cast<uci_flags>(UCI_FLAG_STRICT | UCI_FLAG_SAVED_DELTA);
    ctx->confdir = strdup(UCI_CONFDIR);
    ctx->savedir = strdup(UCI_SAVEDIR);
    uci_element *def = path_new(UCI_SAVEDIR);
    if (!ctx->confdir || !ctx->savedir || !def) {
        std::free(def ? def->name : nullptr);
        std::free(def);
        std::free(ctx->confdir);
        std::free(ctx->savedir);
        delete x;
        return nullptr;
    }
    list_add_tail(&ctx->delta_path, &def->list);
    return ctx;
}

extern "C" void uci_free_context(uci_context *ctx)
{
    if (!ctx)
        return;
    while (!uci_list_empty(&ctx->root))
        package_free(uci_to_package(list_to_element(ctx->root.next)));
    while (!uci_list_empty(&ctx->delta_path))
        path_free(list_to_element(ctx->delta_path.next));
    std::free(ctx->confdir);
    std::free(ctx->savedir);
    std::free(ctx->conf2dir);
    std::free(ctx->buf);
    delete ext(ctx);
}

extern "C" int uci_set_confdir(uci_context *ctx, const char *dir)
{
    if (!ctx)
        return UCI_ERR_INVAL;
    api_enter(ctx, __func__);
    if (!dir || !*dir)
        return set_error(ctx, UCI_ERR_INVAL);
    return set_error(ctx, replace_dir(&ctx->confdir, dir));
}

extern "C" int uci_set_conf2dir(uci_context *ctx, const char *dir)
{
    if (!ctx)
        return UCI_ERR_INVAL;
    api_enter(ctx, __func__);
    if (!dir || !*dir) {
        std::free(ctx->conf2dir);
        ctx->conf2dir = nullptr;
        return UCI_OK;
    }
    return set_error(ctx, replace_dir(&ctx->conf2dir, dir));
}

// The save directory moves to the end of the search path; the one it
// replaces stays there, so its changes are still read.
extern "C" int uci_set_savedir(uci_context *ctx, const char *dir)
{
    if (!ctx)
        return UCI_ERR_INVAL;
    api_enter(ctx, __func__);
    if (!dir || !*dir)
        return set_error(ctx, UCI_ERR_INVAL);
    uci_element *e = path_find(&ctx->delta_path, dir);
    if (e) {
        list_del(&e->list);
    } else {
        e = path_new(dir);
        if (!e)
            return set_error(ctx, UCI_ERR_MEM);
    }
    list_add_tail(&ctx->delta_path, &e->list);
    return set_error(ctx, replace_dir(&ctx->savedir, dir));
}

// Extra directories go just before the save directory, which stays last.
extern "C" int uci_add_delta_path(uci_context *ctx, const char *dir)
{
    if (!ctx)
        return UCI_ERR_INVAL;
    api_enter(ctx, __func__);
    if (!dir || !*dir)
        return set_error(ctx, UCI_ERR_INVAL);
    if (path_find(&ctx->delta_path, dir))
        return set_error(ctx, UCI_ERR_DUPLICATE);
    uci_element *e = path_new(dir);
    if (!e)
        return set_error(ctx, UCI_ERR_MEM);
    list_insert_before(ctx->delta_path.prev, &e->list);
    return UCI_OK;
}

extern "C" int uci_set_backend(uci_context *ctx, const char *name)
{
    if (!ctx)
        return UCI_ERR_INVAL;
    api_enter(ctx, __func__);
    if (!name)
        return set_error(ctx, UCI_ERR_INVAL);
    uci_element *e = find_element(&ctx->backends, name);
    if (!e)
        return set_error(ctx, UCI_ERR_NOTFOUND);
    ctx->backend = uci_to_backend(e);
    return UCI_OK;
}

extern "C" void uci_perror(uci_context *ctx, const char *str)
{
    if (!ctx)
        return;
    try {
        std::string text = error_text(ctx, str);
        std::fprintf(stderr, "%s\n", text.c_str());
    } catch (...) {
        std::fprintf(stderr, "%s\n", error_texts[UCI_ERR_MEM]);
    }
}

extern "C" void uci_get_errorstr(uci_context *ctx, char **dest, const char *str)
{
    if (!ctx || !dest)
        return;
    try {
        *dest = strdup(error_text(ctx, str).c_str());
    } catch (...) {
        *dest = nullptr;
    }
}

extern "C" bool uci_validate_text(const char *str)
{
    return str && valid_text(str);
}

extern "C" int uci_lookup_next(uci_context *ctx, uci_element **e, uci_list *list, const char *name)
{
    if (!ctx)
        return UCI_ERR_INVAL;
    if (!e || !list || !name)
        return set_error(ctx, UCI_ERR_INVAL);
    *e = find_element(list, name);
    if (!*e)
        return set_error(ctx, UCI_ERR_NOTFOUND);
    return UCI_OK;
}

extern "C" void uci_parse_section(uci_section *s, const uci_parse_option *opts, int n_opts, uci_option **tb)
{
    if (!tb || n_opts <= 0)
        return;
    std::memset(tb, 0, sizeof(*tb) * static_cast<size_t>(n_opts));
    if (!s || !opts)
        return;
    uci_element *e;
    uci_foreach_element(&s->options, e) {
        uci_option *o = uci_to_option(e);
        for (int i = 0; i < n_opts; i++) {
            if (tb[i] || !opts[i].name || std::strcmp(opts[i].name, e->name) != 0)
                continue;
            if (opts[i].type == o->type)
                tb[i] = o;
            break;
        }
    }
}

namespace {

uint32_t hash_bytes(uint32_t h, const char *s) noexcept
{
    for (; s && *s; s++)
        h = (h << 5) + h + static_cast<unsigned char>(*s);
    return h;
}

}  // namespace

// A fingerprint of the parsed options, for callers that detect changes.
extern "C" uint32_t uci_hash_options(uci_option **tb, int n_opts)
{
    uint32_t h = 0xdeadc0de;
    for (int i = 0; tb && i < n_opts; i++) {
        uci_option *o = tb[i];
        if (!o)
            continue;
        h = hash_bytes(h, o->e.name);
        if (o->type == UCI_TYPE_STRING) {
            h = hash_bytes(h, o->v.string);
        } else {
            uci_element *e;
            uci_foreach_element(&o->v.list, e) h = hash_bytes(h, e->name);
        }
    }
    return h;
}
