#include "core/log.h"

#include <gtest/gtest.h>

#include <cstdio>
#include <string>
#include <sys/mount.h>

#include "tests/sandbox/sandbox.h"

namespace {

log_stamp fixed_stamp()
{
    log_stamp s{};
    s.tm.tm_year = 2026 - 1900;
    s.tm.tm_mon = 10;
    s.tm.tm_mday = 21;
    s.tm.tm_hour = 9;
    s.tm.tm_min = 5;
    s.tm.tm_sec = 7;
    s.msec = 42;
    s.tid = 1234;
    return s;
}

console_line format(int level, const char *func, int line, const char *fmt, ...)
    __attribute__((format(printf, 4, 5)));

console_line format(int level, const char *func, int line, const char *fmt, ...)
{
    console_line out{};
    va_list ap;
    va_start(ap, fmt);
    format_console_line(out, fixed_stamp(), level, func, line, fmt, ap);
    va_end(ap);
    return out;
}

std::string text(const console_line &l)
{
    return std::string(l.text, l.len);
}

const std::string frame = "2026-11-21 09:05:07.042|level:7| f:12|1234|- ";

// "/dev/console" is a fresh file of the test's sandbox; stdout is captured
// by gtest.
class ConsoleLog : public ::testing::Test {
protected:
    void SetUp() override
    {
        ASSERT_TRUE(console_.ok());
        saved_level_ = log_level.load();
    }
    void TearDown() override { log_level = saved_level_; }
    std::string console() { return console_.text(); }

    sandbox::console console_;
    int32_t saved_level_ = 2;
};

int evaluations = 0;
int count_evaluation()
{
    return ++evaluations;
}

}  // namespace

TEST(ConsoleFormat, FrameAndEchoNewline)
{
    console_line l = format(7, "f", 12, "[lr] begin to start uloop\n");
    EXPECT_TRUE(l.to_console);
    // The message's own line break stays inside the quotes, and echo adds one.
    EXPECT_EQ(text(l), frame + "[lr] begin to start uloop\n\n");
}

TEST(ConsoleFormat, NoTrailingNewlineGetsOne)
{
    console_line l = format(7, "f", 12, "port_no %d", 3);
    EXPECT_EQ(text(l), frame + "port_no 3\n");
}

TEST(ConsoleFormat, ShellCharactersArePrintedLiterally)
{
    const char *name = "a\"b $(touch /tmp/lr-pwned) `id` $HOME";
    console_line l = format(7, "f", 12, "name %s", name);
    EXPECT_TRUE(l.to_console);
    EXPECT_EQ(text(l), frame + "name " + name + "\n");
}

TEST(ConsoleFormat, BackslashesFollowDoubleQuoteRules)
{
    // Inside double quotes the shell keeps "\n" as two bytes (echo does not
    // interpret it) but reduces "\\", "\$", "\`" and "\"" to the character.
    console_line l = format(7, "f", 12, "%s", "a\\nb \\\\ \\$ \\` \\\" c\\");
    EXPECT_EQ(text(l), frame + "a\\nb \\ $ ` \" c\\\n");
}

TEST(ConsoleFormat, BackslashNewlineIsJoined)
{
    console_line l = format(7, "f", 12, "%s", "ab\\\ncd");
    EXPECT_EQ(text(l), frame + "abcd\n");
}

TEST(ConsoleFormat, LongestLineThatStillReachesTheConsole)
{
    // echo " (6) + frame + message + tail (16) must fit in 511 bytes.
    size_t room = 511 - 6 - frame.size() - 16;
    std::string msg(room, 'x');
    console_line l = format(7, "f", 12, "%s", msg.c_str());
    EXPECT_TRUE(l.to_console);
    EXPECT_EQ(text(l), frame + msg + "\n");
}

