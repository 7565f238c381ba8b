// The gates that open the runtime inside the application's own start-up. Each
// stands in for an initialisation routine of a module (libc, the thread
// library, the executable) and calls it first; the runtime opens at the last
// gate that finds libc and the thread library usable, before the application's
// own code runs. In attach mode the engine's application-start callback takes
// their place.
#include <string.h>
#include <unistd.h>

#include <initializer_list>
#include <string>

#include "api_handover.h"
#include "kel.h"
#include "runtime_entries.h"
#include "vorx_client.h"
#include "vorx_config.h"
#include "vorx_deepbind.h"
#include "engine_callbacks.h"
#include "vorx_init.h"
#include "module_probing.h"
#include "vorx_probe_table.h"
#include "vorx_log.h"

using namespace LEVEL_KELCLIENT;

namespace {

// A symbol counts as present when the executable's regular symbols hold it
// (plain or as the default version) and its address is a routine.
bool exe_has_symbol(IMG exe, const char *wanted) {
  size_t length = strlen(wanted);
  for (SYM sym = IMG_RegsymHead(exe); SYM_Valid(sym); sym = SYM_Next(sym)) {
    if (SYM_Index(sym) == 0) continue;
    const std::string &name = SYM_Name(sym);
    bool same = name == wanted || (name.compare(0, length, wanted) == 0 && name.compare(length, 2, "@@") == 0);
    if (!same) continue;
    KEL_LockClient();
    bool routine = RTN_Valid(RTN_FindByAddress(SYM_Value(sym) + IMG_LoadOffset(exe)));
    KEL_UnlockClient();
    if (routine) return true;
  }
  return false;
}

bool require_symbol(IMG exe, const char *name) {
  if (exe_has_symbol(exe, name)) return true;
  vorx_log(vorx_log_level_error, "Valid %s symbol is not found in the binary of the analysis target.", name);
  vorx_client_report_message(vorx_severity_error, "<?xml ?><msg name='78'><arg name='symbol' value='%s' /></msg>",
                             name);
  return false;
}

// "if `trigger` is present, `needed` must be".
bool require_if_present(IMG exe, const char *trigger, const char *needed) {
  return !exe_has_symbol(exe, trigger) || require_symbol(exe, needed);
}

bool libc_rule(IMG exe) {
  if (!require_if_present(exe, "recv", "poll")) return false;
  if ((exe_has_symbol(exe, "sleep") || exe_has_symbol(exe, "usleep")) && !require_symbol(exe, "nanosleep"))
    return false;
  for (const char *name : {"setenv", "getenv", "__errno_location", "abort", "exit", "_exit"})
    if (!require_symbol(exe, name)) return false;
  return true;
}

bool all_or_none(IMG exe, std::initializer_list<const char *> names) {
  bool any = false;
  for (const char *name : names) any = any || exe_has_symbol(exe, name);
  if (!any) return true;
  for (const char *name : names)
    if (!require_symbol(exe, name)) return false;
  return true;
}

bool libdl_rule(IMG exe) { return all_or_none(exe, {"dlopen", "dlsym", "dlclose"}); }

bool libpthread_rule(IMG exe) {
  for (const char *name : {"pthread_key_create", "pthread_setspecific", "pthread_getspecific"})
    if (!require_symbol(exe, name)) return false;
  if (exe_has_symbol(exe, "pthread_cancel") || exe_has_symbol(exe, "_pthread_cleanup_push") ||
      exe_has_symbol(exe, "_pthread_cleanup_pop")) {
    if (!require_symbol(exe, "_pthread_cleanup_push") || !require_symbol(exe, "_pthread_cleanup_pop")) return false;
  }
  if (!require_if_present(exe, "pthread_mutex_lock", "pthread_mutex_trylock")) return false;
  if (!require_if_present(exe, "pthread_spin_lock", "pthread_spin_trylock")) return false;
  for (const char *name : {"pthread_self", "pthread_getattr_np", "pthread_attr_getstack", "pthread_attr_getstacksize",
                           "pthread_attr_setstack", "pthread_attr_setstacksize", "pthread_attr_destroy"})
    if (!require_symbol(exe, name)) return false;
  return true;
}

bool no_libc_runtime_rule(IMG exe) { return all_or_none(exe, {"_rt0_amd64_linux", "main"}); }

void notify_pthread_linked(uint32_t init_type) {
  vorx_deepbind_notify_on_pthread_loaded(init_type, vorx_deepbind_pthread_mode_static);
  vorx_init_cancel_signal_handler();
}

// Since glibc 2.34 the thread library lives in libc itself and no
// libpthread.so is loaded or initialised: once libc is initialised, the
// collector's thread-specific data must go through the application's keys,
// or every thread would see the main thread's workspace.
void announce_thread_library_in_libc(uint32_t init_type) {
  if (g_instr_global.is_libpthread_so_loaded || g_pthread_load_mode != vorx_deepbind_pthread_mode_unavailable) return;
  if (!vorx_head_row(vorx_pi_pthread_key_create)->trampoline) return;
  vorx_deepbind_notify_on_pthread_loaded(init_type, vorx_deepbind_pthread_mode_dynamic);
  vorx_init_cancel_signal_handler();
}

}  // namespace

