/* Per-thread filtering data, waits in flight and the object table of the heap.
 *
 * Wrappers and callbacks keep here what outlives one call: the objects a
 * thread waits on (so that another thread's release can tell it that it was
 * contended), the user-sync slots that __ozk_sync_prepare opens, the heap
 * annotation nesting, and the time of the thread's newest wait. The block is
 * owned by its thread; other threads read it only while the thread manager's
 * iteration holds the owner, and user_sync.objects changes by atomic exchange. */
#ifndef VORX_EVENT_FILTERING_H
#define VORX_EVENT_FILTERING_H

#include <stdint.h>

#include "thread_manager.h"
#include "vorx_config.h"
#include "vorx_probe_params.h"
#include "workspace.h"

#ifdef __cplusplus
extern "C" {
#endif

#define VORX_SYNC_SLOTS 64u

typedef struct vorx_filtering_data vorx_filtering_data;

typedef struct vorx_sys_sync {
  vorx_u32_t objects[VORX_SYNC_SLOTS]; /* addresses of the objects the thread waits on */
  vorx_u8_t contended[VORX_SYNC_SLOTS];
  vorx_u32_t count;
} vorx_sys_sync;

typedef struct vorx_user_sync {
  volatile vorx_u32_t objects[VORX_SYNC_SLOTS]; /* exchanged atomically: releasers read them */
  vorx_u8_t stored[VORX_SYNC_SLOTS];
  vorx_u8_t contended[VORX_SYNC_SLOTS];
  vorx_probe_data_t waits[VORX_SYNC_SLOTS];
  vorx_u32_t paused[VORX_SYNC_SLOTS];
  vorx_s32_t nested_calls_count; /* __ozk_sync_prepare calls without their end */
} vorx_user_sync;

typedef struct vorx_contention_request {
  vorx_u32_t object;
  vorx_u32_t requester_tid;
  vorx_u32_t found;
  uint64_t found_wait_start;
} vorx_contention_request;

struct vorx_filtering_data {
  void (*reset)(vorx_filtering_data* data);
  void (*destroy)(vorx_filtering_data* data);
  vorx_sys_sync sys_sync;
  vorx_user_sync user_sync;
  vorx_u32_t user_heap; /* __ozk_heap_*_begin without their end */
  volatile vorx_u8_t wait_in_progress;
  vorx_contention_request request;
  uint64_t last_wait_start;
  vorx_u32_t block_counter; /* > 0 while the thread's annotations are blocked */
};

/* The workspace's block (hooks of the workspace's life). */
void* vorx_alloc_filtering_data(void);
void vorx_reset_filtering_data(void* data);
void vorx_free_filtering_data(void* data);

/* What the wrappers call (see vorx_wrapper_glue.h). */
void vorx_filtering_set_wait_time(void* filtering_data, uint64_t time);
void vorx_filtering_push_sync(void* filtering_data, void* object);
int vorx_filtering_contended(void* filtering_data);
void vorx_filtering_clear_sync(void* filtering_data);
uint32_t vorx_filtering_user_heap_nesting(void* filtering_data);
/* 0 while no thread has a lock object in its block: a release then has no waiter to find. */
int vorx_sync_waiters_possible(void);
extern vorx_u32_t g_vorx_sync_waiters; /* the count behind it, for the wrappers' quick path */
/* __ozk_sync_prepare keeps its wait (the probe data of the call) in a free slot of the thread; the close
 * (acquired or cancel) takes it out and gives the open's time in *enter_time, which it leaves alone for an
 * object without a slot. */
void vorx_user_sync_open(void* wsp, const vorx_probe_data_t* data, void* object);
void vorx_user_sync_close(void* wsp, void* object, uint64_t* enter_time);
/* Looks through every thread for one that waits on `object` (user-sync slots when user_sync is 1);
 * marks it contended and gives the start of its wait in *since. 1 found, 0 not. */
int vorx_find_sync_waiter(vorx_ts_desc_t* key, void* filtering_data, void* object, int user_sync, uint64_t* since);

/* Thread-manager walk callbacks; `request` is the releaser's vorx_contention_request. Both answer 7. */
vorx_u32_t vorx_sys_sync_contention_callback(vorx_ts_desc_t* thread, void* wsp, void* request);
vorx_u32_t vorx_user_sync_contention_callback(vorx_ts_desc_t* thread, void* wsp, void* request);

/* Thread-manager enumeration callbacks of a state change: waits in flight of a resumed thread are
 * reported in the resumed entry; with CPU sampling a boundary sample closes each thread's stream. */
vorx_u32_t vorx_resume_callback(vorx_ts_desc_t* thread, void* wsp, void* data);
vorx_u32_t vorx_pause_callback(vorx_ts_desc_t* thread, void* wsp, void* data);
void vorx_put_boundary_paused_sample(vorx_workspace* wsp);

/* Waits in flight. */
int vorx_is_runtime_in_nested_original(vorx_probe_data_t* wait, uint32_t probe_id, void* filtering_data);
int vorx_update_nested_probe_params(vorx_probe_data_t* data, vorx_probe_data_t* incomplete_wait);
int vorx_update_parent_probe_params(void);
void vorx_start_contention_on_sample(vorx_workspace* wsp);
void vorx_mark_paused_waits_to_be_stored(vorx_workspace* wsp);
/* Sets leave_time to now and runs the post entries of the directory for data. */
void vorx_exec_post_callbacks(vorx_workspace* wsp, vorx_probe_data_t* data);
void vorx_flush_incomplete_wait(vorx_workspace* wsp);
/* 1 if at least one open __ozk_sync_prepare was closed as cancelled, else 2. */
vorx_u32_t vorx_flush_incomplete_user_waits(vorx_workspace* wsp);

/* The object table of the heap kind: null unless memory_size_threshold >= 2. */
extern void* g_vorx_mem_obj_htable;
vorx_u32_t vorx_mem_obj_htable_init(const vorx_configuration* conf, void** out_table);
void vorx_mem_obj_htable_fini(void* table);
int vorx_mem_obj_htable_insert(void* table, const vorx_configuration* conf, uint64_t size, void* address);
int vorx_mem_obj_htable_delete(void* table, void* address);
/* Takes the table out of use at the collection's end; its memory goes at the next retire. */
void vorx_mem_obj_htable_retire(void);

#ifdef __cplusplus
}
#endif

#endif
