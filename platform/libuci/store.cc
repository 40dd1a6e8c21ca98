// The file layer: loading packages, appending changes, committing and
// reverting. Configuration files are only ever replaced by rename(), so a
// reader or a crash sees the old or the new file, never a mix. Advisory
// flock()s order the writers: a committer holds the configuration file
// exclusively, then its change file; savers hold only the change file.
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

bool lock_fd(int fd, int op) noexcept
{
    while (::flock(fd, op) < 0) {
        if (errno != EINTR)
            return false;
    }
    return true;
}

bool read_fd(int fd, std::string &out)
{
    out.clear();
    char buf[8192];
    off_t off = 0;
    while (true) {
        ssize_t n = ::pread(fd, buf, sizeof buf, off);
        if (n < 0 && errno == EINTR)
            continue;
        if (n < 0)
            return false;
        if (n == 0)
            return true;
        out.append(buf, static_cast<size_t>(n));
        off += n;
    }
}

bool write_all(int fd, std::string_view data) noexcept
{
    while (!data.empty()) {
        ssize_t n = ::write(fd, data.data(), data.size());
        if (n < 0 && errno == EINTR)
            continue;
        if (n <= 0)
            return false;
        data.remove_prefix(static_cast<size_t>(n));
    }
    return true;
}

mode_t mode_of(const std::string &path, mode_t fallback) noexcept
{
    struct stat st;
    if (::stat(path.c_str(), &st) == 0)
        return st.st_mode & 07777;
    return fallback;
}

// Opens the configuration file for a commit and locks it exclusively. A
// committer that waited on the lock may find the file replaced by then;
// it must lock the new one, or its result would be renamed away.
unique_fd open_config_locked(const std::string &path)
{
    for (int tries = 0; tries < 100; tries++) {
        unique_fd fd(::open(path.c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0600));
        if (!fd || !lock_fd(fd.get(), LOCK_EX))
            return unique_fd();
        struct stat held, now;
        if (::fstat(fd.get(), &held) == 0 && ::stat(path.c_str(), &now) == 0 && held.st_dev == now.st_dev &&
            held.st_ino == now.st_ino)
            return fd;
    }
    return unique_fd();
}

int make_dirs(const std::string &dir, mode_t mode) noexcept
{
    struct stat st;
    if (::stat(dir.c_str(), &st) == 0)
        return S_ISDIR(st.st_mode) ? 0 : -1;
    size_t slash = dir.find_last_of('/');
    if (slash != std::string::npos && slash > 0 && make_dirs(dir.substr(0, slash), mode) < 0)
        return -1;
    if (::mkdir(dir.c_str(), mode) < 0 && errno != EEXIST)
        return -1;
    ::chmod(dir.c_str(), mode);
    return 0;
}

// Reads every change directory in search order onto p. The save
// directory's file may already be held (and read) by a committer: flock
// is per open file, so reopening it here would wait on ourselves.
struct held_file {
    const std::string *text = nullptr;
    dev_t dev = 0;
    ino_t ino = 0;
};

int replay_all(uci_context *ctx, uci_package *p, const held_file &held)
{
    int count = 0;
    bool held_done = false;
    uci_element *e;
    uci_foreach_element(&ctx->delta_path, e) {
        bool is_save_dir = std::strcmp(e->name, ctx->savedir) == 0;
        if (held.text && is_save_dir) {
            if (!held_done)
                count += replay_delta(ctx, p, *held.text);
            held_done = true;
            continue;
        }
        unique_fd fd(::open(join_path(e->name, p->e.name).c_str(), O_RDONLY | O_CLOEXEC));
        if (!fd)
            continue;
        struct stat st;
        // the same file under another spelling of the directory: already held
        if (held.text && held.ino && ::fstat(fd.get(), &st) == 0 && st.st_dev == held.dev && st.st_ino == held.ino) {
            if (!held_done)
                count += replay_delta(ctx, p, *held.text);
            held_done = true;
            continue;
        }
        std::string text;
        if (!lock_fd(fd.get(), LOCK_SH) || !read_fd(fd.get(), text))
            continue;
        count += replay_delta(ctx, p, text);
    }
    return count;
}

