// Cost of the engine's model of one image (sections, symbols, routines, name index), which every program pays
// at start-up for itself, the loader, the C library and the vDSO. The ELF reading alone is measured too, to
// tell it from the building of the tables.
#include <benchmark/benchmark.h>

#include <string>

#include "elf_model.h"
#include "engine.h"

namespace {

const char* const kLibc = "/lib/i386-linux-gnu/libc.so.6";
const char* const kLoader = "/lib/ld-linux.so.2";

void BM_ReadElf(benchmark::State& state, const char* path) {
  for (auto _ : state) {
    kel::ElfModel model;
    std::string error;
    if (!kel::read_elf_file(path, &model, &error)) {
      state.SkipWithError(error.c_str());
      break;
    }
    benchmark::DoNotOptimize(model.symbols.data());
  }
}

// The engine's tables only grow (an invalidated image keeps its entries), so each run is bounded: the symbol
// table holds 4M entries and one libc model adds about 3000.
void BM_CreateImage(benchmark::State& state, const char* path) {
  for (auto _ : state) {
    if (kel::tables().symbols.size() > 3'000'000 || kel::tables().images.size() > 60'000) {
      state.SkipWithError("engine tables nearly full: run fewer iterations");
      break;
    }
    LEVEL_KELCLIENT::KEL_LockClient();
    uint32_t id = kel::create_image(path, 0x40000000, false, false, nullptr);
    LEVEL_KELCLIENT::KEL_UnlockClient();
    kel::invalidate_image(id);
  }
}

void BM_CreateVdso(benchmark::State& state) {
  for (auto _ : state) {
    LEVEL_KELCLIENT::KEL_LockClient();
    uint32_t id = kel::create_image("[vdso]", 0, false, true, nullptr);
    LEVEL_KELCLIENT::KEL_UnlockClient();
    kel::invalidate_image(id);
  }
}

BENCHMARK_CAPTURE(BM_ReadElf, libc, kLibc)->Unit(benchmark::kMicrosecond);
BENCHMARK_CAPTURE(BM_ReadElf, loader, kLoader)->Unit(benchmark::kMicrosecond);
BENCHMARK_CAPTURE(BM_CreateImage, libc, kLibc)->Unit(benchmark::kMicrosecond)->Iterations(300);
BENCHMARK_CAPTURE(BM_CreateImage, loader, kLoader)->Unit(benchmark::kMicrosecond)->Iterations(300);
BENCHMARK_CAPTURE(BM_CreateImage, self, "/proc/self/exe")->Unit(benchmark::kMicrosecond)->Iterations(300);
BENCHMARK(BM_CreateVdso)->Unit(benchmark::kMicrosecond)->Iterations(1000);

}  // namespace

BENCHMARK_MAIN();
