/* Thread manager: the one authority on which threads of the studied process
 * the collector knows, and on who may touch a thread's private data now.
 *
 * A thread's private data is an opaque block of options.data_size bytes; the
 * collector plugs its behaviour in through the callbacks of the options block
 * (workspace set-up, attach, detach...). The manager knows nothing else.
 *
 * Contract of enter/release: `ok` from vorx_thread_manager_enter must be paired
 * with vorx_thread_manager_release; `acquired` (an outer frame of the same
 * thread holds the descriptor, e.g. a signal handler interrupted a wrapper)
 * must not be released. */
#ifndef VORX_THREAD_MANAGER_H
#define VORX_THREAD_MANAGER_H

#include <pthread.h>
#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif

typedef uint32_t vorx_u32_t;
typedef int32_t vorx_s32_t;
/* A key of the tool domain's thread-specific data (sal_alloc_tls). */
typedef pthread_key_t vorx_tls_key_t;

#define VORX_TM_MAGIC 0xBEAFu
#define VORX_TM_CACHE_LINE 64

/* Results of the public operations. */
typedef enum vorx_thread_manager_op_err {
  vorx_thread_manager_op_err_ok = 1,
  vorx_thread_manager_op_err_acquired = 2,         /* the caller already held the descriptor */
  vorx_thread_manager_op_err_closed = 3,           /* the manager isn't in threads_enabled */
  vorx_thread_manager_op_err_again = 4,            /* held by another thread, try again */
  vorx_thread_manager_op_err_empty = 5,            /* the last thread is gone */
  vorx_thread_manager_op_err_stop = 6,             /* a callback ends a walk */
  vorx_thread_manager_op_err_cont = 7,             /* a callback goes on with a walk */
  vorx_thread_manager_op_err_thread_not_found = 8,
  vorx_thread_manager_op_err_thread_found = 9,
  vorx_thread_manager_op_err_thread_attaching = 10, /* caught in attach_in_progress */
  vorx_thread_manager_op_err_thread_attached = 11,
  vorx_thread_manager_op_err_thread_detached = 12,  /* the thread exists and is detached */
  vorx_thread_manager_op_err_eof = 13
} vorx_thread_manager_op_err_t;

/* Results of the inner storage operations; numbered on their own. */
typedef enum vorx_tls_op_err {
  vorx_tls_op_err_ok = 1,
  vorx_tls_op_err_not_found = 2,
  vorx_tls_op_err_found = 3,
  vorx_tls_op_err_acquired = 4,
  vorx_tls_op_err_busy = 5,       /* held by another thread */
  vorx_tls_op_err_cont = 6,
  vorx_tls_op_err_stop = 7,
  vorx_tls_op_err_recursive = 8,
  vorx_tls_op_err_corrupted = 10, /* the TLS slot held a pointer without a valid magic */
  vorx_tls_op_err_ignored = 11,
  vorx_tls_op_err_eof = 12
} vorx_tls_op_err_t;

typedef enum vorx_ts_st {
  vorx_ts_st_unknown = 0,
  vorx_ts_st_detached = 1,
  vorx_ts_st_attach_in_progress = 2,
  vorx_ts_st_in_profiling = 3,
  vorx_ts_st_eof = 4
} vorx_ts_st_t;

typedef enum vorx_ts_desc_fl {
  vorx_ts_desc_fl_cached = 0,    /* the descriptor pointer sits in its thread's TLS slot */
  vorx_ts_desc_fl_recursive = 1, /* the owning thread is inside the manager's own code */
  vorx_ts_desc_fl_orphan = 2,    /* its thread died and the tid came back for another */
  vorx_ts_desc_fl_eof = 3
} vorx_ts_desc_fl_t;

/* Values of a thread's TLS slot below 4 are markers, anything else a descriptor. */
typedef enum vorx_ts_desc_ma {
  vorx_ts_desc_ma_empty = 0,   /* nothing known yet */
  vorx_ts_desc_ma_busy = 1,    /* inside the manager, no descriptor yet */
  vorx_ts_desc_ma_ignored = 2, /* never to be observed */
  vorx_ts_desc_ma_eof = 4
} vorx_ts_desc_ma_t;

typedef enum vorx_thr_mgr_st {
  vorx_thr_mgr_st_created = 1,
  vorx_thr_mgr_st_options_specified = 2,
  vorx_thr_mgr_st_threads_enabled = 3,
  vorx_thr_mgr_st_complete = 4
} vorx_thr_mgr_st_t;

