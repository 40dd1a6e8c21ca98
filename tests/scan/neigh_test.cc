#include "scan/neigh.h"

#include <gtest/gtest.h>

#include <cstdlib>
#include <sys/socket.h>
#include <unistd.h>

#include "core/unique_fd.h"
#include "tests/scan/nl_build.h"

using nlb::bytes;

namespace {

std::span<const uint8_t> as_span(const bytes &b)
{
    return {b.data(), b.size()};
}

// A datagram socket pair standing in for the netlink socket: the test
// writes the kernel's side.
struct fake_netlink {
    unique_fd ours, theirs;
    fake_netlink()
    {
        int sv[2];
        EXPECT_EQ(socketpair(AF_UNIX, SOCK_DGRAM, 0, sv), 0);
        ours.reset(sv[0]);
        theirs.reset(sv[1]);
    }
    void send(const bytes &d) { ASSERT_EQ(write(theirs.get(), d.data(), d.size()), static_cast<ssize_t>(d.size())); }
};

struct dump_buf {
    uint8_t *p = static_cast<uint8_t *>(malloc(NEIGH_DUMP_START));
    int cap = NEIGH_DUMP_START;
    ~dump_buf() { free(p); }
};

}  // namespace

TEST(NeighWalker, YieldsFamilyStateAndAttributes)
{
    bytes d = nlb::cat({nlb::neigh_msg({.ip = "192.168.1.10", .mac = nlb::mac(1)}),
                        nlb::neigh_msg({.family = AF_INET6, .ip = "fe80::1", .mac = nlb::mac(2)}),
                        nlb::neigh_msg({.state = NUD_FAILED, .ip = "192.168.1.11"}), nlb::done_msg()});
    neigh_walker w(as_span(d));
    neigh_msg m;
    ASSERT_TRUE(w.next(m));
    EXPECT_EQ(m.family, AF_INET);
    EXPECT_EQ(m.state, NUD_REACHABLE);
    EXPECT_EQ(m.dst.size(), 4u);
    EXPECT_EQ(m.lladdr.size(), 6u);
    EXPECT_EQ(m.lladdr[5], 1);
    ASSERT_TRUE(w.next(m));
    EXPECT_EQ(m.family, AF_INET6);
    EXPECT_EQ(m.dst.size(), 16u);
    ASSERT_TRUE(w.next(m));
    EXPECT_EQ(m.state, NUD_FAILED);
    EXPECT_TRUE(m.lladdr.empty());
    EXPECT_FALSE(w.next(m));
    EXPECT_FALSE(w.next(m));
}

TEST(NeighWalker, StopsAtShortRestOrBadLength)
{
    bytes d = nlb::neigh_msg({.ip = "192.168.1.10", .mac = nlb::mac(1)});
    bytes shortened(d.begin(), d.end() - 8);
    neigh_msg m;
    neigh_walker w(as_span(shortened));
    EXPECT_FALSE(w.next(m));

    bytes tiny(10, 0);
    neigh_walker w2(as_span(tiny));
    EXPECT_FALSE(w2.next(m));

    bytes zero_len(16, 0);
    neigh_walker w3(as_span(zero_len));
    EXPECT_FALSE(w3.next(m));
}

TEST(NeighWalker, AttributeOverrunIsIgnored)
{
    bytes d = nlb::neigh_msg({.ip = "192.168.1.10", .mac = nlb::mac(1)});
    // Make the first attribute claim more than the message holds.
    d[28] = 0xff;
    neigh_walker w(as_span(d));
    neigh_msg m;
    ASSERT_TRUE(w.next(m));
    EXPECT_TRUE(m.dst.empty());
    EXPECT_TRUE(m.lladdr.empty());
}

TEST(NeighDatagram, Classification)
{
    EXPECT_EQ(check_neigh_datagram(as_span(nlb::neigh_msg({.ip = "10.0.0.1"}))), neigh_datagram::more);
    EXPECT_EQ(check_neigh_datagram(as_span(nlb::cat({nlb::neigh_msg({.ip = "10.0.0.1"}), nlb::done_msg()}))),
              neigh_datagram::done);
    EXPECT_EQ(check_neigh_datagram(as_span(nlb::error_msg())), neigh_datagram::error);
    bytes rem = nlb::neigh_msg({.ip = "10.0.0.1"});
    rem.push_back(1);
    rem.push_back(2);
    EXPECT_EQ(check_neigh_datagram(as_span(rem)), neigh_datagram::remnant);
}

