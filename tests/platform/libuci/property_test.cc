// Random edit sequences, through the library and through the command
// line, must leave exactly the file that a simple model predicts.
#include "uci_test_util.h"

#include <gtest/gtest.h>

#include <random>

using namespace uci_test;

namespace {

struct model_option {
    std::string name;
    bool list = false;
    std::vector<std::string> values;
};

struct model_section {
    std::string type;
    std::vector<model_option> options;
    model_option *find(const std::string &name)
    {
        for (auto &o : options) {
            if (o.name == name)
                return &o;
        }
        return nullptr;
    }
};

std::string quote(const std::string &v)
{
    std::string out = "'";
    for (char c : v)
        out += c == '\'' ? std::string("'\\''") : std::string(1, c);
    return out + "'";
}

struct model {
    std::vector<model_section> sections;

    std::string render() const
    {
        std::string out;
        for (const auto &s : sections) {
            out += "\nconfig " + s.type + "\n";
            for (const auto &o : s.options) {
                for (const auto &v : o.values)
                    out += std::string(o.list ? "\tlist " : "\toption ") + o.name + " " + quote(v) + "\n";
            }
        }
        return out + "\n";
    }

    // A commit re-reads the file, where an emptied list has no trace.
    void committed()
    {
        for (auto &s : sections) {
            std::erase_if(s.options, [](const model_option &o) { return o.list && o.values.empty(); });
        }
    }
};

enum class op { add, set, add_list, del_list, del_option, del_section, commit };

struct step {
    op kind = op::commit;
    int section = 0;
    std::string type, option, value;
};

class generator {
public:
    explicit generator(unsigned seed) : rng_(seed) {}

