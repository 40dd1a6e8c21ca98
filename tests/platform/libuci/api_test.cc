// One test per library behaviour that callers rely on.
#include "uci_test_util.h"

#include <gtest/gtest.h>

#include <cstring>
#include <filesystem>
#include <sys/stat.h>

using namespace uci_test;

namespace {

const char *const sample =
    "\n"
    "config system 'main'\n"
    "\toption hostname 'router'\n"
    "\tlist ntp 'a.example'\n"
    "\tlist ntp 'b.example'\n"
    "\n"
    "config host\n"
    "\toption mac '00:11:22:33:44:55'\n"
    "\n"
    "config host\n"
    "\toption mac '66:77:88:99:AA:BB'\n"
    "\n";

class Uci : public ::testing::Test {
protected:
    void SetUp() override { write_file(dir / "conf/test", sample); }
    std::string conf() const { return read_file(dir / "conf/test"); }
    std::string saved() const { return read_file(dir / "save/test"); }
    uci_package *load(const char *name = "test")
    {
        uci_package *p = nullptr;
        EXPECT_EQ(uci_load(ctx, name, &p), UCI_OK);
        return p;
    }
    std::vector<std::string> delta_paths() const
    {
        std::vector<std::string> out;
        uci_element *e;
        uci_foreach_element(&ctx.get()->delta_path, e) out.emplace_back(e->name);
        return out;
    }

    temp_dir dir;
    context ctx{dir};
};

size_t count(const uci_list *list)
{
    size_t n = 0;
    for (const uci_list *l = list->next; l != list; l = l->next)
        n++;
    return n;
}

ino_t inode_of(const std::string &path)
{
    struct stat st {};
    ::stat(path.c_str(), &st);
    return st.st_ino;
}

unsigned mode_of(const std::string &path)
{
    struct stat st {};
    ::stat(path.c_str(), &st);
    return st.st_mode & 07777;
}

}  // namespace

TEST(UciContext, AllocSetsDefaults)
{
    uci_context *ctx = uci_alloc_context();
    ASSERT_NE(ctx, nullptr);
    EXPECT_EQ(ctx->flags, UCI_FLAG_STRICT | UCI_FLAG_SAVED_DELTA);
    EXPECT_STREQ(ctx->confdir, "/etc/config");
    EXPECT_STREQ(ctx->savedir, UCI_SAVEDIR);
    ASSERT_EQ(count(&ctx->delta_path), 1u);
    EXPECT_STREQ(list_to_element(ctx->delta_path.next)->name, UCI_SAVEDIR);
    uci_free_context(ctx);
}

TEST_F(Uci, SetSavedirKeepsTheOldOneInTheSearchPath)
{
    EXPECT_EQ(delta_paths(), (std::vector<std::string>{UCI_SAVEDIR, dir / "save"}));
    EXPECT_EQ(uci_set_savedir(ctx, UCI_SAVEDIR), UCI_OK);
    EXPECT_EQ(delta_paths(), (std::vector<std::string>{dir / "save", UCI_SAVEDIR}));
}

TEST_F(Uci, AddDeltaPathGoesBeforeTheSaveDirAndRefusesDuplicates)
{
    EXPECT_EQ(uci_add_delta_path(ctx, "/x/one"), UCI_OK);
    EXPECT_EQ(uci_add_delta_path(ctx, "/x/two"), UCI_OK);
    EXPECT_EQ(delta_paths(), (std::vector<std::string>{UCI_SAVEDIR, "/x/one", "/x/two", dir / "save"}));
    EXPECT_EQ(uci_add_delta_path(ctx, "/x/one"), UCI_ERR_DUPLICATE);
    EXPECT_EQ(uci_add_delta_path(ctx, ctx.get()->savedir), UCI_ERR_DUPLICATE);
    EXPECT_EQ(count(&ctx.get()->delta_path), 4u);
}

TEST_F(Uci, LoadErrors)
{
    uci_package *p = nullptr;
    EXPECT_EQ(uci_load(ctx, "nosuch", &p), UCI_ERR_NOTFOUND);
    EXPECT_EQ(uci_load(ctx, "bad.name", &p), UCI_ERR_NOTFOUND);
    EXPECT_EQ(uci_load(ctx, "bad name", &p), UCI_ERR_INVAL);
    EXPECT_EQ(uci_load(ctx, "bad\tname", &p), UCI_ERR_INVAL);
    EXPECT_EQ(uci_load(ctx, "", &p), UCI_ERR_INVAL);
    EXPECT_EQ(uci_load(ctx, "sub/test", &p), UCI_ERR_NOTFOUND);
    ASSERT_EQ(uci_load(ctx, "test", &p), UCI_OK);
    EXPECT_EQ(uci_load(ctx, "test", &p), UCI_ERR_DUPLICATE);
    EXPECT_EQ(ctx.error(), "uci: Duplicate entry");
    std::filesystem::create_directory(dir / "conf/adir");
    EXPECT_EQ(uci_load(ctx, "adir", &p), UCI_ERR_NOTFOUND);
}

