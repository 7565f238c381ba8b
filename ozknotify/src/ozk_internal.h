/*
 * Internal interfaces of libozknotify.so. Not for applications.
 *
 * Everything here is hidden in the shared library; only the entries of
 * ozknotify_api.def are exported (see ozknotify.map).
 */
#ifndef OZK_INTERNAL_H
#define OZK_INTERNAL_H

#include <stddef.h>

#include "ozknotify.h"
#include "ozknotify_api_table.h"

#ifdef __cplusplus
extern "C" {
#endif

#define OZK_HIDDEN __attribute__((visibility("hidden")))

/*
 * Every exported entry is a probe site: a collector overwrites its first five
 * bytes with a jump and runs the displaced bytes from a trampoline. Code that
 * depends on where it runs must not sit there: on 32-bit x86 position-
 * independent code often opens with a call to the PC thunk, which would hand
 * the trampoline's address to the GOT computation. So each entry opens with
 * five bytes of no-ops (patchable_function_entry) that any prober can move,
 * and the build forbids identical-code folding and tail calls, which could
 * turn an entry into a bare jump to a shared body. The no-ops cost about a
 * cycle.
 */
#define OZK_ENTRY                                                                                 \
    __attribute__((noinline, noclone, used, patchable_function_entry(5, 0))) OZKNOTIFY_API

/* ---- object kinds ---------------------------------------------------------- */

typedef enum ozk_kind {
    ozk_kind_domain = 0,
    ozk_kind_string_handle,
    ozk_kind_frame,
    ozk_kind_counter,
    ozk_kind_event,
    ozk_kind_eof
} ozk_kind;

/* Tags stored in `tag`: a pointer of the wrong kind is ignored, not used. */
#define OZK_TAG_BASE 0x4F5A0000u
#define OZK_TAG(kind) (OZK_TAG_BASE | (unsigned)(kind))

/* Any object, seen through its common header. */
typedef struct ozk_object {
    OZK_OBJECT_HEADER;
} ozk_object;

/* An event kind: an object with a header only; its id is the event number. */
typedef struct ozk_event_kind {
    OZK_OBJECT_HEADER;
} ozk_event_kind;

static inline int ozk_is_kind(const void *object, ozk_kind kind)
{
    return object && ((const ozk_object *)object)->tag == OZK_TAG(kind);
}

/* ---- arena (ozk_arena.c) ---------------------------------------------------- */

/* Zeroed memory that lives until the process ends; null only when the system
 * has no memory left. Lock-free; never touches the application's heap. */
OZK_HIDDEN void *ozk_arena_alloc(size_t size);
/* Copy of `length` bytes of `text` with a NUL added, in the arena. */
OZK_HIDDEN char *ozk_arena_strndup(const char *text, size_t length);

/* ---- registry of named objects (ozk_registry.c) ------------------------------- */

/* Fills the kind's own fields of a new object before anyone can see it. */
typedef void (*ozk_init_fn)(ozk_object *object, const void *arg);

/* The object of `kind` named by the first `length` bytes of `name`, and for
 * counters by `scope` too (the domain, may be null); created with `size`
 * bytes at the first request and handed to `init` (may be null) before it is
 * published. Lock-free; the same key gives the same pointer from every
 * thread. Null only when memory is exhausted. `created` (may be null) tells
 * whether this call made it. */
OZK_HIDDEN ozk_object *ozk_registry_get(ozk_kind kind, const char *name, size_t length,
                                        const void *scope, size_t size, ozk_init_fn init,
                                        const void *init_arg, int *created);
/* Highest id handed out so far. */
OZK_HIDDEN unsigned int ozk_registry_last_id(void);
/* Number of objects of `kind` (for tests and diagnostics). */
OZK_HIDDEN unsigned int ozk_registry_count(ozk_kind kind);

/* Fallback object when memory is exhausted, so that creation never returns
 * null: shared by every name, id 0. */
OZK_HIDDEN ozk_object *ozk_registry_fallback(ozk_kind kind);

/* ---- counters (ozk_counter.c) --------------------------------------------------- */

OZK_HIDDEN ozk_counter *ozk_counter_get(const char *name, const char *domain, int type);
OZK_HIDDEN ozk_counter *ozk_counter_get_v3(const ozk_domain *domain,
                                           const ozk_string_handle *name);
/* Adds `delta` (negative: subtracts) in the counter's own type. */
OZK_HIDDEN void ozk_counter_add(ozk_counter *counter, long long delta);
OZK_HIDDEN void ozk_counter_set(ozk_counter *counter, const void *value);
OZK_HIDDEN void ozk_counter_kill(ozk_counter *counter);

/* ---- stack-stitching contexts (ozk_stack.c) ------------------------------------ */

/* A fresh context, never null; recycled after destroy. */
OZK_HIDDEN ozk_stack_ctx *ozk_stack_ctx_create(void);
/* Returns `ctx` for reuse; null, foreign and already destroyed contexts are
 * ignored. */
OZK_HIDDEN void ozk_stack_ctx_destroy(ozk_stack_ctx *ctx);
OZK_HIDDEN unsigned int ozk_stack_ctx_is_live(const ozk_stack_ctx *ctx);

/* ---- per-thread state (ozk_thread.c) -------------------------------------------- */

#define OZK_MODEL_DISABLE_LEVELS 64

typedef struct ozk_thread_state {
    unsigned int task_depth;        /* open __ozk_task_begin */
    unsigned int frame_depth;       /* open __ozk_frame_begin */
    unsigned int heap_depth;        /* open __ozk_heap_*_begin */
    unsigned int runtime_depth;     /* open ozkcolext_enter_runtime */
    unsigned int model_depth;       /* pushes of __ozk_model_disable_push */
    unsigned long long model_modes; /* bit n: push n disabled collection */
    int ignored;                    /* __ozk_thread_ignore was called */
} ozk_thread_state;

OZK_HIDDEN ozk_thread_state *ozk_thread(void);

/* ---- hand-over table (ozk_table.c) ------------------------------------------------ */

OZK_HIDDEN extern ozk_api_table g_ozk_api_table;
/* Stores the mask of __ozk_api_init. */
OZK_HIDDEN void ozk_table_set_flags(ozk_api_table *table, int flags);
/* The collection state word of ozkcolext_report_state. */
OZK_HIDDEN int ozk_state_exchange(int state);

/* The library's own bodies of the table's slots. */
#define OZK_VIA_TABLE(ret, name, params, args) OZK_HIDDEN ret ozk_default_##name params;
#define OZK_TABLE_ONLY(ret, name, params, args) OZK_HIDDEN ret ozk_default_##name params;
#include "ozknotify_api.def"

/* ---- pause state --------------------------------------------------------------------- */

/* 1 between __ozk_pause and __ozk_resume, 2 after __ozk_detach. */
OZK_HIDDEN extern volatile int g_ozk_collection_state;
#define OZK_STATE_RESUMED 0
#define OZK_STATE_PAUSED 1
#define OZK_STATE_DETACHED 2

#ifdef __cplusplus
}
#endif

#endif /* OZK_INTERNAL_H */