extern "C" void vorx_abort_on_improperly_linked_exe(vorx_start_data *data) {
  vorx_log(vorx_log_level_error,
           "Binary file of the analysis target does not contain symbols required for profiling. See the 'Analyzing "
           "Statically Linked Binaries' help topic for more details.");
  vorx_client_report_message(vorx_severity_error, "<?xml ?><msg name='77'></msg>");
  vorx_configuration *conf = g_vorx_conf;
  if (conf->is_root_process && conf->attach_requested == 0) _exit(-1);
  VORX_ASSERT(g_vorx_is_rtl_initialized == 0);
  vorx_abort(data->global);
  vorx_er_t detach_notification_result = vorx_client_notify(g_vorx_client, vorx_command_end);
  VORX_ASSERT(detach_notification_result == vorx_er_success);
  KEL_DetachProbed();
  if (conf->attach_requested && vorx_conf_has_collection(conf, vorx_cl_cpu)) vorx_stop_cpu_profiling();
  vorx_reset_detach_complete();
}

extern "C" void vorx_libc_init(int argc, char **argv, char **envp, vorx_init_routine original,
                               vorx_start_data *data) {
  vorx_pause_for_debugger();
  VORX_ASSERT(g_instr_global.is_libc_so_loaded);
  original(argc, argv, envp);
  if (g_instr_global.is_libc_so_initialized) return;
  g_instr_global.is_libc_so_initialized = true;
  announce_thread_library_in_libc(data->init_type);
  uint32_t linked = vorx_pthread_linked_to_exe();
  bool thread_library_ready = linked == vorx_pthr_lnk_to_exe_not_linked ||
                              (g_instr_global.is_libpthread_so_loaded && g_instr_global.is_libpthread_so_initialized);
  if (thread_library_ready) {
    VORX_ASSERT(data->init_type == vorx_init_run);
    vorx_attach(data->global);
  } else {
    VORX_ASSERT(!g_instr_global.is_exe_initialized);
  }
}

extern "C" void vorx_libpthread_init(int argc, char **argv, char **envp, vorx_init_routine original,
                                     vorx_start_data *data) {
  VORX_ASSERT(g_instr_global.is_libpthread_so_loaded);
  original(argc, argv, envp);
  VORX_ASSERT(!g_instr_global.is_libpthread_so_initialized);
  g_instr_global.is_libpthread_so_initialized = true;
  vorx_deepbind_notify_on_pthread_loaded(vorx_init_run, vorx_deepbind_pthread_mode_dynamic);
  vorx_init_cancel_signal_handler();
}

extern "C" void vorx_libpthread_fini(vorx_init_routine original) {
  VORX_ASSERT(g_instr_global.is_libpthread_so_loaded && g_instr_global.is_libpthread_so_initialized);
  vorx_deepbind_notify_on_pthread_unloaded();
  vorx_fini_cancel_signal_handler();
  original(0, nullptr, nullptr);
  g_instr_global.is_libpthread_so_initialized = false;
}

namespace {

void exe_init_static(IMG exe, vorx_start_data *data) {
  vorx_log(vorx_log_level_trace, "libc.so was not loaded -> statically linked binary!");
  VORX_ASSERT(!g_instr_global.is_libc_so_initialized);
  bool linked = vorx_pthread_linked_to_exe() == vorx_pthr_lnk_to_exe_linked;
  if (!libc_rule(exe) || !libdl_rule(exe) || (linked && !libpthread_rule(exe))) {
    vorx_abort_on_improperly_linked_exe(data);
    return;
  }
  if (linked) notify_pthread_linked(data->init_type);
  VORX_ASSERT(g_vorx_is_rtl_initialized == 0);
  vorx_attach(data->global);
}

void exe_init_dynamic(IMG exe, vorx_start_data *data) {
  VORX_ASSERT(g_instr_global.is_libc_so_initialized);
  if (!g_instr_global.is_libdl_so_loaded && !libdl_rule(exe)) {
    vorx_abort_on_improperly_linked_exe(data);
    return;
  }
  uint32_t linked = vorx_pthread_linked_to_exe();
  if (!g_instr_global.is_libpthread_so_loaded && linked == vorx_pthr_lnk_to_exe_linked) {
    if (!libpthread_rule(exe)) {
      vorx_abort_on_improperly_linked_exe(data);
      return;
    }
    notify_pthread_linked(data->init_type);
  }
  if (g_vorx_is_rtl_initialized == 0) {
    VORX_ASSERT(linked == vorx_pthr_lnk_to_exe_linked);
    vorx_attach(data->global);
    return;
  }
  VORX_ASSERT(linked == vorx_pthr_lnk_to_exe_not_linked ||
              (g_instr_global.is_libpthread_so_loaded && g_instr_global.is_libpthread_so_initialized));
  VORX_ASSERT(g_vorx_is_rtl_initialized == 1);
}

}  // namespace

