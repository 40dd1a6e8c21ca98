// The one place where the daemon includes the OpenWrt library headers.
// The libubox and iwinfo headers carry no extern "C" guard, so whether a
// C++ file links would otherwise depend on include order.
#pragma once

extern "C" {
#include <libubox/uloop.h>
#include <libubox/blob.h>
#include <libubox/blobmsg.h>
#include <libubox/blobmsg_json.h>
#include <libubus.h>
#include <uci.h>
#include <iwinfo.h>
}
