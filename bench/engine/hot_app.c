/* Times calls of a small function of its own and lock/unlock pairs; prints ns per call for each. */
#include <pthread.h>
#include <stdio.h>
#include <time.h>

__attribute__((noinline, visibility("default"))) int bench_hot(int x) {
  __asm__ volatile("");
  return x * 3 + 1;
}

static double now_ns(void) {
  struct timespec ts;
  clock_gettime(CLOCK_MONOTONIC, &ts);
  return ts.tv_sec * 1e9 + ts.tv_nsec;
}

static double best_of(int rounds, double (*run)(void)) {
  double best = 1e30;
  for (int i = 0; i < rounds; ++i) {
    double t = run();
    if (t < best) best = t;
  }
  return best;
}

enum { kCalls = 10000000 };
static volatile int g_sink;
static double run_hot(void) {
  double t0 = now_ns();
  int x = 0;
  for (int i = 0; i < kCalls; ++i) x = bench_hot(x);
  g_sink = x;
  return (now_ns() - t0) / kCalls;
}
static pthread_mutex_t g_mutex = PTHREAD_MUTEX_INITIALIZER;
static double run_lock(void) {
  double t0 = now_ns();
  for (int i = 0; i < kCalls / 4; ++i) {
    pthread_mutex_lock(&g_mutex);
    pthread_mutex_unlock(&g_mutex);
  }
  return (now_ns() - t0) / (kCalls / 4);
}

int main(void) {
  printf("hot_call_ns %.2f\n", best_of(5, run_hot));
  printf("lock_pair_ns %.2f\n", best_of(5, run_lock));
  return 0;
}