std::string base_name(std::string_view path)
{
    size_t slash = path.find_last_of('/');
    return std::string(slash == std::string_view::npos ? path : path.substr(slash + 1));
}

int parse_into(uci_context *ctx, uci_package *p, std::string_view text)
{
    parse_result r = parse_config(ctx, text, p, nullptr, parse_mode::file);
    return r.code;
}

// Packages loaded by path have no change files: saving writes them whole.
int write_whole(uci_context *ctx, uci_package *p)
{
    if (!p->path)
        return UCI_ERR_INVAL;
    unique_fd lock = open_config_locked(p->path);
    if (!lock)
        return UCI_ERR_IO;
    int r = write_file_atomic(p->path, export_package(ctx, p, false), true);
    if (r == UCI_OK)
        delta_list_free(&p->delta);
    return r;
}

// Temp files of commits that were killed before their rename. Callers
// hold the configuration file's lock, and only its holder writes temp
// files for it, so any that exist now are left over.
void remove_stale_temps(const std::string &dir, const std::string &base) noexcept
{
    DIR *d = ::opendir(dir.c_str());
    if (!d)
        return;
    std::string prefix = "." + base + ".uci-";
    while (dirent *de = ::readdir(d)) {
        std::string_view name(de->d_name);
        if (name.size() == prefix.size() + 6 && name.substr(0, prefix.size()) == prefix)
            ::unlinkat(::dirfd(d), de->d_name, 0);
    }
    ::closedir(d);
}

}  // namespace

