/* Checks, from inside the traced program, that the wrapped calls behave as they do natively:
 * interrupted reads, poll timeouts, errno after failures, cancellation inside a condition wait.
 * Each case prints "PASS <case>" or "FAIL <case>: <why>"; the exit status is the number of FAILs.
 * Cases that feed the report checks (contention, private lock, fread) print what the report
 * must agree with. Usage: wrapped_calls <case>... ("fread" takes the file to read next). */
#define _GNU_SOURCE
#include <errno.h>
#include <fcntl.h>
#include <malloc.h>
#include <poll.h>
#include <pthread.h>
#include <semaphore.h>
#include <signal.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <stdint.h>
#include <sys/socket.h>
#include <sys/time.h>
#include <sys/uio.h>
#include <sys/wait.h>
#include <time.h>
#include <unistd.h>

static int failures;

static void verdict(const char* name, int ok, const char* why) {
  if (ok) {
    printf("PASS %s\n", name);
  } else {
    printf("FAIL %s: %s\n", name, why);
    ++failures;
  }
}

static double now_s(void) {
  struct timespec ts;
  clock_gettime(CLOCK_MONOTONIC, &ts);
  return ts.tv_sec + ts.tv_nsec / 1e9;
}

static volatile sig_atomic_t alarms;
static void on_alarm(int sig) {
  (void)sig;
  ++alarms;
}

/* The handler is installed without SA_RESTART, so the kernel must end the read with EINTR
 * and the wrapper must hand that back rather than retry. */
static void case_eintr(void) {
  int fds[2];
  char byte;
  struct sigaction sa;
  memset(&sa, 0, sizeof sa);
  sa.sa_handler = on_alarm;
  sigemptyset(&sa.sa_mask);
  sigaction(SIGALRM, &sa, NULL);
  if (pipe(fds) != 0) {
    verdict("read_eintr", 0, "pipe failed");
    return;
  }
  struct itimerval timer = {{0, 0}, {0, 100000}};
  setitimer(ITIMER_REAL, &timer, NULL);
  errno = 0;
  ssize_t got = read(fds[0], &byte, 1);
  int saved = errno;
  char why[96];
  snprintf(why, sizeof why, "read returned %zd errno %d alarms %d", got, saved, (int)alarms);
  verdict("read_eintr", got == -1 && saved == EINTR && alarms == 1, why);
  close(fds[0]);
  close(fds[1]);
}

static void case_poll(void) {
  int fds[2];
  if (pipe(fds) != 0) {
    verdict("poll_timeout", 0, "pipe failed");
    return;
  }
  struct pollfd pfd = {fds[0], POLLIN, 0};
  double start = now_s();
  int rc = poll(&pfd, 1, 1000);
  double ms = (now_s() - start) * 1000.0;
  char why[96];
  snprintf(why, sizeof why, "poll returned %d after %.1f ms", rc, ms);
  verdict("poll_timeout", rc == 0 && ms >= 900.0 && ms <= 1500.0, why);
  close(fds[0]);
  close(fds[1]);
}

/* The errno values are printed too, so the test compares them with a native run's. */
static void case_errno(void) {
  char why[96];
  errno = 0;
  int fd = open("/nonexistent-vorx-e2e/missing", O_RDONLY);
  int e_open = errno;
  printf("errno open %d %d\n", fd, e_open);
  snprintf(why, sizeof why, "open returned %d errno %d", fd, e_open);
  verdict("errno_open_enoent", fd == -1 && e_open == ENOENT, why);

  errno = 0;
  int rc = close(-1);
  int e_close = errno;
  printf("errno close %d %d\n", rc, e_close);
  snprintf(why, sizeof why, "close returned %d errno %d", rc, e_close);
  verdict("errno_close_ebadf", rc == -1 && e_close == EBADF, why);

  int fds[2];
  signal(SIGPIPE, SIG_IGN);
  if (pipe(fds) != 0) {
    verdict("errno_write_epipe", 0, "pipe failed");
    return;
  }
  close(fds[0]);
  errno = 0;
  ssize_t wrote = write(fds[1], "x", 1);
  int e_write = errno;
  printf("errno write %zd %d\n", wrote, e_write);
  snprintf(why, sizeof why, "write returned %zd errno %d", wrote, e_write);
  verdict("errno_write_epipe", wrote == -1 && e_write == EPIPE, why);
  close(fds[1]);
}

