// A stand-in for the collector around the wrappers: one fake thread with a workspace, a switch for what
// enter answers, counters of what the template did, a controllable clock and configuration. The generated
// wrappers are compiled against it so that the template's steps run for real in a test.
#pragma once
#include <stdint.h>
#include <sys/time.h>

#include <cstdlib>
#include <vector>

struct vorx_workspace {
    unsigned runtime_level = 3;
    vorx_probe_data_t* incomplete_wait = nullptr;
    int internal_signal = 0;
    unsigned heap_nesting = 0;
};

namespace fake {

enum class answer { ok, acquired, not_found, closed };

struct callback_call {
    unsigned index;
    unsigned id;
    unsigned long long enter_time, leave_time;
    unsigned stack_policy;
    unsigned char to_aux;
};

struct state_t {
    bool rtl = true;
    int app_errno = 0;
    answer first_enter = answer::ok;       // what the next enter answers
    answer later_enter = answer::ok;       // and every enter after it
    unsigned enters = 0, releases = 0, blocks = 0, unblocks = 0;
    unsigned completions = 0, releases_at_completion = 0;  // deferred signals delivered, and when
    unsigned long long clock = 1000;       // now(): the test moves it
    unsigned long long clock_step = 0;     // added at every read
    long long wall = 0;                    // gettimeofday in microseconds
    unsigned conf_state = 1;
    bool offline = false;
    uint64_t wait_threshold = 10, short_wait_threshold = 5, stack_threshold = 5;
    bool contention_filter = false;
    bool contended = false;
    uint64_t memory_threshold = 64;
    bool profile_process = true;
    bool cpu = true;
    std::vector<callback_call> callbacks;
    vorx_probe_params_t last_params;       // the parameter record as the last callback saw it
    unsigned nested_checks = 0, pushes = 0, cleanups_pushed = 0;
    std::vector<void*> heap;               // blocks in the object table
    unsigned detaches = 0, stops = 0, profiling_blocks = 0;
    const char* private_env = nullptr;
    void* handed_table = nullptr;          // what the __ozk_api_init wrapper handed over
    int api_mask = 0;                      // and the mask it was answered
    unsigned global_locks = 0;
    void* sync_pushed = nullptr;
    bool waiter_found = false;
    bool waiters_possible = true;
    bool post_callbacks = true;            // what the directory answers for callbacks after a call
    void* user_open = nullptr;             // the one user wait that the fake slots keep
    unsigned long long user_open_time = 0;          // some thread has a lock object in its block
    vorx_workspace wsp;
};

inline state_t& st() {
    static state_t s;
    return s;
}

inline void reset() {
    st() = state_t{};
}

}  // namespace fake

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

inline bool rtl_initialized() { return fake::st().rtl; }
inline int* errno_location() { return &fake::st().app_errno; }

inline enter_result enter(key_t& key, wsp_t*& wsp) {
    auto& s = fake::st();
    fake::answer a = s.enters++ == 0 ? s.first_enter : s.later_enter;
    switch (a) {
        case fake::answer::ok: key = &s.wsp; wsp = &s.wsp; return enter_result::ok;
        case fake::answer::acquired: return enter_result::acquired;
        case fake::answer::not_found: return enter_result::not_found;
        default: return enter_result::closed;
    }
}
inline void release(key_t) { ++fake::st().releases; }
inline void block_signals(wsp_t*, mask_t& saved) { ++fake::st().blocks; saved = 7; }
inline bool unblock_signals(key_t&, wsp_t*&, mask_t saved) {
    ++fake::st().unblocks;
    return saved == 7;
}
inline void complete_deferred_signals(wsp_t*) {
    ++fake::st().completions;
    fake::st().releases_at_completion = fake::st().releases;
}
inline unsigned& runtime_level(wsp_t* wsp) { return wsp->runtime_level; }
inline vorx_probe_data_t*& incomplete_wait(wsp_t* wsp) { return wsp->incomplete_wait; }
inline void get_context(void*) {}
inline unsigned long long now() { return fake::st().clock += fake::st().clock_step; }
inline void gettimeofday(struct timeval* tv) {
    tv->tv_sec = fake::st().wall / 1000000;
    tv->tv_usec = fake::st().wall % 1000000;
}
inline unsigned conf_state() { return fake::st().conf_state; }
inline bool offline_stack_walk() { return fake::st().offline; }
inline uint64_t wait_threshold() { return fake::st().wait_threshold; }
inline uint64_t short_wait_threshold() { return fake::st().short_wait_threshold; }
inline uint64_t stack_threshold() { return fake::st().stack_threshold; }
inline bool contention_filter_on() { return fake::st().contention_filter; }
inline uint64_t memory_size_threshold() { return fake::st().memory_threshold; }
inline bool profile_process() { return fake::st().profile_process; }
inline bool cpu_collection() { return fake::st().cpu; }
inline void* head_trampoline(unsigned id) { return vorx_head_row(id)->trampoline; }

