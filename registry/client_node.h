// The client record, the fixed pool of records and the live list.
//
// The daemon never allocates a client_node after start-up: the pool holds
// 388 records, so memory stays bounded whatever the LAN does, and when the
// pool is empty a known client is evicted to make room. The live list
// (history_list) keeps online records before offline ones.
//
// Functions that change a list expect the caller to hold history_list_lock
// for writing; the one exception is start-up.
#pragma once

#include <cstddef>
#include <cstdint>
#include <pthread.h>
#include <type_traits>

// Seconds since the epoch, 32 bits wide as the record was laid out.
using lr_time32 = int32_t;

struct ip6_addr_node {
    uint32_t state; // 1 "REACHABLE", 0 "STALE"
    uint8_t addr[16];
    ip6_addr_node *next;
};

struct client_node {
    char hostname[65];
    uint32_t ip; // network order; 0 when none
    int32_t ip6_state;
    ip6_addr_node *ip6_globals; // owned list
    uint8_t ip6_local[16];
    uint8_t ip6_only;
    uint8_t mac[6]; // the key
    uint8_t wire_type;
    uint8_t guest; // 1 guest network, 2 main network, 0 unknown
    int32_t device_type;
    uint32_t type_source; // lower wins: 0 user or policy, 1 recognition, 3 DHCP, 4 none
    uint8_t type_user_set;
    uint8_t type_cloud_set;
    lr_time32 access_time;
    lr_time32 first_access_time;
    lr_time32 leave_time;
    char nickname[65];
    char ifname[16];
    int32_t access_uptime;
    uint8_t clock_state;
    uint8_t event_access_host;
    uint8_t limit_enable;
    int32_t upload_limit;
    int32_t download_limit;
    uint8_t blocked;
    uint8_t prio;
    int32_t prio_time;
    int32_t time_period;
    int32_t signal;
    int32_t rxrate;
    int32_t txrate;
    int32_t owner_id;
    char owner_name[65];
    uint8_t schedule_enable;
    int32_t time_mode;
    uint8_t slots[4]; // start hour, start minute, end hour, end minute; 0xff: none
    uint8_t qos_status;
    uint8_t repeats;
    uint8_t is_mesh_client;
    uint8_t connect_device_mac[6];
    char connect_device_id[45];
    uint8_t status;
    uint8_t access_host; // 1 once seen outside the guest network; persisted
    client_node *next;
};
static_assert(std::is_standard_layout_v<client_node>);
static_assert(std::is_trivially_copyable_v<client_node>);
static_assert(std::is_standard_layout_v<ip6_addr_node>);

// Statuses of a record.
enum : uint8_t {
    STATUS_NO_CONNECTION = 0,
    STATUS_NEW_ACCESS = 1,
    STATUS_KEEP_ALIVE = 2,
    STATUS_RECONNECT = 3,
    STATUS_DISCONNECT = 4,
    STATUS_ONLINE_LAST_TIME = 5,
    STATUS_EVENT_ONLINE = 6,
    STATUS_MESH_ONLINE = 7,
    STATUS_EVENT_OFFLINE = 8,
};

// clock_state values.
enum : uint8_t {
    CLOCK_SET = 0,
    CLOCK_NOT_SET = 1,
    CLOCK_CORRECTED = 2,
};

inline constexpr uint32_t TYPE_SOURCE_USER = 0;
inline constexpr uint32_t TYPE_SOURCE_CLOUD = 1;
inline constexpr uint32_t TYPE_SOURCE_DHCP = 3;
inline constexpr uint32_t TYPE_SOURCE_UNSET = 4;

inline constexpr int32_t DEVICE_TYPE_UNKNOWN = -1;
inline constexpr int32_t DEVICE_TYPE_OTHER = 7;

inline constexpr uint8_t GUEST_NETWORK = 1;

// Interface kinds without text: a radio of no known band, and a client
// behind the gateway port on a node that is not a router.
inline constexpr uint8_t WIRE_TYPE_UNKNOWN_RADIO = 11;
inline constexpr uint8_t WIRE_TYPE_UPSTREAM = 12;

// Text kept of a host name, a nickname and an interface name.
inline constexpr size_t HOSTNAME_KEEP = 64;
inline constexpr size_t IFNAME_KEEP = 15;

inline constexpr int MEMORY_QUEUE_SIZE = 388;

struct memory_queue {
    client_node *head;
    client_node *tail;
};

// The pool; NULL until create_memory_queue has built it.
extern memory_queue *client_pool;

// The live list and every client_node field.
extern pthread_rwlock_t history_list_lock;

// Tables shared by the whole system: one copy each.
inline constexpr int DEVICE_TYPE_COUNT = 80;
inline constexpr int WIRE_TYPE_COUNT = 11;
inline constexpr int CLIENT_CATEGORY_COUNT = 8;
inline constexpr int STATUS_TEXT_COUNT = 6;
extern const char device_type_table[DEVICE_TYPE_COUNT][32];
extern const char wire_type_table[WIRE_TYPE_COUNT][32];
extern const char client_category_table[CLIENT_CATEGORY_COUNT][16];
extern const char *const status_text_table[STATUS_TEXT_COUNT];

// Row of the device type table by case-insensitive name; -1 when none.
int get_device_type_index(const char *name) noexcept;
// Name of a device type, "unknown" for -1 or anything out of the table.
const char *device_type_name(int32_t type) noexcept;
// Text of an interface kind; values beyond the table show as row 0.
const char *wire_type_name(uint32_t wire_type) noexcept;
// A type counts as known when it is neither -1 nor "Other".
inline bool device_type_known(int32_t type) noexcept
{
    return type != DEVICE_TYPE_UNKNOWN && type != DEVICE_TYPE_OTHER;
}

// Pool and list. 1 on success, 0 on failure.
int create_memory_queue() noexcept;
client_node *get_free_node() noexcept;
void release_node(client_node *node) noexcept;
client_node *delete_oldest_node_from_list() noexcept;
// The record delete_oldest_node_from_list would evict if the pool were
// empty now; NULL for an empty list.
client_node *eviction_victim() noexcept;
int delete_specific_node_from_list(const uint8_t mac[6]) noexcept;
int delete_offline_node_by_mac(const char *mac_text) noexcept;
void set_node_status(client_node *node, uint8_t status) noexcept;

client_node *get_history_list() noexcept;
void set_history_list(client_node *head) noexcept;

// Unlinks a record from the live list and clears its link; false when it
// was not in the list.
bool unlink_node(client_node *node) noexcept;
// The first record with this MAC, or NULL.
client_node *find_node_by_mac(const uint8_t mac[6]) noexcept;

// Frees a record's list of global IPv6 addresses.
void free_ip6_globals(client_node *node) noexcept;

int node_mac_equal(const uint8_t a[6], const uint8_t b[6]) noexcept;
int mac_in_history(const uint8_t mac[6]) noexcept;

// Text forms of a MAC: "AA-BB-CC-DD-EE-FF" on the bus, "AABBCCDDEEFF" in
// the store. The buffers need 18 and 13 bytes.
inline constexpr size_t MAC_DASH_TEXT_SIZE = 18;
inline constexpr size_t MAC_HEX_TEXT_SIZE = 13;
void mac_to_dash_text(const uint8_t mac[6], char *out) noexcept;
void mac_to_hex_text(const uint8_t mac[6], char *out) noexcept;
// Reads pairs of hex digits of either case up to the end of the string,
// at most six; no check of length or digits, as the store has always done.
void hex_text_to_mac(const char *text, uint8_t mac[6]) noexcept;