/* Only stdio touches the file here: the report must show the fread, not the read beneath it. */
static void case_fread(const char* path) {
  FILE* f = fopen(path, "rb");
  if (!f) {
    verdict("fread", 0, "fopen failed");
    return;
  }
  static char buffer[1 << 16];
  size_t got = fread(buffer, 1, sizeof buffer, f);
  fclose(f);
  printf("fread bytes %zu\n", got);
  verdict("fread", got > 0, "fread read nothing");
}

/* Successful calls leave errno as the application set it: the collector's own work between the
 * original call and the return (clocks, buffers, files) must not leak into it. */
static void case_errno_kept(void) {
  char why[96];
  int fds[2];
  if (pipe(fds) != 0) {
    verdict("errno_kept", 0, "pipe failed");
    return;
  }
  pthread_mutex_t lock = PTHREAD_MUTEX_INITIALIZER;
  errno = ERANGE;
  ssize_t wrote = write(fds[1], "ab", 2);
  char got[2];
  ssize_t read_back = read(fds[0], got, 2);
  void* block = malloc(1000);
  free(block);
  pthread_mutex_lock(&lock);
  pthread_mutex_unlock(&lock);
  close(fds[0]);
  close(fds[1]);
  int after = errno;
  printf("errno kept %d\n", after);
  snprintf(why, sizeof why, "errno %d after successful calls (wrote %zd, read %zd)", after, wrote, read_back);
  verdict("errno_kept", after == ERANGE && wrote == 2 && read_back == 2, why);
}

/* Timed waits that expire report it through their return value, after about the time asked for. */
static void case_timeouts(void) {
  char why[128];
  pthread_mutex_t lock = PTHREAD_MUTEX_INITIALIZER;
  pthread_cond_t cond = PTHREAD_COND_INITIALIZER;
  sem_t sem;
  sem_init(&sem, 0, 0);
  struct timespec deadline;

  pthread_mutex_lock(&lock);
  clock_gettime(CLOCK_REALTIME, &deadline);
  deadline.tv_nsec += 100000000;
  if (deadline.tv_nsec >= 1000000000) deadline.tv_sec += 1, deadline.tv_nsec -= 1000000000;
  double start = now_s();
  int rc = pthread_cond_timedwait(&cond, &lock, &deadline);
  double ms = (now_s() - start) * 1000.0;
  int owner_again = pthread_mutex_trylock(&lock);
  pthread_mutex_unlock(&lock);
  snprintf(why, sizeof why, "cond_timedwait returned %d after %.1f ms, relock gave %d", rc, ms, owner_again);
  verdict("cond_timedwait_timeout", rc == ETIMEDOUT && ms >= 90.0 && ms <= 600.0 && owner_again == EBUSY, why);

  clock_gettime(CLOCK_REALTIME, &deadline);
  deadline.tv_nsec += 50000000;
  if (deadline.tv_nsec >= 1000000000) deadline.tv_sec += 1, deadline.tv_nsec -= 1000000000;
  errno = 0;
  rc = sem_timedwait(&sem, &deadline);
  int saved = errno;
  snprintf(why, sizeof why, "sem_timedwait returned %d errno %d", rc, saved);
  verdict("sem_timedwait_timeout", rc == -1 && saved == ETIMEDOUT, why);

  pthread_mutex_lock(&lock);
  rc = pthread_mutex_trylock(&lock);
  pthread_mutex_unlock(&lock);
  snprintf(why, sizeof why, "trylock of a held mutex returned %d", rc);
  verdict("mutex_trylock_busy", rc == EBUSY, why);
}

static int restart_pipe[2];
static void write_from_handler(int sig) {
  (void)sig;
  (void)!write(restart_pipe[1], "r", 1);
}

/* A wrapped call made by a signal handler that interrupts another wrapped call, with SA_RESTART:
 * the outer read is restarted and returns what the handler wrote. */
