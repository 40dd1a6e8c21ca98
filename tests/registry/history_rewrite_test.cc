// The history store writes a client's section and the full rewrite in one
// commit each. Here each of them is checked against the same change made
// the long way, one commit per option, as the reference: the file comes out
// byte for byte the same, it is replaced exactly once, and a failure leaves
// the old file in place.
#include <cstring>
#include <functional>
#include <gtest/gtest.h>
#include <poll.h>
#include <string>
#include <sys/inotify.h>
#include <sys/stat.h>
#include <unistd.h>

#include "core/locks.h"
#include "core/uci_util.h"
#include "registry/history_list_mgmt.h"
#include "registry_test_util.h"

using namespace regtest;

namespace {

constexpr char PACKAGE_PATH[] = "/etc/config/history_list";
constexpr char CHANGE_PATH[] = "/tmp/.uci/history_list";
constexpr char TEMP_PREFIX[] = ".history_list.uci-";

// ---- the reference: one commit per option ----------------------------------

bool set_each(uci_context *ctx, const std::string &section, const std::string &option,
              const std::string &value)
{
    std::string text = "history_list." + section + "." + option + "=" + value;
    return uci_set_by_string(ctx, "history_list", text.c_str()) == 1;
}

// Empties the package, then writes each record of the live list as a new
// section, each option committed on its own.
void stepwise_rewrite()
{
    clean_config_file();
    for (const client_node *n = get_history_list(); n; n = n->next) {
        mutex_guard hold(uci_lock);
        uci_context_ptr ctx = new_uci_context("/etc/config");
        uci_package *pkg = nullptr;
        uci_section *s = nullptr;
        ASSERT_EQ(uci_load(ctx.get(), "history_list", &pkg), UCI_OK);
        ASSERT_EQ(uci_add_section(ctx.get(), pkg, "list", &s), UCI_OK);
        std::string name = s->e.name;
        char mac[UCI_MAC_TEXT_SIZE] = {};
        mac_to_hex_text(n->mac, mac);
        ASSERT_TRUE(set_each(ctx.get(), name, "mac", mac));
        ASSERT_TRUE(set_each(ctx.get(), name, "hostname", n->hostname));
        if (n->nickname[0]) {
            ASSERT_TRUE(set_each(ctx.get(), name, "nickname", n->nickname));
        }
        ASSERT_TRUE(set_each(ctx.get(), name, "type", device_type_name(n->device_type)));
        ASSERT_TRUE(set_each(ctx.get(), name, "access_host", std::to_string(n->access_host)));
    }
}

// A client's section, found or added, each option committed on its own.
void stepwise_update(const client_node &n)
{
    mutex_guard hold(uci_lock);
    uci_context_ptr ctx = new_uci_context("/etc/config");
    uci_package *pkg = nullptr;
    ASSERT_EQ(uci_load(ctx.get(), "history_list", &pkg), UCI_OK);
    char mac[UCI_MAC_TEXT_SIZE] = {};
    mac_to_hex_text(n.mac, mac);
    char section[UCI_SECTION_NAME_SIZE] = {};
    bool is_new = false;
    if (uci_dev_mac_in_cfg_file(ctx.get(), "history_list", mac, section) != 1) {
        uci_section *s = nullptr;
        ASSERT_EQ(uci_add_section(ctx.get(), pkg, "list", &s), UCI_OK);
        snprintf(section, sizeof(section), "%s", s->e.name);
        is_new = true;
    }
    ASSERT_TRUE(set_each(ctx.get(), section, "mac", mac));
    ASSERT_TRUE(set_each(ctx.get(), section, "hostname", n.hostname));
    ASSERT_TRUE(set_each(ctx.get(), section, "type", device_type_name(n.device_type)));
    if (n.nickname[0]) {
        ASSERT_TRUE(set_each(ctx.get(), section, "nickname", n.nickname));
    }
    ASSERT_TRUE(set_each(ctx.get(), section, "access_host", std::to_string(n.event_access_host)));
    if (is_new) {
        ASSERT_TRUE(set_each(ctx.get(), section, "first_access_time", std::to_string(n.first_access_time)));
    }
    ASSERT_TRUE(set_each(ctx.get(), section, "access_time", std::to_string(n.access_time)));
}

// ---- what happened to the file ---------------------------------------------

// Counts how often "/etc/config/history_list" is replaced while `fn` runs:
// every commit renames a temporary file of its own over it. (Events of the
// same name in a row may be merged, those of the temporary names never.)
int replacements(const std::function<void()> &fn)
{
    int fd = inotify_init1(IN_NONBLOCK | IN_CLOEXEC);
    EXPECT_GE(fd, 0);
    inotify_add_watch(fd, "/etc/config", IN_MOVED_FROM);
    fn();
    int count = 0;
    alignas(inotify_event) char buf[4096];
    while (true) {
        ssize_t n = read(fd, buf, sizeof(buf));
        if (n <= 0)
            break;
        for (ssize_t off = 0; off < n;) {
            auto *ev = reinterpret_cast<inotify_event *>(buf + off);
            if (ev->len && std::strncmp(ev->name, TEMP_PREFIX, sizeof(TEMP_PREFIX) - 1) == 0)
                count++;
            off += static_cast<ssize_t>(sizeof(inotify_event) + ev->len);
        }
    }
    close(fd);
    return count;
}

// The starting point of both ways: the package file and the change file.
struct store_files {
    std::string package;
    std::string changes;

