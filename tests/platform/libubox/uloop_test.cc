// uloop: timers, descriptors, signals and child processes on real fds.
// Nothing here sleeps to synchronise: data is written before the loop runs,
// or the loop is stepped with uloop_run_timeout(0). A guard timer ends a
// run that would otherwise hang, and fails the test.
#include <gtest/gtest.h>

#include <fcntl.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <csignal>
#include <functional>
#include <map>
#include <string>
#include <vector>

extern "C" {
#include <libubox/uloop.h>
}

namespace {

std::map<uloop_timeout *, std::function<void(uloop_timeout *)>> timer_fns;
std::map<uloop_fd *, std::function<void(uloop_fd *, unsigned int)>> fd_fns;

void timer_trampoline(uloop_timeout *t)
{
    timer_fns.at(t)(t);
}

void fd_trampoline(uloop_fd *u, unsigned int events)
{
    fd_fns.at(u)(u, events);
}

struct Timer {
    uloop_timeout t{};
    explicit Timer(std::function<void(uloop_timeout *)> fn)
    {
        t.cb = timer_trampoline;
        timer_fns[&t] = std::move(fn);
    }
    Timer(const Timer &) = delete;
    Timer &operator=(const Timer &) = delete;
    ~Timer()
    {
        uloop_timeout_cancel(&t);
        timer_fns.erase(&t);
    }
};

struct Fd {
    uloop_fd u{};
    Fd(int fd, std::function<void(uloop_fd *, unsigned int)> fn)
    {
        u.fd = fd;
        u.cb = fd_trampoline;
        fd_fns[&u] = std::move(fn);
    }
    Fd(const Fd &) = delete;
    Fd &operator=(const Fd &) = delete;
    ~Fd()
    {
        uloop_fd_delete(&u);
        fd_fns.erase(&u);
    }
};

// Two connected descriptors (a pipe or a socketpair) that close themselves.
struct Pair {
    int fd[2] = {-1, -1};
    explicit Pair(bool socket = false)
    {
        int ret = socket ? socketpair(AF_UNIX, SOCK_STREAM, 0, fd) : pipe(fd);
        EXPECT_EQ(ret, 0);
    }
    Pair(const Pair &) = delete;
    Pair &operator=(const Pair &) = delete;
    ~Pair()
    {
        close_end(0);
        close_end(1);
    }
    void close_end(int i)
    {
        if (fd[i] >= 0)
            close(fd[i]);
        fd[i] = -1;
    }
    void put(const char *s) const { ASSERT_EQ(write(fd[1], s, strlen(s)), static_cast<ssize_t>(strlen(s))); }
};

char read_one(int fd)
{
    char c = 0;
    return read(fd, &c, 1) == 1 ? c : 0;
}

class Uloop : public ::testing::Test {
protected:
    bool guard_fired = false;
    Timer guard{[this](uloop_timeout *) {
        guard_fired = true;
        uloop_end();
    }};