/* Markers of the manager's `global` pointer; above eof it is a real block. */
typedef enum vorx_tsd_glob_ma {
  vorx_tsd_glob_ma_empty = 0,
  vorx_tsd_glob_ma_closing = 1, /* taken for destruction */
  vorx_tsd_glob_ma_eof = 2
} vorx_tsd_glob_ma_t;

/* Intrusive circular list link. */
typedef struct vorx_tm_link {
  struct vorx_tm_link* prev;
  struct vorx_tm_link* next;
} vorx_tm_link_t;

/* One 64-byte descriptor per known thread. Only the holder of `owner`
 * changes magic, state, flags and link. */
typedef struct vorx_ts_desc {
  union {
    struct {
      vorx_u32_t tid;
      volatile vorx_s32_t owner; /* tid of the holder, 0 when free; CAS to take, store to clear */
      vorx_u32_t magic;
      volatile vorx_u32_t state; /* vorx_ts_st_t */
      volatile vorx_u32_t flags[vorx_ts_desc_fl_eof];
      vorx_tm_link_t link;       /* both null while not in storage */
      void* tsd;                 /* the thread's private data block */
    } data;
    char padding[VORX_TM_CACHE_LINE];
  } l1;
} __attribute__((aligned(VORX_TM_CACHE_LINE))) vorx_ts_desc_t;

/* Storage: the list of descriptors and its recursive spin lock, alone on the
 * manager's first cache line. */
typedef struct vorx_tls {
  union {
    struct {
      vorx_tm_link_t head;
      volatile vorx_u32_t lock;
      vorx_u32_t depth;
      volatile vorx_u32_t waiters;
      vorx_u32_t spin_limit;
      volatile vorx_s32_t owner;
      vorx_u32_t magic;
      vorx_tls_key_t key;
      /* Descriptors in storage that no thread's slot caches yet. While it is
       * 0, a thread with an empty slot has nothing to find and skips the
       * lookup by tid: unobserved threads pay a few instructions. */
      volatile vorx_u32_t unclaimed;
    } data;
    char padding[VORX_TM_CACHE_LINE];
  } l1;
} __attribute__((aligned(VORX_TM_CACHE_LINE))) vorx_tls_t;

/* Callbacks through which the collector gives the blocks meaning. `desc` is
 * the descriptor, `data` the private block, `reg` what the registering party
 * handed to vorx_thread_manager_register. */
typedef vorx_u32_t (*vorx_tm_construct_cbk_t)(vorx_ts_desc_t* desc, void* data, void* reg);
typedef vorx_u32_t (*vorx_tm_data_cbk_t)(void* data, void* arg);
typedef vorx_u32_t (*vorx_tm_detach_cbk_t)(vorx_ts_desc_t* desc, void* data, void* arg);
typedef vorx_u32_t (*vorx_tm_global_cbk_t)(void* global, void* arg);
typedef vorx_u32_t (*vorx_tm_complete_global_cbk_t)(void* global);

typedef struct vorx_thread_manager_options {
  vorx_tls_key_t key;          /* allocated once by the caller, kept across restarts */
  vorx_u32_t data_size;        /* size of a thread's private block; not 0 */
  vorx_u32_t cache_limit;      /* most blocks kept for reuse */
  vorx_tm_construct_cbk_t alloc;   /* a fresh block was made */
  vorx_tm_construct_cbk_t init;    /* a block came from the free list */
  vorx_tm_data_cbk_t recycle;      /* a block goes to the free list */
  vorx_tm_data_cbk_t free;         /* a block is destroyed (argument 0) */
  vorx_tm_data_cbk_t resume;       /* detached -> attach_in_progress (arg: registration) */
  vorx_tm_data_cbk_t suspend;      /* attach_in_progress -> detached */
  vorx_tm_data_cbk_t attach;       /* attach_in_progress -> in_profiling, on the thread itself */
  vorx_tm_detach_cbk_t detach;     /* in_profiling -> detached; must return ok */
  /* Threads have a static TLS block: each keeps its slot there too, read on every enter without the
   * thread library's call. 0 where the thread pointer does not reach such a block yet. */
  vorx_u32_t mirror_slots;
} vorx_thread_manager_options_t;

