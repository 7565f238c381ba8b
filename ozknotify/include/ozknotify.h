/*
 * ozknotify.h: the annotation API of libozknotify.so.
 *
 * An application describes its own structure with these calls: named domains
 * of work, tasks inside them, frames of a render or simulation loop, counters,
 * its own synchronisation objects, its own heaps, and regions that a
 * parallelisation study should model. Link with -lozknotify.
 *
 * Without a collector every call is a cheap no-op that still behaves sensibly
 * for the program: creation functions return real, stable objects (the same
 * name gives the same pointer, from any thread, for the life of the process),
 * counters hold their value, the model's disable stack answers truthfully.
 * Under vorxtool the collector intercepts these functions and turns the calls
 * into trace records; the program sees the same results either way.
 *
 * General rules, valid for every function below unless it says otherwise:
 *  - Thread safety: every function may be called from any thread at any time,
 *    also before main() and from several threads at once. Nothing blocks; the
 *    creation functions are lock-free.
 *  - Text arguments are copied when the library keeps them; the caller keeps
 *    ownership of what it passes and may free it after the call. A null text
 *    is treated as the empty text.
 *  - Objects returned by the library (ozk_domain, ozk_string_handle,
 *    ozk_frame, ozk_counter) belong to the library and live until the process
 *    ends. The application reads their public fields and never writes them.
 *  - A null object argument is accepted and ignored.
 *  - Nothing here changes errno.
 */
#ifndef OZKNOTIFY_H
#define OZKNOTIFY_H

#include <stddef.h>

#define OZKNOTIFY_VERSION_MAJOR 1
#define OZKNOTIFY_VERSION_MINOR 0
#define OZKNOTIFY_VERSION_PATCH 0
/* One comparable number: 10000 * major + 100 * minor + patch. */
#define OZKNOTIFY_VERSION                                                                         \
    (OZKNOTIFY_VERSION_MAJOR * 10000 + OZKNOTIFY_VERSION_MINOR * 100 + OZKNOTIFY_VERSION_PATCH)

#if defined(OZKNOTIFY_BUILDING_LIBRARY)
#define OZKNOTIFY_API __attribute__((visibility("default")))
#else
#define OZKNOTIFY_API
#endif

#if defined(__cplusplus) || (defined(__STDC_VERSION__) && __STDC_VERSION__ >= 199901L)
#define OZK_INLINE static inline
#else
#define OZK_INLINE static __inline__
#endif

