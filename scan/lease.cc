#include "scan/lease.h"


#include <arpa/inet.h>
#include <cerrno>
#include <climits>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <json-c/json.h>
#include <memory>
#include <sys/file.h>
#include <unistd.h>

#include "core/log.h"
#include "core/text.h"

char lease_file_name[100] = {};

namespace
{

// Reads white-space separated columns the way the C library's scanf reads
// "%d" and "%Ns": a column longer than its width is cut, and its rest is
// the next column. A conversion that finds nothing stops the line and
// leaves the later columns as they were.
class column_scanner
{
  public:
    explicit column_scanner(std::string_view line) noexcept : text_(line.substr(0, line.find('\0'))) {}

    bool read_int(int &out) noexcept
    {
        skip_space();
        size_t i = pos_;
        bool negative = false;
        if (i < text_.size() && (text_[i] == '+' || text_[i] == '-'))
            negative = text_[i++] == '-';
        size_t digits = i;
        long long value = 0;
        while (i < text_.size() && text_[i] >= '0' && text_[i] <= '9') {
            if (value <= INT_MAX)
                value = value * 10 + (text_[i] - '0');
            i++;
        }
        if (i == digits)
            return false;
        pos_ = i;
        value = negative ? -value : value;
        out = static_cast<int>(value > INT_MAX ? INT_MAX : value < INT_MIN ? INT_MIN : value);
        return true;
    }

    template <size_t N> bool read_word(char (&out)[N]) noexcept
    {
        skip_space();
        size_t start = pos_;
        while (pos_ < text_.size() && pos_ - start < N - 1 && !is_space(text_[pos_]))
            pos_++;
        if (pos_ == start)
            return false;
        copy_str(out, text_.substr(start, pos_ - start));
        return true;
    }

  private:
    static bool is_space(char c) noexcept
    {
        return c == ' ' || (c >= '\t' && c <= '\r');
    }
    void skip_space() noexcept
    {
        while (pos_ < text_.size() && is_space(text_[pos_]))
            pos_++;
    }

    std::string_view text_;
    size_t pos_ = 0;
};

int hex_value(char c) noexcept
{
    if (c >= '0' && c <= '9')
        return c - '0';
    if (c >= 'a' && c <= 'f')
        return c - 'a' + 10;
    if (c >= 'A' && c <= 'F')
        return c - 'A' + 10;
    return -1;
}

struct file_closer {
    void operator()(FILE *f) const noexcept
    {
        fclose(f);
    }
};
using file_ptr = std::unique_ptr<FILE, file_closer>;

struct json_putter {
    void operator()(json_object *o) const noexcept
    {
        json_object_put(o);
    }
};

// One line at a time from getline, its buffer freed at the end.
class line_reader
{
  public:
    explicit line_reader(FILE *f) noexcept : file_(f) {}
    ~line_reader()
    {
        free(buf_);
    }
    line_reader(const line_reader &) = delete;
    line_reader &operator=(const line_reader &) = delete;

    bool next(std::string_view &line) noexcept
    {
        ssize_t n = getline(&buf_, &size_, file_);
        if (n < 0)
            return false;
        line = std::string_view(buf_, static_cast<size_t>(n));
        return true;
    }

  private:
    FILE *file_;
    char *buf_ = nullptr;
    size_t size_ = 0;
};

// The DHCPv6 list; written only by the scan pass under the client table's
// write lock, and read by the same pass.
ip6_lease_row *dhcpv6_head = nullptr;

void free_dhcpv6_list() noexcept
{
    while (dhcpv6_head) {
        ip6_lease_row *next = dhcpv6_head->next;
        free(dhcpv6_head);
        dhcpv6_head = next;
    }
}

// The DHCPv6 writer's lock, released however the read ends.
class lease_lock
{
  public:
    lease_lock() noexcept : fd_(open(DHCPV6_LOCK_FILE, O_RDWR | O_CREAT | O_CLOEXEC, 0600))
    {
        if (fd_ >= 0)
            while (flock(fd_, LOCK_EX) != 0 && errno == EINTR) {
            }
    }
    ~lease_lock()
    {
        if (fd_ >= 0) {
            flock(fd_, LOCK_UN);
            close(fd_);
        }
    }
    lease_lock(const lease_lock &) = delete;
    lease_lock &operator=(const lease_lock &) = delete;