    void SetUp() override { ASSERT_EQ(uloop_init(), 0); }
    void TearDown() override
    {
        uloop_timeout_cancel(&guard.t);
        uloop_done();
    }
    // Runs the loop with a 5 s safety net.
    int run()
    {
        uloop_timeout_set(&guard.t, 5000);
        int ret = uloop_run();
        EXPECT_FALSE(guard_fired) << "loop did not end by itself";
        uloop_timeout_cancel(&guard.t);
        return ret;
    }
    static void step(int n = 1)
    {
        for (int i = 0; i < n; i++)
            uloop_run_timeout(0);
    }
};

TEST_F(Uloop, TimerFiresAndEndEndsRun)
{
    bool fired = false;
    Timer t([&](uloop_timeout *self) {
        fired = true;
        EXPECT_FALSE(self->pending);
        uloop_end();
    });
    EXPECT_EQ(uloop_timeout_set(&t.t, 0), 0);
    EXPECT_TRUE(t.t.pending);
    EXPECT_EQ(run(), 0);
    EXPECT_TRUE(fired);
    EXPECT_TRUE(uloop_cancelled);
}

TEST_F(Uloop, TimersRunInExpiryOrder)
{
    std::string order;
    Timer a([&](uloop_timeout *) { order += 'a'; });
    Timer b([&](uloop_timeout *) { order += 'b'; });
    Timer c([&](uloop_timeout *) {
        order += 'c';
        uloop_end();
    });
    uloop_timeout_set(&c.t, 30);
    uloop_timeout_set(&a.t, 10);
    uloop_timeout_set(&b.t, 20);
    run();
    EXPECT_EQ(order, "abc");
}

TEST_F(Uloop, SameTimeRunsInArmingOrder)
{
    std::string order;
    Timer first([&](uloop_timeout *) { order += '1'; });
    Timer second([&](uloop_timeout *) { order += '2'; });
    Timer third([&](uloop_timeout *) { order += '3'; });
    Timer last([&](uloop_timeout *) { uloop_end(); });
    uloop_timeout_set(&second.t, 5);
    first.t.time = second.t.time;
    third.t.time = second.t.time;
    last.t.time = second.t.time;
    // arming order: second, third, first, last
    EXPECT_EQ(uloop_timeout_add(&third.t), 0);
    EXPECT_EQ(uloop_timeout_add(&first.t), 0);
    EXPECT_EQ(uloop_timeout_add(&last.t), 0);
    run();
    EXPECT_EQ(order, "231");
}

TEST_F(Uloop, ZeroTimeoutsKeepArmingOrder)
{
    std::string order;
    std::vector<std::unique_ptr<Timer>> timers;
    for (char c = 'a'; c <= 'f'; c++)
        timers.push_back(std::make_unique<Timer>([&order, c](uloop_timeout *) { order += c; }));
    Timer end([&](uloop_timeout *) { uloop_end(); });
    for (auto &t : timers)
        uloop_timeout_set(&t->t, 0);
    uloop_timeout_set(&end.t, 0);
    run();
    EXPECT_EQ(order, "abcdef");
}

TEST_F(Uloop, CallbackRearmsItself)
{
    int count = 0;
    Timer t([&](uloop_timeout *self) {
        if (++count < 3)
            EXPECT_EQ(uloop_timeout_set(self, 0), 0);
        else
            uloop_end();
    });
    uloop_timeout_set(&t.t, 0);
    run();
    EXPECT_EQ(count, 3);
}

TEST_F(Uloop, CallbackCancelsAndSetsOthers)
{
    std::string order;
    Timer victim([&](uloop_timeout *) { order += 'v'; });
    Timer later([&](uloop_timeout *) {
        order += 'l';
        uloop_end();
    });
    Timer killer([&](uloop_timeout *) {
        order += 'k';
        EXPECT_EQ(uloop_timeout_cancel(&victim.t), 0);
        EXPECT_EQ(uloop_timeout_set(&later.t, 1), 0);
    });
    uloop_timeout_set(&killer.t, 0);
    victim.t.time = killer.t.time;
    uloop_timeout_add(&victim.t);
    run();
    EXPECT_EQ(order, "kl");
}

TEST_F(Uloop, ReturnCodesOfAddCancel)
{
    Timer t([](uloop_timeout *) {});
    EXPECT_EQ(uloop_timeout_cancel(&t.t), -1);
    EXPECT_EQ(uloop_timeout_set(&t.t, 100), 0);
    EXPECT_EQ(uloop_timeout_add(&t.t), -1);
    EXPECT_EQ(uloop_timeout_set(&t.t, 200), 0);  // re-arming a pending one is fine
    EXPECT_EQ(uloop_timeout_cancel(&t.t), 0);
    EXPECT_FALSE(t.t.pending);
    EXPECT_EQ(uloop_timeout_cancel(&t.t), -1);
}

TEST_F(Uloop, Remaining)
{
    Timer t([](uloop_timeout *) {});
    EXPECT_EQ(uloop_timeout_remaining64(&t.t), -1);
    uloop_timeout_set(&t.t, 10000);
    int64_t left = uloop_timeout_remaining64(&t.t);
    EXPECT_GT(left, 9000);
    EXPECT_LE(left, 10000);
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wdeprecated-declarations"
    int old = uloop_timeout_remaining(&t.t);
    uloop_timeout_cancel(&t.t);
    EXPECT_EQ(uloop_timeout_remaining(&t.t), -1);
#pragma GCC diagnostic pop
    EXPECT_GT(old, 9000);
    // Far future: the 64-bit variant does not clamp.
    uloop_timeout_set(&t.t, 0);
    t.t.time.tv_sec += 10000000;
    EXPECT_GT(uloop_timeout_remaining64(&t.t), static_cast<int64_t>(INT32_MAX));
}

TEST_F(Uloop, RemainingNegativeWhenOverdue)
{
    Timer t([](uloop_timeout *) {});
    uloop_timeout_set(&t.t, 0);
    t.t.time.tv_sec -= 2;
    EXPECT_LE(uloop_timeout_remaining64(&t.t), -1999);
}

TEST_F(Uloop, NextTimeout)
{
    EXPECT_EQ(uloop_get_next_timeout(), -1);
    Timer t([](uloop_timeout *) {});
    uloop_timeout_set(&t.t, 5000);
    EXPECT_GT(uloop_get_next_timeout(), 4000);
    uloop_timeout_set(&t.t, 0);
    t.t.time.tv_sec -= 1;
    EXPECT_EQ(uloop_get_next_timeout(), 0);
}

TEST_F(Uloop, NullCallbackTimeoutJustExpires)
{
    uloop_timeout bare{};
    Timer end([&](uloop_timeout *) { uloop_end(); });
    uloop_timeout_set(&bare, 0);
    uloop_timeout_set(&end.t, 1);
    run();
    EXPECT_FALSE(bare.pending);
}

TEST_F(Uloop, EndBeforeRunIsLost)
{
    bool fired = false;
    Timer t([&](uloop_timeout *) {
        fired = true;
        uloop_end();
    });
    uloop_timeout_set(&t.t, 0);
    uloop_end();
    run();
    EXPECT_TRUE(fired);
}

TEST_F(Uloop, RunTimeoutIsOneIteration)
{
    int count = 0;
    Timer t([&](uloop_timeout *) { count++; });
    uloop_timeout_set(&t.t, 0);
    EXPECT_EQ(uloop_run_timeout(0), 0);
    EXPECT_EQ(count, 1);
    // Nothing to do: returns after waiting at most the given time.
    EXPECT_EQ(uloop_run_timeout(1), 0);
}

TEST_F(Uloop, CancellingOnlyInsideRun)
{
    bool inside = false;
    Timer t([&](uloop_timeout *) {
        uloop_end();
        inside = uloop_cancelling();
    });
    uloop_timeout_set(&t.t, 0);
    run();
    EXPECT_TRUE(inside);
    EXPECT_FALSE(uloop_cancelling());
}

TEST_F(Uloop, SigtermEndsRunWithSignalNumber)
{
    Timer t([](uloop_timeout *) { raise(SIGTERM); });
    uloop_timeout_set(&t.t, 0);
    EXPECT_EQ(run(), SIGTERM);
    EXPECT_TRUE(uloop_cancelled);
}

TEST_F(Uloop, SigintEndsRunWithSignalNumber)
{
    Timer t([](uloop_timeout *) { raise(SIGINT); });
    uloop_timeout_set(&t.t, 0);
    EXPECT_EQ(run(), SIGINT);
}

TEST_F(Uloop, SignalWakesSleepingLoop)
{
    // A child sends SIGTERM once the loop runs (uloop_run forgets earlier
    // ones); the loop then sleeps in epoll with no timer due.
    Pair go;
    pid_t parent = getpid();
    pid_t pid = fork();
    ASSERT_GE(pid, 0);
    if (pid == 0) {
        char c;
        close(go.fd[1]);
        if (read(go.fd[0], &c, 1) == 1)
            kill(parent, SIGTERM);
        _exit(0);
    }
    go.close_end(0);
    Timer started([&](uloop_timeout *) { go.put("g"); });
    uloop_timeout_set(&started.t, 0);
    EXPECT_EQ(run(), SIGTERM);
    waitpid(pid, nullptr, 0);
}

volatile sig_atomic_t own_handler_hits;
void own_handler(int)
{
    own_handler_hits = own_handler_hits + 1;
}

TEST_F(Uloop, ProgramHandlerIsLeftAlone)
{
    own_handler_hits = 0;
    uloop_done();
    struct sigaction sa{};
    sa.sa_handler = own_handler;
    sigaction(SIGTERM, &sa, nullptr);
    ASSERT_EQ(uloop_init(), 0);

    int after = 0;
    Timer raiser([](uloop_timeout *) { raise(SIGTERM); });
    Timer end([&](uloop_timeout *) {
        after++;
        uloop_end();
    });
    uloop_timeout_set(&raiser.t, 0);
    uloop_timeout_set(&end.t, 2);
    EXPECT_EQ(run(), 0);
    EXPECT_EQ(own_handler_hits, 1);
    EXPECT_EQ(after, 1);
    uloop_done();
    struct sigaction now{};
    sigaction(SIGTERM, nullptr, &now);
    EXPECT_EQ(now.sa_handler, own_handler);
    signal(SIGTERM, SIG_DFL);
    uloop_init();
}

TEST_F(Uloop, SignalDispositionsSetAndRestored)
{
    struct sigaction sa{};
    sigaction(SIGPIPE, nullptr, &sa);
    EXPECT_EQ(sa.sa_handler, SIG_IGN);
    sigaction(SIGTERM, nullptr, &sa);
    EXPECT_NE(sa.sa_handler, SIG_DFL);
    sigaction(SIGCHLD, nullptr, &sa);
    EXPECT_NE(sa.sa_handler, SIG_DFL);
    uloop_done();
    sigaction(SIGCHLD, nullptr, &sa);
    EXPECT_EQ(sa.sa_handler, SIG_DFL);
    sigaction(SIGPIPE, nullptr, &sa);
    EXPECT_EQ(sa.sa_handler, SIG_DFL);
    sigaction(SIGTERM, nullptr, &sa);
    EXPECT_EQ(sa.sa_handler, SIG_DFL);
    sigaction(SIGINT, nullptr, &sa);
    EXPECT_EQ(sa.sa_handler, SIG_DFL);
}

TEST_F(Uloop, ProgramSigchldHandlerIsKept)
{
    uloop_done();
    struct sigaction sa{};
    sa.sa_handler = own_handler;
    sigaction(SIGCHLD, &sa, nullptr);
    ASSERT_EQ(uloop_init(), 0);
    struct sigaction now{};
    sigaction(SIGCHLD, nullptr, &now);
    EXPECT_EQ(now.sa_handler, own_handler);
    uloop_done();
    signal(SIGCHLD, SIG_DFL);
    uloop_init();
}

TEST_F(Uloop, InitIsIdempotent)
{
    EXPECT_EQ(uloop_init(), 0);
    EXPECT_EQ(uloop_init(), 0);
}

TEST_F(Uloop, DoneDropsTimeouts)
{
    Timer t([](uloop_timeout *) {});
    uloop_timeout_set(&t.t, 1000);
    uloop_done();
    EXPECT_FALSE(t.t.pending);
    EXPECT_EQ(uloop_get_next_timeout(), -1);
}

TEST_F(Uloop, FdReadCallback)
{
    Pair p;
    unsigned int seen = 0;
    Fd f(p.fd[0], [&](uloop_fd *u, unsigned int events) {
        seen = events;
        EXPECT_EQ(read_one(u->fd), 'x');
        uloop_end();
    });
    ASSERT_EQ(uloop_fd_add(&f.u, ULOOP_READ), 0);
    EXPECT_TRUE(f.u.registered);
    EXPECT_EQ(f.u.flags, ULOOP_READ);
    p.put("x");
    run();
    EXPECT_EQ(seen, static_cast<unsigned>(ULOOP_READ));
}

TEST_F(Uloop, AddSetsNonblockUnlessBlocking)
{
    Pair p;
    Fd a(p.fd[0], [](uloop_fd *, unsigned int) {});
    Fd b(p.fd[1], [](uloop_fd *, unsigned int) {});
    ASSERT_EQ(uloop_fd_add(&a.u, ULOOP_READ), 0);
    EXPECT_TRUE(fcntl(p.fd[0], F_GETFL) & O_NONBLOCK);
    ASSERT_EQ(uloop_fd_add(&b.u, ULOOP_WRITE | ULOOP_BLOCKING), 0);
    EXPECT_FALSE(fcntl(p.fd[1], F_GETFL) & O_NONBLOCK);
}

TEST_F(Uloop, LevelTriggeredRepeatsWhileDataRemains)
{
    Pair p;
    int calls = 0;
    Fd f(p.fd[0], [&](uloop_fd *u, unsigned int) {
        calls++;
        read_one(u->fd);
    });
    uloop_fd_add(&f.u, ULOOP_READ);
    p.put("abc");
    step(6);
    EXPECT_EQ(calls, 3);
}

TEST_F(Uloop, EdgeTriggeredFiresOncePerArrival)
{
    Pair p;
    int calls = 0;
    Fd f(p.fd[0], [&](uloop_fd *u, unsigned int) {
        calls++;
        read_one(u->fd);
    });
    uloop_fd_add(&f.u, ULOOP_READ | ULOOP_EDGE_TRIGGER);
    p.put("abc");
    step(6);
    EXPECT_EQ(calls, 1);
    p.put("d");
    step(3);
    EXPECT_EQ(calls, 2);
}

TEST_F(Uloop, EdgeEventDuringNestedRunIsBufferedNotNested)
{
    Pair p;
    int calls = 0, depth = 0, max_depth = 0;
    std::vector<unsigned int> events;
    Fd f(p.fd[0], [&](uloop_fd *u, unsigned int ev) {
        calls++;
        events.push_back(ev);
        max_depth = std::max(max_depth, ++depth);
        read_one(u->fd);
        if (calls == 1) {
            p.put("b");  // a new edge while this callback still runs
            bool was = uloop_cancelled;
            uloop_run_timeout(0);
            uloop_run_timeout(0);
            uloop_cancelled = was;
        }
        depth--;
    });
    uloop_fd_add(&f.u, ULOOP_READ | ULOOP_EDGE_TRIGGER);
    p.put("a");
    step(1);
    EXPECT_EQ(calls, 2);
    EXPECT_EQ(max_depth, 1);
    ASSERT_EQ(events.size(), 2u);
    EXPECT_EQ(events[1], static_cast<unsigned>(ULOOP_READ));
}

TEST_F(Uloop, ReAddModifiesRegistration)
{
    Pair p(true);
    std::vector<unsigned int> events;
    Fd f(p.fd[0], [&](uloop_fd *, unsigned int ev) { events.push_back(ev); });
    ASSERT_EQ(uloop_fd_add(&f.u, ULOOP_READ), 0);
    step(2);
    EXPECT_TRUE(events.empty());
    ASSERT_EQ(uloop_fd_add(&f.u, ULOOP_WRITE), 0);
    EXPECT_EQ(f.u.flags, ULOOP_WRITE);
    step(1);
    ASSERT_EQ(events.size(), 1u);
    EXPECT_EQ(events[0], static_cast<unsigned>(ULOOP_WRITE));
}

TEST_F(Uloop, NoEventFlagsMeansDelete)
{
    Pair p;
    Fd f(p.fd[0], [](uloop_fd *, unsigned int) {});
    ASSERT_EQ(uloop_fd_add(&f.u, ULOOP_READ), 0);
    EXPECT_EQ(uloop_fd_add(&f.u, ULOOP_BLOCKING), 0);
    EXPECT_FALSE(f.u.registered);
    EXPECT_EQ(f.u.flags, 0);
    ASSERT_EQ(uloop_fd_add(&f.u, ULOOP_READ), 0);
    EXPECT_EQ(uloop_fd_add(&f.u, 0), 0);
    EXPECT_FALSE(f.u.registered);
}

TEST_F(Uloop, BadFdFailsAndLeavesFields)
{
    uloop_fd u{};
    u.fd = 999;
    u.cb = fd_trampoline;
    errno = 0;
    EXPECT_EQ(uloop_fd_add(&u, ULOOP_READ), -1);
    EXPECT_EQ(errno, EBADF);
    EXPECT_FALSE(u.registered);
    EXPECT_EQ(u.flags, 0);
}

TEST_F(Uloop, DeleteUnregisteredIsZero)
{
    uloop_fd u{};
    u.fd = 0;
    EXPECT_EQ(uloop_fd_delete(&u), 0);
}

TEST_F(Uloop, HangupUnregistersBeforeCallbackRuns)
{
    Pair p(true);
    int calls = 0;
    Fd f(p.fd[0], [&](uloop_fd *u, unsigned int events) {
        calls++;
        EXPECT_EQ(events, static_cast<unsigned>(ULOOP_READ));
        EXPECT_TRUE(u->eof);
        EXPECT_TRUE(u->error);
        EXPECT_FALSE(u->registered);
        EXPECT_EQ(read_one(u->fd), 'x');
    });
    uloop_fd_add(&f.u, ULOOP_READ);
    p.put("x");
    p.close_end(1);
    step(4);
    EXPECT_EQ(calls, 1);
}

TEST_F(Uloop, PipeWriterClosedIsErrorWithoutEof)
{
    Pair p;
    int calls = 0;
    Fd f(p.fd[0], [&](uloop_fd *u, unsigned int) {
        calls++;
        EXPECT_FALSE(u->eof);
        EXPECT_TRUE(u->error);
        EXPECT_FALSE(u->registered);
    });
    uloop_fd_add(&f.u, ULOOP_READ);
    p.close_end(1);
    step(3);
    EXPECT_EQ(calls, 1);
}

TEST_F(Uloop, ErrorCbKeepsRegistrationAndCallsAgain)
{
    Pair p;
    std::vector<unsigned int> events;
    Fd f(p.fd[0], [&](uloop_fd *u, unsigned int ev) {
        events.push_back(ev);
        EXPECT_TRUE(u->error);
        EXPECT_TRUE(u->registered);
        if (ev & ULOOP_READ)
            read_one(u->fd);
        if (events.size() == 2)
            uloop_fd_delete(u);
    });
    uloop_fd_add(&f.u, ULOOP_READ | ULOOP_ERROR_CB);
    p.put("x");
    p.close_end(1);
    step(4);
    ASSERT_EQ(events.size(), 2u);
    EXPECT_EQ(events[0], static_cast<unsigned>(ULOOP_READ));
    EXPECT_EQ(events[1], 0u);
}

TEST_F(Uloop, OneDescriptorPerIterationTimersBetween)
{
    Pair p1, p2;
    std::string order;
    Timer t([&](uloop_timeout *) { order += 't'; });
    auto cb = [&](uloop_fd *u, unsigned int) {
        order += 'f';
        read_one(u->fd);
        if (!t.t.pending && order.size() == 1)
            uloop_timeout_set(&t.t, 0);
    };
    Fd f1(p1.fd[0], cb), f2(p2.fd[0], cb);
    uloop_fd_add(&f1.u, ULOOP_READ);
    uloop_fd_add(&f2.u, ULOOP_READ);
    p1.put("a");
    p2.put("b");
    step(1);
    EXPECT_EQ(order, "f");
    step(1);
    EXPECT_EQ(order, "ftf");
}

TEST_F(Uloop, DeletedPeerGetsNoCallback)
{
    Pair p1, p2;
    std::vector<uloop_fd *> ran;
    Fd *fds[2] = {};
    auto cb = [&](uloop_fd *u, unsigned int) {
        ran.push_back(u);
        read_one(u->fd);
        // delete the other one, whose event was fetched together with ours
        uloop_fd_delete(u == &fds[0]->u ? &fds[1]->u : &fds[0]->u);
    };
    Fd f1(p1.fd[0], cb), f2(p2.fd[0], cb);
    fds[0] = &f1;
    fds[1] = &f2;
    p1.put("a");
    p2.put("b");
    uloop_fd_add(&f1.u, ULOOP_READ);
    uloop_fd_add(&f2.u, ULOOP_READ);
    step(4);
    EXPECT_EQ(ran.size(), 1u);
}

std::vector<std::pair<uloop_fd *, unsigned int>> hook_calls;
void record_hook(uloop_fd *u, unsigned int flags)
{
    hook_calls.emplace_back(u, flags);
}

TEST_F(Uloop, FdSetCbHookSeesAddAndDelete)
{
    Pair p;
    Fd f(p.fd[0], [](uloop_fd *, unsigned int) {});
    hook_calls.clear();
    uloop_fd_set_cb = record_hook;
    uloop_fd_add(&f.u, ULOOP_READ);
    uloop_fd_delete(&f.u);
    uloop_fd_set_cb = nullptr;
    ASSERT_EQ(hook_calls.size(), 2u);
    EXPECT_EQ(hook_calls[0], std::make_pair(&f.u, static_cast<unsigned>(ULOOP_READ)));
    EXPECT_EQ(hook_calls[1], std::make_pair(&f.u, 0u));
}

int process_status = -1;
void process_done(uloop_process *, int ret)
{
    process_status = ret;
    uloop_end();
}

TEST_F(Uloop, ProcessIsReaped)
{
    pid_t pid = fork();
    ASSERT_GE(pid, 0);
    if (pid == 0)
        _exit(3);
    uloop_process p{};
    p.pid = pid;
    p.cb = process_done;
    EXPECT_EQ(uloop_process_add(&p), 0);
    EXPECT_EQ(uloop_process_add(&p), -1);
    run();
    EXPECT_FALSE(p.pending);
    ASSERT_TRUE(WIFEXITED(process_status));
    EXPECT_EQ(WEXITSTATUS(process_status), 3);
    EXPECT_EQ(uloop_process_delete(&p), -1);
}

TEST_F(Uloop, ProcessDelete)
{
    uloop_process p{};
    p.pid = 12345;
    EXPECT_EQ(uloop_process_add(&p), 0);
    EXPECT_EQ(uloop_process_delete(&p), 0);
    EXPECT_FALSE(p.pending);
}

TEST_F(Uloop, FdCallbackArmsTimerAndEnds)
{
    Pair p(true);
    std::string order;
    Timer t([&](uloop_timeout *) {
        order += 't';
        uloop_end();
    });
    Fd f(p.fd[0], [&](uloop_fd *u, unsigned int) {
        order += 'f';
        read_one(u->fd);
        uloop_timeout_set(&t.t, 1);
    });
    uloop_fd_add(&f.u, ULOOP_READ);
    p.put("z");
    run();
    EXPECT_EQ(order, "ft");
}

}  // namespace
