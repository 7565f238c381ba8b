/* Per-thread workspaces: their construction through the thread manager's
 * callbacks, their trace units, and the protocol by which a thread enters and
 * leaves the runtime without the application's errno ever changing. */
#include "workspace.h"

#include <stdlib.h>
#include <string.h>

#include "sal.h"
#include "signal_manager.h"
#include "trace_names.h"
#include "vorx_config.h"
#include "vorx_deepbind.h"
#include "vorx_log.h"
#include "vorx_traceformat.h"

/* Neighbours that hang their per-thread state on the workspace. Each belongs
 * to its own subsystem; while one is not linked in, its field stays null and
 * its step is skipped. */
extern "C" {
/* Set by the forked child while it throws the parent's threads away. */
volatile int g_vorx_forked_child_reset = 0;

void* vorx_alloc_cpu_profiling_descriptor(vorx_ts_desc_t* owner, vorx_u32_t thread) __attribute__((weak));
void vorx_free_cpu_profiling_descriptor(void* desc) __attribute__((weak));
void* vorx_alloc_stack_descriptor(vorx_u32_t thread, vorx_xstack* xstack) __attribute__((weak));
void vorx_init_stack_descriptor(void* desc, vorx_xstack* xstack) __attribute__((weak));
void vorx_free_stack_descriptor(void* desc) __attribute__((weak));
void* vorx_alloc_filtering_data(void) __attribute__((weak));
void vorx_reset_filtering_data(void* data) __attribute__((weak));
void vorx_free_filtering_data(void* data) __attribute__((weak));
void* vorx_projection_alloc_thread_data(vorx_u32_t thread) __attribute__((weak));
void vorx_projection_reset_thread_data(void* data) __attribute__((weak));
void vorx_projection_free_thread_data(void* data) __attribute__((weak));
void vorx_signal_descr_save_complete_data(struct vorx_signal_descr* descr, void* data) __attribute__((weak));
int is_replacing_altstack_safe(void) __attribute__((weak));
vorx_u32_t vorx_start_stracing(const char* name, vorx_u32_t thread, vorx_u32_t* state) __attribute__((weak));
void vorx_stop_stracing(vorx_u32_t* state) __attribute__((weak));
void vorx_generate_sample_record(vorx_workspace* wsp, void* context, void* info) __attribute__((weak));
void vorx_simulate_thread_start_routine_wrapper_pre(vorx_workspace* wsp, uintptr_t start) __attribute__((weak));
void vorx_flush_incomplete_wait(vorx_workspace* wsp) __attribute__((weak));
void vorx_put_initial_thread_records(struct vorx_workspace* wsp) __attribute__((weak));
void put_thread_name_record(struct vorx_workspace* wsp) __attribute__((weak));
void put_old_thread_record(struct vorx_workspace* wsp) __attribute__((weak));

volatile vorx_u32_t g_vorx_attach_pend_requests = 0;
}

