/* Per-thread workspaces and runtime levels.
 *
 * Every thread the collector knows has one workspace: the private block that
 * the thread manager keeps for it, through which wrappers, samplers and stack
 * walkers reach everything per-thread. One more, the global workspace, has no
 * thread and owns the process's trace units.
 *
 * A thread enters the runtime with vorx_enter_runtime_and_store_errno and
 * leaves it with vorx_leave_runtime_and_restore_errno: the application's errno
 * is saved first and put back last, whatever happens in between; the levels
 * form a stack on the thread's own stack, one saved word per enter. */
#ifndef VORX_WORKSPACE_H
#define VORX_WORKSPACE_H

#include <stdbool.h>
#include <stdint.h>

#include "sal_allocator.h"
#include "thread_manager.h"
#include "vorx_buffer.h"
#include "vorx_tmu.h"
#include "vorx_types.h"

#ifdef __cplusplus
extern "C" {
#endif

/* Where a thread's execution is. */
typedef enum vorx_runtime_level {
  vorx_le_in_runtime = 1,     /* collector code: wrappers reached now pass through */
  vorx_le_in_original = 2,    /* an original called by a wrapper */
  vorx_le_in_application = 3, /* application code: wrappers do their work */
  vorx_le_eof
} vorx_runtime_level_t;

/* How a thread became known (registration data's reg_type). */
typedef enum vorx_th_reg {
  vorx_th_reg_unknown = 0,
  vorx_th_reg_self = 1,     /* born under the collector, registered itself */
  vorx_th_reg_running = 2,  /* found running at attach, registered on its behalf */
  vorx_th_reg_eof = 3
} vorx_th_reg_t;

/* What the registering party hands to vorx_thread_manager_register. */
typedef struct vorx_registration_data {
  vorx_u32_t handle;   /* the kernel tid */
  vorx_u32_t reg_type; /* vorx_th_reg_* */
  void* sigmask;       /* the mask the thread inherits in the application's eyes (128 bytes) */
} vorx_registration_data;

typedef struct vorx_fd_vector {
  vorx_u32_t capacity; /* entries of 32 bits */
  vorx_u32_t* entries;
} vorx_fd_vector;

/* The context stack record of the stack walker. */
typedef struct vorx_xstack {
  void* pointer;
  vorx_u32_t word;
  vorx_u32_t limit; /* 0xFFFFFFFF at allocation */
  vorx_u32_t flag;
} vorx_xstack;

struct vorx_signal_descr;

typedef struct vorx_workspace {
  vorx_u32_t thread;               /* the thread's id; 0 in the global workspace */
  void* stack_desc;                /* stack walking state (owned) */
  void* cpu_prof_desc;             /* CPU profiling descriptor (owned); null in the global one */
  vorx_tmu_t* master_tmu;          /* where records go */
  vorx_tmu_t* aux_tmu;             /* auxiliary records, ring mode when configured */
  void* filtering_data;            /* event filtering state (owned) */
  struct vorx_signal_descr* signal_descr; /* per-thread signal descriptor (owned) */
  void* projection_data;           /* projection manager's thread object, or null */
  vorx_u32_t registration_kind;    /* vorx_th_reg_self or vorx_th_reg_running */
  bool thread_start_pending;       /* until the start wrapper or its simulation ran */
  vorx_mmap_buffer scratch_buffer_1;
  vorx_mmap_buffer scratch_buffer_2;
  vorx_fd_vector fd_vector;        /* thread workspaces only */
  vorx_u32_t stracing_state;
  volatile vorx_u32_t runtime_level; /* vorx_le_* ; 1 after allocation */
  vorx_u32_t stack_state_1;
  vorx_u32_t stack_state_2;
  void* incomplete_wait;           /* top of the thread's waits in flight */
  bool wrapper_flag;
  vorx_xstack xstack;
  void* alternative_stack_buffer;  /* only without a libc runtime: 128 KB with a guard page */
  vorx_u32_t alternative_stack_size;
} vorx_workspace;

/* What a caller keeps on its stack between enter and leave. */
typedef struct vorx_runtime_state {
  vorx_u32_t level; /* the runtime level to restore */
  vorx_u32_t spare;
  vorx_u32_t mask;  /* the signal descriptor's saved fast mask */
} vorx_runtime_state;

/* Threads between attach_in_progress and in_profiling; detach waits for 0. */
extern volatile vorx_u32_t g_vorx_attach_pend_requests;

/* The thread manager's block callbacks. `registration` is null for the global workspace. */
vorx_u32_t vorx_alloc_workspace(vorx_ts_desc_t* owner, void* wsp, void* registration);
vorx_u32_t vorx_init_workspace(vorx_ts_desc_t* owner, void* wsp, void* registration);
vorx_u32_t vorx_recycle_workspace(void* wsp, void* complete_data);
vorx_u32_t vorx_free_workspace(void* wsp, void* arg);
vorx_u32_t vorx_alloc_global(void* wsp, void* arg);
vorx_u32_t vorx_free_global(void* wsp, void* arg);

/* The thread manager's state callbacks. */
vorx_u32_t vorx_resume_thread(void* wsp, void* registration);
vorx_u32_t vorx_suspend_thread(void* wsp, void* arg);
vorx_u32_t vorx_attach_thread(void* wsp, void* arg);
vorx_u32_t vorx_detach_thread(vorx_ts_desc_t* desc, void* wsp, void* arg);

/* Enables the manager's threads with the workspace callbacks. */
vorx_u32_t vorx_enable_workspace_threads(vorx_tls_key_t key, vorx_u32_t block_size, vorx_u32_t cache_limit);

/* Trace units. */
void vorx_init_per_process_tmu(bool aux, vorx_tmu_t** out_tmu);
/* False when the unit can't be made (memory is short). */
bool vorx_init_per_thread_tmu(vorx_u32_t thread_id, bool aux, sal_allocator* allocator, vorx_tmu_t** out_tmu);
void vorx_discard_per_thread_tmu(vorx_tmu_t** tmu_slot);
/* The process's master unit, held by the global workspace. */
vorx_tmu_t* vorx_global_process_tmu(void* global);

void vorx_fd_vector_realloc(vorx_fd_vector* fd_vector, vorx_u32_t new_size);
/* Top of the thread's alternative probe stack, or 0. */
uintptr_t vorx_get_alternative_probe_stack(void);

/* Entering and leaving the runtime. `ok` is paired with a leave; `acquired`
 * and `thread_not_found` must not be (errno is already back then). */
vorx_u32_t vorx_enter_runtime_and_store_errno(vorx_runtime_state* state, vorx_ts_desc_t** out_key,
                                              vorx_workspace** out_wsp, int* out_errno);
void vorx_leave_runtime_and_restore_errno(vorx_ts_desc_t* key, vorx_workspace* wsp, vorx_runtime_state* state,
                                          int errno_value);
/* The same with errno touched only when `with_errno` (false where the target has no libc). */
vorx_u32_t vorx_enter_runtime_and_store_errno_cond(vorx_runtime_state* state, vorx_ts_desc_t** out_key,
                                                   vorx_workspace** out_wsp, int* out_errno, bool with_errno);
void vorx_leave_runtime_and_restore_errno_cond(vorx_ts_desc_t* key, vorx_workspace* wsp,
                                               vorx_runtime_state* state, int errno_value, bool with_errno);

/* The application's errno, through its own library. */
int vorx_app_errno(void);
void vorx_set_app_errno(int value);

#ifdef __cplusplus
}
#endif

#endif
