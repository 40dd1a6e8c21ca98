#include "recognition/name_probe.h"

#include <arpa/inet.h>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <poll.h>

#include "core/locks.h"
#include "core/stop.h"
#include "recognition/fing_state.h"

probe_method *probe_method_head = nullptr;
name_cache_entry *name_cache_head = nullptr;
int32_t name_cache_count = 0;
pthread_mutex_t name_cache_lock = PTHREAD_MUTEX_INITIALIZER;
int32_t probe_threads = 0;
int32_t probe_threads_peak = 0;

namespace
{

// The method list lives for the process; init only links it.
probe_method method_head{};
probe_method method_netbios{PROBE_NETBIOS, PROBE_TIMEOUT_MS, netbios_probe, nullptr, nullptr};
probe_method method_mdns{PROBE_MDNS, PROBE_TIMEOUT_MS, mdns_probe_v4, mdns_probe_v6, nullptr};

constexpr int PROBE_ATTEMPTS = 2;
// A waiting probe looks at the stop flag this often.
constexpr int STOP_POLL_MS = 50;
// Probe threads need little stack: a name and one reply buffer.
constexpr size_t PROBE_STACK = size_t{128} * 1024;

name_cache_entry *find_entry_locked(const uint8_t mac[6])
{
    for (name_cache_entry *e = name_cache_head; e; e = e->next)
        if (std::memcmp(e->mac, mac, 6) == 0)
            return e;
    return nullptr;
}

void drop_entries_locked(bool (*drop)(const name_cache_entry &, time_t), time_t now)
{
    name_cache_entry **link = &name_cache_head;
    while (*link) {
        name_cache_entry *e = *link;
        if (drop(*e, now)) {
            *link = e->next;
            free(e);
            name_cache_count--;
        } else {
            link = &e->next;
        }
    }
}

// A full cache first loses its stale entries, then its last one.
void make_room_locked(time_t now)
{
    if (name_cache_count < NAME_CACHE_MAX)
        return;
    drop_entries_locked([](const name_cache_entry &e, time_t t) { return e.update_time + NAME_STALE_S < t; }, now);
    if (name_cache_count < NAME_CACHE_MAX)
        return;
    drop_entries_locked([](const name_cache_entry &e, time_t) { return e.next == nullptr; }, now);
}

name_cache_entry *add_entry_locked(const uint8_t ip6_local[16], uint32_t ip, const uint8_t mac[6], time_t now)
{
    make_room_locked(now);
    auto *e = static_cast<name_cache_entry *>(calloc(1, sizeof(name_cache_entry)));
    if (!e)
        return nullptr;
    e->ip = ip;
    e->update_time = now;
    inet_ntop(AF_INET6, ip6_local, e->ip6_text, sizeof(e->ip6_text));
    std::memcpy(e->mac, mac, 6);
    e->next = name_cache_head;
    name_cache_head = e;
    name_cache_count++;
    return e;
}

void start_probe_locked(name_cache_entry *e)
{
    if (probe_threads >= PROBE_THREADS_MAX || !probe_method_head || lr_stopping())
        return;
    auto *mac = static_cast<uint8_t *>(malloc(6));
    if (!mac)
        return;
    std::memcpy(mac, e->mac, 6);
    pthread_attr_t attr;
    pthread_attr_init(&attr);
    pthread_attr_setdetachstate(&attr, PTHREAD_CREATE_DETACHED);
    pthread_attr_setstacksize(&attr, PROBE_STACK);
    pthread_t tid;
    int rc = pthread_create(&tid, &attr, name_probe_thread, mac);
    pthread_attr_destroy(&attr);
    if (rc != 0) {
        free(mac); // the state stays, so the next pass tries again
        return;
    }
    e->state = NAME_PROBING;
    probe_threads++;
    if (probe_threads > probe_threads_peak)
        probe_threads_peak = probe_threads;
}

// What a thread takes from its entry before it goes on the network.
struct probe_job {
    probe_method *method;
    char ip_text[INET_ADDRSTRLEN];
    char ip6_text[40];
    int32_t fail_count;
};

bool read_job(const uint8_t mac[6], probe_job &job)
{
    mutex_guard hold(name_cache_lock);
    name_cache_entry *e = find_entry_locked(mac);
    if (!e)
        return false;
    job.method = e->method;
    if (e->ip != 0) {
        struct in_addr a {};
        a.s_addr = e->ip;
        inet_ntop(AF_INET, &a, job.ip_text, sizeof(job.ip_text));
    }
    std::memcpy(job.ip6_text, e->ip6_text, sizeof(job.ip6_text));
    job.fail_count = e->fail_count;
    return true;
}

bool usable_name(int result, std::span<char, NAME_TEXT_MAX> name)
{
    name[NAME_TEXT_MAX - 1] = '\0';
    return result > 0 && fing_text_clean(name.data()) == 1;
}

// The method that worked last is asked first, then every other one.
probe_method *search(const probe_job &job, const uint8_t mac[6], std::span<char, NAME_TEXT_MAX> name, int &result)
{
    const char *ip_text = job.ip_text[0] ? job.ip_text : nullptr;
    if (job.method) {
        result = name_probe_try_method(job.ip6_text, ip_text, name, job.method, mac);
        if (usable_name(result, name))
            return job.method;
    }
    for (probe_method *m = probe_method_head ? probe_method_head->next : nullptr; m; m = m->next) {
        if (m == job.method)
            continue;
        if (lr_stopping())
            break;
        name[0] = '\0';
        result = name_probe_try_method(job.ip6_text, ip_text, name, m, mac);
        if (usable_name(result, name))
            return m;
    }
    result = 0;
    return nullptr;
}

void store_name_locked(name_cache_entry *e, const char *name, int32_t len)
{
    std::memset(e->name, 0, sizeof(e->name));
    std::memcpy(e->name, name, strnlen(name, NAME_KEEP));
    e->name_len = len;
}

} // namespace

