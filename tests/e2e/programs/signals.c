/* Programs that lean on signals, one per mode. Each prints what it saw; the output and the exit status must
 * be the same natively and under the collector. Every mode also takes locks and writes, so that the
 * collector has records to make while signals come. */
#define _GNU_SOURCE
#include <errno.h>
#include <fcntl.h>
#include <pthread.h>
#include <semaphore.h>
#include <setjmp.h>
#include <signal.h>
#include <stdint.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/signalfd.h>
#include <sys/time.h>
#include <unistd.h>

static pthread_mutex_t lock = PTHREAD_MUTEX_INITIALIZER;
static volatile sig_atomic_t hits;

static void busy(int rounds) {
  for (int i = 0; i < rounds; ++i) {
    pthread_mutex_lock(&lock);
    pthread_mutex_unlock(&lock);
  }
}

static void count(int signo) {
  (void)signo;
  ++hits;
}

/* ---- a thread started while another waits in sigsuspend ---------------------------------------------- */

static pthread_t main_thread;
static void* send_usr1(void* arg) {
  (void)arg;
  pthread_kill(main_thread, SIGUSR1);
  return NULL;
}
static void* start_sender(void* arg) {
  (void)arg;
  usleep(100000);
  pthread_t b;
  pthread_create(&b, NULL, send_usr1, NULL);
  pthread_join(b, NULL);
  return NULL;
}
static int mode_suspend(void) {
  main_thread = pthread_self();
  signal(SIGUSR1, count);
  sigset_t set, old;
  sigemptyset(&set);
  sigaddset(&set, SIGUSR1);
  sigprocmask(SIG_BLOCK, &set, &old);
  pthread_t a;
  pthread_create(&a, NULL, start_sender, NULL);
  int r = sigsuspend(&old);
  int why = errno;
  pthread_join(a, NULL);
  printf("sigsuspend %d %s, handled %d\n", r, why == EINTR ? "EINTR" : "?", (int)hits);
  return 0;
}

/* ---- a fault handler that recovers ---------------------------------------------------------------------- */

static sigjmp_buf recover_point;
static volatile int* volatile unmapped = (volatile int*)16;
static void recover(int signo, siginfo_t* info, void* context) {
  (void)signo;
  (void)context;
  if (info->si_addr == (void*)16) ++hits;
  siglongjmp(recover_point, 1);
}
static int mode_segv_recover(void) {
  struct sigaction sa = {0};
  sa.sa_sigaction = recover;
  sa.sa_flags = SA_SIGINFO;
  sigemptyset(&sa.sa_mask);
  sigaction(SIGSEGV, &sa, NULL);
  for (volatile int i = 0; i < 1000; ++i) {
    if (sigsetjmp(recover_point, 1) == 0) {
      busy(3);
      *unmapped = i;
    }
  }
  struct sigaction now;
  sigaction(SIGSEGV, NULL, &now);
  printf("recovered %d times, handler kept %d\n", (int)hits, now.sa_sigaction == recover);
  return 0;
}

/* ---- timers --------------------------------------------------------------------------------------------- */

static int mode_itimer(void) {
  signal(SIGALRM, count);
  struct itimerval every = {{0, 2000}, {0, 2000}}, none = {{0, 0}, {0, 0}}, left;
  setitimer(ITIMER_REAL, &every, NULL);
  while (hits < 50) busy(100);
  setitimer(ITIMER_REAL, &none, &left);
  alarm(100);
  unsigned remaining = alarm(0);
  printf("ticks reached 50, alarm left %u\n", remaining);
  return 0;
}

/* ---- alternate stack ------------------------------------------------------------------------------------ */

static char altstack[64 * 1024];
static volatile int on_altstack;
static void where(int signo) {
  (void)signo;
  char here;
  on_altstack = &here >= altstack && &here < altstack + sizeof altstack;
  busy(10);
}
static int mode_altstack(void) {
  stack_t ss = {0}, seen = {0};
  ss.ss_sp = altstack;
  ss.ss_size = sizeof altstack;
  sigaltstack(&ss, NULL);
  sigaltstack(NULL, &seen);
  struct sigaction sa = {0};
  sa.sa_handler = where;
  sa.sa_flags = SA_ONSTACK;
  sigemptyset(&sa.sa_mask);
  sigaction(SIGUSR2, &sa, NULL);
  raise(SIGUSR2);
  printf("altstack set %d, handler on it %d\n", seen.ss_sp == altstack && seen.ss_size == sizeof altstack,
         (int)on_altstack);
  return 0;
}

