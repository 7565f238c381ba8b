// Cost of the module map's lookups as the stack walker pays them at every frame.
#include <benchmark/benchmark.h>

#include <cstdint>
#include <algorithm>
#include <random>
#include <vector>

#include "module_map.h"

namespace {

// A layout like a mid-sized program's: n modules of 64 KiB code with 64 KiB holes between them.
struct fixture {
    vorx_module_map_t* map;
    vorx_module_map_cache_t* cache;
    std::vector<uint64_t> code, holes;

    explicit fixture(unsigned n) {
        map = vorx_alloc_module_map();
        cache = map->ops->create_cache(map);
        for (unsigned i = 0; i < n; ++i) {
            uint64_t start = 0x08000000ull + i * 0x20000ull;
            vorx_range_t r{start, start + 0x10000};
            map->ops->insert_range(map, &r, 1, 0);
            map->ops->add_module(map, "/usr/lib/libsomething.so", start, start + 0x10000, 0);
            code.push_back(start + 0x100);
            holes.push_back(start + 0x18000);
        }
        std::mt19937 rng(7);
        std::shuffle(code.begin(), code.end(), rng);
        std::shuffle(holes.begin(), holes.end(), rng);
    }
    ~fixture() {
        map->ops->destroy_cache(map, cache);
        vorx_free_module_map(map);
    }
};

// Consecutive frames in the same code: answered from the cache's hit range.
void BM_LookupCachedHit(benchmark::State& state) {
    fixture f(unsigned(state.range(0)));
    vorx_range_t r{f.code[0], f.code[0] + 1};
    for (auto _ : state) benchmark::DoNotOptimize(vorx_find_address_range(f.map, &r, f.cache));
}
BENCHMARK(BM_LookupCachedHit)->Arg(64)->Arg(1024);

// Addresses spread over all modules: a binary search nearly every time.
void BM_LookupSpreadHits(benchmark::State& state) {
    fixture f(unsigned(state.range(0)));
    size_t i = 0;
    for (auto _ : state) {
        uint64_t a = f.code[i++ % f.code.size()];
        vorx_range_t r{a, a + 1};
        benchmark::DoNotOptimize(vorx_find_address_range(f.map, &r, f.cache));
    }
}
BENCHMARK(BM_LookupSpreadHits)->Arg(64)->Arg(1024);

// Values that are not code (stack words a walker tries as return addresses).
void BM_LookupSpreadHoles(benchmark::State& state) {
    fixture f(unsigned(state.range(0)));
    size_t i = 0;
    for (auto _ : state) {
        uint64_t a = f.holes[i++ % f.holes.size()];
        vorx_range_t r{a, a + 1};
        benchmark::DoNotOptimize(vorx_find_address_range(f.map, &r, f.cache));
    }
}
BENCHMARK(BM_LookupSpreadHoles)->Arg(64)->Arg(1024);

void BM_FindModule(benchmark::State& state) {
    fixture f(unsigned(state.range(0)));
    size_t i = 0;
    for (auto _ : state) {
        uint64_t a = f.code[i++ % f.code.size()];
        benchmark::DoNotOptimize(vorx_find_module(f.map, a, nullptr, nullptr, f.cache));
    }
}
BENCHMARK(BM_FindModule)->Arg(64)->Arg(1024);

}  // namespace

BENCHMARK_MAIN();
