/* Loads and unloads a library, forks a child that keeps working, and starts itself again through execv
 * and through posix_spawn. Exit status 0 when every step did what it should. */
#define _GNU_SOURCE
#include <dlfcn.h>
#include <spawn.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/wait.h>
#include <unistd.h>

extern char** environ;

/* The engine's own variables, which the program must never see. */
static int is_engine_variable(const char* entry) {
  return strncmp(entry, "KEL_TOOL=", 9) == 0 || strncmp(entry, "KEL_ARGS=", 9) == 0 ||
         strncmp(entry, "KEL_SAVED_LD_AUDIT=", 19) == 0 || strncmp(entry, "LD_AUDIT=", 9) == 0;
}

static int run_child_mode(void) {
  /* The engine's own variables never reach the program. */
  for (char** e = environ; *e; ++e)
    if (is_engine_variable(*e)) {
      printf("child sees %s\n", *e);
      return 3;
    }
  printf("child %d ran\n", getpid());
  return 0;
}

static int wait_ok(pid_t pid, const char* what) {
  int status = 0;
  if (waitpid(pid, &status, 0) != pid || !WIFEXITED(status) || WEXITSTATUS(status) != 0) {
    printf("FAIL %s: status %#x\n", what, status);
    return 0;
  }
  return 1;
}

int main(int argc, char** argv) {
  if (argc > 1 && strcmp(argv[1], "child-mode") == 0) return run_child_mode();
  if (argc < 2) {
    fprintf(stderr, "usage: %s <plugin.so>\n", argv[0]);
    return 2;
  }
  int ok = 1;
  for (char** e = environ; *e; ++e)
    if (is_engine_variable(*e)) printf("FAIL program sees %s\n", *e), ok = 0;

  /* Twice: the second load may reuse the first one's addresses. */
  for (int round = 0; round < 2; ++round) {
    void* plugin = dlopen(argv[1], RTLD_NOW);
    int (*sum)(int) = plugin ? (int (*)(int))dlsym(plugin, "plugin_sum") : NULL;
    if (!sum || sum(100) != 4950) printf("FAIL dlopen %s: %s\n", argv[1], dlerror()), ok = 0;
    if (plugin) dlclose(plugin);
  }

  /* A program of another architecture: the engine must stay out of it, whatever the follow callback says. */
  if (access("/bin/true", X_OK) == 0) {
    fflush(stdout);
    pid_t other = fork();
    if (other == 0) {
      execl("/bin/true", "true", (char*)NULL);
      _exit(5);
    }
    ok &= wait_ok(other, "exec of /bin/true");
  }

  fflush(stdout);
  pid_t pid = fork();
  if (pid == 0) {
    char* p = malloc(1000);
    snprintf(p, 1000, "forked child %d works", getpid());
    int n = (int)strlen(p);
    free(p);
    _exit(n > 10 ? 0 : 1);
  }
  ok &= wait_ok(pid, "fork");

  fflush(stdout);
  pid = fork();
  if (pid == 0) {
    execl("/proc/self/exe", argv[0], "child-mode", (char*)NULL);
    _exit(4);
  }
  ok &= wait_ok(pid, "execl");

  char* spawn_argv[] = {argv[0], "child-mode", NULL};
  if (posix_spawn(&pid, "/proc/self/exe", NULL, NULL, spawn_argv, environ) != 0) printf("FAIL posix_spawn\n"), ok = 0;
  else ok &= wait_ok(pid, "posix_spawn");

  printf("%s\n", ok ? "proc_app: ok" : "proc_app: FAILED");
  return ok ? 0 : 1;
}
