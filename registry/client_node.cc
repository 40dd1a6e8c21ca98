#include "registry/client_node.h"

#include <unistd.h>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <strings.h>

#include "core/log.h"
#include "db/policy_mirror.h"
#include "registry/history_list_mgmt.h"

memory_queue *client_pool = nullptr;
pthread_rwlock_t history_list_lock = PTHREAD_RWLOCK_INITIALIZER;

namespace
{

// Head of the live list: online records first, then offline ones, the one
// offline longest at the tail. No tail pointer and no count.
client_node *history_head = nullptr;

bool is_offline(const client_node *node)
{
    return node->status == STATUS_DISCONNECT || node->status == STATUS_EVENT_OFFLINE;
}

void queue_append(client_node *node)
{
    node->next = nullptr;
    if (client_pool->tail)
        client_pool->tail->next = node;
    else
        client_pool->head = node;
    client_pool->tail = node;
}

// The victim of an eviction: the guest nearest the tail, not counting the
// head; else the head if it is a guest; else the tail. Status plays no part:
// a guest goes before an offline client of the main network.
client_node *choose_victim()
{
    client_node *last_guest = nullptr;
    client_node *tail = history_head;
    for (client_node *n = history_head; n; n = n->next) {
        if (n != history_head && n->guest == GUEST_NETWORK)
            last_guest = n;
        tail = n;
    }
    if (last_guest)
        return last_guest;
    if (history_head->guest == GUEST_NETWORK)
        return history_head;
    return tail;
}

// A record ready for a new client: names cleared, policies at their
// "none" values, not linked anywhere.
void prepare_node(client_node *node)
{
    node->hostname[0] = '\0';
    node->nickname[0] = '\0';
    node->owner_name[0] = '\0';
    node->connect_device_id[0] = '\0';
    node->type_source = TYPE_SOURCE_UNSET;
    node->type_user_set = 0;
    node->type_cloud_set = 0;
    node->limit_enable = 0;
    node->upload_limit = 0;
    node->download_limit = 0;
    node->blocked = 0;
    node->prio = 0;
    node->schedule_enable = 0;
    node->time_mode = 0;
    node->signal = 0;
    node->rxrate = 0;
    node->txrate = 0;
    node->qos_status = 0;
    node->repeats = 0;
    node->is_mesh_client = 0;
    std::memset(node->connect_device_mac, 0, sizeof(node->connect_device_mac));
    node->prio_time = -1;
    node->time_period = -1;
    node->owner_id = -1;
    node->slots[0] = 0xff;
}

int hex_digit(char c)
{
    if (c >= '0' && c <= '9')
        return c - '0';
    if (c >= 'a' && c <= 'f')
        return c - 'a' + 10;
    if (c >= 'A' && c <= 'F')
        return c - 'A' + 10;
    return 0;
}

} // namespace

const char device_type_table[DEVICE_TYPE_COUNT][32] = {
    "Audio & Video",
    "Engineering",
    "Home & Office",
    "Mobile",
    "Network",
    "Server",
    "IoT Devices",
    "Other",
    "Media Player",
    "Television",
    "Game Console",
    "Streaming Dongle",
    "Speaker/Amp",
    "AV Receiver",
    "Cable Box",
    "Disc Player",
    "Satellite",
    "Audio Player",
    "Remote Control",
    "Radio",
    "Photo Camera",
    "Photo Display",
    "Mic",
    "Projector",
    "Computer",
    "Desktop",
    "Laptop",
    "Printer",
    "Scanner",
    "Point of Sale",
    "Clock",
    "Barcode Scanner",
    "Fax",
    "Tablet",
    "MP3 Player",
    "eBook Reader",
    "Smart Watch",
    "Wearable",
    "Car",
    "Router",
    "Wi-Fi Extender",
    "Modem",
    "Switch",
    "Gateway",
    "USB",
    "IP Camera",
    "Smart Device",
    "Smart Plug",
    "Light",
    "Voice Control",
    "Thermostats",
    "Power System",
    "Solar Panel",
    "Smart Meter",
    "HVAC",
    "Network Appliance",
    "Smart Washer",
    "Smart Fridge",
    "Smart Cleaner",
    "Sleep Tech",
    "Garage Door",
    "Sprinkler",
    "Electric",
    "Doorbell",
    "Smart Lock",
    "Touch Panel",
    "Controller",
    "Scale",
    "Toy",
    "Robot",
    "Weather Station",
    "Health Monitor",
    "Baby Monitor",
    "Pet Monitor",
    "Alarm",
    "Motion Detector",
    "Smoke Detector",
    "Water Sensor",
    "Sensor",
    "Network Monitor",
};