TEST_F(Uci, LoadParseErrorTellsLineAndByte)
{
    write_file(dir / "conf/broken", "config a\n\toption x 1\nbogus line\n");
    uci_package *p = nullptr;
    EXPECT_EQ(uci_load(ctx, "broken", &p), UCI_ERR_PARSE);
    EXPECT_EQ(ctx.error(), "uci: Parse error (invalid command) at line 3, byte 0");
    EXPECT_TRUE(uci_list_empty(&ctx.get()->root));
}

TEST_F(Uci, LenientLoadSkipsBadLines)
{
    write_file(dir / "conf/broken", "config a\n\toption x 1\nbogus line\n\toption y 2\n");
    ctx.get()->flags = static_cast<uci_flags>(ctx.get()->flags & ~UCI_FLAG_STRICT);
    uci_package *p = load("broken");
    ASSERT_NE(p, nullptr);
    ASSERT_EQ(count(&p->sections), 1u);
    uci_section *s = uci_to_section(list_to_element(p->sections.next));
    EXPECT_STREQ(uci_lookup_option_string(ctx, s, "x"), "1");
    EXPECT_STREQ(uci_lookup_option_string(ctx, s, "y"), "2");
}

TEST_F(Uci, LookupMissingSectionOrOptionIsNoError)
{
    lookup a(ctx, "test.nosuch.opt");
    EXPECT_EQ(a.rc, UCI_OK);
    EXPECT_FALSE(a.complete());
    EXPECT_EQ(a.ptr.s, nullptr);
    lookup b(ctx, "test.main.nosuch");
    EXPECT_EQ(b.rc, UCI_OK);
    EXPECT_FALSE(b.complete());
    EXPECT_NE(b.ptr.s, nullptr);
    EXPECT_EQ(b.ptr.o, nullptr);
    EXPECT_EQ(b.ptr.last, &b.ptr.s->e);
    lookup c(ctx, "nosuch.main");
    EXPECT_EQ(c.rc, UCI_ERR_NOTFOUND);
}

TEST_F(Uci, LookupLoadsThePackageOnce)
{
    lookup a(ctx, "test.main.hostname");
    ASSERT_EQ(a.rc, UCI_OK);
    ASSERT_TRUE(a.complete());
    EXPECT_EQ(a.ptr.target, UCI_TYPE_OPTION);
    EXPECT_STREQ(a.ptr.o->v.string, "router");
    EXPECT_EQ(a.ptr.last, &a.ptr.o->e);
    lookup b(ctx, "test.main");
    EXPECT_EQ(b.ptr.p, a.ptr.p);
    EXPECT_EQ(b.ptr.target, UCI_TYPE_SECTION);
    EXPECT_EQ(count(&ctx.get()->root), 1u);
    EXPECT_EQ(uci_lookup_package(ctx, "test"), a.ptr.p);
    EXPECT_EQ(uci_lookup_package(ctx, "other"), nullptr);
}

TEST_F(Uci, LookupExtendedSectionForms)
{
    lookup first(ctx, "test.@host[0].mac");
    ASSERT_TRUE(first.complete());
    EXPECT_STREQ(first.ptr.section, "cfg02fe63");
    EXPECT_STREQ(first.ptr.o->v.string, "00:11:22:33:44:55");
    EXPECT_TRUE(first.ptr.flags & uci_ptr::UCI_LOOKUP_EXTENDED);
    lookup last(ctx, "test.@host[-1]");
    ASSERT_TRUE(last.complete());
    EXPECT_STREQ(last.ptr.section, "cfg03fe63");
    lookup any(ctx, "test.@[0]");
    EXPECT_STREQ(any.ptr.section, "main");
    lookup empty_index(ctx, "test.@host[]");
    EXPECT_STREQ(empty_index.ptr.section, "cfg02fe63");
    lookup beyond(ctx, "test.@host[2]");
    EXPECT_EQ(beyond.rc, UCI_OK);
    EXPECT_FALSE(beyond.complete());
    lookup before(ctx, "test.@host[-3]");
    EXPECT_EQ(before.rc, UCI_OK);
    EXPECT_FALSE(before.complete());
}

TEST_F(Uci, LookupMalformedNames)
{
    // The whole expression is judged first: the pointer stays zeroed.
    for (const char *bad : {"test.@host", "test.@host[x]", "test.@host[0]x", "test.bad-name", "test.",
                            "nosuch.@host[x]"}) {
        lookup l(ctx, bad);
        EXPECT_EQ(l.rc, UCI_ERR_INVAL) << bad;
        EXPECT_EQ(l.ptr.flags, 0) << bad;
        EXPECT_EQ(l.ptr.package, nullptr) << bad;
        EXPECT_EQ(l.ptr.section, nullptr) << bad;
        EXPECT_EQ(l.ptr.option, nullptr) << bad;
        EXPECT_EQ(l.ptr.target, 0) << bad;
        EXPECT_EQ(l.ptr.p, nullptr) << bad;
        EXPECT_EQ(l.ptr.last, nullptr) << bad;
    }
    EXPECT_TRUE(uci_list_empty(&ctx.get()->root));
    lookup not_extended(ctx, "test.@host[0]", false);
    EXPECT_EQ(not_extended.rc, UCI_ERR_INVAL);
    for (const char *bad : {"test.main.", "test.main.bad-opt", "a.b.c.d", "bad!pkg.main", "test.main.x=a\001b"}) {
        lookup l(ctx, bad);
        EXPECT_EQ(l.rc, UCI_ERR_PARSE) << bad;
        EXPECT_EQ(l.ptr.package, nullptr);
    }
}

