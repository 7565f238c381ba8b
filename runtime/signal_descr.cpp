// A thread's signal descriptor: its fast mask, the signals it deferred while in the collector, the
// application's view of its mask and alternate stack, and the calls that wait for signals.
//
// The functions named `original` are the application's: they report failures through the application's
// errno, which the collector reads through vorx_app_errno (its own errno is not the application's).
//
// Every operation that calls one of the application's signal functions gets that function (`original`) from
// its wrapper and runs outside the collector: the thread has let go of its descriptor, so that no other
// thread ever waits for one that sleeps in sigsuspend, and a signal that arrives meanwhile is delivered at
// once, as it would be natively.
#include <errno.h>
#include <pthread.h>
#include <signal.h>
#include <stdlib.h>
#include <string.h>
#include <sys/mman.h>
#include <sys/syscall.h>
#include <unistd.h>

#include "sal.h"
#include "signal_manager.h"
#include "vorx_log.h"
#include "workspace.h"

namespace {

using sigmask_call_t = int (*)(int, const sigset_t*, sigset_t*);
using sigset_call_t = int (*)(const sigset_t*);
using pending_call_t = int (*)(sigset_t*);
using altstack_call_t = int (*)(const stack_t*, stack_t*);

// The collector's internal signals are never blocked for the application, nor shown to it.
void remove_internal(sigset_t* set) {
  for (int signo = 1; signo < VORX_SIGNALS; ++signo)
    if (vorx_is_internal_signal(signo)) sigdelset(set, signo);
}

// What the application believes about the internal signals, written over what the kernel holds.
void show_view(const sigset_t* view, sigset_t* set) {
  for (int signo = 1; signo < VORX_SIGNALS; ++signo) {
    if (!vorx_is_internal_signal(signo)) continue;
    if (sigismember(view, signo)) sigaddset(set, signo);
    else sigdelset(set, signo);
  }
}

void compute_effective_mask(int how, sigset_t* current, const sigset_t* change) {
  for (int signo = 1; signo < VORX_SIGNALS; ++signo) {
    bool in = sigismember(change, signo) == 1;
    if (how == SIG_BLOCK && in) sigaddset(current, signo);
    else if (how == SIG_UNBLOCK && in) sigdelset(current, signo);
    else if (how == SIG_SETMASK) in ? sigaddset(current, signo) : sigdelset(current, signo);
  }
}

vorx_u32_t fail(int* err, int value) {
  *err = value;
  return vorx_sig_failed;
}

/* ---- the collector's own alternate stack ---------------------------------------------------------- */

void free_own_altstack(vorx_signal_descr* d) {
  if (d->own_altstack.ss_flags & SS_DISABLE) return;
  vorx_free_stack_with_guard_page(d->own_altstack.ss_sp, d->own_altstack_total);
  d->own_altstack.ss_flags = SS_DISABLE;
}

bool install_own_altstack(vorx_signal_descr* d) {
  vorx_u32_t total = 0;
  void* base = vorx_alloc_stack_with_guard_page(d->altstack_size, &total);
  if (!base) return false;
  stack_t ss = {};
  ss.ss_sp = base;
  ss.ss_size = total;
  ss.ss_flags = 0;
  if (sigaltstack(&ss, nullptr) != 0) {
    vorx_free_stack_with_guard_page(base, total);
    return false;
  }
  d->own_altstack = ss;
  d->own_altstack_total = total;
  return true;
}

/* ---- operations ------------------------------------------------------------------------------------- */

vorx_u32_t op_initialise(vorx_signal_descr* d) {
  sigaltstack(nullptr, &d->application_altstack);
  VORX_LOG(vorx_log_level_trace, "altstack is %s",
           (d->application_altstack.ss_flags & SS_DISABLE) ? "disabled" : "enabled");
  if (d->altstack_size == 0) return vorx_sig_ok;
  if (!(d->application_altstack.ss_flags & SS_DISABLE)) {
    if (d->application_altstack.ss_size >= d->altstack_min_size) return vorx_sig_ok;
    return vorx_sig_special;  // the application's stack is too small, and it stays
  }
  // Short of memory, the thread samples on its own stack, as it would without the collector's.
  if (!install_own_altstack(d)) VORX_LOG(vorx_log_level_trace, "no alternate stack of the collector's: memory is short");
  return vorx_sig_ok;
}

void op_finalise(vorx_signal_descr* d) {
  if (d->owner != sal_thread_id()) return;  // another thread's stack is that thread's to switch off
  if (!(d->own_altstack.ss_flags & SS_DISABLE)) {
    // A thread that ends its collection from a handler running on this very stack (a death by a signal)
    // can neither switch it off nor unmap it: it stays, and dies with the process.
    stack_t off = {};
    off.ss_flags = SS_DISABLE;
    if (sigaltstack(&off, nullptr) == 0) free_own_altstack(d);
  }
}

vorx_u32_t op_set_altstack_size(vorx_signal_descr* d, vorx_u32_t size, vorx_u32_t min) {
  d->altstack_size = size;
  d->altstack_min_size = min;
  return size < min ? vorx_sig_special : vorx_sig_ok;
}

// Blocking is one store; unblocking leaves the delivery of what was deferred to the leave, which runs it
// after the thread let go of its descriptor.
vorx_u32_t op_set_first_class_fast_mask(vorx_signal_descr* d, vorx_u32_t state, vorx_u32_t* old, void*) {
  if (old) *old = d->fast_mask;
  if (!(vorx_bs_blocked <= state && state < vorx_bs_eof))
    VORX_ASSERT(!"(vorx_bs_blocked <= state && state < vorx_bs_eof)");
  __atomic_store_n(&d->fast_mask, state, __ATOMIC_RELEASE);
  return vorx_sig_ok;
}

vorx_u32_t op_set_first_class_mask(vorx_signal_descr* d, int how, const sigset_t* set, sigset_t* oset, int* err) {
  if (pthread_sigmask(how, set, oset) != 0) return fail(err, EINVAL);
  if (set) compute_effective_mask(how, &d->effective_mask, set);
  return vorx_sig_ok;
}

vorx_u32_t op_set_second_class_signal_mask(vorx_signal_descr* d, int how, const sigset_t* set, sigset_t* oset,
                                           int* err, void* original) {
  auto call = reinterpret_cast<sigmask_call_t>(original);
  sigset_t view = d->second_class_mask;
  if (!set) {
    if (call(how, nullptr, oset) != 0) return fail(err, vorx_app_errno());
    if (oset) show_view(&view, oset);
    return vorx_sig_ok;
  }
  if (how != SIG_BLOCK && how != SIG_UNBLOCK && how != SIG_SETMASK) return fail(err, EINVAL);
  sigset_t copy = *set;
  remove_internal(&copy);
  if (call(how, &copy, oset) != 0) return fail(err, vorx_app_errno());
  if (oset) show_view(&view, oset);
  compute_effective_mask(how, &d->second_class_mask, set);
  return vorx_sig_ok;
}

vorx_u32_t op_get_pending(vorx_signal_descr* d, sigset_t* set, int* err, void* original) {
  if (reinterpret_cast<pending_call_t>(original)(set) != 0) return fail(err, vorx_app_errno());
  remove_internal(set);
  for (vorx_u32_t i = 0; i < d->deferred_count; ++i) sigaddset(set, d->deferred[i].signo);
  return vorx_sig_ok;
}

// sigsuspend (and pause, with the present mask): a tick of the collector's own signal does not end the wait.
vorx_u32_t op_wait_for_signal(vorx_signal_descr* d, const sigset_t* set, int* err, void* original) {
  if (!set) return fail(err, EFAULT);
  sigset_t copy = *set;
  remove_internal(&copy);
  for (;;) {
    d->internal_signal_arrived = 0;
    d->application_signal_delivered = 0;
    int r = reinterpret_cast<sigset_call_t>(original)(&copy);
    int why = vorx_app_errno();
    if (r == 0) return vorx_sig_ok;
    if (why != EINTR || d->application_signal_delivered || !d->internal_signal_arrived) return fail(err, why);
  }
}

vorx_u32_t op_set_altstack(vorx_signal_descr* d, const stack_t* ss, stack_t* oss, bool, int* err, void* original) {
  auto call = reinterpret_cast<altstack_call_t>(original);
  if (d->altstack_size == 0) {
    if (call(ss, oss) != 0) return fail(err, vorx_app_errno());
    if (ss) d->application_altstack = *ss;
    return vorx_sig_ok;
  }
  // The collector keeps a stack of its own on this thread: the application's view is kept apart from it.
  stack_t view = d->application_altstack;
  if (ss) {
    if (ss->ss_flags & ~(SS_ONSTACK | SS_DISABLE)) return fail(err, EINVAL);
    if (!(ss->ss_flags & SS_DISABLE)) {
      if (ss->ss_size < (size_t)MINSIGSTKSZ) return fail(err, ENOMEM);
      if (call(ss, nullptr) != 0) return fail(err, vorx_app_errno());
      free_own_altstack(d);
    } else if (!(view.ss_flags & SS_DISABLE)) {
      if (call(ss, nullptr) != 0) return fail(err, vorx_app_errno());
      install_own_altstack(d);
    }
    d->application_altstack = *ss;
    d->application_altstack.ss_flags &= ~SS_ONSTACK;
  }
  if (oss) *oss = view;
  return vorx_sig_ok;
}

void op_prepare_for_exception(vorx_signal_descr*) {}

void op_leave_handler(vorx_signal_descr*, void (*routine)(void*), void* argument) { routine(argument); }

}  // namespace