    static store_files now()
    {
        return {read_file(PACKAGE_PATH), file_exists(CHANGE_PATH) ? read_file(CHANGE_PATH) : ""};
    }
    void restore() const
    {
        write_file(PACKAGE_PATH, package);
        mkdir("/tmp/.uci", 0700);
        write_file(CHANGE_PATH, changes, 0600);
    }
};

std::string section_text(int id, const std::string &options)
{
    return "\nconfig list\n\toption mac '" + hex_mac(id) + "'\n" + options;
}

// A package as the daemon leaves it over time: times, recognition results,
// a nickname, a section of another type, a comment.
std::string lived_in_package(int sections)
{
    std::string text = "# kept by lanroster\n";
    for (int id = 1000; id < 1000 + sections; id++)
        text += section_text(id, "\toption hostname 'old-" + std::to_string(id) +
                                     "'\n\toption type 'Printer'\n\toption access_host '1'\n"
                                     "\toption first_access_time '1700000000'\n"
                                     "\toption access_time '1700000100'\n\toption leave_time '1700000200'\n"
                                     "\toption brand 'Acme'\n\toption systemVersion '1.2'\n");
    text += "\nconfig other 'named'\n\toption x 'y'\n";
    return text;
}

// A live list of `count` records with the kinds of text a LAN brings.
void live_list(int count)
{
    fresh_pool();
    static const char *const names[] = {"tv", "", "it's mine", "a  b", "$(reboot)", "name=with=equals",
                                        "dots.in.name", "quote\"d", "back\\slash"};
    for (int i = 0; i < count; i++) {
        client_node *n = add_node(i + 1, i % 3 ? STATUS_DISCONNECT : STATUS_NEW_ACCESS, i % 4 ? 2 : 1);
        ASSERT_NE(n, nullptr);
        snprintf(n->hostname, sizeof(n->hostname), "%s", names[i % (sizeof(names) / sizeof(names[0]))]);
        if (i % 5 == 0)
            snprintf(n->nickname, sizeof(n->nickname), "nick %d", i);
        n->device_type = i % 7 == 0 ? DEVICE_TYPE_UNKNOWN : i % 80;
        n->access_host = static_cast<uint8_t>(i % 2);
    }
}

// Leaves a change waiting in the save directory, as a writer killed
// between its save and its commit does.
void leave_waiting_change(int id)
{
    uci_context_ptr ctx = new_uci_context("/etc/config");
    uci_package *pkg = nullptr;
    uci_section *s = nullptr;
    ASSERT_EQ(uci_load(ctx.get(), "history_list", &pkg), UCI_OK);
    ASSERT_EQ(uci_add_section(ctx.get(), pkg, "list", &s), UCI_OK);
    std::string base = std::string("history_list.") + s->e.name + ".";
    uci_ptr ptr{};
    std::string text = base + "mac=" + hex_mac(id);
    ASSERT_EQ(uci_lookup_ptr(ctx.get(), &ptr, text.data(), true), UCI_OK);
    ASSERT_EQ(uci_set(ctx.get(), &ptr), UCI_OK);
    ASSERT_EQ(uci_save(ctx.get(), pkg), UCI_OK);
}

// Runs the reference and the store's rewrite from the same files; both
// results must be equal byte for byte, the store's in one replacement.
void expect_same_rewrite(const std::string &what)
{
    store_files start = store_files::now();
    stepwise_rewrite();
    store_files reference = store_files::now();
    start.restore();
    int renames = replacements([] { EXPECT_EQ(save_history_list(), 1); });
    store_files atomic = store_files::now();
    EXPECT_EQ(atomic.package, reference.package) << what;
    EXPECT_EQ(atomic.changes, reference.changes) << what;
    EXPECT_EQ(renames, 1) << what << ": one commit";
}

}  // namespace

TEST(HistoryRewrite, OneCommitGivesTheBytesOfTheStepwiseRewrite)
{
    ASSERT_TRUE(run_in_sandbox([] {
        write_file(PACKAGE_PATH, lived_in_package(40));
        live_list(25);
        expect_same_rewrite("a lived-in package, 25 records");
        EXPECT_NE(read_file(PACKAGE_PATH).find("option hostname '$(reboot)'"), std::string::npos);
        EXPECT_EQ(history_macs().size(), 25u);
    }));
}

TEST(HistoryRewrite, AFullPoolAndAnEmptyListGiveTheSameBytesToo)
{
    ASSERT_TRUE(run_in_sandbox([] {
        // The reference commits 388 x 5 times over a file of 388 sections:
        // seconds, or minutes under the sanitizers.
        alarm(280);
        write_file(PACKAGE_PATH, lived_in_package(MEMORY_QUEUE_SIZE));
        live_list(MEMORY_QUEUE_SIZE);
        expect_same_rewrite("388 records over 388 sections");
        EXPECT_EQ(history_macs().size(), static_cast<size_t>(MEMORY_QUEUE_SIZE));
        live_list(0);
        expect_same_rewrite("an empty list");
        EXPECT_EQ(read_file(PACKAGE_PATH), "\n");
        write_file(PACKAGE_PATH, "");
        live_list(3);
        expect_same_rewrite("an empty package");
    }));
}

