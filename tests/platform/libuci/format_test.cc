// Golden tests of the file formats: what the reader accepts and exactly
// what the writer produces. The expected texts are written by hand.
#include "uci_test_util.h"

#include <gtest/gtest.h>

#include <cstring>

using namespace uci_test;

namespace {

std::string golden(const char *name)
{
    return read_file(std::string(LR_SOURCE_DIR) + "/tests/platform/libuci/golden/" + name);
}

int import_status(const std::string &text, std::string *error = nullptr)
{
    uci_context *ctx = uci_alloc_context();
    FILE *in = ::fmemopen(const_cast<char *>(text.data()), text.size(), "r");
    uci_package *p = nullptr;
    int rc = uci_import(ctx, in, "p", &p, true);
    if (error) {
        char *s = nullptr;
        uci_get_errorstr(ctx, &s, nullptr);
        *error = s ? s : "";
        std::free(s);
    }
    std::fclose(in);
    uci_free_context(ctx);
    return rc;
}

}  // namespace

TEST(UciFormat, ExportOfMessyFileIsTheCanonicalForm)
{
    temp_dir dir;
    write_file(dir / "conf/messy", golden("messy.conf"));
    auto r = run_uci({"-c", dir / "conf", "-t", dir / "save", "export", "messy"});
    EXPECT_EQ(r.code, 0) << r.err;
    EXPECT_EQ(r.out, golden("messy.export"));
    auto s = run_uci({"-c", dir / "conf", "-t", dir / "save", "show", "messy"});
    EXPECT_EQ(s.out, golden("messy.show"));
}

TEST(UciFormat, CommitWritesTheDocumentedLayout)
{
    temp_dir dir;
    write_file(dir / "conf/test", "config system main\n option hostname router\n list ntp b.example\n"
                                  "config host\n option mac 00:11:22:33:44:55\n");
    context ctx(dir);
    ASSERT_EQ(set_and_commit(ctx, "test.main.zone=UTC"), UCI_OK);
    EXPECT_EQ(read_file(dir / "conf/test"),
              "\n"
              "config system 'main'\n"
              "\toption hostname 'router'\n"
              "\tlist ntp 'b.example'\n"
              "\toption zone 'UTC'\n"
              "\n"
              "config host\n"
              "\toption mac '00:11:22:33:44:55'\n"
              "\n");
}

TEST(UciFormat, EmptyPackageIsOneEmptyLine)
{
    EXPECT_EQ(normalise(""), "\n");
    EXPECT_EQ(normalise("# only a comment\n\n"), "\n");
}

TEST(UciFormat, ChangeFileReplaysToTheDocumentedResult)
{
    temp_dir dir;
    write_file(dir / "conf/test", golden("changes.base"));
    write_file(dir / "save/test", golden("changes.delta"));
    auto c = run_uci({"-c", dir / "conf", "-t", dir / "save", "changes", "test"});
    EXPECT_EQ(c.code, 0);
    EXPECT_EQ(c.out, golden("changes.out"));
    auto r = run_uci({"-c", dir / "conf", "-t", dir / "save", "commit", "test"});
    EXPECT_EQ(r.code, 0) << r.err;
    EXPECT_EQ(read_file(dir / "conf/test"), golden("changes.result"));
    EXPECT_EQ(read_file(dir / "save/test"), "");
}

TEST(UciFormat, CliChangesProduceTheDocumentedChangeFile)
{
    temp_dir dir;
    write_file(dir / "conf/test", golden("changes.base"));
    const std::vector<std::vector<std::string>> steps = {
        {"add", "test", "host"},
        {"set", "test.cfg04fe63.mac=11:22:33:44:55:66"},
        {"set", "test.@host[-1].name=it's"},
        {"set", "test.newsec=client"},
        {"add_list", "test.main.ntp=c.example"},
        {"del_list", "test.main.ntp=a.example"},
        {"delete", "test.@host[0].name"},
        {"rename", "test.newsec=renamed"},
        {"reorder", "test.renamed=0"},
        {"delete", "test.cfg03fe63"},
    };
    for (const auto &step : steps) {
        std::vector<std::string> args = {"-c", dir / "conf", "-t", dir / "save"};
        args.insert(args.end(), step.begin(), step.end());
        auto r = run_uci(args);
        ASSERT_EQ(r.code, 0) << step[0] << ": " << r.err;
    }
    EXPECT_EQ(read_file(dir / "save/test"), golden("changes.delta"));
}

TEST(UciFormat, QuotingRules)
{
    EXPECT_EQ(normalise("config a x\n option v 'it'\\''s'\n"), "\nconfig a 'x'\n\toption v 'it'\\''s'\n\n");
    EXPECT_EQ(normalise("config a x\n option v \"\\n\\t\\\\\"\n"), "\nconfig a 'x'\n\toption v 'nt\\'\n\n");
    EXPECT_EQ(normalise("config a x\n option v un\\ quoted\n"), "\nconfig a 'x'\n\toption v 'un quoted'\n\n");
    EXPECT_EQ(normalise("config a x\n option v 'a#b' # c\n"), "\nconfig a 'x'\n\toption v 'a#b'\n\n");
}

TEST(UciFormat, EmptyOptionIsNotCreatedAndKeepsTheEarlierValue)
{
    EXPECT_EQ(normalise("config a x\n option v 1\n option v ''\n option w\n"), "\nconfig a 'x'\n\toption v '1'\n\n");
}

TEST(UciFormat, ListAfterOptionMakesItTheFirstItem)
{
    EXPECT_EQ(normalise("config a x\n option v 1\n list v 2\n"),
              "\nconfig a 'x'\n\tlist v '1'\n\tlist v '2'\n\n");
}