void name_probe_init() noexcept
{
    method_head.next = &method_netbios;
    method_netbios.next = &method_mdns;
    method_mdns.next = nullptr;
    probe_method_head = &method_head;
}

int32_t get_client_name(const uint8_t ip6_local[16], uint32_t ip, const uint8_t mac[6], char *out) noexcept
{
    if (!ip6_local || !mac || !out)
        return 0;
    mutex_guard hold(name_cache_lock);
    time_t now = time(nullptr);
    int32_t result = 0;
    name_cache_entry *e = find_entry_locked(mac);
    if (!e) {
        e = add_entry_locked(ip6_local, ip, mac, now);
        if (!e)
            return 0;
    } else {
        e->ip = ip;
        if (e->state == NAME_PROBING)
            return 0;
        if (e->state == NAME_VALID) {
            std::memcpy(out, e->name, sizeof(e->name));
            out[sizeof(e->name) - 1] = '\0';
            fing_text_clean(out);
            result = e->name_len;
            if (e->update_time + NAME_FRESH_S >= now)
                return result;
            e->state = NAME_IDLE;
        }
    }
    start_probe_locked(e);
    return result;
}

void *name_probe_thread(void *mac_copy) noexcept
{
    auto *mac = static_cast<uint8_t *>(mac_copy);
    probe_job job{};
    char name[NAME_TEXT_MAX] = {};
    bool found = read_job(mac, job);
    int result = 0;
    probe_method *hit = found ? search(job, mac, name, result) : nullptr;

    // After the last failure the state store may still know an mDNS name;
    // it is read before the cache lock is taken again.
    char stored[NAME_KEEP + 1] = {};
    if (found && !hit && job.fail_count + 1 >= NAME_FAILS_MAX) {
        char section[13];
        fing_mac_text(mac, section);
        fing_state_get(FING_PACKAGE, section, "mdns_name", stored, sizeof(stored));
    }

    mutex_guard hold(name_cache_lock);
    name_cache_entry *e = found ? find_entry_locked(mac) : nullptr;
    if (e) {
        time_t now = time(nullptr);
        if (hit) {
            int32_t len = result > static_cast<int>(NAME_KEEP) ? static_cast<int32_t>(NAME_KEEP + 1) : result;
            store_name_locked(e, name, len);
            e->method = hit;
            e->update_time = now;
            e->state = NAME_VALID;
        } else {
            e->state = NAME_IDLE;
            e->fail_count++;
            if (e->fail_count >= NAME_FAILS_MAX) {
                if (fing_text_clean(stored) == 1) {
                    store_name_locked(e, stored, static_cast<int32_t>(std::strlen(stored)));
                } else {
                    store_name_locked(e, NAME_FALLBACK, sizeof(NAME_FALLBACK) - 1);
                    e->fail_count = NAME_FAILS_MAX;
                }
                e->method = job.method;
                e->update_time = now;
                e->state = NAME_VALID;
            }
        }
    }
    free(mac);
    probe_threads--;
    return nullptr;
}

int name_probe_try_method(const char *ip6_text, const char *ip_text, std::span<char, NAME_TEXT_MAX> out,
                          const probe_method *method, const uint8_t mac[6]) noexcept
{
    if (!method)
        return 0;
    for (int attempt = 1; attempt <= PROBE_ATTEMPTS && !lr_stopping(); attempt++) {
        int timeout = method->timeout_ms * attempt;
        if (ip_text && method->query_v4) {
            int r = method->query_v4(ip_text, out, timeout, mac);
            if (r != 0)
                return r;
        }
        if (ip6_text && method->query_v6) {
            int r = method->query_v6(ip6_text, out, timeout, mac);
            if (r != 0)
                return r;
        }
    }
    return 0;
}

int socket_wait_readable(int fd, int timeout_ms) noexcept
{
    int flags = fcntl(fd, F_GETFL, 0);
    if (flags >= 0)
        fcntl(fd, F_SETFL, flags | O_NONBLOCK);
    // poll, not select: a probe socket may be numbered above FD_SETSIZE.
    int left = timeout_ms;
    while (left > 0 && !lr_stopping()) {
        struct pollfd p {
            fd, POLLIN, 0
        };
        int slice = left < STOP_POLL_MS ? left : STOP_POLL_MS;
        int r = poll(&p, 1, slice);
        if (r > 0)
            return 0;
        if (r < 0 && errno != EINTR)
            return 1;
        left -= slice;
    }
    return 0;
}

void name_cache_clear() noexcept
{
    mutex_guard hold(name_cache_lock);
    while (name_cache_head) {
        name_cache_entry *next = name_cache_head->next;
        free(name_cache_head);
        name_cache_head = next;
    }
    name_cache_count = 0;
}