namespace {

static_assert(sizeof(vorx_workspace) <= 128, "a workspace lives in the manager's 128-byte block");

constexpr vorx_u32_t kSignalStackSize = 0x10000;
constexpr vorx_u32_t kAlternativeStackSize = 0x20000;
constexpr vorx_u32_t kFdVectorInitial = 64;
constexpr vorx_u32_t kSignalStackTooSmall = 3;
constexpr vorx_u32_t kPerThreadFiles = 1;

/* A CPU-profiling descriptor's head: its third and fourth operations. */
struct cpu_prof_view {
  void* op0;
  void* op1;
  vorx_u32_t (*start)(void* desc);
  vorx_u32_t (*stop)(void* desc);
};

vorx_workspace* W(void* p) { return static_cast<vorx_workspace*>(p); }
const vorx_configuration* conf() { return g_vorx_conf; }
bool is_thread(const vorx_workspace* wsp) { return wsp->thread != 0; }
bool cpu_sampling_on() { return conf() && vorx_conf_has_collection(conf(), vorx_cl_cpu); }
bool per_thread_files() { return conf() && conf()->per_thread_files == kPerThreadFiles; }
bool no_libc_runtime() { return conf() && conf()->no_libc_runtime; }

void cpu_prof(vorx_workspace* wsp, bool start) {
  if (!cpu_sampling_on() || !wsp->cpu_prof_desc) return;
  auto* ops = static_cast<cpu_prof_view*>(wsp->cpu_prof_desc);
  if (start) ops->start(wsp->cpu_prof_desc);
  else ops->stop(wsp->cpu_prof_desc);
}

void ring_mode_if_configured(vorx_tmu_t* aux) {
  vorx_u32_t duration = conf() ? conf()->ring_buffer_duration : 0;
  if (duration == 0) return;
  vorx_tmu_set_ring_buffer_duration(aux, duration);
  vorx_tmu_set_mode(aux, vorx_tmu_mode_ring);
}

/* A unit under `name`, or the existing one renamed (a forked child). */
void make_unit(vorx_u32_t type, const char* name, vorx_tmu_t** out) {
  if (*out) {
    (*out)->set_file(*out, name);
  } else {
    VORX_ASSERT(g_vorx_tmu_creator != ((void *)0));
    *out = g_vorx_tmu_creator->alloc(g_vorx_tmu_creator, type, name);
  }
  if (*out) vorx_tmu_set_write_record_callbacks(*out, tf_record_size_cb, tf_record_encode_cb);
}

void init_xstack(vorx_xstack* x) {
  x->pointer = nullptr;
  x->word = 0;
  x->limit = 0xFFFFFFFFu;
  x->flag = 0;
}

// The collector's own alternate stack serves its sampling handler on threads with small stacks; without
// sampling a thread costs no stack of the collector's.
void alloc_signal_descr(vorx_workspace* wsp, const vorx_registration_data* reg) {
  if (!is_thread(wsp)) return;  // the global workspace has no thread whose signals it could hold
  vorx_u32_t size = (conf() && conf()->use_signal_stack && cpu_sampling_on()) ? kSignalStackSize : 0;
  VORX_ASSERT(wsp->signal_descr == ((void *)0));
  bool safe = is_replacing_altstack_safe ? is_replacing_altstack_safe() != 0 : false;
  vorx_u32_t result = vorx_alloc_signal_descr(&wsp->signal_descr, size, size, reg ? reg->sigmask : nullptr, safe);
  if (result == kSignalStackTooSmall) vorx_report(vorx_msg_sigaltstack_too_small);
}

/* The process's units, which threads share without per-thread files, or when their own can't be made. */
void borrow_process_units(vorx_workspace* wsp) {
  void* global = nullptr;
  vorx_u32_t locked = vorx_thread_manager_lock_global(g_vorx_thread_manager, &global);
  VORX_ASSERT_MSG(locked == vorx_thread_manager_op_err_ok, "global_locked == %d", (int)locked);
  wsp->master_tmu = W(global)->master_tmu;
  wsp->aux_tmu = W(global)->aux_tmu;
  vorx_thread_manager_unlock_global(g_vorx_thread_manager);
}

bool is_process_unit(const vorx_tmu_t* unit) {
  void* global = g_vorx_thread_manager ? __atomic_load_n(&g_vorx_thread_manager->global, __ATOMIC_ACQUIRE) : nullptr;
  if ((uintptr_t)global <= vorx_tsd_glob_ma_eof) return false;
  return unit == W(global)->master_tmu || unit == W(global)->aux_tmu;
}

/* Steps shared by the first and the second construction. */
void construct_common(vorx_workspace* wsp, const vorx_registration_data* reg) {
  if (reg) {
    wsp->thread = reg->handle;
    wsp->registration_kind = reg->reg_type;
  }
  wsp->thread_start_pending = true;
  wsp->stack_state_1 = wsp->stack_state_2 = 2;
  wsp->incomplete_wait = nullptr;
  wsp->wrapper_flag = true;
  wsp->master_tmu = wsp->aux_tmu = nullptr;
  wsp->cpu_prof_desc = nullptr;
}

void make_process_units(vorx_workspace* wsp) {
  vorx_init_per_process_tmu(false, &wsp->master_tmu);
  vorx_init_per_process_tmu(true, &wsp->aux_tmu);
  VORX_ASSERT(wsp->master_tmu != ((void *)0));
  VORX_ASSERT(wsp->aux_tmu != ((void *)0));
  ring_mode_if_configured(wsp->aux_tmu);
}

/* What recycling and freeing both do first. */
void tear_down_common(vorx_workspace* wsp, void* complete_data) {
  vorx_discard_per_thread_tmu(&wsp->master_tmu);
  vorx_discard_per_thread_tmu(&wsp->aux_tmu);
  if (wsp->stack_desc && vorx_free_stack_descriptor) vorx_free_stack_descriptor(wsp->stack_desc);
  wsp->stack_desc = nullptr;
  if (wsp->cpu_prof_desc && vorx_free_cpu_profiling_descriptor) vorx_free_cpu_profiling_descriptor(wsp->cpu_prof_desc);
  wsp->cpu_prof_desc = nullptr;
  if (wsp->signal_descr) {
    if (complete_data && vorx_signal_descr_save_complete_data)
      vorx_signal_descr_save_complete_data(wsp->signal_descr, complete_data);
    vorx_free_signal_descr(wsp->signal_descr);
    wsp->signal_descr = nullptr;
  }
}

/* Signal side of enter: hold the collector's signals back with one store. */
void block_fast_mask(vorx_workspace* wsp, vorx_runtime_state* state) {
  state->mask = vorx_bs_unblocked;
  if (!wsp->signal_descr) return;
  wsp->signal_descr->set_first_class_fast_mask(wsp->signal_descr, vorx_bs_blocked, &state->mask, nullptr);
}

void restore_fast_mask(vorx_workspace* wsp, vorx_runtime_state* state) {
  if (wsp->signal_descr) wsp->signal_descr->set_first_class_fast_mask(wsp->signal_descr, state->mask, nullptr, nullptr);
}

}  // namespace

