// The daemon's connection to the bus. The objects, methods and the event
// listener are not in yet; this is the connection step only.
#pragma once

struct ubus_context;

// The server connection; null before lanroster_ubus_init and after
// lanroster_ubus_deinit.
extern ubus_context *ubus_ctx;

inline constexpr char UBUS_SOCKET_PATH[] = "/var/run/ubus.sock";

// Connects to the bus and adds the connection to the loop: 0, or -1 when the
// bus can't be used. Call after uloop_init.
int lanroster_ubus_init() noexcept;
// Frees the connection and clears ubus_ctx.
void lanroster_ubus_deinit() noexcept;

// The socket path lanroster_ubus_init connects to; UBUS_SOCKET_PATH in the
// daemon, a private one in tests.
extern const char *ubus_socket_path;
