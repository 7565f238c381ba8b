/* A multi-threaded program whose calls into libc are counted by the count tool (tools/count_tool.cpp).
 * It counts its own calls, then asks the tool for its counts through kel_test_count(), a function of this
 * program that the tool replaces (it answers -1 when no tool is there), and compares. It also checks that
 * results and errno come back unchanged through the probes. */
#define _GNU_SOURCE
#include <errno.h>
#include <pthread.h>
#include <stdatomic.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <unistd.h>

/* The old condition-variable interface, still exported under its first version. */
extern int old_cond_wait(void* cond, pthread_mutex_t* mutex);
extern int old_cond_signal(void* cond);
__asm__(".symver old_cond_wait, pthread_cond_wait@GLIBC_2.0");
__asm__(".symver old_cond_signal, pthread_cond_signal@GLIBC_2.0");

__attribute__((noinline, visibility("default"))) long kel_test_count(const char* name) {
  __asm__ volatile("" ::"r"(name));
  return -1;
}

enum { kThreads = 4, kIterations = 3000, kItems = 500 };

/* strlen is an IFUNC: its probe waits for the resolver, then sits on the implementation it picks. */
static size_t (*volatile g_strlen)(const char*) = strlen;
static atomic_long n_strlen;
static atomic_long n_read, n_write, n_lock, n_unlock, n_malloc, n_free, n_getpid, n_cond_wait, n_cond_signal,
    n_old_wait, n_old_signal;
static pthread_mutex_t g_mutex = PTHREAD_MUTEX_INITIALIZER;
static long g_shared;
static pid_t g_pid;
static atomic_int g_failures;

#define CHECK(cond, ...)                              \
  do {                                                \
    if (!(cond)) {                                    \
      fprintf(stderr, "mt_app: FAIL: " __VA_ARGS__);  \
      fputc('\n', stderr);                            \
      atomic_fetch_add(&g_failures, 1);               \
    }                                                 \
  } while (0)

static void* worker(void* arg) {
  int fds[2];
  if (pipe(fds) != 0) abort();
  for (int i = 0; i < kIterations; ++i) {
    pthread_mutex_lock(&g_mutex), atomic_fetch_add(&n_lock, 1);
    ++g_shared;
    pthread_mutex_unlock(&g_mutex), atomic_fetch_add(&n_unlock, 1);
    char* p = malloc(16 + i % 64);
    atomic_fetch_add(&n_malloc, 1);
    CHECK(p != NULL, "malloc");
    memset(p, i, 16);
    free(p), atomic_fetch_add(&n_free, 1);
    CHECK(getpid() == g_pid, "getpid");
    CHECK(g_strlen("probe") == 5, "strlen");
    atomic_fetch_add(&n_strlen, 1);
    atomic_fetch_add(&n_getpid, 1);
    char out = (char)(i + (int)(long)arg), in = 0;
    CHECK(write(fds[1], &out, 1) == 1, "write");
    atomic_fetch_add(&n_write, 1);
    CHECK(read(fds[0], &in, 1) == 1 && in == out, "read");
    atomic_fetch_add(&n_read, 1);
  }
  close(fds[0]);
  close(fds[1]);
  return NULL;
}

/* Producer and consumer around the current condition variable. */
static pthread_cond_t g_cond = PTHREAD_COND_INITIALIZER;
static int g_items, g_done;
static void* consumer(void* arg) {
  (void)arg;
  int taken = 0;
  pthread_mutex_lock(&g_mutex), atomic_fetch_add(&n_lock, 1);
  while (taken < kItems) {
    while (g_items == 0) {
      pthread_cond_wait(&g_cond, &g_mutex);
      atomic_fetch_add(&n_cond_wait, 1);
    }
    --g_items, ++taken;
  }
  pthread_mutex_unlock(&g_mutex), atomic_fetch_add(&n_unlock, 1);
  return NULL;
}