TEST_F(Uci, ParsePtrSplitsInPlaceAtTheFirstEquals)
{
    char buf[] = "test.main.x=a=b.c";
    uci_ptr ptr;
    ASSERT_EQ(uci_parse_ptr(ctx, &ptr, buf), UCI_OK);
    EXPECT_STREQ(ptr.package, "test");
    EXPECT_STREQ(ptr.section, "main");
    EXPECT_STREQ(ptr.option, "x");
    EXPECT_STREQ(ptr.value, "a=b.c");
    EXPECT_EQ(ptr.package, buf);  // points into the caller's buffer
    char pkg[] = "test";
    ASSERT_EQ(uci_parse_ptr(ctx, &ptr, pkg), UCI_OK);
    EXPECT_EQ(ptr.target, UCI_TYPE_PACKAGE);
}

TEST_F(Uci, LookupNextAndInlineHelpers)
{
    uci_package *p = load();
    uci_element *e = nullptr;
    EXPECT_EQ(uci_lookup_next(ctx, &e, &p->sections, "main"), UCI_OK);
    EXPECT_STREQ(e->name, "main");
    EXPECT_EQ(uci_lookup_next(ctx, &e, &p->sections, "nosuch"), UCI_ERR_NOTFOUND);
    EXPECT_EQ(e, nullptr);
    EXPECT_EQ(ctx.get()->err, UCI_ERR_NOTFOUND);
    uci_section *s = uci_lookup_section(ctx, p, "main");
    ASSERT_NE(s, nullptr);
    EXPECT_STREQ(uci_lookup_option_string(ctx, s, "hostname"), "router");
    EXPECT_EQ(uci_lookup_option_string(ctx, s, "ntp"), nullptr);  // a list
    ASSERT_NE(uci_lookup_option(ctx, s, "ntp"), nullptr);
    EXPECT_EQ(uci_lookup_option(ctx, s, "ntp")->type, UCI_TYPE_LIST);
}

TEST_F(Uci, SetNewOptionIsAppended)
{
    lookup l(ctx, "test.main.zone=UTC");
    ASSERT_EQ(uci_set(ctx, &l.ptr), UCI_OK);
    ASSERT_NE(l.ptr.o, nullptr);
    EXPECT_EQ(l.ptr.s->options.prev, &l.ptr.o->e.list);
    EXPECT_STREQ(l.ptr.o->v.string, "UTC");
}

TEST_F(Uci, SetExistingOptionKeepsItsPlace)
{
    lookup l(ctx, "test.main.hostname=gw");
    ASSERT_EQ(uci_set(ctx, &l.ptr), UCI_OK);
    EXPECT_EQ(l.ptr.s->options.next, &l.ptr.o->e.list);
    EXPECT_STREQ(l.ptr.o->v.string, "gw");
}

TEST_F(Uci, SetStringOnListReplacesTheList)
{
    lookup l(ctx, "test.main.ntp=only");
    ASSERT_EQ(uci_set(ctx, &l.ptr), UCI_OK);
    EXPECT_EQ(l.ptr.o->type, UCI_TYPE_STRING);
    EXPECT_STREQ(l.ptr.o->v.string, "only");
}

TEST_F(Uci, SetSameValueRecordsNothing)
{
    lookup l(ctx, "test.main.hostname=router");
    ASSERT_EQ(uci_set(ctx, &l.ptr), UCI_OK);
    EXPECT_TRUE(uci_list_empty(&l.ptr.p->delta));
    lookup t(ctx, "test.main=system");
    ASSERT_EQ(uci_set(ctx, &t.ptr), UCI_OK);
    EXPECT_TRUE(uci_list_empty(&t.ptr.p->delta));
}

TEST_F(Uci, SetCreatesNamedSectionAndChangesType)
{
    lookup l(ctx, "test.lan=interface");
    ASSERT_EQ(uci_set(ctx, &l.ptr), UCI_OK);
    ASSERT_NE(l.ptr.s, nullptr);
    EXPECT_FALSE(l.ptr.s->anonymous);
    EXPECT_STREQ(l.ptr.s->type, "interface");
    EXPECT_EQ(l.ptr.p->sections.prev, &l.ptr.s->e.list);
    lookup t(ctx, "test.lan=bridge");
    ASSERT_EQ(uci_set(ctx, &t.ptr), UCI_OK);
    EXPECT_STREQ(t.ptr.s->type, "bridge");
    lookup bad(ctx, "test.lan=two words");
    EXPECT_EQ(uci_set(ctx, &bad.ptr), UCI_ERR_INVAL);
}

TEST_F(Uci, SetOptionInMissingSectionIsInvalid)
{
    lookup l(ctx, "test.nosuch.x=1");
    EXPECT_EQ(uci_set(ctx, &l.ptr), UCI_ERR_INVAL);
    lookup e(ctx, "test.nosuch.x=");
    EXPECT_EQ(uci_set(ctx, &e.ptr), UCI_ERR_INVAL);
    lookup s(ctx, "test.nosuch=");
    EXPECT_EQ(uci_set(ctx, &s.ptr), UCI_OK);
}