/* ---- a signal thread in sigwait, signals sent to the process ------------------------------------------- */

static sem_t answered;
static void* signal_thread(void* arg) {
  sigset_t* set = arg;
  for (int i = 0; i < 100; ++i) {
    int signo = 0;
    if (sigwait(set, &signo) == 0 && signo == SIGUSR1) ++hits;
    sem_post(&answered);
  }
  return NULL;
}
static int mode_sigwait(void) {
  static sigset_t set;
  sigemptyset(&set);
  sigaddset(&set, SIGUSR1);
  pthread_sigmask(SIG_BLOCK, &set, NULL);
  sem_init(&answered, 0, 0);
  pthread_t t;
  pthread_create(&t, NULL, signal_thread, &set);
  for (int i = 0; i < 100; ++i) {
    kill(getpid(), SIGUSR1);
    busy(5);
    while (sem_wait(&answered) != 0) continue;
  }
  pthread_join(t, NULL);
  printf("sigwait took %d of 100\n", (int)hits);
  return 0;
}

/* ---- real-time signals with a payload, and signalfd ----------------------------------------------------- */

static volatile int payload_sum;
static void take_payload(int signo, siginfo_t* info, void* context) {
  (void)signo;
  (void)context;
  payload_sum += info->si_value.sival_int;
  ++hits;
}
static int mode_sigqueue(void) {
  struct sigaction sa = {0};
  sa.sa_sigaction = take_payload;
  sa.sa_flags = SA_SIGINFO;
  sigemptyset(&sa.sa_mask);
  int rt = SIGRTMIN + 3;
  sigaction(rt, &sa, NULL);
  sigset_t set, old;
  sigemptyset(&set);
  sigaddset(&set, rt);
  sigprocmask(SIG_BLOCK, &set, &old);
  for (int i = 1; i <= 10; ++i) {
    union sigval v = {.sival_int = i};
    sigqueue(getpid(), rt, v);
  }
  sigprocmask(SIG_SETMASK, &old, NULL);  /* all ten queued: real-time signals are not merged */
  busy(10);
  printf("queued signals %d, payload sum %d\n", (int)hits, payload_sum);

  sigset_t fdset;
  sigemptyset(&fdset);
  sigaddset(&fdset, SIGUSR2);
  sigprocmask(SIG_BLOCK, &fdset, NULL);
  int fd = signalfd(-1, &fdset, 0);
  raise(SIGUSR2);
  struct signalfd_siginfo si;
  ssize_t n = read(fd, &si, sizeof si);
  printf("signalfd read %d bytes for signal %u\n", (int)n, si.ssi_signo);
  close(fd);
  return 0;
}

/* ---- the program's view of its masks and actions ------------------------------------------------------ */

static int mode_view(void) {
  sigset_t all, old, now, pending;
  sigfillset(&all);
  sigprocmask(SIG_BLOCK, &all, &old);
  sigprocmask(SIG_SETMASK, NULL, &now);
  int blocked = 0;
  for (int s = 1; s < 32; ++s)
    if (s != SIGKILL && s != SIGSTOP) blocked += sigismember(&now, s) == 1;
  raise(SIGUSR1);
  sigpending(&pending);
  printf("blocked %d of 29, pending usr1 %d\n", blocked, sigismember(&pending, SIGUSR1));
  signal(SIGUSR1, SIG_IGN); /* discards the pending one, as it would natively */
  sigprocmask(SIG_SETMASK, &old, NULL);
  void (*before)(int) = signal(SIGHUP, count);
  void (*after)(int) = signal(SIGHUP, SIG_DFL);
  printf("signal() returns the old handler: %d %d\n", before == SIG_DFL, after == count);
  struct sigaction once = {0}, seen;
  once.sa_handler = count;
  once.sa_flags = SA_RESETHAND;
  sigaction(SIGUSR2, &once, NULL);
  raise(SIGUSR2);
  sigaction(SIGUSR2, NULL, &seen);
  printf("one-shot handler ran %d, now default %d\n", (int)hits, seen.sa_handler == SIG_DFL);
  return 0;
}

