// Running a tool callback on every thread of the process: the thread attach callbacks (with the thread's
// own signal mask) when an attach completes, the thread detach callbacks when the probes are gone.
//
// Each other thread is sent one real-time signal (SIGRTMAX, or the engine switch -thread_signal) with
// tgkill while the engine's handler is installed; the handler runs the callbacks on that thread and
// acknowledges. A signal that does not come from the engine goes on to the handler that was there before.
// A thread that blocks the signal is not sent it; one that does not answer within a short wait (a thread
// on its way out blocks everything) is skipped, and the engine's handler then stays installed until that
// late signal has come and been dropped, so the program never receives a signal it did not send. The
// handler is installed through the engine's own C library, so wrappers on the program's sigaction do not
// see it.
#include <dirent.h>
#include <fcntl.h>
#include <signal.h>
#include <sys/syscall.h>
#include <time.h>
#include <ucontext.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "engine.h"

namespace kel {
namespace {

LEVEL_BASE::KNOB<int> g_knob_signal(LEVEL_BASE::KNOB_MODE_WRITEONCE, "kel", "thread_signal", "0",
                                    "signal that visits threads for the thread callbacks (0: SIGRTMAX)");

constexpr int kMaxThreads = 4096;
// A busy thread on a loaded machine may wait for a processor that long before it takes the signal.
constexpr long kWaitPerThreadNs = 250 * 1000 * 1000;

struct Visit {
  int tid;
  volatile int done;  // 1 when the callbacks ran on that thread
};

// One visit at a time, under the client lock.
struct Request {
  volatile int active = 0;
  volatile int outstanding = 0;  // visit signals sent and not yet taken
  int signal = 0;
  int pid = 0;
  ThreadVisitor visitor = nullptr;
  Visit visits[kMaxThreads];
  int count = 0;
  struct sigaction previous {};
};
Request g_request;

int visit_signal() { return g_knob_signal.Value() > 0 ? g_knob_signal.Value() : SIGRTMAX; }

long raw_gettid() { return syscall(SYS_gettid); }

void chain_to_previous(int signal, siginfo_t* info, void* context) {
  const struct sigaction& old = g_request.previous;
  if (old.sa_flags & SA_SIGINFO) {
    if (old.sa_sigaction) old.sa_sigaction(signal, info, context);
    return;
  }
  if (old.sa_handler == SIG_IGN) return;
  if (old.sa_handler == SIG_DFL) {  // what the program would have had: the default action, now
    sigaction(signal, &old, nullptr);
    syscall(SYS_tgkill, getpid(), raw_gettid(), signal);
    return;
  }
  old.sa_handler(signal);
}

void on_visit_signal(int signal, siginfo_t* info, void* context) {
  int saved_errno = errno;
  bool from_engine = info->si_code == SI_TKILL && info->si_pid == g_request.pid &&
                     __atomic_load_n(&g_request.outstanding, __ATOMIC_ACQUIRE) > 0;
  Visit* visit = nullptr;
  if (from_engine && g_request.active) {
    int self = static_cast<int>(raw_gettid());
    for (int i = 0; i < g_request.count; ++i)
      if (g_request.visits[i].tid == self && !g_request.visits[i].done) visit = &g_request.visits[i];
  }
  if (visit) {
    g_request.visitor(&static_cast<ucontext_t*>(context)->uc_sigmask);
    __atomic_store_n(&visit->done, 1, __ATOMIC_RELEASE);
    __atomic_fetch_sub(&g_request.outstanding, 1, __ATOMIC_ACQ_REL);
  } else if (from_engine) {  // a late one: dropped; the last puts the program's handler back
    if (__atomic_sub_fetch(&g_request.outstanding, 1, __ATOMIC_ACQ_REL) == 0 && !g_request.active)
      sigaction(signal, &g_request.previous, nullptr);
  } else {
    chain_to_previous(signal, info, context);
  }
  errno = saved_errno;
}

// The process's threads, read with raw system calls.
int list_threads(Visit* out, int capacity) {
  int fd = static_cast<int>(syscall(SYS_openat, AT_FDCWD, "/proc/self/task", O_RDONLY | O_DIRECTORY | O_CLOEXEC));
  if (fd < 0) return 0;
  int count = 0;
  alignas(8) char buffer[4096];
  for (;;) {
    long n = syscall(SYS_getdents64, fd, buffer, sizeof buffer);
    if (n <= 0) break;
    for (long at = 0; at < n;) {
      auto* entry = reinterpret_cast<struct dirent64*>(buffer + at);
      at += entry->d_reclen;
      int tid = atoi(entry->d_name);
      if (tid > 0 && count < capacity) out[count++] = {tid, 0};
    }
  }
  syscall(SYS_close, fd);
  return count;
}

// Whether thread `tid` cannot take `signal` now: it blocks it (the SigBlk line of its status), or it is
// gone or going (a zombie, or dead).
bool blocks_signal(int tid, int signal) {
  char path[64];
  snprintf(path, sizeof path, "/proc/self/task/%d/status", tid);
  int fd = static_cast<int>(syscall(SYS_openat, AT_FDCWD, path, O_RDONLY | O_CLOEXEC));
  if (fd < 0) return true;  // gone: nothing to visit
  char text[2048];
  long n = syscall(SYS_read, fd, text, sizeof text - 1);
  syscall(SYS_close, fd);
  if (n <= 0) return true;
  text[n] = 0;
  if (const char* state = strstr(text, "State:")) {
    state += 6;
    while (*state == ' ' || *state == '\t') ++state;
    if (*state == 'Z' || *state == 'X') return true;
  }
  const char* line = strstr(text, "SigBlk:");
  if (!line) return false;
  unsigned long long mask = strtoull(line + 7, nullptr, 16);
  return (mask >> (signal - 1)) & 1;
}

void pause_briefly() {
  struct timespec ts {0, 200 * 1000};
  syscall(SYS_nanosleep, &ts, nullptr);
}

}  // namespace

int visit_all_threads(ThreadVisitor visitor) {
  static LEVEL_BASE::OS_MUTEX_TYPE one_at_a_time = {0, 0, 0, 0};
  LEVEL_BASE::OS_MutexLock(&one_at_a_time);
  g_request.pid = getpid();
  g_request.visitor = visitor;
  g_request.count = list_threads(g_request.visits, kMaxThreads);
  int self = static_cast<int>(raw_gettid());
  int signal = visit_signal();

  struct sigaction action {};
  action.sa_sigaction = on_visit_signal;
  action.sa_flags = SA_SIGINFO | SA_RESTART;
  sigfillset(&action.sa_mask);
  struct sigaction current {};
  sigaction(signal, &action, &current);
  // Still ours when late signals of an earlier visit are pending: the program's handler is kept from then.
  if (current.sa_sigaction != on_visit_signal || !(current.sa_flags & SA_SIGINFO)) g_request.previous = current;
  g_request.signal = signal;
  __atomic_store_n(&g_request.active, 1, __ATOMIC_RELEASE);

  int visited = 0;
  for (int i = 0; i < g_request.count; ++i) {
    Visit& v = g_request.visits[i];
    if (v.tid == self) continue;
    // A thread that blocks the signal would take it later, from the program's own handler: not sent.
    if (blocks_signal(v.tid, signal)) {
      log_line(1, "thread %d blocks the visit signal %d: its thread callbacks are skipped", v.tid, signal);
      continue;
    }
    __atomic_fetch_add(&g_request.outstanding, 1, __ATOMIC_ACQ_REL);
    if (syscall(SYS_tgkill, g_request.pid, v.tid, signal) != 0) {  // gone meanwhile
      __atomic_fetch_sub(&g_request.outstanding, 1, __ATOMIC_ACQ_REL);
      continue;
    }
    for (long waited = 0; !__atomic_load_n(&v.done, __ATOMIC_ACQUIRE) && waited < kWaitPerThreadNs;
         waited += 200 * 1000)
      pause_briefly();
    if (v.done) ++visited;
    else log_line(1, "thread %d did not take the visit signal %d (blocked?): its thread callbacks are skipped",
                  v.tid, signal);
  }
  // The caller's own thread, directly, with its own mask.
  sigset_t mask;
  sigprocmask(SIG_SETMASK, nullptr, &mask);
  visitor(&mask);
  ++visited;

  // Signals not taken yet keep the engine's handler installed; the last of them restores the program's.
  sigset_t all, old_mask;
  sigfillset(&all);
  sigprocmask(SIG_BLOCK, &all, &old_mask);
  __atomic_store_n(&g_request.active, 0, __ATOMIC_RELEASE);
  if (__atomic_load_n(&g_request.outstanding, __ATOMIC_ACQUIRE) == 0) sigaction(signal, &g_request.previous, nullptr);
  sigprocmask(SIG_SETMASK, &old_mask, nullptr);
  LEVEL_BASE::OS_MutexUnlock(&one_at_a_time);
  return visited;
}

}  // namespace kel
