// lanroster_trace: the daemon with its console threshold at 7 from the
// start, so that lab tests see the start-up lines. Everything else is the
// daemon's own code.
#include "core/log.h"
#include "core/startup.h"

int main()
{
    log_level = 7;
    return lanroster_main();
}
