// Waits in flight: the nested-call check, the hooks between a nested call and its wait, and the paths
// that close a wait which never returned to its wrapper (cancellation, thread end, detach).
#include <string.h>

#include "event_filtering.h"
#include "vorx_log.h"
#include "vorx_probe_table.h"
#include "vorx_timesource.h"

extern "C" void vorx_run_directory_callbacks(uint32_t index, void* wsp, vorx_probe_data_t* data);

namespace {

vorx_filtering_data* as_filtering(void* data) { return static_cast<vorx_filtering_data*>(data); }

// Calls that a thread makes from inside these are bookkeeping, never a sign that it waits.
bool is_naming_call(uint32_t id) {
  switch (id) {
    case vorx_pi_pthread_create:
    case vorx_pi___ozk_thread_set_name:
    case vorx_pi___ozk_thread_ignore:
    case vorx_pi___ozk_sync_set_name:
    case vorx_pi___ozk_sync_create:
    case vorx_pi___ozk_sync_rename:
    case vorx_pi___ozk_sync_destroy:
    case vorx_pi___ozk_stack_caller_create:
    case vorx_pi___ozk_stack_caller_destroy:
    case vorx_pi___ozk_event_create:
      return true;
    default:
      return false;
  }
}

// A spinning wait has no blocking call to time: it starts at the first sign of waiting.
void start_spinning_wait(vorx_probe_data_t* wait, vorx_filtering_data* fd, bool track_object) {
  if (!wait->locals.wait_started) {
    wait->locals.enter_time = vorx_timesource()->now();
    if (fd) fd->last_wait_start = wait->locals.enter_time;
    wait->locals.wait_started = 1;
  }
  if (!fd) return;
  if (track_object && !wait->locals.contention_started) {
    vorx_filtering_push_sync(fd, wait->params.u_pthread_spin_lock.__lock);
    wait->locals.contention_started = 1;
  }
  fd->wait_in_progress = 1;
}

}  // namespace

extern "C" {

int vorx_is_runtime_in_nested_original(vorx_probe_data_t* wait, uint32_t probe_id, void* filtering_data) {
  if (!wait || is_naming_call(probe_id)) return 0;
  if (wait->locals.last_probe_id == vorx_pi_pthread_spin_lock)
    start_spinning_wait(wait, as_filtering(filtering_data), true);
  else if (wait->locals.last_probe_id == vorx_pi___ozk_sync_prepare)
    start_spinning_wait(wait, as_filtering(filtering_data), false);
  return 0;
}

int vorx_update_nested_probe_params(vorx_probe_data_t* data, vorx_probe_data_t* incomplete_wait) {
  (void)data;
  return incomplete_wait == nullptr;
}

int vorx_update_parent_probe_params(void) { return 0; }

void vorx_start_contention_on_sample(vorx_workspace* wsp) {
  vorx_is_runtime_in_nested_original(static_cast<vorx_probe_data_t*>(wsp->incomplete_wait), vorx_pi_eof,
                                     wsp->filtering_data);
}

void vorx_exec_post_callbacks(vorx_workspace* wsp, vorx_probe_data_t* data) {
  uint32_t idx = VORX_CALLBACK_INDEX(data->locals.last_probe_id, data->locals.state, vorx_or_post);
  VORX_ASSERT(idx < VORX_CALLBACK_ENTRIES);
  data->locals.leave_time = vorx_timesource()->now();
  vorx_run_directory_callbacks(idx, wsp, data);
}

// A wait in flight while the collection resumes was entered paused: its record belongs to the resumed entry.
void vorx_mark_paused_waits_to_be_stored(vorx_workspace* wsp) {
  if (auto* wait = static_cast<vorx_probe_data_t*>(wsp->incomplete_wait)) wait->locals.state = 1;
  vorx_filtering_data* fd = as_filtering(wsp->filtering_data);
  if (!fd) return;
  for (vorx_u32_t slot = 0; slot < VORX_SYNC_SLOTS; ++slot)
    if (__atomic_load_n(&fd->user_sync.objects[slot], __ATOMIC_ACQUIRE) != 0) fd->user_sync.paused[slot] = 1;
}

// Only the newest wait is reported: the older ones of the chain belong to calls the thread never returns to.
void vorx_flush_incomplete_wait(vorx_workspace* wsp) {
  auto* wait = static_cast<vorx_probe_data_t*>(wsp->incomplete_wait);
  if (!wait) return;
  wsp->incomplete_wait = nullptr;
  VORX_ASSERT(wait->locals.last_probe_id < vorx_pi_eof);
  void* global = nullptr;
  if (vorx_thread_manager_lock_global(g_vorx_thread_manager, &global) != vorx_thread_manager_op_err_ok) return;
  vorx_exec_post_callbacks(wsp, wait);
  vorx_thread_manager_unlock_global(g_vorx_thread_manager);
}

// A __ozk_sync_prepare without its end is closed as if it had been cancelled.
vorx_u32_t vorx_flush_incomplete_user_waits(vorx_workspace* wsp) {
  vorx_filtering_data* fd = as_filtering(wsp->filtering_data);
  if (!fd) return vorx_er_general_failure;
  bool flushed = false;
  for (vorx_u32_t slot = 0; slot < VORX_SYNC_SLOTS; ++slot) {
    vorx_u32_t object = __atomic_exchange_n(&fd->user_sync.objects[slot], 0u, __ATOMIC_ACQ_REL);
    if (!object) continue;
    vorx_probe_data_t data;
    memset(&data, 0, sizeof data);
    data.params.u___ozk_sync_cancel.__addr = reinterpret_cast<void*>(static_cast<uintptr_t>(object));
    data.locals.last_probe_id = vorx_pi___ozk_sync_cancel;
    data.locals.to_aux_tmu = 1;
    data.locals.state = g_vorx_conf ? g_vorx_conf->state : 1;
    data.locals.enter_time = fd->user_sync.waits[slot].locals.enter_time;
    VORX_ASSERT(fd->user_sync.nested_calls_count != 0);
    --fd->user_sync.nested_calls_count;
    vorx_exec_post_callbacks(wsp, &data);
    flushed = true;
  }
  return flushed ? vorx_er_success : vorx_er_general_failure;
}

}  // extern "C"
