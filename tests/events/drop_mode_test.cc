// Drop mode of the intake: allocations are refused from outside the daemon
// (the test's own calloc), and the datagrams then in the socket vanish,
// while the first one after the socket ran empty is posted again.
#include <gtest/gtest.h>

#include <cerrno>
#include <sys/socket.h>
#include <unistd.h>

#include "events/nl_intake.h"
#include "tests/core/fail_calloc.h"
#include "tests/events/event_test_util.h"

namespace
{

void send_bytes(int fd, size_t n, uint8_t fill)
{
    std::vector<uint8_t> b(n, fill);
    ASSERT_EQ(send(fd, b.data(), b.size(), 0), static_cast<ssize_t>(n));
}

void run_handler(int fd)
{
    uloop_fd ufd{};
    ufd.fd = fd;
    rtnl_event_handler(&ufd, 0);
}

bool socket_empty(int fd)
{
    uint8_t b;
    return recv(fd, &b, 1, MSG_DONTWAIT | MSG_PEEK) < 0 && errno == EAGAIN;
}

void drop_then_recover(size_t refused_size)
{
    threadpool *pool = evtest::idle_pool();
    int fd[2];
    ASSERT_EQ(socketpair(AF_UNIX, SOCK_DGRAM | SOCK_NONBLOCK, 0, fd), 0);
    for (int i = 0; i < 5; i++)
        send_bytes(fd[1], 32, static_cast<uint8_t>(i));
    fail_calloc_count = 0;
    fail_calloc_size = refused_size;
    run_handler(fd[0]);
    fail_calloc_size = 0;
    // One refusal, and then no more tries: the rest were only drained.
    EXPECT_EQ(fail_calloc_count.load(), 1);
    EXPECT_EQ(evtest::queued(pool), 0);
    EXPECT_TRUE(socket_empty(fd[0]));
    // The next call starts in normal mode.
    send_bytes(fd[1], 32, 0x77);
    run_handler(fd[0]);
    auto got = evtest::drain_pool(pool);
    ASSERT_EQ(got.size(), 1u);
    EXPECT_EQ(got[0][0], 0x77);
    close(fd[0]);
    close(fd[1]);
}

TEST(DropMode, RefusedMessageRecordDrainsTheSocket)
{
    drop_then_recover(sizeof(nl_event_msg));
}

TEST(DropMode, RefusedTaskRecordDrainsTheSocket)
{
    drop_then_recover(sizeof(threadpool_task));
}

} // namespace
