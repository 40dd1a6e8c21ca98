// Revert, listing, import and export: the calls the command line needs
// beyond loading and committing.
#include "internal.h"

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <dirent.h>
#include <fcntl.h>
#include <new>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

using namespace uci_impl;

namespace {

bool read_stream(FILE *stream, std::string &out)
{
    char buf[8192];
    size_t n;
    while ((n = std::fread(buf, 1, sizeof buf, stream)) > 0)
        out.append(buf, n);
    return !std::ferror(stream);
}

// Rewrites <savedir>/<pkg> in place under its lock, without the entries
// of the target. In place, because other processes lock this very file.
int filter_save_file(uci_context *ctx, const char *pkg, const char *section, const char *option)
{
    std::string path = join_path(ctx->savedir, pkg);
    unique_fd fd(::open(path.c_str(), O_RDWR | O_CLOEXEC));
    if (!fd)
        return errno == ENOENT ? UCI_OK : UCI_ERR_IO;
    if (::flock(fd.get(), LOCK_EX) < 0)
        return UCI_ERR_IO;
    std::string text;
    char buf[8192];
    ssize_t n;
    off_t off = 0;
    while ((n = ::pread(fd.get(), buf, sizeof buf, off)) > 0) {
        text.append(buf, static_cast<size_t>(n));
        off += n;
    }
    if (n < 0)
        return UCI_ERR_IO;
    std::string kept = filter_delta(text, pkg, section, option);
    if (kept.size() == text.size())
        return UCI_OK;
    if (::ftruncate(fd.get(), 0) < 0 ||
        ::pwrite(fd.get(), kept.data(), kept.size(), 0) != static_cast<ssize_t>(kept.size()))
        return UCI_ERR_IO;
    return UCI_OK;
}

int revert_locked(uci_context *ctx, uci_ptr *ptr)
{
    uci_package *p = ptr->p;
    if (!p->has_delta)
        return UCI_ERR_INVAL;
    int r = save_package(ctx, p);
    if (r != UCI_OK)
        return r;
    std::string pkg = p->e.name;
    std::optional<std::string> section, option;
    if (ptr->section)
        section = ptr->section;
    if (ptr->section && ptr->option)
        option = ptr->option;
    package_free(p);
    ptr->p = nullptr;
    ptr->s = nullptr;
    ptr->o = nullptr;
    ptr->last = nullptr;
    ptr->package = ptr->section = ptr->option = nullptr;  // they may point into the freed package
    r = filter_save_file(ctx, pkg.c_str(), section ? section->c_str() : nullptr,
                         option ? option->c_str() : nullptr);
    if (r != UCI_OK)
        return r;
    r = load_package(ctx, pkg.c_str(), &ptr->p);
    if (r != UCI_OK)
        return r;
    ptr->package = ptr->p->e.name;
    ptr->last = &ptr->p->e;
    return UCI_OK;
}

}  // namespace

extern "C" int uci_revert(uci_context *ctx, uci_ptr *ptr)
{
    if (!ctx)
        return UCI_ERR_INVAL;
    api_enter(ctx, __func__);
    if (!ptr)
        return set_error(ctx, UCI_ERR_INVAL);
    try {
        if (!(ptr->flags & uci_ptr::UCI_LOOKUP_DONE)) {
            int r = lookup_ptr(ctx, ptr, true);
            if (r != UCI_OK)
                return set_error(ctx, r);
        }
        if (!ptr->p)
            return set_error(ctx, UCI_ERR_INVAL);
        int r = revert_locked(ctx, ptr);
        return r == UCI_ERR_PARSE ? r : set_error(ctx, r);
    } catch (const std::bad_alloc &) {
        return set_error(ctx, UCI_ERR_MEM);
    }
}

