// Fuzz target: mesh peers' client lists through the event listener.
//
// Each input becomes one "lanroster.meshd_client_update" message, which
// goes through event_dispatch into the pool's queue; the posted task is then
// run on this thread as a worker runs it. The first byte chooses the form:
// odd, the rest is the raw message payload; even, the rest drives a builder
// of well-formed messages with wrong types, missing keys, malformed MACs,
// long texts, extreme numbers and, on demand, 10,000 entries, so that the
// merge itself is reached and not only the parser.
//
// Before each input the live list holds clients of this node's scan, of two
// peers and offline ones. After it: the list and the pool still hold 388
// records between them, every text field is terminated inside its array,
// every interface kind is in the table, and no client of the scan was
// dropped. A breach aborts.
#include <sys/stat.h>

#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <string>
#include <vector>

#include "bus/ubus_server.h"
#include "core/log.h"
#include "core/threadpool.h"
#include "db/system_info.h"
#include "events/mesh_client.h"
#include "recognition/new_client_notify.h"
#include "registry/client_node.h"
#include "tests/sandbox/sandbox.h"

namespace
{

constexpr char SELF[] = "02-00-00-5E-00-01";
// 380 of the 388 records are taken, so that a few new clients already
// reach the eviction.
constexpr int SCAN_CLIENTS = 150;
constexpr int PEER_CLIENTS = 100;
constexpr int OFFLINE_CLIENTS = 130;
constexpr int SCAN_ID = 100;
constexpr int PEER_ID = 300;
constexpr int OFFLINE_ID = 400;
// Distinct clients of the long list: each new one writes its section, and
// that file's rewrites, not the parsing, would otherwise bound the speed.
constexpr int FLOOD_DISTINCT = 40;

memory_queue queue_record;
client_node nodes[MEMORY_QUEUE_SIZE];

void client_mac(uint8_t mac[6], int id)
{
    const uint8_t m[6] = {0x02, 0x00, 0x00, 0x00, static_cast<uint8_t>(id >> 8), static_cast<uint8_t>(id)};
    std::memcpy(mac, m, 6);
}

void setup_once()
{
    static bool done = false;
    if (done)
        return;
    done = true;
    // Private "/etc", "/tmp" and "/var": the history package, the
    // notification files and the recognition state are the harness's own.
    if (!sandbox::enter() || !sandbox::mount_tmpfs("/tmp") || !sandbox::mount_tmpfs("/var"))
        std::abort();
    mkdir("/var/state", 0755);
    mkdir("/var/run", 0755);
    log_level = 0;
    std::strcpy(main_device_mac, SELF);
}

client_node *link_record(int id, uint8_t status, const uint8_t *peer)
{
    client_node *n = delete_oldest_node_from_list();
    if (!n)
        std::abort();
    client_mac(n->mac, id);
    n->guest = id % 7 == 0 ? 1 : 2;
    std::strcpy(n->hostname, "host");
    set_node_status(n, status == STATUS_DISCONNECT ? STATUS_DISCONNECT : STATUS_NEW_ACCESS);
    n->status = status;
    if (peer) {
        n->is_mesh_client = 1;
        std::memcpy(n->connect_device_mac, peer, 6);
    }
    return n;
}

// The files the rows write start empty for each input, so that no input
// pays for the ones before it.
void fresh_files()
{
    std::error_code ec;
    for (const auto &e : std::filesystem::directory_iterator("/tmp", ec))
        std::filesystem::remove_all(e.path(), ec);
    std::ofstream("/etc/config/history_list", std::ios::trunc);
    report_file_count = 0;
    report_total_count = 0;
    report_file_suffix = '1';
}

// The pool rebuilt by hand, then the four kinds of clients.
void fresh_registry()
{
    fresh_files();
    std::memset(static_cast<void *>(nodes), 0, sizeof(nodes));
    for (int i = 0; i + 1 < MEMORY_QUEUE_SIZE; i++)
        nodes[i].next = &nodes[i + 1];
    queue_record = {.head = &nodes[0], .tail = &nodes[MEMORY_QUEUE_SIZE - 1]};
    client_pool = &queue_record;
    set_history_list(nullptr);
    static const uint8_t peer_a[6] = {0x02, 0x00, 0x00, 0xAA, 0x00, 0x01};
    static const uint8_t peer_b[6] = {0x02, 0x00, 0x00, 0xBB, 0x00, 0x01};
    for (int i = 0; i < OFFLINE_CLIENTS; i++)
        link_record(OFFLINE_ID + i, STATUS_DISCONNECT, nullptr);
    for (int i = 0; i < PEER_CLIENTS; i++)
        link_record(PEER_ID + i, STATUS_MESH_ONLINE, i % 2 ? peer_a : peer_b);
    for (int i = 0; i < SCAN_CLIENTS; i++)
        link_record(SCAN_ID + i, i % 5 == 0 ? STATUS_EVENT_ONLINE : STATUS_ONLINE_LAST_TIME, nullptr);
}

void check_registry()
{
    int listed = 0;
    for (client_node *n = get_history_list(); n; n = n->next) {
        if (++listed > MEMORY_QUEUE_SIZE)
            std::abort(); // a cycle
        if (strnlen(n->hostname, sizeof(n->hostname)) == sizeof(n->hostname) ||
            strnlen(n->connect_device_id, sizeof(n->connect_device_id)) == sizeof(n->connect_device_id) ||
            n->wire_type >= WIRE_TYPE_COUNT)
            std::abort();
    }
    int free_records = 0;
    for (client_node *n = client_pool->head; n; n = n->next)
        free_records++;
    if (listed + free_records != MEMORY_QUEUE_SIZE)
        std::abort();
    for (int i = 0; i < SCAN_CLIENTS; i++) {
        uint8_t mac[6];
        client_mac(mac, SCAN_ID + i);
        client_node *n = find_node_by_mac(mac);
        if (!n || n->status == STATUS_DISCONNECT || n->status == STATUS_EVENT_OFFLINE)
            std::abort(); // a client of this node's own scan was dropped
    }
}

// Reads the builder's choices from the input; zeros once it is used up.
class reader
{
  public:
    reader(const uint8_t *data, size_t size) : data_(data), size_(size) {}
    uint8_t byte()
    {
        return pos_ < size_ ? data_[pos_++] : 0;
    }
    int32_t int32()
    {
        uint32_t v = 0;
        for (int i = 0; i < 4; i++)
            v = v << 8 | byte();
        return static_cast<int32_t>(v);
    }
    std::string text(size_t max)
    {
        size_t n = byte() % 32;
        if (n == 31)
            n = max; // a long one
        std::string s;
        for (size_t i = 0; i < n; i++)
            s.push_back(static_cast<char>(pos_ < size_ ? data_[pos_++] : 'x'));
        return s;
    }

