/* A parent that forks a child (or as many as its argument says, all at once); each takes a lock and writes a
 * line, the parent waits for every child. Each process's records must land in its own files. */
#include <pthread.h>
#include <stdio.h>
#include <stdlib.h>
#include <sys/wait.h>
#include <unistd.h>

static pthread_mutex_t lock = PTHREAD_MUTEX_INITIALIZER;

static void work(const char *who) {
  for (int i = 0; i < 100; ++i) {
    pthread_mutex_lock(&lock);
    pthread_mutex_unlock(&lock);
  }
  printf("%s done\n", who);
  fflush(stdout);
}

int main(int argc, char **argv) {
  int children = argc > 1 ? atoi(argv[1]) : 1;
  for (int i = 0; i < children; ++i) {
    pid_t child = fork();
    if (child < 0) { perror("fork"); return 1; }
    if (child == 0) {
      work("child");
      return 3;
    }
  }
  int failed = 0, status = 0;
  for (int i = 0; i < children; ++i)
    if (wait(&status) < 0 || !WIFEXITED(status) || WEXITSTATUS(status) != 3) failed = 1;
  work("parent");
  return failed;
}
