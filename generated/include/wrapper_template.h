// The one template of every probe wrapper.
//
// The generator writes, per function, a traits struct (what the description says about the function) and
// per row a small extern "C" function with the function's exact signature that calls wrap<Traits, M, V>.
// Everything a wrapper does lives here, step by step, and reaches the rest of the collector only through
// vorx::glue (vorx_wrapper_glue.h), so that adapting to the collector's headers touches one file.
//
// Levels: a thread runs the collector at level 1 (runtime), the original at level 2, the application at 3.
// The collector's signals are held back while the wrapper's own logic runs (enter to leave-for-call, and
// re-enter to leave) and are never held across the original. errno is saved first and put back right before
// control goes to the original or back to the caller; the value after the original is saved before the
// re-enter, which may change it.
#pragma once
#include <errno.h>
#include <stdint.h>
#include <string.h>
#include <sys/time.h>
#include <time.h>

#include <type_traits>

#include "vorx_probe_ids.h"
#include "vorx_probe_params.h"
#include "vorx_probe_table.h"

namespace vorx {

enum class kind { wait_retry, wait, event, heap, counted, replaced, thin, model, none, event_only };
enum class wakes { none, sys, user };
// api_init: the generator writes that wrapper whole (it runs before the runtime opens, see gen_probes.py).
enum class thin { none, exit, system, getenv, syscall, api_init };
enum class usync { none, open, close };  // annotated waits on user objects
enum class timeout { none, ms, ts, sockopt };

// What the syscall wrapper's dispatch answers when the call is no futex.
constexpr long futex_not_taken = -0x7fffffffL;
template <class T, unsigned M, unsigned V>
long futex_dispatch(typename T::params_t&) { return futex_not_taken; }

}  // namespace vorx

#ifdef VORX_WRAPPER_GLUE
#include VORX_WRAPPER_GLUE
#else
#include "vorx_wrapper_glue.h"
#endif

#ifndef VORX_WRAPPER_EXPORT
#define VORX_WRAPPER_EXPORT __attribute__((visibility("default"), used))
#endif

namespace vorx {

constexpr unsigned level_runtime = 1, level_original = 2, level_application = 3;
constexpr unsigned state_unread = 2;
constexpr unsigned stack_none = 0, stack_short = 1, stack_full = 2;

// Everything the wrapper keeps on its own stack.
template <class T>
struct frame_t {
    vorx_probe_data_t data;
    alignas(16) unsigned char context[glue::context_size];
    glue::key_t key = nullptr;
    glue::wsp_t* wsp = nullptr;
    glue::mask_t saved{};
    unsigned old_level = level_application;
    int err = 0;                  // the errno that the application must see
    bool callbacks_due = false;   // the pre step ran, post callbacks may follow
    bool post_due = false;        // the directory holds callbacks after the call for this id and state
    bool cleanup_pushed = false;
    int* errno_at = glue::errno_location();  // the application's errno of this thread: every path reads it
    unsigned mod = 0, ver = 0;    // the row: module and version index
    unsigned char cleanup_buffer[glue::cleanup_buffer_size];

