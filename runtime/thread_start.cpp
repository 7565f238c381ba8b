// Thread start. The pthread_create wrapper replaces the application's start
// routine by vorx_thread_start_routine_wrapper, which registers the new thread,
// runs the start callbacks, calls the application's routine and unregisters
// the thread on the way out (or in a cleanup handler on pthread_exit).
#include "thread_start.h"

#include <pthread.h>
#include <signal.h>
#include <stdlib.h>
#include <string.h>

#include "sal.h"
#include "thread_manager.h"
#include "vorx_config.h"
#include "vorx_init.h"
#include "vorx_log.h"
#include "vorx_probe_params.h"
#include "vorx_probe_table.h"
#include "vorx_timesource.h"
#include "vorx_user_cbk.h"

extern "C" void vorx_run_directory_callbacks(uint32_t index, void *wsp, vorx_probe_data_t *data);

namespace {

constexpr vorx_u32_t kSigmaskBytes = 128;
constexpr size_t kStackExtra = 0x4000;
constexpr size_t kStackMinimum = 0x8000;

// glibc's cleanup frame on i386: routine, argument, cancel type, previous.
struct cleanup_frame {
  void (*routine)(void *);
  void *arg;
  int canceltype;
  void *prev;
};
typedef void (*cleanup_push_t)(cleanup_frame *, void (*)(void *), void *);
typedef void (*cleanup_pop_t)(cleanup_frame *, int);

template <class T>
T app_function(unsigned id) {
  return reinterpret_cast<T>(vorx_head_row(id)->trampoline);
}

unsigned callback_index(unsigned id, unsigned order) {
  unsigned state = g_vorx_conf ? g_vorx_conf->state : 1;
  unsigned index = (id * 2 + state) * 2 + order;
  VORX_ASSERT(index < (2u * 2u * vorx_pi_eof));
  return index;
}

void run_start_callbacks(vorx_workspace *wsp, unsigned order) {
  vorx_probe_data_t data;
  memset(&data, 0, sizeof data);
  vorx_run_directory_callbacks(callback_index(vorx_pi_thread_start_routine_wrapper, order), wsp, &data);
}

void cleanup_handler(void *) {
  vorx_thread_manager_unregister(g_vorx_thread_manager, sal_thread_id(), nullptr);
}

// Warns once per call that the application's stack leaves the collector too
// little room; the thread is created all the same.
void warn_small_stack() {
  vorx_report(vorx_msg_thread_stack_too_small);
}

// An application stack given by size only gets 16 KiB more for the collector's
// frames; one given with an address is left alone. Returns the attributes to use.
const pthread_attr_t *adjust_stack(const pthread_attr_t *attr, pthread_attr_t *copy, bool *copied) {
  *copied = false;
  if (!attr) return attr;
  void *address = nullptr;
  size_t size = 0;
  auto getstack = app_function<int (*)(const pthread_attr_t *, void **, size_t *)>(vorx_pi_pthread_attr_getstack);
  auto setstacksize = app_function<int (*)(pthread_attr_t *, size_t)>(vorx_pi_pthread_attr_setstacksize);
  if (!getstack || getstack(attr, &address, &size) != 0 || size == 0) return attr;
  if (reinterpret_cast<uintptr_t>(address) + size == 0) {
    memcpy(copy, attr, sizeof *copy);
    if (setstacksize && setstacksize(copy, size + kStackExtra) == 0) {
      *copied = true;
      return copy;
    }
    if (size < kStackMinimum) warn_small_stack();
    return attr;
  }
  if (size < kStackMinimum) warn_small_stack();
  return attr;
}

}  // namespace

extern "C" vorx_u32_t vorx_get_thread_handle(vorx_u32_t tid) { return tid; }
extern "C" void vorx_put_thread_handle(vorx_u32_t) {}

extern "C" bool vorx_is_internal_thread(vorx_u32_t handle) {
  extern bool vorx_is_controlsrv_thread(vorx_u32_t) __attribute__((weak));
  if (vorx_is_controlsrv_thread && vorx_is_controlsrv_thread(handle)) {
    vorx_log(vorx_log_level_trace, "thread 0x%08x is a service thread, ignored", handle);
    return true;
  }
  return false;
}

extern "C" vorx_u32_t vorx_register_thread(vorx_registration_data *reg) {
  if (vorx_is_internal_thread(reg->handle)) return vorx_thread_manager_op_err_thread_not_found;
  vorx_u32_t registered = vorx_thread_manager_register(g_vorx_thread_manager, reg->handle, reg);
  VORX_ASSERT(registered == vorx_thread_manager_op_err_ok || registered == vorx_thread_manager_op_err_thread_found ||
              registered == vorx_thread_manager_op_err_thread_not_found ||
              registered == vorx_thread_manager_op_err_closed);
  return registered;
}

extern "C" void vorx_simulate_thread_start_routine_wrapper_pre(vorx_workspace *wsp, uintptr_t start) {
  VORX_ASSERT(vorx_timesource() != nullptr);
  vorx_usr_cbk_entry_t *entry = nullptr;
  if (vorx_usr_cbk_register(start, 0, &entry) == vorx_usr_cbk_reg_direct) return;
  run_start_callbacks(wsp, 0);
  if (entry) vorx_usr_cbk_unregister(entry);
}

