// The cloud recognition report: batches of client MACs go out as a JSON
// request file, the outside command "fing_device_recognize" asks the
// recognition service, and its JSON reply brings device type, brand and
// system version back into the records and the history package. The
// daemon itself never talks to the network.
#pragma once

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <ctime>

#include "recognition/fing_auth.h"

struct client_node;
struct cJSON;

inline constexpr char FING_REQUEST_DIR[] = "/tmp/cloud";
inline constexpr char FING_REQUEST_FILE[] = "/tmp/cloud/cloud_report_fing";
inline constexpr char FING_REPLY_FILE[] = "/tmp/fing/update_fing_type";
inline constexpr char FING_COLLECT_FILE[] = "/tmp/collect_report_mac";
inline constexpr char FING_HTTP_REPORT_FILE[] = "/tmp/fing/http_report_clients";
inline constexpr char FING_RETRY_FILE[] = "/tmp/fing/retry_mac";
inline constexpr char FING_RECOGNIZE_COMMAND[] = "fing_device_recognize";
inline constexpr char ONLINE_TEST_COMMAND[] = "online-test";

// Clients in one request.
inline constexpr int FING_REQUEST_CLIENTS = 20;
// A reply larger than this is not read: it counts as one that does not parse.
inline constexpr size_t FING_REPLY_MAX = 1 << 20;
// A reply answers at most one request of 20; elements past this many are
// ignored so that a runaway list costs bounded time.
inline constexpr int FING_REPLY_ELEMENTS_MAX = 64;
// The outside commands are waited for this long, then killed.
inline constexpr int FING_RECOGNIZE_TIMEOUT_MS = 20000;
inline constexpr int ONLINE_TEST_TIMEOUT_MS = 10000;
inline constexpr int DEVICE_ID_TIMEOUT_MS = 3000;
// The service's code for "parameters refused", and the answer "not known
// yet, ask again later" (type Other with this interval).
inline constexpr int FING_CODE_REFUSED = -5002;
inline constexpr long FING_ASK_LATER_MS = 3600000;
inline constexpr long FING_ASK_LATER_S = 3600;
inline constexpr int32_t FING_WAIT_MAX = 7200;

// Module state; one pass or event at a time touches it (the end-of-pass
// table runs under history_list_lock), except the consent, which the bus
// method stores from the loop thread.
extern std::atomic<int32_t> sysmode_cache;
// fing_auth_cache: recognition/fing_auth.h
extern int32_t wait_cloud_time;
extern time_t last_query_fail_time;
extern char device_id[64];
extern int32_t collect_counter;
extern int32_t resync_counter;
extern int32_t http_counter;

// The module's own frame on standard output, one write per message:
// "[new-client-access-report]: " with the function and line in bold.
void fing_report_message(const char *func, int line, const char *fmt, ...) noexcept
    __attribute__((format(printf, 3, 4)));

// Puts every piece of module state back to its start value (tests, and a
// daemon that starts over).
void fing_report_reset() noexcept;

// Rows of the end-of-pass table.
int fing_report_flush(client_node *unused) noexcept;
int fing_periodic(client_node *unused) noexcept;

// Gates, then one upload of the MAC file at `path`, which is removed.
// 0 when the upload was tried, -1 when a gate refused it.
int fing_report_file(const char *path) noexcept;
int cloud_upload_fing_data(const char *path) noexcept;
// Fills `client_list` from the MAC file: 0 when the last line handled was
// appended, else -1.
int add_deviceArray(const char *path, cJSON *client_list) noexcept;
int update_fing_type_to_node(const char *path) noexcept;
// The same on a reply already in memory (the file reader's second half).
int update_fing_type_from_text(const char *path, const char *text, size_t len, time_t now) noexcept;
void query_fail_handle() noexcept;
int fing_retry_report(const char *path) noexcept;
int fing_collect_report() noexcept;

// The gates. sysmode_load and fing_auth_load fill their caches once and
// return them; online_test is 1 online, 0 offline.
int sysmode_load() noexcept;
int fing_auth_load() noexcept;
int online_test() noexcept;
// Consent given, and a router or access point.
bool fing_gates_open() noexcept;

// "AABBCCDDEEFF\n" (exactly 13 characters) to "AA-BB-CC-DD-EE-FF", or
// nullptr. A buffer of the calling thread.
const char *mac_text_dashed(const char *line) noexcept;
// A 17-character MAC with ':' or '-' to six bytes, or nullptr.
const uint8_t *mac_text_parse(const char *text) noexcept;
// Folds a fine type name of the service into a coarse one, in place.
void fing_type_category(char *name, size_t size) noexcept;
