// Everything the probe wrappers need from the rest of the collector, in one place.
//
// wrapper_template.h calls only vorx::glue; this file maps those calls onto the collector's own names:
// the thread manager (enter/release), the workspace (runtime level, incomplete waits, filtering data), the
// signal descriptor's fast mask and binder, the time source, the configuration's thresholds, the callback
// directory, the object table of the heap kind and the thin members' helpers. When one of those headers
// changes, this is the file to adjust. Names that have no header in the tree yet are declared here with the
// signatures that their owners publish.
#pragma once
#include <stdint.h>
#include <sys/socket.h>
#include <sys/time.h>

#include "event_records.h"
#include "sal.h"
#include "thread_manager.h"
#include "vorx_config.h"
#include "vorx_deepbind.h"
#include "vorx_htable.h"
#include "vorx_init.h"
#include "vorx_log.h"
#include "vorx_timesource.h"
#include "signal_manager.h"
#include "workspace.h"

extern "C" {
// nested calls and waits
int vorx_is_runtime_in_nested_original(vorx_probe_data_t* wait, uint32_t probe_id, void* filtering_data);
int vorx_update_nested_probe_params(vorx_probe_data_t* data, vorx_probe_data_t* incomplete_wait);
int vorx_update_parent_probe_params(void);
void vorx_incomplete_wait_cleanup_handler(void* wsp);
// contention: the object list of the filter and the search for waiters
void vorx_filtering_set_wait_time(void* filtering_data, uint64_t time);
void vorx_filtering_push_sync(void* filtering_data, void* object);
int vorx_filtering_contended(void* filtering_data);
void vorx_filtering_clear_sync(void* filtering_data);
uint32_t vorx_filtering_user_heap_nesting(void* filtering_data);
extern uint32_t g_vorx_sync_waiters;  // threads with a lock object in their block; read inline below
void vorx_user_sync_open(void* wsp, const vorx_probe_data_t* data, void* object);
void vorx_user_sync_close(void* wsp, void* object, uint64_t* enter_time);
int vorx_find_sync_waiter(vorx_ts_desc_t* key, void* filtering_data, void* object, int user_sync, uint64_t* since);
// heap kind
extern void* g_vorx_mem_obj_htable;
int vorx_mem_obj_htable_insert(void* table, const vorx_configuration* conf, uint64_t size, void* address);
int vorx_mem_obj_htable_delete(void* table, void* address);
// thin members
void vorx_detach_runtime(void);
void vorx_stop_notification_service(void);
const char* vorx_env_getenv(const char* name);
int vorx_ozk_api_handover(void* api_table);
}

#define VORX_WRAPPER_ASSERT(cond) VORX_ASSERT(cond)