typedef struct vorx_thr_mgr {
  vorx_tls_t tls;
  struct {
    vorx_tm_link_t head;           /* blocks go in at the head, come out at the tail */
    pthread_mutex_t mutex;
    vorx_u32_t cached_tsd_count;
    vorx_u32_t limit;
  } free_list;
  volatile vorx_u32_t state;       /* vorx_thr_mgr_st_t */
  pthread_mutex_t state_mutex;
  volatile vorx_u32_t threads_count; /* threads known or about to be known */
  vorx_u32_t magic;
  vorx_thread_manager_options_t options;
  void* volatile global;           /* block or vorx_tsd_glob_ma_* marker */
  vorx_u32_t global_size;
  pthread_mutex_t global_mutex;
  vorx_tm_global_cbk_t alloc_global;
  vorx_tm_global_cbk_t free_global;
  vorx_tm_complete_global_cbk_t complete_global;
} __attribute__((aligned(VORX_TM_CACHE_LINE))) vorx_thr_mgr_t;

/* Walk callback of iterate, execute and enumerate: returns
 * vorx_thread_manager_op_err_cont to go on or _stop to end the walk. */
typedef vorx_u32_t (*vorx_thread_manager_walk_cbk_t)(vorx_ts_desc_t* desc, void* tsd, void* data);

/* The process's manager. */
extern vorx_thr_mgr_t* g_vorx_thread_manager;

vorx_u32_t vorx_thread_manager_create(vorx_thr_mgr_t** out, vorx_u32_t global_size,
                                      vorx_tm_global_cbk_t alloc_global,
                                      vorx_tm_global_cbk_t free_global,
                                      vorx_tm_complete_global_cbk_t complete_global,
                                      const vorx_thread_manager_options_t* options);
/* Frees a manager that is complete (or never enabled). Only tests and tear-down use it. */
void vorx_thread_manager_destroy(vorx_thr_mgr_t* mgr);
vorx_u32_t vorx_thread_manager_enable_threads(vorx_thr_mgr_t* mgr,
                                              const vorx_thread_manager_options_t* options);
vorx_u32_t vorx_thread_manager_create_global(vorx_thr_mgr_t* mgr);
vorx_u32_t vorx_thread_manager_lock_global(vorx_thr_mgr_t* mgr, void** out_global);
void vorx_thread_manager_unlock_global(vorx_thr_mgr_t* mgr);
void vorx_thread_manager_reserve(vorx_thr_mgr_t* mgr);
vorx_u32_t vorx_thread_manager_cancel(vorx_thr_mgr_t* mgr);
void vorx_thread_manager_ignore(vorx_thr_mgr_t* mgr);
vorx_u32_t vorx_thread_manager_register(vorx_thr_mgr_t* mgr, vorx_u32_t tid, void* reg);
vorx_u32_t vorx_thread_manager_unregister(vorx_thr_mgr_t* mgr, vorx_u32_t tid, void* arg);
vorx_u32_t vorx_thread_manager_enter(vorx_thr_mgr_t* mgr, vorx_ts_desc_t** key, void** out_data);
/* Empties the calling thread's slot, as a thread new to the manager finds it: for a thread that takes
 * over the id of one that ended, and for tests that stand in for such a thread. The slot is written only
 * through the manager, which may keep it in the thread's static TLS as well. */
void vorx_thread_manager_forget_slot(vorx_thr_mgr_t* mgr);
vorx_u32_t vorx_thread_manager_catch(vorx_thr_mgr_t* mgr, vorx_ts_desc_t* desc, void** out_data);
#ifdef VORX_TM_HELGRIND
#include <valgrind/helgrind.h>
#endif

/* The thread's slot of a manager whose options mirror slots, kept in static TLS as well: it holds what the
 * slot holds while `mgr` and `generation` match (a new generation begins with every setup and destruction
 * of a manager, so a mirror of a manager set up anew is never taken). `writes` counts the thread's writes. */
typedef struct vorx_tm_slot_mirror {
  const struct vorx_thr_mgr* mgr;
  vorx_u32_t generation; /* 0: nothing mirrored */
  vorx_u32_t writes;
  void* value;
} vorx_tm_slot_mirror_t;
extern __thread vorx_tm_slot_mirror_t vorx_t_tm_slot __attribute__((tls_model("initial-exec")));
extern vorx_u32_t g_vorx_tm_slot_generation;

