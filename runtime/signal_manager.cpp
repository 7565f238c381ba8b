// The signal manager: the one table of first-class (collector) and second-class (application) actions, the
// handler that the kernel calls for every first-class signal, and the collector's own handlers.
//
// The application's view of every catchable signal is kept here (second_class), whatever the kernel holds.
// The kernel action of a signal is derived from both classes by install_kernel_action: the collector's
// real_signal_handler wherever the collector needs to see the signal (the crash signals, so that a dying
// process writes its traces first; the sampling signal; every signal the application catches, so that its
// handler never runs inside collector code), with the application's own mask and flags so that its handler,
// called from there, runs exactly as the kernel would have run it.
#include "signal_manager.h"

#include <errno.h>
#include <pthread.h>
#include <signal.h>
#include <string.h>
#include <sys/syscall.h>
#include <ucontext.h>
#include <unistd.h>

#include "runtime_entries.h"
#include "sal.h"
#include "thread_manager.h"
#include "vorx_config.h"
#include "vorx_init.h"
#include "vorx_log.h"
#include "workspace.h"

extern "C" void vorx_detach_runtime(void);

vorx_signal_manager* g_signal_manager = nullptr;

namespace {

vorx_signal_manager g_manager_storage;
vorx_sampling_callback_t g_sampling_callback = nullptr;
// The sampling signal after the program took it for a handler of its own: the collector's timers that still
// tick on it are stopped one by one as their ticks come, and never reach the program.
int g_sampling_given_up = 0;
// The head of a thread's CPU-profiling descriptor: its operations, of which the fourth stops the timer.
struct cpu_prof_ops {
  void* init;
  void* reset;
  vorx_u32_t (*start)(void* d);
  vorx_u32_t (*stop)(void* d);
};
// Raised while a handler runs for a fault of the collector's own code: the collector's locks may be held,
// and writing the traces out would wait for them forever.
__thread int t_fault_inside_collector __attribute__((tls_model("initial-exec")));
int g_sampling_signal = 0;
volatile int g_flushed_for_death = 0;
volatile int g_ctrl_c_held = 0; /* a Ctrl-C that came while the collector was opening or closing */

// Signals whose default action ends the process: the collector catches them (with the application's
// action kept as SIG_DFL in its view) so that the traces are written before the end.
constexpr int kCrashSignals[] = {SIGHUP, SIGQUIT, SIGILL, SIGTRAP, SIGABRT, SIGBUS, SIGFPE, SIGUSR1, SIGSEGV,
                                 SIGUSR2, SIGPIPE, SIGALRM, SIGTERM, SIGXCPU, SIGXFSZ, SIGVTALRM, SIGPROF,
                                 SIGIO, SIGPWR, SIGSYS, SIGSTKFLT};

bool valid(int signo) { return signo > 0 && signo < VORX_SIGNALS; }
// The thread library keeps two real-time signals for itself (cancellation, set-id broadcast).
bool reserved(int signo) { return signo == SIGKILL || signo == SIGSTOP || (signo >= 32 && signo < SIGRTMIN); }
bool is_function(const struct sigaction& a) {
  return a.sa_handler != SIG_DFL && a.sa_handler != SIG_IGN && a.sa_handler != nullptr;
}
// A fault raised by an instruction: it repeats at once if the handler returns, so it can't wait.
bool is_true_fault(int signo, const siginfo_t* info) {
  if (signo != SIGSEGV && signo != SIGBUS && signo != SIGILL && signo != SIGFPE) return false;
  return info && info->si_code > 0;
}

/* ---- the manager's lock: taken by tid; a handler interrupting the holder reads without it ------------ */

struct table_lock {
  vorx_signal_manager* m;
  bool taken = false;
  explicit table_lock(vorx_signal_manager* manager) : m(manager) {
    int self = (int)sal_thread_id();
    if (__atomic_load_n(&m->lock, __ATOMIC_ACQUIRE) == self) return;
    for (;;) {
      int expected = 0;
      if (__atomic_compare_exchange_n(&m->lock, &expected, self, false, __ATOMIC_ACQUIRE, __ATOMIC_RELAXED)) break;
      sal_yield();
    }
    taken = true;
  }
  ~table_lock() {
    if (taken) __atomic_store_n(&m->lock, 0, __ATOMIC_RELEASE);
  }
};

/* Every signal but the faults that cannot wait, blocked for the length of a scope. */
struct signals_held {
  sigset_t saved;
  signals_held() {
    sigset_t all;
    sigfillset(&all);
    pthread_sigmask(SIG_BLOCK, &all, &saved);
  }
  ~signals_held() { pthread_sigmask(SIG_SETMASK, &saved, nullptr); }
};

extern "C" void real_signal_handler(int signo, siginfo_t* info, void* context);

// What the kernel must hold for `signo`, from both classes. Caller holds the lock.
void install_kernel_action(vorx_signal_manager* m, int signo) {
  const struct sigaction& app = m->second_class[signo];
  struct sigaction k;
  bool collector_sees = m->is_internal_handler[signo] ||
                        (m->is_first_class_handler_set[signo] && app.sa_handler != SIG_IGN) ||
                        (m->is_relay[signo] && is_function(app));
  if (!collector_sees) {
    k = app;  // SIG_DFL or SIG_IGN with the application's flags (SA_NOCLDWAIT and the like)
  } else if (m->is_internal_handler[signo] || !is_function(app)) {
    k = m->first_class[signo];
    k.sa_handler = nullptr;
    k.sa_sigaction = real_signal_handler;
    k.sa_flags = (k.sa_flags | SA_SIGINFO) & ~SA_RESETHAND;
  } else {
    k = app;  // the application's mask and flags: its handler runs as the kernel would run it
    k.sa_handler = nullptr;
    k.sa_sigaction = real_signal_handler;
    k.sa_flags = (app.sa_flags | SA_SIGINFO) & ~SA_RESETHAND;
  }
  sigaction(signo, &k, nullptr);
}

void call_handler_default(const struct sigaction* action, int signo, siginfo_t* info, void* context) {
  if (action->sa_flags & SA_SIGINFO) action->sa_sigaction(signo, info, context);
  else action->sa_handler(signo);
}

/* ---- operations ------------------------------------------------------------------------------------- */

void op_initialise(vorx_signal_manager* m) {
  m->pid = sal_process_id();
  for (int signo = 1; signo < VORX_SIGNALS; ++signo) {
    if (reserved(signo)) continue;
    sigaction(signo, nullptr, &m->second_class[signo]);
    m->is_second_class_handler_set[signo] = m->second_class[signo].sa_handler != SIG_DFL;
  }
}

void op_set_call_handler(vorx_signal_manager* m, vorx_call_handler_t routine) {
  m->call_handler = routine ? routine : call_handler_default;
}

void op_finalise(vorx_signal_manager* m) {
  table_lock lock(m);
  for (int signo = 1; signo < VORX_SIGNALS; ++signo) {
    if (!m->is_first_class_handler_set[signo] && !m->is_relay[signo]) continue;
    m->is_first_class_handler_set[signo] = m->is_relay[signo] = m->is_internal_handler[signo] = 0;
    sigaction(signo, &m->second_class[signo], nullptr);
  }
}

void op_reinitialise_after_fork(vorx_signal_manager* m) {
  m->lock = 0;
  m->pid = sal_process_id();
}

vorx_u32_t op_register_first_class_handler(vorx_signal_manager* m, int signo, bool is_internal, bool is_deferable,
                                           const struct sigaction* action, int* err) {
  if (!valid(signo) || reserved(signo)) {
    *err = EINVAL;
    return vorx_sig_failed;
  }
  table_lock lock(m);
  if (is_internal && is_function(m->second_class[signo])) {
    *err = EINVAL;
    return vorx_sig_special;
  }
  m->first_class[signo] = *action;
  sigfillset(&m->first_class[signo].sa_mask);
  m->is_first_class_handler_set[signo] = 1;
  m->is_internal_handler[signo] = is_internal;
  m->is_deferable_hander[signo] = is_deferable;
  install_kernel_action(m, signo);
  return vorx_sig_ok;
}

vorx_u32_t op_unregister_first_class_handler(vorx_signal_manager* m, int signo, int* err) {
  if (!valid(signo) || reserved(signo)) {
    *err = EINVAL;
    return vorx_sig_failed;
  }
  table_lock lock(m);
  m->is_first_class_handler_set[signo] = 0;
  m->is_internal_handler[signo] = 0;
  install_kernel_action(m, signo);
  return vorx_sig_ok;
}

bool op_is_handler_set(vorx_signal_manager* m, int signo) {
  return valid(signo) && m->is_first_class_handler_set[signo];
}

// The application will not take this signal: it would die of it.
bool op_is_fatal_signal_unhandled(vorx_signal_manager* m, int signo) {
  return valid(signo) && m->second_class[signo].sa_handler == SIG_DFL && vorx_signal_default_terminates(signo);
}

void take_default_action(vorx_signal_manager* m, int signo, siginfo_t* info);

void op_call_second_class_handler(vorx_signal_manager* m, int signo, siginfo_t* info, void* context) {
  struct sigaction action;
  {
    table_lock lock(m);
    action = m->second_class[signo];
    if ((action.sa_flags & SA_RESETHAND) && is_function(action)) {
      m->second_class[signo].sa_handler = SIG_DFL;
      m->second_class[signo].sa_flags &= ~SA_SIGINFO;
      m->is_second_class_handler_set[signo] = 0;
      install_kernel_action(m, signo);
    }
  }
  if (action.sa_handler == SIG_IGN) return;
  if (action.sa_handler == SIG_DFL) return take_default_action(m, signo, info);
  m->call_handler(&action, signo, info, context);
}

vorx_u32_t op_set_second_class_handler(vorx_signal_manager* m, int signo, const struct sigaction* action,
                                       struct sigaction* old, int* err, void*) {
  if (!valid(signo) || reserved(signo) || (action && (signo == SIGKILL || signo == SIGSTOP))) {
    *err = EINVAL;
    return vorx_sig_failed;
  }
  signals_held quiet;  // a handler of this thread must not find the table half written
  table_lock lock(m);
  struct sigaction previous = m->second_class[signo];
  if (action) {
    if (m->is_internal_handler[signo] && is_function(*action)) {
      *err = EINVAL;
      return vorx_sig_special;
    }
    m->second_class[signo] = *action;
    m->is_second_class_handler_set[signo] = action->sa_handler != SIG_DFL;
    if (is_function(*action)) m->is_relay[signo] = 1;
    install_kernel_action(m, signo);
  }
  if (old) *old = previous;
  return vorx_sig_ok;
}

// The default action of a signal that the application leaves at SIG_DFL: the collector writes the traces
// out when it ends the process, then hands the signal back to the kernel.
void take_default_action(vorx_signal_manager* m, int signo, siginfo_t* info) {
  if (!vorx_signal_default_terminates(signo)) {
    if (signo == SIGCHLD || signo == SIGCONT || signo == SIGURG || signo == SIGWINCH) return;
    // a stop signal: the kernel's own default
    table_lock lock(m);
    m->is_relay[signo] = 0;
    install_kernel_action(m, signo);
  } else {
    vorx_flush_before_death(signo);
    struct sigaction dfl = {};
    dfl.sa_handler = SIG_DFL;
    sigaction(signo, &dfl, nullptr);
    if (is_true_fault(signo, info)) return;  // the instruction faults again, under the default action
  }
  if (syscall(SYS_tgkill, (int)sal_process_id(), (int)sal_thread_id(), signo) != 0 && g_vorx_conf &&
      g_vorx_conf->log_level > 0)
    vorx_report(vorx_msg_cannot_reraise_signal);
}

/* ---- the kernel's handler --------------------------------------------------------------------------- */

void queue_signal(vorx_signal_descr* d, int signo, const siginfo_t* info) {
  vorx_u32_t n = d->deferred_count;
  if (n >= VORX_DEFERRED_SIGNALS) {
    ++d->deferred_lost;
    return;
  }
  d->deferred[n].signo = signo;
  d->deferred[n].is_first_class = 1;
  if (info) d->deferred[n].info = *info;
  else memset(&d->deferred[n].info, 0, sizeof d->deferred[n].info);
  __atomic_store_n(&d->deferred_count, n + 1, __ATOMIC_RELEASE);
}

// The first-class action of a signal, on a thread outside the collector.
void run_first_class(vorx_signal_manager* m, int signo, siginfo_t* info, void* context, void* wsp) {
  if (m->is_internal_handler[signo] && signo == g_sampling_signal) {
    vorx_sampling_callback_t callback = g_sampling_callback;
    if (callback && wsp) callback(wsp, context, info, 0);
    return;
  }
  m->call_second_class_handler(m, signo, info, context);
}

// Signals that came while the thread was inside the thread manager's slower paths, one bit a signal: they
// are sent again when the thread is out (see vorx_thread_manager_signals_hook).
__thread uint32_t t_waiting_for_manager[2] __attribute__((tls_model("initial-exec")));

void wait_for_manager(int signo) {
  t_waiting_for_manager[signo / 32] |= 1u << (signo % 32);
  vorx_t_tm_signals_waiting = 1;
}

extern "C" void real_signal_handler(int signo, siginfo_t* info, void* context) {
  // A fault while the collector reads the program's memory goes back to the read's protected frame.
  if (is_true_fault(signo, info)) vorx_throw_if_protected(signo);
  vorx_signal_manager* m = g_signal_manager;
  if (vorx_thread_manager_busy_here(g_vorx_thread_manager)) {
    if (m->is_deferable_hander[signo] && !is_true_fault(signo, info)) {
      wait_for_manager(signo);
      return;
    }
    t_fault_inside_collector = 1;  // the manager's state is half changed: it can write nothing out now
  }
  vorx_ts_desc_t* key = nullptr;
  void* data = nullptr;
  vorx_u32_t entered = vorx_thread_manager_enter(g_vorx_thread_manager, &key, &data);
  auto* wsp = static_cast<vorx_workspace*>(data);
  vorx_signal_descr* d = wsp ? wsp->signal_descr : nullptr;
  if (signo == g_sampling_given_up && info && info->si_code == SI_TIMER) {
    // A tick of the collector's timer on a signal that the program took over: the timer stops, unseen.
    if (wsp && wsp->cpu_prof_desc) reinterpret_cast<cpu_prof_ops*>(wsp->cpu_prof_desc)->stop(wsp->cpu_prof_desc);
    if (entered == vorx_thread_manager_op_err_ok) vorx_thread_manager_release(g_vorx_thread_manager, key);
    return;
  }
  if (d && m->is_internal_handler[signo]) d->internal_signal_arrived = 1;
  if (entered == vorx_thread_manager_op_err_acquired) {
    // Inside the collector: what can wait, waits for the thread to leave it.
    if (d && m->is_deferable_hander[signo] && !is_true_fault(signo, info) &&
        d->deferred_count < VORX_DEFERRED_SIGNALS) {
      queue_signal(d, signo, info);
      return;
    }
    VORX_LOG(vorx_log_level_error, "signal %d arrived inside the collector and cannot wait", signo);
    t_fault_inside_collector = 1;
  } else if (entered == vorx_thread_manager_op_err_ok) {
    vorx_thread_manager_release(g_vorx_thread_manager, key);
  }
  if (d) d->application_signal_delivered = !m->is_internal_handler[signo];
  run_first_class(m, signo, info, context, entered == vorx_thread_manager_op_err_ok ? wsp : nullptr);
}

void hold_ctrl_c(int, siginfo_t*, void*) { g_ctrl_c_held = 1; }

struct sigaction first_class_action(void (*handler)(int, siginfo_t*, void*), int flags) {
  struct sigaction a = {};
  a.sa_sigaction = handler;
  a.sa_flags = flags | SA_SIGINFO;
  sigfillset(&a.sa_mask);
  return a;
}

void register_or_report(int signo, bool is_internal, bool is_deferable, const struct sigaction& action) {
  int err = 0;
  vorx_signal_manager* m = g_signal_manager;
  if (m->register_first_class_handler(m, signo, is_internal, is_deferable, &action, &err) == vorx_sig_ok) return;
  char text[128];
  sal_error_code_to_string((vorx_u32_t)err, text, sizeof text);
  vorx_report(vorx_msg_cannot_set_signal_handler, signo, text);
}

void unregister_or_report(int signo) {
  int err = 0;
  vorx_signal_manager* m = g_signal_manager;
  if (m->unregister_first_class_handler(m, signo, &err) == vorx_sig_ok) return;
  char text[128];
  sal_error_code_to_string((vorx_u32_t)err, text, sizeof text);
  vorx_report(vorx_msg_cannot_reset_signal_handler, signo, text);
}

}  // namespace

