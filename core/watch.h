// Watches on the configuration directory and the one DHCP file of the
// present mode: a changed package or lease file posts one refresh task per
// file and read, so a change takes effect without a reload command.
#pragma once

#include <cstddef>
#include <cstdint>
#include <span>

struct uloop_fd;

inline constexpr const char *UCI_WATCH_DIR = "/etc/config";
inline constexpr const char *DHCP_LEASES_FILE = "/tmp/dhcp.leases";
inline constexpr const char *DHCP_HOOK_FILE = "/tmp/dhcp_hook.file";
// One read of the inotify descriptor per call of the handler; what does not
// fit waits for the next call.
inline constexpr size_t INOTIFY_READ_MAX = 32768;

// One row of the refresh table: a package of the UCI directory and the
// pool task that takes its change over.
struct watch_row {
    const char *file;
    void (*fn)(void *arg);
};
inline constexpr int WATCH_ROWS = 9;
extern const watch_row watch_table[WATCH_ROWS];

// Watch state, kept for the life of the process.
extern int inot_fd;
extern int uci_wd;
extern int dhcp_wd;

// Sets the watches and registers the handler: 0, or -1 when inotify or the
// directory watch can't be had. A failed DHCP watch only logs.
int db_inotify_init() noexcept;
// Removes the directory watch and closes the descriptor.
void db_inotify_deinit() noexcept;

// The uloop callback: one read, then the records of that read.
void inot_ufd_handler(uloop_fd *ufd, unsigned int events) noexcept;
// The walk over the records of one read; the handler's second half.
void inot_handle_events(std::span<const uint8_t> buf) noexcept;

// Takes new lease facts over into the online records (pool task).
void update_dhcp(void *arg) noexcept;