TEST_F(Uci, SetEmptyValueDeletes)
{
    lookup o(ctx, "test.main.hostname=");
    ASSERT_EQ(uci_set(ctx, &o.ptr), UCI_OK);
    EXPECT_EQ(uci_lookup_option(ctx, o.ptr.s, "hostname"), nullptr);
    lookup s(ctx, "test.main=");
    ASSERT_EQ(uci_set(ctx, &s.ptr), UCI_OK);
    EXPECT_EQ(uci_lookup_section(ctx, s.ptr.p, "main"), nullptr);
    ASSERT_EQ(uci_save(ctx, s.ptr.p), UCI_OK);
    EXPECT_EQ(saved(), "-test.main.hostname\n-test.main\n");
}

TEST_F(Uci, SetByHandFilledPointer)
{
    uci_package *p = load();
    uci_ptr ptr{};
    ptr.p = p;
    ptr.section = "main";
    ptr.option = "hostname";
    ptr.value = "byhand";
    ASSERT_EQ(uci_set(ctx, &ptr), UCI_OK);
    EXPECT_STREQ(uci_lookup_option_string(ctx, uci_lookup_section(ctx, p, "main"), "hostname"), "byhand");
}

TEST_F(Uci, RetypedAnonymousSectionIsWrittenWithItsName)
{
    ASSERT_EQ(set_and_commit(ctx, "test.cfg02fe63=client"), UCI_OK);
    EXPECT_NE(conf().find("config client 'cfg02fe63'\n"), std::string::npos);
}

TEST(UciNames, AnonymousNameHashIsOfTheTypeOnly)
{
    temp_dir dir;
    write_file(dir / "conf/n", "");
    context ctx(dir);
    uci_package *p = nullptr;
    ASSERT_EQ(uci_load(ctx, "n", &p), UCI_OK);
    const std::pair<const char *, const char *> cases[] = {
        {"host", "cfg01fe63"},      {"client", "cfg026184"},     {"system", "cfg03e48a"},
        {"interface", "cfg046d96"}, {"wifi-iface", "cfg053579"}, {"dnsmasq", "cfg06411c"},
    };
    for (const auto &[type, name] : cases) {
        uci_section *s = nullptr;
        ASSERT_EQ(uci_add_section(ctx, p, type, &s), UCI_OK);
        EXPECT_STREQ(s->e.name, name);
        EXPECT_TRUE(s->anonymous);
    }
}

TEST_F(Uci, AddSectionNamesCountEverySection)
{
    uci_package *p = load();
    uci_section *s = nullptr;
    ASSERT_EQ(uci_add_section(ctx, p, "host", &s), UCI_OK);
    EXPECT_STREQ(s->e.name, "cfg04fe63");
    ASSERT_EQ(uci_save(ctx, p), UCI_OK);
    EXPECT_EQ(saved(), "+test.cfg04fe63='host'\n");
}

TEST_F(Uci, AddSectionContinuesAfterReplayedChanges)
{
    write_file(dir / "save/test", "+test.cfg04fe63='host'\n");
    uci_package *p = load();
    uci_section *s = nullptr;
    ASSERT_EQ(uci_add_section(ctx, p, "host", &s), UCI_OK);
    EXPECT_STREQ(s->e.name, "cfg05fe63");
}

TEST_F(Uci, DeletedSectionsDoNotFreeTheirNumber)
{
    uci_package *p = load();
    lookup l(ctx, "test.cfg03fe63");
    ASSERT_EQ(uci_delete(ctx, &l.ptr), UCI_OK);
    uci_section *s = nullptr;
    ASSERT_EQ(uci_add_section(ctx, p, "host", &s), UCI_OK);
    EXPECT_STREQ(s->e.name, "cfg04fe63");
}

static std::vector<std::string> section_names(const uci_package *p)
{
    std::vector<std::string> out;
    uci_element *e;
    uci_foreach_element(&p->sections, e) out.emplace_back(e->name);
    return out;
}

// The package handed back by a commit is the file read again plus every
// change replayed: the names made before the commit stay, and the counter
// counts the file's sections and the replayed additions.
TEST_F(Uci, CommitKeepsNamesAndCountsTheReplayedAdditions)
{
    uci_package *p = load();
    lookup del(ctx, "test.cfg02fe63");
    ASSERT_EQ(uci_delete(ctx, &del.ptr), UCI_OK);
    uci_section *s = nullptr;
    ASSERT_EQ(uci_add_section(ctx, p, "host", &s), UCI_OK);
    EXPECT_STREQ(s->e.name, "cfg04fe63");
    ASSERT_EQ(uci_commit(ctx, &p, false), UCI_OK);
    EXPECT_EQ(section_names(p), (std::vector<std::string>{"main", "cfg03fe63", "cfg04fe63"}));
    EXPECT_EQ(p->n_section, 4);
    ASSERT_EQ(uci_add_section(ctx, p, "host", &s), UCI_OK);
    EXPECT_STREQ(s->e.name, "cfg05fe63");
    // A fresh reader of the written file counts only what the file holds.
    uci_unload(ctx, p);
    p = load();
    EXPECT_EQ(section_names(p), (std::vector<std::string>{"main", "cfg02fe63", "cfg03fe63"}));
}

