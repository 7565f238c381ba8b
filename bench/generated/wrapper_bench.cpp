// Nanoseconds that each path of the wrapper template adds to a call, with a stand-in collector whose
// operations cost next to nothing: the template's own share of the overhead.
#include <benchmark/benchmark.h>

#include "wrapper_template.h"

extern "C" {
long vorx_read_mod1_ver0(int fd, void* buf, unsigned n);
int vorx_socket_mod1_ver0(int domain, int type, int protocol);
int vorx_pthread_mutex_lock_mod2_ver0(void* mutex);
void* vorx_malloc_mod1_ver0(unsigned size);
}

namespace {

__attribute__((noinline)) long plain_read(int, void*, unsigned n) { return n; }
__attribute__((noinline)) int plain_socket(int, int, int) { return 3; }
__attribute__((noinline)) int free_trylock(void*) { return 0; }
char block[64];
__attribute__((noinline)) void* plain_malloc(unsigned) { return block; }

void install() {
    fake::reset();
    vorx_probe_row(vorx_pi_read, 3, 1, 0)->trampoline = (void*)&plain_read;
    vorx_probe_row(vorx_pi_socket, 3, 1, 0)->trampoline = (void*)&plain_socket;
    vorx_head_row(vorx_pi_pthread_mutex_trylock)->trampoline = (void*)&free_trylock;
    vorx_probe_row(vorx_pi_malloc, 3, 1, 0)->trampoline = (void*)&plain_malloc;
}

void BM_OriginalAlone(benchmark::State& state) {
    for (auto _ : state) benchmark::DoNotOptimize(plain_read(3, nullptr, 8));
}
BENCHMARK(BM_OriginalAlone);

void BM_NotStarted(benchmark::State& state) {
    install();
    fake::st().rtl = false;
    for (auto _ : state) benchmark::DoNotOptimize(vorx_read_mod1_ver0(3, nullptr, 8));
}
BENCHMARK(BM_NotStarted);

void BM_UnknownThread(benchmark::State& state) {
    install();
    fake::st().first_enter = fake::st().later_enter = fake::answer::not_found;
    for (auto _ : state) benchmark::DoNotOptimize(vorx_read_mod1_ver0(3, nullptr, 8));
}
BENCHMARK(BM_UnknownThread);

// A short wait: measured, two clock reads, no record (the stand-in's callbacks are kept out by the threshold).
void BM_WaitBelowThreshold(benchmark::State& state) {
    install();
    fake::st().wait_threshold = ~0ull;
    for (auto _ : state) {
        benchmark::DoNotOptimize(vorx_read_mod1_ver0(3, nullptr, 8));
        fake::st().callbacks.clear();
    }
}
BENCHMARK(BM_WaitBelowThreshold);

void BM_EventWithCallbacks(benchmark::State& state) {
    install();
    for (auto _ : state) {
        benchmark::DoNotOptimize(vorx_socket_mod1_ver0(2, 1, 0));
        fake::st().callbacks.clear();
    }
}
BENCHMARK(BM_EventWithCallbacks);

void BM_FreeMutexFastPath(benchmark::State& state) {
    install();
    int mutex = 0;
    for (auto _ : state) benchmark::DoNotOptimize(vorx_pthread_mutex_lock_mod2_ver0(&mutex));
}
BENCHMARK(BM_FreeMutexFastPath);

void BM_SmallMallocFiltered(benchmark::State& state) {
    install();
    for (auto _ : state) benchmark::DoNotOptimize(vorx_malloc_mod1_ver0(16));
}
BENCHMARK(BM_SmallMallocFiltered);

}  // namespace

BENCHMARK_MAIN();
