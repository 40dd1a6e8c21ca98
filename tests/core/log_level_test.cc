#include <gtest/gtest.h>

#include <cstdlib>
#include <cstring>
#include <fstream>
#include <sstream>
#include <unistd.h>

#include "core/log.h"
#include "core/openwrt.h"

namespace {

// A byte copy of a bus message, as the event listener hands it to the task.
void *message_with(const char *key, uint32_t value)
{
    blob_buf b{};
    blob_buf_init(&b, 0);
    blobmsg_add_u32(&b, key, value);
    size_t len = blob_pad_len(b.head);
    void *copy = malloc(len);
    std::memcpy(copy, b.head, len);
    blob_buf_free(&b);
    return copy;
}

class SetLogLevel : public ::testing::Test {
protected:
    void SetUp() override
    {
        saved_ = log_level.load();
        saved_path_ = lr_console_path;
        char tmpl[] = "/tmp/lr-level-XXXXXX";
        int fd = mkstemp(tmpl);
        close(fd);
        path_ = tmpl;
        lr_console_path = path_.c_str();
    }
    void TearDown() override
    {
        log_level = saved_;
        lr_console_path = saved_path_;
        unlink(path_.c_str());
    }
    std::string console()
    {
        std::ifstream in(path_);
        std::stringstream ss;
        ss << in.rdbuf();
        return ss.str();
    }
    int32_t saved_ = 2;
    const char *saved_path_ = nullptr;
    std::string path_;
};

}  // namespace

TEST_F(SetLogLevel, NoMessageSetsTwo)
{
    log_level = 7;
    set_log_level(nullptr);
    EXPECT_EQ(log_level.load(), 2);
}

TEST_F(SetLogLevel, MessageValueBecomesTheLevel)
{
    set_log_level(message_with("log_level", 7));
    EXPECT_EQ(log_level.load(), 7);
    EXPECT_NE(console().find("|- [lr] set_log_level\n"), std::string::npos) << console();
    set_log_level(message_with("log_level", 1));
    EXPECT_EQ(log_level.load(), 1);
}

TEST_F(SetLogLevel, AnyValueIsTaken)
{
    set_log_level(message_with("log_level", 100));
    EXPECT_EQ(log_level.load(), 100);
    set_log_level(message_with("log_level", static_cast<uint32_t>(-5)));
    EXPECT_EQ(log_level.load(), -5);
}

TEST_F(SetLogLevel, MessageWithoutTheKeyChangesNothing)
{
    log_level = 6;
    set_log_level(message_with("other", 3));
    EXPECT_EQ(log_level.load(), 6);
}