TEST_F(Uci, ExtraChangeDirectoriesRaiseTheCounterOnEveryLoad)
{
    std::filesystem::create_directory(dir / "extra");
    write_file(dir / "extra/test", "+test.cfg09fe63='host'\n-test.cfg02fe63\n");
    ASSERT_EQ(uci_add_delta_path(ctx, (dir / "extra").c_str()), UCI_OK);
    uci_package *p = load();
    EXPECT_EQ(section_names(p), (std::vector<std::string>{"main", "cfg03fe63", "cfg09fe63"}));
    uci_section *s = nullptr;
    ASSERT_EQ(uci_add_section(ctx, p, "host", &s), UCI_OK);
    EXPECT_STREQ(s->e.name, "cfg05fe63");
    ASSERT_EQ(uci_save(ctx, p), UCI_OK);
    ASSERT_EQ(uci_commit(ctx, &p, false), UCI_OK);
    // Extra directories are not emptied: their addition comes back.
    EXPECT_EQ(p->n_section, 5);
    uci_unload(ctx, p);
    p = load();
    EXPECT_EQ(section_names(p), (std::vector<std::string>{"main", "cfg03fe63", "cfg04fe63", "cfg09fe63"}));
    EXPECT_EQ(p->n_section, 5);
}

TEST_F(Uci, TypeChangesLeaveTheCounter)
{
    uci_package *p = load();
    lookup longer(ctx, "test.cfg02fe63=client");
    ASSERT_EQ(uci_set(ctx, &longer.ptr), UCI_OK);
    lookup same(ctx, "test.cfg03fe63=node");
    ASSERT_EQ(uci_set(ctx, &same.ptr), UCI_OK);
    EXPECT_EQ(p->n_section, 3);
    uci_section *s = nullptr;
    ASSERT_EQ(uci_add_section(ctx, p, "host", &s), UCI_OK);
    EXPECT_STREQ(s->e.name, "cfg04fe63");
}

TEST_F(Uci, InvalidSectionTypeIsDroppedOnReplayAndItsSlotReused)
{
    uci_package *p = load();
    uci_section *s = nullptr;
    ASSERT_EQ(uci_add_section(ctx, p, "bad type", &s), UCI_OK);
    std::string name = s->e.name;
    EXPECT_EQ(name.substr(0, 5), "cfg04");
    ASSERT_EQ(uci_save(ctx, p), UCI_OK);
    EXPECT_EQ(saved(), "+test." + name + "='bad type'\n");
    uci_unload(ctx, p);
    p = load();
    EXPECT_EQ(count(&p->sections), 3u);
    ASSERT_EQ(uci_add_section(ctx, p, "host", &s), UCI_OK);
    EXPECT_STREQ(s->e.name, "cfg04fe63");
}

TEST_F(Uci, DeleteNeedsACompleteLookup)
{
    lookup l(ctx, "test.main.nosuch");
    EXPECT_EQ(uci_delete(ctx, &l.ptr), UCI_ERR_NOTFOUND);
    lookup s(ctx, "test.main");
    ASSERT_EQ(uci_delete(ctx, &s.ptr), UCI_OK);
    EXPECT_EQ(s.ptr.s, nullptr);
    EXPECT_EQ(uci_lookup_section(ctx, s.ptr.p, "main"), nullptr);
}

TEST_F(Uci, DeleteListItemByIndex)
{
    lookup l(ctx, "test.main.ntp=1");
    ASSERT_EQ(uci_delete(ctx, &l.ptr), UCI_OK);
    uci_option *o = uci_lookup_option(ctx, uci_lookup_section(ctx, l.ptr.p, "main"), "ntp");
    ASSERT_NE(o, nullptr);
    ASSERT_EQ(count(&o->v.list), 1u);
    EXPECT_STREQ(list_to_element(o->v.list.next)->name, "a.example");
    lookup beyond(ctx, "test.main.ntp=5");
    EXPECT_EQ(uci_delete(ctx, &beyond.ptr), UCI_OK);
    EXPECT_EQ(count(&o->v.list), 1u);
}

TEST_F(Uci, DeleteWithNonNumericIndexAnswersOneWithSuccess)
{
    lookup l(ctx, "test.main.ntp=x");
    EXPECT_EQ(uci_delete(ctx, &l.ptr), 1);
    EXPECT_EQ(ctx.error(), "uci: Success");
}

TEST_F(Uci, DeleteWithIndexOnStringDeletesTheOption)
{
    lookup l(ctx, "test.main.hostname=0");
    ASSERT_EQ(uci_delete(ctx, &l.ptr), UCI_OK);
    EXPECT_EQ(uci_lookup_option(ctx, uci_lookup_section(ctx, l.ptr.p, "main"), "hostname"), nullptr);
}