  private:
    int fd_;
};

} // namespace

void decode_lease_mac(std::string_view text, uint8_t mac[6]) noexcept
{
    std::memset(mac, 0, 6);
    size_t index = 0;
    unsigned value = 0;
    for (char c : text) {
        int digit = hex_value(c);
        if (digit >= 0) {
            value = (value << 4 | static_cast<unsigned>(digit)) & 0xff;
            continue;
        }
        if (index < 6)
            mac[index] = static_cast<uint8_t>(value);
        index++;
        value = 0;
    }
    if (index < 6)
        mac[index] = static_cast<uint8_t>(value);
}

bool parse_lease_line(std::string_view line, lease_scan &scan, lease_row &row) noexcept
{
    column_scanner columns(line);
    if (columns.read_int(scan.expiry) && columns.read_word(scan.mac) && columns.read_word(scan.ip) &&
        columns.read_word(scan.hostname) && columns.read_word(scan.client_id))
        columns.read_int(scan.type);
    if (scan.expiry == -1 || scan.mac[0] == '\0' || scan.ip[0] == '\0')
        return false;
    row = {};
    decode_lease_mac(std::string_view(scan.mac, strnlen(scan.mac, sizeof(scan.mac))), row.mac);
    copy_str(row.hostname, std::string_view(scan.hostname, strnlen(scan.hostname, sizeof(scan.hostname))));
    copy_str(row.ip, std::string_view(scan.ip, strnlen(scan.ip, sizeof(scan.ip))));
    row.type = scan.type;
    return true;
}

int read_dhcp_leases(lease_row **rows, int *capacity) noexcept
{
    file_ptr file(fopen(lease_file_name, "r+"));
    if (!file) {
        lr_write_line(STDERR_FILENO, "lanroster: dhcp.leases open error.\n");
        return 0;
    }
    line_reader lines(file.get());
    lease_scan scan;
    int count = 0;
    std::string_view line;
    while (lines.next(line)) {
        lease_row row{};
        if (!parse_lease_line(line, scan, row))
            continue;
        if (count >= *capacity) {
            size_t grown = static_cast<size_t>(count) + LEASE_ROWS_STEP;
            auto *bigger = static_cast<lease_row *>(realloc(*rows, grown * sizeof(lease_row)));
            if (!bigger) {
                lr_write_line(STDERR_FILENO, "lanroster: out of memory!\n");
                return -2;
            }
            *rows = bigger;
            *capacity = static_cast<int>(grown);
        }
        (*rows)[count++] = row;
    }
    return count;
}

int find_lease_by_mac(lease_row *out, const uint8_t mac[6]) noexcept
{
    int capacity = LEASE_ROWS_START;
    auto *rows = static_cast<lease_row *>(calloc(static_cast<size_t>(capacity), sizeof(lease_row)));
    if (!rows)
        return 0;
    int count = read_dhcp_leases(&rows, &capacity);
    int found = 0;
    for (int i = 0; i < count && !found; i++) {
        if (std::memcmp(rows[i].mac, mac, 6) == 0) {
            *out = rows[i];
            found = 1;
        }
    }
    free(rows);
    return found;
}

bool parse_dhcpv6_line(std::string_view line, ip6_lease_row &row) noexcept
{
    row.hostname[0] = '\0';
    row.ip6[0] = '\0';
    column_scanner columns(line);
    if (columns.read_word(row.hostname))
        columns.read_word(row.ip6);
    return row.ip6[0] != '\0';
}

