// The user's consent to the recognition service, as the running daemon last
// heard of it. The consent itself lives in the package "fing"; this value
// only spares the upload workers a read of it.
#pragma once

#include <atomic>
#include <cstdint>

// -1 not read yet, 1 consent given, 0 no consent. One 32-bit store, written
// on the loop thread and read by the workers without a lock.
extern std::atomic<int32_t> fing_auth_cache;
