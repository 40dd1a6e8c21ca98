// Host names of silent clients, found by asking them: a NetBIOS node status
// query and reverse mDNS queries over IPv4 and IPv6. Each probe runs in a
// detached thread of its own, so a scan pass never waits on the network; it
// finds the answer in the cache on a later turn.
#pragma once

#include <cstddef>
#include <cstdint>
#include <ctime>
#include <pthread.h>
#include <span>

#include "recognition/name_packet.h"

// One way of asking a client for its name. A query returns a value above 0
// on a hit, with the name in `out`.
using name_query = int (*)(const char *address, std::span<char, NAME_TEXT_MAX> out, int timeout_ms,
                           const uint8_t mac[6]) noexcept;
struct probe_method {
    int32_t protocol; // 1 NetBIOS, 2 mDNS
    int32_t timeout_ms;
    name_query query_v4;
    name_query query_v6;
    probe_method *next;
};
inline constexpr int32_t PROBE_NETBIOS = 1;
inline constexpr int32_t PROBE_MDNS = 2;
inline constexpr int32_t PROBE_TIMEOUT_MS = 500;

enum name_cache_state : int32_t { NAME_IDLE = 0, NAME_PROBING = 1, NAME_VALID = 2 };

struct name_cache_entry {
    char name[65];
    uint8_t mac[6];
    uint32_t ip; // network order, 0 none
    char ip6_text[40];
    int32_t name_len;
    time_t update_time;
    probe_method *method;
    int32_t state;
    int32_t fail_count;
    name_cache_entry *next;
};

// Limits: entries and threads at a time; a valid name is fresh for 599
// seconds after its probe; entries older than 1800 seconds go first when the
// cache is full; five failed searches give the fallback name.
inline constexpr int32_t NAME_CACHE_MAX = 256;
inline constexpr int32_t PROBE_THREADS_MAX = 256;
inline constexpr time_t NAME_FRESH_S = 599;
inline constexpr time_t NAME_STALE_S = 1800;
inline constexpr int32_t NAME_FAILS_MAX = 5;
inline constexpr char NAME_FALLBACK[] = "network device";

extern probe_method *probe_method_head;
extern name_cache_entry *name_cache_head;
extern int32_t name_cache_count;
extern pthread_mutex_t name_cache_lock;
extern int32_t probe_threads;

// Builds the method list: an empty head, then NetBIOS, then mDNS.
void name_probe_init() noexcept;

// The one call of the scan pass. Copies a cached name (cleaned) into `out`
// (65 bytes) and returns its length, else 0; starts a probe when none is
// running and the name is missing or old.
int32_t get_client_name(const uint8_t ip6_local[16], uint32_t ip, const uint8_t mac[6], char *out) noexcept;

// Thread body; frees its argument, a heap copy of the MAC.
void *name_probe_thread(void *mac_copy) noexcept;
// Asks one method, twice, with 500 then 1000 ms. The first non-zero result.
int name_probe_try_method(const char *ip6_text, const char *ip_text, std::span<char, NAME_TEXT_MAX> out,
                          const probe_method *method, const uint8_t mac[6]) noexcept;

int netbios_probe(const char *ip_text, std::span<char, NAME_TEXT_MAX> out, int timeout_ms,
                  const uint8_t mac[6]) noexcept;
int mdns_probe_v4(const char *ip_text, std::span<char, NAME_TEXT_MAX> out, int timeout_ms,
                  const uint8_t mac[6]) noexcept;
int mdns_probe_v6(const char *ip6_text, std::span<char, NAME_TEXT_MAX> out, int timeout_ms,
                  const uint8_t mac[6]) noexcept;

// Waits until `fd` is readable or `timeout_ms` passed; gives up early when
// the daemon is stopping. 1 only when the wait itself failed, 0 otherwise
// (the non-blocking receive that follows then fails by itself).
int socket_wait_readable(int fd, int timeout_ms) noexcept;

// Drops every cache entry (tests and teardown).
void name_cache_clear() noexcept;
// The most probe threads that ever ran at once.
extern int32_t probe_threads_peak;
