/* Records before and after giving up root: a thread writes and takes a contended lock, the program
 * becomes uid 65534 (nobody), and a new thread does the same again. Run as root. */
#include <fcntl.h>
#include <pthread.h>
#include <stdio.h>
#include <stdlib.h>
#include <unistd.h>

static pthread_mutex_t lock = PTHREAD_MUTEX_INITIALIZER;
static int devnull;

static void *contend(void *arg)
{
  (void)arg;
  for (int i = 0; i < 200; i++) {
    pthread_mutex_lock(&lock);
    write(devnull, "x", 1);
    usleep(50);
    pthread_mutex_unlock(&lock);
  }
  return 0;
}

/* Two threads taking turns at one lock: a wait for it is recorded. */
static void work(void)
{
  pthread_t a, b;
  pthread_create(&a, 0, contend, 0);
  pthread_create(&b, 0, contend, 0);
  pthread_join(a, 0);
  pthread_join(b, 0);
}

int main(void)
{
  devnull = open("/dev/null", O_WRONLY);
  work();
  if (setuid(65534) != 0) {
    perror("setuid");
    return 2;
  }
  work();
  printf("uid %d, done\n", (int)getuid());
  return 0;
}
