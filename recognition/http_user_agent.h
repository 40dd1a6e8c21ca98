// User agents that the kernel's client-type module saw go to the
// recognition service once per client: every sixth pass the proc file is
// read and clients not yet marked `http_upload` make one more batch.
#pragma once

#include <cstddef>
#include <string_view>

struct client_node;

// The kernel module's file: per client a MAC, a device class and the HTTP
// user agent it saw.
inline constexpr char CLIENT_TYPE_PROC_FILE[] = "/proc/client-type/devices";
// Lines are read up to this many bytes.
inline constexpr size_t CLIENT_TYPE_LINE_MAX = 512;

struct client_type_line {
    char mac[18];     // empty when the line has no MAC field of at most 17 characters
    int device_class; // -1 when absent
    char agent[512];  // empty when absent
};

// Splits one line "<mac> <class> <user agent>"; a missing class or agent
// leaves -1 or an empty text. false when there is no MAC field.
bool parse_client_type_line(std::string_view line, client_type_line &out) noexcept;

// Row of the end-of-pass table: 0, or -1 when a file or the state could
// not be had.
int check_http_user_agent(client_node *unused) noexcept;
// Copies the `http_upload` option of the history package into the state
// table: 0, or -1 when the package does not load.
int fing_state_load_http_upload() noexcept;
