// The text formats: configuration files (and import streams), change
// files, and the writer for both. Input is untrusted: every read is
// bounded by the view it comes in.
#include "internal.h"

#include <charconv>
#include <cstring>
#include <memory>
#include <new>

namespace uci_impl {

namespace {

bool is_blank(char c) noexcept
{
    return c == ' ' || c == '\t' || c == '\r' || c == '\v' || c == '\f';
}

struct word {
    std::string text;
    int line;
    int byte;
    size_t line_start;  // offset of the first byte of the word's line
};

// Splits text into words and commands. Quotes may span lines; a newline
// or a ';' after whitespace ends a command; '#' starts a comment.
class lexer {
public:
    explicit lexer(std::string_view text) noexcept : text_(text) {}

    enum class status { words, eof, error };

    status read_command(std::vector<word> &out)
    {
        out.clear();
        while (true) {
            skip_blanks();
            if (at_end())
                return out.empty() ? status::eof : status::words;
            char c = text_[pos_];
            if (c == '\n') {
                consume_newline();
                if (!out.empty())
                    return status::words;
            } else if (c == '#') {
                skip_line();
            } else if (c == ';') {
                pos_++;
                if (!out.empty())
                    return status::words;
            } else if (c == '\\' && pos_ + 1 < text_.size() && text_[pos_ + 1] == '\n') {
                pos_++;
                consume_newline();
            } else {
                word w{{}, line_, column(), line_start_};
                if (!scan_word(w.text))
                    return status::error;
                out.push_back(std::move(w));
            }
        }
    }

    // One word; false only for an unterminated quote.
    bool scan_word(std::string &w)
    {
        while (!at_end()) {
            char c = text_[pos_];
            if (is_blank(c) || c == '\n' || c == '#')
                return true;
            if (c == ';') {  // glued to a word: the rest of the line is lost
                skip_line();
                return true;
            }
            pos_++;
            if (c == '\'') {
                if (!scan_single(w))
                    return false;
            } else if (c == '"') {
                if (!scan_double(w))
                    return false;
            } else if (c == '\\') {
                if (at_end())
                    return true;
                if (text_[pos_] == '\n')
                    consume_newline();
                else
                    w += text_[pos_++];
            } else {
                w += c;
            }
        }
        return true;
    }

    void skip_blanks() noexcept
    {
        while (!at_end() && is_blank(text_[pos_]))
            pos_++;
    }
    void skip_line() noexcept
    {
        while (!at_end() && text_[pos_] != '\n')
            pos_++;
    }
    void consume_newline() noexcept
    {
        pos_++;
        line_++;
        line_start_ = pos_;
    }
    bool at_end() const noexcept { return pos_ >= text_.size(); }
    char peek() const noexcept { return text_[pos_]; }
    void advance() noexcept { pos_++; }
    int line() const noexcept { return line_; }
    size_t offset() const noexcept { return pos_; }
    int column() const noexcept { return static_cast<int>(pos_ - line_start_); }

    std::string error;
    int error_line = 0;
    int error_byte = 0;

private:
    bool scan_single(std::string &w)
    {
        const int quote_line = line_;
        const size_t quote_line_start = line_start_;
        while (!at_end()) {
            char c = text_[pos_];
            if (c == '\'') {
                pos_++;
                return true;
            }
            if (c == '\n')
                consume_newline();
            else
                pos_++;
            w += c;
        }
        return fail("EOF with unterminated '", quote_line, quote_line_start);
    }

    bool scan_double(std::string &w)
    {
        const int quote_line = line_;
        const size_t quote_line_start = line_start_;
        while (!at_end()) {
            char c = text_[pos_];
            if (c == '"') {
                pos_++;
                return true;
            }
            if (c == '\\') {
                pos_++;
                if (at_end())
                    break;
                c = text_[pos_];
            }
            if (c == '\n')
                consume_newline();
            else
                pos_++;
            w += c;
        }
        return fail("EOF with unterminated \"", quote_line, quote_line_start);
    }

    // An unterminated quote is reported at the line where it began; the
    // byte is how far the reader got from that line's start.
    bool fail(const char *why, int line, size_t line_start)
    {
        error = why;
        error_line = line;
        error_byte = static_cast<int>(pos_ - line_start);
        return false;
    }

