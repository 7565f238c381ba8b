// Throughput of one unit: records/s and bytes/s, plain and deflated, one and two writer
// threads; and the cost of one put_record of a typical 40-byte record, with and without the
// time stamp taken through the time source.
#include "vorx_timesource.h"
#include "vorx_tmu.h"
#include "vorx_traceformat.h"

#include <benchmark/benchmark.h>

#include <fcntl.h>
#include <unistd.h>

namespace {

vorx_tmu_creator_t *creator() { return vorx_tmu_creator_alloc(0); }

// One unit per configuration, spilling to /dev/null so the disk doesn't take part.
vorx_tmu_t *unit_for(int level)
{
  static vorx_tmu_t *units[10];
  static int current_level = -100;
  vorx_tmu_creator_t *c = creator();
  if (level != current_level) {
    vorx_tmu_creator_set_compression_level(c, level);
    current_level = level;
  }
  if (!units[level]) units[level] = c->alloc_fd(c, vorx_tmu_per_process, open("/dev/null", O_WRONLY));
  return units[level];
}

void put_records(benchmark::State &state, int level)
{
  static vorx_tmu_t *u;
  if (state.thread_index() == 0) u = unit_for(level);
  std::uint8_t rec[TF_CPU_SAMPLE_SIZE];
  std::uint64_t seq = 0;
  std::uint32_t tid = 1000 + std::uint32_t(state.thread_index());
  for (auto _ : state) {
    tf_cpu_sample_put(rec, tid, 0, seq, 1000000, std::uint32_t(seq & 0xFF));
    seq++;
    u->put_record(u, rec, 24, rec + 24, TF_CPU_SAMPLE_SIZE - 24);
  }
  state.SetItemsProcessed(std::int64_t(state.iterations()));
  state.SetBytesProcessed(std::int64_t(state.iterations()) * TF_CPU_SAMPLE_SIZE);
}

void BM_PutRecord40_Plain(benchmark::State &state) { put_records(state, 0); }
void BM_PutRecord40_Deflate1(benchmark::State &state) { put_records(state, 1); }
void BM_PutRecord40_Deflate6(benchmark::State &state) { put_records(state, 6); }

// The usual case of application threads: each writes into a unit of its own.
void BM_PutRecord40_OwnUnits(benchmark::State &state)
{
  static vorx_tmu_t *units[8];
  vorx_tmu_creator_t *c = creator();
  if (state.thread_index() == 0) vorx_tmu_creator_set_compression_level(c, 0);
  vorx_tmu_t *&u = units[state.thread_index()];
  if (!u) u = c->alloc_fd(c, vorx_tmu_per_process, open("/dev/null", O_WRONLY));
  std::uint8_t rec[TF_CPU_SAMPLE_SIZE];
  std::uint64_t seq = 0;
  for (auto _ : state) {
    tf_cpu_sample_put(rec, 7, 0, seq++, 1000000, 3);
    u->put_record(u, rec, TF_CPU_SAMPLE_SIZE, nullptr, 0);
  }
  state.SetItemsProcessed(std::int64_t(state.iterations()));
  state.SetBytesProcessed(std::int64_t(state.iterations()) * TF_CPU_SAMPLE_SIZE);
}

// The whole write of an event record: time stamp, hand-built bytes, put_record; the argument
// is the time source (1 the time stamp counter, 2 the system clock).
void BM_TimestampedRecord40_Plain(benchmark::State &state)
{
  static vorx_tmu_t *u;
  if (state.thread_index() == 0) {
    vorx_timesource_init(vorx_u32_t(state.range(0)));
    u = unit_for(0);
  }
  std::uint8_t rec[TF_CPU_SAMPLE_SIZE];
  for (auto _ : state) {
    tf_cpu_sample_put(rec, 7, 0, vorx_timesource()->now(), 1000000, 3);
    u->put_record(u, rec, TF_CPU_SAMPLE_SIZE, nullptr, 0);
  }
  state.SetItemsProcessed(std::int64_t(state.iterations()));
  state.SetBytesProcessed(std::int64_t(state.iterations()) * TF_CPU_SAMPLE_SIZE);
}

} // namespace

BENCHMARK(BM_PutRecord40_Plain)->Threads(1)->Threads(2)->UseRealTime();
BENCHMARK(BM_PutRecord40_Deflate1)->Threads(1)->Threads(2)->UseRealTime();
BENCHMARK(BM_PutRecord40_Deflate6)->Threads(1)->Threads(2)->UseRealTime();
BENCHMARK(BM_PutRecord40_OwnUnits)->Threads(2)->UseRealTime();
BENCHMARK(BM_TimestampedRecord40_Plain)->Arg(vorx_timesource_tsc)->Arg(vorx_timesource_system)->UseRealTime();

BENCHMARK_MAIN();