#ifdef __cplusplus
extern "C" {
#endif

/* ==== Objects ============================================================ */

/* The fields every library object begins with. `id` is the object's number in
 * traces: nonzero, unique among all objects of the process, never reused.
 * `name` is the library's own copy of the name. `collector_word` belongs to a
 * collector (0 until one has reported the object). `tag` and `link` are the
 * library's. */
#define OZK_OBJECT_HEADER                                                                         \
    unsigned int tag;                                                                             \
    unsigned int id;                                                                              \
    const char *name;                                                                             \
    volatile unsigned int collector_word;                                                         \
    void *link;                                                                                   \
    unsigned int hash

/* A named area of work, such as a subsystem or a library. Tasks, frames and
 * counters can be grouped by domain. */
typedef struct ozk_domain {
    OZK_OBJECT_HEADER;
} ozk_domain;

/* An interned text: one handle per distinct text. Use it for task names and
 * metadata keys, so that a record carries a number instead of the text. */
typedef struct ozk_string_handle {
    OZK_OBJECT_HEADER;
    void *counter_cache; /* the library's: last counter found through this name */
} ozk_string_handle;

/* A named kind of frame: one iteration of a loop that repeats (a rendered
 * image, a simulation step, a request). */
typedef struct ozk_frame {
    OZK_OBJECT_HEADER;
} ozk_frame;

/* Value types of a counter, given to __ozk_counter_create_typed. */
typedef enum ozk_counter_type {
    OZK_COUNTER_U64 = 0, /* the type of __ozk_counter_create */
    OZK_COUNTER_S64 = 1,
    OZK_COUNTER_U32 = 2,
    OZK_COUNTER_S32 = 3,
    OZK_COUNTER_DOUBLE = 4,
    OZK_COUNTER_FLOAT = 5
} ozk_counter_type;

/* A named value that the program raises, lowers or sets; a collector samples
 * it into the trace. The library keeps the current value in `value`: bits of
 * a 64-bit integer for the integer types (sign-extended for the signed ones),
 * of a double for the floating types. Read it with ozk_counter_value_*(). */
typedef struct ozk_counter {
    OZK_OBJECT_HEADER;
    const ozk_domain *domain;   /* null for a counter created without domain */
    int type;                   /* an ozk_counter_type */
    volatile int alive;         /* 0 after __ozk_counter_destroy */
    volatile unsigned long long value;
} ozk_counter;

/* An identifier of a task or a submitted frame, chosen by the program. It is
 * passed by value. OZK_NULL_ID means "none" (for example: no parent task). */
typedef struct ozk_id {
    unsigned long long words[3];
} ozk_id;

#define OZK_NULL_ID_INIT {{0, 0, 0}}

/* An id from two words of the program's choice (an address and a counter,
 * say); the third word is 0. */
OZK_INLINE ozk_id ozk_make_id(unsigned long long first, unsigned long long second)
{
    ozk_id id;
    id.words[0] = first;
    id.words[1] = second;
    id.words[2] = 0;
    return id;
}

OZK_INLINE ozk_id ozk_null_id(void)
{
    return ozk_make_id(0, 0);
}

/* A point in the caller's stack handed to another thread (stack stitching). */
typedef struct ozk_stack_ctx ozk_stack_ctx;

/* Element types of __ozk_metadata_add. */
typedef enum ozk_metadata_type {
    OZK_METADATA_UNKNOWN = 0,
    OZK_METADATA_U64 = 1,
    OZK_METADATA_S64 = 2,
    OZK_METADATA_U32 = 3,
    OZK_METADATA_S32 = 4,
    OZK_METADATA_U16 = 5,
    OZK_METADATA_S16 = 6,
    OZK_METADATA_FLOAT = 7,
    OZK_METADATA_DOUBLE = 8,
    OZK_METADATA_TEXT = 9 /* count bytes of UTF-8, no NUL needed */
} ozk_metadata_type;

/* Bytes of one element of a metadata type; 0 for an unknown type. */
OZK_INLINE size_t ozk_metadata_type_size(int type)
{
    static const unsigned char sizes[] = {0, 8, 8, 4, 4, 2, 2, 4, 8, 1};
    return (type >= 0 && type < (int)sizeof(sizes)) ? sizes[type] : 0;
}

/* ==== Collection control =================================================== */

/* Asks the collector to stop collecting (all threads) until __ozk_resume.
 * Objects created while paused are still named in the trace. */
OZKNOTIFY_API void __ozk_pause(void);
/* Asks the collector to collect again after __ozk_pause. */
OZKNOTIFY_API void __ozk_resume(void);
/* Asks the collector to detach from the process for good; the program runs on
 * unobserved. */
OZKNOTIFY_API void __ozk_detach(void);

/* ==== Threads =============================================================== */

/* Names the calling thread in the trace. `name` is copied by the collector;
 * the thread's name in the system is not changed. */
OZKNOTIFY_API void __ozk_thread_set_name(const char *name);
/* Asks the collector to leave the calling thread out of the trace from now
 * on. */
OZKNOTIFY_API void __ozk_thread_ignore(void);

/* ==== User synchronisation objects ========================================
 * The program's own locks, queues or flags, identified by any address that is
 * unique while the object lives. A wait is announced with prepare and closed
 * by acquired (got it) or cancel (gave up); releasing marks the moment another
 * thread may go on. The library only passes the calls on. */

/* Names a new object. `objtype` is a kind ("spin lock", "queue"), `objname`
 * its name; both are copied. `attribute` is reserved, pass 0. */
OZKNOTIFY_API void __ozk_sync_create(void *addr, const char *objtype, const char *objname,
                                     int attribute);
/* Gives the object `addr` a new name. */
OZKNOTIFY_API void __ozk_sync_rename(void *addr, const char *name);
/* As __ozk_sync_create, for an object that exists already. */
OZKNOTIFY_API void __ozk_sync_set_name(void *addr, const char *objtype, const char *objname,
                                       int attribute);
/* The object `addr` ends; its address may be reused afterwards. */
OZKNOTIFY_API void __ozk_sync_destroy(void *addr);
/* The calling thread starts to wait for `addr`. */
OZKNOTIFY_API void __ozk_sync_prepare(void *addr);
/* The calling thread stops waiting for `addr` without getting it. */
OZKNOTIFY_API void __ozk_sync_cancel(void *addr);
/* The calling thread got `addr` after __ozk_sync_prepare. */
OZKNOTIFY_API void __ozk_sync_acquired(void *addr);
/* The calling thread is about to release `addr` to waiting threads. */
OZKNOTIFY_API void __ozk_sync_releasing(void *addr);

/* ==== Domains, string handles, tasks ====================================== */

/* The domain named `name`, created at the first call. The same name gives the
 * same pointer from every thread. Never null. */
OZKNOTIFY_API ozk_domain *__ozk_domain_create(const char *name);
/* The handle of the text `name`, created at the first call; the same text
 * gives the same handle. Never null. */
OZKNOTIFY_API ozk_string_handle *__ozk_string_handle_create(const char *name);

/* Begins a task named `name` in `domain` on the calling thread. Tasks nest:
 * each begin is closed by one __ozk_task_end on the same thread. `taskid` and
 * `parentid` may be OZK_NULL_ID. */
OZKNOTIFY_API void __ozk_task_begin(const ozk_domain *domain, ozk_id taskid, ozk_id parentid,
                                    ozk_string_handle *name);
/* As __ozk_task_begin, named by the address of a function instead of a text. */
OZKNOTIFY_API void __ozk_task_begin_fn(const ozk_domain *domain, ozk_id taskid, ozk_id parentid,
                                       void *fn);
/* Ends the innermost task of the calling thread. An end without a begin is
 * ignored. */
OZKNOTIFY_API void __ozk_task_end(const ozk_domain *domain);
/* Begins a task that may overlap others of the same thread; it is closed by
 * __ozk_task_end_overlapped with the same `taskid`, in any order. */
OZKNOTIFY_API void __ozk_task_begin_overlapped(const ozk_domain *domain, ozk_id taskid,
                                               ozk_id parentid, ozk_string_handle *name);
/* Ends the overlapped task `taskid`. */
OZKNOTIFY_API void __ozk_task_end_overlapped(const ozk_domain *domain, ozk_id taskid);
/* Attaches `count` elements of `type` (an ozk_metadata_type) at `data` to the
 * task or frame `id` (OZK_NULL_ID: to the current task of the thread) under
 * the key `key`. The data is copied by the collector during the call. */
OZKNOTIFY_API void __ozk_metadata_add(const ozk_domain *domain, ozk_id id, ozk_string_handle *key,
                                      int type, size_t count, void *data);

/* ==== Frames =================================================================== */

/* The frame kind named `name`, created at the first call; same name, same
 * pointer. Never null. */
OZKNOTIFY_API ozk_frame *__ozk_frame_create(const char *name);
/* One frame of `frame` starts on the calling thread. */
OZKNOTIFY_API void __ozk_frame_begin(ozk_frame *frame);
/* The frame started by __ozk_frame_begin ends. */
OZKNOTIFY_API void __ozk_frame_end(ozk_frame *frame);
/* Reports a frame of `domain` after the fact, from `begin` to `end` in the
 * units of __ozk_get_timestamp. */
OZKNOTIFY_API void __ozk_frame_submit_v3(const ozk_domain *domain, ozk_id id,
                                         unsigned long long begin, unsigned long long end);

/* ==== Events ====================================================================== */

/* The number of the event kind `name` (its first `namelen` bytes; a `namelen`
 * of 0 or less takes the whole text). Same name, same number; always above
 * 0. */
OZKNOTIFY_API int __ozk_event_create(const char *name, int namelen);
/* An event of kind `event` starts on the calling thread. Returns 0, or -1 for
 * a number that __ozk_event_create never gave. */
OZKNOTIFY_API int __ozk_event_start(int event);
/* The event started last with `event` ends. Returns as __ozk_event_start. */
OZKNOTIFY_API int __ozk_event_end(int event);

/* ==== Counters ===================================================================== */

/* The counter `name` of the domain named `domain` (null: no domain), of type
 * OZK_COUNTER_U64, value 0 when new. The same pair of names gives the same
 * counter. Never null. */
OZKNOTIFY_API ozk_counter *__ozk_counter_create(const char *name, const char *domain);
/* As __ozk_counter_create with a value type (ozk_counter_type; an unknown type
 * counts as OZK_COUNTER_U64). A counter that exists keeps its first type. */
OZKNOTIFY_API ozk_counter *__ozk_counter_create_typed(const char *name, const char *domain,
                                                      int type);
/* The counter ends: further changes are ignored until it is created again,
 * which restarts it at 0. The pointer stays valid. */
OZKNOTIFY_API void __ozk_counter_destroy(ozk_counter *counter);
/* Adds 1. */
OZKNOTIFY_API void __ozk_counter_inc(ozk_counter *counter);
/* Adds `value`. */
OZKNOTIFY_API void __ozk_counter_inc_delta(ozk_counter *counter, unsigned long long value);
/* Subtracts 1. */
OZKNOTIFY_API void __ozk_counter_dec(ozk_counter *counter);
/* Subtracts `value`. */
OZKNOTIFY_API void __ozk_counter_dec_delta(ozk_counter *counter, unsigned long long value);
/* Sets the value from `value_ptr`, which points to a value of the counter's
 * type (unsigned long long for OZK_COUNTER_U64, double for
 * OZK_COUNTER_DOUBLE...). The value is read during the call. */
OZKNOTIFY_API void __ozk_counter_set_value(ozk_counter *counter, void *value_ptr);
/* The counter named by the handle `name` in `domain`, created at first use,
 * raised by 1. */
OZKNOTIFY_API void __ozk_counter_inc_v3(const ozk_domain *domain, const ozk_string_handle *name);
/* The same, raised by `delta`. */
OZKNOTIFY_API void __ozk_counter_inc_delta_v3(const ozk_domain *domain,
                                              const ozk_string_handle *name,
                                              unsigned long long delta);
/* The same, lowered by 1. */
OZKNOTIFY_API void __ozk_counter_dec_v3(const ozk_domain *domain, const ozk_string_handle *name);
/* The same, lowered by `delta`. */
OZKNOTIFY_API void __ozk_counter_dec_delta_v3(const ozk_domain *domain,
                                              const ozk_string_handle *name,
                                              unsigned long long delta);

/* Current value of a counter, converted. */
OZK_INLINE unsigned long long ozk_counter_value_u64(const ozk_counter *counter)
{
    /* One 64-bit load: two 32-bit halves could come from different updates. */
    return counter ? __atomic_load_n(&counter->value, __ATOMIC_RELAXED) : 0;
}
OZK_INLINE double ozk_counter_value_double(const ozk_counter *counter)
{
    union {
        unsigned long long bits;
        double value;
    } u;
    if (!counter)
        return 0.0;
    u.bits = __atomic_load_n(&counter->value, __ATOMIC_RELAXED);
    if (counter->type == OZK_COUNTER_DOUBLE || counter->type == OZK_COUNTER_FLOAT)
        return u.value;
    if (counter->type == OZK_COUNTER_S64 || counter->type == OZK_COUNTER_S32)
        return (double)(long long)u.bits;
    return (double)u.bits;
}

/* ==== Heap annotations ================================================================
 * For a program with its own allocator: the begin call comes before the
 * allocator's work, the end call after it, so that a collector counts the
 * block once even if the allocator itself calls malloc. `heap` is any address
 * that names the allocator. */

/* An allocation of `size` bytes starts; `initialized` is 1 if it is zeroed. */
OZKNOTIFY_API void __ozk_heap_allocate_begin(void *heap, size_t size, int initialized);
/* The allocation ended; `*addr` is the block (null if it failed). */
OZKNOTIFY_API void __ozk_heap_allocate_end(void *heap, void **addr, size_t size, int initialized);
/* Freeing `addr` starts. */
OZKNOTIFY_API void __ozk_heap_free_begin(void *heap, void *addr);
/* Freeing `addr` ended. */
OZKNOTIFY_API void __ozk_heap_free_end(void *heap, void *addr);
/* Resizing `addr` to `new_size` bytes starts. */
OZKNOTIFY_API void __ozk_heap_reallocate_begin(void *heap, void *addr, size_t new_size,
                                               int initialized);
/* Resizing ended; `*new_addr` is the block now. */
OZKNOTIFY_API void __ozk_heap_reallocate_end(void *heap, void *addr, void **new_addr,
                                             size_t new_size, int initialized);

/* ==== Stack stitching ======================================================================
 * A producer thread captures its stack with caller_create and hands the
 * context to the thread that does the work, which brackets the work with
 * callee_enter and callee_leave; a collector then shows the work under the
 * producer's stack. */

/* A new context for the caller's stack. Never null; free it with
 * __ozk_stack_caller_destroy. */
OZKNOTIFY_API ozk_stack_ctx *__ozk_stack_caller_create(void);
/* Frees a context of __ozk_stack_caller_create. Null is ignored. */
OZKNOTIFY_API void __ozk_stack_caller_destroy(ozk_stack_ctx *ctx);
/* The calling thread starts work on behalf of `ctx`. */
OZKNOTIFY_API void __ozk_stack_callee_enter(ozk_stack_ctx *ctx);
/* The work on behalf of `ctx` ends. */
OZKNOTIFY_API void __ozk_stack_callee_leave(ozk_stack_ctx *ctx);

/* ==== Parallelisation model ==================================================================
 * Marks of a serial program that a study projects as if it ran in parallel:
 * sites (parallel regions) hold tasks, tasks may take locks. `site`, `task`
 * and `lock` are any addresses that identify the mark; `obj` is reserved
 * (pass null); `name` is copied. */

OZKNOTIFY_API void __ozk_model_site_begin(void *site, void *obj, const char *name);
OZKNOTIFY_API void __ozk_model_site_end(void *site, void *obj);
OZKNOTIFY_API void __ozk_model_task_begin(void *task, void *obj, const char *name);
OZKNOTIFY_API void __ozk_model_task_end(void *task, void *obj);
OZKNOTIFY_API void __ozk_model_lock_acquire(void *lock);
OZKNOTIFY_API void __ozk_model_lock_release(void *lock);
/* Turns the model's collection off (`mode` nonzero) or on (`mode` 0) for the
 * calling thread until the matching pop. Pushes nest. */
OZKNOTIFY_API void __ozk_model_disable_push(int mode);
/* Undoes the last push of the calling thread; a pop without push is
 * ignored. */
OZKNOTIFY_API void __ozk_model_disable_pop(void);
/* 1 if the innermost push of the calling thread turned collection off. */
OZKNOTIFY_API int __ozk_model_is_collection_disabled(void);

/* ==== Library start and time ==================================================================== */

/* Called by the library itself when it is loaded, with its hand-over table
 * (ozknotify_api_table.h); a collector intercepts it. Applications do not
 * call it. */
OZKNOTIFY_API void __ozk_api_init(void *api_table, int init_type);
/* Now, in nanoseconds of the system's monotonic clock (raw where available),
 * the time base of __ozk_frame_submit_v3. */
OZKNOTIFY_API unsigned long long __ozk_get_timestamp(void);

/* ==== Collector extension ==========================================================================
 * Entries for runtimes that live beside the application (language agents,
 * allocator libraries). */

/* The calling thread enters a foreign runtime's own code: a collector treats
 * its calls as the runtime's, not the application's, until leave. Nests. */
OZKNOTIFY_API void ozkcolext_enter_runtime(void);
OZKNOTIFY_API void ozkcolext_leave_runtime(void);
/* As __ozk_thread_ignore, for a runtime's own threads. */
OZKNOTIFY_API void ozkcolext_ignore_thread(void);
/* Stores the state a runtime reports (0 or above) and returns the state stored
 * before; a negative `state` only asks. The initial state is 0. */
OZKNOTIFY_API int ozkcolext_report_state(int state);
/* The collector's profiling extension table of `version`; null when no
 * collector offers one. Return it with release_vorx_prof_extension_api. */
OZKNOTIFY_API void *get_vorx_prof_extension_api(int version);
OZKNOTIFY_API void release_vorx_prof_extension_api(void *api);

#ifdef __cplusplus
} /* extern "C" */