    typename T::params_t& p() { return T::in(data); }
};

template <class T>
inline int& app_errno(frame_t<T>& f) {
    return *f.errno_at;
}

template <class T>
inline void* own_trampoline(unsigned mod, unsigned ver) {
    return vorx_probe_row(T::id, T::versions, mod, ver)->trampoline;
}

// ---------------------------------------------------------------- steps 1, 4, 5, 9, 16

// The arguments are in the frame already (the paths that never measure need nothing else).
template <class T>
inline void set_up(frame_t<T>& f) {
    // field by field: a memset of the block compiles to a string store, slow to start on a hot path
    vorx_probe_locals_t& l = f.data.locals;
    l.wait_started = l.contention_started = l.sampled = l.contended = 0;
    l.enter_time = l.leave_time = 0;
    l.reserved = 0;
    f.data.next_wait = nullptr;
    f.data.locals.state = state_unread;
    f.data.locals.stack_policy = stack_full;
    f.data.locals.mod = f.mod;
    f.data.locals.ver = f.ver;
    f.data.locals.context = f.context;
    f.data.locals.stack_args = __builtin_frame_address(0);
    f.data.locals.to_aux_tmu = T::to_aux ? 1 : 0;
    f.data.locals.last_probe_id = T::id;
}

// Enters the runtime. ok: signals held, level 1, and the level found stored in `found` when asked. Any other
// answer touches nothing.
inline glue::enter_result enter_runtime(glue::key_t& key, glue::wsp_t*& wsp, glue::mask_t& saved, unsigned* found) {
    glue::enter_result r = glue::enter(key, wsp);
    if (r == glue::enter_result::ok) {
        glue::block_signals(wsp, saved);
        if (found) *found = glue::runtime_level(wsp);
        glue::runtime_level(wsp) = level_runtime;
    }
    return r;
}

// Leaves the runtime at `level`: the thread is released, then the signals it deferred are delivered.
// A signal that came meanwhile is delivered only after the release: its handler may never return.
inline void leave_runtime(glue::key_t& key, glue::wsp_t*& wsp, glue::mask_t saved, unsigned level) {
    if (glue::unblock_signals(key, wsp, saved)) {
        glue::runtime_level(wsp) = level;
        glue::release(key);
        glue::complete_deferred_signals(wsp);
    }
}

// The first enter keeps the level to return to (a re-enter after the call finds level 2, which is not the
// caller's).
template <class T>
inline glue::enter_result enter(frame_t<T>& f, bool first) {
    return enter_runtime(f.key, f.wsp, f.saved, first ? &f.old_level : nullptr);
}

template <class T>
inline void leave(frame_t<T>& f, unsigned level) {
    leave_runtime(f.key, f.wsp, f.saved, level);
}

// ---------------------------------------------------------------- calling the original

template <class T>
inline void call_original(frame_t<T>& f, void* fn) {
    app_errno(f) = f.err;
    T::call(fn, f.p());
    f.err = app_errno(f);
}

// Remaining time of a timeout: borrows from the seconds and stops at zero.
inline void decrease_timer_setting(struct timeval& left, long long passed_us) {
    long long us = (long long)left.tv_sec * 1000000 + left.tv_usec - passed_us;
    if (us < 0) us = 0;
    left.tv_sec = (time_t)(us / 1000000);
    left.tv_usec = (suseconds_t)(us % 1000000);
}

inline long long wall_us() {
    struct timeval tv;
    glue::gettimeofday(&tv);
    return (long long)tv.tv_sec * 1000000 + tv.tv_usec;
}

// The timeout of a restarted call shrinks by the time already waited.
template <class T>
struct timeout_keeper {
    bool active = false;
    long long started = 0;
    struct timeval total{};
    struct timespec copy{};      // for timespec arguments: the call gets this copy
    struct timeval rcvtimeo{};   // for sockets: the receive timeout as the application set it

    void before(frame_t<T>& f) {
        if constexpr (T::timeout == timeout::ms) {
            auto ms = T::timeout_arg(f.p());
            if (ms <= 0) return;
            total = {(time_t)(ms / 1000), (suseconds_t)((ms % 1000) * 1000)};
        } else if constexpr (T::timeout == timeout::ts) {
            auto& arg = T::timeout_arg(f.p());
            if (!arg) return;
            copy = *(const struct timespec*)arg;
            total = {copy.tv_sec, (suseconds_t)(copy.tv_nsec / 1000)};
            arg = std::remove_reference_t<decltype(arg)>(&copy);  // the application's timespec is never written
        } else if constexpr (T::timeout == timeout::sockopt) {
            if (!glue::socket_receive_timeout((int)(long)T::object(f.p()), &rcvtimeo)) {
                glue::trace("Can't get socket options, deadlock is possible");
                return;
            }
            if (rcvtimeo.tv_sec == 0 && rcvtimeo.tv_usec == 0) return;
            total = rcvtimeo;
        } else {
            return;
        }
        active = true;
        started = wall_us();
    }