extern "C" void vorx_exe_init(int argc, char **argv, char **envp, vorx_init_routine original,
                              vorx_start_data *data) {
  original(argc, argv, envp);
  if (g_instr_global.is_exe_initialized) return;
  VORX_ASSERT(data->init_type == vorx_init_run);
  g_instr_global.is_exe_initialized = true;
  IMG exe = vorx_exe_img();
  if (!g_instr_global.is_libc_so_loaded) exe_init_static(exe, data);
  else exe_init_dynamic(exe, data);
}

extern "C" void vorx_on_app_start(void *arg) {
  auto *data = static_cast<vorx_start_data *>(arg);
  vorx_pause_for_debugger();
  VORX_ASSERT(!g_instr_global.is_exe_initialized);
  g_instr_global.is_exe_initialized = true;
  VORX_ASSERT(data->init_type == vorx_init_attach || data->init_type == vorx_init_reattach);
  IMG exe = vorx_exe_img();
  bool linked = vorx_pthread_linked_to_exe() == vorx_pthr_lnk_to_exe_linked;

  if (!g_instr_global.is_libc_so_loaded) {
    vorx_log(vorx_log_level_trace, "libc.so was not loaded -> statically linked binary!");
    VORX_ASSERT(!g_instr_global.is_libc_so_initialized);
    bool ok = libc_rule(exe) && libdl_rule(exe) && (!linked || libpthread_rule(exe));
    if (ok) {
      if (linked) notify_pthread_linked(data->init_type);
      VORX_ASSERT(data->initial_pthread_load_event_on_attach);
      data->initial_pthread_load_event_on_attach = false;
    } else if (no_libc_runtime_rule(exe)) {
      g_vorx_conf->no_libc_runtime = true;
      data->initial_pthread_load_event_on_attach = false;
    } else {
      vorx_abort_on_improperly_linked_exe(data);
      return;
    }
  } else {
    VORX_ASSERT(!g_instr_global.is_libc_so_initialized);
    g_instr_global.is_libc_so_initialized = true;
    if (!g_instr_global.is_libdl_so_loaded && !libdl_rule(exe)) {
      vorx_abort_on_improperly_linked_exe(data);
      return;
    }
    if (g_instr_global.is_libpthread_so_loaded) {
      VORX_ASSERT(g_instr_global.is_libpthread_so_initialized && !data->initial_pthread_load_event_on_attach);
    } else if (linked) {
      if (!libpthread_rule(exe)) {
        vorx_abort_on_improperly_linked_exe(data);
        return;
      }
      notify_pthread_linked(data->init_type);
    } else {
      VORX_ASSERT(!g_instr_global.is_libpthread_so_initialized && data->initial_pthread_load_event_on_attach);
      data->initial_pthread_load_event_on_attach = false;
      vorx_deepbind_notify_on_pthread_unloaded();
    }
  }
  VORX_ASSERT(g_vorx_is_rtl_initialized == 0);
  vorx_attach(data->global);
}

extern "C" void vorx_on_probes_removed(void *) {
  g_instr_global.is_libc_so_loaded = false;
  g_instr_global.is_libc_so_initialized = false;
  if (g_instr_global.is_libpthread_so_loaded && g_instr_global.is_libpthread_so_initialized)
    vorx_fini_cancel_signal_handler();
  g_instr_global.is_libpthread_so_loaded = false;
  g_instr_global.is_libpthread_so_initialized = false;
  g_instr_global.is_libdl_so_loaded = false;
  g_instr_global.exe_id = 0xFFFFFFFFu;
  g_instr_global.is_exe_initialized = false;
  vorx_ozk_api_give_back();
  vorx_forget_resolved_rows();
  vorx_signal_detach_complete();
}