extern "C" {

void* vorx_alloc_stack_with_guard_page(vorx_u32_t size, vorx_u32_t* out_total) {
  vorx_u32_t page = (vorx_u32_t)sal_get_page_size();
  vorx_u32_t total = ((size - 1) / page + 2) * page;
  void* base = sal_mmap(total);
  if (!base) return nullptr;
  if (!sal_mprotect(base, page, PROT_NONE)) {
    sal_munmap(base, total);
    return nullptr;
  }
  *out_total = total;
  return base;
}

void vorx_free_stack_with_guard_page(void* stack, vorx_u32_t total) {
  if (stack) sal_munmap(stack, total);
}

vorx_u32_t vorx_alloc_signal_descr(vorx_signal_descr** out, vorx_u32_t altstack_size, vorx_u32_t altstack_min_size,
                                   const void* mask, int) {
  auto* d = static_cast<vorx_signal_descr*>(calloc(1, sizeof(vorx_signal_descr)));
  *out = d;
  if (!d) return vorx_sig_failed;
  d->initialise = op_initialise;
  d->finalise = op_finalise;
  d->set_altstack_size = op_set_altstack_size;
  d->set_first_class_fast_mask = op_set_first_class_fast_mask;
  d->set_first_class_mask = op_set_first_class_mask;
  d->set_second_class_signal_mask = op_set_second_class_signal_mask;
  d->get_pending = op_get_pending;
  d->wait_for_signal = op_wait_for_signal;
  d->set_altstack = op_set_altstack;
  d->prepare_for_exception = op_prepare_for_exception;
  d->leave_handler = op_leave_handler;
  d->owner = sal_thread_id();
  d->fast_mask = vorx_bs_unblocked;
  d->own_altstack.ss_flags = SS_DISABLE;
  d->application_altstack.ss_flags = SS_DISABLE;
  sigemptyset(&d->effective_mask);
  if (mask) memcpy(&d->second_class_mask, mask, sizeof(sigset_t));
  else pthread_sigmask(SIG_SETMASK, nullptr, &d->second_class_mask);
  d->set_altstack_size(d, altstack_size, altstack_min_size);
  return d->owner == sal_thread_id() ? d->initialise(d) : (vorx_u32_t)vorx_sig_ok;
}

// Signals still queued when a descriptor goes (its thread ends, or the collection does) are sent to the
// thread again, as they came: a thread that leaves the collector for good must not take them along.
static void resend_deferred(vorx_signal_descr* d) {
  vorx_u32_t n = __atomic_exchange_n(&d->deferred_count, 0u, __ATOMIC_ACQ_REL);
  for (vorx_u32_t i = 0; i < n && i < VORX_DEFERRED_SIGNALS; ++i) {
    vorx_completion_object& o = d->deferred[i];
    if (syscall(SYS_rt_tgsigqueueinfo, (int)sal_process_id(), (int)d->owner, o.signo, &o.info) != 0)
      syscall(SYS_tgkill, (int)sal_process_id(), (int)d->owner, o.signo);
  }
}

// A descriptor is freed only by its own thread: another thread that ends a collection leaves it, since its
// thread may be between letting go of its workspace and delivering what it deferred.
void vorx_free_signal_descr(vorx_signal_descr* d) {
  if (!d) return;
  resend_deferred(d);
  if (d->owner != sal_thread_id()) return;
  d->finalise(d);
  free(d);
}

void vorx_signal_descr_save_complete_data(vorx_signal_descr*, void*) {}

int vorx_signal_internal_arrived(vorx_signal_descr* d) { return d ? d->internal_signal_arrived : 0; }
void vorx_signal_clear_internal_arrived(vorx_signal_descr* d) {
  if (d) d->internal_signal_arrived = 0;
}

// Runs on the thread outside the collector, in arrival order. Each signal is taken off the queue before its
// handler runs, so a handler that never returns (siglongjmp) leaves nothing behind.
void vorx_complete_deferred_signals(vorx_signal_descr* d) {
  while (vorx_signal_descr_has_deferred(d)) {
    vorx_completion_object object;
    {
      sigset_t all, saved;
      sigfillset(&all);
      pthread_sigmask(SIG_BLOCK, &all, &saved);
      object = d->deferred[0];
      vorx_u32_t left = d->deferred_count - 1;
      memmove(&d->deferred[0], &d->deferred[1], left * sizeof d->deferred[0]);
      __atomic_store_n(&d->deferred_count, left, __ATOMIC_RELEASE);
      pthread_sigmask(SIG_SETMASK, &saved, nullptr);
    }
    if (!vorx_is_internal_signal(object.signo)) d->application_signal_delivered = 1;
    vorx_deliver_deferred_signal(object.signo, &object.info);
  }
}

}  // extern "C"
