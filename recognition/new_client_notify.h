// New clients for the smart-home service, the new-client notifier and the
// recognition batches: each status-1 event appends the MAC to a file, and
// once per pass a command is handed the file's path, so a burst of new
// clients costs one command each, not one per client.
#pragma once

#include <cstdint>

struct client_node;

inline constexpr char SMART_HOME_CLIENTS_FILE[] = "/tmp/smart_home_new_clients";
inline constexpr char NEW_ACCESS_CLIENTS_FILE[] = "/tmp/new_access_clients";
inline constexpr char FING_REPORT_MAC_FILE[] = "/tmp/fing_report_mac";
inline constexpr char SMART_HOME_REPORT_COMMAND[] = "smart_home_report";
inline constexpr char NEW_ACCESS_REPORT_COMMAND[] = "new_client_access_report";
// MACs per recognition batch file.
inline constexpr int32_t FING_REPORT_BATCH = 20;

// Whether anything was added in this pass.
extern int32_t smart_home_new_count;
extern int32_t new_access_count;
// The recognition batches: lines in the current file, all lines, and the
// character that ends the current file's name ('1' first).
extern int32_t report_file_count;
extern int32_t report_total_count;
extern char report_file_suffix;

// Where the smart_home package is read; "/etc/config" in the daemon.
extern const char *smart_home_confdir;

// 0 when the smart-home service is on (option info.enable begins with '1'),
// -1 otherwise.
int smart_home_enabled() noexcept;

// Rows of the status-1 list, given the event's snapshot. Always 0.
int smart_home_client_add(client_node *node) noexcept;
int new_access_client_add(client_node *node) noexcept;
int fing_report_client_add(client_node *node) noexcept;

// Rows of the end-of-pass table: run the command when the pass added any.
int smart_home_flush(client_node *unused) noexcept;
int new_access_flush(client_node *unused) noexcept;
