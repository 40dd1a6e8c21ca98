// A command that a worker thread waits for keeps its exit status while the
// loop thread runs uloop: the daemon's own SIGCHLD handler keeps libubox
// from reaping the worker's children.
#include "core/children.h"

#include <gtest/gtest.h>

#include <atomic>
#include <csignal>
#include <thread>

#include "core/openwrt.h"
#include "registry/run_command.h"

namespace
{

std::atomic<bool> worker_done{false};

void poll_done(uloop_timeout *t) noexcept
{
    if (worker_done.load())
        uloop_end();
    else
        uloop_timeout_set(t, 1);
}

// Runs `runs` commands that exit 3 on a second thread while this thread runs
// the loop; counts the statuses that came back as 3.
int statuses_seen_while_looping(int runs)
{
    worker_done = false;
    uloop_init();
    int right = 0;
    std::thread worker([&] {
        const char *argv[] = {"sh", "-c", "exit 3", nullptr};
        for (int i = 0; i < runs; i++)
            right += run_command_wait(argv) == 3;
        worker_done = true;
    });
    uloop_timeout poll{};
    poll.cb = poll_done;
    uloop_timeout_set(&poll, 1);
    uloop_run();
    worker.join();
    uloop_done();
    return right;
}

} // namespace

TEST(ChildSignals, AWorkersCommandKeepsItsStatusWhileTheLoopRuns)
{
    ASSERT_EQ(child_signals_init(), 0);
    EXPECT_EQ(statuses_seen_while_looping(200), 200);
    struct sigaction now {
    };
    sigaction(SIGCHLD, nullptr, &now);
    EXPECT_NE(now.sa_handler, SIG_DFL) << "uloop_done gives the daemon's handler back";
    EXPECT_NE(now.sa_handler, SIG_IGN);
}
