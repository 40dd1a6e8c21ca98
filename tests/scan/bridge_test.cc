// The bridge readers on real bridges in a private network namespace, and
// the forwarding table built from raw records.
#include <cstdlib>
#include <cstring>
#include <gtest/gtest.h>
#include <string>
#include <vector>

#include "netns_util.h"
#include "scan/bridge.h"

using scantest::capture_stdout;
using scantest::in_private_lan;
using scantest::sh;

namespace
{

struct raw_records {
    raw_records() : buf(static_cast<uint8_t *>(calloc(FDB_RECORDS_START, FDB_RAW_RECORD))) {}
    ~raw_records()
    {
        free(buf);
    }
    int read()
    {
        return read_bridges(&buf, &capacity);
    }
    uint8_t *buf;
    int capacity = FDB_RECORDS_START;
};

// The forwarding table of raw records, hashed, as the scan pass keeps it.
struct fdb_table {
    explicit fdb_table(const raw_records &raw, int count) : entries(count > 0 ? count : 1)
    {
        build_fdb_table(raw.buf, entries.data(), count, buckets);
    }
    std::vector<fdb_entry> entries;
    fdb_entry *buckets[FDB_BUCKETS] = {};
};

std::string port_name(const fdb_entry *e)
{
    char name[16] = {};
    if (!e || fdb_port_name(name, e->port_no, e->bridge) != 0)
        return "";
    return name;
}

void add_bridge(const char *name)
{
    ASSERT_TRUE(sh(std::string("ip link add ") + name + " type bridge"));
}

// A veth pair whose first end is a member of `bridge`.
void add_port(const char *bridge, const char *port)
{
    std::string p(port);
    ASSERT_TRUE(sh("ip link add " + p + " type veth peer name " + p + "-x"));
    ASSERT_TRUE(sh("ip link set " + p + " master " + bridge));
}

void add_static_mac(const char *port, const char *mac)
{
    ASSERT_TRUE(sh(std::string("bridge fdb add ") + mac + " dev " + port + " master static"));
}

const uint8_t mac_a[6] = {0x02, 0x00, 0x00, 0x00, 0x0a, 0x01};
const uint8_t mac_b[6] = {0x02, 0x00, 0x00, 0x00, 0x0b, 0x01};

} // namespace

TEST(BridgeHash, BucketOfTheMacWords)
{
    const uint8_t a[6] = {0xaa, 0xbb, 0xcc, 0xdd, 0xee, 0xff};
    const uint8_t b[6] = {0x02, 0x00, 0x00, 0x00, 0x00, 0x01};
    const uint8_t c[6] = {0x02, 0x4c, 0x52, 0x00, 0x10, 0x07};
    EXPECT_EQ(fdb_bucket(a), 77);
    EXPECT_EQ(fdb_bucket(b), 2);
    EXPECT_EQ(fdb_bucket(c), 104);
}

TEST(BridgeHash, RecordsGoToTheBridgeOfTheirRunningCount)
{
    bridge_count = 2;
    std::strcpy(bridge_table[0].name, "br-lan");
    bridge_table[0].record_count = 2;
    std::strcpy(bridge_table[1].name, "br-guest");
    bridge_table[1].record_count = 1;
    uint8_t raw[3 * FDB_RAW_RECORD] = {};
    for (int i = 0; i < 3; i++) {
        uint8_t *r = raw + i * FDB_RAW_RECORD;
        std::memcpy(r, mac_a, 6);
        r[5] = static_cast<uint8_t>(i); // same bucket for none, or some: order still holds
        r[6] = static_cast<uint8_t>(i + 1);
        r[7] = i == 1 ? 1 : 0;
        r[8] = 0x10; // ageing timer, host order
        r[12] = 0x01;
    }
    std::vector<fdb_entry> entries(3);
    fdb_entry *buckets[FDB_BUCKETS];
    build_fdb_table(raw, entries.data(), 3, buckets);
    EXPECT_STREQ(entries[0].bridge, "br-lan");
    EXPECT_STREQ(entries[1].bridge, "br-lan");
    EXPECT_STREQ(entries[2].bridge, "br-guest");
    EXPECT_EQ(entries[1].is_local, 1);
    EXPECT_EQ(entries[2].port_no, 3);
    EXPECT_EQ(entries[0].port_hi, 1);
    EXPECT_EQ(entries[0].ageing_timer, 0x10u);
    uint8_t third[6];
    std::memcpy(third, mac_a, 6);
    third[5] = 2;
    EXPECT_EQ(fdb_find(buckets, third), &entries[2]);
    bridge_count = 0;
}

