// Helpers of the registry tests: a private file system for each test, a
// pool of records, scan entries and readers of the history package.
#pragma once

#include <cstdint>
#include <deque>
#include <functional>
#include <map>
#include <string>
#include <vector>

#include "registry/client_node.h"
#include "scan/client_table.h"

namespace regtest {

// Runs `body` in a child process with a mount namespace of its own, where
// "/etc", "/tmp" and "/var" are empty tmpfs mounts holding "/etc/config"
// (with an empty "history_list" package), "/etc/crontabs", "/etc/init.d"
// (a recording "cron" script) and "/var/state", and where a recording
// "lua" comes first on PATH. The daemon's fixed paths then point into
// throw-away directories. Returns true when the body's checks passed.
bool run_in_sandbox(const std::function<void()> &body);

// A fresh pool of 388 cleared records and an empty live list, built the
// way create_memory_queue builds it but without loading anything.
void fresh_pool();
int pool_count();
int list_count();
// The last MAC byte of each record of the live list, in order.
std::vector<int> list_order();
std::vector<int> list_statuses();

inline void test_mac(uint8_t mac[6], int id)
{
    mac[0] = 0x02;
    mac[1] = 0x00;
    mac[2] = 0x00;
    mac[3] = static_cast<uint8_t>(id >> 16);
    mac[4] = static_cast<uint8_t>(id >> 8);
    mac[5] = static_cast<uint8_t>(id);
}

// A record for client `id`, linked with `status` (1, 3 or 4), or only
// given the status for any other value.
client_node *add_node(int id, uint8_t status, uint8_t guest = 2);

// Scan entries that live as long as the object.
class entries {
public:
    client_table_entry *add(int id, const char *hostname = "host", uint8_t guest = 2,
                            uint8_t wire_type = 0, uint32_t ip = 0);
    client_table_entry *head() { return list_.empty() ? nullptr : &list_.front(); }
    void clear() { list_.clear(); }

private:
    std::deque<client_table_entry> list_;
};

// The options of every section of "/etc/config/history_list", by `mac`,
// and the sections in file order.
using section_map = std::map<std::string, std::string>;
std::map<std::string, section_map> read_history();
std::vector<std::string> history_macs();
std::string hex_mac(int id);

// Writes "/etc/config/history_list" (or any file) whole.
void write_file(const std::string &path, const std::string &text, unsigned mode = 0644);
std::string read_file(const std::string &path);
bool file_exists(const std::string &path);

// What `fn` printed on standard output.
std::string capture_stdout(const std::function<void()> &fn);

}  // namespace regtest
