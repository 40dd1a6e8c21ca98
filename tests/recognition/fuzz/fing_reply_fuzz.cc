// The recognition service's reply file: any bytes go through the reply
// reader into the records, the history package and the state store. The
// harness gives itself private "/etc", "/var" and "/tmp" on its first input
// (it needs root), so nothing of the machine's own state is touched.
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <sched.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <unistd.h>

#include "recognition/fing_report.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size);

namespace
{

bool private_mounts()
{
    if (unshare(CLONE_NEWNS) != 0 || mount(nullptr, "/", nullptr, MS_REC | MS_PRIVATE, nullptr) != 0) {
        perror("private mount namespace (the harness needs root)");
        return false;
    }
    for (const char *dir : {"/etc", "/var", "/tmp"}) {
        if (mount("none", dir, "tmpfs", 0, "mode=0755") != 0) {
            perror(dir);
            return false;
        }
    }
    mkdir("/etc/config", 0755);
    mkdir("/var/state", 0755);
    mkdir("/tmp/fing", 0755);
    FILE *f = std::fopen("/etc/config/history_list", "w");
    if (f)
        std::fclose(f);
    f = std::fopen("/etc/config/fing", "w");
    if (f) {
        std::fputs("config state 'global'\n\toption mac_num '0'\n", f);
        std::fclose(f);
    }
    return true;
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    static bool ready = private_mounts();
    if (!ready)
        abort();
    // The batch behind a reply is not there, so a refusal retries nothing.
    update_fing_type_from_text("/tmp/batch", reinterpret_cast<const char *>(data), size, 1700000000);
    // Doubling stops once the wait reaches FING_WAIT_MAX; from a random
    // start of 2 to 9 s after a success that is below twice the limit.
    if (wait_cloud_time < 2 || wait_cloud_time >= 2 * FING_WAIT_MAX)
        abort();
    return 0;
}
