// Commits killed at random moments, and many writers at once: the file
// always parses and is the old or the new content, and no committed
// change is lost.
#include "uci_test_util.h"

#include <gtest/gtest.h>

#include <chrono>
#include <csignal>
#include <filesystem>
#include <random>
#include <sys/wait.h>
#include <thread>
#include <unistd.h>

using namespace uci_test;

namespace {

std::string big_package(int sections)
{
    std::string text;
    for (int i = 0; i < sections; i++) {
        text += "\nconfig list\n";
        text += "\toption mac '" + std::to_string(100000000000LL + i) + "'\n";
        text += "\toption hostname 'host-" + std::to_string(i) + "'\n";
        text += "\toption access_time '1700000000'\n";
    }
    return text + "\n";
}

// The child's work: the daemon's pattern, one commit per option.
int edit_generation(const temp_dir &dir, int generation)
{
    context ctx(dir);
    for (int k = 0; k < 4; k++) {
        std::string text = "big.@list[" + std::to_string(k * 61) + "].access_time=" + std::to_string(generation);
        if (set_and_commit(ctx, text) != UCI_OK)
            return 1;
    }
    return 0;
}

int temp_files(const temp_dir &dir)
{
    int n = 0;
    for (const auto &e : std::filesystem::directory_iterator(dir / "conf"))
        n += e.path().filename().string().rfind(".big.uci-", 0) == 0;
    return n;
}

}  // namespace

TEST(UciCrash, KilledCommitLeavesOldOrNewFile)
{
    temp_dir dir, shadow;
    const std::string initial = big_package(500);
    write_file(dir / "conf/big", initial);
    std::mt19937 rng(7);
    std::string current = initial;
    int kills_mid_way = 0;

    write_file(shadow / "conf/big", initial);
    auto start = std::chrono::steady_clock::now();
    ASSERT_EQ(edit_generation(shadow, 0), 0);  // warms up and measures one run
    auto run_us = std::chrono::duration_cast<std::chrono::microseconds>(std::chrono::steady_clock::now() - start);
    long span = std::max<long>(200, static_cast<long>(run_us.count()) * 3 / 2);

    const int generations = sanitized ? 15 : 100;
    for (int gen = 1; gen <= generations; gen++) {
        // what each step of this generation would write, from the current file
        std::vector<std::string> allowed = {current};
        write_file(shadow / "conf/big", current);
        std::filesystem::remove(shadow / "save/big");
        {
            context ctx(shadow);
            for (int k = 0; k < 4; k++) {
                std::string text = "big.@list[" + std::to_string(k * 61) + "].access_time=" + std::to_string(gen);
                ASSERT_EQ(set_and_commit(ctx, text), UCI_OK);
                allowed.push_back(read_file(shadow / "conf/big"));
            }
        }
        pid_t pid = ::fork();
        ASSERT_GE(pid, 0);
        if (pid == 0)
            ::_exit(edit_generation(dir, gen));
        ::usleep(static_cast<useconds_t>(std::uniform_int_distribution<long>(0, span)(rng)));
        ::kill(pid, SIGKILL);
        int status = 0;
        ::waitpid(pid, &status, 0);
        std::string now = read_file(dir / "conf/big");
        auto it = std::find(allowed.begin(), allowed.end(), now);
        ASSERT_NE(it, allowed.end()) << "generation " << gen << ": torn or half-merged file";
        ASSERT_NE(normalise(now, "big"), "<error>");
        if (it != allowed.begin() && it != allowed.end() - 1)
            kills_mid_way++;
        current = now;
        std::filesystem::remove(dir / "save/big");  // changes of the killed run
        EXPECT_LE(temp_files(dir), 1);  // the next commit removes what a kill left
    }
    EXPECT_GT(kills_mid_way, 0) << "no kill landed between two commits; the timing is off";
    ASSERT_EQ(edit_generation(dir, 0), 0);
    EXPECT_EQ(temp_files(dir), 0);
}

TEST(UciCrash, ConcurrentWritersLoseNothing)
{
    temp_dir dir;
    write_file(dir / "conf/shared", "\nconfig state 'main'\n\n");
    constexpr int writers = 4;
    constexpr int rounds = 100;
    std::vector<pid_t> pids;
    for (int w = 0; w < writers; w++) {
        pid_t pid = ::fork();
        ASSERT_GE(pid, 0);
        if (pid == 0) {
            int failures = 0;
            for (int i = 0; i < rounds; i++) {
                context ctx(dir);  // a fresh context per change, as the daemon does
                std::string text = "shared.main.w" + std::to_string(w) + "=" + std::to_string(i);
                failures += set_and_commit(ctx, text) != UCI_OK;
                lookup l(ctx, "shared.main.w" + std::to_string(w));
                failures += !(l.complete() && l.ptr.o->v.string == std::to_string(i));
            }
            ::_exit(failures ? 1 : 0);
        }
        pids.push_back(pid);
    }
    // a reader in the meantime always sees a whole file
    for (int i = 0; i < 50; i++)
        ASSERT_NE(normalise(read_file(dir / "conf/shared"), "shared"), "<error>");
    for (pid_t pid : pids) {
        int status = 0;
        ::waitpid(pid, &status, 0);
        EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0);
    }
    context ctx(dir);
    for (int w = 0; w < writers; w++) {
        lookup l(ctx, "shared.main.w" + std::to_string(w));
        ASSERT_TRUE(l.complete());
        EXPECT_STREQ(l.ptr.o->v.string, std::to_string(rounds - 1).c_str());
    }
    EXPECT_EQ(read_file(dir / "save/shared"), "");
}

TEST(UciCrash, ThreadsWithTheirOwnContextsShareOnePackage)
{
    temp_dir dir;
    write_file(dir / "conf/shared", "\nconfig state 'main'\n\n");
    std::vector<std::thread> threads;
    for (int w = 0; w < 3; w++) {
        threads.emplace_back([&dir, w] {
            for (int i = 0; i < 20; i++) {
                context ctx(dir);
                set_and_commit(ctx, "shared.main.t" + std::to_string(w) + "=" + std::to_string(i));
            }
        });
    }
    for (auto &t : threads)
        t.join();
    context ctx(dir);
    for (int w = 0; w < 3; w++) {
        lookup l(ctx, "shared.main.t" + std::to_string(w));
        ASSERT_TRUE(l.complete());
        EXPECT_STREQ(l.ptr.o->v.string, "19");
    }
}
