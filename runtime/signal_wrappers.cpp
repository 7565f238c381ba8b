// The application's signal API, as the probe wrappers hand it over: each routine runs outside the collector
// (the thread holds no descriptor) with the application's function as `trampoline`, and answers through the
// probe data and the application's errno, as the function itself would.
#include <errno.h>
#include <signal.h>
#include <string.h>

#include "signal_manager.h"
#include "vorx_config.h"
#include "vorx_log.h"
#include "vorx_probe_params.h"
#include "vorx_probe_table.h"
#include "workspace.h"

namespace {

// The thread's descriptor, or null where its calls go to the kernel as they are: a thread the collector
// does not know, or a vfork child running in its parent's memory.
vorx_signal_descr* descr_of(vorx_workspace* wsp) {
  return wsp && !vorx_signal_tables_not_ours() ? wsp->signal_descr : nullptr;
}

// The answer of a routine that returns 0 or -1 with errno.
int posix_answer(vorx_u32_t result, int err) {
  if (result == vorx_sig_ok) return 0;
  vorx_set_app_errno(err);
  return -1;
}

// An application that takes the collector's sampling signal for itself wins it: sampling stops.
vorx_u32_t set_handler(int signo, const struct sigaction* action, struct sigaction* old, int* err, void* original) {
  vorx_signal_manager* m = g_signal_manager;
  if (signo == (int)(g_vorx_conf ? g_vorx_conf->sampling_signal : 0))
    VORX_LOG(vorx_log_level_trace, "Application sets sigaction on profiled signal, malfunction is possible");
  vorx_u32_t result = m->set_second_class_handler(m, signo, action, old, err, original);
  if (result != vorx_sig_special) return result;
  vorx_report(vorx_msg_signal_handler_taken, signo);
  vorx_give_up_sampling_signal();
  return m->set_second_class_handler(m, signo, action, old, err, original);
}

}  // namespace