TEST(ConsoleFormat, CutInsideTheRedirectionGoesToStdout)
{
    size_t room = 511 - 6 - frame.size() - 16;
    std::string msg(room + 1, 'x');
    console_line l = format(7, "f", 12, "%s", msg.c_str());
    EXPECT_FALSE(l.to_console);
    EXPECT_EQ(text(l), frame + msg + "\n");
}

TEST(ConsoleFormat, CutInsideTheMessageKeepsWhatFits)
{
    std::string msg(1000, 'y');
    console_line l = format(7, "f", 12, "%s", msg.c_str());
    EXPECT_FALSE(l.to_console);
    EXPECT_EQ(text(l), frame + std::string(511 - 6 - frame.size(), 'y') + "\n");
    EXPECT_EQ(l.len, 511u - 6u + 1u);
}

TEST_F(ConsoleLog, SuppressedCallEvaluatesNothing)
{
    log_level = 2;
    evaluations = 0;
    LR_LOG(7, "%d", count_evaluation());
    EXPECT_EQ(evaluations, 0);
    EXPECT_EQ(console(), "");
    log_level = 7;
    LR_LOG(7, "%d", count_evaluation());
    EXPECT_EQ(evaluations, 1);
}

TEST_F(ConsoleLog, DefaultLevelShowsErrorsOnly)
{
    log_level = LOG_LEVEL_DEFAULT;
    LR_LOG(6, "state\n");
    EXPECT_EQ(console(), "");
    LR_LOG(2, "[lr error] pthread_create\n");
    std::string c = console();
    EXPECT_NE(c.find("|level:2| TestBody:"), std::string::npos) << c;
    EXPECT_NE(c.find("|- [lr error] pthread_create\n\n"), std::string::npos) << c;
}

TEST_F(ConsoleLog, LevelOneSilencesErrorsButNotTheErrorForm)
{
    log_level = 1;
    LR_LOG(2, "[lr error] threadpool_init, worker_arr\n");
    EXPECT_EQ(console(), "");
    ::testing::internal::CaptureStdout();
    LR_ERROR_LOG("history_list_mgmt", "uci_commit failed %d", 5);
    std::fflush(stdout);
    std::string out = ::testing::internal::GetCapturedStdout();
    // "%4d-%02d-%02d %02d:%02d:%02d | file:line | error | func | message\n"
    ASSERT_GE(out.size(), 20u);
    EXPECT_EQ(out[4], '-');
    EXPECT_EQ(out.substr(19, 21), " | history_list_mgmt:");
    EXPECT_NE(out.find(" | error | TestBody | uci_commit failed 5\n"), std::string::npos) << out;
}

TEST_F(ConsoleLog, LongLineGoesToStdoutNotConsole)
{
    log_level = 7;
    std::string msg(600, 'z');
    ::testing::internal::CaptureStdout();
    LR_LOG(7, "%s", msg.c_str());
    std::string out = ::testing::internal::GetCapturedStdout();
    EXPECT_EQ(console(), "");
    ASSERT_FALSE(out.empty());
    EXPECT_EQ(out.back(), '\n');
    EXPECT_EQ(out.size(), 511u - 6u + 1u);
}

TEST_F(ConsoleLog, EachLineReplacesTheFileLikeARedirection)
{
    // "> /dev/console" truncates; on a real console this is a no-op, on a
    // plain file only the last line stays.
    log_level = 7;
    LR_LOG(7, "one");
    LR_LOG(7, "two");
    std::string c = console();
    EXPECT_EQ(c.find("one"), std::string::npos);
    EXPECT_NE(c.find("|- two\n"), std::string::npos);
}

TEST_F(ConsoleLog, MissingConsoleIsIgnored)
{
    log_level = 7;
    // An empty, read-only "/dev": no console, and none can be created.
    ASSERT_EQ(mount("none", "/dev", "tmpfs", MS_RDONLY, nullptr), 0);
    LR_LOG(7, "nobody hears this");
    umount2("/dev", MNT_DETACH);
    EXPECT_EQ(console(), "");
}
