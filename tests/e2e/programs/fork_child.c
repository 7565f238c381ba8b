/* A parent that forks a child; both take a lock and write a line, the parent
 * waits for the child. Each process's records must land in its own files. */
#include <pthread.h>
#include <stdio.h>
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

int main(void) {
  pid_t child = fork();
  if (child < 0) { perror("fork"); return 1; }
  if (child == 0) {
    work("child");
    return 3;
  }
  int status = 0;
  waitpid(child, &status, 0);
  work("parent");
  return WIFEXITED(status) && WEXITSTATUS(status) == 3 ? 0 : 1;
}
