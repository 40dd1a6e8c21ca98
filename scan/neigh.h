// The kernel's neighbour table over rtnetlink: the full dump of both
// address families that the scan pass walks, and the walker over it.
#pragma once

#include <cstddef>
#include <cstdint>
#include <span>

// Netlink receive buffer, and the step in which a dump buffer grows.
inline constexpr size_t NEIGH_RECV_BUF = 16384;
inline constexpr size_t NEIGH_GROW_STEP = 8192;
// What the scan pass hands the dump to start with.
inline constexpr int NEIGH_DUMP_START = 16384;

inline constexpr uint16_t NUD_STATE_FAILED = 0x20;
inline constexpr uint16_t NUD_STATE_NOARP = 0x40;

// One neighbour message of a dump, pointing into the dump buffer.
struct neigh_msg {
    uint8_t family;
    uint16_t state;
    int32_t ifindex;
    std::span<const uint8_t> dst;    // NDA_DST, empty when absent
    std::span<const uint8_t> lladdr; // NDA_LLADDR, empty when absent
};

// Walks concatenated netlink messages in place and yields the neighbour
// messages (RTM_NEWNEIGH). It stops for good at a rest shorter than a
// header, a length out of bounds, or a done or error message.
class neigh_walker
{
  public:
    explicit neigh_walker(std::span<const uint8_t> buf) : rest_(buf) {}
    bool next(neigh_msg &out) noexcept;

  private:
    std::span<const uint8_t> rest_;
};

// What one received datagram of a dump says.
enum class neigh_datagram { more, done, error, remnant };
neigh_datagram check_neigh_datagram(std::span<const uint8_t> dgram) noexcept;

// Dumps the whole neighbour table (all families) into *buffer, a malloc'd
// block of *capacity bytes that grows in steps of 8192 as needed. Returns the
// byte count, the final done message included, or -1 with a message on
// standard error.
int dump_neighbours(uint8_t **buffer, int *capacity) noexcept;

// The same over a netlink socket that is already open and bound: sends the
// dump request and collects the reply. The socket stays open.
int dump_neighbours_on(int fd, uint8_t **buffer, int *capacity) noexcept;

// Appends one datagram to the dump buffer, growing it in 8192-byte steps.
int append_datagram(uint8_t **buffer, int *capacity, int used, std::span<const uint8_t> dgram) noexcept;

// Finds in a reply the first IPv4 neighbour whose address text is `ip_text`
// and that has a link-layer address; copies the MAC. 1 if found, else 0.
int find_neigh_mac(std::span<const uint8_t> buf, const char *ip_text, uint8_t mac[6]) noexcept;
