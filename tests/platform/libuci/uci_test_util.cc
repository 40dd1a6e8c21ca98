#include "uci_test_util.h"

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <stdexcept>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

namespace uci_test {

temp_dir::temp_dir()
{
    // Commits fsync; a memory file system keeps the many small ones cheap.
    const char *base = std::getenv("TMPDIR");
    std::string root = base && *base ? base : "/tmp";
    if (!(base && *base) && ::access("/dev/shm", W_OK) == 0)
        root = "/dev/shm";
    std::string tmpl = root + "/lr-uci-XXXXXX";
    if (!::mkdtemp(tmpl.data()))
        throw std::runtime_error("mkdtemp failed");
    path_ = tmpl;
    std::filesystem::create_directory(path_ + "/conf");
    std::filesystem::create_directory(path_ + "/save");
}

temp_dir::~temp_dir()
{
    std::error_code ec;
    std::filesystem::remove_all(path_, ec);
}

std::string read_file(const std::string &path)
{
    std::ifstream in(path, std::ios::binary);
    std::ostringstream ss;
    ss << in.rdbuf();
    return ss.str();
}

void write_file(const std::string &path, const std::string &text, unsigned mode)
{
    std::ofstream out(path, std::ios::binary | std::ios::trunc);
    out << text;
    out.close();
    ::chmod(path.c_str(), mode);
}

bool file_exists(const std::string &path)
{
    struct stat st;
    return ::stat(path.c_str(), &st) == 0;
}

context::context(const temp_dir &dir) : ctx_(uci_alloc_context())
{
    uci_set_confdir(ctx_, (dir / "conf").c_str());
    uci_set_savedir(ctx_, (dir / "save").c_str());
}

context::~context()
{
    uci_free_context(ctx_);
}

std::string context::error(const char *prefix) const
{
    char *s = nullptr;
    uci_get_errorstr(ctx_, &s, prefix);
    std::string out = s ? s : "";
    std::free(s);
    return out;
}

lookup::lookup(uci_context *ctx, const std::string &text, bool extended) : buf(text)
{
    rc = uci_lookup_ptr(ctx, &ptr, buf.data(), extended);
}

int set_and_commit(uci_context *ctx, const std::string &text)
{
    lookup l(ctx, text);
    if (l.rc != UCI_OK)
        return l.rc;
    int rc = uci_set(ctx, &l.ptr);
    if (rc == UCI_OK)
        rc = uci_save(ctx, l.ptr.p);
    if (rc == UCI_OK)
        rc = uci_commit(ctx, &l.ptr.p, false);
    return rc;
}

std::string normalise(const std::string &text, const char *name)
{
    uci_context *ctx = uci_alloc_context();
    FILE *in = ::fmemopen(const_cast<char *>(text.data()), text.size(), "r");
    uci_package *p = nullptr;
    std::string out = "<error>";
    if (in && uci_import(ctx, in, name, &p, true) == UCI_OK && p) {
        char *buf = nullptr;
        size_t size = 0;
        FILE *mem = ::open_memstream(&buf, &size);
        uci_export(ctx, mem, p, false);
        std::fclose(mem);
        out.assign(buf, size);
        std::free(buf);
    }
    if (in)
        std::fclose(in);
    uci_free_context(ctx);
    return out;
}

cli_result run_uci(const std::vector<std::string> &args, const std::string &input)
{
    char dir_tmpl[] = "/tmp/lr-uci-run-XXXXXX";
    if (!::mkdtemp(dir_tmpl))
        throw std::runtime_error("mkdtemp failed");
    std::string dir = dir_tmpl;
    write_file(dir + "/in", input);
    pid_t pid = ::fork();
    if (pid == 0) {
        int in = ::open((dir + "/in").c_str(), O_RDONLY);
        int out = ::open((dir + "/out").c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0600);
        int err = ::open((dir + "/err").c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0600);
        ::dup2(in, 0);
        ::dup2(out, 1);
        ::dup2(err, 2);
        std::vector<char *> argv;
        argv.push_back(const_cast<char *>("uci"));
        for (const auto &a : args)
            argv.push_back(const_cast<char *>(a.c_str()));
        argv.push_back(nullptr);
        ::execv(LR_BINARY_DIR "/platform-bin/uci", argv.data());
        ::_exit(127);
    }
    int status = 0;
    ::waitpid(pid, &status, 0);
    cli_result r;
    r.code = WIFEXITED(status) ? WEXITSTATUS(status) : -1;
    r.out = read_file(dir + "/out");
    r.err = read_file(dir + "/err");
    std::error_code ec;
    std::filesystem::remove_all(dir, ec);
    return r;
}

}  // namespace uci_test
