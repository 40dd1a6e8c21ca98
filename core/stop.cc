#include "core/stop.h"

#include <atomic>
#include <cerrno>
#include <csignal>
#include <fcntl.h>
#include <unistd.h>

#include "core/log.h"
#include "core/openwrt.h"

namespace
{

// Lock-free on every target, so the handler may set it.
std::atomic<bool> stop_asked{false};
static_assert(std::atomic<bool>::is_always_lock_free);

int wake_pipe[2] = {-1, -1};

void on_stop_signal(int) noexcept
{
    int saved = errno;
    stop_asked.store(true, std::memory_order_release);
    if (wake_pipe[1] >= 0) {
        char byte = 1;
        ssize_t r = write(wake_pipe[1], &byte, 1);
        (void)r;
    }
    errno = saved;
}

void wake_pipe_cb(uloop_fd *fd, unsigned int) noexcept
{
    char drain[16];
    while (read(fd->fd, drain, sizeof(drain)) > 0) {
    }
    uloop_end();
}

uloop_fd wake_fd = [] {
    uloop_fd f{};
    f.cb = wake_pipe_cb;
    return f;
}();

} // namespace

int stop_signals_init() noexcept
{
    if (wake_pipe[0] < 0 && pipe2(wake_pipe, O_CLOEXEC | O_NONBLOCK) != 0) {
        lr_perror("pipe2");
        return -1;
    }
    struct sigaction sa {
    };
    sa.sa_handler = on_stop_signal;
    sigemptyset(&sa.sa_mask);
    sa.sa_flags = SA_RESTART;
    if (sigaction(SIGTERM, &sa, nullptr) != 0 || sigaction(SIGINT, &sa, nullptr) != 0) {
        lr_perror("sigaction");
        return -1;
    }
    return 0;
}

void stop_signals_watch() noexcept
{
    wake_fd.fd = wake_pipe[0];
    if (wake_fd.fd >= 0)
        uloop_fd_add(&wake_fd, ULOOP_READ);
}

bool lr_stopping() noexcept
{
    return stop_asked.load(std::memory_order_acquire);
}