TEST(HistoryRewrite, ChangesWaitingInTheSaveDirectoryAreFoldedInFirst)
{
    ASSERT_TRUE(run_in_sandbox([] {
        write_file(PACKAGE_PATH, lived_in_package(5));
        leave_waiting_change(2000);
        ASSERT_NE(read_file(CHANGE_PATH), "");
        live_list(4);
        store_files start = store_files::now();
        stepwise_rewrite();
        store_files reference = store_files::now();
        start.restore();
        int renames = replacements([] { EXPECT_EQ(save_history_list(), 1); });
        EXPECT_EQ(read_file(PACKAGE_PATH), reference.package);
        EXPECT_EQ(read_file(CHANGE_PATH), "") << "nothing is left to replay onto the new sections";
        EXPECT_EQ(renames, 2) << "the waiting change, then the rewrite";
        EXPECT_EQ(history_macs().size(), 4u);
    }));
}

TEST(HistoryRewrite, AFailedRewriteLeavesTheOldFile)
{
    ASSERT_TRUE(run_in_sandbox([] {
        const std::string old = lived_in_package(10);
        write_file(PACKAGE_PATH, old);
        live_list(6);
        // A control character is refused by the lookup of the third record.
        client_node *third = get_history_list()->next->next;
        std::strcpy(third->hostname, "bad\x01name");
        int renames = 0;
        std::string out = capture_stdout([&] {
            renames = replacements([] { EXPECT_EQ(save_history_list(), 0); });
        });
        EXPECT_EQ(read_file(PACKAGE_PATH), old);
        EXPECT_EQ(renames, 0);
        EXPECT_NE(out.find("| error | uci_set_by_string | uci_lookup_ptr != UCI_OK\n"), std::string::npos)
            << out;
        EXPECT_NE(out.find("| error | save_history_list | save config error.\n"), std::string::npos) << out;
        // No package at all: a failure unless there is nothing to write.
        unlink(PACKAGE_PATH);
        out = capture_stdout([] { EXPECT_EQ(save_history_list(), 0); });
        EXPECT_NE(out.find("save config error."), std::string::npos) << out;
        EXPECT_FALSE(file_exists(PACKAGE_PATH));
        live_list(0);
        EXPECT_EQ(save_history_list(), 1);
    }));
}

TEST(HistoryRewrite, AClientSectionIsOneCommitWithTheStepwiseBytes)
{
    ASSERT_TRUE(run_in_sandbox([] {
        write_file(PACKAGE_PATH, lived_in_package(30));
        client_node n{};
        test_mac(n.mac, 77);
        std::strcpy(n.hostname, "new one");
        n.device_type = 27;
        n.event_access_host = 1;
        n.first_access_time = 1800000000;
        n.access_time = 1800000001;
        for (int round = 0; round < 3; round++) {
            // a new section, then the same section again, then with a nickname
            if (round == 2)
                std::strcpy(n.nickname, "printer upstairs");
            n.access_time += 10;
            store_files start = store_files::now();
            stepwise_update(n);
            store_files reference = store_files::now();
            start.restore();
            int renames = replacements([&] { EXPECT_EQ(uci_update_cfg_file(&n), 1); });
            EXPECT_EQ(read_file(PACKAGE_PATH), reference.package) << "round " << round;
            EXPECT_EQ(read_file(CHANGE_PATH), reference.changes) << "round " << round;
            EXPECT_EQ(renames, 1) << "round " << round;
        }
        auto s = read_history()[hex_mac(77)];
        EXPECT_EQ(s["hostname"], "new one");
        EXPECT_EQ(s["nickname"], "printer upstairs");
        EXPECT_EQ(s["first_access_time"], "1800000000");
    }));
}

TEST(HistoryRewrite, AClientSectionThatFailsIsNotWrittenAtAll)
{
    ASSERT_TRUE(run_in_sandbox([] {
        write_file(PACKAGE_PATH, lived_in_package(3));
        const std::string old = read_file(PACKAGE_PATH);
        client_node n{};
        test_mac(n.mac, 78);
        std::strcpy(n.hostname, "ok");
        std::strcpy(n.nickname, "bad\x02nick");
        std::string out = capture_stdout([&] { EXPECT_EQ(uci_update_cfg_file(&n), 0); });
        EXPECT_EQ(read_file(PACKAGE_PATH), old) << "not a section with a mac and no rest";
        EXPECT_NE(out.find("| error | uci_set_by_string | uci_lookup_ptr != UCI_OK\n"), std::string::npos)
            << out;
        EXPECT_NE(out.find("| error | uci_update_cfg_file | update config error.\n"), std::string::npos)
            << out;
    }));
}
