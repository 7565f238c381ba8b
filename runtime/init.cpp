// Start-up of the collector: the init type, the per-start record, the engine
// callbacks registered at each start, the gates inside the application's own
// start-up that open the runtime, and the opening itself (vorx_attach).
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <time.h>
#include <unistd.h>

#include <atomic>

#include "kel.h"
#include "runtime_entries.h"
#include "signal_manager.h"
#include "sal.h"
#include "thread_manager.h"
#include "vorx_tmu.h"
#include "trace_names.h"
#include "vorx_client.h"
#include "vorx_config.h"
#include "engine_callbacks.h"
#include "event_filtering.h"
#include "vorx_init.h"
#include "vorx_log.h"
#include "vorx_timesource.h"
#include "thread_start.h"
#include "vorx_environ.h"
#include "workspace.h"
#include "writer.h"
#include "module_map.h"
#include "vorx_probe_table.h"

using namespace LEVEL_KELCLIENT;

extern "C" volatile int g_vorx_forked_child_reset;

vorx_instr_global g_instr_global = {false, false, false, false, false, 0xFFFFFFFFu, false, 0};
volatile int g_vorx_is_rtl_initialized = 0;
int g_pause_time = 0;
uintptr_t g_vorx_entry_point_orig = 0;

namespace {

constexpr uint32_t kNoExe = 0xFFFFFFFFu;
constexpr uint32_t kGlobalBlockSize = 128;
constexpr uint32_t kThreadBlockSize = 128;
constexpr uint32_t kThreadCacheLimit = 500;

// The workspace key survives reattaches: thread-specific slots are few.
bool g_workspace_key_allocated = false;
sal_tls_key_t g_workspace_key;

uint32_t g_pthread_linked_to_exe = vorx_pthr_lnk_to_exe_unknown;

void release_memory_objects() {
  vorx_mem_obj_htable_retire();
}

bool has_collection(uint32_t collection) {
  const vorx_configuration *conf = g_vorx_conf;
  return conf && vorx_conf_has_collection(conf, collection);
}

void sleep_seconds(int seconds) {
  if (seconds <= 0) return;
  struct timespec delay = {seconds, 0};
  while (nanosleep(&delay, &delay) != 0) {
  }
}

}  // namespace

extern "C" void vorx_pause_for_debugger(void) { sleep_seconds(g_pause_time); }

// ---------------------------------------------------------------- init type

extern "C" uint32_t vorx_calc_init_type(uint32_t requested) {
  // 1 until the first init of the process has been decided, 3 afterwards.
  static uint32_t word = vorx_init_run;
  switch (requested) {
    case vorx_init_proc_ignored:
    case vorx_init_config_failed:
      word = vorx_init_reattach;
      return requested;
    case vorx_init_run:
    case vorx_init_attach:
      if (word == vorx_init_run) {
        word = vorx_init_reattach;
        return requested;
      }
      VORX_ASSERT(word == vorx_init_reattach);
      return vorx_init_reattach;
    default:
      VORX_ASSERT(!"vorx_calc_init_type: unexpected request");
      return requested;
  }
}

// ---------------------------------------------------------------- create/init

namespace {

// The system layer asks the engine for the kernel and the host.
vorx_bool_t engine_kernel_release(char *buffer, vorx_size_t size) {
  return OS_RETURN_CODE_IS_SUCCESS(OS_GetKernelRelease(buffer, size)) ? VORX_TRUE : VORX_FALSE;
}
vorx_bool_t engine_host_cpu_arch(char *buffer, vorx_size_t size) {
  return OS_RETURN_CODE_IS_SUCCESS(OS_GetHostCPUArch(buffer, size)) ? VORX_TRUE : VORX_FALSE;
}
constexpr sal_engine_hooks kEngineHooks = {engine_kernel_release, engine_host_cpu_arch};

}  // namespace

extern "C" void vorx_create(void) {
  sal_set_engine_hooks(&kEngineHooks);
  vorx_er_t err = sal_init();
  VORX_ASSERT(err == vorx_er_success);
  vorx_init_signal_manager();
  VORX_ASSERT(g_vorx_thread_manager == nullptr);
  vorx_thread_manager_create(&g_vorx_thread_manager, kGlobalBlockSize, vorx_alloc_global, vorx_free_global,
                             vorx_detach, nullptr);
  VORX_ASSERT(g_vorx_thread_manager != nullptr);
  vorx_reset_detach_complete();
  VORX_ASSERT(g_vorx_tmu_creator == nullptr);
  g_vorx_tmu_creator = vorx_tmu_creator_alloc(0);
  VORX_ASSERT(g_vorx_tmu_creator != nullptr);
  vorx_tmu_creator_set_state(g_vorx_tmu_creator, 0);  // units get their files
}

