// Costs of the platform layer on the paths that wrappers take: the key set's
// insert/delete pair (heap tracking), identity and clock reads, an inactive
// log call, and buffer reuse.
#include <benchmark/benchmark.h>

#include "sal.h"
#include "vorx_buffer.h"
#include "vorx_htable.h"
#include "vorx_log.h"

static void BM_HtableInsertDelete(benchmark::State &state)
{
    auto *table = static_cast<vorx_htable *>(
        vorx_alloc_object(vorx_htable_t(), static_cast<vorx_size_t>(state.range(0))));
    vorx_u32_t key = 1;
    for (auto _ : state) {
        vorx_htable_insert(table, key);
        benchmark::DoNotOptimize(vorx_htable_delete(table, key));
        key = key * 1103515245u + 12345u;
        key |= 1;
    }
    vorx_free_object(table);
}
BENCHMARK(BM_HtableInsertDelete)->Arg(1024)->Arg(65536)->ThreadRange(1, 2)->UseRealTime();

static void BM_HtableDeleteAbsentUnderLoad(benchmark::State &state)
{
    auto *table = static_cast<vorx_htable *>(vorx_alloc_object(vorx_htable_t(), vorx_size_t{4096}));
    for (vorx_u32_t key = 1; key <= 16384; ++key)
        vorx_htable_insert(table, key * 2);
    vorx_u32_t key = 1;
    for (auto _ : state) {
        benchmark::DoNotOptimize(vorx_htable_delete(table, key));
        key += 2;
    }
    vorx_free_object(table);
}
BENCHMARK(BM_HtableDeleteAbsentUnderLoad);

static void BM_ThreadId(benchmark::State &state)
{
    for (auto _ : state)
        benchmark::DoNotOptimize(sal_thread_id());
}
BENCHMARK(BM_ThreadId);

static void BM_SystemTime(benchmark::State &state)
{
    for (auto _ : state)
        benchmark::DoNotOptimize(sal_system_time());
}
BENCHMARK(BM_SystemTime);

static void BM_Timestamp(benchmark::State &state)
{
    for (auto _ : state)
        benchmark::DoNotOptimize(sal_timestamp());
}
BENCHMARK(BM_Timestamp);

static void BM_InactiveTraceLine(benchmark::State &state)
{
    for (auto _ : state)
        VORX_LOG(vorx_log_level_trace, "never built %d", 1);
}
BENCHMARK(BM_InactiveTraceLine);

static void BM_HeapBufferReuse(benchmark::State &state)
{
    vorx_buffer buffer;
    vorx_heap_buffer_init(&buffer, 4096);
    for (auto _ : state)
        benchmark::DoNotOptimize(vorx_buffer_get(&buffer, 2048));
    vorx_buffer_release(&buffer);
}
BENCHMARK(BM_HeapBufferReuse);

BENCHMARK_MAIN();