  private:
    const uint8_t *data_;
    size_t size_;
    size_t pos_ = 0;
};

std::string mac_text(reader &r)
{
    char text[32];
    uint8_t kind = r.byte() % 8;
    // Scan, peer, offline and new clients.
    int high = r.byte();
    int id = SCAN_ID + (high << 8 | r.byte()) % 520;
    switch (kind) {
    case 0:
        std::snprintf(text, sizeof(text), "02:00:00:00:%02X:%02X", id >> 8, id & 0xff);
        return text;
    case 1:
        std::snprintf(text, sizeof(text), "02-00-00-00-%02x-%02x", id >> 8, id & 0xff);
        return text;
    case 2:
        return SELF;
    case 3:
        return "02:00:00:aa:00:01";
    case 4:
        return "02-00-00-BB-00-01";
    default:
        return r.text(40);
    }
}

void add_text(blob_buf &b, reader &r, const char *key, const std::string &value)
{
    uint8_t how = r.byte() % 8;
    if (how == 0)
        return; // missing
    if (how == 1)
        blobmsg_add_u32(&b, key, static_cast<uint32_t>(r.int32())); // wrong type
    else
        blobmsg_add_string(&b, key, value.c_str());
}

void add_number(blob_buf &b, reader &r, const char *key)
{
    uint8_t how = r.byte() % 8;
    if (how == 0)
        return;
    if (how == 1)
        blobmsg_add_string(&b, key, "7");
    else if (how == 2)
        blobmsg_add_u64(&b, key, 1ull << 40);
    else
        blobmsg_add_u32(&b, key, static_cast<uint32_t>(how == 3 ? r.int32() : r.byte() % 12));
}

void add_entry(blob_buf &b, reader &r)
{
    void *t = blobmsg_open_table(&b, nullptr);
    add_text(b, r, "mac", mac_text(r));
    add_text(b, r, "ip", r.byte() % 2 ? "192.168.1.9" : r.text(20));
    add_text(b, r, "name", r.text(1024));
    add_text(b, r, "guest", r.byte() % 2 ? "GUEST" : r.text(8));
    add_number(b, r, "connection_type");
    add_number(b, r, "client_type");
    add_number(b, r, "signal_strength");
    add_number(b, r, "rxrate");
    add_number(b, r, "txrate");
    blobmsg_close_table(&b, t);
}

void build_message(blob_buf &b, reader &r)
{
    blob_buf_init(&b, 0);
    add_text(b, r, "device_mac", mac_text(r));
    add_text(b, r, "device_id", r.text(1100));
    add_number(b, r, "client_num");
    uint8_t list_kind = r.byte() % 8;
    if (list_kind == 0)
        return;
    if (list_kind == 1) {
        blobmsg_add_string(&b, "mesh_client_list", "[]");
        return;
    }
    size_t count = r.byte() % 24;
    if (list_kind == 2) {
        count = 10000;
        // Room for the whole list at once: the buffer grows in small steps,
        // and copying it at each step would cost the harness, not the
        // daemon, most of the run.
        blob_buf_grow(&b, 4 << 20);
    }
    void *list = blobmsg_open_array(&b, "mesh_client_list");
    for (size_t i = 0; i < count; i++) {
        if (list_kind == 2) {
            // The long list: clients of their own, over and over, and a few
            // of the scan's.
            char mac[18];
            int id = i % 997 == 0 ? SCAN_ID + static_cast<int>(i % SCAN_CLIENTS)
                                  : 1000 + static_cast<int>(i % FLOOD_DISTINCT);
            std::snprintf(mac, sizeof(mac), "02:00:00:%02X:%02X:%02X", id >> 16, (id >> 8) & 0xff, id & 0xff);
            void *t = blobmsg_open_table(&b, nullptr);
            blobmsg_add_string(&b, "mac", mac);
            blobmsg_add_string(&b, "ip", "192.168.1.9");
            blobmsg_add_string(&b, "name", "n");
            blobmsg_add_string(&b, "guest", i % 3 ? "MAIN" : "GUEST");
            blobmsg_add_u32(&b, "connection_type", static_cast<uint32_t>(i % 11));
            blobmsg_add_u32(&b, "client_type", static_cast<uint32_t>(i % 4));
            blobmsg_add_u32(&b, "signal_strength", static_cast<uint32_t>(-40));
            blobmsg_add_u32(&b, "rxrate", 1);
            blobmsg_add_u32(&b, "txrate", 1);
            blobmsg_close_table(&b, t);
        } else if (r.byte() % 16 == 0) {
            blobmsg_add_string(&b, nullptr, "not a table");
        } else {
            add_entry(b, r);
        }
    }
    blobmsg_close_array(&b, list);
}

// The message attribute as the bus library hands it over.
std::vector<uint8_t> raw_message(const uint8_t *data, size_t size)
{
    if (size > BLOB_ATTR_LEN_MASK - sizeof(blob_attr))
        size = BLOB_ATTR_LEN_MASK - sizeof(blob_attr);
    std::vector<uint8_t> buf(sizeof(blob_attr) + size + 4);
    auto *attr = reinterpret_cast<blob_attr *>(buf.data());
    blob_set_raw_len(attr, static_cast<unsigned int>(sizeof(blob_attr) + size));
    attr->id_len |= cpu_to_be32(UBUS_ATTR_DATA << BLOB_ATTR_ID_SHIFT);
    std::memcpy(buf.data() + sizeof(blob_attr), data, size);
    return buf;
}

// The listener posts onto a pool with no workers; the task is then run
// here, as a worker would, and it frees its copy.
void dispatch_and_run(blob_attr *msg)
{
    static threadpool pool{};
    static const bool ready = threadpool_init(&pool, 1) == 0;
    if (!ready)
        std::abort();
    thread_pool = &pool;
    event_dispatch(nullptr, nullptr, "lanroster.meshd_client_update", msg);
    while (threadpool_task *t = task_dequeue(&pool.task_queue)) {
        t->fn(t->arg);
        std::free(t);
    }
    thread_pool = nullptr;
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size);
extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    setup_once();
    if (size < 1)
        return 0;
    fresh_registry();
    // The printing of a message is reached too, for short inputs.
    log_level = (data[0] & 0x80) && size < 512 ? 7 : 0;
    if (data[0] & 1) {
        std::vector<uint8_t> buf = raw_message(data + 1, size - 1);
        dispatch_and_run(reinterpret_cast<blob_attr *>(buf.data()));
    } else {
        reader r(data + 1, size - 1);
        blob_buf b = {};
        build_message(b, r);
        dispatch_and_run(b.head);
        blob_buf_free(&b);
    }
    log_level = 0;
    check_registry();
    return 0;
}
