// The history package survives kill -9 at any moment of the store's work.
// A child process lives the way the daemon does: it loads the package into
// a fresh pool, lets a few clients arrive through compare passes (each one
// a new section, the others' leave times) and rewrites the whole package
// from the live list again and again. The parent kills it with SIGKILL at
// a random moment, then reads the package with the `uci` tool: it must
// parse, every section must have its mac and its hostname, and every client
// the package held when the child started must still be there.
#include <chrono>
#include <csignal>
#include <gtest/gtest.h>
#include <map>
#include <random>
#include <set>
#include <string>
#include <sys/wait.h>
#include <unistd.h>

#include "registry/compare.h"
#include "registry/history_list_mgmt.h"
#include "registry_test_util.h"

using namespace regtest;

namespace {

constexpr char UCI_TOOL[] = LR_BINARY_DIR "/platform-bin/uci";
// Sanitizer builds run the loop shorter: the same checks, fewer lives.
#if defined(__SANITIZE_ADDRESS__)
constexpr int KILLS = 50;
#elif defined(__has_feature)
#if __has_feature(address_sanitizer)
constexpr int KILLS = 50;
#else
constexpr int KILLS = 1000;
#endif
#else
constexpr int KILLS = 1000;
#endif
constexpr int KNOWN_AT_START = 300;
constexpr int ARRIVALS_PER_LIFE = 3;
// Below the pool's 388 records with a life's arrivals on top, so no client
// is ever evicted and every loss would be the store's.
constexpr int RESET_ABOVE = 370;

std::string initial_package()
{
    std::string text;
    for (int id = 1; id <= KNOWN_AT_START; id++)
        text += "\nconfig list\n\toption mac '" + hex_mac(id) + "'\n\toption hostname 'known-" +
                std::to_string(id) + "'\n\toption type 'Laptop'\n\toption access_host '1'\n"
                "\toption access_time '1700000000'\n";
    return text;
}

void reset_package()
{
    write_file("/etc/config/history_list", initial_package());
    unlink("/tmp/.uci/history_list");
}

// One life of the store: start-up load, arrivals, rewrites. With
// `rewrites` < 0 it goes on until it is killed.
void store_life(int life, int rewrites)
{
    fresh_pool();
    load_history_list_config();
    for (int k = 0; rewrites < 0 || k < rewrites; k++) {
        if (k < ARRIVALS_PER_LIFE) {
            entries e;
            e.add(100000 + life * ARRIVALS_PER_LIFE + k, "arrival");
            compare_client_table(e.head());
        }
        save_history_list();
    }
}

using section_options = std::map<std::string, std::string>;

// Sections of "history_list" as the `uci` tool shows them, with the pending
// changes of the save directory replayed as every reader replays them.
// false when the tool fails, that is when the package does not parse.
bool show_package(std::map<std::string, section_options> &sections)
{
    int out[2];
    if (pipe(out) != 0)
        return false;
    pid_t pid = fork();
    if (pid == 0) {
        dup2(out[1], 1);
        close(out[0]);
        close(out[1]);
        execl(UCI_TOOL, "uci", "-c", "/etc/config", "show", "history_list", static_cast<char *>(nullptr));
        _exit(127);
    }
    close(out[1]);
    std::string text;
    char buf[65536];
    for (ssize_t n; (n = read(out[0], buf, sizeof(buf))) > 0;)
        text.append(buf, static_cast<size_t>(n));
    close(out[0]);
    int status = 0;
    waitpid(pid, &status, 0);
    if (!WIFEXITED(status) || WEXITSTATUS(status) != 0)
        return false;
    // history_list.<section>.<option>='<value>'
    sections.clear();
    size_t start = 0;
    while (start < text.size()) {
        size_t end = text.find('\n', start);
        std::string line = text.substr(start, end == std::string::npos ? std::string::npos : end - start);
        start = end == std::string::npos ? text.size() : end + 1;
        size_t dot1 = line.find('.');
        size_t eq = line.find('=');
        size_t dot2 = line.find('.', dot1 + 1);
        if (dot1 == std::string::npos || eq == std::string::npos)
            continue;
        if (dot2 == std::string::npos || dot2 > eq) {
            sections[line.substr(dot1 + 1, eq - dot1 - 1)];
            continue;
        }
        std::string value = line.substr(eq + 1);
        if (value.size() >= 2 && value.front() == '\'' && value.back() == '\'')
            value = value.substr(1, value.size() - 2);
        sections[line.substr(dot1 + 1, dot2 - dot1 - 1)][line.substr(dot2 + 1, eq - dot2 - 1)] = value;
    }
    return true;
}

std::string describe(const section_options &options)
{
    std::string out;
    for (const auto &[option, value] : options)
        out += option + "=" + value + " ";
    return out;
}

// The MACs of the package, after checking that every section is whole.
std::set<std::string> whole_clients(int life)
{
    std::map<std::string, section_options> sections;
    EXPECT_TRUE(show_package(sections)) << "life " << life << ": the package does not parse";
    std::set<std::string> macs;
    for (const auto &[name, options] : sections) {
        EXPECT_TRUE(options.count("mac") && options.count("hostname"))
            << "life " << life << ": section " << name << " is half-written: " << describe(options);
        if (options.count("mac"))
            macs.insert(options.at("mac"));
    }
    return macs;
}

}  // namespace

TEST(HistoryKill, ThousandKillsDuringRewritesAndArrivalsLoseNoClient)
{
    ASSERT_TRUE(run_in_sandbox([] {
        alarm(600);
        reset_package();
        // One life of three rewrites, timed: kills fall anywhere in a span
        // a little longer, start-up load included.
        auto t0 = std::chrono::steady_clock::now();
        pid_t warm = fork();
        if (warm == 0) {
            store_life(0, 3);
            _exit(0);
        }
        waitpid(warm, nullptr, 0);
        long span_us = std::chrono::duration_cast<std::chrono::microseconds>(std::chrono::steady_clock::now() - t0)
                           .count() * 5 / 4;
        reset_package();

        std::mt19937 rng(20261123);
        std::set<std::string> before = whole_clients(0);
        ASSERT_EQ(before.size(), static_cast<size_t>(KNOWN_AT_START));
        int changed = 0;
        std::string bytes_before = read_file("/etc/config/history_list");
        for (int life = 1; life <= KILLS; life++) {
            pid_t pid = fork();
            ASSERT_GE(pid, 0);
            if (pid == 0) {
                store_life(life, -1);
                _exit(0);
            }
            usleep(static_cast<useconds_t>(std::uniform_int_distribution<long>(0, span_us)(rng)));
            kill(pid, SIGKILL);
            waitpid(pid, nullptr, 0);
            std::set<std::string> after = whole_clients(life);
            for (const std::string &mac : before)
                ASSERT_TRUE(after.count(mac)) << "life " << life << ": client " << mac << " is gone";
            std::string bytes_after = read_file("/etc/config/history_list");
            changed += bytes_after != bytes_before;
            if (after.size() > static_cast<size_t>(RESET_ABOVE)) {
                reset_package();
                after = whole_clients(life);
                bytes_after = read_file("/etc/config/history_list");
            }
            before = after;
            bytes_before = bytes_after;
        }
        // Most kills must fall after the first write of a life, or the
        // timing missed the store's work.
        EXPECT_GT(changed, KILLS / 4) << "span " << span_us << " us";
        printf("%d kills, %d after a write, span %ld us\n", KILLS, changed, span_us);
    }));
}
