/* Hot calls the collector wraps, timed from inside: an uncontended mutex
 * lock/unlock pair, a 1-byte read from a pipe, malloc/free of 16 bytes, an
 * annotated task begin/end pair and a contended lock wait. Prints ns per
 * operation, one line each. */
#include <ozknotify.h>
#include <pthread.h>
#include <stdio.h>
#include <stdlib.h>
#include <time.h>
#include <unistd.h>

static double now_ns(void) {
  struct timespec t;
  clock_gettime(CLOCK_MONOTONIC, &t);
  return t.tv_sec * 1e9 + t.tv_nsec;
}

static pthread_mutex_t lock = PTHREAD_MUTEX_INITIALIZER;

static void *holder(void *arg) {
  int rounds = *(int *)arg;
  for (int i = 0; i < rounds; ++i) {
    pthread_mutex_lock(&lock);
    for (volatile int spin = 0; spin < 2000; ++spin) {
    }
    pthread_mutex_unlock(&lock);
  }
  return NULL;
}

int main(int argc, char **argv) {
  int n = argc > 1 ? atoi(argv[1]) : 1000000;
  double t0 = now_ns();
  for (int i = 0; i < n; ++i) {
    pthread_mutex_lock(&lock);
    pthread_mutex_unlock(&lock);
  }
  printf("mutex_pair_ns %.1f\n", (now_ns() - t0) / n);

  int fds[2];
  if (pipe(fds) != 0) return 1;
  char c = 'x';
  int reads = n / 10;
  t0 = now_ns();
  for (int i = 0; i < reads; ++i) {
    if (write(fds[1], &c, 1) != 1 || read(fds[0], &c, 1) != 1) return 1;
  }
  printf("pipe_write_read_ns %.1f\n", (now_ns() - t0) / reads);

  t0 = now_ns();
  for (int i = 0; i < n; ++i) {
    void *p = malloc(16);
    __asm__ volatile("" : : "r"(p) : "memory");
    free(p);
  }
  printf("malloc_free_16_ns %.1f\n", (now_ns() - t0) / n);

  ozk_domain *domain = __ozk_domain_create("bench");
  ozk_string_handle *name = __ozk_string_handle_create("task");
  t0 = now_ns();
  for (int i = 0; i < n; ++i) {
    __ozk_task_begin(domain, ozk_null_id(), ozk_null_id(), name);
    __ozk_task_end(domain);
  }
  printf("task_pair_ns %.1f\n", (now_ns() - t0) / n);

  int rounds = 20000;
  pthread_t threads[2];
  t0 = now_ns();
  for (int i = 0; i < 2; ++i) pthread_create(&threads[i], NULL, holder, &rounds);
  for (int i = 0; i < 2; ++i) pthread_join(threads[i], NULL);
  printf("contended_pair_ns %.1f\n", (now_ns() - t0) / (2.0 * rounds));
  return 0;
}