TEST(BridgeHash, SameMacTwiceFindsTheFirstRecord)
{
    bridge_count = 0;
    uint8_t raw[2 * FDB_RAW_RECORD] = {};
    std::memcpy(raw, mac_b, 6);
    raw[6] = 4;
    std::memcpy(raw + FDB_RAW_RECORD, mac_b, 6);
    raw[FDB_RAW_RECORD + 6] = 5;
    std::vector<fdb_entry> entries(2);
    fdb_entry *buckets[FDB_BUCKETS];
    build_fdb_table(raw, entries.data(), 2, buckets);
    const fdb_entry *e = fdb_find(buckets, mac_b);
    ASSERT_NE(e, nullptr);
    EXPECT_EQ(e->port_no, 4);
    EXPECT_STREQ(e->bridge, ""); // beyond every bridge's records
    EXPECT_EQ(fdb_find(buckets, mac_a), nullptr);
}

TEST(BridgeReaders, NoBridgeGivesNoRecordsAndNoPorts)
{
    EXPECT_TRUE(in_private_lan([] {
        raw_records raw;
        EXPECT_EQ(raw.read(), 0);
        EXPECT_EQ(bridge_count, 0);
        EXPECT_EQ(bridge_port_count, 0);
        EXPECT_EQ(br_socket_fd, -1);
    }));
}

TEST(BridgeReaders, TwoBridgesKeepTheirNamesAndPortPairs)
{
    EXPECT_TRUE(in_private_lan([] {
        add_bridge("br-lan");
        add_bridge("br-guest");
        add_port("br-lan", "lan1");
        add_port("br-guest", "guest1");
        add_static_mac("lan1", "02:00:00:00:0a:01");
        add_static_mac("guest1", "02:00:00:00:0b:01");
        raw_records raw;
        int n = raw.read();
        ASSERT_GE(n, 2);
        ASSERT_EQ(bridge_count, 2);
        EXPECT_STREQ(bridge_table[0].name, "br-guest"); // alphabetical
        EXPECT_STREQ(bridge_table[1].name, "br-lan");
        EXPECT_EQ(bridge_table[0].record_count + bridge_table[1].record_count, n);
        EXPECT_EQ(bridge_port_count, 2);
        fdb_table t(raw, n);
        const fdb_entry *a = fdb_find(t.buckets, mac_a);
        const fdb_entry *b = fdb_find(t.buckets, mac_b);
        ASSERT_NE(a, nullptr);
        ASSERT_NE(b, nullptr);
        EXPECT_STREQ(a->bridge, "br-lan");
        EXPECT_STREQ(b->bridge, "br-guest");
        EXPECT_EQ(a->is_local, 0);
        // Both ports are port 1 of their bridge: the pair decides.
        EXPECT_EQ(a->port_no, b->port_no);
        EXPECT_EQ(port_name(a), "lan1");
        EXPECT_EQ(port_name(b), "guest1");
        char name[16];
        EXPECT_EQ(fdb_port_name(name, a->port_no, "br-none"), -1);
    }));
}

TEST(BridgeReaders, ManyRecordsAreReadInChunks)
{
    EXPECT_TRUE(in_private_lan([] {
        add_bridge("br-lan");
        add_port("br-lan", "lan1");
        std::string batch;
        for (int i = 0; i < 150; i++) {
            char line[96];
            std::snprintf(line, sizeof(line), "fdb add 02:00:00:01:%02x:%02x dev lan1 master static\n",
                          i / 256, i % 256);
            batch += line;
        }
        scantest::write_file("/tmp/fdb.batch", batch);
        ASSERT_TRUE(sh("bridge -batch /tmp/fdb.batch"));
        raw_records raw;
        int n = raw.read();
        ASSERT_GE(n, 150);
        EXPECT_GE(raw.capacity, n);
        fdb_table t(raw, n);
        int found = 0;
        for (int i = 0; i < 150; i++) {
            const uint8_t mac[6] = {
                0x02, 0, 0, 0x01, static_cast<uint8_t>(i / 256), static_cast<uint8_t>(i % 256)};
            const fdb_entry *e = fdb_find(t.buckets, mac);
            found += e && port_name(e) == "lan1";
        }
        EXPECT_EQ(found, 150);
    }));
}