const char wire_type_table[WIRE_TYPE_COUNT][32] = {
    "wired", "2.4G", "5G", "5G_2", "6G", "mlo", "iot_2.4G", "iot_5G", "iot_5G_2", "config", "wired",
};

const char client_category_table[CLIENT_CATEGORY_COUNT][16] = {
    "other", "pc", "phone", "laptop", "tablet", "entertainment", "printer", "iot_device",
};

const char *const status_text_table[STATUS_TEXT_COUNT] = {
    "No Connection", "New Access", "Keep Alive", "Reconnect", "Disconnect", "Online Last Time",
};

int get_device_type_index(const char *name) noexcept
{
    if (!name)
        return DEVICE_TYPE_UNKNOWN;
    for (int i = 0; i < DEVICE_TYPE_COUNT; i++) {
        if (strcasecmp(device_type_table[i], name) == 0)
            return i;
    }
    return DEVICE_TYPE_UNKNOWN;
}

const char *device_type_name(int32_t type) noexcept
{
    if (type < 0 || type >= DEVICE_TYPE_COUNT)
        return "unknown";
    return device_type_table[type];
}

const char *wire_type_name(uint32_t wire_type) noexcept
{
    return wire_type_table[wire_type < WIRE_TYPE_COUNT ? wire_type : 0];
}

int create_memory_queue() noexcept
{
    if (!client_pool) {
        auto *queue = static_cast<memory_queue *>(calloc(1, sizeof(memory_queue)));
        if (!queue) {
            LR_ERROR_LOG("history_list_mgmt", "memory is not enough, malloc queue fail.");
            return 0;
        }
        client_node *head = nullptr;
        client_node *tail = nullptr;
        for (int i = 0; i < MEMORY_QUEUE_SIZE; i++) {
            auto *node = static_cast<client_node *>(calloc(1, sizeof(client_node)));
            if (!node) {
                // The records taken so far stay allocated; the pool stays
                // empty and the daemon runs on without history.
                LR_ERROR_LOG("history_list_mgmt", "memory is not enough, malloc node fail.");
                client_pool = queue;
                return 0;
            }
            if (tail)
                tail->next = node;
            else
                head = node;
            tail = node;
        }
        queue->head = head;
        queue->tail = tail;
        client_pool = queue;
    }
    load_history_list_config();
    update_client_speed_limit(nullptr);
    update_black_list(nullptr);
    update_qos(nullptr);
    update_parentalctl(nullptr);
    ensure_crontab_line();
    return 1;
}

client_node *get_free_node() noexcept
{
    if (!client_pool || !client_pool->head)
        return nullptr;
    client_node *node = client_pool->head;
    client_pool->head = node->next;
    if (!client_pool->head)
        client_pool->tail = nullptr;
    node->next = nullptr;
    return node;
}

void free_ip6_globals(client_node *node) noexcept
{
    ip6_addr_node *a = node->ip6_globals;
    while (a) {
        ip6_addr_node *next = a->next;
        free(a);
        a = next;
    }
    node->ip6_globals = nullptr;
}

void release_node(client_node *node) noexcept
{
    if (!node)
        return;
    free_ip6_globals(node);
    std::memset(static_cast<void *>(node), 0, sizeof(*node));
    if (client_pool)
        queue_append(node);
}

client_node *get_history_list() noexcept
{
    return history_head;
}

void set_history_list(client_node *head) noexcept
{
    history_head = head;
}

bool unlink_node(client_node *node) noexcept
{
    client_node **link = &history_head;
    while (*link && *link != node)
        link = &(*link)->next;
    if (!*link)
        return false;
    *link = node->next;
    node->next = nullptr;
    return true;
}

