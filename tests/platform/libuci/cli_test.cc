// The uci command line: output, messages and exit codes.
#include "uci_test_util.h"

#include <gtest/gtest.h>

#include <filesystem>
#include <sys/stat.h>
#include <unistd.h>

using namespace uci_test;

namespace {

const char *const sample =
    "config system 'main'\n"
    "\toption hostname 'router'\n"
    "\tlist ntp 'a.example'\n"
    "\tlist ntp 'b.example'\n"
    "config host\n"
    "\toption mac '00:11:22:33:44:55'\n"
    "\toption name \"with 'quote'\"\n"
    "config host\n"
    "\toption mac '66:77:88:99:AA:BB'\n"
    "\tlist odd ''\n"
    "\tlist odd 'x y'\n"
    "\tlist odd 'z'\n";

class UciCli : public ::testing::Test {
protected:
    void SetUp() override { write_file(dir / "conf/test", sample); }
    cli_result uci(std::vector<std::string> args, const std::string &input = "")
    {
        std::vector<std::string> all = {"-c", dir / "conf", "-t", dir / "save"};
        all.insert(all.end(), args.begin(), args.end());
        return run_uci(all, input);
    }
    std::string conf() const { return read_file(dir / "conf/test"); }
    temp_dir dir;
};

}  // namespace

TEST_F(UciCli, GetPrintsRawValues)
{
    EXPECT_EQ(uci({"get", "test.main.hostname"}).out, "router\n");
    EXPECT_EQ(uci({"get", "test.main"}).out, "system\n");
    EXPECT_EQ(uci({"get", "test.main.ntp"}).out, "a.example b.example\n");
    EXPECT_EQ(uci({"-d", ",", "get", "test.main.ntp"}).out, "a.example,b.example\n");
    EXPECT_EQ(uci({"get", "test.@host[0].name"}).out, "with 'quote'\n");
    EXPECT_EQ(uci({"get", "test.@host[-1].odd"}).out, " 'x y' z\n");
    auto pkg = uci({"get", "test"});
    EXPECT_EQ(pkg.code, 0);
    EXPECT_EQ(pkg.out, "");
}

TEST_F(UciCli, GetFailures)
{
    auto missing = uci({"get", "test.main.nosuch"});
    EXPECT_EQ(missing.code, 1);
    EXPECT_EQ(missing.out, "");
    EXPECT_EQ(missing.err, "uci: Entry not found\n");
    EXPECT_EQ(uci({"get", "nosuch.main"}).err, "uci: Entry not found\n");
    auto bad = uci({"get", "test.bad-name"});
    EXPECT_EQ(bad.code, 1);
    EXPECT_EQ(bad.err, "uci: Invalid argument\n");
    auto value = uci({"get", "test.main.hostname=x"});
    EXPECT_EQ(value.code, 1);
    EXPECT_EQ(value.err, "");
    auto quiet = uci({"-q", "get", "test.main.nosuch"});
    EXPECT_EQ(quiet.code, 1);
    EXPECT_EQ(quiet.err, "");
}

TEST_F(UciCli, SetAppendsToTheChangeFileOnly)
{
    auto r = uci({"set", "test.main.hostname=gw"});
    EXPECT_EQ(r.code, 0);
    EXPECT_EQ(r.out, "");
    EXPECT_EQ(read_file(dir / "save/test"), "test.main.hostname='gw'\n");
    EXPECT_EQ(conf(), sample);
    EXPECT_EQ(uci({"get", "test.main.hostname"}).out, "gw\n");
}

TEST_F(UciCli, SetFailures)
{
    auto pkg = uci({"set", "nosuch.main.x=1"});
    EXPECT_EQ(pkg.code, 1);
    EXPECT_EQ(pkg.err, "uci: Entry not found\n");
    auto sec = uci({"set", "test.nosuch.x=1"});
    EXPECT_EQ(sec.code, 1);
    EXPECT_EQ(sec.err, "uci: Invalid argument\n");
}

TEST_F(UciCli, AddPrintsTheNewNameAndExitsWithTheErrorCode)
{
    auto r = uci({"add", "test", "host"});
    EXPECT_EQ(r.code, 0);
    EXPECT_EQ(r.out, "cfg04fe63\n");
    EXPECT_EQ(uci({"add", "test", "host"}).out, "cfg05fe63\n");
    auto missing = uci({"add", "nosuch", "host"});
    EXPECT_EQ(missing.code, 3);
    EXPECT_EQ(missing.err, "uci: Entry not found\n");
}

