// Helpers of the libuci tests: scratch directories, files, contexts and
// runs of the `uci` command line.
#pragma once

#include <uci.h>

#include <string>
#include <vector>

namespace uci_test {

// Sanitizer builds run the long loops shorter: same checks, fewer rounds.
#if defined(__SANITIZE_ADDRESS__)
constexpr bool sanitized = true;
#elif defined(__has_feature)
#if __has_feature(address_sanitizer)
constexpr bool sanitized = true;
#else
constexpr bool sanitized = false;
#endif
#else
constexpr bool sanitized = false;
#endif

// A fresh directory under $TMPDIR (or /tmp), removed with its contents.
class temp_dir {
public:
    temp_dir();
    ~temp_dir();
    temp_dir(const temp_dir &) = delete;
    temp_dir &operator=(const temp_dir &) = delete;
    const std::string &path() const { return path_; }
    std::string operator/(const std::string &name) const { return path_ + "/" + name; }

private:
    std::string path_;
};

std::string read_file(const std::string &path);
void write_file(const std::string &path, const std::string &text, unsigned mode = 0644);
bool file_exists(const std::string &path);

// A context on conf/ and save/ of a scratch directory.
class context {
public:
    explicit context(const temp_dir &dir);
    ~context();
    context(const context &) = delete;
    context &operator=(const context &) = delete;
    uci_context *get() const { return ctx_; }
    operator uci_context *() const { return ctx_; }
    std::string error(const char *prefix = "uci") const;

private:
    uci_context *ctx_;
};

// uci_lookup_ptr on a writable copy of `text` that lives as long as this.
struct lookup {
    lookup(uci_context *ctx, const std::string &text, bool extended = true);
    std::string buf;
    uci_ptr ptr{};
    int rc;
    bool complete() const { return ptr.flags & uci_ptr::UCI_LOOKUP_COMPLETE; }
};

// Sets "pkg.sec.opt=value", saves and commits, the way the daemon writes.
int set_and_commit(uci_context *ctx, const std::string &text);

// Parses configuration text with uci_import and exports it again.
std::string normalise(const std::string &text, const char *name = "p");

struct cli_result {
    int code = -1;
    std::string out;
    std::string err;
};
// Runs build/platform-bin/uci with argv[0] "uci" and the given arguments.
cli_result run_uci(const std::vector<std::string> &args, const std::string &input = "");

}  // namespace uci_test