extern "C" {

/* ---- construction ---------------------------------------------------------- */

vorx_u32_t vorx_alloc_workspace(vorx_ts_desc_t* owner, void* block, void* registration) {
  VORX_ASSERT(block != ((void *)0));
  vorx_workspace* wsp = W(block);
  auto* reg = static_cast<const vorx_registration_data*>(registration);
  construct_common(wsp, reg);
  wsp->stack_desc = nullptr;
  if (is_thread(wsp)) {
    if (vorx_alloc_cpu_profiling_descriptor) wsp->cpu_prof_desc = vorx_alloc_cpu_profiling_descriptor(owner, wsp->thread);
    if (vorx_alloc_filtering_data) wsp->filtering_data = vorx_alloc_filtering_data();
    if (conf() && vorx_conf_has_collection(conf(), vorx_cl_projection) && vorx_projection_alloc_thread_data)
      wsp->projection_data = vorx_projection_alloc_thread_data(wsp->thread);
  } else {
    if (vorx_alloc_stack_descriptor) wsp->stack_desc = vorx_alloc_stack_descriptor(0, &wsp->xstack);
    make_process_units(wsp);
  }
  vorx_mmap_buffer_init(&wsp->scratch_buffer_1, 0);
  vorx_mmap_buffer_init(&wsp->scratch_buffer_2, 0);
  if (is_thread(wsp)) {
    wsp->fd_vector.capacity = kFdVectorInitial;
    wsp->fd_vector.entries = static_cast<vorx_u32_t*>(malloc(kFdVectorInitial * sizeof(vorx_u32_t)));
    VORX_ASSERT(wsp->fd_vector.entries != ((void *)0));
    wsp->stracing_state = 0;
  }
  alloc_signal_descr(wsp, reg);
  init_xstack(&wsp->xstack);
  wsp->runtime_level = vorx_le_in_runtime;
  wsp->alternative_stack_buffer = nullptr;
  wsp->alternative_stack_size = 0;
  if (no_libc_runtime()) {
    wsp->alternative_stack_buffer = vorx_alloc_stack_with_guard_page(kAlternativeStackSize, &wsp->alternative_stack_size);
    VORX_ASSERT(wsp->alternative_stack_buffer != ((void *)0));
  }
  return vorx_er_success;
}

vorx_u32_t vorx_init_workspace(vorx_ts_desc_t* owner, void* block, void* registration) {
  VORX_ASSERT(block != ((void *)0));
  vorx_workspace* wsp = W(block);
  auto* reg = static_cast<const vorx_registration_data*>(registration);
  construct_common(wsp, reg);
  if (is_thread(wsp)) {
    if (vorx_alloc_cpu_profiling_descriptor) wsp->cpu_prof_desc = vorx_alloc_cpu_profiling_descriptor(owner, wsp->thread);
    if (wsp->projection_data && vorx_projection_reset_thread_data) vorx_projection_reset_thread_data(wsp->projection_data);
    if (wsp->filtering_data && vorx_reset_filtering_data) vorx_reset_filtering_data(wsp->filtering_data);
  } else {
    if (wsp->stack_desc && vorx_init_stack_descriptor) vorx_init_stack_descriptor(wsp->stack_desc, &wsp->xstack);
    make_process_units(wsp);
  }
  alloc_signal_descr(wsp, reg);
  wsp->xstack.pointer = nullptr; /* only the first word: the rest belongs to the walker */
  wsp->runtime_level = vorx_le_in_runtime;
  return vorx_er_success;
}

vorx_u32_t vorx_recycle_workspace(void* block, void* complete_data) {
  vorx_workspace* wsp = W(block);
  tear_down_common(wsp, complete_data);
  if (is_thread(wsp)) wsp->stracing_state = 0;
  return vorx_er_success;
}

vorx_u32_t vorx_free_workspace(void* block, void* arg) {
  vorx_workspace* wsp = W(block);
  tear_down_common(wsp, arg);
  if (wsp->filtering_data && vorx_free_filtering_data) vorx_free_filtering_data(wsp->filtering_data);
  wsp->filtering_data = nullptr;
  if (wsp->projection_data && vorx_projection_free_thread_data) vorx_projection_free_thread_data(wsp->projection_data);
  wsp->projection_data = nullptr;
  if (wsp->scratch_buffer_1.release) wsp->scratch_buffer_1.release(&wsp->scratch_buffer_1);
  if (wsp->scratch_buffer_2.release) wsp->scratch_buffer_2.release(&wsp->scratch_buffer_2);
  if (is_thread(wsp)) {
    free(wsp->fd_vector.entries);
    wsp->fd_vector.entries = nullptr;
    wsp->fd_vector.capacity = 0;
  }
  if (wsp->alternative_stack_buffer)
    vorx_free_stack_with_guard_page(wsp->alternative_stack_buffer, wsp->alternative_stack_size);
  wsp->alternative_stack_buffer = nullptr;
  return vorx_er_success;
}

vorx_u32_t vorx_alloc_global(void* block, void*) { return vorx_alloc_workspace(nullptr, block, nullptr); }
vorx_u32_t vorx_free_global(void* block, void*) { return vorx_free_workspace(block, nullptr); }

/* ---- thread life ------------------------------------------------------------- */

vorx_u32_t vorx_resume_thread(void* block, void* registration) {
  vorx_workspace* wsp = W(block);
  auto* reg = static_cast<const vorx_registration_data*>(registration);
  VORX_ASSERT(wsp->stack_desc == ((void *)0));
  if (vorx_alloc_stack_descriptor) wsp->stack_desc = vorx_alloc_stack_descriptor(wsp->thread, &wsp->xstack);
  if (reg) {
    VORX_ASSERT((reg->reg_type > vorx_th_reg_unknown && reg->reg_type < vorx_th_reg_eof));
    wsp->registration_kind = reg->reg_type;
  }
  cpu_prof(wsp, true);
  wsp->runtime_level = vorx_le_in_application;
  __atomic_add_fetch(&g_vorx_attach_pend_requests, 1, __ATOMIC_ACQ_REL);
  return vorx_er_success;
}

vorx_u32_t vorx_suspend_thread(void* block, void*) {
  cpu_prof(W(block), false);
  __atomic_sub_fetch(&g_vorx_attach_pend_requests, 1, __ATOMIC_ACQ_REL);
  return vorx_er_success;
}

vorx_u32_t vorx_attach_thread(void* block, void*) {
  vorx_workspace* wsp = W(block);
  bool own_units = false;
  if (per_thread_files()) {
    /* One scratch string each: an allocator holds a single block. */
    sal_allocator master_name = SAL_ALLOCATOR_INITIALIZER(sal_allocator_type_heap);
    sal_allocator aux_name = SAL_ALLOCATOR_INITIALIZER(sal_allocator_type_heap);
    own_units = vorx_init_per_thread_tmu(wsp->thread, false, &master_name, &wsp->master_tmu) &&
                vorx_init_per_thread_tmu(wsp->thread, true, &aux_name, &wsp->aux_tmu);
    if (own_units) ring_mode_if_configured(wsp->aux_tmu);
    if (own_units && conf()->stracing && vorx_start_stracing) {
      master_name.vtbl->destroy(&master_name);
      char* name = nullptr;
      vorx_generate_thread_trace_filename("strace", wsp->thread, &master_name, &name);
      vorx_start_stracing(name, wsp->thread, &wsp->stracing_state);
    }
    master_name.vtbl->destroy(&master_name);
    aux_name.vtbl->destroy(&aux_name);
    // Short of memory for the thread's own units: its records go into its process's trace.
    if (!own_units) VORX_LOG(vorx_log_level_warning, "thread %u writes into its process's trace", wsp->thread);
  }
  if (!own_units) {
    vorx_discard_per_thread_tmu(&wsp->master_tmu);
    vorx_discard_per_thread_tmu(&wsp->aux_tmu);
    borrow_process_units(wsp);
  }
  if (vorx_put_initial_thread_records) vorx_put_initial_thread_records(wsp);
  if (cpu_sampling_on() && vorx_generate_sample_record) vorx_generate_sample_record(wsp, nullptr, nullptr);
  if (wsp->registration_kind == vorx_th_reg_running) {
    vorx_address_t start = 0;
    vorx_er_t found = sal_get_thread_start_addr(wsp->thread, &start);
    VORX_ASSERT(found == vorx_er_success);
    if (vorx_simulate_thread_start_routine_wrapper_pre) vorx_simulate_thread_start_routine_wrapper_pre(wsp, start);
    wsp->thread_start_pending = false;
  } else {
    VORX_ASSERT(wsp->registration_kind == vorx_th_reg_self);
  }
  __atomic_sub_fetch(&g_vorx_attach_pend_requests, 1, __ATOMIC_ACQ_REL);
  return vorx_er_success;
}

vorx_u32_t vorx_detach_thread(vorx_ts_desc_t*, void* block, void*) {
  vorx_workspace* wsp = W(block);
  VORX_LOG(vorx_log_level_trace, "vorx_detach_thread(): call ...");
  if (vorx_flush_incomplete_wait) vorx_flush_incomplete_wait(wsp);
  cpu_prof(wsp, false);
  if (put_thread_name_record) put_thread_name_record(wsp);
  if (put_old_thread_record) put_old_thread_record(wsp);
  if (per_thread_files()) {
    if (wsp->master_tmu) wsp->master_tmu->spill(wsp->master_tmu);
    if (wsp->aux_tmu) wsp->aux_tmu->spill(wsp->aux_tmu);
    if (conf()->stracing && vorx_stop_stracing) vorx_stop_stracing(&wsp->stracing_state);
  }
  return vorx_thread_manager_op_err_ok;
}

vorx_u32_t vorx_enable_workspace_threads(vorx_tls_key_t key, vorx_u32_t block_size, vorx_u32_t cache_limit) {
  vorx_thread_manager_options_t options = {};
  options.key = key;
  options.data_size = block_size;
  options.cache_limit = cache_limit;
  options.alloc = vorx_alloc_workspace;
  options.init = vorx_init_workspace;
  options.recycle = vorx_recycle_workspace;
  options.free = vorx_free_workspace;
  options.resume = vorx_resume_thread;
  options.suspend = vorx_suspend_thread;
  options.attach = vorx_attach_thread;
  options.detach = vorx_detach_thread;
  options.mirror_slots = g_vorx_db_static_tls ? 1 : 0;
  return vorx_thread_manager_enable_threads(g_vorx_thread_manager, &options);
}

/* ---- trace units --------------------------------------------------------------- */

void vorx_init_per_process_tmu(bool aux, vorx_tmu_t** out) {
  sal_allocator names = SAL_ALLOCATOR_INITIALIZER(sal_allocator_type_heap);
  char* name = nullptr;
  vorx_er_t made = vorx_generate_process_trace_filename(aux ? "trace.aux" : "trace", "trace", &names, &name);
  VORX_ASSERT(made == vorx_er_success);
  make_unit(vorx_tmu_per_process, name, out);
  names.vtbl->destroy(&names);
}

bool vorx_init_per_thread_tmu(vorx_u32_t thread_id, bool aux, sal_allocator* allocator, vorx_tmu_t** out) {
  char* name = nullptr;
  vorx_er_t made = vorx_generate_thread_trace_filename(aux ? "th.aux" : "th", thread_id, allocator, &name);
  if (made != vorx_er_success) return false;
  make_unit(vorx_tmu_per_thread, name, out);
  return *out != nullptr;
}

void vorx_discard_per_thread_tmu(vorx_tmu_t** slot) {
  // A forked child forgets the parent's units: the parent writes them. Borrowed units stay the process's.
  if (*slot && !g_vorx_forked_child_reset && !is_process_unit(*slot))
    g_vorx_tmu_creator->free_unit(g_vorx_tmu_creator, *slot);
  *slot = nullptr;
}

vorx_tmu_t* vorx_global_process_tmu(void* global) { return global ? W(global)->master_tmu : nullptr; }

void vorx_fd_vector_realloc(vorx_fd_vector* fd_vector, vorx_u32_t new_size) {
  VORX_ASSERT(fd_vector != ((void *)0));
  if (new_size <= fd_vector->capacity) return;
  void* grown = realloc(fd_vector->entries, new_size * sizeof(vorx_u32_t));
  if (!grown) {
    vorx_report(vorx_msg_cannot_reallocate_fd_vector);
    vorx_crash();
  }
  VORX_LOG(vorx_log_level_trace, "reallocation fd_vector->vector %u -> %u", fd_vector->capacity, new_size);
  fd_vector->capacity = new_size;
  fd_vector->entries = static_cast<vorx_u32_t*>(grown);
}

uintptr_t vorx_get_alternative_probe_stack(void) {
  if (!no_libc_runtime()) return 0;
  vorx_ts_desc_t* key = nullptr;
  void* data = nullptr;
  vorx_u32_t entered = vorx_thread_manager_enter(g_vorx_thread_manager, &key, &data);
  if (entered != vorx_thread_manager_op_err_ok && entered != vorx_thread_manager_op_err_acquired) return 0;
  vorx_workspace* wsp = W(data);
  VORX_ASSERT(wsp != ((void *)0) && wsp->alternative_stack_buffer != ((void *)0));
  uintptr_t top = (uintptr_t)wsp->alternative_stack_buffer + wsp->alternative_stack_size;
  if (entered == vorx_thread_manager_op_err_ok) vorx_thread_manager_release(g_vorx_thread_manager, key);
  return top;
}

/* ---- entering and leaving the runtime ---------------------------------------- */

int vorx_app_errno(void) { return *applibc___errno_location(); }
void vorx_set_app_errno(int value) { *applibc___errno_location() = value; }

vorx_u32_t vorx_enter_runtime_and_store_errno_cond(vorx_runtime_state* state, vorx_ts_desc_t** out_key,
                                                   vorx_workspace** out_wsp, int* out_errno, bool with_errno) {
  int* app_errno = with_errno ? applibc___errno_location() : nullptr;
  if (app_errno) *out_errno = *app_errno;
  void* data = nullptr;
  vorx_u32_t entered = vorx_thread_manager_enter(g_vorx_thread_manager, out_key, &data);
  if (entered == vorx_thread_manager_op_err_ok) {
    vorx_workspace* wsp = W(data);
    *out_wsp = wsp;
    block_fast_mask(wsp, state);
    state->level = wsp->runtime_level;
    wsp->runtime_level = vorx_le_in_runtime;
    return entered;
  }
  VORX_ASSERT((entered == vorx_thread_manager_op_err_acquired ||
               entered == vorx_thread_manager_op_err_thread_not_found));
  *out_wsp = entered == vorx_thread_manager_op_err_acquired ? W(data) : nullptr;
  /* Nothing was entered and no leave follows: whatever the lookup did, the
   * application finds its errno as it was. */
  if (app_errno) *app_errno = *out_errno;
  return entered;
}

void vorx_leave_runtime_and_restore_errno_cond(vorx_ts_desc_t* key, vorx_workspace* wsp, vorx_runtime_state* state,
                                               int errno_value, bool with_errno) {
  restore_fast_mask(wsp, state);
  wsp->runtime_level = state->level;
  vorx_thread_manager_release(g_vorx_thread_manager, key);
  if (with_errno) *applibc___errno_location() = errno_value;
  // after the release: a handler of the application may never return
  if (vorx_signal_descr_has_deferred(wsp->signal_descr)) vorx_complete_deferred_signals(wsp->signal_descr);
}

vorx_u32_t vorx_enter_runtime_and_store_errno(vorx_runtime_state* state, vorx_ts_desc_t** out_key,
                                              vorx_workspace** out_wsp, int* out_errno) {
  return vorx_enter_runtime_and_store_errno_cond(state, out_key, out_wsp, out_errno, true);
}

void vorx_leave_runtime_and_restore_errno(vorx_ts_desc_t* key, vorx_workspace* wsp, vorx_runtime_state* state,
                                          int errno_value) {
  vorx_leave_runtime_and_restore_errno_cond(key, wsp, state, errno_value, true);
}

}  // extern "C"