extern "C" void vorx_init_logging(void) {
  sal_allocator allocator = SAL_ALLOCATOR_INITIALIZER(sal_allocator_type_heap);
  char *name = nullptr;
  if (vorx_generate_process_trace_filename("log", "trace", &allocator, &name) == vorx_er_success)
    vorx_log_init(name, g_vorx_conf->log_level);
  allocator.vtbl->destroy(&allocator);
}

extern "C" uint32_t vorx_init(const char *server_name, void **out_global) {
  if (server_name && vorx_init_configuration(server_name) != vorx_er_success)
    return vorx_calc_init_type(vorx_init_config_failed);
  VORX_ASSERT(g_vorx_conf != nullptr && g_vorx_thread_manager != nullptr);
  VORX_ASSERT(g_vorx_is_rtl_initialized == 0);

  vorx_init_logging();
  vorx_configuration *conf = g_vorx_conf;
  if (!conf->profile_process) return vorx_calc_init_type(vorx_init_proc_ignored);

  uint32_t type = vorx_calc_init_type(conf->attach_requested == 0 ? vorx_init_run : vorx_init_attach);
  if ((type == vorx_init_attach || type == vorx_init_reattach) && has_collection(vorx_cl_cpu) &&
      vorx_init_cpu_profiling(0) != vorx_er_success)
    return vorx_init_attach_failed;

  vorx_set_ctrl_c_handler(1);
  vorx_init_detach_complete();
  vorx_tmu_creator_set_compression_level(g_vorx_tmu_creator, conf->compression_level);

  vorx_init_module_map();
  vorx_thread_manager_create_global(g_vorx_thread_manager);
  uint32_t locked = vorx_thread_manager_lock_global(g_vorx_thread_manager, out_global);
  VORX_ASSERT(locked == vorx_thread_manager_op_err_ok && *out_global != nullptr);

  vorx_init_jit_support();
  vorx_init_projection_manager();
  // Without a choice from the server, the source that suits this machine.
  if (!vorx_timesource_init(conf->time_source)) vorx_timesource_init(vorx_timesource_auto_select());
  vorx_init_crash_signal_handler();

  vorx_init_stacks_collection();
  vorx_init_threads_profiling();
  vorx_init_handles_db();
  return type;
}

// ---------------------------------------------------------------- callbacks

namespace {

void register_run_callbacks(vorx_start_data *data) {
  uint32_t type = data->init_type;
  KEL_AddFollowChildProcessFunction(vorx_on_process_creation, nullptr);
  KEL_AddForkFunctionProbed(FPOINT_BEFORE, vorx_on_fork_before, nullptr);
  KEL_AddForkFunctionProbed(FPOINT_AFTER_IN_PARENT, vorx_on_fork_after_in_parent, nullptr);
  if (type != vorx_init_reattach) {
    KEL_InitSymbols();
    vorx_reset_instrumented_modules();
  }
  KEL_AddForkFunctionProbed(FPOINT_AFTER_IN_CHILD, vorx_on_fork_after_in_child, nullptr);
  if (type == vorx_init_attach || type == vorx_init_reattach) {
    data->initial_pthread_load_event_on_attach = true;
    KEL_AddApplicationStartFunction(vorx_on_app_start, data);
    KEL_AddThreadAttachProbedFunction(vorx_threads_enum_on_attach_callback, nullptr);
  } else {
    data->initial_pthread_load_event_on_attach = false;
    VORX_ASSERT(type == vorx_init_run);
  }
  if (has_collection(vorx_cl_cpu)) KEL_AddThreadDetachProbedFunction(vorx_threads_enum_on_detach_callback, nullptr);
  IMG_AddInstrumentFunction(vorx_on_module_loading, data);
  IMG_AddUnloadFunction(vorx_on_module_unloading, data);
  KEL_AddDetachFunctionProbed(vorx_on_probes_removed, nullptr);
}

void announce_start(void) {
  char mark[64];
  sal_time_mark(mark, sizeof mark);
  vorx_log(vorx_log_level_info, "[%s] Instrumentation started...", mark);
  if (g_vorx_client && g_vorx_conf->quiet_info == 0)
    vorx_client_report(g_vorx_client, vorx_severity_info,
                       "<?xml ?><msg name='17'><arg name='time_mark' value='%s' /></msg>", mark);
}

}  // namespace

