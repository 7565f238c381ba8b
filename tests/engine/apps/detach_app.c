/* Detach and attach while the program runs: probes on getpid count the program's calls only while attached,
 * the entry's bytes are the original ones while detached, and repeated detach/attach cycles while other
 * threads call the probed function lose nothing and break nothing. */
#define _GNU_SOURCE
#include <dlfcn.h>
#include <pthread.h>
#include <signal.h>
#include <stdatomic.h>
#include <stdio.h>
#include <string.h>
#include <unistd.h>

__attribute__((noinline, visibility("default"))) long kel_test_count(const char* name) {
  __asm__ volatile("" ::"r"(name));
  return -1;
}
__attribute__((noinline, visibility("default"))) void kel_test_detach(void) { __asm__ volatile("nop; nop; nop; nop; nop"); }
/* The tool attaches again when this word is set, and clears it when done. */
__attribute__((visibility("default"))) volatile int kel_test_attach_request;
static int kel_test_attach(void) {
  kel_test_attach_request = 1;
  for (int waited = 0; kel_test_attach_request; ++waited) {
    if (waited > 200000) return -1;
    usleep(10);
  }
  return 0;
}

static int g_failures;
#define CHECK(cond, ...)                                       \
  do {                                                         \
    if (!(cond)) {                                             \
      printf("detach_app: FAIL: " __VA_ARGS__), putchar('\n'); \
      ++g_failures;                                            \
    }                                                          \
  } while (0)

static void* detach_from_other_thread(void* arg) {
  (void)arg;
  kel_test_detach();
  return NULL;
}

static pid_t g_pid;
static atomic_long g_stress_calls;
static atomic_int g_stop;
static void* hammer(void* arg) {
  (void)arg;
  while (!atomic_load(&g_stop)) {
    if (getpid() != g_pid) printf("detach_app: FAIL: getpid under detach/attach\n");
    atomic_fetch_add(&g_stress_calls, 1);
  }
  return NULL;
}

/* Threads that sleep until told; the last one blocks the engine's visit signal. */
enum { kSleepers = 3 };
static atomic_int g_wake;
static void* sleeper(void* arg) {
  if ((long)arg == kSleepers - 1) {
    sigset_t set;
    sigemptyset(&set);
    sigaddset(&set, SIGRTMAX);
    pthread_sigmask(SIG_BLOCK, &set, NULL);
  }
  while (!atomic_load(&g_wake)) usleep(1000);
  return NULL;
}

int main(void) {
  g_pid = getpid();
  pthread_t sleepers[kSleepers];
  for (long i = 0; i < kSleepers; ++i) pthread_create(&sleepers[i], NULL, sleeper, (void*)i);
  usleep(20000);
  const unsigned char* entry = (const unsigned char*)dlsym(RTLD_DEFAULT, "getpid");
  CHECK(kel_test_count("getpid") == 1, "tool missing or first count %ld", kel_test_count("getpid"));
  CHECK(entry && entry[0] == 0xe9, "getpid's entry is not a jump while probed");
  unsigned char probed[5];
  memcpy(probed, entry, 5);

  for (int i = 0; i < 10; ++i) getpid();
  pthread_t t;
  pthread_create(&t, NULL, detach_from_other_thread, NULL);
  pthread_join(t, NULL);
  /* That detach visited the detaching thread, main and two sleepers; the third blocks the signal. */
  CHECK(memcmp(probed, entry, 5) != 0, "getpid's entry unchanged by the detach");
  for (int i = 0; i < 10; ++i) CHECK(getpid() == g_pid, "getpid while detached");
  CHECK(kel_test_attach() == 0, "attach refused");
  CHECK(entry[0] == 0xe9, "getpid's entry not probed again after attach");
  for (int i = 0; i < 10; ++i) getpid();
  CHECK(kel_test_count("getpid") == 21, "getpid counted %ld times, expected 21", kel_test_count("getpid"));
  CHECK(kel_test_count("detach_callbacks") == 1, "detach callbacks %ld", kel_test_count("detach_callbacks"));
  CHECK(kel_test_count("second_attach_refused") == 1, "a second attach without a detach was accepted");
  CHECK(kel_test_count("thread_detach_callbacks") == 4, "thread detach callbacks %ld, expected 4",
        kel_test_count("thread_detach_callbacks"));
  CHECK(kel_test_count("thread_detach_on_own_thread") == 4, "thread detach callbacks on %ld threads",
        kel_test_count("thread_detach_on_own_thread"));
  /* The attach ran on the tool's thread and visited main and two sleepers. */
  CHECK(kel_test_count("thread_attach_callbacks") == 4, "thread attach callbacks %ld, expected 4",
        kel_test_count("thread_attach_callbacks"));
  CHECK(kel_test_count("thread_attach_on_own_thread") == 4, "thread attach callbacks on %ld threads",
        kel_test_count("thread_attach_on_own_thread"));
  CHECK(kel_test_count("thread_attach_with_mask") == 4, "thread attach callbacks without a signal mask");
  atomic_store(&g_wake, 1);
  for (int i = 0; i < kSleepers; ++i) pthread_join(sleepers[i], NULL);

  /* Cycles while four threads run through the entry. */
  pthread_t threads[4];
  for (int i = 0; i < 4; ++i) pthread_create(&threads[i], NULL, hammer, NULL);
  enum { kCycles = 100 };
  for (int i = 0; i < kCycles; ++i) {
    kel_test_detach();
    usleep(100);
    kel_test_attach();
    usleep(100);
  }
  atomic_store(&g_stop, 1);
  for (int i = 0; i < 4; ++i) pthread_join(threads[i], NULL);
  long counted = kel_test_count("getpid") - 21;
  CHECK(counted > 0 && counted <= g_stress_calls, "stress: counted %ld of %ld calls", counted, (long)g_stress_calls);
  CHECK(kel_test_count("detach_callbacks") == 1 + kCycles, "detach callbacks %ld", kel_test_count("detach_callbacks"));
  printf("detach_app: %ld calls during %d cycles, %ld counted while attached\n", (long)g_stress_calls, kCycles, counted);
  printf("detach_app: %s\n", g_failures ? "FAILED" : "ok");
  return g_failures ? 1 : 0;
}
