// The reply buffer keeps a small allocation from one reply to the next and
// gives a large one back.
#include <gtest/gtest.h>

#include <string>

#include "bus/ubus_server.h"

namespace
{

// Composes a reply of about `bytes` bytes in reply_buf.
void compose(size_t bytes)
{
    blob_buf_init(&reply_buf, 0);
    std::string text(1000, 'x');
    for (size_t n = 0; n < bytes; n += text.size())
        reply_add_string("name", text.c_str());
}

TEST(ReplyBuf, SmallAllocationIsKept)
{
    compose(8 * 1024);
    int len = reply_buf.buflen;
    void *mem = reply_buf.buf;
    ASSERT_GT(len, 8 * 1024);
    ASSERT_LE(len, REPLY_BUF_KEEP);
    shrink_reply_buf();
    EXPECT_EQ(reply_buf.buflen, len);
    EXPECT_EQ(reply_buf.buf, mem);
}

TEST(ReplyBuf, LargeAllocationIsGivenBackAndTheBufferStaysUsable)
{
    compose(400 * 1024);
    ASSERT_GT(reply_buf.buflen, REPLY_BUF_KEEP);
    shrink_reply_buf();
    EXPECT_LE(reply_buf.buflen, 1024);
    ASSERT_NE(reply_buf.head, nullptr);
    EXPECT_EQ(blob_len(reply_buf.head), 0u);
    // The same buffer composes the next reply as before.
    compose(2 * 1024);
    EXPECT_GT(blob_len(reply_buf.head), 2u * 1024);
}

TEST(ReplyBuf, LimitIsExactlyKept)
{
    blob_buf_free(&reply_buf);
    blob_buf_init(&reply_buf, 0);
    while (reply_buf.buflen < REPLY_BUF_KEEP)
        reply_add_string("n", "y");
    ASSERT_EQ(reply_buf.buflen, REPLY_BUF_KEEP);
    shrink_reply_buf();
    EXPECT_EQ(reply_buf.buflen, REPLY_BUF_KEEP);
}

} // namespace
