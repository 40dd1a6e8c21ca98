// The station reader is not in yet: it fails, and the client list falls
// back to the values reported by mesh peers.
#include "db/stations.h"

int get_wireless_info(wireless_station **rows, int *count) noexcept
{
    if (rows)
        *rows = nullptr;
    if (count)
        *count = 0;
    return -1;
}
