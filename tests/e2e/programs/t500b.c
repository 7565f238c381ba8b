/* N threads with the default stack (8 MiB each: the attribute with a small stack is made but not used),
 * all started before any may go on; each takes a mutex once, then all are joined. About 505 such threads
 * fit in a 32-bit address space. */
#include <pthread.h>
#include <stdio.h>
#include <stdlib.h>
#include <unistd.h>
static pthread_barrier_t bar;
static pthread_mutex_t m = PTHREAD_MUTEX_INITIALIZER;
static int counter;
static void* body(void* a) { (void)a; pthread_barrier_wait(&bar); pthread_mutex_lock(&m); counter++; pthread_mutex_unlock(&m); return 0; }
int main(int argc, char** argv) {
  int n = argc > 1 ? atoi(argv[1]) : 500;
  pthread_t t[2000]; pthread_attr_t at; pthread_attr_init(&at); pthread_attr_setstacksize(&at, 64*1024);
  pthread_barrier_init(&bar, 0, n + 1);
  for (int i = 0; i < n; i++) if (pthread_create(&t[i], 0, body, 0)) { perror("create"); return 2; }
  pthread_barrier_wait(&bar);
  for (int i = 0; i < n; i++) pthread_join(t[i], 0);
  printf("%d\n", counter);
  return 0;
}