    // false: the time is up, and the call must not be made again
    bool shrink(frame_t<T>& f) {
        if (!active) return true;
        struct timeval left = total;
        decrease_timer_setting(left, wall_us() - started);
        if constexpr (T::timeout == timeout::ms) {
            T::timeout_arg(f.p()) = (int)(left.tv_sec * 1000 + (left.tv_usec + 999) / 1000);
        } else if constexpr (T::timeout == timeout::ts) {
            copy.tv_sec = left.tv_sec;
            copy.tv_nsec = left.tv_usec * 1000;
        } else if constexpr (T::timeout == timeout::sockopt) {
            if (left.tv_sec == 0 && left.tv_usec == 0) return false;
            glue::set_socket_receive_timeout((int)(long)T::object(f.p()), &left);
        }
        return true;
    }

    void after(frame_t<T>& f) {
        if constexpr (T::timeout == timeout::sockopt)
            if (active) glue::set_socket_receive_timeout((int)(long)T::object(f.p()), &rcvtimeo);
    }
};

template <class T>
inline bool interrupted(frame_t<T>& f) {
    if constexpr (T::eintr_is_result) {
        return (long)f.p().__result == -EINTR;
    } else if constexpr (!std::is_void_v<typename T::result_t>) {
        return (long)f.p().__result == -1 && f.err == EINTR;
    } else {
        return false;
    }
}

// Step 10 with the restart: a call that the collector's own signal broke is made again, so that the
// application never sees that EINTR; an interruption by the application's signals is handed on.
// The flag of the collector's signal was cleared before the wrapper left for the call (clear_before_call);
// after the call it is looked at only when the call was broken, so a call that simply returns costs no
// further enter.
template <class T>
inline void call_with_retry(frame_t<T>& f, void* fn) {
    glue::key_t key = f.key;  // the thread's descriptor from the first enter: no lookup by thread again
    glue::wsp_t* wsp = nullptr;
    timeout_keeper<T> timer;
    timer.before(f);
    for (;;) {
        if constexpr (T::via_syscall != 0) {
            app_errno(f) = f.err;
            T::call_syscall(fn, f.p());
            f.err = app_errno(f);
        } else {
            call_original(f, fn);
        }
        if (!interrupted(f)) break;
        if (glue::enter(key, wsp) != glue::enter_result::ok) break;
        if (!glue::internal_signal_arrived(wsp)) {
            glue::release(key);
            break;
        }
        glue::clear_internal_signal(wsp);
        glue::release(key);
        if (!timer.shrink(f)) {  // the socket's timeout ran out while the collector's signal was served
            f.err = EAGAIN;
            break;
        }
    }
    timer.after(f);
}

// sleep and usleep: a timespec and a loop on the head row of nanosleep, the remaining time in and out.
template <class T>
inline void sleep_through_nanosleep(frame_t<T>& f) {
    using nanosleep_t = int (*)(const struct timespec*, struct timespec*);
    auto nanosleep_fn = (nanosleep_t)glue::head_trampoline(vorx_pi_nanosleep);
    VORX_WRAPPER_ASSERT(nanosleep_fn != nullptr);
    unsigned long long amount = T::sleep_amount(f.p());
    struct timespec left;
    if constexpr (T::sleep_unit == 1) {
        left = {(time_t)amount, 0};
    } else {
        left = {(time_t)(amount / 1000000), (long)(amount % 1000000) * 1000};
    }
    int rc;
    for (;;) {
        app_errno(f) = f.err;
        rc = nanosleep_fn(&left, &left);
        f.err = app_errno(f);
        if (rc == 0 || f.err != EINTR) break;
        glue::key_t key = f.key;
        glue::wsp_t* wsp = nullptr;
        if (glue::enter(key, wsp) != glue::enter_result::ok) break;
        bool ours = glue::internal_signal_arrived(wsp);
        if (ours) glue::clear_internal_signal(wsp);
        glue::release(key);
        if (!ours) break;
    }
    if constexpr (T::sleep_unit == 1) {
        f.p().__result = rc == 0 ? 0 : (unsigned)(left.tv_sec + (left.tv_nsec >= 500000000 ? 1 : 0));
    } else {
        f.p().__result = rc;
    }
}

// Calls that restart after the collector's own signal start with its flag cleared; the thread is still
// entered here, so this costs no enter of its own.
template <class T>
inline void clear_before_call(frame_t<T>& f) {
    if constexpr (T::sleep_unit == 0 && (T::via_syscall != 0 || T::kind == kind::wait_retry))
        glue::clear_internal_signal(f.wsp);
}

template <class T>
inline void call(frame_t<T>& f) {
    if constexpr (T::sleep_unit != 0) {
        sleep_through_nanosleep(f);
    } else if constexpr (T::via_syscall != 0) {
        VORX_WRAPPER_ASSERT(glue::head_trampoline(vorx_pi_syscall) != nullptr);
        call_with_retry(f, glue::head_trampoline(vorx_pi_syscall));
    } else if constexpr (T::kind == kind::wait_retry) {
        call_with_retry(f, own_trampoline<T>(f.mod, f.ver));
    } else {
        call_original(f, own_trampoline<T>(f.mod, f.ver));
    }
}

// ---------------------------------------------------------------- callbacks

template <class T>
inline void run_callbacks(frame_t<T>& f, unsigned order) {
    unsigned index = VORX_CALLBACK_INDEX(T::id, f.data.locals.state, order);
    if constexpr (T::kind == kind::counted) {
        // the annotation API's counted objects are shared by all threads: their records are made under the
        // global lock, and not at all once the collector has closed
        if (glue::lock_global()) {
            glue::run_callbacks(index, f.wsp, &f.data);
            glue::unlock_global();
        }
    } else {
        glue::run_callbacks(index, f.wsp, &f.data);
    }
}

// Step 6: arguments are in place already; the state, the context and both times.
template <class T>
inline void pre_times(frame_t<T>& f) {
    f.data.next_wait = nullptr;
    f.data.locals.sampled = 0;
    f.data.locals.contended = 0;
    f.data.locals.state = glue::conf_state();
    // the machine context is for the stack callbacks, which run after the call; plain records never read it
    const unsigned post_index = VORX_CALLBACK_INDEX(T::id, f.data.locals.state, vorx_or_post);
    f.post_due = glue::has_callbacks(post_index);
    if (f.post_due && !glue::plain_records(post_index)) glue::get_context(f.context);
    f.data.locals.enter_time = f.data.locals.leave_time = glue::now();
}

// Steps 6 and 7.
template <class T>
inline void pre(frame_t<T>& f) {
    pre_times(f);
    if (glue::update_parent_probe_params() != 1) {
        glue::update_nested_probe_params(&f.data, glue::incomplete_wait(f.wsp));
        run_callbacks(f, vorx_or_pre);
        f.callbacks_due = true;
    }
}

// ---------------------------------------------------------------- the incomplete-wait stack

template <class T>
inline void push_wait(frame_t<T>& f) {
    VORX_WRAPPER_ASSERT(f.data.locals.state == 1 || f.data.locals.state == 0);
    VORX_WRAPPER_ASSERT(f.data.next_wait == nullptr);
    VORX_WRAPPER_ASSERT(glue::incomplete_wait(f.wsp) != &f.data);
    f.data.next_wait = glue::incomplete_wait(f.wsp);
    glue::incomplete_wait(f.wsp) = &f.data;
    // a thread cancelled inside the call flushes its wait on the way out
    void* push = glue::head_trampoline(vorx_pi__pthread_cleanup_push);
    void* pop = glue::head_trampoline(vorx_pi__pthread_cleanup_pop);
    VORX_WRAPPER_ASSERT((push == nullptr) == (pop == nullptr));
    if (push && pop) {
        ((vorx__pthread_cleanup_push_call_t)push)((void*)f.cleanup_buffer, glue::incomplete_wait_cleanup_handler,
                                                  (void*)f.wsp);
        f.cleanup_pushed = true;
    }
    glue::set_wait_time(f.wsp, f.data.locals.enter_time);
}

template <class T>
inline void pop_cleanup(frame_t<T>& f) {
    if (f.cleanup_pushed)
        ((vorx__pthread_cleanup_pop_call_t)glue::head_trampoline(vorx_pi__pthread_cleanup_pop))(
            (void*)f.cleanup_buffer, 0);
}

// Step 14: false when a flush took the wait away meanwhile (then no post callbacks run).
template <class T>
inline bool pop_wait(frame_t<T>& f) {
    vorx_probe_data_t*& head = glue::incomplete_wait(f.wsp);
    if (head == nullptr) return false;
    VORX_WRAPPER_ASSERT(head == &f.data);
    head = f.data.next_wait;
    f.data.next_wait = nullptr;
    if (head == nullptr || head->locals.last_probe_id == vorx_pi_eof) head = nullptr;
    return true;
}

// Step 13: a wait is reported if it lasted longer than the wait threshold; a short one gets a cheaper stack.
template <class T>
inline bool judge(frame_t<T>& f) {
    f.data.locals.leave_time = glue::now();
    unsigned long long elapsed = f.data.locals.leave_time - f.data.locals.enter_time;
    if constexpr (T::contention) {
        bool filter = glue::contention_filter_on();
        bool forced = !filter || glue::contended(f.wsp);
        if (!glue::offline_stack_walk() && elapsed < glue::short_wait_threshold())
            f.data.locals.stack_policy = stack_short;
        if (filter) glue::clear_sync(f.wsp);
        return forced || elapsed > glue::wait_threshold();
    } else {
        if (!glue::offline_stack_walk() && elapsed < glue::stack_threshold())
            f.data.locals.stack_policy = stack_short;
        return elapsed > glue::wait_threshold();
    }
}

// ---------------------------------------------------------------- the kinds

// Pass-through (step 5): the thread is not measured here; the signals it deferred are completed.
template <class T>
inline typename T::result_t pass_through(frame_t<T>& f, bool entered) {
    if (entered) leave(f, f.old_level);
    app_errno(f) = f.err;
    if constexpr (T::via_syscall != 0) {
        T::call_syscall(glue::head_trampoline(vorx_pi_syscall), f.p());
    } else {
        T::call(own_trampoline<T>(f.mod, f.ver), f.p());
    }
    if constexpr (!std::is_void_v<typename T::result_t>) return f.p().__result;
}

template <class T>
inline typename T::result_t finish(frame_t<T>& f) {
    app_errno(f) = f.err;
    if constexpr (!std::is_void_v<typename T::result_t>) return f.p().__result;
}

// A replaced call whose routine runs outside the collector (the thread holds no descriptor): `wsp` is the
// thread's workspace, or null for a thread the collector does not know.
template <class T>
inline typename T::result_t outside_call(frame_t<T>& f, glue::wsp_t* wsp) {
    app_errno(f) = f.err;
    void* trampoline = own_trampoline<T>(f.mod, f.ver);
    if (!T::replaced(wsp, &f.data, trampoline)) T::call(trampoline, f.p());
    f.err = app_errno(f);
    if constexpr (!std::is_void_v<typename T::result_t>) return f.p().__result;
}

// Wakers look for threads that wait for the object they release.
template <class T>
inline bool wake_report(frame_t<T>& f) {
    if (!glue::contention_filter_on()) return true;
    unsigned long long waiter_since = 0;
    bool found = glue::find_waiter(f.key, f.wsp, T::object(f.p()), T::wakes == wakes::user, &waiter_since);
    if (found && f.data.locals.enter_time - waiter_since < glue::short_wait_threshold())
        f.data.locals.stack_policy = stack_short;
    return found;
}

// The size the filter and the object table see: mmap and its like count whole pages.
template <class T>
inline unsigned long long heap_block_size(const typename T::params_t& p) {
    unsigned long long size = T::heap_size(p);
    if constexpr (T::heap_page_rounded) size = glue::round_to_pages(size);
    return size;
}

template <class T>
inline bool heap_pre_filter(const typename T::params_t& p) {
    if constexpr (T::heap_sized) return heap_block_size<T>(p) >= glue::memory_size_threshold();
    return true;
}

// After the call: blocks that the filter let through go into the object table, and only a block that the
// table took (or knew, for a release) makes a record.
template <class T>
inline bool heap_post(frame_t<T>& f, bool released_known) {
    if constexpr (T::heap_sized) {
        void* block = T::heap_object(f.p());
        if (block == nullptr || glue::user_heap_nesting(f.wsp) != 0) return false;
        return glue::heap_insert(heap_block_size<T>(f.p()), block) || released_known;
    }
    return released_known;
}

// Thin members: no measuring.
template <class T, unsigned M, unsigned V>
inline typename T::result_t thin_path(typename T::params_t& p) {
    frame_t<T> f;
    T::in(f.data) = p;
    f.err = app_errno(f);
    if constexpr (T::thin == thin::exit) {
        if (glue::profile_process()) glue::detach_runtime();
        glue::stop_notification_service();
    } else if constexpr (T::thin == thin::system) {
        bool block = glue::profile_process() && glue::cpu_collection();
        if (block) glue::block_profiling_signal();
        call_original(f, own_trampoline<T>(M, V));
        if (block) glue::unblock_profiling_signal();
        return finish(f);
    } else if constexpr (T::thin == thin::getenv) {
        const char* mine = glue::env_getenv(T::env_name(f.p()));
        if (mine) {
            app_errno(f) = f.err;
            return (char*)mine;
        }
    } else if constexpr (T::thin == thin::syscall) {
        long r = futex_dispatch<T, M, V>(f.p());
        if (r != futex_not_taken) return r;  // the futex wrapper restored errno itself
    }
    app_errno(f) = f.err;
    T::call(own_trampoline<T>(M, V), f.p());
    if constexpr (!std::is_void_v<typename T::result_t>) return f.p().__result;
}

// Calls that would make no record whatever happened in them go straight to the original, before the
// thread manager is touched: a release while no thread waits on a lock object (or while the collection is
// paused), an allocation below the size filter, and a release of a block that the object table does not
// hold. What they would have done on the full path is nothing, so skipping it changes no record.
template <class T>
inline bool needs_no_record(const typename T::params_t& p) {
    if constexpr (T::wakes == wakes::sys) {
        if (glue::conf_state() != 1) return true;
        if (!T::own_wait && glue::contention_filter_on() && !glue::sync_waiters_possible()) return true;
    }
    if constexpr (T::kind == kind::heap && T::heap_sized && !T::heap_frees) {
        if (!heap_pre_filter<T>(p)) return true;
    }
    if constexpr (T::kind == kind::heap && T::heap_frees && !T::heap_sized) {
        void* table = glue::heap_table();  // read once: the collection's end takes it away
        if (table && !glue::heap_known(table, T::heap_released(p))) return true;
    }
    return false;
}

// The paths that never enter the collector, inlined into the row's own function so that they cost no
// call of their own (on 32-bit x86 every out-of-line call into position-independent code pays again for
// finding its data). true: the call was made and its result is in args.
template <class T, unsigned M, unsigned V>
[[gnu::always_inline]] inline bool quick_path(typename T::params_t& args) {
    if constexpr (T::kind == kind::thin) {
        return false;
    } else {
        if (needs_no_record<T>(args)) {
            T::call(own_trampoline<T>(M, V), args);
            return true;
        }
        if constexpr (T::trylock != vorx_pi_eof) {
            // Uncontended locks cost one extra call and nothing else. The thread functions answer with their
            // result and leave errno alone, so there is no errno to keep on this path.
            if (void* try_fn = glue::head_trampoline(T::trylock))
                if (((int (*)(void*))try_fn)(T::object(args)) == 0) {
                    args.__result = 0;
                    return true;
                }
        }
        return false;
    }
}

// Leaf calls with nothing to do after them: the original calls nothing that the collector wraps, so the level
// it runs at changes nothing, and the thread leaves for good before it instead of leaving and coming back.
template <class T>
inline typename T::result_t leave_then_call(frame_t<T>& f) {
    static_assert(T::kind == kind::event, "only plain events are leaves");
    leave(f, f.old_level);
    app_errno(f) = f.err;
    T::call(own_trampoline<T>(f.mod, f.ver), f.p());
    if constexpr (!std::is_void_v<typename T::result_t>) return f.p().__result;
}

// Everything that may enter the collector. One body per function, not per row: the row comes as values, so
// that the code of the ~330 wrapped functions is made once each and not for every module and version.
template <class T>
[[gnu::noinline]] typename T::result_t measure(typename T::params_t& args, unsigned mod, unsigned ver) {
    frame_t<T> f;
    f.mod = mod;
    f.ver = ver;
    T::in(f.data) = args;
    if constexpr (T::sleep_unit == 1) {
        if (T::sleep_amount(f.p()) == 0) return pass_through<T>(f, false);  // sleep(0): nothing at all
    }
    f.err = app_errno(f);  // step 3
    glue::enter_result entered = enter(f, true);  // step 4
    if (entered != glue::enter_result::ok) {
        VORX_WRAPPER_ASSERT(entered == glue::enter_result::acquired || entered == glue::enter_result::not_found);
        if constexpr (T::outside) {
            if (entered == glue::enter_result::not_found) return outside_call(f, nullptr);
        }
        return pass_through<T>(f, false);
    }
    set_up<T>(f);  // step 1, done once it is known that the thread is measured here
    if constexpr (T::outside) {
        // the process's signal world is kept by the owning routine, also for calls that an original makes
        if (f.old_level == level_original) {
            glue::wsp_t* wsp = f.wsp;
            leave(f, f.old_level);
            return outside_call(f, wsp);
        }
    }
    // step 5
    if (f.old_level == level_original) {
        glue::is_runtime_in_nested_original(glue::incomplete_wait(f.wsp), T::id, f.wsp);
        return pass_through<T>(f, true);
    }
    if constexpr (T::contention) VORX_WRAPPER_ASSERT(f.old_level != level_runtime);
    if (f.old_level != level_application) return pass_through<T>(f, true);
    if constexpr (T::wakes != wakes::none) {
        if (glue::conf_state() != 1) return pass_through<T>(f, true);
    }
    if constexpr (T::usync == usync::open) {
        // the wait is the time until the matching close: it lives in the thread's slots, not on this frame
        pre_times(f);
        glue::user_sync_open(f.wsp, &f.data, T::object(f.p()));
        return pass_through<T>(f, true);
    }
    bool released_known = false;
    if constexpr (T::kind == kind::heap) {
        if (!heap_pre_filter<T>(f.p())) return pass_through<T>(f, true);
        if constexpr (T::heap_frees) released_known = glue::heap_delete(T::heap_released(f.p()));
    }
    if constexpr (T::contention) {
        if (glue::contention_filter_on()) glue::push_sync(f.wsp, T::object(f.p()));
    }
    pre(f);  // steps 6, 7
    if constexpr (T::leaf) {
        if (!f.callbacks_due || !f.post_due) return leave_then_call(f);
    }
    constexpr bool waits = T::kind == kind::wait || T::kind == kind::wait_retry;
    if constexpr (waits) push_wait(f);  // step 8

    if constexpr (T::outside) {
        // the routine may block or run the application's handlers: the thread is out of the collector for it
        glue::wsp_t* wsp = f.wsp;
        leave(f, level_original);
        outside_call(f, wsp);
        glue::enter_result again = enter(f, false);
        if (again != glue::enter_result::ok) return finish(f);
    } else if constexpr (T::kind == kind::replaced) {
        // steps 9 to 12 belong to the owning subsystem's routine: it decides how (and at which level, with
        // which signals) the original is reached, and stores the result in the probe data
        app_errno(f) = f.err;
        void* trampoline = own_trampoline<T>(f.mod, f.ver);
        if (!T::replaced(f.wsp, &f.data, trampoline)) T::call(trampoline, f.p());
        f.err = app_errno(f);
    } else {
        clear_before_call(f);
        leave(f, level_original);  // step 9
        call<T>(f);                // step 10
        if constexpr (waits) pop_cleanup(f);  // step 11
        glue::enter_result again = enter(f, false);  // step 12
        if (again != glue::enter_result::ok) {
            VORX_WRAPPER_ASSERT(again == glue::enter_result::acquired || again == glue::enter_result::not_found ||
                                again == glue::enter_result::closed);
            return finish(f);
        }
    }
    bool report = f.callbacks_due;
    if constexpr (T::usync == usync::close) {
        // the record of a user wait runs from its open, and is made whatever its length
        f.data.locals.leave_time = glue::now();
        glue::user_sync_close(f.wsp, T::object(f.p()), &f.data.locals.enter_time);
        if (!pop_wait(f)) report = false;
    } else if constexpr (waits) {
        if (report) report = judge(f);              // step 13
        if (!pop_wait(f)) report = false;           // step 14
    } else if (report && f.post_due) {
        // only a post callback reads the end of an event: most annotation calls make one point record
        // before the call and need no second clock read
        f.data.locals.leave_time = glue::now();
    }
    if constexpr (T::wakes != wakes::none && T::own_wait) {
        if (report && glue::contention_filter_on() && glue::sync_waiters_possible()) wake_report(f);
    } else if constexpr (T::wakes != wakes::none) {
        if (report) report = wake_report(f);
    }
    if constexpr (T::kind == kind::heap) {
        if (report) report = heap_post(f, released_known);
    }
    if (report) run_callbacks(f, vorx_or_post);  // step 15
    leave(f, f.old_level);                        // step 16
    return finish(f);
}

// Leaf calls whose only work is the record before them (the annotation API's tasks, events and metadata
// while no stacks are taken): the thread enters, stamps the time, writes the record and leaves before the
// original. The callbacks of plain records read the parameters, the time, the state and the unit's choice
// alone, so none of the frame that waits, stacks and nesting need is set up. Anything else (another kind of
// callback, a call nested in an original or in the collector) takes the full path. The row's function builds
// the parameters in `data` itself (wrap_leaf), so that they are not copied once more, and takes this path in
// its own body: leaves are few (the annotation API), and a call less is a sixteenth of their cost.
template <class T>
[[gnu::always_inline]] inline typename T::result_t record_then_call(vorx_probe_data_t& data, unsigned mod,
                                                                    unsigned ver) {
    static_assert(T::kind == kind::event, "only plain events are leaves");
    typename T::params_t& args = T::in(data);
    const unsigned state = glue::conf_state();
    const unsigned pre_index = VORX_CALLBACK_INDEX(T::id, state, vorx_or_pre);
    if (!glue::records_only(pre_index, VORX_CALLBACK_INDEX(T::id, state, vorx_or_post)))
        return measure<T>(args, mod, ver);
    int* errno_at = glue::errno_location();
    const int err = *errno_at;
    glue::key_t key = nullptr;
    glue::wsp_t* wsp = nullptr;
    glue::mask_t saved{};
    unsigned old_level = level_application;
    glue::enter_result entered = enter_runtime(key, wsp, saved, &old_level);
    if (entered == glue::enter_result::ok) {
        bool nested = old_level != level_application;
        if (!nested) {
            data.next_wait = nullptr;
            data.locals.state = state;
            data.locals.to_aux_tmu = T::to_aux ? 1 : 0;
            data.locals.last_probe_id = T::id;
            data.locals.enter_time = data.locals.leave_time = glue::now();
            glue::run_plain_record(pre_index, wsp, &data);
        }
        leave_runtime(key, wsp, saved, old_level);
        if (nested) return measure<T>(args, mod, ver);
    } else {
        VORX_WRAPPER_ASSERT(entered == glue::enter_result::acquired || entered == glue::enter_result::not_found);
    }
    *errno_at = err;
    T::call(own_trampoline<T>(mod, ver), args);
    if constexpr (!std::is_void_v<typename T::result_t>) return args.__result;
}

template <class T, unsigned M, unsigned V>
inline typename T::result_t wrap(typename T::params_t& args) {
    if constexpr (T::kind == kind::thin) {
        return thin_path<T, M, V>(args);
    } else {
        static_assert(!T::leaf, "the rows of leaves build their parameters in place and call wrap_leaf");
        return measure<T>(args, M, V);
    }
}

// A row's function of a leaf: the parameters are built in the probe data that the record reads.
template <class T, unsigned M, unsigned V>
inline typename T::result_t wrap_leaf(vorx_probe_data_t& data) {
    static_assert(T::leaf && T::kind != kind::thin, "wrap_leaf is the leaves' own path");
    if (quick_path<T, M, V>(T::in(data))) {
        if constexpr (!std::is_void_v<typename T::result_t>) return T::in(data).__result;
        else return;
    }
    return record_then_call<T>(data, M, V);
}

}  // namespace vorx