    step next(const model &m)
    {
        int r = pick(100);
        step s;
        s.section = m.sections.empty() ? 0 : pick(static_cast<int>(m.sections.size()));
        s.option = std::string(1, static_cast<char>('a' + pick(4)));
        s.value = value();
        if (m.sections.empty() || r < 12) {
            const char *types[] = {"host", "client", "wifi-iface"};
            s.kind = op::add;
            s.type = types[pick(3)];
        } else if (r < 42) {
            s.kind = op::set;
        } else if (r < 57) {
            s.kind = op::add_list;
        } else if (r < 67) {
            s.kind = op::del_list;
            auto opts = m.sections[s.section].options;
            for (const auto &o : opts) {
                if (o.list && !o.values.empty() && pick(2)) {
                    s.option = o.name;
                    s.value = o.values[pick(static_cast<int>(o.values.size()))];
                }
            }
        } else if (r < 77) {
            s.kind = op::del_option;
        } else if (r < 82) {
            s.kind = op::del_section;
        } else {
            s.kind = op::commit;
        }
        return s;
    }

private:
    int pick(int n) { return std::uniform_int_distribution<int>(0, n - 1)(rng_); }
    std::string value()
    {
        static const char alphabet[] = "abcXYZ019 '\"\\#;=.\t\n$@[]-_";
        if (pick(12) == 0)
            return "";
        std::string v;
        int len = 1 + pick(8);
        for (int i = 0; i < len; i++)
            v += alphabet[pick(sizeof alphabet - 1)];
        return v;
    }
    std::mt19937 rng_;
};

// Applies a step to the model; false when the step makes no sense there.
bool apply(model &m, const step &s)
{
    if (s.kind == op::add) {
        m.sections.push_back({s.type, {}});
        return true;
    }
    if (s.kind == op::commit) {
        m.committed();
        return true;
    }
    model_section &sec = m.sections[s.section];
    model_option *o = sec.find(s.option);
    switch (s.kind) {
    case op::set:
        if (s.value.empty()) {
            if (o)
                std::erase_if(sec.options, [&](const model_option &x) { return x.name == s.option; });
        } else if (o) {
            *o = {s.option, false, {s.value}};
        } else {
            sec.options.push_back({s.option, false, {s.value}});
        }
        return true;
    case op::add_list:
        if (!o)
            sec.options.push_back({s.option, true, {s.value}});
        else {
            o->list = true;
            o->values.push_back(s.value);
        }
        return true;
    case op::del_list:
        if (o && o->list)
            std::erase(o->values, s.value);
        return true;
    case op::del_option:
        if (!o)
            return false;
        std::erase_if(sec.options, [&](const model_option &x) { return x.name == s.option; });
        return true;
    case op::del_section:
        m.sections.erase(m.sections.begin() + s.section);
        return true;
    default:
        return false;
    }
}

std::string address(const step &s, bool with_option, bool with_value)
{
    std::string a = "prop.@[" + std::to_string(s.section) + "]";
    if (with_option)
        a += "." + s.option;
    if (with_value)
        a += "=" + s.value;
    return a;
}

int lib_step(uci_context *ctx, const step &s)
{
    if (s.kind == op::add) {
        uci_package *p = uci_lookup_package(ctx, "prop");
        if (!p && uci_load(ctx, "prop", &p) != UCI_OK)
            return -1;
        uci_section *sec = nullptr;
        return uci_add_section(ctx, p, s.type.c_str(), &sec) == UCI_OK ? uci_save(ctx, p) : -1;
    }
    if (s.kind == op::commit) {
        uci_package *p = uci_lookup_package(ctx, "prop");
        if (!p && uci_load(ctx, "prop", &p) != UCI_OK)
            return -1;
        // The committed package keeps the anonymous names it had; after
        // deletes, a fresh reader of the file names them differently, and a
        // later change recorded under an old name would miss on the next
        // commit. So edits go on from the file as written.
        int rc = uci_commit(ctx, &p, false);
        if (p)
            uci_unload(ctx, p);
        return rc;
    }
    bool option = s.kind != op::del_section;
    bool value = s.kind == op::set || s.kind == op::add_list || s.kind == op::del_list;
    lookup l(ctx, address(s, option, value));
    if (l.rc != UCI_OK)
        return l.rc;
    int rc = -1;
    if (s.kind == op::set)
        rc = uci_set(ctx, &l.ptr);
    else if (s.kind == op::add_list)
        rc = uci_add_list(ctx, &l.ptr);
    else if (s.kind == op::del_list)
        rc = uci_del_list(ctx, &l.ptr);
    else
        rc = uci_delete(ctx, &l.ptr);
    return rc == UCI_OK ? uci_save(ctx, l.ptr.p) : rc;
}

int cli_step(const temp_dir &dir, const step &s)
{
    std::vector<std::string> args = {"-c", dir / "conf", "-t", dir / "save"};
    const char *cmd = nullptr;
    switch (s.kind) {
    case op::add:
        args.insert(args.end(), {"add", "prop", s.type});
        return run_uci(args).code;
    case op::commit:
        args.insert(args.end(), {"commit", "prop"});
        return run_uci(args).code;
    case op::set:
        cmd = "set";
        break;
    case op::add_list:
        cmd = "add_list";
        break;
    case op::del_list:
        cmd = "del_list";
        break;
    case op::del_option:
    case op::del_section:
        cmd = "delete";
        break;
    }
    bool value = s.kind == op::set || s.kind == op::add_list || s.kind == op::del_list;
    args.insert(args.end(), {cmd, address(s, s.kind != op::del_section, value)});
    return run_uci(args).code;
}

void run_sequence(unsigned seed, int steps, bool through_cli)
{
    temp_dir dir;
    write_file(dir / "conf/prop", "\nconfig host\n\nconfig client\n\n");
    model m;
    m.sections = {{"host", {}}, {"client", {}}};
    generator gen(seed);
    auto *ctx = new context(dir);
    for (int i = 0; i < steps; i++) {
        step s = gen.next(m);
        model before = m;
        if (!apply(m, s)) {
            m = before;
            continue;
        }
        int rc = through_cli ? cli_step(dir, s) : lib_step(*ctx, s);
        ASSERT_EQ(rc, 0) << "seed " << seed << " step " << i;
        if (s.kind == op::commit) {
            ASSERT_EQ(read_file(dir / "conf/prop"), m.render()) << "seed " << seed << " step " << i;
        }
        if (!through_cli && i % 7 == 0) {  // sometimes a fresh context, as the daemon uses
            delete ctx;
            ctx = new context(dir);
        }
    }
    step last;
    last.kind = op::commit;
    m.committed();
    ASSERT_EQ(through_cli ? cli_step(dir, last) : lib_step(*ctx, last), 0);
    EXPECT_EQ(read_file(dir / "conf/prop"), m.render());
    delete ctx;
    auto e = run_uci({"-c", dir / "conf", "-t", dir / "save", "export", "prop"});
    EXPECT_EQ(e.out, "package prop\n" + m.render());
}

}  // namespace

TEST(UciProperty, LibraryEditsMatchTheModel)
{
    for (unsigned seed : {1u, 2u, 3u, 4u, 5u})
        run_sequence(seed, 300, false);
}

TEST(UciProperty, CommandLineEditsMatchTheModel)
{
    run_sequence(11u, sanitized ? 100 : 300, true);
}