static void case_nested_signal(void) {
  char why[96];
  struct sigaction sa;
  memset(&sa, 0, sizeof sa);
  sa.sa_handler = write_from_handler;
  sa.sa_flags = SA_RESTART;
  sigemptyset(&sa.sa_mask);
  sigaction(SIGALRM, &sa, NULL);
  if (pipe(restart_pipe) != 0) {
    verdict("read_restarted", 0, "pipe failed");
    return;
  }
  struct itimerval timer = {{0, 0}, {0, 50000}};
  setitimer(ITIMER_REAL, &timer, NULL);
  char byte = 0;
  errno = 0;
  ssize_t got = read(restart_pipe[0], &byte, 1);
  snprintf(why, sizeof why, "read returned %zd byte '%c' errno %d", got, byte ? byte : '?', errno);
  verdict("read_restarted", got == 1 && byte == 'r', why);
  close(restart_pipe[0]);
  close(restart_pipe[1]);
  signal(SIGALRM, SIG_DFL);
}

static volatile sig_atomic_t queued_value, queued_code;
static void on_queued(int sig, siginfo_t* info, void* context) {
  (void)sig;
  (void)context;
  queued_value = info->si_value.sival_int;
  queued_code = info->si_code;
}

static pthread_key_t exit_key;
static volatile int destructor_ran;
static void key_destructor(void* value) { destructor_ran = (int)(intptr_t)value; }

static void* exiting_thread(void* unused) {
  (void)unused;
  pthread_setspecific(exit_key, (void*)(intptr_t)77);
  pthread_exit((void*)(intptr_t)42);
}

/* Handlers and start routines the application gives the library: the collector may stand in front of
 * them, but the application must get its own pointers, arguments and results back. */
static void case_callbacks(void) {
  char why[128];
  struct sigaction sa, old;
  memset(&sa, 0, sizeof sa);
  sa.sa_sigaction = on_queued;
  sa.sa_flags = SA_SIGINFO;
  sigemptyset(&sa.sa_mask);
  sigaction(SIGUSR1, &sa, NULL);
  memset(&old, 0, sizeof old);
  sigaction(SIGUSR1, NULL, &old);
  snprintf(why, sizeof why, "sigaction gave back %p, installed %p, flags %#x", (void*)old.sa_sigaction,
           (void*)on_queued, (unsigned)old.sa_flags);
  verdict("sigaction_returns_own_handler", old.sa_sigaction == on_queued && (old.sa_flags & SA_SIGINFO), why);

  union sigval value = {.sival_int = 4242};
  sigqueue(getpid(), SIGUSR1, value);
  snprintf(why, sizeof why, "handler saw value %d code %d", (int)queued_value, (int)queued_code);
  verdict("sigqueue_value_reaches_handler", queued_value == 4242 && queued_code == SI_QUEUE, why);
  signal(SIGUSR1, SIG_DFL);

  void (*previous)(int) = signal(SIGUSR2, on_alarm);
  void (*mine)(int) = signal(SIGUSR2, SIG_DFL);
  verdict("signal_returns_own_handler", previous == SIG_DFL && mine == on_alarm, "signal() gave back another handler");
}

/* A thread that ends through pthread_exit, not by returning from its start routine. */
static void case_thread_exit(void) {
  char why[96];
  pthread_t thread;
  void* result = NULL;
  pthread_key_create(&exit_key, key_destructor);
  pthread_create(&thread, NULL, exiting_thread, NULL);
  pthread_join(thread, &result);
  snprintf(why, sizeof why, "join gave %d, destructor saw %d", (int)(intptr_t)result, destructor_ran);
  verdict("pthread_exit_value_and_destructor", result == (void*)(intptr_t)42 && destructor_ran == 77, why);
}

/* Children started through the shell: their output arrives and their status comes back. */
static void case_spawn(void) {
  char why[96];
  int status = system("exit 3");
  snprintf(why, sizeof why, "system returned %#x", status);
  verdict("system_status", WIFEXITED(status) && WEXITSTATUS(status) == 3, why);
  FILE* child = popen("echo from-child", "r");
  char line[64] = "";
  if (child && !fgets(line, sizeof line, child)) line[0] = 0;
  int closed = child ? pclose(child) : -1;
  snprintf(why, sizeof why, "popen read '%.20s' pclose %d", line, closed);
  verdict("popen_output", strcmp(line, "from-child\n") == 0 && closed == 0, why);
}

/* The allocator's contracts through the memory wrappers: alignment, zeroing, contents kept by realloc,
 * and failures reported the way the library reports them. */
