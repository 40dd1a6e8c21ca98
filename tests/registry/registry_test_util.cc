#include "registry_test_util.h"

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <fstream>
#include <gtest/gtest.h>
#include <memory>
#include <sstream>
#include <sys/stat.h>
#include <unistd.h>

#include "core/openwrt.h"
#include "core/text.h"
#include "tests/sandbox/sandbox.h"

namespace regtest {

namespace {

memory_queue test_queue;
client_node test_nodes[MEMORY_QUEUE_SIZE];

bool install_standins()
{
    if (!sandbox::private_mounts() || !sandbox::mount_tmpfs("/etc") || !sandbox::mount_tmpfs("/tmp") ||
        !sandbox::mount_tmpfs("/var"))
        return false;
    mkdir("/etc/config", 0755);
    mkdir("/etc/crontabs", 0755);
    mkdir("/etc/init.d", 0755);
    mkdir("/var/state", 0755);
    mkdir("/tmp/bin", 0755);
    write_file("/etc/config/history_list", "");
    write_file("/etc/init.d/cron", "#!/bin/sh\necho \"$*\" >> /tmp/cron.calls\n", 0755);
    write_file("/tmp/bin/lua", "#!/bin/sh\nfor a in \"$@\"; do echo \"$a\"; done >> /tmp/lua.calls\n",
               0755);
    std::string path = std::string("/tmp/bin:") + (getenv("PATH") ? getenv("PATH") : "/usr/bin:/bin");
    setenv("PATH", path.c_str(), 1);
    return true;
}

}  // namespace

bool run_in_sandbox(const std::function<void()> &body)
{
    return sandbox::in_child(install_standins, body);
}

void fresh_pool()
{
    for (client_node *n = get_history_list(); n;) {
        client_node *next = n->next;
        free_ip6_globals(n);
        n = next;
    }
    std::memset(static_cast<void *>(test_nodes), 0, sizeof(test_nodes));
    for (int i = 0; i + 1 < MEMORY_QUEUE_SIZE; i++)
        test_nodes[i].next = &test_nodes[i + 1];
    test_queue.head = &test_nodes[0];
    test_queue.tail = &test_nodes[MEMORY_QUEUE_SIZE - 1];
    client_pool = &test_queue;
    set_history_list(nullptr);
}

int pool_count()
{
    int n = 0;
    for (client_node *p = client_pool ? client_pool->head : nullptr; p; p = p->next)
        n++;
    return n;
}

int list_count()
{
    int n = 0;
    for (client_node *p = get_history_list(); p; p = p->next)
        n++;
    return n;
}

std::vector<int> list_order()
{
    std::vector<int> out;
    for (client_node *p = get_history_list(); p; p = p->next)
        out.push_back(p->mac[4] << 8 | p->mac[5]);
    return out;
}

std::vector<int> list_statuses()
{
    std::vector<int> out;
    for (client_node *p = get_history_list(); p; p = p->next)
        out.push_back(p->status);
    return out;
}

client_node *add_node(int id, uint8_t status, uint8_t guest)
{
    client_node *n = delete_oldest_node_from_list();
    if (!n)
        return nullptr;
    test_mac(n->mac, id);
    n->guest = guest;
    snprintf(n->hostname, sizeof(n->hostname), "host");
    if (status == STATUS_NEW_ACCESS || status == STATUS_RECONNECT || status == STATUS_DISCONNECT)
        set_node_status(n, status);
    else {
        // Linked at the head and then given its status, as the handlers do.
        set_node_status(n, STATUS_NEW_ACCESS);
        n->status = status;
    }
    return n;
}

client_table_entry *entries::add(int id, const char *hostname, uint8_t guest, uint8_t wire_type,
                                 uint32_t ip)
{
    client_table_entry e{};
    test_mac(e.mac, id);
    copy_str(e.hostname, hostname);
    e.guest = guest;
    e.wire_type = wire_type;
    e.ip = ip;
    e.device_type = -1;
    e.type_source = TYPE_SOURCE_NONE;
    list_.push_back(e);
    client_table_entry *added = &list_.back();
    if (list_.size() > 1)
        list_[list_.size() - 2].next = added;
    return added;
}

std::map<std::string, section_map> read_history()
{
    std::map<std::string, section_map> out;
    uci_context *ctx = uci_alloc_context();
    uci_set_confdir(ctx, "/etc/config");
    uci_package *pkg = nullptr;
    if (uci_load(ctx, "history_list", &pkg) == UCI_OK) {
        uci_element *e = nullptr;
        uci_foreach_element(&pkg->sections, e)
        {
            section_map m;
            uci_element *o = nullptr;
            uci_foreach_element(&uci_to_section(e)->options, o)
            {
                if (uci_to_option(o)->type == UCI_TYPE_STRING)
                    m[o->name] = uci_to_option(o)->v.string;
            }
            out[m["mac"]] = m;
        }
    }
    uci_free_context(ctx);
    return out;
}

std::vector<std::string> history_macs()
{
    std::vector<std::string> out;
    uci_context *ctx = uci_alloc_context();
    uci_set_confdir(ctx, "/etc/config");
    uci_package *pkg = nullptr;
    if (uci_load(ctx, "history_list", &pkg) == UCI_OK) {
        uci_element *e = nullptr;
        uci_foreach_element(&pkg->sections, e)
        {
            const char *mac = uci_lookup_option_string(ctx, uci_to_section(e), "mac");
            out.push_back(mac ? mac : "");
        }
    }
    uci_free_context(ctx);
    return out;
}

std::string hex_mac(int id)
{
    uint8_t mac[6];
    test_mac(mac, id);
    char text[MAC_HEX_TEXT_SIZE];
    mac_to_hex_text(mac, text);
    return text;
}

void write_file(const std::string &path, const std::string &text, unsigned mode)
{
    int fd = open(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC, mode);
    if (fd < 0)
        return;
    ssize_t r = write(fd, text.data(), text.size());
    (void)r;
    fchmod(fd, mode);
    close(fd);
}

std::string read_file(const std::string &path)
{
    std::ifstream f(path);
    std::stringstream ss;
    ss << f.rdbuf();
    return ss.str();
}

bool file_exists(const std::string &path)
{
    return access(path.c_str(), F_OK) == 0;
}

std::string capture_stdout(const std::function<void()> &fn)
{
    fflush(stdout);
    char name[] = "/tmp/stdout.XXXXXX";
    int fd = mkstemp(name);
    int saved = dup(1);
    dup2(fd, 1);
    fn();
    fflush(stdout);
    dup2(saved, 1);
    close(saved);
    close(fd);
    std::string out = read_file(name);
    unlink(name);
    return out;
}

}  // namespace regtest
