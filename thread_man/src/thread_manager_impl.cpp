/* Thread manager.
 *
 * Lock order, outermost first: state mutex, storage lock, a descriptor's
 * `owner`, free-list mutex. The global mutex stands alone.
 *
 * The storage list changes only while its changer holds the storage lock, has
 * blocked every descriptor of the list with its own tid, and has all signals
 * blocked. Hence a thread that holds its own descriptor knows that no list
 * change can finish meanwhile: iterate and execute walk without a lock.
 *
 * Everything that walks or changes storage runs inside the recursion guard,
 * because it may allocate or lock, and those calls land in wrappers that call
 * enter on this same thread: the guard makes such an enter answer
 * thread_not_found. */
#include <signal.h>
#include <sys/syscall.h>
#include <unistd.h>
#include <stddef.h>
#include <stdlib.h>
#include <string.h>
#include <time.h>

#include "thread_manager.h"
#include "tm_platform.h"

extern "C" {
vorx_thr_mgr_t* g_vorx_thread_manager = nullptr;
__thread vorx_tm_slot_mirror_t vorx_t_tm_slot __attribute__((tls_model("initial-exec")));
__thread vorx_u32_t vorx_t_tm_signals_waiting __attribute__((tls_model("initial-exec")));
extern "C" void vorx_thread_manager_signals_hook(void) __attribute__((weak));
vorx_u32_t g_vorx_tm_slot_generation = 1;
}

