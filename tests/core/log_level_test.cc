#include <gtest/gtest.h>

#include <cstdlib>
#include <cstring>

#include "core/log.h"
#include "core/openwrt.h"
#include "tests/sandbox/sandbox.h"

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

// "/dev/console" is a fresh file of the test's sandbox.
class SetLogLevel : public ::testing::Test {
protected:
    void SetUp() override
    {
        saved_ = log_level.load();
        ASSERT_TRUE(console_.ok());
    }
    void TearDown() override { log_level = saved_; }
    std::string console() { return console_.text(); }
    int32_t saved_ = 2;
    sandbox::console console_;
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