TEST_F(Uci, AddListCreatesAndConverts)
{
    lookup n(ctx, "test.main.dns=1.1.1.1");
    ASSERT_EQ(uci_add_list(ctx, &n.ptr), UCI_OK);
    EXPECT_EQ(n.ptr.o->type, UCI_TYPE_LIST);
    lookup c(ctx, "test.main.hostname=second");
    ASSERT_EQ(uci_add_list(ctx, &c.ptr), UCI_OK);
    ASSERT_EQ(c.ptr.o->type, UCI_TYPE_LIST);
    ASSERT_EQ(count(&c.ptr.o->v.list), 2u);
    EXPECT_STREQ(list_to_element(c.ptr.o->v.list.next)->name, "router");
    EXPECT_STREQ(list_to_element(c.ptr.o->v.list.prev)->name, "second");
    EXPECT_EQ(list_to_element(c.ptr.o->v.list.next)->type, UCI_TYPE_ITEM);
}

TEST_F(Uci, DelListRemovesEveryEqualItem)
{
    for (int i = 0; i < 2; i++) {
        lookup a(ctx, "test.main.ntp=a.example");
        ASSERT_EQ(uci_add_list(ctx, &a.ptr), UCI_OK);
    }
    lookup d(ctx, "test.main.ntp=a.example");
    ASSERT_EQ(uci_del_list(ctx, &d.ptr), UCI_OK);
    ASSERT_EQ(count(&d.ptr.o->v.list), 1u);
    EXPECT_STREQ(list_to_element(d.ptr.o->v.list.next)->name, "b.example");
}

TEST_F(Uci, RenameMakesSectionNamedAndAllowsDuplicates)
{
    lookup r(ctx, "test.cfg02fe63=main");
    ASSERT_EQ(uci_rename(ctx, &r.ptr), UCI_OK);
    EXPECT_FALSE(r.ptr.s->anonymous);
    lookup f(ctx, "test.main");
    EXPECT_STREQ(f.ptr.s->type, "system");  // the first one of that name
    lookup o(ctx, "test.main.hostname=name");
    ASSERT_EQ(uci_rename(ctx, &o.ptr), UCI_OK);
    EXPECT_STREQ(o.ptr.o->e.name, "name");
    lookup missing(ctx, "test.nosuch=x");
    EXPECT_EQ(uci_rename(ctx, &missing.ptr), UCI_ERR_NOTFOUND);
}

TEST_F(Uci, ReorderMovesTheSection)
{
    lookup l(ctx, "test.cfg03fe63");
    ASSERT_EQ(uci_reorder_section(ctx, l.ptr.s, 0), UCI_OK);
    EXPECT_EQ(l.ptr.p->sections.next, &l.ptr.s->e.list);
    ASSERT_EQ(uci_save(ctx, l.ptr.p), UCI_OK);
    EXPECT_EQ(saved(), "^test.cfg03fe63='0'\n");
}

TEST_F(Uci, SaveAppendsAndEmptiesTheChanges)
{
    lookup a(ctx, "test.main.hostname=it's");
    ASSERT_EQ(uci_set(ctx, &a.ptr), UCI_OK);
    ASSERT_EQ(uci_save(ctx, a.ptr.p), UCI_OK);
    EXPECT_TRUE(uci_list_empty(&a.ptr.p->delta));
    EXPECT_EQ(count(&a.ptr.p->saved_delta), 1u);
    ASSERT_EQ(uci_save(ctx, a.ptr.p), UCI_OK);  // nothing new: nothing written
    lookup b(ctx, "test.main.zone=UTC");
    ASSERT_EQ(uci_set(ctx, &b.ptr), UCI_OK);
    ASSERT_EQ(uci_save(ctx, b.ptr.p), UCI_OK);
    EXPECT_EQ(saved(), "test.main.hostname='it'\\''s'\ntest.main.zone='UTC'\n");
    EXPECT_EQ(conf(), sample);
}

TEST_F(Uci, SaveCreatesDirectoryAndFileWithConfigModes)
{
    ::chmod((dir / "conf").c_str(), 0750);
    ::chmod((dir / "conf/test").c_str(), 0640);
    ASSERT_EQ(uci_set_savedir(ctx, (dir / "newsave").c_str()), UCI_OK);
    lookup a(ctx, "test.main.hostname=x");
    ASSERT_EQ(uci_set(ctx, &a.ptr), UCI_OK);
    ASSERT_EQ(uci_save(ctx, a.ptr.p), UCI_OK);
    EXPECT_EQ(mode_of(dir / "newsave"), 0750u);
    EXPECT_EQ(mode_of(dir / "newsave/test"), 0640u);
}

TEST_F(Uci, CommitMergesRenamesAndTruncates)
{
    ::chmod((dir / "conf/test").c_str(), 0640);
    ino_t before = inode_of(dir / "conf/test");
    lookup l(ctx, "test.main.hostname=gw");
    uci_package *old = l.ptr.p;
    ASSERT_EQ(uci_set(ctx, &l.ptr), UCI_OK);
    ASSERT_EQ(uci_commit(ctx, &l.ptr.p, false), UCI_OK);
    EXPECT_NE(l.ptr.p, old);  // a new package object
    EXPECT_EQ(count(&ctx.get()->root), 1u);
    EXPECT_NE(inode_of(dir / "conf/test"), before);
    EXPECT_EQ(mode_of(dir / "conf/test"), 0640u);
    EXPECT_TRUE(file_exists(dir / "save/test"));
    EXPECT_EQ(saved(), "");
    std::string expected = sample;
    expected.replace(expected.find("'router'"), 8, "'gw'");
    EXPECT_EQ(conf(), expected);
}