namespace vorx::glue {

using key_t = vorx_ts_desc_t*;
using wsp_t = struct vorx_workspace;
using mask_t = uint32_t;
constexpr unsigned context_size = 512;
constexpr unsigned cleanup_buffer_size = 32;

enum class enter_result { ok, acquired, not_found, closed, other };

inline bool rtl_initialized() { return g_vorx_is_rtl_initialized != 0; }
inline int* errno_location() { return vorx_app_errno_location(); }

inline enter_result enter(key_t& key, wsp_t*& wsp) {
    void* data = nullptr;
    switch (vorx_thread_manager_enter_quick(g_vorx_thread_manager, &key, &data)) {
        case vorx_thread_manager_op_err_ok: wsp = static_cast<wsp_t*>(data); return enter_result::ok;
        case vorx_thread_manager_op_err_acquired: return enter_result::acquired;
        case vorx_thread_manager_op_err_thread_not_found: return enter_result::not_found;
        case vorx_thread_manager_op_err_closed: return enter_result::closed;
        default: return enter_result::other;
    }
}
inline void release(key_t key) { vorx_thread_manager_release(g_vorx_thread_manager, key); }

// The collector's signals need no step of their own on entering: holding the descriptor is what makes a
// signal wait (the handler finds the thread inside and queues it), so the fast mask stays as it is.
inline void block_signals(wsp_t*, mask_t& saved) { saved = vorx_bs_unblocked; }
inline bool unblock_signals(key_t&, wsp_t*&, mask_t) { return true; }
// After the release: what came while the thread was inside.
inline void complete_deferred_signals(wsp_t* wsp) {
    vorx_signal_descr* d = wsp->signal_descr;
    if (__builtin_expect(vorx_signal_descr_has_deferred(d), 0)) vorx_complete_deferred_signals(d);
}

inline volatile vorx_u32_t& runtime_level(wsp_t* wsp) { return wsp->runtime_level; }
inline vorx_probe_data_t*& incomplete_wait(wsp_t* wsp) {
    return reinterpret_cast<vorx_probe_data_t*&>(wsp->incomplete_wait);
}
inline void get_context(void* buffer) { sal_get_context(buffer); }
// Forced inline: link-time folding merges this with other one-line readers of the clock into a function of
// its own, and every record would pay one more call for it.
[[gnu::always_inline]] inline unsigned long long now() { return vorx_timesource()->now(); }
inline void gettimeofday(struct timeval* tv) { ::gettimeofday(tv, nullptr); }

inline unsigned conf_state() { return g_vorx_conf->state; }
inline bool offline_stack_walk() { return g_vorx_conf->offline_stack_walk != 0; }
inline uint64_t wait_threshold() { return g_vorx_conf->sync_thresholds[vorx_sth_wait].threshold; }
inline uint64_t short_wait_threshold() { return g_vorx_conf->sync_thresholds[vorx_sth_short_wait].threshold; }
inline uint64_t stack_threshold() { return g_vorx_conf->sync_thresholds[vorx_sth_stack].threshold; }
inline bool contention_filter_on() {
    return (g_vorx_conf->sync_thresholds[vorx_sth_contention_filter].threshold & 0xFF) != 0;
}
inline uint64_t memory_size_threshold() { return g_vorx_conf->memory_size_threshold; }
inline bool profile_process() { return g_vorx_conf->profile_process; }
inline bool cpu_collection() { return vorx_conf_has_collection(g_vorx_conf, vorx_cl_cpu); }

inline void* head_trampoline(unsigned id) { return vorx_head_row(id)->trampoline; }
inline bool conf_has_cpu() { return vorx_conf_has_collection(g_vorx_conf, vorx_cl_cpu); }

inline void run_callbacks(unsigned index, wsp_t* wsp, vorx_probe_data_t* data) {
    VORX_ASSERT(index < VORX_CALLBACK_ENTRIES);
    vorx_run_callbacks(index, wsp, data);
}
inline bool has_callbacks(unsigned index) { return vorx_directory_has_callbacks(index) != 0; }
// Where plain_records(index) holds: its one callback, called without the walk over the tables.
inline void run_plain_record(unsigned index, wsp_t* wsp, vorx_probe_data_t* data) {
    vorx_run_plain_record(index, wsp, data);
}
// Every callback at index is a plain record: it reads the parameters, the times and the state, nothing else.
inline bool plain_records(unsigned index) { return vorx_directory_plain_records(index) != 0; }
// Only plain records before the call and nothing after it.
inline bool records_only(unsigned pre_index, unsigned post_index) {
    return plain_records(pre_index) && !has_callbacks(post_index);
}
inline int update_parent_probe_params() { return vorx_update_parent_probe_params(); }
inline void update_nested_probe_params(vorx_probe_data_t* d, vorx_probe_data_t* w) {
    vorx_update_nested_probe_params(d, w);
}
inline void is_runtime_in_nested_original(vorx_probe_data_t* wait, unsigned id, wsp_t* wsp) {
    vorx_is_runtime_in_nested_original(wait, id, wsp->filtering_data);
}
inline bool internal_signal_arrived(wsp_t* wsp) { return vorx_signal_internal_arrived(wsp->signal_descr); }
inline void clear_internal_signal(wsp_t* wsp) { vorx_signal_clear_internal_arrived(wsp->signal_descr); }

constexpr auto incomplete_wait_cleanup_handler = &vorx_incomplete_wait_cleanup_handler;
inline void set_wait_time(wsp_t* wsp, uint64_t t) { vorx_filtering_set_wait_time(wsp->filtering_data, t); }
inline void push_sync(wsp_t* wsp, void* object) { vorx_filtering_push_sync(wsp->filtering_data, object); }
inline bool contended(wsp_t* wsp) { return vorx_filtering_contended(wsp->filtering_data) != 0; }
inline void clear_sync(wsp_t* wsp) { vorx_filtering_clear_sync(wsp->filtering_data); }
inline unsigned user_heap_nesting(wsp_t* wsp) { return vorx_filtering_user_heap_nesting(wsp->filtering_data); }
inline void user_sync_open(wsp_t* wsp, const vorx_probe_data_t* data, void* object) {
    vorx_user_sync_open(wsp, data, object);
}
inline void user_sync_close(wsp_t* wsp, void* object, uint64_t* enter_time) {
    vorx_user_sync_close(wsp, object, enter_time);
}
inline bool sync_waiters_possible() { return __atomic_load_n(&g_vorx_sync_waiters, __ATOMIC_ACQUIRE) != 0; }
inline bool find_waiter(key_t key, wsp_t* wsp, void* object, bool user, unsigned long long* since) {
    return vorx_find_sync_waiter(key, wsp->filtering_data, object, user ? 1 : 0, (uint64_t*)since) != 0;
}

inline unsigned long long round_to_pages(unsigned long long size) {
    unsigned long long page = sal_get_page_size();
    VORX_ASSERT(page != 0);
    return (size + page - 1) / page * page;
}
inline bool heap_insert(unsigned long long size, void* block) {
    return vorx_mem_obj_htable_insert(g_vorx_mem_obj_htable, g_vorx_conf, size, block) != 0;
}
inline void* heap_table() { return __atomic_load_n(&g_vorx_mem_obj_htable, __ATOMIC_ACQUIRE); }
inline bool heap_known(void* table, void* block) {
    return block && vorx_htable_contains(static_cast<const vorx_htable*>(table), (uint32_t)(uintptr_t)block);
}
inline bool heap_delete(void* block) { return vorx_mem_obj_htable_delete(g_vorx_mem_obj_htable, block) != 0; }

inline bool lock_global() {
    void* global = nullptr;
    return vorx_thread_manager_lock_global(g_vorx_thread_manager, &global) == vorx_thread_manager_op_err_ok;
}
inline void unlock_global() { vorx_thread_manager_unlock_global(g_vorx_thread_manager); }

inline void detach_runtime() { vorx_detach_runtime(); }
inline void stop_notification_service() { vorx_stop_notification_service(); }
inline void block_profiling_signal() { vorx_block_profiling_signal(); }
inline void unblock_profiling_signal() { vorx_unblock_profiling_signal(); }
inline const char* env_getenv(const char* name) { return vorx_env_getenv(name); }
inline int api_handover(void* api_table) { return vorx_ozk_api_handover(api_table); }

inline bool socket_receive_timeout(int fd, struct timeval* tv) {
    socklen_t len = sizeof *tv;
    return getsockopt(fd, SOL_SOCKET, SO_RCVTIMEO, tv, &len) == 0;
}
inline void set_socket_receive_timeout(int fd, const struct timeval* tv) {
    setsockopt(fd, SOL_SOCKET, SO_RCVTIMEO, tv, sizeof *tv);
}
inline void trace(const char* text) { VORX_LOG(vorx_log_level_trace, "%s", text); }

}  // namespace vorx::glue
