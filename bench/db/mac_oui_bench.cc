// How long the vendor library takes to load Debian's IEEE registries, and
// one lookup in them.
#include <benchmark/benchmark.h>

#include "db/mac_oui_lib.h"

namespace
{

void BM_LoadRegistries(benchmark::State &state)
{
    for (auto _ : state) {
        benchmark::DoNotOptimize(load_mac_oui_database());
        release_mac_oui_database();
    }
}
BENCHMARK(BM_LoadRegistries)->Unit(benchmark::kMillisecond);

void BM_Lookup(benchmark::State &state)
{
    load_mac_oui_database();
    unsigned char mac[6] = {0x00, 0x00, 0x0c, 0x12, 0x34, 0x56};
    char vendor[128];
    for (auto _ : state)
        benchmark::DoNotOptimize(query_mac_oui(mac, vendor, sizeof(vendor)));
    release_mac_oui_database();
}
BENCHMARK(BM_Lookup);

} // namespace

BENCHMARK_MAIN();