TEST_F(UciCli, DeleteAndLists)
{
    EXPECT_EQ(uci({"delete", "test.main.nosuch"}).code, 1);
    EXPECT_EQ(uci({"add_list", "test.main.ntp=c.example"}).code, 0);
    EXPECT_EQ(uci({"del_list", "test.main.ntp=a.example"}).code, 0);
    EXPECT_EQ(uci({"get", "test.main.ntp"}).out, "b.example c.example\n");
    EXPECT_EQ(uci({"delete", "test.main.ntp=0"}).code, 0);
    EXPECT_EQ(uci({"get", "test.main.ntp"}).out, "c.example\n");
    auto bad_index = uci({"delete", "test.main.ntp=x"});
    EXPECT_EQ(bad_index.code, 1);
    EXPECT_EQ(bad_index.err, "uci: Success\n");
    EXPECT_EQ(uci({"delete", "test.@host[0]"}).code, 0);
    EXPECT_EQ(uci({"get", "test.@host[0].mac"}).out, "66:77:88:99:AA:BB\n");
}

TEST_F(UciCli, RenameAndReorder)
{
    EXPECT_EQ(uci({"rename", "test.@host[0]=first"}).code, 0);
    EXPECT_EQ(uci({"reorder", "test.first=0"}).code, 0);
    EXPECT_EQ(uci({"rename", "test.nosuch=x"}).code, 1);
    EXPECT_EQ(uci({"reorder", "test.nosuch=1"}).code, 1);
    EXPECT_EQ(uci({"commit", "test"}).code, 0);
    EXPECT_EQ(conf().substr(0, 21), "\nconfig host 'first'\n");
}

TEST_F(UciCli, ShowFormats)
{
    auto r = uci({"show", "test"});
    EXPECT_EQ(r.code, 0);
    EXPECT_EQ(r.out,
              "test.main=system\n"
              "test.main.hostname='router'\n"
              "test.main.ntp='a.example' 'b.example'\n"
              "test.@host[0]=host\n"
              "test.@host[0].mac='00:11:22:33:44:55'\n"
              "test.@host[0].name='with '\\''quote'\\'''\n"
              "test.@host[1]=host\n"
              "test.@host[1].mac='66:77:88:99:AA:BB'\n"
              "test.@host[1].odd='' 'x y' 'z'\n");
    EXPECT_EQ(uci({"show", "test.@host[1].mac"}).out, "test.cfg03fe63.mac='66:77:88:99:AA:BB'\n");
    EXPECT_EQ(uci({"show", "test.cfg02fe63"}).out,
              "test.cfg02fe63=host\n"
              "test.cfg02fe63.mac='00:11:22:33:44:55'\n"
              "test.cfg02fe63.name='with '\\''quote'\\'''\n");
    auto missing = uci({"show", "test.nosuch"});
    EXPECT_EQ(missing.code, 1);
    EXPECT_EQ(missing.err, "uci: Entry not found\n");
}

TEST_F(UciCli, ShowAllGoesPastBrokenFiles)
{
    write_file(dir / "conf/aaa", "bogus\n");
    write_file(dir / "conf/zzz", "config z 'one'\n");
    write_file(dir / "conf/skip.me", "config z 'one'\n");
    auto r = uci({"show"});
    EXPECT_EQ(r.code, 0);
    EXPECT_EQ(r.err, "uci: Parse error (invalid command) at line 1, byte 0\n");
    EXPECT_NE(r.out.find("test.main=system\n"), std::string::npos);
    EXPECT_NE(r.out.find("zzz.one=z\n"), std::string::npos);
    EXPECT_EQ(r.out.find("skip"), std::string::npos);
}

TEST_F(UciCli, LenientModePrintsParseErrorsWithoutPrefix)
{
    write_file(dir / "conf/half", "config a 'x'\nbogus\n\toption v 1\n");
    auto r = uci({"-S", "show", "half"});
    EXPECT_EQ(r.code, 0);
    EXPECT_EQ(r.err, "Parse error (invalid command) at line 2, byte 0\n");
    EXPECT_EQ(r.out, "half.x=a\nhalf.x.v='1'\n");
}

