#include "scan/bridge.h"

int read_bridges(uint8_t ** /*buffer*/, int * /*capacity*/) noexcept
{
    return 0;
}
