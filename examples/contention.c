/* A small program with the behaviour a profiler is for: worker threads that
 * contend on one mutex, a producer and consumers handing items over a condition
 * variable, file I/O, and many allocations. It prints a checksum that does not
 * depend on timing, so runs with and without the collector can be compared. */
#include <pthread.h>
#include <stdint.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <unistd.h>

#ifdef VORX_EXAMPLE_ANNOTATE
/* The program marks its own phases: each worker round is a task, and the file
 * round trip is a task of its own; a counter follows the queue's depth. Without
 * the collector these are no-ops. */
#include "ozknotify.h"
static ozk_domain *g_domain;
static ozk_string_handle *g_round_name, *g_file_name;
static ozk_counter *g_depth;
#define ANNOTATE_INIT()                                           \
  do {                                                            \
    g_domain = __ozk_domain_create("example");                    \
    g_round_name = __ozk_string_handle_create("worker round");    \
    g_file_name = __ozk_string_handle_create("file round trip");  \
    g_depth = __ozk_counter_create("queue depth", "example");     \
  } while (0)
#define TASK_BEGIN(name) __ozk_task_begin(g_domain, ozk_null_id(), ozk_null_id(), (name))
#define TASK_END() __ozk_task_end(g_domain)
#define QUEUE_DEPTH(n)                           \
  do {                                           \
    unsigned long long depth_ = (n);             \
    __ozk_counter_set_value(g_depth, &depth_);   \
  } while (0)
#else
#define ANNOTATE_INIT() ((void)0)
#define TASK_BEGIN(name) ((void)0)
#define TASK_END() ((void)0)
#define QUEUE_DEPTH(n) ((void)0)
#endif

enum { kWorkers = 4, kRoundsPerWorker = 200, kItems = 2000, kQueueSize = 16 };

static pthread_mutex_t g_counter_lock = PTHREAD_MUTEX_INITIALIZER;
static uint64_t g_counter;

/* Holds the lock while doing a little work, so that the others wait. */
static void *contending_worker(void *arg) {
  uintptr_t id = (uintptr_t)arg;
  for (int round = 0; round < kRoundsPerWorker; ++round) {
    TASK_BEGIN(g_round_name);
    pthread_mutex_lock(&g_counter_lock);
    g_counter += id + round;
    usleep(50);
    pthread_mutex_unlock(&g_counter_lock);
    TASK_END();
  }
  return NULL;
}

struct queue {
  pthread_mutex_t lock;
  pthread_cond_t not_empty, not_full;
  int items[kQueueSize];
  int head, count, closed;
};

static struct queue g_queue = {
    .lock = PTHREAD_MUTEX_INITIALIZER, .not_empty = PTHREAD_COND_INITIALIZER, .not_full = PTHREAD_COND_INITIALIZER};

static void queue_push(struct queue *q, int value) {
  pthread_mutex_lock(&q->lock);
  while (q->count == kQueueSize) pthread_cond_wait(&q->not_full, &q->lock);
  q->items[(q->head + q->count++) % kQueueSize] = value;
  QUEUE_DEPTH(q->count);
  pthread_cond_signal(&q->not_empty);
  pthread_mutex_unlock(&q->lock);
}

/* Returns 0 when the queue is closed and drained. */
static int queue_pop(struct queue *q, int *value) {
  pthread_mutex_lock(&q->lock);
  while (q->count == 0 && !q->closed) pthread_cond_wait(&q->not_empty, &q->lock);
  int have = q->count > 0;
  if (have) {
    *value = q->items[q->head];
    q->head = (q->head + 1) % kQueueSize;
    q->count--;
    QUEUE_DEPTH(q->count);
    pthread_cond_signal(&q->not_full);
  }
  pthread_mutex_unlock(&q->lock);
  return have;
}

static uint64_t g_consumed_sum;
static pthread_mutex_t g_sum_lock = PTHREAD_MUTEX_INITIALIZER;

static void *consumer(void *arg) {
  (void)arg;
  int value;
  uint64_t local = 0;
  while (queue_pop(&g_queue, &value)) {
    char *scratch = malloc(64 + value % 512); /* allocation per item */
    /* The buffer escapes, so the compiler keeps the allocation. */
    __asm__ volatile("" : : "r"(scratch) : "memory");
    memset(scratch, value & 0xff, 64);
    local += (unsigned char)scratch[0] + (uint64_t)value;
    free(scratch);
  }
  pthread_mutex_lock(&g_sum_lock);
  g_consumed_sum += local;
  pthread_mutex_unlock(&g_sum_lock);
  return NULL;
}

/* Writes a file in small pieces and reads it back; returns the byte sum. */
static uint64_t file_round_trip(void) {
  TASK_BEGIN(g_file_name);
  char path[] = "/tmp/vorx-example-XXXXXX";
  int fd = mkstemp(path);
  if (fd < 0) { perror("mkstemp"); exit(1); }
  char block[4096];
  for (int i = 0; i < 256; ++i) {
    memset(block, i, sizeof block);
    if (write(fd, block, sizeof block) != (ssize_t)sizeof block) { perror("write"); exit(1); }
  }
  lseek(fd, 0, SEEK_SET);
  uint64_t sum = 0;
  ssize_t got;
  while ((got = read(fd, block, sizeof block)) > 0)
    for (ssize_t i = 0; i < got; ++i) sum += (unsigned char)block[i];
  close(fd);
  unlink(path);
  TASK_END();
  return sum;
}

int main(void) {
  ANNOTATE_INIT();
  pthread_t workers[kWorkers], consumers[2];
  for (uintptr_t i = 0; i < kWorkers; ++i) pthread_create(&workers[i], NULL, contending_worker, (void *)i);
  for (int i = 0; i < 2; ++i) pthread_create(&consumers[i], NULL, consumer, NULL);

  for (int i = 0; i < kItems; ++i) queue_push(&g_queue, i);
  pthread_mutex_lock(&g_queue.lock);
  g_queue.closed = 1;
  pthread_cond_broadcast(&g_queue.not_empty);
  pthread_mutex_unlock(&g_queue.lock);

  uint64_t file_sum = file_round_trip();
  for (int i = 0; i < kWorkers; ++i) pthread_join(workers[i], NULL);
  for (int i = 0; i < 2; ++i) pthread_join(consumers[i], NULL);

  printf("counter=%llu consumed=%llu file=%llu\n", (unsigned long long)g_counter,
         (unsigned long long)g_consumed_sum, (unsigned long long)file_sum);
  return 0;
}