TEST_F(UciCli, RevertAlwaysSucceedsOnceLoadable)
{
    uci({"set", "test.main.hostname=gw"});
    uci({"set", "test.main.zone=UTC"});
    EXPECT_EQ(uci({"revert", "test.main.nosuch"}).code, 0);
    EXPECT_EQ(uci({"revert", "test.main.hostname"}).code, 0);
    EXPECT_EQ(read_file(dir / "save/test"), "test.main.zone='UTC'\n");
    EXPECT_EQ(uci({"revert", "test"}).code, 0);
    EXPECT_EQ(read_file(dir / "save/test"), "");
    EXPECT_EQ(uci({"revert", "nosuch"}).code, 1);
}

TEST_F(UciCli, ChangesAndCommit)
{
    uci({"set", "test.main.hostname=gw"});
    uci({"add_list", "test.main.ntp=c"});
    auto c = uci({"changes", "test"});
    EXPECT_EQ(c.out, "test.main.hostname='gw'\ntest.main.ntp+='c'\n");
    auto all = uci({"changes"});
    EXPECT_EQ(all.out, c.out);
    EXPECT_EQ(uci({"commit"}).code, 0);
    EXPECT_EQ(uci({"changes", "test"}).out, "");
    EXPECT_NE(conf().find("\toption hostname 'gw'\n"), std::string::npos);
}

TEST_F(UciCli, VolatileSaveDirectory)
{
    std::string state = dir / "state";
    std::string pkg = "lrvol" + std::to_string(::getpid());
    write_file(dir / ("conf/" + pkg), "config state 'global'\n\toption mac_num '0'\n");
    auto pu = [&](std::vector<std::string> args) {
        std::vector<std::string> all = {"-c", dir / "conf", "-P", state};
        all.insert(all.end(), args.begin(), args.end());
        return run_uci(all);
    };
    EXPECT_EQ(pu({"set", pkg + ".AABBCCDDEEFF=state"}).code, 0);
    EXPECT_EQ(pu({"set", pkg + ".AABBCCDDEEFF.mdns_name=tv"}).code, 0);
    EXPECT_EQ(read_file(state + "/" + pkg), pkg + ".AABBCCDDEEFF='state'\n" + pkg + ".AABBCCDDEEFF.mdns_name='tv'\n");
    EXPECT_EQ(pu({"get", pkg + ".AABBCCDDEEFF"}).out, "state\n");
    std::string before = read_file(dir / ("conf/" + pkg));
    auto commit = pu({"commit", pkg});
    EXPECT_EQ(commit.code, 0);
    EXPECT_EQ(read_file(dir / ("conf/" + pkg)), before);
    EXPECT_EQ(pu({"revert", pkg + ".AABBCCDDEEFF"}).code, 0);
    EXPECT_EQ(read_file(state + "/" + pkg), "");
    EXPECT_EQ(pu({"get", pkg + ".AABBCCDDEEFF"}).code, 1);
    // the normal save directory does not see the volatile changes
    EXPECT_EQ(uci({"get", pkg + ".global.mac_num"}).out, "0\n");
}

TEST_F(UciCli, ExtraDeltaPathIsRead)
{
    std::string extra = dir / "extra";
    std::filesystem::create_directory(extra);
    write_file(extra + "/test", "test.main.hostname='fromextra'\n");
    EXPECT_EQ(uci({"-p", extra, "get", "test.main.hostname"}).out, "fromextra\n");
}

TEST_F(UciCli, ExportAndImport)
{
    auto e = uci({"export", "test"});
    EXPECT_EQ(e.out.substr(0, 35), "package test\n\nconfig system 'main'\n");
    auto i = uci({"import", "fresh"}, "config a 'x'\n\toption v 1\n");
    EXPECT_EQ(i.code, 0) << i.err;
    EXPECT_EQ(read_file(dir / "conf/fresh"), "\nconfig a 'x'\n\toption v '1'\n\n");
    struct stat st {};
    ::stat((dir / "conf/fresh").c_str(), &st);
    EXPECT_EQ(st.st_mode & 0777, 0600u);
    auto m = uci({"import"}, "package one\nconfig a 'x'\npackage two\nconfig b 'y'\n");
    EXPECT_EQ(m.code, 0) << m.err;
    EXPECT_EQ(read_file(dir / "conf/two"), "\nconfig b 'y'\n\n");
}