static void case_memory(void) {
  char why[128];
  void* aligned = NULL;
  int rc = posix_memalign(&aligned, 4096, 10000);
  void* aligned2 = aligned_alloc(256, 1024);
  void* aligned3 = memalign(64, 3000);
  snprintf(why, sizeof why, "posix_memalign %d %p, aligned_alloc %p, memalign %p", rc, aligned, aligned2, aligned3);
  verdict("memory_alignment", rc == 0 && ((uintptr_t)aligned & 4095) == 0 && aligned2 &&
          ((uintptr_t)aligned2 & 255) == 0 && aligned3 && ((uintptr_t)aligned3 & 63) == 0, why);
  free(aligned);
  free(aligned2);
  free(aligned3);

  unsigned char* zeroed = calloc(5000, 3);
  int nonzero = 0;
  for (int i = 0; i < 15000; ++i) nonzero += zeroed[i] != 0;
  verdict("calloc_zeroed", zeroed && nonzero == 0, "calloc gave memory that is not zero");
  free(zeroed);

  unsigned char* grown = malloc(100);
  for (int i = 0; i < 100; ++i) grown[i] = (unsigned char)i;
  grown = realloc(grown, 1 << 20);
  int kept = 1;
  for (int i = 0; i < 100; ++i) kept &= grown[i] == (unsigned char)i;
  grown = realloc(grown, 10);
  for (int i = 0; i < 10; ++i) kept &= grown[i] == (unsigned char)i;
  verdict("realloc_keeps_contents", kept, "realloc lost the block's contents");
  free(grown);

  errno = 0;
  volatile size_t too_big = (size_t)-16;  /* volatile: the compiler would refuse the constant */
  void* huge = malloc(too_big);
  int saved = errno;
  rc = posix_memalign(&aligned, 3, 16);
  snprintf(why, sizeof why, "malloc(huge) %p errno %d, posix_memalign(align 3) %d", huge, saved, rc);
  verdict("allocation_failures", huge == NULL && saved == ENOMEM && rc == EINVAL, why);
}

static volatile int busy_stop;
static void* busy_worker(void* unused) {
  (void)unused;
  pthread_mutex_t lock = PTHREAD_MUTEX_INITIALIZER;
  int null_fd = open("/dev/null", O_WRONLY);
  /* Bounded, so that a stuck fork cannot make these loops fill the disk with records. */
  for (int i = 0; i < 100000 && !__atomic_load_n(&busy_stop, __ATOMIC_SEQ_CST); ++i) {
    void* block = malloc(64);
    pthread_mutex_lock(&lock);
    (void)!write(null_fd, "x", 1);
    pthread_mutex_unlock(&lock);
    free(block);
  }
  close(null_fd);
  return NULL;
}

/* Forks while other threads are inside wrapped calls: whatever the collector locked in them must
 * not leave the child stuck. The child works through the wrappers and exits on its own. */
static void case_fork_busy(void) {
  char why[96];
  pthread_t workers[2];
  for (int i = 0; i < 2; ++i) pthread_create(&workers[i], NULL, busy_worker, NULL);
  usleep(20000);
  int clean = 0;
  for (int round = 0; round < 10; ++round) {
    pid_t pid = fork();
    if (pid == 0) {
      void* block = malloc(100);
      pthread_mutex_t lock = PTHREAD_MUTEX_INITIALIZER;
      pthread_mutex_lock(&lock);
      pthread_mutex_unlock(&lock);
      int null_fd = open("/dev/null", O_WRONLY);
      (void)!write(null_fd, block, 100);
      close(null_fd);
      free(block);
      _exit(5);
    }
    /* A child stuck in the collector's fork handling is killed after 5 s and counts as not clean. */
    int status = 0;
    double deadline = now_s() + 5.0;
    while (waitpid(pid, &status, WNOHANG) == 0) {
      if (now_s() > deadline) {
        kill(pid, SIGKILL);
        waitpid(pid, &status, 0);
        break;
      }
      usleep(10000);
    }
    clean += WIFEXITED(status) && WEXITSTATUS(status) == 5;
  }
  __atomic_store_n(&busy_stop, 1, __ATOMIC_SEQ_CST);
  for (int i = 0; i < 2; ++i) pthread_join(workers[i], NULL);
  snprintf(why, sizeof why, "%d of 10 children exited cleanly", clean);
  verdict("fork_while_busy", clean == 10, why);
}

static void* short_lived(void* arg) {
  void* block = malloc(32);
  free(block);
  return arg;
}