TEST(UciFormat, AnonymousNamesWhileParsing)
{
    temp_dir dir;
    write_file(dir / "conf/test", "config system main\nconfig host\nconfig host\n");
    auto r = run_uci({"-c", dir / "conf", "-t", dir / "save", "-X", "show", "test"});
    EXPECT_EQ(r.out, "test.main=system\ntest.cfg02fe63=host\ntest.cfg03fe63=host\n");
}

TEST(UciFormat, ParseErrors)
{
    std::string err;
    EXPECT_EQ(import_status("config a x\nbogus\n", &err), UCI_ERR_PARSE);
    EXPECT_EQ(err, "Parse error (invalid command) at line 2, byte 0");
    EXPECT_EQ(import_status("config a x\n option v 'open\n"), UCI_ERR_PARSE);
    EXPECT_EQ(import_status("config a x\n option v \"open\n"), UCI_ERR_PARSE);
    EXPECT_EQ(import_status("option v 1\n"), UCI_ERR_PARSE);
    EXPECT_EQ(import_status("config a x\n option v 1 2\n", &err), UCI_ERR_PARSE);
    EXPECT_EQ(err, "Parse error (too many arguments) at line 2, byte 14");
    EXPECT_EQ(import_status("config a bad-name\n"), UCI_ERR_PARSE);
    EXPECT_EQ(import_status("config a x\n option bad-opt 1\n"), UCI_ERR_PARSE);
    EXPECT_EQ(import_status("config a x\nconfig b x\n"), UCI_ERR_PARSE);
    EXPECT_EQ(import_status("config a x\n option v 'a\001b'\n"), UCI_ERR_PARSE);
    EXPECT_EQ(import_status("config a x\nconfig a x\n"), UCI_OK);
}

// An error found once the statement was read names the line where it began
// and, as the byte, the length of what was read: the line and its newline.
TEST(UciFormat, ParseErrorPositions)
{
    std::string err;
    EXPECT_EQ(import_status("config a x\n\toption x 1 extra\n", &err), UCI_ERR_PARSE);
    EXPECT_EQ(err, "Parse error (too many arguments) at line 2, byte 18");
    EXPECT_EQ(import_status("config a 'one'\nconfig b 'one'\n", &err), UCI_ERR_PARSE);
    EXPECT_EQ(err, "Parse error (section of different type overwrites prior section with same name) at line 2, byte 15");
    EXPECT_EQ(import_status("config a x\n\nconfig b 'a b'\n", &err), UCI_ERR_PARSE);
    EXPECT_EQ(err, "Parse error (invalid character in name field) at line 3, byte 15");
    // A value that runs over lines: the line where the statement began, and
    // the byte counts across the lines read.
    EXPECT_EQ(import_status("config a x\n option v 'two\nlines' extra\n", &err), UCI_ERR_PARSE);
    EXPECT_EQ(err, "Parse error (too many arguments) at line 2, byte 28");
}

TEST(UciFormat, UnterminatedQuoteIsReportedWhereTheValueBegan)
{
    std::string err;
    EXPECT_EQ(import_status("config a x\n option v 'open\nmore\n\n", &err), UCI_ERR_PARSE);
    EXPECT_EQ(err.rfind("Parse error (EOF with unterminated ') at line 2, byte ", 0), 0u) << err;
    EXPECT_EQ(import_status("config a x\n\n option v \"open\n", &err), UCI_ERR_PARSE);
    EXPECT_EQ(err.rfind("Parse error (EOF with unterminated \") at line 3, byte ", 0), 0u) << err;
}

TEST(UciFormat, OddTypesStayReadable)
{
    std::string once = normalise("config 'a#b' x\n");
    EXPECT_EQ(once, "\nconfig 'a#b' 'x'\n\n");
    EXPECT_EQ(normalise(once), once);
}

TEST(UciFormat, ExportNameFlagNamesAnonymousSections)
{
    temp_dir dir;
    write_file(dir / "conf/test", "config host\n option mac 1\n");
    auto r = run_uci({"-c", dir / "conf", "-t", dir / "save", "-n", "export", "test"});
    EXPECT_EQ(r.out, "package test\n\nconfig host 'cfg01fe63'\n\toption mac '1'\n\n");
}

TEST(UciFormat, NamedSectionIsNotMergedIntoAnAnonymousOfTheSameName)
{
    // the second section is anonymous and is generated the name cfg02fe63
    const std::string text = "\nconfig host\n\nconfig host\n\toption a '1'\n\nconfig host 'cfg02fe63'\n\toption b '2'\n\n";
    EXPECT_EQ(normalise(text), text);
}

TEST(UciFormat, ReplayedAddOfASectionThatIsThereAddsNoSecondOne)
{
    // What a commit killed between its rename and the emptying of the
    // change file leaves: the file already has the section the change adds.
    temp_dir dir;
    write_file(dir / "conf/test", "\nconfig host\n\toption mac '1'\n\nconfig host\n\toption mac '2'\n");
    write_file(dir / "save/test", "+test.cfg02fe63='host'\ntest.cfg02fe63.mac='2'\n");
    auto r = run_uci({"-c", dir / "conf", "-t", dir / "save", "export", "test"});
    EXPECT_EQ(r.out, "package test\n\nconfig host\n\toption mac '1'\n\nconfig host\n\toption mac '2'\n\n");
    // an add under a new name still adds
    write_file(dir / "save/test", "+test.cfg03fe63='host'\ntest.cfg03fe63.mac='3'\n");
    r = run_uci({"-c", dir / "conf", "-t", dir / "save", "export", "test"});
    EXPECT_NE(r.out.find("option mac '3'"), std::string::npos) << r.out;
}
