// The vendor library's header; it may come without an extern "C" guard.
#pragma once

extern "C" {
#include <mac_oui.h>
}