/* Many threads one after the other and a few at a time: thread ids come back, results must not mix. */
static void case_thread_churn(void) {
  char why[96];
  int wrong = 0;
  for (int round = 0; round < 100; ++round) {
    pthread_t threads[4];
    for (int i = 0; i < 4; ++i) pthread_create(&threads[i], NULL, short_lived, (void*)(intptr_t)(round * 4 + i));
    for (int i = 0; i < 4; ++i) {
      void* result = NULL;
      pthread_join(threads[i], &result);
      wrong += result != (void*)(intptr_t)(round * 4 + i);
    }
  }
  snprintf(why, sizeof why, "%d of 400 joins gave another thread's result", wrong);
  verdict("thread_churn", wrong == 0, why);
}

/* Positioned, vectored and socket I/O: data, offsets and errors as the kernel gives them. */
static void case_vector_io(void) {
  char why[128];
  char path[] = "/tmp/vorx-e2e-XXXXXX";
  int fd = mkstemp(path);
  unlink(path);
  struct iovec out[2] = {{"hello ", 6}, {"vectors", 7}};
  ssize_t wrote = writev(fd, out, 2);
  ssize_t pwrote = pwrite(fd, "V", 1, 6);
  off_t position = lseek(fd, 0, SEEK_CUR);
  char a[6] = "", b[8] = "";
  struct iovec in[2] = {{a, 6}, {b, 7}};
  ssize_t pread_n = pread(fd, b, 7, 6);
  lseek(fd, 0, SEEK_SET);
  ssize_t read_n = readv(fd, in, 2);
  snprintf(why, sizeof why, "writev %zd pwrite %zd pos %ld pread %zd readv %zd '%.6s%.7s'", wrote, pwrote,
           (long)position, pread_n, read_n, a, b);
  verdict("vectored_and_positioned_io", wrote == 13 && pwrote == 1 && position == 13 && pread_n == 7 &&
          read_n == 13 && memcmp(a, "hello ", 6) == 0 && memcmp(b, "Vectors", 7) == 0, why);
  int copy = dup2(fd, 100);
  int flags = fcntl(copy, F_GETFD);
  close(copy);
  close(fd);
  verdict("dup2_fcntl", copy == 100 && flags == 0, "dup2/fcntl gave other results");

  int fds[2];
  (void)!pipe(fds);
  errno = 0;
  off_t seek = lseek(fds[0], 0, SEEK_SET);
  int saved = errno;
  close(fds[0]);
  close(fds[1]);
  snprintf(why, sizeof why, "lseek on a pipe returned %ld errno %d", (long)seek, saved);
  verdict("lseek_pipe_espipe", seek == -1 && saved == ESPIPE, why);

  int pair[2];
  socketpair(AF_UNIX, SOCK_STREAM, 0, pair);
  ssize_t sent = send(pair[0], "peek-me", 7, 0);
  char peeked[8] = "", got[8] = "";
  ssize_t peek_n = recv(pair[1], peeked, 7, MSG_PEEK);
  ssize_t recv_n = recv(pair[1], got, 7, 0);
  ssize_t empty = recv(pair[1], got, 7, MSG_DONTWAIT);
  saved = errno;
  close(pair[0]);
  close(pair[1]);
  snprintf(why, sizeof why, "send %zd peek %zd recv %zd then %zd errno %d", sent, peek_n, recv_n, empty, saved);
  verdict("socket_peek_and_nonblocking", sent == 7 && peek_n == 7 && recv_n == 7 && memcmp(got, "peek-me", 7) == 0 &&
          empty == -1 && saved == EAGAIN, why);
}

static pthread_mutex_t cancel_lock = PTHREAD_MUTEX_INITIALIZER;
static pthread_cond_t cancel_cond = PTHREAD_COND_INITIALIZER;
static sem_t waiter_ready;

static void unlock_on_cancel(void* lock) { pthread_mutex_unlock(lock); }

static void* cond_waiter(void* unused) {
  (void)unused;
  pthread_mutex_lock(&cancel_lock);
  pthread_cleanup_push(unlock_on_cancel, &cancel_lock);
  sem_post(&waiter_ready);
  for (;;) pthread_cond_wait(&cancel_cond, &cancel_lock);
  pthread_cleanup_pop(1);
  return NULL;
}

/* The collector's bookkeeping around the wait must not survive the thread's unwinding:
 * the mutex must come back usable and the program must finish. */
