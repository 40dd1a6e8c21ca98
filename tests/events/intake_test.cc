// The rtnetlink intake: the kernel filter, the drain loop and its modes.
#include <gtest/gtest.h>

#include <cerrno>
#include <linux/neighbour.h>
#include <linux/netlink.h>
#include <linux/rtnetlink.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <string>

#include "core/log.h"
#include "core/openwrt.h"
#include "events/nl_intake.h"
#include "tests/events/event_test_util.h"
#include "tests/sandbox/sandbox.h"
#include "tests/scan/netns_util.h"

namespace
{

using scantest::in_private_lan;
using scantest::sh;

// A datagram socket pair standing in for the kernel's side: what is sent on
// [1] is what the handler reads on [0].
struct dgram_pair {
    int fd[2] = {-1, -1};
    dgram_pair()
    {
        EXPECT_EQ(socketpair(AF_UNIX, SOCK_DGRAM | SOCK_NONBLOCK, 0, fd), 0);
        int size = 4 << 20;
        setsockopt(fd[0], SOL_SOCKET, SO_RCVBUF, &size, sizeof(size));
        setsockopt(fd[1], SOL_SOCKET, SO_SNDBUF, &size, sizeof(size));
    }
    ~dgram_pair()
    {
        close(fd[0]);
        close(fd[1]);
    }
    void send_bytes(size_t n, uint8_t fill = 0x5a) const
    {
        std::vector<uint8_t> b(n, fill);
        ASSERT_EQ(send(fd[1], b.data(), b.size(), 0), static_cast<ssize_t>(n));
    }
    bool empty() const
    {
        uint8_t b;
        return recv(fd[0], &b, 1, MSG_DONTWAIT | MSG_PEEK) < 0 && errno == EAGAIN;
    }
};

void run_handler(int fd)
{
    uloop_fd ufd{};
    ufd.fd = fd;
    rtnl_event_handler(&ufd, 0);
}

// The families of the neighbour messages in every datagram waiting on `sock`.
std::vector<int> read_families(int sock)
{
    std::vector<int> out;
    uint8_t buf[16384];
    for (;;) {
        ssize_t n = recv(sock, buf, sizeof(buf), MSG_DONTWAIT);
        if (n <= 0)
            return out;
        for (auto *h = reinterpret_cast<nlmsghdr *>(buf); NLMSG_OK(h, static_cast<uint32_t>(n));
             h = NLMSG_NEXT(h, n)) {
            if (h->nlmsg_type == RTM_NEWNEIGH || h->nlmsg_type == RTM_DELNEIGH)
                out.push_back(static_cast<const ndmsg *>(NLMSG_DATA(h))->ndm_family);
        }
    }
}

TEST(Intake, FilterKeepsIpv6NeighbourEventsInTheKernel)
{
    EXPECT_TRUE(in_private_lan([] {
        uloop_init();
        nl_event_socket rec{.sock = -1, .ufd = {}};
        ASSERT_EQ(create_nl_event(NETLINK_ROUTE, NL_GROUP_NEIGH, rtnl_event_handler, &rec), 0);
        ASSERT_TRUE(sh("ip link add d0 type veth peer name d0p && ip link set d0p up && ip link set d0 up && "
                       "ip addr add 10.9.0.1/24 dev d0"));
        // Twenty IPv6 neighbours and then one IPv4 one: netlink keeps the
        // order, so once the IPv4 event is there any IPv6 one would be too.
        std::string cmd = "true";
        for (int i = 1; i <= 20; i++)
            cmd += " && ip -6 neigh replace fd00::" + std::to_string(i) +
                   " lladdr 02:00:00:00:01:" + std::to_string(10 + i) + " dev d0 nud permanent";
        ASSERT_TRUE(sh(cmd));
        ASSERT_TRUE(sh("ip neigh replace 10.9.0.2 lladdr 02:00:00:00:02:02 dev d0 nud permanent"));
        pollfd p{.fd = rec.sock, .events = POLLIN, .revents = 0};
        ASSERT_EQ(poll(&p, 1, 5000), 1);
        std::vector<int> families = read_families(rec.sock);
        ASSERT_FALSE(families.empty());
        for (int f : families)
            EXPECT_EQ(f, AF_INET);
        close_event_sockets();
        close(rec.sock);
    }));
}

TEST(Intake, WithoutTheFilterIpv6EventsWouldWakeTheDaemon)
{
    // The control: the same traffic on a socket without the filter.
    EXPECT_TRUE(in_private_lan([] {
        int sock = socket(AF_NETLINK, SOCK_DGRAM, NETLINK_ROUTE);
        sockaddr_nl local{};
        local.nl_family = AF_NETLINK;
        local.nl_groups = NL_GROUP_NEIGH;
        ASSERT_EQ(bind(sock, reinterpret_cast<sockaddr *>(&local), sizeof(local)), 0);
        ASSERT_TRUE(sh("ip link add d0 type veth peer name d0p && ip link set d0p up && ip link set d0 up"));
        ASSERT_TRUE(sh("ip -6 neigh replace fd00::1 lladdr 02:00:00:00:01:01 dev d0 nud permanent"));
        pollfd p{.fd = sock, .events = POLLIN, .revents = 0};
        ASSERT_EQ(poll(&p, 1, 5000), 1);
        std::vector<int> families = read_families(sock);
        ASSERT_EQ(families.size(), 1u);
        EXPECT_EQ(families[0], AF_INET6);
        close(sock);
    }));
}

TEST(Intake, DatagramOverTheBufferIsCutAndThePartIsPosted)
{
    threadpool *pool = evtest::idle_pool();
    dgram_pair pair;
    pair.send_bytes(20000);
    pair.send_bytes(100, 0x11);
    run_handler(pair.fd[0]);
    auto got = evtest::drain_pool(pool);
    ASSERT_EQ(got.size(), 2u);
    EXPECT_EQ(got[0].size(), static_cast<size_t>(NL_RECV_BUF_SIZE));
    EXPECT_EQ(got[0][NL_RECV_BUF_SIZE - 1], 0x5a);
    EXPECT_EQ(got[1].size(), 100u);
    EXPECT_EQ(got[1][0], 0x11);
    EXPECT_TRUE(pair.empty());
}

TEST(Intake, WholeBacklogIsReadInOneCall)
{
    threadpool *pool = evtest::idle_pool();
    dgram_pair pair;
    for (int i = 0; i < 10; i++)
        pair.send_bytes(40, static_cast<uint8_t>(i));
    run_handler(pair.fd[0]);
    auto got = evtest::drain_pool(pool);
    ASSERT_EQ(got.size(), 10u);
    for (int i = 0; i < 10; i++)
        EXPECT_EQ(got[i][0], i);
    EXPECT_TRUE(pair.empty());
}

TEST(Intake, FullQueueKeepsTheHandlerReadingInNormalMode)
{
    EXPECT_TRUE(sandbox::in_child([] { return sandbox::private_mounts(); },
                                  [] {
                                      sandbox::console console(sandbox::console::fifo);
                                      threadpool *pool = evtest::idle_pool();
                                      dgram_pair pair;
                                      for (int i = 0; i < TASK_QUEUE_MAX; i++)
                                          pair.send_bytes(20);
                                      run_handler(pair.fd[0]);
                                      ASSERT_EQ(evtest::queued(pool), TASK_QUEUE_MAX);
                                      // Ten more into the full queue: all read, none kept.
                                      for (int i = 0; i < 10; i++)
                                          pair.send_bytes(20);
                                      run_handler(pair.fd[0]);
                                      EXPECT_TRUE(pair.empty());
                                      EXPECT_EQ(evtest::queued(pool), TASK_QUEUE_MAX);
                                      EXPECT_EQ(console.text().find("drop mode"), std::string::npos);
                                      // Room again: the next datagram goes through.
                                      evtest::drain_pool(pool);
                                      pair.send_bytes(20);
                                      run_handler(pair.fd[0]);
                                      EXPECT_EQ(evtest::queued(pool), 1);
                                      evtest::drain_pool(pool);
                                  }));
}

TEST(Intake, EnobufsIsReadPastAndTheQueuedDataIsPosted)
{
    EXPECT_TRUE(in_private_lan([] {
        sandbox::console console(sandbox::console::fifo);
        uloop_init();
        threadpool *pool = evtest::idle_pool();
        nl_event_socket rec{.sock = -1, .ufd = {}};
        ASSERT_EQ(create_nl_event(NETLINK_ROUTE, NL_GROUP_NEIGH, rtnl_event_handler, &rec), 0);
        int small = 1;
        ASSERT_EQ(setsockopt(rec.sock, SOL_SOCKET, SO_RCVBUF, &small, sizeof(small)), 0);
        ASSERT_TRUE(sh("ip link add d0 type veth peer name d0p && ip link set d0p up && ip link set d0 up && "
                       "ip addr add 10.9.0.1/16 dev d0"));
        // Far more events than the smallest socket buffer holds.
        std::string batch = "/tmp/neigh.batch";
        FILE *f = fopen(batch.c_str(), "w");
        ASSERT_NE(f, nullptr);
        for (int i = 0; i < 300; i++)
            fprintf(f, "neigh replace 10.9.%d.%d lladdr 02:00:00:00:%02x:%02x dev d0 nud permanent\n",
                    1 + i / 200, 1 + i % 200, i / 256, i % 256);
        fclose(f);
        ASSERT_TRUE(sh("ip -batch " + batch));
        run_handler(rec.sock);
        int posted = evtest::queued(pool);
        EXPECT_GT(posted, 0);
        EXPECT_LT(posted, 300);
        std::string log = console.text();
        EXPECT_NE(log.find("rtnl ENOBUFS drop detected, draining data..."), std::string::npos) << log;
        EXPECT_EQ(log.find("drop mode"), std::string::npos);
        uint8_t b;
        EXPECT_LT(recv(rec.sock, &b, 1, MSG_DONTWAIT), 0);
        EXPECT_EQ(errno, EAGAIN);
        evtest::drain_pool(pool);
        close_event_sockets();
        close(rec.sock);
    }));
}

} // namespace