client_node *find_node_by_mac(const uint8_t mac[6]) noexcept
{
    for (client_node *n = history_head; n; n = n->next) {
        if (node_mac_equal(n->mac, mac))
            return n;
    }
    return nullptr;
}

client_node *delete_oldest_node_from_list() noexcept
{
    client_node *node = get_free_node();
    if (!node && history_head) {
        client_node *victim = choose_victim();
        unlink_node(victim);
        if (uci_delete_section_by_node(victim) != 1)
            LR_ERROR_LOG("history_list_mgmt", "delete uci section failed!");
        release_node(victim);
        node = get_free_node();
    }
    // With no pool at all there is nothing to give; callers must refuse.
    if (!node)
        return nullptr;
    prepare_node(node);
    return node;
}

client_node *eviction_victim() noexcept
{
    return history_head ? choose_victim() : nullptr;
}

void set_node_status(client_node *node, uint8_t status) noexcept
{
    node->status = status;
    if (!history_head) {
        history_head = node;
        return;
    }
    if (status == STATUS_NEW_ACCESS || status == STATUS_RECONNECT) {
        node->next = history_head;
        history_head = node;
        return;
    }
    if (status != STATUS_DISCONNECT)
        return;
    // In front of the offline part, which is ordered by the time of leaving.
    client_node **link = &history_head;
    while (*link && !is_offline(*link))
        link = &(*link)->next;
    node->next = *link;
    *link = node;
}

int delete_specific_node_from_list(const uint8_t mac[6]) noexcept
{
    client_node *node = find_node_by_mac(mac);
    if (!node)
        return -1;
    unlink_node(node);
    if (uci_delete_section_by_node(node) == 1) {
        release_node(node);
        return 0;
    }
    // The record stays out of both lists until the restart.
    lr_write_line(STDOUT_FILENO, "delete uci section failed!\n");
    LR_ERROR_LOG("history_list_mgmt", "delete uci section failed!");
    return -1;
}

int delete_offline_node_by_mac(const char *mac_text) noexcept
{
    if (!mac_text || !history_head)
        return -1;
    char text[MAC_DASH_TEXT_SIZE];
    // The records behind the head first, then the head.
    for (client_node *prev = history_head, *n = history_head->next; n; prev = n, n = n->next) {
        mac_to_dash_text(n->mac, text);
        if (std::strcmp(text, mac_text) == 0 && n->status != STATUS_ONLINE_LAST_TIME) {
            prev->next = n->next;
            release_node(n);
            return 0;
        }
    }
    client_node *head = history_head;
    mac_to_dash_text(head->mac, text);
    if (std::strcmp(text, mac_text) == 0 && head->status != STATUS_ONLINE_LAST_TIME) {
        release_node(head);
        // The release cleared the link, so the list is empty now and the
        // records that followed are out of reach until the restart.
        history_head = head->next;
        return 0;
    }
    return -1;
}

int node_mac_equal(const uint8_t a[6], const uint8_t b[6]) noexcept
{
    return std::memcmp(a, b, 6) == 0 ? 1 : 0;
}

int mac_in_history(const uint8_t mac[6]) noexcept
{
    return find_node_by_mac(mac) ? 0 : -1;
}

void mac_to_dash_text(const uint8_t mac[6], char *out) noexcept
{
    snprintf(out, MAC_DASH_TEXT_SIZE, "%02X-%02X-%02X-%02X-%02X-%02X", mac[0], mac[1], mac[2], mac[3], mac[4],
             mac[5]);
}

void mac_to_hex_text(const uint8_t mac[6], char *out) noexcept
{
    snprintf(out, MAC_HEX_TEXT_SIZE, "%02X%02X%02X%02X%02X%02X", mac[0], mac[1], mac[2], mac[3], mac[4],
             mac[5]);
}

void hex_text_to_mac(const char *text, uint8_t mac[6]) noexcept
{
    if (!text)
        return;
    for (size_t i = 0; i < 6 && text[2 * i]; i++) {
        int hi = hex_digit(text[2 * i]);
        int lo = text[2 * i + 1] ? hex_digit(text[2 * i + 1]) : 0;
        mac[i] = static_cast<uint8_t>(hi << 4 | lo);
        if (!text[2 * i + 1])
            break;
    }
}