// Every regular file of the configuration directory with a valid package
// name (no '.'), in sorted order, in one allocation the caller frees.
extern "C" int uci_list_configs(uci_context *ctx, char ***list)
{
    if (!ctx)
        return UCI_ERR_INVAL;
    api_enter(ctx, __func__);
    if (!list)
        return set_error(ctx, UCI_ERR_INVAL);
    try {
        std::vector<std::string> names;
        DIR *dir = ::opendir(ctx->confdir);
        if (!dir)
            return set_error(ctx, UCI_ERR_NOTFOUND);
        while (dirent *de = ::readdir(dir)) {
            std::string_view name(de->d_name);
            struct stat st;
            if (!valid_package(name) || ::stat(join_path(ctx->confdir, name).c_str(), &st) < 0 ||
                !S_ISREG(st.st_mode))
                continue;
            names.emplace_back(name);
        }
        ::closedir(dir);
        std::sort(names.begin(), names.end());
        size_t size = (names.size() + 1) * sizeof(char *);
        for (const auto &n : names)
            size += n.size() + 1;
        auto **out = static_cast<char **>(std::calloc(1, size));
        if (!out)
            return set_error(ctx, UCI_ERR_MEM);
        char *text = reinterpret_cast<char *>(out + names.size() + 1);
        for (size_t i = 0; i < names.size(); i++) {
            std::memcpy(text, names[i].c_str(), names[i].size() + 1);
            out[i] = text;
            text += names[i].size() + 1;
        }
        *list = out;
        return UCI_OK;
    } catch (const std::bad_alloc &) {
        return set_error(ctx, UCI_ERR_MEM);
    }
}

extern "C" int uci_export(uci_context *ctx, FILE *stream, uci_package *package, bool header)
{
    if (!ctx)
        return UCI_ERR_INVAL;
    api_enter(ctx, __func__);
    if (!stream || !package)
        return set_error(ctx, UCI_ERR_INVAL);
    try {
        std::string text = export_package(ctx, package, header);
        if (std::fwrite(text.data(), 1, text.size(), stream) != text.size())
            return set_error(ctx, UCI_ERR_IO);
        return UCI_OK;
    } catch (const std::bad_alloc &) {
        return set_error(ctx, UCI_ERR_MEM);
    }
}

// Parses a stream of packages. An existing *package is merged into;
// otherwise the packages read are added to the context and *package is
// the first. Imported packages are written whole on commit.
extern "C" int uci_import(uci_context *ctx, FILE *stream, const char *name, uci_package **package, bool single)
{
    if (!ctx)
        return UCI_ERR_INVAL;
    api_enter(ctx, __func__);
    if (!stream || (name && !valid_package(name)))
        return set_error(ctx, UCI_ERR_INVAL);
    try {
        std::string text;
        if (!read_stream(stream, text))
            return set_error(ctx, UCI_ERR_IO);
        uci_package *target = package ? *package : nullptr;
        parse_result r = parse_config(ctx, text, target, target ? nullptr : name,
                                      target ? parse_mode::file
                                             : (single ? parse_mode::import_single : parse_mode::import_multi));
        if (r.code != UCI_OK)
            return r.code == UCI_ERR_PARSE ? r.code : set_error(ctx, r.code);
        for (uci_package *p : r.packages) {
            p->path = strdup(join_path(ctx->confdir, p->e.name).c_str());
            list_add_tail(&ctx->root, &p->e.list);
        }
        if (package && !target)
            *package = r.packages.empty() ? nullptr : r.packages.front();
        return UCI_OK;
    } catch (const std::bad_alloc &) {
        return set_error(ctx, UCI_ERR_MEM);
    }
}

// Reads the next word of the stream's current line; a new line is read
// when the last one is used up. *result stays valid until the context is
// freed.
extern "C" int uci_parse_argument(uci_context *ctx, FILE *stream, char **str, char **result)
{
    if (!ctx)
        return UCI_ERR_INVAL;
    api_enter(ctx, __func__);
    if (!stream || !str || !result)
        return set_error(ctx, UCI_ERR_INVAL);
    try {
        *result = nullptr;
        if (!*str || !**str) {
            size_t cap = ctx->bufsz > 0 ? static_cast<size_t>(ctx->bufsz) : 0;
            ssize_t n = ::getline(&ctx->buf, &cap, stream);
            ctx->bufsz = static_cast<int>(cap);
            if (n < 0)
                return UCI_OK;  // end of input: no argument
            *str = ctx->buf;
        }
        size_t pos = 0;
        std::optional<std::string> w = read_word(*str, pos);
        *str += pos;
        if (!w)
            return UCI_OK;
        auto &store = ext(ctx)->arguments;
        store.push_back(std::move(*w));
        *result = store.back().data();
        return UCI_OK;
    } catch (const std::bad_alloc &) {
        return set_error(ctx, UCI_ERR_MEM);
    }
}