TEST(BridgeReaders, MoreThanPortnumMembersStopAt64WithOneError)
{
    EXPECT_TRUE(in_private_lan([] {
        add_bridge("br-lan");
        std::string batch;
        for (int i = 0; i < 66; i++)
            batch += "link add d" + std::to_string(i) + " type veth peer name x" + std::to_string(i) +
                     "\nlink set d" + std::to_string(i) + " master br-lan\n";
        scantest::write_file("/tmp/links.batch", batch);
        ASSERT_TRUE(sh("ip -batch /tmp/links.batch"));
        raw_records raw;
        std::string out = capture_stdout([&] { EXPECT_GE(raw.read(), 0); });
        EXPECT_EQ(bridge_port_count, PORTNUM);
        const std::string error = "Error: count2(64) >= PORTNUM(64)";
        size_t at = out.find(error);
        EXPECT_NE(at, std::string::npos) << out;
        EXPECT_EQ(out.find(error, at + 1), std::string::npos) << out;
    }));
}

TEST(BridgeReaders, PortNumbersComeFromTheBrportFiles)
{
    EXPECT_TRUE(in_private_lan([] {
        add_bridge("br-lan");
        add_port("br-lan", "lan1");
        add_port("br-lan", "lan2");
        add_port("br-lan", "wl0");
        raw_records raw;
        raw.read();
        ASSERT_EQ(bridge_port_count, 3);
        // scandir's order: lan1, lan2, wl0, numbered 1, 2, 3 by the kernel.
        EXPECT_STREQ(bridge_port_table[0].ifname, "lan1");
        EXPECT_EQ(bridge_port_table[0].port_no, 1);
        EXPECT_EQ(bridge_port_table[1].port_no, 2);
        EXPECT_STREQ(bridge_port_table[2].ifname, "wl0");
        EXPECT_EQ(bridge_port_table[2].port_no, 3);
        EXPECT_STREQ(bridge_port_table[2].bridge, "br-lan");
    }));
}

TEST(BridgeReaders, MacsOnTheSamePortAreTheNonLocalOnes)
{
    EXPECT_TRUE(in_private_lan([] {
        add_bridge("br-lan");
        add_port("br-lan", "lan1");
        add_port("br-lan", "lan2");
        add_static_mac("lan1", "02:00:00:00:0a:01");
        add_static_mac("lan1", "02:00:00:00:0a:02");
        add_static_mac("lan1", "02:00:00:00:0a:03");
        add_static_mac("lan2", "02:00:00:00:0b:01");
        int capacity = 2; // grows by 32 MACs when full
        auto *macs = static_cast<uint8_t *>(calloc(static_cast<size_t>(capacity), 6));
        int n = macs_on_same_port(&macs, &capacity, mac_a);
        ASSERT_EQ(n, 3);
        EXPECT_GE(capacity, 3);
        for (int i = 0; i < n; i++) {
            EXPECT_EQ(std::memcmp(macs + i * 6, mac_a, 5), 0);
            EXPECT_NE(macs[i * 6 + 5], 0);
        }
        const uint8_t nobody[6] = {0x02, 0, 0, 0, 0xee, 0xee};
        EXPECT_EQ(macs_on_same_port(&macs, &capacity, nobody), 0);
        EXPECT_EQ(macs_on_same_port(&macs, &capacity, mac_b), 1);
        EXPECT_EQ(std::memcmp(macs, mac_b, 6), 0);
        free(macs);
        EXPECT_EQ(br_socket_fd, -1);
    }));
}

TEST(BridgeReaders, OneBridgeReadAlone)
{
    EXPECT_TRUE(in_private_lan([] {
        add_bridge("br-lan");
        add_port("br-lan", "lan1");
        add_static_mac("lan1", "02:00:00:00:0a:01");
        int capacity = 1;
        auto *buf = static_cast<uint8_t *>(calloc(1, FDB_RAW_RECORD));
        int n = fdb_read("br-lan", &buf, &capacity);
        EXPECT_GE(n, 1);
        EXPECT_GE(capacity, FDB_CHUNK);
        bool seen = false;
        for (int i = 0; i < n; i++)
            seen = seen || std::memcmp(buf + i * FDB_RAW_RECORD, mac_a, 6) == 0;
        EXPECT_TRUE(seen);
        free(buf);
    }));
}