/* The same with the first version's condition variable (a pointer the library fills in). */
static void* g_old_cond;
static int g_old_flag;
static void* old_waiter(void* arg) {
  (void)arg;
  pthread_mutex_lock(&g_mutex), atomic_fetch_add(&n_lock, 1);
  while (!g_old_flag) {
    CHECK(old_cond_wait(&g_old_cond, &g_mutex) == 0, "old pthread_cond_wait");
    atomic_fetch_add(&n_old_wait, 1);
  }
  pthread_mutex_unlock(&g_mutex), atomic_fetch_add(&n_unlock, 1);
  return NULL;
}

static int compare(const char* name, long mine) {
  long theirs = kel_test_count(name);
  int ok = theirs == mine;
  printf("%-32s program %8ld  tool %8ld  %s\n", name, mine, theirs, ok ? "ok" : "MISMATCH");
  return ok;
}

int main(void) {
  g_pid = getpid();
  atomic_fetch_add(&n_getpid, 1);
  pthread_t threads[kThreads], cons, old;
  for (long i = 0; i < kThreads; ++i) pthread_create(&threads[i], NULL, worker, (void*)i);
  pthread_create(&cons, NULL, consumer, NULL);
  for (int i = 0; i < kItems; ++i) {
    pthread_mutex_lock(&g_mutex), atomic_fetch_add(&n_lock, 1);
    ++g_items;
    pthread_cond_signal(&g_cond), atomic_fetch_add(&n_cond_signal, 1);
    pthread_mutex_unlock(&g_mutex), atomic_fetch_add(&n_unlock, 1);
  }
  pthread_create(&old, NULL, old_waiter, NULL);
  usleep(20000);
  pthread_mutex_lock(&g_mutex), atomic_fetch_add(&n_lock, 1);
  g_old_flag = 1;
  old_cond_signal(&g_old_cond), atomic_fetch_add(&n_old_signal, 1);
  pthread_mutex_unlock(&g_mutex), atomic_fetch_add(&n_unlock, 1);
  for (int i = 0; i < kThreads; ++i) pthread_join(threads[i], NULL);
  pthread_join(cons, NULL);
  pthread_join(old, NULL);
  (void)g_done;
  CHECK(g_shared == (long)kThreads * kIterations, "lost updates: %ld", g_shared);

  /* Failing calls keep their errno through the probes. */
  char c;
  errno = 0;
  CHECK(read(-1, &c, 1) == -1 && errno == EBADF, "read(-1) errno %d", errno);
  atomic_fetch_add(&n_read, 1);
  errno = 0;
  CHECK(write(12345, &c, 1) == -1 && errno == EBADF, "write(12345) errno %d", errno);
  atomic_fetch_add(&n_write, 1);

  int ok = 1;
  ok &= compare("read", n_read);
  ok &= compare("write", n_write);
  ok &= compare("pthread_mutex_lock", n_lock);
  ok &= compare("pthread_mutex_unlock", n_unlock);
  ok &= compare("malloc", n_malloc);
  ok &= compare("free", n_free);
  ok &= compare("getpid", n_getpid);
  ok &= compare("strlen", n_strlen);
  /* The first version's functions end in a tail jump to the current ones, so the program's calls of the
   * old ones also enter the current ones with the program's return address. */
  ok &= compare("pthread_cond_signal@@GLIBC_2.3.2", n_cond_signal + n_old_signal);
  ok &= compare("pthread_cond_signal@GLIBC_2.0", n_old_signal);
  /* A wait returns once per wake-up the program saw. */
  ok &= compare("pthread_cond_wait@@GLIBC_2.3.2", n_cond_wait + n_old_wait);
  ok &= compare("pthread_cond_wait@GLIBC_2.0", n_old_wait);
  if (!ok || g_failures) {
    printf("mt_app: FAILED (%d check failures)\n", g_failures);
    return 1;
  }
  printf("mt_app: all counts match\n");
  return 0;
}
