// Cost of the annotation API without a collector, through the shared library
// as an application calls it: what a program pays for leaving its annotations
// in a production build.
#include <benchmark/benchmark.h>

#include "ozknotify.h"

namespace {

void BM_DomainCreateExisting(benchmark::State &state)
{
    __ozk_domain_create("bench domain");
    for (auto _ : state)
        benchmark::DoNotOptimize(__ozk_domain_create("bench domain"));
}
BENCHMARK(BM_DomainCreateExisting)->ThreadRange(1, 2);

void BM_TaskBeginEnd(benchmark::State &state)
{
    ozk_domain *domain = __ozk_domain_create("bench domain");
    ozk_string_handle *name = __ozk_string_handle_create("bench task");
    for (auto _ : state) {
        __ozk_task_begin(domain, ozk_null_id(), ozk_null_id(), name);
        __ozk_task_end(domain);
    }
}
BENCHMARK(BM_TaskBeginEnd)->ThreadRange(1, 2);

void BM_CounterInc(benchmark::State &state)
{
    ozk_counter *counter = __ozk_counter_create("bench counter", "bench domain");
    for (auto _ : state)
        __ozk_counter_inc(counter);
}
BENCHMARK(BM_CounterInc)->ThreadRange(1, 2);

// Through the hand-over table and the handle's counter cache.
void BM_CounterIncByHandle(benchmark::State &state)
{
    ozk_domain *domain = __ozk_domain_create("bench domain");
    ozk_string_handle *name = __ozk_string_handle_create("bench counter");
    for (auto _ : state)
        __ozk_counter_inc_v3(domain, name);
}
BENCHMARK(BM_CounterIncByHandle)->ThreadRange(1, 2);

void BM_SyncPrepareAcquired(benchmark::State &state)
{
    int object = 0;
    for (auto _ : state) {
        __ozk_sync_prepare(&object);
        __ozk_sync_acquired(&object);
    }
}
BENCHMARK(BM_SyncPrepareAcquired);

void BM_StackContextCreateDestroy(benchmark::State &state)
{
    for (auto _ : state)
        __ozk_stack_caller_destroy(__ozk_stack_caller_create());
}
BENCHMARK(BM_StackContextCreateDestroy)->ThreadRange(1, 2);

void BM_GetTimestamp(benchmark::State &state)
{
    for (auto _ : state)
        benchmark::DoNotOptimize(__ozk_get_timestamp());
}
BENCHMARK(BM_GetTimestamp);

} // namespace

BENCHMARK_MAIN();