namespace {

using desc_t = vorx_ts_desc_t;
using mgr_t = vorx_thr_mgr_t;

constexpr vorx_u32_t kOk = vorx_thread_manager_op_err_ok;
constexpr long kStorageBackoffNs = 50000000;  // sleep while the storage lock is contended
constexpr int kBlockTriesBeforeYield = 10;
constexpr vorx_u32_t kTsdTailSize = 16;

/* ---- small accessors ------------------------------------------------- */

inline auto& D(desc_t* d) { return d->l1.data; }
inline auto& S(mgr_t* m) { return m->tls.l1.data; }

inline bool is_pointer(const void* slot) { return (uintptr_t)slot >= vorx_ts_desc_ma_eof; }
inline bool magic_ok(desc_t* d) { return D(d).magic == VORX_TM_MAGIC; }
inline bool in_storage(desc_t* d) { return D(d).link.next != nullptr; }
inline desc_t* desc_of(vorx_tm_link_t* l) {
  return (desc_t*)((char*)l - offsetof(desc_t, l1.data.link));
}

/* Slots are read on every enter: where threads have static TLS, each thread's slot is mirrored there
 * (vorx_tm_slot_mirror_t), which saves the thread library's call and some forty instructions. */
inline bool mirrored(mgr_t* m) { return m->options.mirror_slots != 0; }

inline void mirror_keep(mgr_t* m, void* v) {
  vorx_t_tm_slot.generation = 0;
  __atomic_signal_fence(__ATOMIC_SEQ_CST);
  vorx_t_tm_slot.mgr = m;
  vorx_t_tm_slot.value = v;
  __atomic_signal_fence(__ATOMIC_SEQ_CST);
  vorx_t_tm_slot.generation = __atomic_load_n(&g_vorx_tm_slot_generation, __ATOMIC_ACQUIRE);
}

inline void* slot_read(mgr_t* m) {
  if (!mirrored(m)) return pthread_getspecific(S(m).key);
  if (vorx_t_tm_slot.mgr == m &&
      vorx_t_tm_slot.generation == __atomic_load_n(&g_vorx_tm_slot_generation, __ATOMIC_ACQUIRE))
    return vorx_t_tm_slot.value;
  vorx_u32_t writes = vorx_t_tm_slot.writes;
  void* v = pthread_getspecific(S(m).key);
  if (vorx_t_tm_slot.writes == writes) mirror_keep(m, v);
  return v;
}

inline void slot_write(mgr_t* m, const void* v) {
  if (!mirrored(m)) {
    pthread_setspecific(S(m).key, v);
    return;
  }
  ++vorx_t_tm_slot.writes;
  vorx_t_tm_slot.generation = 0;
  __atomic_signal_fence(__ATOMIC_SEQ_CST);
  pthread_setspecific(S(m).key, v);
  mirror_keep(m, const_cast<void*>(v));
}

/* Signals that came while this thread was inside the manager's slower paths wait until it is out of them
 * (the signal layer counts them here); the manager's own state must never be met half changed. */
inline void guard_down_done() {
  if (__builtin_expect(vorx_t_tm_signals_waiting != 0, 0) && vorx_thread_manager_signals_hook)
    vorx_thread_manager_signals_hook();
}

/* Every mirror taken so far is out of date. */
inline void slots_renewed() { __atomic_add_fetch(&g_vorx_tm_slot_generation, 1, __ATOMIC_ACQ_REL); }

inline void list_init(vorx_tm_link_t* head) { head->prev = head->next = head; }
inline bool list_empty(const vorx_tm_link_t* head) { return head->next == head; }
inline void list_add_tail(vorx_tm_link_t* head, vorx_tm_link_t* l) {
  l->prev = head->prev;
  l->next = head;
  head->prev->next = l;
  head->prev = l;
}
inline void list_add_head(vorx_tm_link_t* head, vorx_tm_link_t* l) {
  l->next = head->next;
  l->prev = head;
  head->next->prev = l;
  head->next = l;
}
inline void list_del(vorx_tm_link_t* l) {
  l->prev->next = l->next;
  l->next->prev = l->prev;
  l->prev = l->next = nullptr;
}

/* ---- signals ----------------------------------------------------------- */

/* Handlers of this same thread may walk the list: pointers move only with
 * every signal held back. */
struct signals_blocked {
  sigset_t saved;
  signals_blocked() {
    sigset_t all;
    sigfillset(&all);
    pthread_sigmask(SIG_BLOCK, &all, &saved);
  }
  ~signals_blocked() { pthread_sigmask(SIG_SETMASK, &saved, nullptr); }
};

/* ---- storage lock: recursive spin lock with a sleeping back-off --------- */

void storage_lock_as(mgr_t* m, vorx_s32_t self) {
  auto& s = S(m);
  if (s.owner == self) {
    ++s.depth;
    return;
  }
  vorx_u32_t waiting = __atomic_add_fetch(&s.waiters, 1, __ATOMIC_ACQ_REL);
  for (;;) {
    vorx_u32_t expected = 0;
    if (__atomic_compare_exchange_n(&s.lock, &expected, 1, false, __ATOMIC_ACQUIRE, __ATOMIC_RELAXED))
      break;
    if (waiting >= s.spin_limit) {
      struct timespec pause = {0, kStorageBackoffNs};
      syscall(SYS_nanosleep, &pause, nullptr);  // not the library's: a cancellation point
      waiting = s.waiters;
    }
  }
  VORX_TM_LOCK_ACQUIRED(&s.lock);
  s.depth = 1;
  s.owner = self;
}

void storage_lock(mgr_t* m) { storage_lock_as(m, (vorx_s32_t)sal_thread_id()); }

void storage_unlock(mgr_t* m) {
  auto& s = S(m);
  /* Plain decrement on every leave, also on a recursive one that never added:
   * the count drifts and only shortens the spinning before sleeps. */
  s.waiters = s.waiters - 1;
  if (--s.depth == 0) {
    s.owner = 0;
    VORX_TM_LOCK_RELEASED(&s.lock);
    __atomic_exchange_n(&s.lock, 0, __ATOMIC_RELEASE);
  }
}

void storage_setup(mgr_t* m, vorx_tls_key_t key) {
  auto& s = S(m);
  list_init(&s.head);
  s.lock = 0;
  s.depth = 0;
  s.waiters = 0;
  s.spin_limit = sal_get_cpu_number() / 2;
  s.owner = 0;
  s.magic = VORX_TM_MAGIC;
  s.key = key;
  s.unclaimed = 0;
  slots_renewed();
  VORX_TM_LOCK_CREATED(&s.lock);
  VORX_TM_SYNC_WORD(&s.lock);
  VORX_TM_SYNC_WORD(&s.waiters);
  VORX_TM_SYNC_WORD(&s.owner);
}

/* A descriptor in storage got its thread's slot, or left storage unclaimed. */
inline void claim(mgr_t* m) { __atomic_sub_fetch(&S(m).unclaimed, 1, __ATOMIC_RELAXED); }
inline void raise_cached(mgr_t* m, desc_t* d) {
  D(d).flags[vorx_ts_desc_fl_cached] = 1;
  claim(m);
}

/* ---- descriptor holding ------------------------------------------------ */

vorx_u32_t ts_desc_try_block(desc_t* d, vorx_s32_t owner) {
  vorx_s32_t previous_owner = 0;
  if (__atomic_compare_exchange_n(&D(d).owner, &previous_owner, owner, false, __ATOMIC_ACQUIRE,
                                  __ATOMIC_RELAXED)) {
    VORX_TM_HAPPENS_AFTER(&D(d).owner);
    return vorx_tls_op_err_ok;
  }
  if (previous_owner == owner) return vorx_tls_op_err_acquired;
  VORX_TM_ASSERT_DESC(previous_owner > 0, d);
  return vorx_tls_op_err_busy;
}

vorx_u32_t ts_desc_block(desc_t* d, vorx_s32_t owner) {
  for (;;) {
    for (int i = 0; i < kBlockTriesBeforeYield; ++i) {
      vorx_u32_t r = ts_desc_try_block(d, owner);
      if (r != vorx_tls_op_err_busy) return r;
    }
    sal_yield();
  }
}

vorx_u32_t ts_desc_unblock(desc_t* d) {
  VORX_TM_HAPPENS_BEFORE(&D(d).owner);
  __atomic_store_n(&D(d).owner, 0, __ATOMIC_RELEASE);
  return vorx_tls_op_err_cont;
}

/* Walks storage; stops when fn gives vorx_tls_op_err_stop. The list must not
 * change under the walk (lock held, or own descriptor held). */
template <class Fn>
vorx_u32_t tls_walk(mgr_t* m, Fn fn) {
  vorx_tm_link_t* head = &S(m).head;
  for (vorx_tm_link_t* l = head->next; l != head;) {
    vorx_tm_link_t* next = l->next;
    if (fn(desc_of(l)) == vorx_tls_op_err_stop) return vorx_tls_op_err_stop;
    l = next;
  }
  return vorx_tls_op_err_cont;
}

desc_t* tls_find(mgr_t* m, vorx_u32_t tid) {
  desc_t* found = nullptr;
  tls_walk(m, [&](desc_t* d) {
    if (D(d).tid != tid || D(d).flags[vorx_ts_desc_fl_orphan]) return vorx_tls_op_err_cont;
    found = d;
    return vorx_tls_op_err_stop;
  });
  return found;
}

void block_all(mgr_t* m, vorx_s32_t owner) {
  tls_walk(m, [&](desc_t* d) {
    ts_desc_block(d, owner);
    return vorx_tls_op_err_cont;
  });
}

void unblock_all(mgr_t* m) {
  tls_walk(m, [](desc_t* d) { return ts_desc_unblock(d); });
}

/* ---- recursion guard --------------------------------------------------- */

vorx_u32_t tls_disable_recursion(mgr_t* m, desc_t** self) {
  // A signal handler of this thread that enters between the read of the slot and the mark would see the slot
  // unmarked, cache the thread's entry there, and have its work undone by the mark written after it: the
  // read and the mark are one step for the handlers. Only the manager's slower paths come here.
  signals_blocked quiet;
  void* slot = slot_read(m);
  *self = (desc_t*)slot;
  switch ((uintptr_t)slot) {
    case vorx_ts_desc_ma_empty:
      slot_write(m, (void*)vorx_ts_desc_ma_busy);
      return vorx_tls_op_err_ok;
    case vorx_ts_desc_ma_busy:
      return vorx_tls_op_err_recursive;
    case vorx_ts_desc_ma_ignored:
      return vorx_tls_op_err_ignored;
    case 3:
      VORX_TM_UNREACHABLE("__tls__disable_recursion__unreachable");
      return vorx_tls_op_err_corrupted;
    default:
      break;
  }
  desc_t* d = (desc_t*)slot;
  if (!magic_ok(d)) {
    *self = nullptr;
    return vorx_tls_op_err_corrupted;
  }
  if (D(d).flags[vorx_ts_desc_fl_recursive]) return vorx_tls_op_err_recursive;
  D(d).flags[vorx_ts_desc_fl_recursive] = 1;
  return vorx_tls_op_err_ok;
}

void tls_enable_recursion(mgr_t* m, desc_t* self) {
  if (is_pointer(self)) {
    VORX_TM_ASSERT_DESC(self->l1.data.magic == VORX_TM_MAGIC, self);
    VORX_TM_ASSERT_DESC(self->l1.data.flags[vorx_ts_desc_fl_recursive] != 0, self);
    D(self).flags[vorx_ts_desc_fl_recursive] = 0;
    guard_down_done();
    return;
  }
  if (self == nullptr) {
    slot_write(m, nullptr);
    guard_down_done();
    return;
  }
  desc_t* desc = self;
  VORX_TM_ASSERT(desc == (vorx_ts_desc_t*)vorx_ts_desc_ma_ignored);
}

/* Guard up: recursive is a legal refusal, ok and ignored go on. */
vorx_u32_t guard_up(mgr_t* m, desc_t** self) {
  vorx_u32_t guard = tls_disable_recursion(m, self);
  VORX_TM_ASSERT_MSG(guard == vorx_tls_op_err_ok || guard == vorx_tls_op_err_ignored ||
                         guard == vorx_tls_op_err_recursive,
                     "guard == %u", guard);
  return guard;
}

vorx_s32_t current_tid(vorx_u32_t guard, desc_t* self) {
  if (guard == vorx_tls_op_err_ok && is_pointer(self)) return (vorx_s32_t)D(self).tid;
  return (vorx_s32_t)sal_thread_id();
}

/* ---- allocation -------------------------------------------------------- */

struct tsd_tail {
  vorx_u32_t size;
  vorx_u32_t magic;
  vorx_tm_link_t link; /* chains the block on the free list; null in use */
};
static_assert(sizeof(tsd_tail) == kTsdTailSize);

inline tsd_tail* tail_of(mgr_t* m, void* tsd) {
  return (tsd_tail*)((char*)tsd + m->options.data_size);
}
inline void* tsd_of(mgr_t* m, vorx_tm_link_t* l) {
  return (char*)l - offsetof(tsd_tail, link) - m->options.data_size;
}

void* thr_mgr_alloc_tsd(mgr_t* m, bool* fresh) {
  pthread_mutex_lock(&m->free_list.mutex);
  if (!list_empty(&m->free_list.head)) {
    vorx_tm_link_t* oldest = m->free_list.head.prev;
    list_del(oldest);
    --m->free_list.cached_tsd_count;
    pthread_mutex_unlock(&m->free_list.mutex);
    void* tsd = tsd_of(m, oldest);
    tsd_tail* tail = tail_of(m, tsd);
    VORX_TM_ASSERT(tail->magic == VORX_TM_MAGIC);
    VORX_TM_ASSERT(tail->size == m->options.data_size);
    *fresh = false;
    return tsd;
  }
  pthread_mutex_unlock(&m->free_list.mutex);
  void* tsd = vorx__cache_align_alloc(m->options.data_size + kTsdTailSize);
  tsd_tail* tail = tail_of(m, tsd);
  tail->size = m->options.data_size;
  tail->magic = VORX_TM_MAGIC;
  *fresh = true;
  return tsd;
}

void thr_mgr_release_tsd(mgr_t* m, void* tsd, void* arg) {
  pthread_mutex_lock(&m->free_list.mutex);
  if (m->free_list.cached_tsd_count >= m->free_list.limit) {
    pthread_mutex_unlock(&m->free_list.mutex);
    if (m->options.free) m->options.free(tsd, nullptr);
    vorx__cache_align_free(tsd, m->options.data_size + kTsdTailSize);
    return;
  }
  ++m->free_list.cached_tsd_count; /* the place is reserved before recycling runs unlocked */
  pthread_mutex_unlock(&m->free_list.mutex);
  if (m->options.recycle) m->options.recycle(tsd, arg);
  pthread_mutex_lock(&m->free_list.mutex);
  list_add_head(&m->free_list.head, &tail_of(m, tsd)->link);
  pthread_mutex_unlock(&m->free_list.mutex);
}

void free_list_drain(mgr_t* m) {
  pthread_mutex_lock(&m->free_list.mutex);
  while (!list_empty(&m->free_list.head)) {
    vorx_tm_link_t* l = m->free_list.head.next;
    list_del(l);
    --m->free_list.cached_tsd_count;
    void* tsd = tsd_of(m, l);
    if (m->options.free) m->options.free(tsd, nullptr);
    vorx__cache_align_free(tsd, m->options.data_size + kTsdTailSize);
  }
  pthread_mutex_unlock(&m->free_list.mutex);
}

desc_t* ts_desc_alloc(vorx_u32_t tid, void* tsd) {
  desc_t* d = (desc_t*)vorx__cache_align_alloc(sizeof(desc_t));
  D(d).tid = tid;
  D(d).magic = VORX_TM_MAGIC;
  D(d).state = vorx_ts_st_detached;
  D(d).tsd = tsd;
  VORX_TM_SYNC_WORD(&D(d).owner);
  return d;
}

void ts_desc_free(desc_t* d) { vorx__cache_align_free(d, sizeof(desc_t)); }

/* ---- state changes of one descriptor (caller holds it) ------------------ */

vorx_u32_t thr_mgr_change_state(mgr_t* m, desc_t* d, vorx_u32_t to, void* arg) {
  VORX_TM_ASSERT(to > vorx_ts_st_unknown && to < vorx_ts_st_eof);
  auto& o = m->options;
  void* tsd = D(d).tsd;
  switch (D(d).state) {
    case vorx_ts_st_detached:
      if (to != vorx_ts_st_attach_in_progress) break;
      if (o.resume) o.resume(tsd, arg);
      D(d).state = to;
      return kOk;
    case vorx_ts_st_attach_in_progress:
      if (to == vorx_ts_st_attach_in_progress) {
        VORX_TM_UNREACHABLE("__thr_mgr_change_state__unreachable_attach_in_progress");
        return vorx_thread_manager_op_err_eof;
      }
      if (to == vorx_ts_st_detached) {
        if (o.suspend) o.suspend(tsd, arg);
      } else if (o.attach) {
        o.attach(tsd, arg);
      }
      D(d).state = to;
      return kOk;
    case vorx_ts_st_in_profiling:
      if (to == vorx_ts_st_in_profiling) return vorx_thread_manager_op_err_thread_attached;
      if (to == vorx_ts_st_attach_in_progress) {
        VORX_TM_UNREACHABLE("__thr_mgr_change_state__unreachable_in_profiling");
        return vorx_thread_manager_op_err_eof;
      }
      if (o.detach) {
        vorx_u32_t detached = o.detach(d, tsd, arg);
        VORX_TM_ASSERT(detached == vorx_thread_manager_op_err_ok);
      }
      D(d).state = to;
      return kOk;
    default:
      break;
  }
  VORX_TM_UNREACHABLE("__thr_mgr_change_state__unreachable");
  return vorx_thread_manager_op_err_eof;
}

/* ---- storage operations ------------------------------------------------- */

/* Finds `tid` and holds its descriptor. For the caller's own tid, the entry is
 * also cached in the caller's slot, unless some slot caches it already: that
 * entry belongs to a dead thread whose id came back. */
vorx_u32_t tls_acquire(mgr_t* m, vorx_u32_t tid, desc_t** out) {
  *out = nullptr;
  desc_t* self;
  vorx_u32_t guard = guard_up(m, &self);
  if (guard == vorx_tls_op_err_recursive) return guard;
  vorx_s32_t current = current_tid(guard, self);
  vorx_u32_t result = vorx_tls_op_err_not_found;
  storage_lock(m);
  desc_t* d = tls_find(m, tid);
  if (d) {
    vorx_u32_t blocked = ts_desc_block(d, current);
    VORX_TM_ASSERT(blocked == vorx_tls_op_err_ok);
    result = vorx_tls_op_err_found;
    if ((vorx_s32_t)tid == current && guard == vorx_tls_op_err_ok) {
      if (D(d).flags[vorx_ts_desc_fl_cached]) {
        if (!is_pointer(self)) {
          D(d).flags[vorx_ts_desc_fl_orphan] = 1;
          ts_desc_unblock(d);
          d = nullptr;
          result = vorx_tls_op_err_not_found;
        } else {
          VORX_TM_ASSERT_DESC(self == d, d);
        }
      } else {
        D(d).flags[vorx_ts_desc_fl_recursive] = 1;
        raise_cached(m, d);
        slot_write(m, d);
        self = d;
      }
    }
  }
  storage_unlock(m);
  tls_enable_recursion(m, self);
  *out = d;
  return result;
}

/* Links a new descriptor at the tail unless its tid is known. */
vorx_u32_t tls_register(mgr_t* m, desc_t* fresh) {
  desc_t* self;
  vorx_u32_t guard = guard_up(m, &self);
  if (guard == vorx_tls_op_err_recursive) return guard;
  vorx_s32_t current = current_tid(guard, self);
  storage_lock(m);
  block_all(m, current);
  vorx_u32_t result = vorx_tls_op_err_found;
  if (!tls_find(m, D(fresh).tid)) {
    ts_desc_block(fresh, current);
    __atomic_add_fetch(&S(m).unclaimed, 1, __ATOMIC_RELAXED);
    {
      signals_blocked quiet;
      list_add_tail(&S(m).head, &D(fresh).link);
    }
    result = vorx_tls_op_err_ok;
  }
  unblock_all(m);
  storage_unlock(m);
  tls_enable_recursion(m, self);
  return result;
}

/* Unlinks `tid` and hands back its private block; the descriptor stays for
 * its thread's slot to find, failing the storage test there. */
vorx_u32_t tls_unregister(mgr_t* m, vorx_u32_t tid, void** tsd) {
  *tsd = nullptr;
  desc_t* self;
  vorx_u32_t guard = guard_up(m, &self);
  if (guard == vorx_tls_op_err_recursive) return guard;
  vorx_s32_t current = current_tid(guard, self);
  storage_lock(m);
  block_all(m, current);
  desc_t* d = tls_find(m, tid);
  if (d) {
    {
      signals_blocked quiet;
      list_del(&D(d).link);
    }
    if (!D(d).flags[vorx_ts_desc_fl_cached]) claim(m);
    *tsd = D(d).tsd;
    D(d).tsd = nullptr;
    ts_desc_unblock(d);
  }
  unblock_all(m);
  storage_unlock(m);
  tls_enable_recursion(m, self);
  return d ? vorx_tls_op_err_ok : vorx_tls_op_err_not_found;
}

vorx_u32_t thr_mgr_cancel(mgr_t* m);

/* Empties storage at the end of a collection. Blocks are released outside the
 * guard, since their callbacks may allocate. */
void tls_destroy(mgr_t* m) {
  desc_t* self;
  vorx_u32_t guard = guard_up(m, &self);
  if (guard == vorx_tls_op_err_recursive) return;
  vorx_s32_t current = current_tid(guard, self);
  vorx_tm_link_t local;
  storage_lock(m);
  {
    signals_blocked quiet;
    vorx_tm_link_t* head = &S(m).head;
    if (list_empty(head)) {
      list_init(&local);
    } else {
      local.next = head->next;
      local.prev = head->prev;
      local.next->prev = &local;
      local.prev->next = &local;
      list_init(head);
    }
  }
  storage_unlock(m);
  while (!list_empty(&local)) {
    desc_t* d = desc_of(local.next);
    ts_desc_block(d, current);
    {
      signals_blocked quiet;
      list_del(&D(d).link);
    }
    if (!D(d).flags[vorx_ts_desc_fl_cached]) claim(m);
    void* tsd = D(d).tsd;
    D(d).tsd = nullptr;
    ts_desc_unblock(d);
    desc_t* previous_self = self;
    tls_enable_recursion(m, self);
    if (tsd) thr_mgr_release_tsd(m, tsd, nullptr);
    thr_mgr_cancel(m);
    guard = guard_up(m, &self);
    VORX_TM_ASSERT(self == previous_self);
  }
  tls_enable_recursion(m, self);
}

/* ---- global block ------------------------------------------------------- */

void thr_mgr_destroy_global(mgr_t* m, void* global) {
  /* Wait out a holder of lock_global that read the block before it closed. */
  pthread_mutex_lock(&m->global_mutex);
  pthread_mutex_unlock(&m->global_mutex);
  if (m->free_global) m->free_global(global, nullptr);
  vorx__cache_align_free(global, m->global_size);
  __atomic_store_n(&m->global, nullptr, __ATOMIC_RELEASE);
}

void thr_mgr_complete_global(mgr_t* m) {
  VORX_TM_ASSERT(m->state == vorx_thr_mgr_st_complete);
  void* global = __atomic_exchange_n(&m->global, (void*)vorx_tsd_glob_ma_closing, __ATOMIC_ACQ_REL);
  if ((uintptr_t)global == vorx_tsd_glob_ma_empty) {
    __atomic_store_n(&m->global, nullptr, __ATOMIC_RELEASE);
    return;
  }
  if ((uintptr_t)global <= vorx_tsd_glob_ma_eof) return; /* somebody else is finishing */
  if (m->complete_global) m->complete_global(global);
  thr_mgr_destroy_global(m, global);
}

vorx_u32_t thr_mgr_cancel(mgr_t* m) {
  vorx_u32_t threads_count = __atomic_sub_fetch(&m->threads_count, 1, __ATOMIC_ACQ_REL);
  VORX_TM_ASSERT(threads_count != (vorx_u32_t)(-1));
  return threads_count == 0 ? (vorx_u32_t)vorx_thread_manager_op_err_empty : kOk;
}

/* ---- enter -------------------------------------------------------------- */

vorx_u32_t enter_attach_or_ok(mgr_t* m, desc_t* d, void** out_data) {
  if (D(d).state == vorx_ts_st_attach_in_progress)
    thr_mgr_change_state(m, d, vorx_ts_st_in_profiling, nullptr);
  *out_data = D(d).tsd;
  return kOk;
}

/* Step 7: judges a descriptor that the slow path found and held. */
vorx_u32_t enter_judge(mgr_t* m, desc_t* d, vorx_u32_t blocked, void** out_data) {
  if (blocked == vorx_tls_op_err_not_found || d == nullptr)
    return vorx_thread_manager_op_err_thread_not_found;
  if (blocked == vorx_tls_op_err_ok) {
    switch (D(d).state) {
      case vorx_ts_st_attach_in_progress:
      case vorx_ts_st_in_profiling:
        return enter_attach_or_ok(m, d, out_data);
      case vorx_ts_st_detached:
        ts_desc_unblock(d);
        return vorx_thread_manager_op_err_thread_not_found;
      default:
        VORX_TM_UNREACHABLE("__thread_manager_enter__unreachable_ok");
        return vorx_thread_manager_op_err_eof;
    }
  }
  switch (D(d).state) {
    case vorx_ts_st_in_profiling:
      *out_data = D(d).tsd;
      return vorx_thread_manager_op_err_acquired;
    case vorx_ts_st_detached:
    case vorx_ts_st_attach_in_progress:
      return vorx_thread_manager_op_err_thread_not_found;
    default:
      VORX_TM_UNREACHABLE("__thread_manager_enter__acquired_unreachable_2");
      return vorx_thread_manager_op_err_eof;
  }
}

/* Step 6: look the thread up by tid; the slot says busy meanwhile. */
vorx_u32_t enter_lookup(mgr_t* m, desc_t** key, void** out_data, vorx_u32_t tid, desc_t* old) {
  slot_write(m, (void*)vorx_ts_desc_ma_busy);
  vorx_u32_t blocked = vorx_tls_op_err_not_found;
  storage_lock_as(m, (vorx_s32_t)tid);
  desc_t* d = tls_find(m, tid);
  if (d && D(d).flags[vorx_ts_desc_fl_cached]) {
    D(d).flags[vorx_ts_desc_fl_orphan] = 1; /* a dead thread's entry, its tid reused */
    d = nullptr;
  } else if (d) {
    blocked = ts_desc_block(d, (vorx_s32_t)tid);
    raise_cached(m, d);
  }
  storage_unlock(m);
  slot_write(m, d);
  if (old) D(old).flags[vorx_ts_desc_fl_recursive] = 0;
  guard_down_done();
  *key = d;
  return enter_judge(m, d, blocked, out_data);
}

/* Step 5: somebody else holds our descriptor; wait for it. */
vorx_u32_t enter_wait(mgr_t* m, desc_t** key, void** out_data, desc_t* d) {
  D(d).flags[vorx_ts_desc_fl_recursive] = 1;
  vorx_u32_t blocked = ts_desc_block(d, (vorx_s32_t)D(d).tid);
  if (in_storage(d)) {
    D(d).flags[vorx_ts_desc_fl_recursive] = 0;
    guard_down_done();
    return enter_judge(m, d, blocked, out_data);
  }
  if (blocked == vorx_tls_op_err_ok) ts_desc_unblock(d);
  return enter_lookup(m, key, out_data, D(d).tid, d);
}

/* The lemma of the lock-free walks: the walker holds its own descriptor. */
void assert_walker_holds_itself(desc_t* self) {
  if (__builtin_expect(self->l1.data.owner != (vorx_s32_t)self->l1.data.tid, 0))
    vorx_assert_raise_assert(__FILE__, __LINE__, __func__,
                             "(((vorx_ts_desc_t*)self)->l1.data.owner == ((vorx_ts_desc_t*)self)->l1.data.tid)",
                             VORX_TM_DESC_FORMAT, VORX_TM_DESC_ARGS(self));
}

}  // namespace