/* enter, with the common case inline: the descriptor is the caller's key or, for a first enter, the one
 * that the thread's mirrored slot holds; it is free, in storage and in profiling. Everything else (no
 * mirror, nested, caught, attaching, detached) is decided by vorx_thread_manager_enter. */
static inline vorx_u32_t vorx_thread_manager_enter_quick(vorx_thr_mgr_t* m, vorx_ts_desc_t** key,
                                                         void** out_data) {
  vorx_ts_desc_t* d = *key;
  if (__builtin_expect(m == 0 || m->state != vorx_thr_mgr_st_threads_enabled, 0))
    return vorx_thread_manager_enter(m, key, out_data);
  if (!d && m->options.mirror_slots && vorx_t_tm_slot.mgr == m &&
      vorx_t_tm_slot.generation == __atomic_load_n(&g_vorx_tm_slot_generation, __ATOMIC_ACQUIRE))
    d = (vorx_ts_desc_t*)vorx_t_tm_slot.value;
  vorx_s32_t previous = 0;
  if ((uintptr_t)d >= vorx_ts_desc_ma_eof && d->l1.data.magic == VORX_TM_MAGIC &&
      !d->l1.data.flags[vorx_ts_desc_fl_recursive] && d->l1.data.state == vorx_ts_st_in_profiling &&
      __atomic_compare_exchange_n(&d->l1.data.owner, &previous, (vorx_s32_t)d->l1.data.tid, 0, __ATOMIC_ACQUIRE,
                                  __ATOMIC_RELAXED)) {
    /* Held: only the holder changes state and link, so what is read now stays true. */
    if (__builtin_expect(d->l1.data.link.next != 0 && d->l1.data.state == vorx_ts_st_in_profiling, 1)) {
#ifdef VORX_TM_HELGRIND
      ANNOTATE_HAPPENS_AFTER(&d->l1.data.owner);
#endif
      *key = d;
      *out_data = d->l1.data.tsd;
      return vorx_thread_manager_op_err_ok;
    }
    __atomic_store_n(&d->l1.data.owner, 0, __ATOMIC_RELEASE);
  }
  return vorx_thread_manager_enter(m, key, out_data);
}
/* One plain store: the caller must hold the descriptor (enter gave ok). */
static inline void vorx_thread_manager_release(vorx_thr_mgr_t* mgr, vorx_ts_desc_t* desc) {
  (void)mgr;
#ifdef VORX_TM_HELGRIND
  ANNOTATE_HAPPENS_BEFORE(&desc->l1.data.owner);
#endif
  __atomic_store_n(&desc->l1.data.owner, 0, __ATOMIC_RELEASE);
}
vorx_u32_t vorx_thread_manager_attach(vorx_thr_mgr_t* mgr, vorx_ts_desc_t* key);
vorx_u32_t vorx_thread_manager_execute(vorx_thr_mgr_t* mgr, vorx_ts_desc_t* own_key, vorx_u32_t tid,
                                       vorx_thread_manager_walk_cbk_t callback, void* data);
vorx_u32_t vorx_thread_manager_iterate(vorx_thr_mgr_t* mgr, vorx_ts_desc_t* own_key,
                                       vorx_thread_manager_walk_cbk_t callback, void* data);
vorx_u32_t vorx_thread_manager_enumerate(vorx_thr_mgr_t* mgr, vorx_thread_manager_walk_cbk_t callback,
                                         void* data);
void vorx_thread_manager_complete_threads(vorx_thr_mgr_t* mgr);
/* Non-zero while the calling thread is inside the manager's slower paths (its guard is up): a signal
 * handler must not use the manager then. Signals counted in vorx_t_tm_signals_waiting meanwhile are handed
 * to vorx_thread_manager_signals_hook, if the program has one, as soon as the guard is down. */
int vorx_thread_manager_busy_here(vorx_thr_mgr_t* mgr);
extern __thread vorx_u32_t vorx_t_tm_signals_waiting __attribute__((tls_model("initial-exec")));
void vorx_thread_manager_reset_threads(vorx_thr_mgr_t* mgr);

/* Cache-line allocation of the manager's blocks: `size` bytes zeroed. Freeing
 * zeroes the block first so that a stale pointer fails its magic test. */
void* vorx__cache_align_alloc(vorx_u32_t size);
void vorx__cache_align_free(void* p, vorx_u32_t size);

#ifdef __cplusplus
}
#endif

#endif
