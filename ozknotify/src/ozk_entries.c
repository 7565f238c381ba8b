/*
 * The exported entries of libozknotify.so that the collector finds by symbol.
 *
 * Each one is a probe site (see OZK_ENTRY in ozk_internal.h) and, without a
 * collector, the whole behaviour the program sees: creation functions return
 * interned objects, counters count, begin/end pairs keep per-thread depths so
 * that an unbalanced end is harmless. Nothing here blocks or changes errno.
 */
#define _GNU_SOURCE
#include <errno.h>
#include <string.h>
#include <time.h>

#include "ozk_internal.h"

volatile int g_ozk_collection_state = OZK_STATE_RESUMED;

/* The prototypes of the public header and of the one list must agree. */
#define OZK_CHECK(ret, name, params)                                                              \
    _Static_assert(__builtin_types_compatible_p(__typeof__(&name), ret(*) params),               \
                   #name " differs between ozknotify.h and ozknotify_api.def");
#define OZK_DIRECT(ret, name, params, args) OZK_CHECK(ret, name, params)
#define OZK_VIA_TABLE(ret, name, params, args) OZK_CHECK(ret, name, params)
#include "ozknotify_api.def"

/* Creation may map memory, which can set errno on failure; the program's
 * errno stays as it was. */
static ozk_object *named(ozk_kind kind, const char *name, size_t length, size_t size)
{
    int saved = errno;
    ozk_object *object = ozk_registry_get(kind, name, length, NULL, size, NULL, NULL, NULL);
    errno = saved;
    return object ? object : ozk_registry_fallback(kind);
}

static void leave_depth(unsigned int *depth)
{
    if (*depth > 0)
        --*depth;
}

/* ---- collection control and threads -------------------------------------- */

static void set_state(int state)
{
    int current = __atomic_load_n(&g_ozk_collection_state, __ATOMIC_ACQUIRE);
    /* After a detach nothing comes back. */
    while (current != OZK_STATE_DETACHED &&
           !__atomic_compare_exchange_n(&g_ozk_collection_state, &current, state, 1,
                                        __ATOMIC_ACQ_REL, __ATOMIC_ACQUIRE)) {
    }
}

OZK_ENTRY void __ozk_pause(void)
{
    set_state(OZK_STATE_PAUSED);
}

OZK_ENTRY void __ozk_resume(void)
{
    set_state(OZK_STATE_RESUMED);
}

OZK_ENTRY void __ozk_detach(void)
{
    set_state(OZK_STATE_DETACHED);
}

OZK_ENTRY void __ozk_thread_set_name(const char *name)
{
}

OZK_ENTRY void __ozk_thread_ignore(void)
{
    ozk_thread()->ignored = 1;
}

/* ---- user synchronisation objects: the collector's business alone --------- */

OZK_ENTRY void __ozk_sync_create(void *addr, const char *objtype, const char *objname,
                                 int attribute)
{
}

OZK_ENTRY void __ozk_sync_rename(void *addr, const char *name)
{
}

OZK_ENTRY void __ozk_sync_set_name(void *addr, const char *objtype, const char *objname,
                                   int attribute)
{
}

OZK_ENTRY void __ozk_sync_destroy(void *addr)
{
}

OZK_ENTRY void __ozk_sync_prepare(void *addr)
{
}

OZK_ENTRY void __ozk_sync_cancel(void *addr)
{
}

OZK_ENTRY void __ozk_sync_acquired(void *addr)
{
}

OZK_ENTRY void __ozk_sync_releasing(void *addr)
{
}

/* ---- domains, string handles, tasks ------------------------------------------ */

OZK_ENTRY ozk_domain *__ozk_domain_create(const char *name)
{
    return (ozk_domain *)named(ozk_kind_domain, name, name ? strlen(name) : 0,
                               sizeof(ozk_domain));
}

OZK_ENTRY ozk_string_handle *__ozk_string_handle_create(const char *name)
{
    return (ozk_string_handle *)named(ozk_kind_string_handle, name, name ? strlen(name) : 0,
                                      sizeof(ozk_string_handle));
}

OZK_ENTRY void __ozk_task_begin(const ozk_domain *domain, ozk_id taskid, ozk_id parentid,
                                ozk_string_handle *name)
{
    ++ozk_thread()->task_depth;
}

OZK_ENTRY void __ozk_task_begin_fn(const ozk_domain *domain, ozk_id taskid, ozk_id parentid,
                                   void *fn)
{
    ++ozk_thread()->task_depth;
}

OZK_ENTRY void __ozk_task_end(const ozk_domain *domain)
{
    leave_depth(&ozk_thread()->task_depth);
}

/* ---- frames ------------------------------------------------------------------- */

OZK_ENTRY ozk_frame *__ozk_frame_create(const char *name)
{
    return (ozk_frame *)named(ozk_kind_frame, name, name ? strlen(name) : 0, sizeof(ozk_frame));
}

OZK_ENTRY void __ozk_frame_begin(ozk_frame *frame)
{
    if (ozk_is_kind(frame, ozk_kind_frame))
        ++ozk_thread()->frame_depth;
}

OZK_ENTRY void __ozk_frame_end(ozk_frame *frame)
{
    if (ozk_is_kind(frame, ozk_kind_frame))
        leave_depth(&ozk_thread()->frame_depth);
}

/* ---- events ---------------------------------------------------------------------- */

OZK_ENTRY int __ozk_event_create(const char *name, int namelen)
{
    size_t length = 0;
    if (name)
        length = namelen > 0 ? strnlen(name, (size_t)namelen) : strlen(name);
    return (int)named(ozk_kind_event, name, length, sizeof(ozk_event_kind))->id;
}

/* An event number is valid once some creation has handed it out. */
static int known_event(int event)
{
    return event > 0 && (unsigned int)event <= ozk_registry_last_id() ? 0 : -1;
}

OZK_ENTRY int __ozk_event_start(int event)
{
    return known_event(event);
}

OZK_ENTRY int __ozk_event_end(int event)
{
    return known_event(event);
}

/* ---- counters ---------------------------------------------------------------------- */

OZK_ENTRY ozk_counter *__ozk_counter_create(const char *name, const char *domain)
{
    int saved = errno;
    ozk_counter *counter = ozk_counter_get(name, domain, OZK_COUNTER_U64);
    errno = saved;
    return counter;
}

OZK_ENTRY void __ozk_counter_destroy(ozk_counter *counter)
{
    ozk_counter_kill(counter);
}

OZK_ENTRY void __ozk_counter_inc(ozk_counter *counter)
{
    ozk_counter_add(counter, 1);
}

OZK_ENTRY void __ozk_counter_inc_delta(ozk_counter *counter, unsigned long long value)
{
    ozk_counter_add(counter, (long long)value);
}

/* ---- heap annotations: depths only ---------------------------------------------------- */

OZK_ENTRY void __ozk_heap_allocate_begin(void *heap, size_t size, int initialized)
{
    ++ozk_thread()->heap_depth;
}

OZK_ENTRY void __ozk_heap_allocate_end(void *heap, void **addr, size_t size, int initialized)
{
    leave_depth(&ozk_thread()->heap_depth);
}

OZK_ENTRY void __ozk_heap_free_begin(void *heap, void *addr)
{
    ++ozk_thread()->heap_depth;
}

OZK_ENTRY void __ozk_heap_free_end(void *heap, void *addr)
{
    leave_depth(&ozk_thread()->heap_depth);
}

OZK_ENTRY void __ozk_heap_reallocate_begin(void *heap, void *addr, size_t new_size,
                                           int initialized)
{
    ++ozk_thread()->heap_depth;
}

OZK_ENTRY void __ozk_heap_reallocate_end(void *heap, void *addr, void **new_addr,
                                         size_t new_size, int initialized)
{
    leave_depth(&ozk_thread()->heap_depth);
}

/* ---- stack stitching ---------------------------------------------------------------------- */

OZK_ENTRY ozk_stack_ctx *__ozk_stack_caller_create(void)
{
    int saved = errno;
    ozk_stack_ctx *ctx = ozk_stack_ctx_create();
    errno = saved;
    return ctx;
}

OZK_ENTRY void __ozk_stack_caller_destroy(ozk_stack_ctx *ctx)
{
    ozk_stack_ctx_destroy(ctx);
}

OZK_ENTRY void __ozk_stack_callee_enter(ozk_stack_ctx *ctx)
{
}

OZK_ENTRY void __ozk_stack_callee_leave(ozk_stack_ctx *ctx)
{
}

/* ---- parallelisation model -------------------------------------------------------------------- */

OZK_ENTRY void __ozk_model_site_begin(void *site, void *obj, const char *name)
{
}

OZK_ENTRY void __ozk_model_site_end(void *site, void *obj)
{
}

OZK_ENTRY void __ozk_model_task_begin(void *task, void *obj, const char *name)
{
}

OZK_ENTRY void __ozk_model_task_end(void *task, void *obj)
{
}

OZK_ENTRY void __ozk_model_lock_acquire(void *lock)
{
}

OZK_ENTRY void __ozk_model_lock_release(void *lock)
{
}

/* The disable stack remembers the last 64 levels exactly; deeper pushes only
 * count, and report the deepest remembered level's mode. */
OZK_ENTRY void __ozk_model_disable_push(int mode)
{
    ozk_thread_state *t = ozk_thread();
    if (t->model_depth < OZK_MODEL_DISABLE_LEVELS) {
        unsigned long long bit = 1ull << t->model_depth;
        t->model_modes = mode ? (t->model_modes | bit) : (t->model_modes & ~bit);
    }
    ++t->model_depth;
}

OZK_ENTRY void __ozk_model_disable_pop(void)
{
    leave_depth(&ozk_thread()->model_depth);
}

OZK_ENTRY int __ozk_model_is_collection_disabled(void)
{
    const ozk_thread_state *t = ozk_thread();
    if (t->model_depth == 0)
        return 0;
    unsigned int level = t->model_depth < OZK_MODEL_DISABLE_LEVELS ? t->model_depth
                                                                    : OZK_MODEL_DISABLE_LEVELS;
    return (int)((t->model_modes >> (level - 1)) & 1u);
}

/* ---- library start and time ----------------------------------------------------------------------- */

/* A collector's probe rewrites `init_type` before this body runs; what
 * arrives here is the mask to keep. Only a table of this library's form is
 * written. */
OZK_ENTRY void __ozk_api_init(void *api_table, int init_type)
{
    ozk_api_table *table = api_table;
    if (!table || table->magic != OZK_API_TABLE_MAGIC || table->size < sizeof(ozk_api_table))
        return;
    ozk_table_set_flags(table, init_type);
}

OZK_ENTRY unsigned long long __ozk_get_timestamp(void)
{
    struct timespec now;
    int saved = errno;
    if (clock_gettime(CLOCK_MONOTONIC_RAW, &now) != 0 && clock_gettime(CLOCK_MONOTONIC, &now) != 0)
        now.tv_sec = now.tv_nsec = 0;
    errno = saved;
    return (unsigned long long)now.tv_sec * 1000000000ull + (unsigned long long)now.tv_nsec;
}

/* ---- collector extension ---------------------------------------------------------------------------- */

OZK_ENTRY void ozkcolext_enter_runtime(void)
{
    ++ozk_thread()->runtime_depth;
}

OZK_ENTRY void ozkcolext_leave_runtime(void)
{
    leave_depth(&ozk_thread()->runtime_depth);
}

OZK_ENTRY void ozkcolext_ignore_thread(void)
{
    ozk_thread()->ignored = 1;
}

OZK_ENTRY int ozkcolext_report_state(int state)
{
    return ozk_state_exchange(state);
}

/* Without a collector there is no extension table to give. */
OZK_ENTRY void *get_vorx_prof_extension_api(int version)
{
    return NULL;
}

OZK_ENTRY void release_vorx_prof_extension_api(void *api)
{
}