// The special work of the pthread_create wrapper: the new thread starts in the
// collector's routine with a user-callback record of the application's.
extern "C" void vorx_pthread_create_wrapper(vorx_workspace *, vorx_probe_data_t *data, void *trampoline) {
  vorx_params_pthread_create_t &p = data->params.u_pthread_create;
  auto original = reinterpret_cast<vorx_pthread_create_call_t>(trampoline);
  vorx_usr_cbk_entry_t *entry = nullptr;
  vorx_usr_cbk_reg_t kind = vorx_usr_cbk_register(reinterpret_cast<vorx_address_t>(p.__start_routine),
                                                  reinterpret_cast<vorx_address_t>(p.__arg), &entry);
  if (kind != vorx_usr_cbk_reg_wrap || !entry) {
    // Not ours to wrap (an ignored routine, or no room): the thread runs unobserved.
    p.__result = original(p.__newthread, p.__attr, p.__start_routine, p.__arg);
    return;
  }
  vorx_usr_cbk_set_property(entry, 1, 0);
  vorx_usr_cbk_set_property(entry, 0, sal_thread_id());
  vorx_usr_cbk_set_wrapper_addr(entry, reinterpret_cast<vorx_address_t>(&vorx_thread_start_routine_wrapper),
                                reinterpret_cast<vorx_address_t>(entry));
  vorx_usr_cbk_set_property(entry, 2, 0);
  vorx_thread_manager_reserve(g_vorx_thread_manager);

  pthread_attr_t copy;
  bool copied = false;
  const pthread_attr_t *attr = adjust_stack(static_cast<const pthread_attr_t *>(p.__attr), &copy, &copied);
  auto wrapper = reinterpret_cast<vorx_start_routine_t>(vorx_usr_cbk_get_wrapper_addr(entry));
  void *param = reinterpret_cast<void *>(vorx_usr_cbk_get_wrapper_param(entry));
  p.__result = original(p.__newthread, const_cast<pthread_attr_t *>(attr), wrapper, param);
  if (p.__result != 0) {
    vorx_thread_manager_cancel(g_vorx_thread_manager);
    vorx_usr_cbk_unregister(entry);
  }
}

extern "C" void *vorx_thread_start_routine_wrapper(void *record) {
  auto *entry = static_cast<vorx_usr_cbk_entry_t *>(record);
  auto routine = reinterpret_cast<void *(*)(void *)>(vorx_usr_cbk_get_user_addr(entry));
  void *arg = reinterpret_cast<void *>(vorx_usr_cbk_get_user_param(entry));
  int saved_errno = vorx_app_errno();

  // The creator's alternate signal stack is not this thread's.
  stack_t disable{};
  disable.ss_flags = SS_DISABLE;
  sigaltstack(&disable, nullptr);

  vorx_registration_data reg{};
  reg.handle = vorx_get_thread_handle(sal_thread_id());
  reg.reg_type = vorx_th_reg_self;
  if (reg.handle != 0) vorx_register_thread(&reg);
  vorx_set_app_errno(saved_errno);

  vorx_runtime_state state{};
  vorx_ts_desc_t *key = nullptr;
  vorx_workspace *wsp = nullptr;
  int errno_value = 0;
  if (vorx_enter_runtime_and_store_errno_cond(&state, &key, &wsp, &errno_value, true) !=
      vorx_thread_manager_op_err_ok) {
    void *result = routine(arg);
    vorx_usr_cbk_unregister(entry);
    return result;
  }
  run_start_callbacks(wsp, 0);
  wsp->thread_start_pending = false;

  auto push = app_function<cleanup_push_t>(vorx_pi__pthread_cleanup_push);
  auto pop = app_function<cleanup_pop_t>(vorx_pi__pthread_cleanup_pop);
  VORX_ASSERT((push == nullptr) == (pop == nullptr));
  cleanup_frame frame{};
  if (push) push(&frame, cleanup_handler, nullptr);

  vorx_u32_t level = state.level;
  state.level = vorx_le_in_application;
  vorx_leave_runtime_and_restore_errno_cond(key, wsp, &state, errno_value, true);
  void *result = routine(arg);

  if (vorx_enter_runtime_and_store_errno_cond(&state, &key, &wsp, &errno_value, true) ==
      vorx_thread_manager_op_err_ok) {
    vorx_usr_cbk_unregister(entry);
    run_start_callbacks(wsp, 1);
    state.level = level;
    vorx_leave_runtime_and_restore_errno_cond(key, wsp, &state, errno_value, true);
  }
  if (pop) pop(&frame, 1);
  else cleanup_handler(nullptr);
  return result;
}

// pthread_exit never returns to its wrapper: the thread lets go of its
// descriptor first, so that the cleanup handler pushed by the start wrapper can
// unregister it while the stack unwinds.
extern "C" void vorx_pthread_exit_wrapper(vorx_workspace *wsp, vorx_probe_data_t *data, void *trampoline) {
  vorx_ts_desc_t *key = nullptr;
  void *held = nullptr;
  // What the thread library calls on its way out (its unwinder's loader locks, say) are calls of an original.
  if (wsp) wsp->runtime_level = vorx_le_in_original;
  if (vorx_thread_manager_enter(g_vorx_thread_manager, &key, &held) == vorx_thread_manager_op_err_acquired && key)
    vorx_thread_manager_release(g_vorx_thread_manager, key);
  reinterpret_cast<vorx_pthread_exit_call_t>(trampoline)(data->params.u_pthread_exit.__retval);
  __builtin_unreachable();
}