static void case_cancel(void) {
  pthread_t thread;
  void* result = NULL;
  sem_init(&waiter_ready, 0, 0);
  pthread_create(&thread, NULL, cond_waiter, NULL);
  sem_wait(&waiter_ready);
  usleep(50000);
  pthread_cancel(thread);
  int rc = pthread_join(thread, &result);
  verdict("cancel_in_cond_wait", rc == 0 && result == PTHREAD_CANCELED, "join did not see the cancellation");
  int relock = pthread_mutex_trylock(&cancel_lock);
  verdict("cancel_mutex_released", relock == 0, "the cleanup handler did not release the mutex");
  if (relock == 0) pthread_mutex_unlock(&cancel_lock);
}

enum { ROUNDS = 20, HOLD_US = 5000 };
static pthread_mutex_t contended = PTHREAD_MUTEX_INITIALIZER;
static sem_t held, taken;
static double waited_s, slept_s;
/* Rounds the holder has finished; the taker reads it to know whether its lock call will block
 * (on a loaded machine the taker may wake only after the holder let go). */
static volatile int released;
static int blocked;

static void* holder(void* unused) {
  (void)unused;
  for (int i = 0; i < ROUNDS; ++i) {
    pthread_mutex_lock(&contended);
    sem_post(&held);
    double start = now_s();
    usleep(HOLD_US);
    slept_s += now_s() - start;
    __atomic_store_n(&released, i + 1, __ATOMIC_SEQ_CST);
    pthread_mutex_unlock(&contended);
    sem_wait(&taken);
  }
  return NULL;
}

static void* taker(void* unused) {
  (void)unused;
  for (int i = 0; i < ROUNDS; ++i) {
    sem_wait(&held);
    if (__atomic_load_n(&released, __ATOMIC_SEQ_CST) <= i) ++blocked;
    double start = now_s();
    pthread_mutex_lock(&contended);
    waited_s += now_s() - start;
    pthread_mutex_unlock(&contended);
    sem_post(&taken);
  }
  return NULL;
}

/* One thread holds the mutex for a known sleep while the other blocks on it, ROUNDS times. */
static void case_contention(void) {
  pthread_t a, b;
  sem_init(&held, 0, 0);
  sem_init(&taken, 0, 0);
  pthread_create(&a, NULL, holder, NULL);
  pthread_create(&b, NULL, taker, NULL);
  pthread_join(a, NULL);
  pthread_join(b, NULL);
  printf("contended %p waited %.6f slept %.6f blocked %d\n", (void*)&contended, waited_s, slept_s, blocked);
  verdict("contention", waited_s > 0.0, "the taker never waited");
}

/* A mutex only one thread ever takes: never contended. */
static void case_private(void) {
  static pthread_mutex_t alone = PTHREAD_MUTEX_INITIALIZER;
  for (int i = 0; i < 1000; ++i) {
    pthread_mutex_lock(&alone);
    pthread_mutex_unlock(&alone);
  }
  printf("private %p\n", (void*)&alone);
  verdict("private", 1, "");
}

int main(int argc, char** argv) {
  setvbuf(stdout, NULL, _IOLBF, 0);
  for (int i = 1; i < argc; ++i) {
    const char* which = argv[i];
    if (strcmp(which, "eintr") == 0) case_eintr();
    else if (strcmp(which, "poll") == 0) case_poll();
    else if (strcmp(which, "errno") == 0) case_errno();
    else if (strcmp(which, "cancel") == 0) case_cancel();
    else if (strcmp(which, "errno_kept") == 0) case_errno_kept();
    else if (strcmp(which, "callbacks") == 0) case_callbacks();
    else if (strcmp(which, "thread_exit") == 0) case_thread_exit();
    else if (strcmp(which, "spawn") == 0) case_spawn();
    else if (strcmp(which, "memory") == 0) case_memory();
    else if (strcmp(which, "vector_io") == 0) case_vector_io();
    else if (strcmp(which, "fork_busy") == 0) case_fork_busy();
    else if (strcmp(which, "thread_churn") == 0) case_thread_churn();
    else if (strcmp(which, "timeouts") == 0) case_timeouts();
    else if (strcmp(which, "nested_signal") == 0) case_nested_signal();
    else if (strcmp(which, "contention") == 0) case_contention();
    else if (strcmp(which, "private") == 0) case_private();
    else if (strcmp(which, "fread") == 0 && i + 1 < argc) case_fread(argv[++i]);
    else verdict(which, 0, "no such case");
  }
  return failures;
}