extern "C" {

void vorx_sigaction_wrapper(vorx_workspace*, vorx_probe_data_t* data, void* trampoline) {
  auto& p = data->params.u_sigaction;
  if (!g_signal_manager || vorx_signal_tables_not_ours()) {
    p.__result = reinterpret_cast<vorx_sigaction_call_t>(trampoline)(p.__sig, p.__act, p.__oact);
    return;
  }
  VORX_LOG(vorx_log_level_trace, "Setting sigaction for signal with num = %d", p.__sig);
  int err = 0;
  vorx_u32_t r = set_handler(p.__sig, static_cast<const struct sigaction*>(p.__act),
                             static_cast<struct sigaction*>(p.__oact), &err, trampoline);
  p.__result = posix_answer(r, err);
}

// signal() keeps the thread library's rules: the handler's own signal is held while it runs, and calls it
// interrupts are restarted.
void vorx_signal_wrapper(vorx_workspace*, vorx_probe_data_t* data, void* trampoline) {
  auto& p = data->params.u_signal;
  if (!g_signal_manager || vorx_signal_tables_not_ours()) {
    p.__result = reinterpret_cast<vorx_signal_call_t>(trampoline)(p.__sig, p.__handler);
    return;
  }
  VORX_LOG(vorx_log_level_trace, "Setting signal handler for signal with num = %d", p.__sig);
  struct sigaction action = {}, old = {};
  action.sa_handler = p.__handler;
  sigemptyset(&action.sa_mask);
  if (p.__sig > 0 && p.__sig < VORX_SIGNALS) sigaddset(&action.sa_mask, p.__sig);
  action.sa_flags = SA_RESTART;
  int err = 0;
  vorx_u32_t r = set_handler(p.__sig, &action, &old, &err, nullptr);
  if (r == vorx_sig_ok) {
    p.__result = old.sa_handler;
  } else {
    vorx_set_app_errno(err);
    p.__result = SIG_ERR;
  }
}

void vorx_sigprocmask_wrapper(vorx_workspace* wsp, vorx_probe_data_t* data, void* trampoline) {
  auto& p = data->params.u_sigprocmask;
  vorx_signal_descr* d = descr_of(wsp);
  if (!d) {
    p.__result = reinterpret_cast<vorx_sigprocmask_call_t>(trampoline)(p.__how, p.__set, p.__oset);
    return;
  }
  int err = 0;
  vorx_u32_t r = d->set_second_class_signal_mask(d, p.__how, static_cast<const sigset_t*>(p.__set),
                                                 static_cast<sigset_t*>(p.__oset), &err, trampoline);
  p.__result = posix_answer(r, err);
}

// pthread_sigmask answers with the error number and leaves errno alone.
void vorx_pthread_sigmask_wrapper(vorx_workspace* wsp, vorx_probe_data_t* data, void* trampoline) {
  auto& p = data->params.u_pthread_sigmask;
  vorx_signal_descr* d = descr_of(wsp);
  if (!d) {
    p.__result = reinterpret_cast<vorx_pthread_sigmask_call_t>(trampoline)(p.__how, p.__newmask, p.__oldmask);
    return;
  }
  // The descriptor's operation expects a function that fails with -1 and the application's errno.
  struct adapter {
    static int call(int how, const sigset_t* set, sigset_t* oset) {
      int r = pthread_sigmask(how, set, oset);
      if (r == 0) return 0;
      vorx_set_app_errno(r);
      return -1;
    }
  };
  (void)trampoline;
  int saved = vorx_app_errno();
  int err = 0;
  vorx_u32_t r = d->set_second_class_signal_mask(d, p.__how, static_cast<const sigset_t*>(p.__newmask),
                                                 static_cast<sigset_t*>(p.__oldmask), &err,
                                                 reinterpret_cast<void*>(&adapter::call));
  p.__result = r == vorx_sig_ok ? 0 : err;
  vorx_set_app_errno(saved);
}

void vorx_sigsuspend_wrapper(vorx_workspace* wsp, vorx_probe_data_t* data, void* trampoline) {
  auto& p = data->params.u_sigsuspend;
  vorx_signal_descr* d = descr_of(wsp);
  if (!d) {
    p.__result = reinterpret_cast<vorx_sigsuspend_call_t>(trampoline)(p.__set);
    return;
  }
  int err = 0;
  vorx_u32_t r = d->wait_for_signal(d, static_cast<const sigset_t*>(p.__set), &err, trampoline);
  p.__result = posix_answer(r, err);
}

// pause() is sigsuspend with the present mask; the application's sigsuspend does the waiting.
void vorx_pause_wrapper(vorx_workspace* wsp, vorx_probe_data_t* data, void* trampoline) {
  auto& p = data->params.u_pause;
  vorx_signal_descr* d = descr_of(wsp);
  const vorx_probe_t* row = vorx_head_row(vorx_pi_sigsuspend);
  void* suspend = row ? row->trampoline : nullptr;
  if (!d || !suspend) {
    p.__result = reinterpret_cast<vorx_pause_call_t>(trampoline)();
    return;
  }
  sigset_t present;
  pthread_sigmask(SIG_SETMASK, nullptr, &present);
  int err = 0;
  vorx_u32_t r = d->wait_for_signal(d, &present, &err, suspend);
  p.__result = posix_answer(r, err);
}

void vorx_sigpending_wrapper(vorx_workspace* wsp, vorx_probe_data_t* data, void* trampoline) {
  auto& p = data->params.u_sigpending;
  vorx_signal_descr* d = descr_of(wsp);
  if (!d) {
    p.__result = reinterpret_cast<vorx_sigpending_call_t>(trampoline)(p.__set);
    return;
  }
  int err = 0;
  vorx_u32_t r = d->get_pending(d, static_cast<sigset_t*>(p.__set), &err, trampoline);
  p.__result = posix_answer(r, err);
}

void vorx_sigaltstack_wrapper(vorx_workspace* wsp, vorx_probe_data_t* data, void* trampoline) {
  auto& p = data->params.u_sigaltstack;
  vorx_signal_descr* d = descr_of(wsp);
  if (!d) {
    p.__result = reinterpret_cast<vorx_sigaltstack_call_t>(trampoline)(p.__ss, p.__oss);
    return;
  }
  int err = 0;
  vorx_u32_t r = d->set_altstack(d, static_cast<const stack_t*>(p.__ss), static_cast<stack_t*>(p.__oss), false,
                                 &err, trampoline);
  if (r == vorx_sig_special && g_vorx_conf && g_vorx_conf->log_level > 0) vorx_report(vorx_msg_sigaltstack_too_small);
  p.__result = posix_answer(r == vorx_sig_special ? (vorx_u32_t)vorx_sig_ok : r, err);
}

}  // extern "C"