TEST_F(Uci, CommitPicksUpChangesOnDiskAndInOtherDirectories)
{
    std::filesystem::create_directory(dir / "extra");
    write_file(dir / "extra/test", "|test.main.ntp='c.example'\n");
    ASSERT_EQ(uci_add_delta_path(ctx, (dir / "extra").c_str()), UCI_OK);
    uci_package *p = load();
    // another writer commits a change in between
    context other(dir);
    ASSERT_EQ(set_and_commit(other, "test.main.zone=CET"), UCI_OK);
    lookup l(ctx, "test.main.hostname=gw");
    ASSERT_EQ(uci_set(ctx, &l.ptr), UCI_OK);
    ASSERT_EQ(l.ptr.p, p);
    ASSERT_EQ(uci_commit(ctx, &l.ptr.p, false), UCI_OK);
    std::string text = conf();
    EXPECT_NE(text.find("option zone 'CET'"), std::string::npos);
    EXPECT_NE(text.find("option hostname 'gw'"), std::string::npos);
    EXPECT_NE(text.find("list ntp 'c.example'"), std::string::npos);
    EXPECT_EQ(read_file(dir / "extra/test"), "|test.main.ntp='c.example'\n");  // left alone
}

TEST_F(Uci, ExtraDeltaDirectoriesApplyAgainOnEveryLoad)
{
    std::filesystem::create_directory(dir / "extra");
    write_file(dir / "extra/test", "|test.main.ntp='c.example'\n");
    ASSERT_EQ(uci_add_delta_path(ctx, (dir / "extra").c_str()), UCI_OK);
    ASSERT_EQ(set_and_commit(ctx, "test.main.hostname=gw"), UCI_OK);
    uci_unload(ctx, uci_lookup_package(ctx, "test"));
    uci_package *p = load();
    uci_option *o = uci_lookup_option(ctx, uci_lookup_section(ctx, p, "main"), "ntp");
    EXPECT_EQ(count(&o->v.list), 4u);  // a, b, c from the file, c again
}

TEST_F(Uci, CommitWithoutChangesDoesNotRewrite)
{
    ino_t before = inode_of(dir / "conf/test");
    uci_package *p = load();
    ASSERT_EQ(uci_commit(ctx, &p, false), UCI_OK);
    EXPECT_EQ(inode_of(dir / "conf/test"), before);
    EXPECT_FALSE(file_exists(dir / "save/test"));
}

TEST_F(Uci, CommitOverwriteWithoutSavedChangesDoesNothing)
{
    lookup l(ctx, "test.main.hostname=gw");
    ASSERT_EQ(uci_set(ctx, &l.ptr), UCI_OK);
    ASSERT_EQ(uci_commit(ctx, &l.ptr.p, true), UCI_OK);
    EXPECT_EQ(conf(), sample);
}

TEST_F(Uci, SetSaveCommitPerOptionLikeTheDaemon)
{
    for (int i = 0; i < 5; i++)
        ASSERT_EQ(set_and_commit(ctx, "test.@host[0].access_time=" + std::to_string(i)), UCI_OK);
    lookup l(ctx, "test.@host[0].access_time");
    ASSERT_TRUE(l.complete());
    EXPECT_STREQ(l.ptr.o->v.string, "4");
    EXPECT_EQ(saved(), "");
}

TEST_F(Uci, RevertFiltersOnlyTheSaveDirectory)
{
    write_file(dir / "save/test",
               "test.main.hostname='a'\n"
               "test.main.zone='b'\n"
               "test.cfg02fe63.mac='c'\n"
               "-test.cfg03fe63\n");
    std::filesystem::create_directory(dir / "extra");
    write_file(dir / "extra/test", "test.main.hostname='x'\n");
    ASSERT_EQ(uci_add_delta_path(ctx, (dir / "extra").c_str()), UCI_OK);
    lookup o(ctx, "test.main.hostname");
    uci_package *old = o.ptr.p;
    ASSERT_EQ(uci_revert(ctx, &o.ptr), UCI_OK);
    EXPECT_NE(o.ptr.p, old);
    EXPECT_EQ(saved(), "test.main.zone='b'\ntest.cfg02fe63.mac='c'\n-test.cfg03fe63\n");
    lookup s(ctx, "test.main");
    ASSERT_EQ(uci_revert(ctx, &s.ptr), UCI_OK);
    EXPECT_EQ(saved(), "test.cfg02fe63.mac='c'\n-test.cfg03fe63\n");
    lookup missing(ctx, "test.nosuch");
    ASSERT_EQ(uci_revert(ctx, &missing.ptr), UCI_OK);
    lookup all(ctx, "test");
    ASSERT_EQ(uci_revert(ctx, &all.ptr), UCI_OK);
    EXPECT_EQ(saved(), "");
    EXPECT_EQ(read_file(dir / "extra/test"), "test.main.hostname='x'\n");
}

