// The wrappers compiled against the collector's real event handling: callbacks run through the real
// directory into real units, nested calls and filtering go to the real functions. Only the thread manager,
// the signal descriptor and the clock are stood in for: one test thread, always entered, and a clock that
// the fake originals move.
#pragma once
#include "vorx_htable.h"
#include <errno.h>
#include <stdint.h>
#include <sys/time.h>

#include <cstdlib>

#include "event_filtering.h"
#include "event_records.h"

namespace handler_glue {

struct state_t {
    vorx_workspace* wsp = nullptr;         // the test thread's workspace
    int app_errno = 0;
    unsigned long long clock = 1000;       // now(): the fake originals move it
    uint64_t wait_threshold = 10, short_wait_threshold = 5, stack_threshold = 5;
    bool contention_filter = false;
};

inline state_t& st() {
    static state_t s;
    return s;
}

}  // namespace handler_glue

#define VORX_WRAPPER_ASSERT(cond) \
    do {                          \
        if (!(cond)) abort();     \
    } while (0)

namespace vorx::glue {

using key_t = void*;
using wsp_t = vorx_workspace;
using mask_t = uint32_t;
constexpr unsigned context_size = 64;
constexpr unsigned cleanup_buffer_size = 32;

enum class enter_result { ok, acquired, not_found, closed, other };

inline bool rtl_initialized() { return true; }
inline int* errno_location() { return &handler_glue::st().app_errno; }

inline enter_result enter(key_t& key, wsp_t*& wsp) {
    wsp = handler_glue::st().wsp;
    key = wsp;
    return enter_result::ok;
}
inline void release(key_t) {}
inline void block_signals(wsp_t*, mask_t& saved) { saved = 0; }
inline bool unblock_signals(key_t&, wsp_t*&, mask_t) { return true; }
inline void complete_deferred_signals(wsp_t*) {}
inline volatile vorx_u32_t& runtime_level(wsp_t* wsp) { return wsp->runtime_level; }
inline vorx_probe_data_t*& incomplete_wait(wsp_t* wsp) {
    return reinterpret_cast<vorx_probe_data_t*&>(wsp->incomplete_wait);
}
inline void get_context(void*) {}
inline unsigned long long now() { return handler_glue::st().clock; }
inline void gettimeofday(struct timeval* tv) { ::gettimeofday(tv, nullptr); }
inline unsigned conf_state() { return 1; }
inline bool offline_stack_walk() { return false; }
inline uint64_t wait_threshold() { return handler_glue::st().wait_threshold; }
inline uint64_t short_wait_threshold() { return handler_glue::st().short_wait_threshold; }
inline uint64_t stack_threshold() { return handler_glue::st().stack_threshold; }
inline bool contention_filter_on() { return handler_glue::st().contention_filter; }
inline uint64_t memory_size_threshold() { return g_vorx_conf->memory_size_threshold; }
inline bool profile_process() { return true; }
inline bool cpu_collection() { return false; }
inline void* head_trampoline(unsigned id) { return vorx_head_row(id)->trampoline; }

inline void run_callbacks(unsigned index, wsp_t* wsp, vorx_probe_data_t* d) { vorx_run_directory_callbacks(index, wsp, d); }
inline void run_plain_record(unsigned index, wsp_t* wsp, vorx_probe_data_t* d) { vorx_run_plain_record(index, wsp, d); }
inline bool has_callbacks(unsigned index) { return vorx_directory_has_callbacks(index) != 0; }
inline bool plain_records(unsigned index) { return vorx_directory_plain_records(index) != 0; }
inline bool records_only(unsigned pre_index, unsigned post_index) {
    return plain_records(pre_index) && !has_callbacks(post_index);
}
inline int update_parent_probe_params() { return vorx_update_parent_probe_params(); }
inline void update_nested_probe_params(vorx_probe_data_t* d, vorx_probe_data_t* w) { vorx_update_nested_probe_params(d, w); }
inline void is_runtime_in_nested_original(vorx_probe_data_t* wait, unsigned id, wsp_t* wsp) {
    vorx_is_runtime_in_nested_original(wait, id, wsp->filtering_data);
}
inline bool internal_signal_arrived(wsp_t*) { return false; }
inline void clear_internal_signal(wsp_t*) {}
inline void incomplete_wait_cleanup_handler(void*) {}
inline void set_wait_time(wsp_t* wsp, uint64_t t) { vorx_filtering_set_wait_time(wsp->filtering_data, t); }
inline void push_sync(wsp_t* wsp, void* object) { vorx_filtering_push_sync(wsp->filtering_data, object); }
inline bool contended(wsp_t* wsp) { return vorx_filtering_contended(wsp->filtering_data) != 0; }
inline void clear_sync(wsp_t* wsp) { vorx_filtering_clear_sync(wsp->filtering_data); }
inline unsigned user_heap_nesting(wsp_t* wsp) { return vorx_filtering_user_heap_nesting(wsp->filtering_data); }
inline void user_sync_open(wsp_t* wsp, const vorx_probe_data_t* d, void* object) {
    vorx_user_sync_open(wsp, d, object);
}
inline void user_sync_close(wsp_t* wsp, void* object, uint64_t* enter_time) {
    vorx_user_sync_close(wsp, object, enter_time);
}
inline bool sync_waiters_possible() { return vorx_sync_waiters_possible() != 0; }
inline bool find_waiter(key_t, wsp_t*, void*, bool, unsigned long long* since) {
    *since = 0;
    return false;
}
inline unsigned long long round_to_pages(unsigned long long size) { return (size + 4095) / 4096 * 4096; }
inline bool heap_insert(unsigned long long size, void* block) {
    return vorx_mem_obj_htable_insert(g_vorx_mem_obj_htable, g_vorx_conf, size, block) != 0;
}
inline void* heap_table() { return __atomic_load_n(&g_vorx_mem_obj_htable, __ATOMIC_ACQUIRE); }
inline bool heap_known(void* table, void* block) {
    return block && vorx_htable_contains(static_cast<const vorx_htable*>(table), (uint32_t)(uintptr_t)block);
}
inline bool heap_delete(void* block) { return vorx_mem_obj_htable_delete(g_vorx_mem_obj_htable, block) != 0; }
inline bool lock_global() { return true; }
inline void unlock_global() {}
inline void detach_runtime() {}
inline void stop_notification_service() {}
inline void block_profiling_signal() {}
inline void unblock_profiling_signal() {}
inline const char* env_getenv(const char*) { return nullptr; }
inline int api_handover(void*) { return 0; }
inline bool socket_receive_timeout(int, struct timeval*) { return false; }
inline void set_socket_receive_timeout(int, const struct timeval*) {}
inline void trace(const char*) {}

}  // namespace vorx::glue
