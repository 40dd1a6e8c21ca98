#include "scan/exec.h"

#include <cstdio>
#include <cstring>
#include <memory>

#include "core/log.h"

namespace
{

struct pipe_closer {
    void operator()(FILE *f) const noexcept
    {
        pclose(f);
    }
};

} // namespace

int exec_and_res(const char *command, char *buffer, size_t size) noexcept
{
    if (!command || !buffer)
        return -1;
    std::memset(buffer, 0, size);
    std::unique_ptr<FILE, pipe_closer> out(popen(command, "r"));
    if (!out) {
        LR_LOG(7, "[lr error] exec '%s'error", command);
        return -1;
    }
    size_t n = fread(buffer, 1, size, out.get());
    return static_cast<int>(n);
}