TEST_F(UciCli, UsageAndExitCodes)
{
    auto none = uci({});
    EXPECT_EQ(none.code, 0);
    EXPECT_EQ(none.out, "");
    EXPECT_EQ(none.err.rfind("Usage: uci [<options>] <command> [<arguments>]\n", 0), 0u) << none.err;
    EXPECT_NE(none.err.find("\tbatch"), std::string::npos);
    auto unknown = uci({"frobnicate"});
    EXPECT_EQ(unknown.out, "");
    EXPECT_EQ(unknown.err.rfind("Usage: uci ", 0), 0u);
    EXPECT_EQ(uci({"frobnicate"}).code, 255);
    EXPECT_EQ(uci({"get"}).code, 255);
    EXPECT_EQ(uci({"get", "a.b", "c.d"}).code, 255);
    EXPECT_EQ(uci({"add", "test"}).code, 255);
    EXPECT_EQ(run_uci({"-Z"}).code, 255);
}

TEST_F(UciCli, CommandNamesIgnoreCaseAndHaveShortForms)
{
    EXPECT_EQ(uci({"GET", "test.main.hostname"}).out, "router\n");
    EXPECT_EQ(uci({"Set", "test.main.hostname=gw"}).code, 0);
    EXPECT_EQ(uci({"ren", "test.main.hostname=name"}).code, 0);
    EXPECT_EQ(uci({"get", "test.main.name"}).out, "gw\n");
    EXPECT_EQ(uci({"DEL", "test.main.name"}).code, 0);
    EXPECT_EQ(uci({"get", "test.main.name"}).code, 1);
}

TEST_F(UciCli, BatchRunsOneCommandPerLine)
{
    auto r = uci({"batch"},
                 "set test.main.hostname='gate way'\n"
                 "\n"
                 "get test.main.hostname\n"
                 "add test host\n"
                 "SET test.@host[-1].mac=\"aa:bb\"\n"
                 "get test.@host[-1].mac\n"
                 "commit test\n");
    EXPECT_EQ(r.code, 0) << r.err;
    EXPECT_EQ(r.err, "");
    EXPECT_EQ(r.out, "gate way\ncfg04fe63\naa:bb\n");
    EXPECT_NE(conf().find("\toption hostname 'gate way'\n"), std::string::npos);
    EXPECT_NE(conf().find("\toption mac 'aa:bb'\n"), std::string::npos);
}

TEST_F(UciCli, BatchGoesOnPastErrorsAndEndsAtExit)
{
    auto r = uci({"batch"},
                 "frobnicate a\n"
                 "get test.main.nosuch\n"
                 "set test.main.a=1 b c\n"
                 "get a b c d e\n"
                 "get\n"
                 "batch\n"
                 "get test.main.hostname\n"
                 "Exit\n"
                 "get test.main.hostname\n");
    EXPECT_EQ(r.code, 0);
    EXPECT_EQ(r.out, "router\n");
    EXPECT_EQ(r.err,
              "Unknown command\n"
              "uci: Entry not found\n"
              "Unknown command\n"
              "Too many arguments\n"
              "Unknown command\n"
              "Unknown command\n");
    EXPECT_FALSE(std::filesystem::exists(dir / "save/test"));
}

TEST_F(UciCli, BatchSeesChangesStoredByEarlierCommands)
{
    // Nothing stays loaded between commands: a change saved by one command
    // is read back by the next, and a commit writes all of them.
    auto r = uci({"batch"},
                 "set test.main.a=1\n"
                 "set test.main.b=2\n"
                 "changes test\n"
                 "commit\n"
                 "changes test\n");
    EXPECT_EQ(r.code, 0) << r.err;
    EXPECT_EQ(r.out, "test.main.a='1'\ntest.main.b='2'\n");
    EXPECT_NE(conf().find("\toption a '1'\n\toption b '2'\n"), std::string::npos);
}

TEST_F(UciCli, BatchReadsTheFileGivenWithF)
{
    write_file(dir / "cmds", "get test.main.hostname\nget test.@host[0].mac\n");
    auto r = uci({"-f", dir / "cmds", "batch"}, "get test.main\n");
    EXPECT_EQ(r.code, 0) << r.err;
    EXPECT_EQ(r.out, "router\n00:11:22:33:44:55\n");
    auto last = uci({"batch"}, "get test.main");  // no newline at the end
    EXPECT_EQ(last.out, "system\n");
}
