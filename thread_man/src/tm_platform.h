/* What the thread manager needs from below: thread identity from the system
 * layer, and the collector's assertion. Kept in one place so that the manager
 * itself holds no system call. */
#ifndef VORX_TM_PLATFORM_H
#define VORX_TM_PLATFORM_H

#include <stdint.h>

extern "C" {
/* System layer (raw gettid / sched_yield; processor count cached early). */
uint32_t sal_thread_id(void);
void sal_yield(void);
uint32_t sal_get_cpu_number(void);

/* The collector's single check: reports and does not return unless logging
 * was switched below zero. */
void vorx_assert_raise_assert(const char* file, unsigned line, const char* function,
                              const char* expression, const char* format, ...);
}

/* Race-detector view of the manager's own locks (CAS words that helgrind
 * cannot recognise): on in checking builds only, since the client requests
 * cost a few instructions on the fast path. */
#ifdef VORX_TM_HELGRIND
#include <valgrind/helgrind.h>
#define VORX_TM_HAPPENS_BEFORE(addr) ANNOTATE_HAPPENS_BEFORE(addr)
#define VORX_TM_HAPPENS_AFTER(addr) ANNOTATE_HAPPENS_AFTER(addr)
#define VORX_TM_LOCK_CREATED(addr) ANNOTATE_RWLOCK_CREATE(addr)
#define VORX_TM_LOCK_ACQUIRED(addr) ANNOTATE_RWLOCK_ACQUIRED(addr, 1)
#define VORX_TM_LOCK_RELEASED(addr) ANNOTATE_RWLOCK_RELEASED(addr, 1)
#define VORX_TM_SYNC_WORD(addr) VALGRIND_HG_DISABLE_CHECKING(addr, sizeof(*(addr)))
#else
#define VORX_TM_SYNC_WORD(addr) ((void)0)
#define VORX_TM_HAPPENS_BEFORE(addr) ((void)0)
#define VORX_TM_HAPPENS_AFTER(addr) ((void)0)
#define VORX_TM_LOCK_CREATED(addr) ((void)0)
#define VORX_TM_LOCK_ACQUIRED(addr) ((void)0)
#define VORX_TM_LOCK_RELEASED(addr) ((void)0)
#endif

/* Always compiled in: the conditions are the manager's invariants. */
#define VORX_TM_ASSERT(cond)                                                           \
  do {                                                                                 \
    if (__builtin_expect(!(cond), 0))                                                  \
      vorx_assert_raise_assert(__FILE__, __LINE__, __func__, "(" #cond ")", nullptr);  \
  } while (0)

#define VORX_TM_ASSERT_MSG(cond, ...)                                                  \
  do {                                                                                 \
    if (__builtin_expect(!(cond), 0))                                                  \
      vorx_assert_raise_assert(__FILE__, __LINE__, __func__, "(" #cond ")", __VA_ARGS__); \
  } while (0)

/* An invariant on a descriptor: the report shows the whole descriptor. */
#define VORX_TM_ASSERT_DESC(cond, d)                                                   \
  do {                                                                                 \
    if (__builtin_expect(!(cond), 0))                                                  \
      vorx_assert_raise_assert(__FILE__, __LINE__, __func__, "(" #cond ")",            \
                               VORX_TM_DESC_FORMAT, VORX_TM_DESC_ARGS(d));             \
  } while (0)

#define VORX_TM_DESC_FORMAT                                                            \
  "ASSERT_TID: %d\n[vorx_ts_desc]: addr = %p\n tid   = %u\n owner = %d\n magic = %u\n" \
  " state = %d\n flags:\n  cached = %d\n  recursive = %d\n  orphan = %d\n"            \
  " link  = [prev:%p|next:%p]\n tsd = %p\n"
#define VORX_TM_DESC_ARGS(d)                                                           \
  (int)sal_thread_id(), (void*)(d), (d)->l1.data.tid, (int)(d)->l1.data.owner,         \
      (d)->l1.data.magic, (int)(d)->l1.data.state,                                     \
      (int)(d)->l1.data.flags[vorx_ts_desc_fl_cached],                                 \
      (int)(d)->l1.data.flags[vorx_ts_desc_fl_recursive],                              \
      (int)(d)->l1.data.flags[vorx_ts_desc_fl_orphan], (void*)(d)->l1.data.link.prev,  \
      (void*)(d)->l1.data.link.next, (d)->l1.data.tsd

/* A branch that must never be taken, named by its text. */
#define VORX_TM_UNREACHABLE(name)                                                      \
  vorx_assert_raise_assert(__FILE__, __LINE__, __func__,                               \
                           "(!vorx_bool_for_assert((void*)(\"" name "\")))", nullptr)

#endif