/* ======================================================================= */

extern "C" {

void* vorx__cache_align_alloc(vorx_u32_t size) {
  void* buffer = malloc(size + VORX_TM_CACHE_LINE + 3);
  VORX_TM_ASSERT(buffer != 0);
  if (!buffer) return nullptr;
  char* aligned = (char*)(((uintptr_t)buffer + VORX_TM_CACHE_LINE - 1) & ~(uintptr_t)(VORX_TM_CACHE_LINE - 1));
  memset(aligned, 0, size);
  memcpy(aligned + size, &buffer, sizeof(buffer));
  return aligned;
}

void vorx__cache_align_free(void* p, vorx_u32_t size) {
  if (!p) return;
  void* raw;
  memcpy(&raw, (char*)p + size, sizeof(raw));
  memset(p, 0, size);
  free(raw);
}

vorx_u32_t vorx_thread_manager_create(vorx_thr_mgr_t** out, vorx_u32_t global_size,
                                      vorx_tm_global_cbk_t alloc_global,
                                      vorx_tm_global_cbk_t free_global,
                                      vorx_tm_complete_global_cbk_t complete_global,
                                      const vorx_thread_manager_options_t* options) {
  VORX_TM_ASSERT(out != nullptr);
  mgr_t* m = (mgr_t*)vorx__cache_align_alloc(sizeof(mgr_t));
  list_init(&S(m).head);
  S(m).magic = VORX_TM_MAGIC;
  list_init(&m->free_list.head);
  pthread_mutex_init(&m->free_list.mutex, nullptr);
  pthread_mutex_init(&m->state_mutex, nullptr);
  pthread_mutex_init(&m->global_mutex, nullptr);
  m->magic = VORX_TM_MAGIC;
  m->global_size = global_size;
  m->alloc_global = alloc_global;
  m->free_global = free_global;
  m->complete_global = complete_global;
  m->state = vorx_thr_mgr_st_created;
  /* Read without the state mutex by enter and the quick refusals of register
   * and unregister, which test again under the mutex. */
  VORX_TM_SYNC_WORD(&m->state);
  *out = m;
  if (options) return vorx_thread_manager_enable_threads(m, options);
  return kOk;
}

void vorx_thread_manager_destroy(vorx_thr_mgr_t* m) {
  if (!m || m->magic != VORX_TM_MAGIC) return;
  VORX_TM_ASSERT(m->state != vorx_thr_mgr_st_threads_enabled);
  free_list_drain(m);
  slots_renewed();
  pthread_mutex_destroy(&m->free_list.mutex);
  pthread_mutex_destroy(&m->state_mutex);
  pthread_mutex_destroy(&m->global_mutex);
  vorx__cache_align_free(m, sizeof(mgr_t));
}

vorx_u32_t vorx_thread_manager_enable_threads(vorx_thr_mgr_t* m,
                                              const vorx_thread_manager_options_t* options) {
  VORX_TM_ASSERT(m != nullptr && m->magic == VORX_TM_MAGIC);
  pthread_mutex_lock(&m->state_mutex);
  if (options) {
    VORX_TM_ASSERT(options->data_size != 0);
    VORX_TM_ASSERT(m->state != vorx_thr_mgr_st_threads_enabled);
    m->state = vorx_thr_mgr_st_options_specified;
    m->options = *options;
    m->free_list.limit = options->cache_limit;
    storage_setup(m, options->key);
  } else {
    VORX_TM_ASSERT_MSG(m->state == vorx_thr_mgr_st_complete ||
                           m->state == vorx_thr_mgr_st_options_specified,
                       "state == %u", m->state);
    storage_setup(m, m->options.key);
  }
  __atomic_store_n(&m->state, (vorx_u32_t)vorx_thr_mgr_st_threads_enabled, __ATOMIC_RELEASE);
  pthread_mutex_unlock(&m->state_mutex);
  return kOk;
}

vorx_u32_t vorx_thread_manager_create_global(vorx_thr_mgr_t* m) {
  VORX_TM_ASSERT(m->global == (void*)vorx_tsd_glob_ma_empty);
  void* global = vorx__cache_align_alloc(m->global_size);
  if (m->alloc_global) m->alloc_global(global, nullptr);
  __atomic_store_n(&m->global, global, __ATOMIC_RELEASE);
  return kOk;
}

vorx_u32_t vorx_thread_manager_lock_global(vorx_thr_mgr_t* m, void** out_global) {
  pthread_mutex_lock(&m->global_mutex);
  void* global = __atomic_load_n(&m->global, __ATOMIC_ACQUIRE);
  if ((uintptr_t)global > vorx_tsd_glob_ma_eof) {
    *out_global = global;
    return kOk;
  }
  pthread_mutex_unlock(&m->global_mutex);
  *out_global = nullptr;
  return (uintptr_t)global == vorx_tsd_glob_ma_empty ? vorx_thread_manager_op_err_closed
                                                     : vorx_thread_manager_op_err_empty;
}

void vorx_thread_manager_unlock_global(vorx_thr_mgr_t* m) { pthread_mutex_unlock(&m->global_mutex); }

void vorx_thread_manager_reserve(vorx_thr_mgr_t* m) {
  vorx_u32_t threads_count = __atomic_add_fetch(&m->threads_count, 1, __ATOMIC_ACQ_REL);
  VORX_TM_ASSERT(threads_count != 0);
}

vorx_u32_t vorx_thread_manager_cancel(vorx_thr_mgr_t* m) { return thr_mgr_cancel(m); }

void vorx_thread_manager_ignore(vorx_thr_mgr_t* m) {
  slot_write(m, (void*)vorx_ts_desc_ma_ignored);
}

vorx_u32_t vorx_thread_manager_register(vorx_thr_mgr_t* m, vorx_u32_t tid, void* reg) {
  if (m->state != vorx_thr_mgr_st_threads_enabled) return vorx_thread_manager_op_err_closed;
  desc_t* known;
  vorx_u32_t acquired = tls_acquire(m, tid, &known);
  if (acquired == vorx_tls_op_err_recursive) return vorx_thread_manager_op_err_thread_not_found;
  if (acquired == vorx_tls_op_err_found) {
    ts_desc_unblock(known);
    return vorx_thread_manager_op_err_thread_found;
  }
  /* The block's construction does much and may allocate: before any lock. */
  bool fresh;
  void* tsd = thr_mgr_alloc_tsd(m, &fresh);
  desc_t* d = ts_desc_alloc(tid, tsd);
  vorx_tm_construct_cbk_t construct = fresh ? m->options.alloc : m->options.init;
  if (construct) construct(d, tsd, reg);

  pthread_mutex_lock(&m->state_mutex);
  vorx_u32_t linked = vorx_tls_op_err_eof;
  bool enabled = m->state == vorx_thr_mgr_st_threads_enabled;
  if (enabled) {
    vorx_thread_manager_reserve(m);
    linked = tls_register(m, d);
  }
  if (linked == vorx_tls_op_err_ok) {
    desc_t* held;
    vorx_u32_t found = tls_acquire(m, tid, &held);
    pthread_mutex_unlock(&m->state_mutex);
    if (found != vorx_tls_op_err_found) return vorx_thread_manager_op_err_thread_not_found;
    thr_mgr_change_state(m, held, vorx_ts_st_attach_in_progress, reg);
    ts_desc_unblock(held);
    return kOk;
  }
  if (enabled) thr_mgr_cancel(m);
  pthread_mutex_unlock(&m->state_mutex);
  ts_desc_free(d);
  thr_mgr_release_tsd(m, tsd, nullptr);
  return enabled ? vorx_thread_manager_op_err_thread_found : vorx_thread_manager_op_err_closed;
}

static vorx_u32_t thr_mgr_detach_thread(vorx_thr_mgr_t* m, vorx_u32_t tid) {
  desc_t* d;
  if (tls_acquire(m, tid, &d) != vorx_tls_op_err_found) return vorx_thread_manager_op_err_thread_not_found;
  vorx_u32_t state = D(d).state;
  if (state == vorx_ts_st_attach_in_progress || state == vorx_ts_st_in_profiling) {
    vorx_u32_t changed = thr_mgr_change_state(m, d, vorx_ts_st_detached, nullptr);
    VORX_TM_ASSERT(changed == vorx_thread_manager_op_err_ok);
    VORX_TM_ASSERT_DESC(d->l1.data.state == vorx_ts_st_detached, d);
    ts_desc_unblock(d);
    return kOk;
  }
  ts_desc_unblock(d);
  return vorx_thread_manager_op_err_thread_detached;
}

vorx_u32_t vorx_thread_manager_unregister(vorx_thr_mgr_t* m, vorx_u32_t tid, void* arg) {
  if (m->state != vorx_thr_mgr_st_threads_enabled) return vorx_thread_manager_op_err_closed;
  vorx_u32_t detached = thr_mgr_detach_thread(m, tid);
  if (detached == vorx_thread_manager_op_err_thread_not_found) return detached;

  pthread_mutex_lock(&m->state_mutex);
  if (m->state != vorx_thr_mgr_st_threads_enabled) {
    pthread_mutex_unlock(&m->state_mutex);
    return vorx_thread_manager_op_err_closed;
  }
  void* tsd;
  if (tls_unregister(m, tid, &tsd) != vorx_tls_op_err_ok) {
    pthread_mutex_unlock(&m->state_mutex);
    return vorx_thread_manager_op_err_thread_not_found;
  }
  if (tsd) thr_mgr_release_tsd(m, tsd, arg);
  if (thr_mgr_cancel(m) != vorx_thread_manager_op_err_empty) {
    pthread_mutex_unlock(&m->state_mutex);
    return kOk;
  }
  /* The last thread is gone: the collection ends with it. */
  __atomic_store_n(&m->state, (vorx_u32_t)vorx_thr_mgr_st_complete, __ATOMIC_RELEASE);
  pthread_mutex_unlock(&m->state_mutex);
  thr_mgr_complete_global(m);
  return vorx_thread_manager_op_err_empty;
}

void vorx_thread_manager_forget_slot(vorx_thr_mgr_t* m) { slot_write(m, nullptr); }

int vorx_thread_manager_busy_here(vorx_thr_mgr_t* m) {
  if (!m || m->magic != VORX_TM_MAGIC || m->state != vorx_thr_mgr_st_threads_enabled) return 0;
  void* slot = slot_read(m);
  if ((uintptr_t)slot == vorx_ts_desc_ma_busy) return 1;
  return is_pointer(slot) && magic_ok((desc_t*)slot) && D((desc_t*)slot).flags[vorx_ts_desc_fl_recursive];
}

vorx_u32_t vorx_thread_manager_enter(vorx_thr_mgr_t* m, vorx_ts_desc_t** key, void** out_data) {
  if (__builtin_expect(!m || m->state != vorx_thr_mgr_st_threads_enabled, 0))
    return vorx_thread_manager_op_err_thread_not_found;
  desc_t* d = *key;
  bool from_slot = false;
  if (!d) {
    d = (desc_t*)slot_read(m);
    from_slot = true;
    if (d == nullptr) {
      if (__atomic_load_n(&S(m).unclaimed, __ATOMIC_RELAXED) == 0)
        return vorx_thread_manager_op_err_thread_not_found;
      return enter_lookup(m, key, out_data, sal_thread_id(), nullptr);
    }
    if (!is_pointer(d)) return vorx_thread_manager_op_err_thread_not_found;
    *key = d;
  }
  if (__builtin_expect(!magic_ok(d) || D(d).flags[vorx_ts_desc_fl_recursive], 0))
    return vorx_thread_manager_op_err_thread_not_found;

  vorx_s32_t tid = (vorx_s32_t)D(d).tid;
  vorx_s32_t previous = 0;
  if (__builtin_expect(__atomic_compare_exchange_n(&D(d).owner, &previous, tid, false,
                                                   __ATOMIC_ACQUIRE, __ATOMIC_RELAXED),
                       1)) {
    VORX_TM_HAPPENS_AFTER(&D(d).owner);
    if (__builtin_expect(in_storage(d), 1)) {
      switch (D(d).state) {
        case vorx_ts_st_in_profiling:
          *out_data = D(d).tsd;
          return kOk;
        case vorx_ts_st_attach_in_progress:
          return enter_attach_or_ok(m, d, out_data);
        case vorx_ts_st_detached:
          ts_desc_unblock(d);
          return vorx_thread_manager_op_err_thread_not_found;
        default:
          VORX_TM_UNREACHABLE("__thread_manager_enter__unreachable_ok");
          return vorx_thread_manager_op_err_eof;
      }
    }
    ts_desc_unblock(d);
    if (!from_slot) return vorx_thread_manager_op_err_thread_not_found;
    return enter_wait(m, key, out_data, d);
  }
  if (previous == tid) { /* nested: an outer frame of this thread holds it */
    if (!in_storage(d)) return vorx_thread_manager_op_err_thread_not_found;
    switch (D(d).state) {
      case vorx_ts_st_in_profiling:
        *out_data = D(d).tsd;
        return vorx_thread_manager_op_err_acquired;
      case vorx_ts_st_detached:
      case vorx_ts_st_attach_in_progress:
        return vorx_thread_manager_op_err_thread_not_found;
      default:
        VORX_TM_UNREACHABLE("__thread_manager_enter__acquired_unreachable_1");
        return vorx_thread_manager_op_err_eof;
    }
  }
  return enter_wait(m, key, out_data, d); /* caught by a sampler or a detaching thread */
}

vorx_u32_t vorx_thread_manager_catch(vorx_thr_mgr_t* m, vorx_ts_desc_t* d, void** out_data) {
  if (!d || !magic_ok(d)) return vorx_thread_manager_op_err_thread_not_found;
  desc_t* self;
  vorx_u32_t guard = guard_up(m, &self);
  if (guard == vorx_tls_op_err_recursive) {
    VORX_TM_UNREACHABLE("__thread_manager_catch__unreachable");
    return vorx_thread_manager_op_err_thread_not_found;
  }
  vorx_s32_t current = current_tid(guard, self);
  vorx_u32_t blocked = ts_desc_try_block(d, current);
  tls_enable_recursion(m, self);

  switch (blocked) {
    case vorx_tls_op_err_ok:
      if (!in_storage(d)) {
        ts_desc_unblock(d);
        return vorx_thread_manager_op_err_thread_not_found;
      }
      switch (D(d).state) {
        case vorx_ts_st_in_profiling:
          *out_data = D(d).tsd;
          return kOk;
        case vorx_ts_st_attach_in_progress:
          *out_data = D(d).tsd;
          return vorx_thread_manager_op_err_thread_attaching;
        case vorx_ts_st_detached:
          ts_desc_unblock(d);
          return vorx_thread_manager_op_err_thread_detached;
        default:
          VORX_TM_UNREACHABLE("__thread_manager_catch__unreachable_ok");
          return vorx_thread_manager_op_err_eof;
      }
    case vorx_tls_op_err_acquired:
      if (!in_storage(d)) return vorx_thread_manager_op_err_thread_not_found;
      if (D(d).state == vorx_ts_st_detached) return vorx_thread_manager_op_err_thread_detached;
      *out_data = D(d).tsd;
      return vorx_thread_manager_op_err_acquired;
    case vorx_tls_op_err_busy:
      *out_data = D(d).tsd;
      return vorx_thread_manager_op_err_again;
    default:
      VORX_TM_UNREACHABLE("__tls_catch__unreachable");
      return vorx_thread_manager_op_err_eof;
  }
}

vorx_u32_t vorx_thread_manager_attach(vorx_thr_mgr_t* m, vorx_ts_desc_t* key) {
  VORX_TM_ASSERT_DESC(key->l1.data.owner == (vorx_s32_t)sal_thread_id(), key);
  return thr_mgr_change_state(m, key, vorx_ts_st_in_profiling, nullptr);
}

vorx_u32_t vorx_thread_manager_execute(vorx_thr_mgr_t* m, vorx_ts_desc_t* self, vorx_u32_t tid,
                                       vorx_thread_manager_walk_cbk_t callback, void* data) {
  assert_walker_holds_itself(self);
  desc_t* d = tls_find(m, tid);
  if (!d) return vorx_thread_manager_op_err_thread_not_found;
  return callback(d, D(d).tsd, data);
}

vorx_u32_t vorx_thread_manager_iterate(vorx_thr_mgr_t* m, vorx_ts_desc_t* self,
                                       vorx_thread_manager_walk_cbk_t callback, void* data) {
  assert_walker_holds_itself(self);
  vorx_u32_t walked = tls_walk(m, [&](desc_t* d) {
    vorx_u32_t r = callback(d, D(d).tsd, data);
    if (r == vorx_thread_manager_op_err_stop) return vorx_tls_op_err_stop;
    if (r != vorx_thread_manager_op_err_cont) VORX_TM_UNREACHABLE("__thr_mgr_ts_desc_cbk__unreachable");
    return vorx_tls_op_err_cont;
  });
  return walked == vorx_tls_op_err_stop ? (vorx_u32_t)vorx_thread_manager_op_err_stop : kOk;
}

vorx_u32_t vorx_thread_manager_enumerate(vorx_thr_mgr_t* m, vorx_thread_manager_walk_cbk_t callback,
                                         void* data) {
  desc_t* self;
  vorx_u32_t guard = guard_up(m, &self);
  if (guard == vorx_tls_op_err_recursive) return vorx_thread_manager_op_err_thread_not_found;
  storage_lock(m);
  tls_walk(m, [&](desc_t* d) {
    vorx_u32_t r = callback(d, D(d).tsd, data);
    if (r != vorx_thread_manager_op_err_cont) VORX_TM_UNREACHABLE("__thr_mgr_ts_desc_cbk__unreachable");
    return vorx_tls_op_err_cont;
  });
  storage_unlock(m);
  tls_enable_recursion(m, self);
  return kOk;
}

void vorx_thread_manager_complete_threads(vorx_thr_mgr_t* m) {
  if (!m || m->magic != VORX_TM_MAGIC) return;
  pthread_mutex_lock(&m->state_mutex);
  switch (m->state) {
    case vorx_thr_mgr_st_threads_enabled: {
      desc_t* self;
      vorx_u32_t guard = guard_up(m, &self);
      storage_lock(m);
      if (guard != vorx_tls_op_err_recursive) tls_enable_recursion(m, self);
      tls_walk(m, [&](desc_t* d) {
        thr_mgr_detach_thread(m, D(d).tid);
        return vorx_tls_op_err_cont;
      });
      guard = guard_up(m, &self);
      storage_unlock(m);
      if (guard != vorx_tls_op_err_recursive) tls_enable_recursion(m, self);
      tls_destroy(m);
      __atomic_store_n(&m->state, (vorx_u32_t)vorx_thr_mgr_st_complete, __ATOMIC_RELEASE);
      pthread_mutex_unlock(&m->state_mutex);
      thr_mgr_complete_global(m);
      return;
    }
    case vorx_thr_mgr_st_complete:
      pthread_mutex_unlock(&m->state_mutex);
      /* Another thread is finishing the collection: wait for it. */
      while (__atomic_load_n(&m->global, __ATOMIC_ACQUIRE) != nullptr) sal_yield();
      return;
    case vorx_thr_mgr_st_created:
    case vorx_thr_mgr_st_options_specified: {
      m->state = vorx_thr_mgr_st_complete;
      pthread_mutex_unlock(&m->state_mutex);
      void* global = __atomic_exchange_n(&m->global, (void*)vorx_tsd_glob_ma_closing, __ATOMIC_ACQ_REL);
      if ((uintptr_t)global > vorx_tsd_glob_ma_eof) thr_mgr_destroy_global(m, global);
      return;
    }
    default:
      VORX_TM_ASSERT_MSG(0, "__thread_manager_complete_threads__mgr->l1.data.state == %d", (int)m->state);
      pthread_mutex_unlock(&m->state_mutex);
  }
}

void vorx_thread_manager_reset_threads(vorx_thr_mgr_t* m) {
  VORX_TM_ASSERT(m->state == vorx_thr_mgr_st_threads_enabled);
  /* Only this thread survived the fork; its locks may have been copied held. */
  pthread_mutex_init(&m->state_mutex, nullptr);
  pthread_mutex_init(&m->free_list.mutex, nullptr);
  pthread_mutex_init(&m->global_mutex, nullptr);
  desc_t* self;
  vorx_u32_t guard = guard_up(m, &self);
  if (guard != vorx_tls_op_err_recursive) {
    auto& s = S(m);
    s.lock = 0;
    s.depth = 0;
    s.waiters = 0;
    s.owner = 0;
    s.spin_limit = sal_get_cpu_number() / 2;
    desc_t* own = is_pointer(self) ? self : nullptr;
    while (!list_empty(&s.head)) {
      desc_t* d = desc_of(s.head.next);
      {
        signals_blocked quiet;
        list_del(&D(d).link);
      }
      D(d).state = vorx_ts_st_detached;
      void* tsd = D(d).tsd;
      D(d).tsd = nullptr;
      tls_enable_recursion(m, self);
      if (tsd) thr_mgr_release_tsd(m, tsd, nullptr);
      guard_up(m, &self);
      if (d != own) ts_desc_free(d);
    }
    s.unclaimed = 0;
    if (own) {
      vorx_u32_t current_tid = sal_thread_id();
      VORX_TM_ASSERT(self->l1.data.tid != current_tid);
      D(own).tid = current_tid;
    }
    tls_enable_recursion(m, self);
  }
  m->threads_count = 0;
  m->state = vorx_thr_mgr_st_complete;
  void* global = __atomic_exchange_n(&m->global, nullptr, __ATOMIC_ACQ_REL);
  if ((uintptr_t)global > vorx_tsd_glob_ma_eof) {
    if (m->free_global) m->free_global(global, nullptr);
    vorx__cache_align_free(global, m->global_size);
  }
}

}  // extern "C"