TEST_F(Uci, RevertSavesPendingChangesFirst)
{
    lookup a(ctx, "test.main.zone=UTC");
    ASSERT_EQ(uci_set(ctx, &a.ptr), UCI_OK);
    lookup b(ctx, "test.cfg02fe63.name=x");
    ASSERT_EQ(uci_set(ctx, &b.ptr), UCI_OK);
    lookup r(ctx, "test.cfg02fe63");
    ASSERT_EQ(uci_revert(ctx, &r.ptr), UCI_OK);
    EXPECT_EQ(saved(), "test.main.zone='UTC'\n");
    lookup check(ctx, "test.main.zone");
    EXPECT_TRUE(check.complete());
}

TEST_F(Uci, PackageLoadedByPathIsWrittenDirectly)
{
    write_file(dir / "plain.conf", sample);
    uci_package *p = nullptr;
    ASSERT_EQ(uci_load(ctx, (dir / "plain.conf").c_str(), &p), UCI_OK);
    EXPECT_FALSE(p->has_delta);
    EXPECT_STREQ(p->e.name, "plain.conf");
    uci_ptr ptr{};
    ptr.p = p;
    ptr.section = "main";
    ptr.option = "hostname";
    ptr.value = "direct";
    ASSERT_EQ(uci_set(ctx, &ptr), UCI_OK);
    ASSERT_EQ(uci_save(ctx, p), UCI_OK);
    EXPECT_NE(read_file(dir / "plain.conf").find("option hostname 'direct'"), std::string::npos);
    EXPECT_FALSE(file_exists(dir / "save/plain.conf"));
    uci_ptr rp{};
    rp.p = p;
    EXPECT_EQ(uci_revert(ctx, &rp), UCI_ERR_INVAL);
}

TEST_F(Uci, ErrorTexts)
{
    const char *texts[] = {"Success",        "Out of memory", "Invalid argument", "Entry not found",
                           "I/O error",      "Parse error",   "Duplicate entry",  "Unknown error"};
    for (int i = 0; i < UCI_ERR_LAST; i++) {
        ctx.get()->err = i;
        EXPECT_EQ(ctx.error("x"), std::string("x: ") + texts[i]);
        char *s = nullptr;
        uci_get_errorstr(ctx, &s, nullptr);
        EXPECT_STREQ(s, texts[i]);
        std::free(s);
    }
}

TEST_F(Uci, ListConfigsSkipsNamesWithDots)
{
    write_file(dir / "conf/alpha", "");
    write_file(dir / "conf/b.bak", "");
    write_file(dir / "conf/z-net", "");
    char **list = nullptr;
    ASSERT_EQ(uci_list_configs(ctx, &list), UCI_OK);
    std::vector<std::string> names;
    for (char **c = list; *c; c++)
        names.emplace_back(*c);
    std::free(static_cast<void *>(list));
    EXPECT_EQ(names, (std::vector<std::string>{"alpha", "test", "z-net"}));
}

TEST_F(Uci, UnloadAndFreeDropUnsavedChanges)
{
    lookup l(ctx, "test.main.hostname=gw");
    ASSERT_EQ(uci_set(ctx, &l.ptr), UCI_OK);
    ASSERT_EQ(uci_unload(ctx, l.ptr.p), UCI_OK);
    EXPECT_TRUE(uci_list_empty(&ctx.get()->root));
    EXPECT_FALSE(file_exists(dir / "save/test"));
}

TEST_F(Uci, ParseSectionFillsTheTable)
{
    uci_package *p = load();
    const uci_parse_option opts[] = {{"hostname", UCI_TYPE_STRING}, {"ntp", UCI_TYPE_LIST}, {"ntp", UCI_TYPE_STRING}};
    uci_option *tb[3];
    uci_parse_section(uci_lookup_section(ctx, p, "main"), opts, 3, tb);
    ASSERT_NE(tb[0], nullptr);
    ASSERT_NE(tb[1], nullptr);
    EXPECT_EQ(tb[2], nullptr);
    uint32_t h1 = uci_hash_options(tb, 3);
    EXPECT_EQ(h1, uci_hash_options(tb, 3));
}

extern "C" int c_header_check(const char *confdir);

TEST_F(Uci, HeaderWorksFromC)
{
    EXPECT_EQ(c_header_check((dir / "conf").c_str()), 1);
}

TEST_F(Uci, CommitWithTheSaveDirectoryTwiceUnderTwoSpellings)
{
    ASSERT_EQ(uci_add_delta_path(ctx, (dir / "save/").c_str()), UCI_OK);
    ASSERT_EQ(set_and_commit(ctx, "test.main.hostname=gw"), UCI_OK);  // must not wait on itself
    EXPECT_NE(conf().find("option hostname 'gw'"), std::string::npos);
    EXPECT_EQ(saved(), "");
}

TEST_F(Uci, HandFilledPointerMayNameOnlyTheSection)
{
    uci_package *p = load();
    uci_ptr ptr{};
    ptr.s = uci_lookup_section(ctx, p, "main");
    ptr.option = "zone";
    ptr.value = "UTC";
    ASSERT_EQ(uci_set(ctx, &ptr), UCI_OK);
    EXPECT_EQ(ptr.p, p);
    EXPECT_STREQ(uci_lookup_option_string(ctx, ptr.s, "zone"), "UTC");
}
