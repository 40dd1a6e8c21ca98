// Helpers of the event tests: a pool of tasks without workers, so that
// what the intake posts stays in the queue to be looked at, and datagrams
// of neighbour messages.
#pragma once

#include <cstdint>
#include <vector>

#include "core/threadpool.h"
#include "events/nl_intake.h"

namespace evtest
{

// A pool with no worker, set as the process's pool. Tasks stay queued.
threadpool *idle_pool();
// Takes every queued task out; each datagram's bytes, in order. The tasks
// and their copies are freed.
std::vector<std::vector<uint8_t>> drain_pool(threadpool *pool);
int queued(threadpool *pool);

// A heap copy of `bytes` as the intake posts it, for nl_neigh_handle.
nl_event_msg *copy_msg(const std::vector<uint8_t> &bytes);

} // namespace evtest
