// Fuzz target: the request messages of all 13 methods of `lanroster` and of
// `req`, the event listener and the print_client task, and the MAC text
// readers.
//
// Input: one selector byte, then the payload of the message attribute (the
// blobmsg fields as they arrive from the bus). The methods are called the
// way the daemon is: its objects sit on a private ubusd, served on a thread
// of their own, and a second connection invokes them with the payload as
// the request data. Every reply that arrives must be a well-formed blobmsg
// tree.
#include <poll.h>
#include <signal.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <string>
#include <thread>
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
#include "tests/sandbox/sandbox.h"
#include "tests/support/bus_daemon.h"

namespace
{

void check_reply(ubus_request *, int, blob_attr *msg)
{
    // The JSON printer walks the whole tree; a broken reply shows there.
    char *json = blobmsg_format_json(msg, true);
    if (!json)
        std::abort();
    std::free(json);
}

pid_t ubusd_pid = -1;

void stop_ubusd()
{
    if (ubusd_pid > 0) {
        kill(ubusd_pid, SIGTERM);
        waitpid(ubusd_pid, nullptr, 0);
    }
}

// Starts ubusd on the daemon's socket path (in the sandbox's own
// "/var/run") and waits until it answers; the broker dies with this process.
bool start_ubusd()
{
    ubusd_pid = lr_test::start_ubusd(UBUS_SOCKET_PATH, true);
    std::atexit(stop_ubusd);
    return ubusd_pid > 0;
}

// The daemon's connection, served like the loop serves it: one message at
// a time, on a thread that lives as long as the process.
void serve_daemon(ubus_context *ctx)
{
    std::thread([ctx] {
        for (;;) {
            pollfd p{ctx->sock.fd, POLLIN, 0};
            if (poll(&p, 1, -1) < 0)
                return;
            ubus_handle_event(ctx);
            if (p.revents & (POLLHUP | POLLERR))
                return;
        }
    }).detach();
}

ubus_context *caller = nullptr;
uint32_t lanroster_id = 0;
uint32_t mac_oui_id = 0;

void connect_bus()
{
    // Private mounts before the first thread: the broker, "/etc/config" and
    // the console are the harness's own (it needs root).
    if (!sandbox::enter() || !start_ubusd())
        std::abort();
    uloop_init();
    if (lanroster_ubus_init() != 0)
        std::abort();
    serve_daemon(ubus_ctx);
    caller = ubus_connect(UBUS_SOCKET_PATH);
    if (!caller || ubus_lookup_id(caller, "lanroster", &lanroster_id) != 0 ||
        ubus_lookup_id(caller, "mac_oui", &mac_oui_id) != 0)
        std::abort();
}

void invoke(uint32_t object, const char *method, blob_attr *msg)
{
    ubus_invoke(caller, object, method, msg, check_reply, nullptr, 5000);
}

// A short live list so that the readers have tables to write and the
// commands records to change. It is laid out afresh for every input: the
// commands rename, retype and remove records (with no pool, a released
// record is only cleared).
client_node records[3];

void reset_records()
{
    set_history_list(nullptr);
    for (int i = 0; i < 3; ++i) {
        records[i] = client_node{};
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

void setup_once()
{
    static bool done = false;
    if (done)
        return;
    done = true;
    log_level = 0;
    connect_bus();
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
    reset_records();
    uint8_t selector = data[0] % 16;
    std::vector<uint8_t> buf = message_of(data + 1, size - 1);
    auto *msg = reinterpret_cast<blob_attr *>(buf.data());
    switch (selector) {
    case 0:
        invoke(lanroster_id, "update", msg);
        break;
    case 1:
        invoke(mac_oui_id, "req", msg);
        break;
    case 2:
        invoke(lanroster_id, "get_hist_list_new", msg);
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
    case 5:
        mac_texts(data + 1, size - 1);
        break;
    default: {
        // The device commands and the older read methods.
        static const char *const methods[] = {"get_ARP",
                                              "get",
                                              "get_hist_list",
                                              "get_hist_list_num",
                                              "get_dev_info",
                                              "set_dev_type",
                                              "set_dev_nickname",
                                              "delete_offline_device",
                                              "remove_client_by_mac",
                                              "update_fing_auth_state"};
        invoke(lanroster_id, methods[selector - 6], msg);
        break;
    }
    }
    uloop_timeout_cancel(&update_timer);
    return 0;
}