    std::string_view text_;
    size_t pos_ = 0;
    int line_ = 1;
    size_t line_start_ = 0;
};

// Parser state of one configuration text.
struct config_parser {
    uci_context *ctx = nullptr;
    parse_mode mode = parse_mode::file;
    uci_package *pkg = nullptr;
    uci_section *sec = nullptr;
    std::vector<uci_package *> created;

    // An error names the word it is about (an unknown command), or none:
    // then it was found once the whole statement had been read.
    const char *run(const std::vector<word> &w, const word *&where);

private:
    const char *cmd_package(const std::vector<word> &w);
    const char *cmd_config(const std::vector<word> &w);
    const char *cmd_option(const std::vector<word> &w, bool list);
};

bool is_cmd(std::string_view w, const char *full) noexcept
{
    return w == full || (w.size() == 1 && w[0] == full[0]);
}

const char *config_parser::run(const std::vector<word> &w, const word *&where)
{
    where = nullptr;
    if (is_cmd(w[0].text, "package"))
        return cmd_package(w);
    if (is_cmd(w[0].text, "config"))
        return cmd_config(w);
    if (is_cmd(w[0].text, "option"))
        return cmd_option(w, false);
    if (is_cmd(w[0].text, "list"))
        return cmd_option(w, true);
    where = &w[0];
    return "invalid command";
}

const char *config_parser::cmd_package(const std::vector<word> &w)
{
    if (w.size() < 2)
        return "missing package name";
    if (w.size() > 2)
        return "too many arguments";
    if (!valid_package(w[1].text))
        return "invalid package name";
    if (mode == parse_mode::file)
        return nullptr;  // a file is one package, whatever it calls itself
    if (pkg && (mode == parse_mode::import_single || pkg->e.name == w[1].text))
        return nullptr;
    pkg = package_new(ctx, w[1].text);
    created.push_back(pkg);
    sec = nullptr;
    return nullptr;
}

const char *config_parser::cmd_config(const std::vector<word> &w)
{
    if (!pkg)
        return "no package";
    if (w.size() < 2)
        return "missing section type";
    if (w.size() > 3 && (ctx->flags & UCI_FLAG_STRICT))
        return "too many arguments";
    const std::string &type = w[1].text;
    if (!valid_type(type))
        return "invalid section type";
    if (w.size() < 3 || w[2].text.empty()) {
        sec = section_new(pkg, type, nullptr);
        return nullptr;
    }
    const std::string &name = w[2].text;
    if (!valid_name(name))
        return "invalid character in name field";
    // A name continues the named section of that name. An anonymous
    // section that happens to carry the same generated name is not merged
    // into: that would silently fold two sections of the file into one.
    uci_section *named = nullptr;
    uci_element *e;
    uci_foreach_element(&pkg->sections, e) {
        uci_section *s = uci_to_section(e);
        if (!s->anonymous && name == e->name) {
            named = s;
            break;
        }
    }
    if (!named) {
        sec = section_new(pkg, type, name.c_str());
        return nullptr;
    }
    sec = named;
    if (type != sec->type) {
        if (ctx->flags & UCI_FLAG_STRICT)
            return "section of different type overwrites prior section with same name";
        char *copy = strdup(type.c_str());
        if (!copy)
            throw std::bad_alloc();
        std::free(sec->type);
        sec->type = copy;
    }
    return nullptr;
}

const char *config_parser::cmd_option(const std::vector<word> &w, bool list)
{
    if (!sec)
        return "option/list command found before the first section";
    if (w.size() < 2)
        return "missing option name";
    if (w.size() > 3 && (ctx->flags & UCI_FLAG_STRICT))
        return "too many arguments";
    const std::string &name = w[1].text;
    if (!valid_name(name))
        return "invalid option name";
    if (w.size() < 3)
        return nullptr;  // no value: nothing is created
    const std::string &value = w[2].text;
    if (!valid_text(value))
        return "invalid character in value";
    uci_element *e = find_element(&sec->options, name);
    uci_option *o = e ? uci_to_option(e) : nullptr;
    if (list) {
        if (!o)
            o = option_new_list(sec, name);
        option_add_item(o, value);
    } else if (!value.empty()) {
        if (o)
            option_set_string(o, value);
        else
            option_new_string(sec, name, value);
    }
    return nullptr;
}

void report_skipped(uci_context *ctx)
{
    if (ctx->flags & UCI_FLAG_PERROR)
        uci_perror(ctx, nullptr);
}

void free_created(std::vector<uci_package *> &pkgs) noexcept
{
    for (uci_package *p : pkgs)
        package_free(p);
    pkgs.clear();
}

// Applies one change entry, already split into a pointer, to p.
void apply_entry(uci_context *ctx, uci_package *p, uci_command cmd, uci_ptr &ptr)
{
    ptr.p = p;
    if (lookup_ptr(ctx, &ptr, false) != UCI_OK)
        return;
    switch (cmd) {
    case UCI_CMD_ADD:
        // An add is a set of the section, as in the library: a section of
        // that name that is there already (a commit killed after its
        // rename, before it emptied the change file, left the add behind)
        // is not added a second time.
        if (ptr.s && !ptr.option && ptr.value) {
            if (op_set(ctx, &ptr, nullptr) == UCI_OK && ptr.s)
                ptr.s->anonymous = true;
        } else if (ptr.value && !ptr.option && valid_type(ptr.value) && valid_name(ptr.section)) {
            section_new(p, ptr.value, ptr.section)->anonymous = true;
        }
        break;
    case UCI_CMD_REMOVE:
        op_delete(ctx, &ptr, nullptr);
        break;
    case UCI_CMD_CHANGE:
        op_set(ctx, &ptr, nullptr);
        break;
    case UCI_CMD_RENAME:
        op_rename(ctx, &ptr, nullptr);
        break;
    case UCI_CMD_REORDER: {
        if (!ptr.s || ptr.option || !ptr.value)
            break;
        std::string_view v(ptr.value);
        int pos = 0;
        auto res = std::from_chars(v.data(), v.data() + v.size(), pos);
        if (res.ec == std::errc() && res.ptr == v.data() + v.size() && pos >= 0)
            op_reorder(ptr.s, pos, nullptr);
        break;
    }
    case UCI_CMD_LIST_ADD:
        op_add_list(ctx, &ptr, nullptr);
        break;
    case UCI_CMD_LIST_DEL:
        op_del_list(ctx, &ptr, nullptr);
        break;
    default:
        break;
    }
}

uci_command prefix_command(char c) noexcept
{
    for (int i = 0; i < __UCI_CMD_MAX; i++) {
        if (uci_command_char[i] && uci_command_char[i] == c)
            return static_cast<uci_command>(i);
    }
    return UCI_CMD_CHANGE;
}

}  // namespace

parse_result parse_config(uci_context *ctx, std::string_view text, uci_package *target, const char *name,
                          parse_mode mode)
{
    parse_result res;
    config_parser cp;
    cp.ctx = ctx;
    cp.mode = mode;
    cp.pkg = target;
    if (!cp.pkg && name) {
        cp.pkg = package_new(ctx, name);
        cp.created.push_back(cp.pkg);
    }
    lexer lx(text);
    std::vector<word> words;
    try {
        while (true) {
            lexer::status st = lx.read_command(words);
            if (st == lexer::status::eof)
                break;
            if (st == lexer::status::error) {
                set_parse_error(ctx, lx.error, lx.error_line, lx.error_byte);
                if (!(ctx->flags & UCI_FLAG_STRICT)) {
                    report_skipped(ctx);
                    break;
                }
                free_created(cp.created);
                res.code = UCI_ERR_PARSE;
                return res;
            }
            const word *where = nullptr;
            const char *why = cp.run(words, where);
            if (!why)
                continue;
            // Past the whole statement, the byte counts from the start of
            // its first line to where the reader stopped (after the newline).
            if (where)
                set_parse_error(ctx, why, where->line, where->byte);
            else
                set_parse_error(ctx, why, words[0].line, static_cast<int>(lx.offset() - words[0].line_start));
            if (ctx->flags & UCI_FLAG_STRICT) {
                free_created(cp.created);
                res.code = UCI_ERR_PARSE;
                return res;
            }
            report_skipped(ctx);
        }
    } catch (const std::bad_alloc &) {
        free_created(cp.created);
        res.code = UCI_ERR_MEM;
        return res;
    }
    if (!(ctx->flags & UCI_FLAG_STRICT))
        ext(ctx)->perr.valid = false;
    res.packages = std::move(cp.created);
    return res;
}

// Change files are read with the same word rules as configuration files,
// so quoted values may hold newlines. Bad entries are skipped.
int replay_delta(uci_context *ctx, uci_package *p, std::string_view text)
{
    lexer lx(text);
    int count = 0;
    while (true) {
        lx.skip_blanks();
        if (lx.at_end())
            break;
        if (lx.peek() == '\n') {
            lx.consume_newline();
            continue;
        }
        uci_command cmd = prefix_command(lx.peek());
        if (cmd != UCI_CMD_CHANGE)
            lx.advance();
        std::string entry;
        if (!lx.scan_word(entry))
            break;
        lx.skip_line();
        uci_ptr ptr;
        if (parse_ptr(&ptr, entry.data()) != UCI_OK || !ptr.section || p->e.name != std::string_view(ptr.package))
            continue;
        if (ptr.flags & uci_ptr::UCI_LOOKUP_EXTENDED)
            continue;
        count++;
        if (ctx->flags & UCI_FLAG_SAVED_DELTA)
            record_delta(&p->saved_delta, cmd, ptr.section, ptr.option, ptr.value);
        apply_entry(ctx, p, cmd, ptr);
    }
    return count;
}

// Keeps the entries of a change file that do not match the target; entries
// that do not parse are kept as they are.
std::string filter_delta(std::string_view text, std::string_view package, const char *section, const char *option)
{
    std::string kept;
    lexer lx(text);
    while (true) {
        size_t start = lx.offset();
        lx.skip_blanks();
        if (lx.at_end()) {
            kept.append(text.substr(start));
            break;
        }
        if (lx.peek() != '\n' && prefix_command(lx.peek()) != UCI_CMD_CHANGE)
            lx.advance();
        std::string entry;
        bool ok = lx.scan_word(entry);
        lx.skip_line();
        if (!lx.at_end())
            lx.consume_newline();
        std::string_view raw = text.substr(start, lx.offset() - start);
        uci_ptr ptr;
        bool match = ok && !entry.empty() && parse_ptr(&ptr, entry.data()) == UCI_OK && package == ptr.package;
        if (match && section)
            match = ptr.section && std::strcmp(ptr.section, section) == 0;
        if (match && option)
            match = ptr.option && std::strcmp(ptr.option, option) == 0;
        if (!match)
            kept.append(raw);
        if (!ok)
            break;
    }
    return kept;
}

std::optional<std::string> read_word(std::string_view text, size_t &pos)
{
    if (pos > text.size())
        return std::nullopt;
    lexer lx(text.substr(pos));
    lx.skip_blanks();
    if (lx.at_end() || lx.peek() == '\n' || lx.peek() == '#')
        return std::nullopt;
    std::string w;
    if (!lx.scan_word(w))
        return std::nullopt;
    pos += lx.offset();
    return w;
}

std::string quote_value(std::string_view v)
{
    std::string out = "'";
    for (char c : v) {
        if (c == '\'')
            out += "'\\''";
        else
            out += c;
    }
    out += '\'';
    return out;
}

std::string export_package(uci_context *ctx, const uci_package *p, bool header)
{
    std::string out;
    if (header)
        out += std::string("package ") + p->e.name + "\n";
    uci_element *se;
    uci_foreach_element(&p->sections, se) {
        uci_section *s = uci_to_section(se);
        // A type with characters the reader treats specially is quoted,
        // so that what was stored reads back the same.
        std::string_view type(s->type);
        bool plain = type.find_first_of("'\"\\#;") == std::string_view::npos;
        out += "\nconfig ";
        out += plain ? std::string(type) : quote_value(type);
        if (!s->anonymous || (ctx->flags & UCI_FLAG_EXPORT_NAME))
            out += " " + quote_value(se->name);
        out += '\n';
        uci_element *oe;
        uci_foreach_element(&s->options, oe) {
            uci_option *o = uci_to_option(oe);
            if (o->type == UCI_TYPE_STRING) {
                out += std::string("\toption ") + oe->name + " " + quote_value(o->v.string) + "\n";
                continue;
            }
            uci_element *item;
            uci_foreach_element(&o->v.list, item) {
                out += std::string("\tlist ") + oe->name + " " + quote_value(item->name) + "\n";
            }
        }
    }
    out += '\n';
    return out;
}

std::string delta_line(const uci_package *p, const uci_delta *d)
{
    std::string out;
    if (d->cmd >= 0 && d->cmd < __UCI_CMD_MAX && uci_command_char[d->cmd])
        out += uci_command_char[d->cmd];
    out += p->e.name;
    out += '.';
    out += d->section ? d->section : "";
    if (d->e.name) {
        out += '.';
        out += d->e.name;
    }
    if (d->value)
        out += "=" + quote_value(d->value);
    out += '\n';
    return out;
}

}  // namespace uci_impl
