// Cost of the thread manager on a wrapper's path: one enter/release pair of a
// registered thread (key cached in the frame, read from the thread library's
// slot, or the wrappers' quick enter from the slot mirrored in TLS), and one enter
// of a thread that the collector doesn't observe.
#include <benchmark/benchmark.h>
#include <pthread.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <thread>

#include "thread_manager.h"

namespace {

struct Manager {
  vorx_thr_mgr_t* mgr = nullptr;
  pthread_key_t key{};
  explicit Manager(bool mirror_slots = false) {
    pthread_key_create(&key, nullptr);
    vorx_thread_manager_options_t o{};
    o.key = key;
    o.mirror_slots = mirror_slots ? 1 : 0;
    o.data_size = 128;
    o.cache_limit = 500;
    vorx_thread_manager_create(&mgr, 128, nullptr, nullptr, nullptr, &o);
    vorx_thread_manager_create_global(mgr);
  }
  ~Manager() {
    vorx_thread_manager_complete_threads(mgr);
    vorx_thread_manager_destroy(mgr);
    pthread_key_delete(key);
  }
};

vorx_u32_t tid() { return (vorx_u32_t)syscall(SYS_gettid); }

void EnterReleaseCachedKey(benchmark::State& state) {
  Manager m;
  vorx_thread_manager_register(m.mgr, tid(), nullptr);
  vorx_ts_desc_t* key = nullptr;
  void* data;
  for (auto _ : state) {
    vorx_u32_t r = vorx_thread_manager_enter(m.mgr, &key, &data);
    benchmark::DoNotOptimize(r);
    vorx_thread_manager_release(m.mgr, key);
  }
  if (key == nullptr) state.SkipWithError("never entered");
}
BENCHMARK(EnterReleaseCachedKey);

void EnterReleaseFromSlot(benchmark::State& state) {
  Manager m;
  vorx_thread_manager_register(m.mgr, tid(), nullptr);
  void* data;
  for (auto _ : state) {
    vorx_ts_desc_t* key = nullptr;  // a fresh wrapper frame reads the TLS slot
    vorx_u32_t r = vorx_thread_manager_enter(m.mgr, &key, &data);
    benchmark::DoNotOptimize(r);
    vorx_thread_manager_release(m.mgr, key);
  }
}
BENCHMARK(EnterReleaseFromSlot);

// The wrappers' own enter: inline, from the slot mirrored in static TLS.
void QuickEnterReleaseMirroredSlot(benchmark::State& state) {
  Manager m(/*mirror_slots=*/true);
  vorx_thread_manager_register(m.mgr, tid(), nullptr);
  void* data;
  for (auto _ : state) {
    vorx_ts_desc_t* key = nullptr;
    vorx_u32_t r = vorx_thread_manager_enter_quick(m.mgr, &key, &data);
    benchmark::DoNotOptimize(r);
    vorx_thread_manager_release(m.mgr, key);
  }
}
BENCHMARK(QuickEnterReleaseMirroredSlot);

void EnterNestedAcquired(benchmark::State& state) {
  Manager m;
  vorx_thread_manager_register(m.mgr, tid(), nullptr);
  vorx_ts_desc_t* outer = nullptr;
  void* data;
  vorx_thread_manager_enter(m.mgr, &outer, &data);
  for (auto _ : state) {
    vorx_ts_desc_t* key = outer;
    benchmark::DoNotOptimize(vorx_thread_manager_enter(m.mgr, &key, &data));
  }
  vorx_thread_manager_release(m.mgr, outer);
}
BENCHMARK(EnterNestedAcquired);

// Every registered thread has entered once: nothing to look up.
void EnterUnknownThread(benchmark::State& state) {
  Manager m;
  std::thread known([&] {
    vorx_thread_manager_register(m.mgr, tid(), nullptr);
    vorx_ts_desc_t* key = nullptr;
    void* data;
    if (vorx_thread_manager_enter(m.mgr, &key, &data) == vorx_thread_manager_op_err_ok)
      vorx_thread_manager_release(m.mgr, key);
  });
  known.join();
  void* data;
  for (auto _ : state) {
    vorx_ts_desc_t* key = nullptr;
    benchmark::DoNotOptimize(vorx_thread_manager_enter(m.mgr, &key, &data));
  }
}
BENCHMARK(EnterUnknownThread);

// A thread registered on somebody's behalf hasn't entered yet: every unknown
// thread looks itself up by tid (one gettid and the storage lock).
void EnterUnknownThreadWhileOneIsUnclaimed(benchmark::State& state) {
  Manager m;
  vorx_thread_manager_register(m.mgr, 1, nullptr);
  void* data;
  for (auto _ : state) {
    vorx_ts_desc_t* key = nullptr;
    benchmark::DoNotOptimize(vorx_thread_manager_enter(m.mgr, &key, &data));
  }
}
BENCHMARK(EnterUnknownThreadWhileOneIsUnclaimed);

void EnterIgnoredThread(benchmark::State& state) {
  Manager m;
  vorx_thread_manager_ignore(m.mgr);
  void* data;
  for (auto _ : state) {
    vorx_ts_desc_t* key = nullptr;
    benchmark::DoNotOptimize(vorx_thread_manager_enter(m.mgr, &key, &data));
  }
  pthread_setspecific(m.key, nullptr);
}
BENCHMARK(EnterIgnoredThread);

void EnterClosedManager(benchmark::State& state) {
  vorx_thr_mgr_t* mgr = nullptr;
  vorx_thread_manager_create(&mgr, 128, nullptr, nullptr, nullptr, nullptr);
  void* data;
  for (auto _ : state) {
    vorx_ts_desc_t* key = nullptr;
    benchmark::DoNotOptimize(vorx_thread_manager_enter(mgr, &key, &data));
  }
  vorx_thread_manager_complete_threads(mgr);
  vorx_thread_manager_destroy(mgr);
}
BENCHMARK(EnterClosedManager);

}  // namespace

BENCHMARK_MAIN();
