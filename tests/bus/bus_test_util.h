// Helpers of the bus tests: the daemon's bus face on a private ubusd, a
// caller on its own connection, and readers of reply blobs.
#pragma once

#include <string>
#include <utility>
#include <vector>

#include "../platform/libubus/ubus_fixture.h"
#include "core/openwrt.h"

namespace bus_test
{

// One field of a reply: its name and its value as text (numbers in
// decimal, INT32 as signed).
using field = std::pair<std::string, std::string>;
using table = std::vector<field>;

// The tables of the array `array` at the root of `root` (a reply or a
// blob_buf head), fields in their order.
std::vector<table> tables_of(blob_attr *root, const char *array);
// The fields at the root, nested values as JSON.
table fields_of(blob_attr *root);
// The names of a table, in order.
std::vector<std::string> keys_of(const table &t);
// A field's value; "<absent>" when the table hasn't it.
std::string value_of(const table &t, const std::string &key);

struct call_result {
    int status = -1;
    std::vector<std::string> replies; // compact JSON, one per data message
};

// Points the daemon's fixed socket path at `socket` (a private ubusd's) by
// a symbolic link; an empty path removes the link. Only in the sandbox
// (lr_add_gtest(... SANDBOX)), where "/var/run" is the test's own.
bool point_bus_at(const std::string &socket);

// The daemon's bus face (lanroster_ubus_init) on a private ubusd, served on
// a thread of its own, plus a second connection that makes the calls.
class BusFixture
{
  public:
    BusFixture();
    ~BusFixture();
    call_result call(const char *object, const char *method, const char *json);
    // Sends an event from the caller's connection and waits until the bus
    // face has handled every message before it.
    void send_event(const char *name, const char *json);
    ubus_context *caller()
    {
        return caller_;
    }
    // Stops serving the daemon's connection, so that the test thread may
    // use it (lanroster_ubus_deinit waits for its own replies).
    void stop_server();
    bool ok() const
    {
        return ok_;
    }

  private:
    ubus_test::Ubusd ubusd_;
    ubus_test::Server *server_ = nullptr;
    ubus_context *caller_ = nullptr;
    bool ok_ = false;
};

} // namespace bus_test