namespace uci_impl {

std::string join_path(std::string_view dir, std::string_view name)
{
    std::string out(dir);
    if (out.empty() || out.back() != '/')
        out += '/';
    out += name;
    return out;
}

// Temp file in the same directory, fsync, the old mode, then rename():
// readers and crashes see the old or the new content, never a torn file.
int write_file_atomic(const std::string &path, std::string_view content, bool keep_mode)
{
    std::string target = path;
    if (char *real = ::realpath(path.c_str(), nullptr)) {
        target = real;
        std::free(real);
    }
    size_t slash = target.find_last_of('/');
    std::string dir = slash == std::string::npos ? "." : target.substr(0, slash == 0 ? 1 : slash);
    remove_stale_temps(dir, base_name(target));
    std::string tmpl = join_path(dir, "." + base_name(target) + ".uci-XXXXXX");
    unique_fd fd(::mkstemp(tmpl.data()));
    if (!fd)
        return UCI_ERR_IO;
    mode_t mode = keep_mode ? mode_of(target, UCI_FILEMODE) : UCI_FILEMODE;
    bool ok = lock_fd(fd.get(), LOCK_EX) && write_all(fd.get(), content) && ::fsync(fd.get()) == 0 &&
              ::fchmod(fd.get(), mode) == 0 && ::rename(tmpl.c_str(), target.c_str()) == 0;
    if (!ok) {
        ::unlink(tmpl.c_str());
        return UCI_ERR_IO;
    }
    unique_fd dfd(::open(dir.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
    if (dfd)
        ::fsync(dfd.get());
    return UCI_OK;
}

int load_package(uci_context *ctx, const char *name, uci_package **out)
{
    if (!name || !*name)
        return UCI_ERR_INVAL;
    std::string_view sv(name);
    bool by_path = sv[0] == '/' || sv.substr(0, 2) == "./";
    std::string path;
    if (by_path) {
        path = name;
    } else {
        // A name is refused only for blanks and control bytes; any other
        // name is looked for as a file ("bad.name" is simply not found).
        for (unsigned char c : sv) {
            if (c < 33 || c > 126)
                return UCI_ERR_INVAL;
        }
        if (sv.find('/') != std::string_view::npos)
            return UCI_ERR_NOTFOUND;  // never a path outside the directory
        path = join_path(ctx->confdir, sv);
        if (ctx->conf2dir) {
            std::string alt = join_path(ctx->conf2dir, sv);
            if (::access(alt.c_str(), F_OK) == 0)
                path = alt;
        }
    }
    std::string pkgname = base_name(path);
    if (find_element(&ctx->root, pkgname))
        return UCI_ERR_DUPLICATE;
    unique_fd fd(::open(path.c_str(), O_RDONLY | O_CLOEXEC));
    if (!fd)
        return (errno == ENOENT || errno == ENOTDIR || errno == EISDIR) ? UCI_ERR_NOTFOUND : UCI_ERR_IO;
    struct stat st;
    if (::fstat(fd.get(), &st) < 0 || !S_ISREG(st.st_mode))
        return UCI_ERR_NOTFOUND;
    std::string text;
    if (!lock_fd(fd.get(), LOCK_SH) || !read_fd(fd.get(), text))
        return UCI_ERR_IO;
    uci_package *p = package_new(ctx, pkgname);
    p->path = strdup(path.c_str());
    p->has_delta = !by_path;
    p->uses_conf2 = ctx->conf2dir && path != join_path(ctx->confdir, pkgname);
    int r = p->path ? parse_into(ctx, p, text) : UCI_ERR_MEM;
    if (r != UCI_OK) {
        package_free(p);
        return r;
    }
    // The shared lock stays on while the changes are read, so a commit
    // cannot fold them into the file half-way through this load.
    if (p->has_delta)
        replay_all(ctx, p, held_file{});
    list_add_tail(&ctx->root, &p->e.list);
    *out = p;
    return UCI_OK;
}

// Appends the unsaved changes to <savedir>/<pkg> in one write.
int save_package(uci_context *ctx, uci_package *p)
{
    if (!p->has_delta)
        return write_whole(ctx, p);
    if (uci_list_empty(&p->delta))
        return UCI_OK;
    if (make_dirs(ctx->savedir, mode_of(ctx->confdir, UCI_DIRMODE)) < 0)
        return UCI_ERR_IO;
    std::string path = join_path(ctx->savedir, p->e.name);
    unique_fd fd(::open(path.c_str(), O_WRONLY | O_APPEND | O_CREAT | O_EXCL | O_CLOEXEC, UCI_FILEMODE));
    if (fd)
        ::fchmod(fd.get(), mode_of(join_path(ctx->confdir, p->e.name), UCI_FILEMODE));
    else if (errno == EEXIST)
        fd = unique_fd(::open(path.c_str(), O_WRONLY | O_APPEND | O_CLOEXEC));
    if (!fd || !lock_fd(fd.get(), LOCK_EX))
        return UCI_ERR_IO;
    std::string text;
    uci_element *e;
    uci_foreach_element(&p->delta, e) text += delta_line(p, uci_to_delta(e));
    if (!write_all(fd.get(), text))
        return UCI_ERR_IO;
    while (!uci_list_empty(&p->delta)) {
        uci_element *d = list_to_element(p->delta.next);
        list_del(&d->list);
        if (ctx->flags & UCI_FLAG_SAVED_DELTA)
            list_add_tail(&p->saved_delta, &d->list);
        else
            delta_free(uci_to_delta(d));
    }
    return UCI_OK;
}

}  // namespace uci_impl

namespace {

// Re-reads the file and every change file under the locks and writes the
// merged result; *pp becomes the fresh package object.
int commit_locked(uci_context *ctx, uci_package **pp, bool overwrite, int cfd)
{
    uci_package *p = *pp;
    if (!overwrite) {
        int r = save_package(ctx, p);
        if (r != UCI_OK)
            return r;
    }
    std::string save_path = join_path(ctx->savedir, p->e.name);
    unique_fd dfd(::open(save_path.c_str(), O_RDWR | O_CLOEXEC));
    std::string held_text;
    held_file held{&held_text};
    struct stat st;
    if (dfd && (!lock_fd(dfd.get(), LOCK_EX) || !read_fd(dfd.get(), held_text)))
        return UCI_ERR_IO;
    if (dfd && ::fstat(dfd.get(), &st) == 0) {
        held.dev = st.st_dev;
        held.ino = st.st_ino;
    }
    uci_package *np = p;
    if (!overwrite) {
        std::string text;
        if (!read_fd(cfd, text))
            return UCI_ERR_IO;
        np = package_new(ctx, p->e.name);
        np->path = strdup(p->path);
        np->has_delta = true;
        np->uses_conf2 = p->uses_conf2;
        int r = np->path ? parse_into(ctx, np, text) : UCI_ERR_MEM;
        if (r != UCI_OK) {
            package_free(np);
            return r;
        }
    }
    int count = replay_all(ctx, np, held);
    if (np != p) {
        package_free(p);
        list_add_tail(&ctx->root, &np->e.list);
        *pp = np;
    }
    if (count == 0)
        return UCI_OK;
    std::string content = export_package(ctx, np, false);
    int r = write_file_atomic(np->path, content, true);
    if (r != UCI_OK)
        return r;
    delta_list_free(&np->delta);
    // *pp stays the package as parsed and replayed, not the file read back:
    // its anonymous names and section counter are the ones made before the
    // commit, even where a fresh reader of the file would name differently.
    if (dfd && ::ftruncate(dfd.get(), 0) < 0)
        return UCI_ERR_IO;
    return UCI_OK;
}

}  // namespace

extern "C" int uci_load(uci_context *ctx, const char *name, uci_package **package)
{
    if (!ctx)
        return UCI_ERR_INVAL;
    api_enter(ctx, __func__);
    try {
        uci_package *p = nullptr;
        int r = load_package(ctx, name, &p);
        if (r != UCI_OK)
            return r == UCI_ERR_PARSE ? r : set_error(ctx, r);
        if (package)
            *package = p;
        return UCI_OK;
    } catch (const std::bad_alloc &) {
        return set_error(ctx, UCI_ERR_MEM);
    }
}

extern "C" int uci_unload(uci_context *ctx, uci_package *p)
{
    if (!ctx)
        return UCI_ERR_INVAL;
    api_enter(ctx, __func__);
    if (!p)
        return set_error(ctx, UCI_ERR_INVAL);
    package_free(p);
    return UCI_OK;
}

extern "C" int uci_save(uci_context *ctx, uci_package *p)
{
    if (!ctx)
        return UCI_ERR_INVAL;
    api_enter(ctx, __func__);
    if (!p)
        return set_error(ctx, UCI_ERR_INVAL);
    try {
        return set_error(ctx, save_package(ctx, p));
    } catch (const std::bad_alloc &) {
        return set_error(ctx, UCI_ERR_MEM);
    }
}

extern "C" int uci_commit(uci_context *ctx, uci_package **p, bool overwrite)
{
    if (!ctx)
        return UCI_ERR_INVAL;
    api_enter(ctx, __func__);
    if (!p || !*p || !(*p)->path)
        return set_error(ctx, UCI_ERR_INVAL);
    try {
        if (!(*p)->has_delta)
            return set_error(ctx, write_whole(ctx, *p));
        unique_fd cfd = open_config_locked((*p)->path);
        if (!cfd)
            return set_error(ctx, UCI_ERR_IO);
        int r = commit_locked(ctx, p, overwrite, cfd.get());
        return r == UCI_ERR_PARSE ? r : set_error(ctx, r);
    } catch (const std::bad_alloc &) {
        return set_error(ctx, UCI_ERR_MEM);
    }
}
