#include "core/children.h"

#include <csignal>

#include "core/log.h"

namespace
{

// Does nothing: the point is that the handler is not SIG_DFL, so libubox
// installs none, and that it is not SIG_IGN, which would make the kernel
// reap the children before anybody could wait for them.
void on_child_signal(int) noexcept {}

} // namespace

int child_signals_init() noexcept
{
    struct sigaction sa {
    };
    sa.sa_handler = on_child_signal;
    sigemptyset(&sa.sa_mask);
    sa.sa_flags = SA_RESTART | SA_NOCLDSTOP;
    if (sigaction(SIGCHLD, &sa, nullptr) != 0) {
        lr_perror("sigaction");
        return -1;
    }
    return 0;
}
