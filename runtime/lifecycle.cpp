// The life of the collector after start: how a collection ends (the stop
// sequence, the application's exit), fork and exec, and the detach of threads
// and of the whole process.
#include <stdio.h>
#include <string.h>
#include <time.h>
#include <unistd.h>

#include <atomic>

#include "engine_callbacks.h"
#include "event_filtering.h"
#include "runtime_entries.h"
#include "sal.h"
#include "signal_manager.h"
#include "thread_manager.h"
#include "vorx_client.h"
#include "vorx_config.h"
#include "vorx_deepbind.h"
#include "vorx_init.h"
#include "vorx_log.h"
#include "vorx_tmu.h"
#include "trace_names.h"
#include "workspace.h"
#include "writer.h"

using namespace LEVEL_KELCLIENT;

namespace {

// Set by vorx_init, cleared when the engine says every probe is gone; the stop
// sequence waits on it before answering the server.
std::atomic<unsigned char> detach_in_progress{0};

void report_client_failure(const char *failed_action) {
  vorx_report(vorx_msg_server_notification_failed, failed_action);
}

}  // namespace

extern "C" void vorx_init_detach_complete(void) {
  VORX_ASSERT(detach_in_progress.load() == 0);
  detach_in_progress = 1;
}
extern "C" void vorx_signal_detach_complete(void) { detach_in_progress = 0; }
extern "C" void vorx_reset_detach_complete(void) { detach_in_progress = 0; }
extern "C" int vorx_is_detach_complete(void) { return detach_in_progress.load() == 0; }
extern "C" void vorx_wait_for_detach_completion(void) {
  while (detach_in_progress.load() == 1) sal_yield();
  VORX_ASSERT(detach_in_progress.load() == 0);
}

// ---------------------------------------------------------------- detach

extern "C" void vorx_detach_runtime(void) {
  vorx_log(vorx_log_level_trace, "vorx_detach_runtime(): the collection ends ...");
  vorx_thread_manager_unregister(g_vorx_thread_manager, sal_thread_id(), nullptr);
  vorx_thread_manager_complete_threads(g_vorx_thread_manager);
}

extern "C" void vorx_remove_probes(void) {
  KEL_DetachProbed();
  vorx_wait_for_detach_completion();
}

extern "C" void vorx_finalize_per_process_trace(vorx_tmu_t *unit) {
  if (!unit) return;
  int spilled = unit->spill(unit);
  vorx_log(vorx_log_level_trace, "vorx_finalize_per_process_trace(): unit %p spilled: %d", static_cast<void *>(unit),
           spilled);
}

extern "C" vorx_u32_t vorx_detach(void *global) {
  auto *wsp = static_cast<vorx_workspace *>(global);
  vorx_log(vorx_log_level_trace, "vorx_detach(): closing the process's traces ...");
  vorx_set_ctrl_c_handler(1);
  VORX_ASSERT(g_vorx_is_rtl_initialized == 1);
  g_vorx_is_rtl_initialized = 0;
  put_old_process_record(wsp->master_tmu);
  // The threads' units are spilled by now: the trace carries the count of what they dropped, the server
  // the final one, with what the last spills here drop.
  put_records_lost_record(wsp->master_tmu);
  vorx_finalize_per_process_trace(wsp->aux_tmu);
  vorx_finalize_per_process_trace(wsp->master_tmu);
  vorx_fini_crash_signal_handler();
  vorx_unlink_callback_tables();
  if (!g_vorx_client ||
      vorx_client_notify_end(g_vorx_client, vorx_tmu_records_lost(), vorx_tmu_loss_causes()) != vorx_er_success)
    report_client_failure("on detaching from the collection");
  vorx_mem_obj_htable_retire();
  vorx_reset_process_trace_counter();
  vorx_set_ctrl_c_handler(0);
  vorx_log(vorx_log_level_trace, "vorx_detach(): done");
  return vorx_thread_manager_op_err_ok;
}

// ---------------------------------------------------------------- fork

extern "C" void vorx_on_fork_before(UINT32, void *) {}

extern "C" void vorx_on_fork_after_in_parent(UINT32 child_pid, void *) {
  const vorx_configuration *conf = g_vorx_conf;
  if (!conf->follow_children) return;
  VORX_ASSERT(child_pid != 0 && g_vorx_client != nullptr);
  int saved_errno = vorx_app_errno();
  if (g_vorx_client->ops->notify_new_process(g_vorx_client, sal_process_id(), child_pid) != vorx_er_success)
    report_client_failure("on spawning a process");
  vorx_set_app_errno(saved_errno);
}

extern "C" void vorx_on_fork_after_in_child(UINT32, void *) {
  // the signal tables' lock may have been copied held by a thread that the child does not have
  if (g_signal_manager) g_signal_manager->reinitialise_after_fork(g_signal_manager);
  if (g_pause_time) {
    printf("Pausing to attach to pid %d\n", static_cast<int>(sal_process_id()));
    fflush(stdout);
    vorx_pause_for_debugger();
  }
  vorx_configuration *conf = g_vorx_conf;
  uint32_t type = vorx_init_proc_ignored;
  if (conf->profile_process) {
    vorx_deepbind_reset();
    vorx_reset();
    vorx_reset_detach_complete();
    if (!conf->follow_children) {
      conf->profile_process = false;
    } else {
      conf->process_id = static_cast<int32_t>(sal_process_id());
      conf->parent_process_id = static_cast<int32_t>(sal_parent_process_id());
      conf->is_root_process = false;
      if (g_vorx_client->ops->notify_new_process(g_vorx_client, conf->parent_process_id, conf->process_id) ==
          vorx_er_success) {
        void *global = nullptr;
        type = vorx_init(nullptr, &global);
        if (type == vorx_init_run || type == vorx_init_attach || type == vorx_init_reattach) vorx_attach(global);
      } else {
        report_client_failure("on forking a new process");
        type = vorx_init_config_failed;
      }
    }
  }
  vorx_start_notification_service(type, g_pause_time);
}

// ---------------------------------------------------------------- exec

extern "C" BOOL vorx_on_process_creation(CHILD_PROCESS child, void *) {
  const vorx_configuration *conf = g_vorx_conf;
  if (!conf) return false;
  if (conf->profile_process && static_cast<uint32_t>(conf->process_id) == sal_process_id() &&
      g_vorx_is_rtl_initialized == 1) {
    // This image is about to be replaced: close its traces first.
    KEL_UnlockClient();
    vorx_detach_runtime();
    KEL_LockClient();
    vorx_log(vorx_log_level_trace, "vorx_on_process_creation(): process finalized ...");
  }
  if (!conf->follow_children) return false;
  INT32 argc = 0;
  const CHAR *const *argv = nullptr;
  if (!CHILD_PROCESS_GetCommandLine(child, &argc, &argv) || argc < 1 || !argv[0]) return true;
  const char *name = strrchr(argv[0], '/');
  name = name ? name + 1 : argv[0];
  for (char **ignored = conf->ignored_processes; ignored && *ignored; ++ignored) {
    if (strcmp(*ignored, name) == 0) {
      vorx_log(vorx_log_level_trace, "vorx_on_process_creation(): child is skipped ...");
      return false;
    }
  }
  vorx_log(vorx_log_level_trace, "vorx_on_process_creation(): injecting to the child ...");
  return true;
}

// ---------------------------------------------------------------- attach

extern "C" void vorx_threads_enum_on_attach_callback(void *, void *) {}
extern "C" void vorx_threads_enum_on_detach_callback(void *) {}