inline void run_callbacks(unsigned index, wsp_t*, vorx_probe_data_t* d) {
    fake::st().callbacks.push_back({index, d->locals.last_probe_id, d->locals.enter_time, d->locals.leave_time,
                                    d->locals.stack_policy, d->locals.to_aux_tmu});
    fake::st().last_params = d->params;
}
inline void run_plain_record(unsigned index, wsp_t* wsp, vorx_probe_data_t* d) { run_callbacks(index, wsp, d); }
inline bool has_callbacks(unsigned) { return fake::st().post_callbacks; }
// callbacks after a call are taken for stacks, which read the machine context
inline bool plain_records(unsigned) { return false; }
// the records' own path is taken exactly when nothing follows the call
inline bool records_only(unsigned, unsigned) { return !fake::st().post_callbacks; }
inline int update_parent_probe_params() { return 0; }
inline void update_nested_probe_params(vorx_probe_data_t*, vorx_probe_data_t*) {}
inline void is_runtime_in_nested_original(vorx_probe_data_t*, unsigned, wsp_t*) { ++fake::st().nested_checks; }
inline bool internal_signal_arrived(wsp_t* wsp) { return wsp->internal_signal != 0; }
inline void clear_internal_signal(wsp_t* wsp) { wsp->internal_signal = 0; }
inline void incomplete_wait_cleanup_handler(void*) {}
inline void set_wait_time(wsp_t*, uint64_t) {}
inline void push_sync(wsp_t*, void* object) { fake::st().sync_pushed = object; }
inline bool contended(wsp_t*) { return fake::st().contended; }
inline void clear_sync(wsp_t*) { fake::st().sync_pushed = nullptr; }
inline unsigned user_heap_nesting(wsp_t* wsp) { return wsp->heap_nesting; }
inline void user_sync_open(wsp_t*, const vorx_probe_data_t* d, void* object) {
    fake::st().user_open = object;
    fake::st().user_open_time = d->locals.enter_time;
}
inline void user_sync_close(wsp_t*, void* object, uint64_t* enter_time) {
    if (object != fake::st().user_open) return;
    *enter_time = fake::st().user_open_time;
    fake::st().user_open = nullptr;
}
inline bool sync_waiters_possible() { return fake::st().waiters_possible; }
inline bool find_waiter(key_t, wsp_t*, void*, bool, unsigned long long* since) {
    *since = 0;
    return fake::st().waiter_found;
}
inline unsigned long long round_to_pages(unsigned long long size) { return (size + 4095) / 4096 * 4096; }
inline bool heap_insert(unsigned long long, void* block) {
    fake::st().heap.push_back(block);
    return true;
}
// like the collector's: a size filter of 2 bytes or more keeps a table of the blocks it let through
inline void* heap_table() { return fake::st().memory_threshold >= 2 ? &fake::st().heap : nullptr; }
inline bool heap_known(void*, void* block) {
    for (void* b : fake::st().heap)
        if (b == block) return true;
    return false;
}
inline bool heap_delete(void* block) {
    auto& h = fake::st().heap;
    for (auto it = h.begin(); it != h.end(); ++it)
        if (*it == block) {
            h.erase(it);
            return true;
        }
    return false;
}
inline bool lock_global() {
    ++fake::st().global_locks;
    return true;
}
inline void unlock_global() {}
inline void detach_runtime() { ++fake::st().detaches; }
inline void stop_notification_service() { ++fake::st().stops; }
inline void block_profiling_signal() { ++fake::st().profiling_blocks; }
inline void unblock_profiling_signal() {}
inline const char* env_getenv(const char*) { return fake::st().private_env; }
inline int api_handover(void* api_table) {
    fake::st().handed_table = api_table;
    return fake::st().api_mask;
}
inline bool socket_receive_timeout(int, struct timeval* tv) {
    tv->tv_sec = 0;
    tv->tv_usec = 0;
    return true;
}
inline void set_socket_receive_timeout(int, const struct timeval*) {}
inline void trace(const char*) {}

}  // namespace vorx::glue