extern "C" uint32_t main_on_reattach(const char *server_name) {
  auto *data = static_cast<vorx_start_data *>(malloc(sizeof(vorx_start_data)));
  VORX_ASSERT(data != nullptr);
  *data = vorx_start_data{};
  data->init_type = vorx_init(server_name, &data->global);

  switch (data->init_type) {
    case vorx_init_attach_failed:
      free(data);
      return vorx_init_attach_failed;
    case vorx_init_config_failed:
      free(data);
      KEL_AddDetachFunctionProbed(vorx_on_probes_removed, nullptr);
      return vorx_init_config_failed;
    case vorx_init_proc_ignored:
      KEL_AddForkFunctionProbed(FPOINT_AFTER_IN_PARENT, vorx_on_fork_after_in_parent, nullptr);
      KEL_AddForkFunctionProbed(FPOINT_AFTER_IN_CHILD, vorx_on_fork_after_in_child, nullptr);
      KEL_AddFollowChildProcessFunction(vorx_on_process_creation, nullptr);
      free(data);
      return vorx_init_proc_ignored;
    case vorx_init_run:
    case vorx_init_attach:
    case vorx_init_reattach:
      register_run_callbacks(data);
      announce_start();
      return data->init_type;
    default:
      VORX_ASSERT(!vorx_bool_for_assert((void *)("main_on_reattach__unreachable")));
      return data->init_type;
  }
}

extern "C" void main_on_reattach_callback(void *arg) {
  uint32_t type = main_on_reattach(static_cast<const char *>(arg));
  VORX_ASSERT(type == vorx_init_reattach || type == vorx_init_config_failed || type == vorx_init_proc_ignored ||
              type == vorx_init_attach_failed);
}

// ---------------------------------------------------------------- executable

IMG vorx_exe_img() {
  IMG img(static_cast<INT32>(g_instr_global.exe_img));
  if (!IMG_Valid(img)) {
    img = IMG_FindImgById(g_instr_global.exe_id);
    g_instr_global.exe_img = static_cast<uint32_t>(img.q());
  }
  VORX_ASSERT(IMG_Valid(img));
  return img;
}

extern "C" uint32_t vorx_pthread_linked_to_exe(void) {
  if (g_instr_global.exe_id == kNoExe) return g_pthread_linked_to_exe;
  IMG exe = IMG_FindImgById(g_instr_global.exe_id);
  g_instr_global.exe_id = kNoExe;
  // An undefined "pthread_create" (bound to libc at run time) is no routine of
  // the executable: only a thread library linked into it counts.
  RTN create = IMG_Valid(exe) ? RTN_FindByName(exe, "pthread_create") : RTN_Invalid();
  g_pthread_linked_to_exe = RTN_Valid(create) ? vorx_pthr_lnk_to_exe_linked : vorx_pthr_lnk_to_exe_not_linked;
  return g_pthread_linked_to_exe;
}

// ---------------------------------------------------------------- opening

extern "C" void vorx_init_profiled_process_env(void) {
  char **pairs = g_vorx_conf->environment;
  if (!pairs) return;
  for (; pairs[0] && pairs[1]; pairs += 2) {
    const char *name = pairs[0];
    const char *value = pairs[1];
    if (strcmp(name, "LD_LIBRARY_PATH") != 0) {
      vorx_env_setenv(name, value, 1);
      continue;
    }
    const char *old = vorx_env_getenv(name);
    if (!old) {
      vorx_env_setenv(name, value, 1);
    } else if (!strstr(old, value)) {
      size_t length = strlen(value) + 1 + strlen(old) + 1;
      char *joined = static_cast<char *>(malloc(length));
      if (joined) {
        snprintf(joined, length, "%s:%s", value, old);
        vorx_env_setenv(name, joined, 1);
        free(joined);
      }
    }
  }
}

