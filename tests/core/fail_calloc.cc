// Makes calloc fail for blocks of one chosen size, from outside the daemon's
// code: the test executable's own calloc takes the place of the C library's
// for the whole process. Only in builds without sanitizers, whose runtimes
// own calloc themselves.
#include "tests/core/fail_calloc.h"

#include <cerrno>

extern "C" void *__libc_calloc(size_t count, size_t size);

std::atomic<size_t> fail_calloc_size{0};
std::atomic<int> fail_calloc_count{0};

extern "C" void *calloc(size_t count, size_t size)
{
    size_t wanted = fail_calloc_size.load(std::memory_order_relaxed);
    if (wanted != 0 && count == 1 && size == wanted) {
        fail_calloc_count.fetch_add(1, std::memory_order_relaxed);
        errno = ENOMEM;
        return nullptr;
    }
    return __libc_calloc(count, size);
}