extern "C" {

vorx_u32_t vorx_alloc_signal_manager(vorx_signal_manager** out) {
  vorx_signal_manager* m = &g_manager_storage;
  memset(m, 0, sizeof *m);
  m->initialise = op_initialise;
  m->set_call_handler = op_set_call_handler;
  m->finalise = op_finalise;
  m->reinitialise_after_fork = op_reinitialise_after_fork;
  m->register_first_class_handler = op_register_first_class_handler;
  m->unregister_first_class_handler = op_unregister_first_class_handler;
  m->is_handler_set = op_is_handler_set;
  m->is_fatal_signal_unhandled = op_is_fatal_signal_unhandled;
  m->call_second_class_handler = op_call_second_class_handler;
  m->set_second_class_handler = op_set_second_class_handler;
  m->call_handler = call_handler_default;
  m->initialise(m);
  *out = m;
  return vorx_sig_ok;
}

void vorx_free_signal_manager(vorx_signal_manager* m) {
  if (m) m->finalise(m);
}

// A tick that waited for the thread to leave the collector is a sample at the place where it left.
static void deliver_deferred_tick(siginfo_t* info) {
  vorx_sampling_callback_t callback = g_sampling_callback;
  if (!callback) return;
  ucontext_t context;
  sal_get_context(&context);
  callback(nullptr, &context, info, 1);
}

void vorx_deliver_deferred_signal(int signo, siginfo_t* info) {
  vorx_signal_manager* m = g_signal_manager;
  if (!m || !valid(signo)) return;
  if (m->is_internal_handler[signo]) {
    if (signo == g_sampling_signal) deliver_deferred_tick(info);
    return;
  }
  // As the kernel would: the action's mask, and the signal itself unless the action says otherwise.
  struct sigaction action = m->second_class[signo];
  sigset_t during, saved;
  during = action.sa_mask;
  if (!(action.sa_flags & SA_NODEFER)) sigaddset(&during, signo);
  pthread_sigmask(SIG_BLOCK, &during, &saved);
  ucontext_t context;
  sal_get_context(&context);
  m->call_second_class_handler(m, signo, info, &context);
  pthread_sigmask(SIG_SETMASK, &saved, nullptr);
}

void vorx_signal_manager_resync(void) {
  vorx_signal_manager* m = g_signal_manager;
  if (!m) return;
  table_lock lock(m);
  for (int signo = 1; signo < VORX_SIGNALS; ++signo) {
    if (reserved(signo)) continue;
    struct sigaction now;
    if (sigaction(signo, nullptr, &now) != 0 || now.sa_sigaction == real_signal_handler) continue;
    bool collector_wants = m->is_first_class_handler_set[signo] || m->is_internal_handler[signo];
    if (!collector_wants && !is_function(now) && !m->is_relay[signo]) continue;
    m->second_class[signo] = now;
    m->is_second_class_handler_set[signo] = now.sa_handler != SIG_DFL;
    if (is_function(now)) m->is_relay[signo] = 1;
    install_kernel_action(m, signo);
  }
}

// The thread is out of the thread manager: what waited for it is sent again, to this thread.
void vorx_thread_manager_signals_hook(void) {
  vorx_t_tm_signals_waiting = 0;
  for (int word = 0; word < 2; ++word) {
    uint32_t bits = __atomic_exchange_n(&t_waiting_for_manager[word], 0u, __ATOMIC_ACQ_REL);
    for (int bit = 0; bits; ++bit, bits >>= 1)
      if (bits & 1) syscall(SYS_tgkill, (int)sal_process_id(), (int)sal_thread_id(), word * 32 + bit);
  }
}

void vorx_init_signal_manager(void) {
  if (!g_signal_manager) vorx_alloc_signal_manager(&g_signal_manager);
}

bool vorx_signal_tables_not_ours(void) { return g_signal_manager && g_signal_manager->pid != sal_process_id(); }

bool vorx_is_internal_signal(int signo) {
  return g_signal_manager && valid(signo) && g_signal_manager->is_internal_handler[signo];
}

bool vorx_signal_default_terminates(int signo) {
  switch (signo) {
    case SIGCHLD: case SIGCONT: case SIGURG: case SIGWINCH:
    case SIGSTOP: case SIGTSTP: case SIGTTIN: case SIGTTOU:
      return false;
    default:
      return valid(signo);
  }
}

void vorx_flush_before_death(int signo) {
  if (t_fault_inside_collector) return;
  if (__atomic_exchange_n(&g_flushed_for_death, 1, __ATOMIC_ACQ_REL)) return;
  if (g_vorx_is_rtl_initialized != 1) return;
  VORX_LOG(vorx_log_level_info, "signal %d ends the process: its traces are written first", signo);
  vorx_detach_runtime();
}

// Mode 0: the application's own action; 1: a Ctrl-C is held while the collector opens or closes, and
// delivered when that ends; 2: the collector writes its traces before a Ctrl-C ends the process.
void vorx_set_ctrl_c_handler(int mode) {
  vorx_signal_manager* m = g_signal_manager;
  if (!m) return;
  if (mode == 1) {
    register_or_report(SIGINT, false, false, first_class_action(hold_ctrl_c, SA_RESTART));
    return;
  }
  if (mode == 2) {
    register_or_report(SIGINT, false, true, first_class_action(real_signal_handler, SA_RESTART));
  } else {
    unregister_or_report(SIGINT);
  }
  if (__atomic_exchange_n(&g_ctrl_c_held, 0, __ATOMIC_ACQ_REL))
    syscall(SYS_tgkill, (int)sal_process_id(), (int)sal_thread_id(), SIGINT);
}

void vorx_init_crash_signal_handler(void) {
  vorx_init_signal_manager();
  for (int signo : kCrashSignals) {
    if (signo == g_sampling_signal) continue;
    bool can_wait = !(signo == SIGSEGV || signo == SIGBUS);
    register_or_report(signo, false, can_wait, first_class_action(real_signal_handler, SA_RESTART));
  }
  for (int signo = SIGRTMIN; signo <= SIGRTMAX; ++signo)
    if (signo != g_sampling_signal) register_or_report(signo, false, true, first_class_action(real_signal_handler, SA_RESTART));
}

// The collection ends: the kernel gets the application's own actions back, also for the signals whose
// handlers the collector only carried, so that a program that outlives its collection sees its own world.
void vorx_fini_crash_signal_handler(void) {
  if (g_signal_manager) g_signal_manager->finalise(g_signal_manager);
}

// Cancellation is the thread library's own signal, which it does not let anybody else handle: the collector
// sees a cancelled thread through the cleanup handlers of its waits and of its start routine instead.
void vorx_init_cancel_signal_handler(void) {}
void vorx_fini_cancel_signal_handler(void) {}

// The sampling handler walks stacks under protected reads: a fault there must reach real_signal_handler,
// which resumes the read's frame. Blocked during the handler, the kernel would end the process instead.
static void let_faults_reach_sampling(vorx_signal_manager* m, int signo) {
  table_lock lock(m);
  sigdelset(&m->first_class[signo].sa_mask, SIGSEGV);
  sigdelset(&m->first_class[signo].sa_mask, SIGBUS);
  install_kernel_action(m, signo);
}

vorx_u32_t vorx_init_profiling_signal_handler(vorx_sampling_callback_t callback) {
  vorx_init_signal_manager();
  int signo = g_vorx_conf ? (int)g_vorx_conf->sampling_signal : SIGPROF;
  if (!valid(signo) || reserved(signo)) signo = SIGPROF;
  g_sampling_callback = callback;
  g_sampling_signal = signo;
  int flags = SA_RESTART | (g_vorx_conf && g_vorx_conf->use_signal_stack ? SA_ONSTACK : 0);
  int err = 0;
  vorx_signal_manager* m = g_signal_manager;
  struct sigaction action = first_class_action(real_signal_handler, flags);
  vorx_u32_t r = m->register_first_class_handler(m, signo, true, true, &action, &err);
  if (r == vorx_sig_ok) let_faults_reach_sampling(m, signo);
  if (r == vorx_sig_special) {
    vorx_report(vorx_msg_signal_handler_taken, signo);
    return vorx_sig_failed;
  }
  if (r != vorx_sig_ok) {
    char text[128];
    sal_error_code_to_string((vorx_u32_t)err, text, sizeof text);
    vorx_report(vorx_msg_cpu_profiling_init_error, text);
  }
  return vorx_sig_ok;
}

// No tick outlives the handler: the timers are stopped by now, and ticks still pending for any thread are
// thrown away by ignoring the signal for a moment before the application's own action comes back (SIGPROF's
// default would end the process).
void vorx_give_up_sampling_signal(void) {
  vorx_signal_manager* m = g_signal_manager;
  if (!m || !g_sampling_signal) return;
  table_lock lock(m);
  g_sampling_callback = nullptr;
  g_sampling_given_up = g_sampling_signal;
  m->is_internal_handler[g_sampling_signal] = 0;
  m->is_relay[g_sampling_signal] = 1;
  install_kernel_action(m, g_sampling_signal);
}

void vorx_fini_profiling_signal_handler(void) {
  if (!g_sampling_signal || !g_signal_manager) return;
  g_sampling_callback = nullptr;
  vorx_signal_manager* m = g_signal_manager;
  struct sigaction ignore = {};
  ignore.sa_handler = SIG_IGN;
  {
    table_lock lock(m);
    if (!is_function(m->second_class[g_sampling_signal])) sigaction(g_sampling_signal, &ignore, nullptr);
  }
  unregister_or_report(g_sampling_signal);
}

static void change_profiling_signal(int how) {
  if (!g_sampling_signal) return;
  sigset_t set;
  sigemptyset(&set);
  sigaddset(&set, g_sampling_signal);
  pthread_sigmask(how, &set, nullptr);
}
void vorx_block_profiling_signal(void) { change_profiling_signal(SIG_BLOCK); }
void vorx_unblock_profiling_signal(void) { change_profiling_signal(SIG_UNBLOCK); }

void vorx_modify_signal_mask_on_attach(sigset_t* set) {
  if (set && g_sampling_signal) sigdelset(set, g_sampling_signal);
}

}  // extern "C"
