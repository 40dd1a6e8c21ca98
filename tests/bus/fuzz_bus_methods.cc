// Fuzz target: the request messages of the bus methods that parse outside
// input (`update`, `req`, `get_hist_list_new`), the event listener and the
// print_client task, and the MAC text readers.
//
// Input: one selector byte, then the payload of the message attribute (the
// blobmsg fields as they arrive from the bus). Replies are checked, not
// sent: every reply must be a well-formed blobmsg tree.
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <vector>

#include "bus/client_list.h"
#include "bus/event_tasks.h"
#include "bus/mac_text.h"
#include "bus/ubus_handlers.h"
#include "bus/ubus_server.h"
#include "core/log.h"
#include "core/threadpool.h"
#include "registry/client_node.h"
#include "scan/client_table.h"

namespace
{

int check_reply(ubus_context *, ubus_request_data *, blob_attr *msg)
{
    // The JSON printer walks the whole tree; a broken reply shows there.
    char *json = blobmsg_format_json(msg, true);
    if (!json)
        std::abort();
    std::free(json);
    return 0;
}

int no_compare(client_table_entry *) noexcept
{
    return 0;
}

// A short live list so that get_hist_list_new has tables to write.
client_node records[3];

void setup_once()
{
    static bool done = false;
    if (done)
        return;
    done = true;
    log_level = 0;
    reply_sender = check_reply;
    update_compare_pass = no_compare;
    for (int i = 0; i < 3; ++i) {
        client_node &n = records[i];
        n.mac[0] = 0x02;
        n.mac[5] = static_cast<uint8_t>(i + 1);
        n.status = i == 2 ? STATUS_DISCONNECT : STATUS_ONLINE_LAST_TIME;
        n.wire_type = static_cast<uint8_t>(i * 5);
        n.owner_id = -1;
        n.slots[0] = i == 1 ? 8 : 0xff;
        std::strcpy(n.hostname, "fuzz");
        n.next = i < 2 ? &records[i + 1] : nullptr;
    }
    set_history_list(&records[0]);
}

// The message attribute as the bus library hands it over: a blob header
// (id UBUS_ATTR_DATA, not extended) and the payload.
std::vector<uint8_t> message_of(const uint8_t *data, size_t size)
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

// The listener posts onto a pool with no workers; the task and its copy
// are taken back from the queue and freed here.
void dispatch_event(blob_attr *msg)
{
    static threadpool pool{};
    static const bool ready = threadpool_init(&pool, 1) == 0;
    if (!ready)
        return;
    thread_pool = &pool;
    event_dispatch(nullptr, nullptr, "lanroster.print_client", msg);
    while (threadpool_task *t = task_dequeue(&pool.task_queue)) {
        std::free(t->arg);
        std::free(t);
    }
    thread_pool = nullptr;
}

void mac_texts(const uint8_t *data, size_t size)
{
    std::vector<char> text(data, data + size);
    text.push_back('\0');
    uint8_t mac[6];
    mac_text_valid(text.data());
    mac_text_to_bytes(text.data(), mac);
    macstr2num(text.data(), mac, size > 2 ? &text[2] : nullptr);
    macstr2num(text.data(), mac, nullptr);
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size);
extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    setup_once();
    if (size < 1)
        return 0;
    uint8_t selector = data[0] % 6;
    std::vector<uint8_t> buf = message_of(data + 1, size - 1);
    auto *msg = reinterpret_cast<blob_attr *>(buf.data());
    ubus_request_data req{};
    switch (selector) {
    case 0:
        update(nullptr, nullptr, &req, "update", msg);
        break;
    case 1:
        mac_oui_ubus_query(nullptr, nullptr, &req, "req", msg);
        break;
    case 2:
        get_hist_list_new(nullptr, nullptr, &req, "get_hist_list_new", msg);
        break;
    case 3: {
        void *copy = std::malloc(blob_raw_len(msg));
        std::memcpy(copy, msg, blob_raw_len(msg));
        print_client(copy); // frees the copy
        break;
    }
    case 4:
        dispatch_event(msg);
        break;
    default:
        mac_texts(data + 1, size - 1);
        break;
    }
    uloop_timeout_cancel(&update_timer);
    return 0;
}
