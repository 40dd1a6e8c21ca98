#pragma once

#include <atomic>
#include <cstddef>

// While non-zero, calloc(1, fail_calloc_size) returns NULL and counts the
// refusal in fail_calloc_count.
extern std::atomic<size_t> fail_calloc_size;
extern std::atomic<int> fail_calloc_count;