void read_dhcpv6_leases() noexcept
{
    free_dhcpv6_list();
    lease_lock lock;
    file_ptr file(fopen(DHCPV6_LEASE_FILE, "r+"));
    if (!file) {
        lr_write_line(STDERR_FILENO, "lanroster: dhcpv6.leases open error.\n");
        return;
    }
    line_reader lines(file.get());
    ip6_lease_row **tail = &dhcpv6_head;
    std::string_view line;
    while (lines.next(line)) {
        ip6_lease_row parsed{};
        if (!parse_dhcpv6_line(line, parsed))
            continue;
        auto *row = static_cast<ip6_lease_row *>(malloc(sizeof(ip6_lease_row)));
        if (!row)
            break;
        *row = parsed;
        row->next = nullptr;
        *tail = row;
        tail = &row->next;
    }
}

const ip6_lease_row *dhcpv6_lease_list() noexcept
{
    return dhcpv6_head;
}

char *dhcpv6_hostname(const uint8_t address[16]) noexcept
{
    if (address[0] == 0 && address[1] == 0 && address[2] == 0)
        return nullptr;
    char text[INET6_ADDRSTRLEN] = {};
    if (!inet_ntop(AF_INET6, address, text, sizeof(text)))
        return nullptr;
    for (const ip6_lease_row *row = dhcpv6_head; row; row = row->next) {
        if (std::strncmp(row->ip6, text, sizeof(row->ip6)) != 0)
            continue;
        auto *name = static_cast<char *>(calloc(1, sizeof(row->hostname)));
        if (name)
            std::memcpy(name, row->hostname, sizeof(row->hostname));
        return name;
    }
    return nullptr;
}

bool decode_hook_mac(std::string_view text, uint8_t mac[6]) noexcept
{
    if (text.size() < 17)
        return false;
    for (size_t i = 0; i < 6; i++) {
        int high = hex_value(text[i * 3]);
        int low = hex_value(text[i * 3 + 1]);
        if (high < 0 || low < 0)
            return false;
        if (i < 5 && text[i * 3 + 2] != ':' && text[i * 3 + 2] != '-')
            return false;
        mac[i] = static_cast<uint8_t>(high << 4 | low);
    }
    return true;
}

namespace
{

std::string_view json_text(json_object *value) noexcept
{
    const char *text = json_object_get_string(value);
    return text ? std::string_view(text) : std::string_view();
}

void fill_hook_client(json_object *item, hook_client *out, json_object *ipaddr) noexcept
{
    *out = {};
    copy_str(out->ipaddr, json_text(ipaddr), 15);
    json_object *value = nullptr;
    out->type = json_object_object_get_ex(item, "type", &value) ? json_object_get_int(value) : -1;
    if (json_object_object_get_ex(item, "name", &value)) {
        copy_str(out->name, json_text(value), 64);
        json_object *ok = nullptr;
        out->obt_name_ok = json_object_object_get_ex(item, "obt_name_ok", &ok) ? json_object_get_int(ok) : 1;
    } else {
        copy_str(out->name, "network device");
        out->obt_name_ok = 0;
    }
}

} // namespace

int hook_lookup_in(json_object *root, hook_client *out, const uint8_t mac[6]) noexcept
{
    if (!root || !json_object_is_type(root, json_type_array))
        return 0;
    size_t n = json_object_array_length(root);
    for (size_t i = 0; i < n; i++) {
        json_object *item = json_object_array_get_idx(root, i);
        if (!item || !json_object_is_type(item, json_type_object))
            continue;
        json_object *value = nullptr;
        uint8_t item_mac[6];
        // A record the node's own writer could not have made means the
        // file is not trusted any further.
        if (!json_object_object_get_ex(item, "mac", &value) || !decode_hook_mac(json_text(value), item_mac))
            return 0;
        if (std::memcmp(item_mac, mac, 6) != 0)
            continue;
        json_object *ipaddr = nullptr;
        if (!json_object_object_get_ex(item, "ipaddr", &ipaddr))
            return 0;
        fill_hook_client(item, out, ipaddr);
        return 1;
    }
    return 0;
}

int hook_lookup(hook_client *out, const uint8_t mac[6]) noexcept
{
    std::unique_ptr<json_object, json_putter> root(json_object_from_file(HOOK_FILE));
    return hook_lookup_in(root.get(), out, mac);
}
