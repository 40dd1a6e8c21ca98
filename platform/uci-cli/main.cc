// The `uci` command line: reads and changes configuration packages from
// the shell. Messages, output formats and exit codes are the ones scripts
// on the system already rely on.
#include <uci.h>

#include <cctype>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <getopt.h>
#include <map>
#include <string>
#include <string_view>
#include <vector>

namespace {

struct options {
    const char *appname = "uci";
    const char *delim = " ";
    const char *input = nullptr;
    bool quiet = false;
    bool real_names = false;
    bool no_commit = false;  // -P: volatile state, never committed
    bool merge = false;
};

options opt;

struct context_owner {
    uci_context *ctx = uci_alloc_context();
    ~context_owner() { uci_free_context(ctx); }
};

void print_usage()
{
    std::fprintf(stderr,
                 "Usage: %s [<options>] <command> [<arguments>]\n"
                 "\n"
                 "Commands:\n"
                 "\tbatch                                      run commands read from stdin (or -f), one a line\n"
                 "\texport     [<config>]                      print in file form\n"
                 "\timport     [<config>]                      read file form from stdin (or -f)\n"
                 "\tchanges    [<config>]                      list saved changes\n"
                 "\tcommit     [<config>]                      write saved changes into the files\n"
                 "\tadd        <config> <section-type>         add an anonymous section, print its name\n"
                 "\tadd_list   <config>.<section>.<option>=<string>\n"
                 "\tdel_list   <config>.<section>.<option>=<string>\n"
                 "\tshow       [<config>[.<section>[.<option>]]]\n"
                 "\tget        <config>.<section>[.<option>]\n"
                 "\tset        <config>.<section>[.<option>]=<value>   (an empty value deletes)\n"
                 "\tdelete     <config>.<section>[.<option>[=<index>]]\n"
                 "\trename     <config>.<section>[.<option>]=<name>\n"
                 "\trevert     <config>[.<section>[.<option>]]\n"
                 "\treorder    <config>.<section>=<position>\n"
                 "\n"
                 "Options:\n"
                 "\t-c <path>  configuration directory\n"
                 "\t-C <path>  overriding configuration directory\n"
                 "\t-d <str>   list separator for show and get (default: one space)\n"
                 "\t-f <file>  input of import and batch instead of stdin\n"
                 "\t-m         import merges into the package\n"
                 "\t-n / -N    name / do not name anonymous sections on export (default -N)\n"
                 "\t-p <path>  extra directory of changes to read\n"
                 "\t-P <path>  volatile save directory; commit does nothing\n"
                 "\t-q         no error messages\n"
                 "\t-s / -S    strict (default) / lenient parsing\n"
                 "\t-t <path>  save directory for changes\n"
                 "\t-X         show real section names\n"
                 "\n",
                 opt.appname);
}

int report(uci_context *ctx)
{
    if (!opt.quiet)
        uci_perror(ctx, opt.appname);
    return 1;
}

int not_found(uci_context *ctx)
{
    ctx->err = UCI_ERR_NOTFOUND;
    return report(ctx);
}

std::string quoted(std::string_view v)
{
    std::string out = "'";
    for (char c : v)
        out += c == '\'' ? std::string("'\\''") : std::string(1, c);
    return out + "'";
}

bool has_space(const char *s)
{
    for (; *s; s++) {
        if (std::isspace(static_cast<unsigned char>(*s)))
            return true;
    }
    return false;
}

std::string show_value(const uci_option *o)
{
    if (o->type == UCI_TYPE_STRING)
        return quoted(o->v.string);
    std::string out;
    bool first = true;
    uci_element *e;
    uci_foreach_element(&o->v.list, e) {
        if (!first)
            out += opt.delim;
        out += quoted(e->name);
        first = false;
    }
    return out;
}

void show_option(const char *pkg, const std::string &sec, const uci_option *o)
{
    std::printf("%s.%s.%s=%s\n", pkg, sec.c_str(), o->e.name, show_value(o).c_str());
}

void show_section(const char *pkg, const std::string &name, const uci_section *s)
{
    std::printf("%s.%s=%s\n", pkg, name.c_str(), s->type);
    uci_element *e;
    uci_foreach_element(&s->options, e) show_option(pkg, name, uci_to_option(e));
}

// Anonymous sections show as @type[index], counted per type in file order.
void show_package(const uci_package *p)
{
    std::map<std::string, int> seen;
    uci_element *e;
    uci_foreach_element(&p->sections, e) {
        const uci_section *s = uci_to_section(e);
        int index = seen[s->type]++;
        std::string name = e->name;
        if (s->anonymous && !opt.real_names)
            name = std::string("@") + s->type + "[" + std::to_string(index) + "]";
        show_section(p->e.name, name, s);
    }
}

void show_changes(const uci_package *p)
{
    uci_element *e;
    uci_foreach_element(&p->saved_delta, e) {
        const uci_delta *d = uci_to_delta(e);
        std::string line = d->cmd == UCI_CMD_REMOVE ? "-" : "";
        line += std::string(p->e.name) + "." + (d->section ? d->section : "");
        if (d->e.name)
            line += std::string(".") + d->e.name;
        if (d->cmd == UCI_CMD_LIST_ADD)
            line += "+=" + quoted(d->value ? d->value : "");
        else if (d->cmd == UCI_CMD_LIST_DEL)
            line += "-=" + quoted(d->value ? d->value : "");
        else if (d->cmd != UCI_CMD_REMOVE && d->value)
            line += "=" + quoted(d->value);
        std::printf("%s\n", line.c_str());
    }
}

enum class pkg_cmd { show, changes, export_, commit };

int run_on_package(uci_context *ctx, pkg_cmd cmd, const char *name)
{
    uci_package *p = nullptr;
    if (uci_load(ctx, name, &p) != UCI_OK)
        return report(ctx);
    int ret = 0;
    switch (cmd) {
    case pkg_cmd::show:
        show_package(p);
        break;
    case pkg_cmd::changes:
        show_changes(p);
        break;
    case pkg_cmd::export_:
        uci_export(ctx, stdout, p, true);
        break;
    case pkg_cmd::commit:
        if (uci_commit(ctx, &p, false) != UCI_OK)
            ret = report(ctx);
        break;
    }
    if (p)
        uci_unload(ctx, p);
    return ret;
}

// Without a package: every package of the configuration directory; a
// broken file is reported and the others still go (commit excepted).
int for_all_packages(uci_context *ctx, pkg_cmd cmd)
{
    char **configs = nullptr;
    if (uci_list_configs(ctx, &configs) != UCI_OK)
        return report(ctx);
    int ret = 0;
    for (char **c = configs; *c; c++) {
        if (run_on_package(ctx, cmd, *c) != 0 && cmd == pkg_cmd::commit)
            ret = 1;
    }
    std::free(static_cast<void *>(configs));
    return ret;
}

int cmd_show(uci_context *ctx, const char *arg)
{
    std::string buf(arg);
    uci_ptr ptr{};
    if (uci_lookup_ptr(ctx, &ptr, buf.data(), true) != UCI_OK)
        return report(ctx);
    if (!(ptr.flags & uci_ptr::UCI_LOOKUP_COMPLETE))
        return not_found(ctx);
    switch (ptr.last->type) {
    case UCI_TYPE_PACKAGE:
        show_package(ptr.p);
        break;
    case UCI_TYPE_SECTION:
        show_section(ptr.p->e.name, ptr.s->e.name, ptr.s);
        break;
    case UCI_TYPE_OPTION:
        show_option(ptr.p->e.name, ptr.s->e.name, ptr.o);
        break;
    default:
        break;
    }
    return 0;
}

int cmd_get(uci_context *ctx, const char *arg)
{
    std::string buf(arg);
    uci_ptr ptr{};
    if (uci_lookup_ptr(ctx, &ptr, buf.data(), true) != UCI_OK)
        return report(ctx);
    if (ptr.value)
        return 1;
    if (!(ptr.flags & uci_ptr::UCI_LOOKUP_COMPLETE))
        return not_found(ctx);
    if (ptr.last->type == UCI_TYPE_SECTION) {
        std::printf("%s\n", ptr.s->type);
    } else if (ptr.last->type == UCI_TYPE_OPTION && ptr.o->type == UCI_TYPE_STRING) {
        std::printf("%s\n", ptr.o->v.string);
    } else if (ptr.last->type == UCI_TYPE_OPTION) {
        std::string out;
        bool first = true;
        uci_element *e;
        uci_foreach_element(&ptr.o->v.list, e) {
            if (!first)
                out += opt.delim;
            out += has_space(e->name) ? quoted(e->name) : std::string(e->name);
            first = false;
        }
        std::printf("%s\n", out.c_str());
    }
    return 0;
}

enum class edit_cmd { set, add_list, del_list, rename, remove, reorder };

int cmd_edit(uci_context *ctx, edit_cmd cmd, const char *arg)
{
    std::string buf(arg);
    uci_ptr ptr{};
    if (uci_lookup_ptr(ctx, &ptr, buf.data(), true) != UCI_OK)
        return report(ctx);
    int r = UCI_OK;
    switch (cmd) {
    case edit_cmd::set:
        r = uci_set(ctx, &ptr);
        break;
    case edit_cmd::add_list:
        r = uci_add_list(ctx, &ptr);
        break;
    case edit_cmd::del_list:
        r = uci_del_list(ctx, &ptr);
        break;
    case edit_cmd::rename:
        r = uci_rename(ctx, &ptr);
        break;
    case edit_cmd::remove:
        r = uci_delete(ctx, &ptr);
        break;
    case edit_cmd::reorder:
        if (!ptr.s || ptr.option || !ptr.value)
            return not_found(ctx);
        r = uci_reorder_section(ctx, ptr.s, std::atoi(ptr.value));
        break;
    }
    if (r != UCI_OK)
        return report(ctx);
    if (uci_save(ctx, ptr.p) != UCI_OK)
        return report(ctx);
    return 0;
}

int cmd_add(uci_context *ctx, const char *pkg, const char *type)
{
    uci_package *p = nullptr;
    if (uci_load(ctx, pkg, &p) != UCI_OK) {
        report(ctx);
        return ctx->err;
    }
    uci_section *s = nullptr;
    if (uci_add_section(ctx, p, type, &s) != UCI_OK || uci_save(ctx, p) != UCI_OK) {
        report(ctx);
        return ctx->err;
    }
    std::printf("%s\n", s->e.name);
    return 0;
}

int cmd_revert(uci_context *ctx, const char *arg)
{
    std::string buf(arg);
    uci_ptr ptr{};
    if (uci_lookup_ptr(ctx, &ptr, buf.data(), true) != UCI_OK)
        return report(ctx);
    if (uci_revert(ctx, &ptr) != UCI_OK)
        return report(ctx);
    return 0;
}

int cmd_import(uci_context *ctx, const char *name)
{
    FILE *in = stdin;
    if (opt.input) {
        in = std::fopen(opt.input, "r");
        if (!in) {
            ctx->err = UCI_ERR_IO;
            return report(ctx);
        }
    }
    uci_package *p = nullptr;
    if (opt.merge && name) {
        if (uci_load(ctx, name, &p) != UCI_OK)
            return report(ctx);
        p->has_delta = false;  // merged data is written whole
    }
    int r = uci_import(ctx, in, name, &p, name != nullptr);
    if (in != stdin)
        std::fclose(in);
    if (r != UCI_OK)
        return report(ctx);
    int ret = 0;
    uci_element *e, *tmp;
    uci_foreach_element_safe(&ctx->root, tmp, e) {
        uci_package *pkg = uci_to_package(e);
        if (name && std::strcmp(pkg->e.name, name) != 0)
            continue;
        if (uci_commit(ctx, &pkg, true) != UCI_OK)
            ret = report(ctx);
    }
    return ret;
}

int with_optional_package(uci_context *ctx, pkg_cmd cmd, int argc, char **argv)
{
    if (argc > 1)
        return -1;
    if (cmd == pkg_cmd::commit && opt.no_commit)
        return 0;
    if (argc == 0)
        return for_all_packages(ctx, cmd);
    if (cmd == pkg_cmd::show)
        return cmd_show(ctx, argv[0]);
    return run_on_package(ctx, cmd, argv[0]);
}

// Command names are case-insensitive; "ren" and "del" are short forms.
std::string command_name(std::string_view word)
{
    std::string name;
    for (char c : word)
        name += static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
    return name;
}

// -1: unknown command or wrong argument count.
int dispatch(uci_context *ctx, const std::string_view word, int argc, char **argv)
{
    static const std::map<std::string_view, edit_cmd> edits = {
        {"set", edit_cmd::set},       {"add_list", edit_cmd::add_list}, {"del_list", edit_cmd::del_list},
        {"rename", edit_cmd::rename}, {"delete", edit_cmd::remove},     {"reorder", edit_cmd::reorder},
        {"ren", edit_cmd::rename},    {"del", edit_cmd::remove},
    };
    const std::string cmd = command_name(word);
    static const std::map<std::string_view, pkg_cmd> whole = {
        {"show", pkg_cmd::show},
        {"changes", pkg_cmd::changes},
        {"export", pkg_cmd::export_},
        {"commit", pkg_cmd::commit},
    };
    if (auto it = edits.find(cmd); it != edits.end())
        return argc == 1 ? cmd_edit(ctx, it->second, argv[0]) : -1;
    if (auto it = whole.find(cmd); it != whole.end())
        return with_optional_package(ctx, it->second, argc, argv);
    if (cmd == "get")
        return argc == 1 ? cmd_get(ctx, argv[0]) : -1;
    if (cmd == "add")
        return argc == 2 ? cmd_add(ctx, argv[0], argv[1]) : -1;
    if (cmd == "revert")
        return argc == 1 ? cmd_revert(ctx, argv[0]) : -1;
    if (cmd == "import")
        return argc <= 1 ? cmd_import(ctx, argc ? argv[0] : nullptr) : -1;
    return -1;
}

// One batch line is a command and at most three arguments.
constexpr size_t batch_max_words = 4;

enum class line_status { words, too_many, error, end };

// Reads the words of the next line, tokenised like a value in a
// configuration file (quotes allowed).
line_status read_batch_line(uci_context *ctx, FILE *in, std::vector<std::string> &words)
{
    words.clear();
    char *str = nullptr;
    for (;;) {
        char *word = nullptr;
        if (uci_parse_argument(ctx, in, &str, &word) != UCI_OK)
            return line_status::error;
        if (!str)
            return words.empty() ? line_status::end : line_status::words;
        if (!word)
            return line_status::words;
        if (words.size() == batch_max_words)
            return line_status::too_many;
        words.emplace_back(word);
    }
}

void unload_all(uci_context *ctx)
{
    uci_element *e, *tmp;
    uci_foreach_element_safe(&ctx->root, tmp, e) uci_unload(ctx, uci_to_package(e));
}

// Runs one command a line until the input ends or a line says "exit". A
// failing or unknown command does not end the batch, and every command sees
// the packages as stored (nothing stays loaded between commands).
int cmd_batch(uci_context *ctx)
{
    FILE *in = stdin;
    if (opt.input) {
        in = std::fopen(opt.input, "r");
        if (!in) {
            ctx->err = UCI_ERR_IO;
            return report(ctx);
        }
    }
    std::vector<std::string> words;
    for (;;) {
        line_status st = read_batch_line(ctx, in, words);
        if (st == line_status::end)
            break;
        if (st == line_status::error) {
            report(ctx);
        } else if (st == line_status::too_many) {
            std::fprintf(stderr, "Too many arguments\n");
        } else if (!words.empty()) {
            if (command_name(words[0]) == "exit")
                break;
            std::vector<char *> argv;
            for (size_t i = 1; i < words.size(); i++)
                argv.push_back(words[i].data());
            argv.push_back(nullptr);
            if (command_name(words[0]) == "batch" ||
                dispatch(ctx, words[0], static_cast<int>(words.size() - 1), argv.data()) < 0)
                std::fprintf(stderr, "Unknown command\n");
        }
        std::fflush(stdout);
        unload_all(ctx);
    }
    if (in != stdin)
        std::fclose(in);
    return 0;
}

bool parse_options(uci_context *ctx, int argc, char **argv)
{
    int c;
    while ((c = getopt(argc, argv, "c:C:d:f:LmnNp:P:qsSt:vX")) != -1) {
        switch (c) {
        case 'c':
            uci_set_confdir(ctx, optarg);
            break;
        case 'C':
            uci_set_conf2dir(ctx, optarg);
            break;
        case 'd':
            opt.delim = optarg;
            break;
        case 'f':
            opt.input = optarg;
            break;
        case 'm':
            opt.merge = true;
            break;
        case 'n':
            ctx->flags = static_cast<uci_flags>(ctx->flags | UCI_FLAG_EXPORT_NAME);
            break;
        case 'N':
            ctx->flags = static_cast<uci_flags>(ctx->flags & ~UCI_FLAG_EXPORT_NAME);
            break;
        case 'p':
            uci_add_delta_path(ctx, optarg);
            break;
        case 'P':
            uci_set_savedir(ctx, optarg);
            opt.no_commit = true;
            break;
        case 'q':
            opt.quiet = true;
            ctx->flags = static_cast<uci_flags>(ctx->flags & ~UCI_FLAG_PERROR);
            break;
        case 's':
            ctx->flags = static_cast<uci_flags>(ctx->flags | UCI_FLAG_STRICT);
            break;
        case 'S':
            ctx->flags = static_cast<uci_flags>(ctx->flags & ~UCI_FLAG_STRICT);
            break;
        case 't':
            uci_set_savedir(ctx, optarg);
            break;
        case 'X':
            opt.real_names = true;
            break;
        case 'L':
        case 'v':
            break;
        default:
            return false;
        }
    }
    return true;
}

}  // namespace

int main(int argc, char **argv)
{
    opt.appname = argv[0] ? argv[0] : "uci";
    context_owner owner;
    uci_context *ctx = owner.ctx;
    if (!ctx) {
        std::fprintf(stderr, "Out of memory\n");
        return 1;
    }
    ctx->flags = static_cast<uci_flags>(ctx->flags | UCI_FLAG_PERROR);
    if (!parse_options(ctx, argc, argv)) {
        print_usage();
        return 255;
    }
    if (optind >= argc) {
        print_usage();
        return 0;
    }
    int ret = -1;
    if (command_name(argv[optind]) == "batch")
        ret = optind + 1 == argc ? cmd_batch(ctx) : -1;
    else
        ret = dispatch(ctx, argv[optind], argc - optind - 1, argv + optind + 1);
    if (ret < 0) {
        print_usage();
        return 255;
    }
    return ret;
}