TEST(NeighDump, SeveralDatagramsAreConcatenatedWithTheirHeaders)
{
    fake_netlink nl;
    // Three datagrams, together far more than the 16384 bytes the buffer
    // starts with.
    std::vector<bytes> dgrams(3);
    for (int d = 0; d < 3; d++) {
        for (int i = 0; i < 200; i++) {
            bytes m = nlb::neigh_msg({.ip = "10.0." + std::to_string(d) + "." + std::to_string(i), .mac = nlb::mac(uint8_t(i))});
            dgrams[d].insert(dgrams[d].end(), m.begin(), m.end());
        }
    }
    bytes done = nlb::done_msg();
    dgrams[2].insert(dgrams[2].end(), done.begin(), done.end());
    for (auto &d : dgrams)
        nl.send(d);

    dump_buf buf;
    int n = dump_neighbours_on(nl.ours.get(), &buf.p, &buf.cap);
    size_t total = dgrams[0].size() + dgrams[1].size() + dgrams[2].size();
    ASSERT_EQ(n, static_cast<int>(total));
    EXPECT_GT(total, 16384u);
    EXPECT_GE(buf.cap, n);
    EXPECT_EQ((buf.cap - NEIGH_DUMP_START) % NEIGH_GROW_STEP, 0);
    bytes expect = nlb::cat({dgrams[0], dgrams[1], dgrams[2]});
    EXPECT_EQ(std::memcmp(buf.p, expect.data(), total), 0);

    neigh_walker w(std::span<const uint8_t>(buf.p, static_cast<size_t>(n)));
    neigh_msg m;
    int count = 0;
    while (w.next(m))
        count++;
    EXPECT_EQ(count, 600);
}

TEST(NeighDump, ErrorMessageFails)
{
    fake_netlink nl;
    nl.send(nlb::error_msg());
    dump_buf buf;
    testing::internal::CaptureStderr();
    EXPECT_EQ(dump_neighbours_on(nl.ours.get(), &buf.p, &buf.cap), -1);
    EXPECT_EQ(testing::internal::GetCapturedStderr(), "ARP_sniffer: NLMSG_ERROR\n");
}

TEST(NeighDump, RemnantFails)
{
    fake_netlink nl;
    bytes d = nlb::neigh_msg({.ip = "10.0.0.1"});
    d.resize(d.size() + 8, 0);
    nl.send(d);
    dump_buf buf;
    testing::internal::CaptureStderr();
    EXPECT_EQ(dump_neighbours_on(nl.ours.get(), &buf.p, &buf.cap), -1);
    EXPECT_EQ(testing::internal::GetCapturedStderr(), "ARP_sniffer: Remnant of size.\n");
}

TEST(NeighDump, EofFails)
{
    fake_netlink nl;
    nl.send({});
    dump_buf buf;
    testing::internal::CaptureStderr();
    EXPECT_EQ(dump_neighbours_on(nl.ours.get(), &buf.p, &buf.cap), -1);
    EXPECT_EQ(testing::internal::GetCapturedStderr(), "ARP_sniffer: EOF on netlink\n");
}

TEST(NeighDump, ReceiveErrorFails)
{
    dump_buf buf;
    testing::internal::CaptureStderr();
    EXPECT_EQ(dump_neighbours_on(-1, &buf.p, &buf.cap), -1);
    EXPECT_EQ(testing::internal::GetCapturedStderr(), "ARP_sniffer: netlink receive error\n");
}

TEST(NeighDump, EmptyTableIsJustDone)
{
    fake_netlink nl;
    nl.send(nlb::done_msg());
    dump_buf buf;
    EXPECT_EQ(dump_neighbours_on(nl.ours.get(), &buf.p, &buf.cap), 20);
}

TEST(NeighDump, RealKernelDumpEndsWithDone)
{
    dump_buf buf;
    int n = dump_neighbours(&buf.p, &buf.cap);
    ASSERT_GE(n, 16);
    // The last message is the done message.
    bool done_seen = false;
    size_t off = 0;
    while (off + 16 <= static_cast<size_t>(n)) {
        nlmsghdr h;
        std::memcpy(&h, buf.p + off, sizeof(h));
        if (h.nlmsg_type == NLMSG_DONE)
            done_seen = true;
        off += (h.nlmsg_len + 3) & ~3u;
    }
    EXPECT_TRUE(done_seen);
}

TEST(NeighLookup, FindsFirstMatchingAddressWithMac)
{
    bytes d = nlb::cat({nlb::neigh_msg({.ip = "192.168.1.254"}),
                        nlb::neigh_msg({.ip = "192.168.1.25", .mac = nlb::mac(9)}),
                        nlb::neigh_msg({.ip = "192.168.1.254", .mac = nlb::mac(7)}),
                        nlb::neigh_msg({.ip = "192.168.1.254", .mac = nlb::mac(8)}), nlb::done_msg()});
    uint8_t mac[6] = {};
    ASSERT_EQ(find_neigh_mac(as_span(d), "192.168.1.254", mac), 1);
    EXPECT_EQ(mac[5], 7);
    EXPECT_EQ(find_neigh_mac(as_span(d), "192.168.1.2", mac), 0);
}
