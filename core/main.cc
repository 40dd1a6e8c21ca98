// lanroster: takes no arguments, reads no environment; everything it needs
// is in UCI and on the bus.
#include "core/startup.h"

int main()
{
    return lanroster_main();
}