namespace {

void register_initial_thread(void) {
  vorx_registration_data reg{};
  reg.handle = vorx_get_thread_handle(sal_thread_id());
  VORX_ASSERT(reg.handle != 0);
  reg.reg_type = vorx_th_reg_self;
  if (vorx_register_thread(&reg) != vorx_thread_manager_op_err_ok) return;
  bool with_errno = !g_vorx_conf->no_libc_runtime;
  vorx_runtime_state state{};
  vorx_ts_desc_t *key = nullptr;
  vorx_workspace *wsp = nullptr;
  int saved = 0;
  if (vorx_enter_runtime_and_store_errno_cond(&state, &key, &wsp, &saved, with_errno) ==
      vorx_thread_manager_op_err_ok) {
    vorx_simulate_thread_start_routine_wrapper_pre(wsp, g_vorx_entry_point_orig);
    wsp->thread_start_pending = false;
    vorx_leave_runtime_and_restore_errno_cond(key, wsp, &state, saved, with_errno);
  }
  vorx_log(vorx_log_level_trace, "registering the initial thread ... done");
}

}  // namespace

extern "C" void vorx_attach(void *global) {
  vorx_configuration *conf = g_vorx_conf;
  bool keep_errno = conf->attach_requested == 0 && !conf->no_libc_runtime;
  int saved_errno = keep_errno ? vorx_app_errno() : 0;
  VORX_ASSERT(g_vorx_is_rtl_initialized == 0);

  if (has_collection(vorx_cl_memory)) vorx_mem_obj_htable_init(conf, &g_vorx_mem_obj_htable);
  vorx_init_stack_walk();
  vorx_put_initial_process_records(vorx_global_process_tmu(global));
  vorx_init_runtime();
  if (!conf->no_libc_runtime) vorx_init_profiled_process_env();
  if (conf->attach_requested == 0 && has_collection(vorx_cl_cpu)) vorx_init_cpu_profiling(1);

  if (!g_workspace_key_allocated) {
    vorx_er_t err = sal_alloc_tls(&g_workspace_key);
    VORX_ASSERT(err == vorx_er_success);
    g_workspace_key_allocated = true;
  }
  vorx_enable_workspace_threads(g_workspace_key, kThreadBlockSize, kThreadCacheLimit);

  if (conf->ops->get_state(conf) == vorx_st_paused) vorx_set_profiling_state(global, vorx_st_paused);
  else VORX_ASSERT(conf->ops->get_state(conf) == vorx_st_resumed);

  vorx_er_t attach_notification_result = vorx_client_notify(g_vorx_client, vorx_command_ready);
  VORX_ASSERT(attach_notification_result == vorx_er_success);

  vorx_signal_manager_resync();
  g_vorx_is_rtl_initialized = 1;
  vorx_thread_manager_unlock_global(g_vorx_thread_manager);
  vorx_set_ctrl_c_handler(2);
  vorx_log(vorx_log_level_trace, "\n*** The runtime is now opened ... ***\n");

  if (conf->attach_requested == 0) {
    register_initial_thread();
    if (keep_errno) vorx_set_app_errno(saved_errno);
  }
}

extern "C" void vorx_abort(void *global) {
  g_vorx_is_rtl_initialized = 0;
  vorx_fini_crash_signal_handler();
  VORX_ASSERT(g_vorx_module_map != nullptr);
  vorx_free_module_map(g_vorx_module_map);
  g_vorx_module_map = nullptr;
  vorx_unlink_callback_tables();
  vorx_reset_process_trace_counter();
  release_memory_objects();
  if (global) vorx_thread_manager_unlock_global(g_vorx_thread_manager);
  vorx_set_ctrl_c_handler(0);
}

extern "C" void vorx_reset(void) {
  if (g_vorx_is_rtl_initialized != 1) {
    VORX_ASSERT(g_vorx_is_rtl_initialized == 0);
    return;
  }
  int saved_errno = vorx_app_errno();
  vorx_set_ctrl_c_handler(1);
  // Every unit so far is the parent's: forget them, do not write them here.
  g_vorx_forked_child_reset = 1;
  vorx_tmu_forget_all_after_fork();
  vorx_thread_manager_reset_threads(g_vorx_thread_manager);
  g_vorx_forked_child_reset = 0;
  vorx_abort(nullptr);
  vorx_set_app_errno(saved_errno);
}