/* ---- cancellation of threads that wait --------------------------------------------------------------- */

static pthread_cond_t cond = PTHREAD_COND_INITIALIZER;
static int pipe_fds[2];
/* pthread_mutex_lock is no cancellation point: the cancel waits for the next one, which the first round's
 * thread never reaches, so it ends normally with its cancel still pending */
static void* wait_in_lock(void* arg) {
  pthread_mutex_lock(&lock);
  pthread_mutex_unlock(&lock);
  if (arg) pthread_testcancel();
  return NULL;
}
static void unlock_on_cancel(void* arg) { pthread_mutex_unlock(arg); }
static void* wait_in_cond(void* arg) {
  (void)arg;
  pthread_mutex_lock(&lock);
  pthread_cleanup_push(unlock_on_cancel, &lock);
  for (;;) pthread_cond_wait(&cond, &lock);
  pthread_cleanup_pop(1);
  return NULL;
}
static void* wait_in_read(void* arg) {
  (void)arg;
  char c;
  for (;;) read(pipe_fds[0], &c, 1);
  return NULL;
}
static int mode_cancel(void) {
  if (pipe(pipe_fds) != 0) return 2;
  for (int round = 0; round < 5; ++round) {
    pthread_t t[3];
    pthread_mutex_lock(&lock);
    pthread_create(&t[0], NULL, wait_in_lock, round ? &lock : NULL);
    usleep(20000);
    pthread_cancel(t[0]);
    pthread_mutex_unlock(&lock);
    pthread_create(&t[1], NULL, wait_in_cond, NULL);
    pthread_create(&t[2], NULL, wait_in_read, NULL);
    usleep(20000);
    pthread_cancel(t[1]);
    pthread_cancel(t[2]);
    int cancelled = 0;
    for (int i = 0; i < 3; ++i) {
      void* result = NULL;
      pthread_join(t[i], &result);
      cancelled += result == PTHREAD_CANCELED;
    }
    printf("round %d: %d of 3 cancelled\n", round, cancelled);
  }
  return 0;
}

/* ---- death by a signal, after some records ------------------------------------------------------------ */

static void* kill_from_elsewhere(void* arg) {
  busy(100);
  kill(getpid(), (int)(intptr_t)arg);
  return NULL;
}
static int mode_die(const char* how) {
  busy(1000);
  printf("before the end\n");
  fflush(stdout);
  if (!strcmp(how, "segv")) *unmapped = 1;
  if (!strcmp(how, "abort")) abort();
  if (!strcmp(how, "raise-term")) raise(SIGTERM);
  if (!strcmp(how, "usr1")) kill(getpid(), SIGUSR1);
  if (!strcmp(how, "term-from-thread")) {
    pthread_t t;
    pthread_create(&t, NULL, kill_from_elsewhere, (void*)(intptr_t)SIGTERM);
    for (int i = 0; i < 2000000; ++i) busy(10);  /* bounded: a lost signal must not fill the disk */
    printf("still alive\n");
    return 4;
  }
  if (!strcmp(how, "wait")) {  /* killed from outside while it waits */
    printf("waiting as %d\n", (int)getpid());
    fflush(stdout);
    for (;;) pause();
  }
  sleep(1);
  return 3;
}

int main(int argc, char** argv) {
  setvbuf(stdout, NULL, _IOLBF, 0);
  const char* mode = argc > 1 ? argv[1] : "";
  if (!strcmp(mode, "suspend")) return mode_suspend();
  if (!strcmp(mode, "segv-recover")) return mode_segv_recover();
  if (!strcmp(mode, "itimer")) return mode_itimer();
  if (!strcmp(mode, "altstack")) return mode_altstack();
  if (!strcmp(mode, "sigwait")) return mode_sigwait();
  if (!strcmp(mode, "sigqueue")) return mode_sigqueue();
  if (!strcmp(mode, "view")) return mode_view();
  if (!strcmp(mode, "cancel")) return mode_cancel();
  if (!strcmp(mode, "die") && argc > 2) return mode_die(argv[2]);
  fprintf(stderr, "usage: signals suspend|segv-recover|itimer|altstack|sigwait|sigqueue|view|cancel|die HOW\n");
  return 2;
}