namespace ozk {

/* A task for the life of a scope:
 *     static ozk_domain *d = __ozk_domain_create("render");
 *     static ozk_string_handle *n = __ozk_string_handle_create("shade");
 *     { ozk::ScopedTask t(d, n); ... }                                        */
class ScopedTask {
public:
    ScopedTask(const ozk_domain *domain, ozk_string_handle *name,
               ozk_id id = ozk_null_id(), ozk_id parent = ozk_null_id())
        : domain_(domain)
    {
        __ozk_task_begin(domain, id, parent, name);
    }
    ~ScopedTask() { __ozk_task_end(domain_); }
    ScopedTask(const ScopedTask &) = delete;
    ScopedTask &operator=(const ScopedTask &) = delete;

private:
    const ozk_domain *domain_;
};

/* One frame for the life of a scope. */
class ScopedFrame {
public:
    explicit ScopedFrame(ozk_frame *frame) : frame_(frame) { __ozk_frame_begin(frame); }
    ~ScopedFrame() { __ozk_frame_end(frame_); }
    ScopedFrame(const ScopedFrame &) = delete;
    ScopedFrame &operator=(const ScopedFrame &) = delete;

private:
    ozk_frame *frame_;
};

/* A user-sync wait that is acquired when the scope is left normally:
 *     { ozk::ScopedSyncWait w(&q); pop(q); }                                  */
class ScopedSyncWait {
public:
    explicit ScopedSyncWait(void *object) : object_(object) { __ozk_sync_prepare(object); }
    ~ScopedSyncWait() { __ozk_sync_acquired(object_); }
    ScopedSyncWait(const ScopedSyncWait &) = delete;
    ScopedSyncWait &operator=(const ScopedSyncWait &) = delete;

private:
    void *object_;
};

} // namespace ozk
#endif /* __cplusplus */

#endif /* OZKNOTIFY_H */
