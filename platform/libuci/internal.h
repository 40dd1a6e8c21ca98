// Internal interface of the libuci stand-in: the element tree, the text
// formats and the file layer. Everything here is C++ with C-style ownership:
// every element is one malloc'd object whose strings it owns.
#pragma once

#include <uci.h>

#include <unistd.h>

#include <deque>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace uci_impl {

// Where the last parse error of a load was, for uci_perror.
struct parse_error_info {
    std::string reason;
    int line = 0;
    int byte = 0;
    bool valid = false;
};

// The public context is the first member, so the pointer handed out is
// also a pointer to this wrapper.
struct context_ext {
    uci_context pub;
    parse_error_info perr;
    uci_backend file_backend;
    std::deque<std::string> arguments;   // words handed out by uci_parse_argument
};
context_ext *ext(uci_context *ctx) noexcept;

// ---- lists (tree.cc)
void list_init(uci_list *l) noexcept;
void list_add_tail(uci_list *head, uci_list *node) noexcept;
void list_insert_before(uci_list *pos, uci_list *node) noexcept;
void list_del(uci_list *node) noexcept;

// ---- names and values (tree.cc)
bool valid_name(std::string_view s) noexcept;     // sections and options
bool valid_package(std::string_view s) noexcept;  // names plus '-'
bool valid_type(std::string_view s) noexcept;     // printable, no space
bool valid_text(std::string_view s) noexcept;     // values
uint32_t type_hash(std::string_view type) noexcept;

// ---- the element tree (tree.cc)
uci_package *package_new(uci_context *ctx, std::string_view name);
void package_free(uci_package *p) noexcept;
uci_section *section_new(uci_package *p, std::string_view type, const char *name);
void section_free(uci_section *s) noexcept;
uci_option *option_new_string(uci_section *s, std::string_view name, std::string_view value);
uci_option *option_new_list(uci_section *s, std::string_view name);
void option_set_string(uci_option *o, std::string_view value);
void option_add_item(uci_option *o, std::string_view value);
uci_element *item_new(std::string_view value);
void option_free(uci_option *o) noexcept;
void option_clear_items(uci_option *o) noexcept;
void element_rename(uci_element *e, std::string_view name);
uci_element *find_element(uci_list *list, std::string_view name) noexcept;
void record_delta(uci_list *list, uci_command cmd, const char *section, const char *option, const char *value);
void delta_free(uci_delta *d) noexcept;
void delta_list_free(uci_list *list) noexcept;

// ---- errors (context.cc)
int set_error(uci_context *ctx, int code) noexcept;
void set_parse_error(uci_context *ctx, std::string_view reason, int line, int byte) noexcept;
void api_enter(uci_context *ctx, const char *func) noexcept;

// ---- addressing and edits (ptr.cc, edit.cc). record == nullptr: no delta.
int lookup_ptr(uci_context *ctx, uci_ptr *ptr, bool extended);
int parse_ptr(uci_ptr *ptr, char *str) noexcept;
int op_set(uci_context *ctx, uci_ptr *ptr, uci_list *record);
int op_delete(uci_context *ctx, uci_ptr *ptr, uci_list *record);
int op_add_list(uci_context *ctx, uci_ptr *ptr, uci_list *record);
int op_del_list(uci_context *ctx, uci_ptr *ptr, uci_list *record);
int op_rename(uci_context *ctx, uci_ptr *ptr, uci_list *record);
int op_reorder(uci_section *s, int pos, uci_list *record);
uci_section *op_add_section(uci_package *p, std::string_view type, uci_list *record);
constexpr int delete_bad_index = -1;  // uci_delete answers 1 with "Success"

// ---- text formats (parse.cc, export.cc)
enum class parse_mode { file, import_single, import_multi };
struct parse_result {
    int code = UCI_OK;
    std::vector<uci_package *> packages;  // import: every package seen
};
// Parses configuration text into `target` (file mode) or new packages.
parse_result parse_config(uci_context *ctx, std::string_view text, uci_package *target,
                          const char *name, parse_mode mode);
// Replays a change file onto p; returns the number of entries for p.
int replay_delta(uci_context *ctx, uci_package *p, std::string_view text);
std::string filter_delta(std::string_view text, std::string_view package, const char *section, const char *option);
std::string quote_value(std::string_view v);
std::string export_package(uci_context *ctx, const uci_package *p, bool header);
std::string delta_line(const uci_package *p, const uci_delta *d);
// One word of the file syntax starting at `pos`; nullopt at the end of the line.
std::optional<std::string> read_word(std::string_view text, size_t &pos);

// ---- files (store.cc)
// Owns one file descriptor; closing it also drops any flock taken on it.
class unique_fd {
public:
    explicit unique_fd(int fd = -1) noexcept : fd_(fd) {}
    unique_fd(const unique_fd &) = delete;
    unique_fd &operator=(const unique_fd &) = delete;
    unique_fd(unique_fd &&o) noexcept : fd_(o.fd_) { o.fd_ = -1; }
    unique_fd &operator=(unique_fd &&o) noexcept
    {
        if (this != &o) {
            reset();
            fd_ = o.fd_;
            o.fd_ = -1;
        }
        return *this;
    }
    ~unique_fd() { reset(); }
    void reset() noexcept
    {
        if (fd_ >= 0)
            ::close(fd_);
        fd_ = -1;
    }
    int get() const noexcept { return fd_; }
    explicit operator bool() const noexcept { return fd_ >= 0; }

private:
    int fd_;
};


int load_package(uci_context *ctx, const char *name, uci_package **out);
int save_package(uci_context *ctx, uci_package *p);
int write_file_atomic(const std::string &path, std::string_view content, bool keep_mode);
std::string join_path(std::string_view dir, std::string_view name);

}  // namespace uci_impl
