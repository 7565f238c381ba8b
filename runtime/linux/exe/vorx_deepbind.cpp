/* The tool domain's threading layer: locks on futexes, thread-specific data in
 * static slots or the application's keys, and the application's functions
 * through the probe table. See vorx_deepbind.h for the contract.
 *
 * Every entry may run in a signal handler, on a thread that the application
 * doesn't know, before the application's thread library exists. Only locks and
 * thread-specific data are allowed on the control-service thread, which shares
 * its creator's thread pointer and is told apart by its stack. */
#include <dlfcn.h>
#include <errno.h>
#include <linux/futex.h>
#include <sched.h>
#include <stdlib.h>
#include <string.h>
#include <sys/mman.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <array>
#include <utility>

#include "sal.h"
#include "sal_assert.h"
#include "vorx_deepbind.h"
#include "vorx_probe_table.h"

#if __has_include(<kel.h>)
#include <kel.h>
#define VORX_DEEPBIND_HAVE_ENGINE 1
#endif

extern "C" {
/* Optional neighbours: the private environment and the interpreter tracer. */
const char* vorx_env_getenv(const char* name) __attribute__((weak));
void pytrace_notify_pthread_state(int loaded) __attribute__((weak));

SAL_DECLARE_ASSERT_ROUTINE(vorx_deepbind)
SAL_DEFINE_ASSERT_ROUTINE(vorx_deepbind)
}

/* Race-detector view of the layer's own locks, in checking builds only. */
#ifdef VORX_DEEPBIND_HELGRIND
#include <valgrind/helgrind.h>
#define DB_LOCK_CREATED(p) ANNOTATE_RWLOCK_CREATE(p)
#define DB_LOCK_ACQUIRED(p, w) ANNOTATE_RWLOCK_ACQUIRED(p, w)
#define DB_LOCK_RELEASED(p, w) ANNOTATE_RWLOCK_RELEASED(p, w)
#define DB_HAPPENS_BEFORE(p) ANNOTATE_HAPPENS_BEFORE(p)
#define DB_HAPPENS_AFTER(p) ANNOTATE_HAPPENS_AFTER(p)
#define DB_SYNC_WORDS(p, n) VALGRIND_HG_DISABLE_CHECKING(p, n)
#else
#define DB_LOCK_CREATED(p) ((void)0)
#define DB_LOCK_ACQUIRED(p, w) ((void)0)
#define DB_LOCK_RELEASED(p, w) ((void)0)
#define DB_HAPPENS_BEFORE(p) ((void)0)
#define DB_HAPPENS_AFTER(p) ((void)0)
#define DB_SYNC_WORDS(p, n) ((void)0)
#endif

/* Checks with the exact expression text of the report. */
#define DB_CHECK(cond, text)                                                              \
  ((cond) ? (void)0 : vorx_deepbind_assert_fail(__FILE__, __LINE__, __func__, text, "%s", ""))
#define DB_ASSERT(cond) DB_CHECK(cond, #cond)
#define DB_NOT_SERVICE() \
  DB_CHECK(is_control_service_thread_current() == 0, "is_control_service_thread_current() == 0")

extern "C" {
volatile uint32_t g_pthread_load_mode = vorx_deepbind_pthread_mode_unavailable;
uint32_t g_process_id = 0;
vorx_deepbind_tls_map_t g_tls_map = {};
}

namespace {

constexpr int kEbusy = 16;
constexpr uint32_t kMarkerLimit = 4;  /* slot values below are markers, not pointers */
constexpr uint32_t kSpinLimit = 1000;
constexpr uint32_t kYieldPeriod = 50;
constexpr long kSetThreadAreaSyscall = 243;
constexpr uint32_t kThreadAreaFlags = 0x51; /* 32-bit segment, limit in pages, usable */

volatile int g_active = 0;
uintptr_t g_service_high = 0, g_service_low = 0;
/* The main thread's thread block (its %gs:0): tells the main thread without
 * asking the kernel for a tid. Set at init and again in a forked child. */
void* g_main_tsd = nullptr;

/* ---- the application's functions -------------------------------------- */

template <class Fn>
Fn app_fn(unsigned id) {
  return reinterpret_cast<Fn>(vorx_head_row(id)->trampoline);
}
#define APP_FN(name) app_fn<decltype(&::name)>(vorx_pi_##name)
#define APP_ROW_CHECK(name)                                                                  \
  DB_CHECK(vorx_head_row(vorx_pi_##name)->trampoline != nullptr,                             \
           "g_vorx_probes_table[g_vorx_pt_id[vorx_pi_" #name "]].trampoline != 0")
#define APP_FN_CHECKED(name) (APP_ROW_CHECK(name), APP_FN(name))

/* ---- identity ----------------------------------------------------------- */

bool on_service_stack() {
  uintptr_t sp = (uintptr_t)sal_get_sp();
  return g_service_high != 0 && sp >= g_service_low && sp < g_service_high;
}

/* Owner of a lock: no system call, one %gs:0 read. */
uintptr_t current_thread_token() {
  if (on_service_stack()) return g_service_high;
  return (uintptr_t)sal_get_tsd();
}

bool is_main_thread() {
  if (g_main_tsd != nullptr) return sal_get_tsd() == g_main_tsd;
  return sal_thread_id() == g_process_id;
}

/* ---- futex ------------------------------------------------------------- */

void futex_wait(volatile uint32_t* word, uint32_t expected) {
  syscall(SYS_futex, word, FUTEX_WAIT, expected, nullptr, nullptr, 0);
}
void futex_wake_one(volatile uint32_t* word) { syscall(SYS_futex, word, FUTEX_WAKE, 1, nullptr, nullptr, 0); }

inline bool cas(volatile uint32_t* word, uint32_t from, uint32_t to) {
  return __atomic_compare_exchange_n(word, &from, to, false, __ATOMIC_ACQUIRE, __ATOMIC_RELAXED);
}

/* ---- lock layouts inside the caller's objects ------------------------- */

struct db_mutex {
  volatile uint32_t lock;
  volatile uint32_t waiters;
  uint32_t yield_period; /* 0: never initialised (a zeroed mutex) */
  uint32_t spin_limit;
  volatile uintptr_t owner;
  uint32_t depth;
};
static_assert(sizeof(db_mutex) <= sizeof(pthread_mutex_t));

struct db_spin {
  volatile uint32_t word;
};
static_assert(sizeof(db_spin) <= sizeof(pthread_spinlock_t));

struct db_rwlock {
  volatile int32_t state; /* readers, or -1 for a writer */
  db_spin count_lock;
  db_spin writer_lock;
  volatile uint32_t waiting_writers;
};
static_assert(sizeof(db_rwlock) <= sizeof(pthread_rwlock_t));

struct db_sem {
  db_spin lock;
  volatile uint32_t waiters;
  volatile uint32_t count;
};
static_assert(sizeof(db_sem) <= sizeof(sem_t));

void spin_acquire(db_spin* s) {
  DB_SYNC_WORDS(s, sizeof *s);
  while (!cas(&s->word, 0, 1)) __builtin_ia32_pause();
  DB_LOCK_ACQUIRED(s, 1);
}
void spin_release(db_spin* s) {
  DB_LOCK_RELEASED(s, 1);
  __atomic_store_n(&s->word, 0, __ATOMIC_RELEASE);
}

void mutex_setup(db_mutex* m) {
  DB_SYNC_WORDS(m, sizeof *m);
  DB_LOCK_CREATED(m);
  m->lock = 0;
  m->waiters = 0;
  m->spin_limit = kSpinLimit;
  m->owner = 0;
  m->depth = 0;
  __atomic_store_n(&m->yield_period, sal_get_cpu_number() == 1 ? 1u : kYieldPeriod, __ATOMIC_RELEASE);
}

/* ---- thread-specific data ------------------------------------------------ */

bool library_mode() {
  uint32_t mode = g_pthread_load_mode;
  return mode == vorx_deepbind_pthread_mode_static || mode == vorx_deepbind_pthread_mode_dynamic;
}

void check_key(pthread_key_t key) {
  uint32_t deepbind_key = key;
  DB_CHECK(deepbind_key < 5, "deepbind_key < 5");
  DB_CHECK(g_tls_map.is_key_used[deepbind_key] != 0, "g_tls_map.is_key_used[deepbind_key]");
}

/* A value that belongs to the main thread: a marker read by the main thread,
 * or a descriptor whose first word (its tid) is the process id. */
bool is_main_value(const void* value) {
  if ((uintptr_t)value < kMarkerLimit) return is_main_thread();
  return *(const uint32_t*)value == g_process_id;
}

[[noreturn]] void x86_mode_not_implemented() {
  vorx_deepbind_assert_fail(__FILE__, __LINE__, __func__, "0 && \"x86 mode is not implemented\"", "%s", "");
}

/* ---- the thread's own copy of its key values ---------------------------------
 *
 * Every entry into the collector starts by finding the thread's descriptor through a key. The answer
 * changes only when this thread stores a value, when its thread library clears a value before running
 * the key's destructor, or when a process-wide rule changes (keys made, the thread library loaded or
 * unloaded, a fork, a main-thread value written): so the thread keeps what it read last in its own
 * static TLS, and the process-wide changes move a generation that makes every copy stale. */
struct key_cache {
  uint32_t generation;
  uint32_t valid;   /* one bit per key */
  uint32_t stores;  /* this thread's stores, counted: a read interrupted by one does not keep its answer */
  void* values[VORX_DEEPBIND_TLS_KEYS];
};
__thread key_cache t_keys __attribute__((tls_model("initial-exec")));
uint32_t g_key_generation = 1;

void keys_changed() { __atomic_add_fetch(&g_key_generation, 1, __ATOMIC_RELEASE); }

bool cached_value(pthread_key_t key, void** value) {
  if (t_keys.generation != __atomic_load_n(&g_key_generation, __ATOMIC_ACQUIRE)) return false;
  if (!((t_keys.valid >> key) & 1u)) return false;
  *value = t_keys.values[key];
  return true;
}

void keep_value(pthread_key_t key, void* value, uint32_t generation, uint32_t stores) {
  if (t_keys.stores != stores) return;
  if (t_keys.generation != generation) {
    t_keys.generation = generation;
    t_keys.valid = 0;
  }
  t_keys.values[key] = value;
  t_keys.valid |= 1u << key;
}

/* At a thread's end the thread library sets each value to null and then calls the key's destructor: the
 * copy goes first. Every key gets this destructor, also one whose owner gave none, since its value is
 * cleared all the same. */
template <int Key>
void forget_then_destroy(void* value) {
  t_keys.valid &= ~(1u << Key);
  ++t_keys.stores;
  if (g_tls_map.destructors[Key]) g_tls_map.destructors[Key](value);
}

template <int... Keys>
constexpr auto make_destructor_table(std::integer_sequence<int, Keys...>) {
  return std::array<void (*)(void*), sizeof...(Keys)>{&forget_then_destroy<Keys>...};
}
constexpr auto kForgettingDestructors = make_destructor_table(std::make_integer_sequence<int, VORX_DEEPBIND_TLS_KEYS>{});

/* What the application's library is given as the destructor of key i. */
void (*real_destructor(int i))(void*) { return kForgettingDestructors[i]; }

/* The value as the thread library and the main-thread rules give it. */
void* read_specific(pthread_key_t key) {
  uint32_t mode = g_pthread_load_mode;
  if (mode == vorx_deepbind_pthread_mode_unavailable) {
    DB_CHECK(g_tls_map.pthread_keys[key] == VORX_DEEPBIND_NO_KEY,
             "g_tls_map.pthread_keys[key] == 0xFFFFFFFF");
    return g_tls_map.main_values[key];
  }
  if (mode == vorx_deepbind_pthread_mode_go) x86_mode_not_implemented();
  DB_CHECK(g_process_id != 0, "g_process_id != 0");
  void* value = APP_FN(pthread_getspecific)(g_tls_map.pthread_keys[key]);
  if (!is_main_value(value)) return value;
  return g_tls_map.main_values[key];
}

void create_real_keys() {
  auto key_create = APP_FN_CHECKED(pthread_key_create);
  for (int i = 0; i < VORX_DEEPBIND_TLS_KEYS; ++i) {
    if (!g_tls_map.is_key_used[i]) continue;
    pthread_key_t real = VORX_DEEPBIND_NO_KEY;
    int res = key_create(&real, real_destructor(i));
    DB_ASSERT(res == 0);
    DB_CHECK(real != VORX_DEEPBIND_NO_KEY, "g_tls_map.pthread_keys[i] != 0xFFFFFFFF");
    g_tls_map.pthread_keys[i] = real;
  }
}

void notify_pytrace(int loaded) {
  if (pytrace_notify_pthread_state) pytrace_notify_pthread_state(loaded);
}

/* ---- thread pointer at launch -------------------------------------------- */

bool thread_block_present() {
  uint16_t gs;
  __asm__ volatile("movw %%gs, %0" : "=r"(gs));
  if (gs == 0) return false;
  void* self = sal_get_tsd();
  return self != nullptr && *(void**)self == self;
}

struct user_desc_i386 {
  uint32_t entry_number;
  uint32_t base_addr;
  uint32_t limit;
  uint32_t flags;
};

/* The trap gate: until a thread block exists, the C library's system-call
 * stubs (which jump through %gs:0x10) can't be used. */
long trap_syscall(long nr, long a, long b, long c, long d, long e) {
  long result;
  /* The sixth argument (%ebp) is always 0 here: mmap2's page offset. */
  __asm__ volatile("push %%ebp\n\txorl %%ebp, %%ebp\n\tint $0x80\n\tpop %%ebp"
                   : "=a"(result)
                   : "0"(nr), "b"(a), "c"(b), "d"(c), "S"(d), "D"(e)
                   : "memory");
  return result;
}

constexpr long kMmap2Syscall = 192;

/* A thread block for a main thread that no thread library has set up yet:
 * one page whose first word points at itself. */
void install_thread_block() {
  long mapped = trap_syscall(kMmap2Syscall, 0, 4096, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1);
  DB_CHECK(mapped > 0 || mapped < -4095, "page != ((void *)-1)");
  void* page = (void*)mapped;
  *(void**)page = page;
  user_desc_i386 desc = {(uint32_t)-1, (uint32_t)(uintptr_t)page, 1, kThreadAreaFlags};
  long result = trap_syscall(kSetThreadAreaSyscall, (long)&desc, 0, 0, 0, 0);
  DB_ASSERT(result == 0);
  uint16_t selector = (uint16_t)(desc.entry_number * 8 + 3);
  __asm__ volatile("movw %0, %%gs" : : "r"(selector));
}

}  // namespace

/* ======================================================================= */

extern "C" {

int vorx_deepbind_is_active(void) { return g_active; }

int is_control_service_thread_current(void) { return on_service_stack() ? 1 : 0; }

void vorx_deepbind_set_internal_thread_stack_boundaries(uintptr_t high, uintptr_t low) {
  g_service_low = low;
  g_service_high = high;
}

void vorx_deepbind_init(int is_attaching) {
  /* Under the audit loader the thread block already exists: keep it. */
  g_vorx_db_static_tls = is_attaching || thread_block_present();
  if (!g_vorx_db_static_tls) install_thread_block();
  g_main_tsd = sal_get_tsd();
  for (int i = 0; i < VORX_DEEPBIND_TLS_KEYS; ++i) g_tls_map.pthread_keys[i] = VORX_DEEPBIND_NO_KEY;
  g_active = 1;
  vorx_deepbind_notify_on_pthread_unloaded();
}

void vorx_deepbind_notify_on_pthread_loaded(uint32_t init_type, uint32_t mode) {
  DB_NOT_SERVICE();
  uint32_t current = g_pthread_load_mode;
  if (mode == vorx_deepbind_pthread_mode_go) {
    if (current == vorx_deepbind_pthread_mode_dynamic) {
      mode = vorx_deepbind_pthread_mode_dynamic;
    } else if (current == vorx_deepbind_pthread_mode_unavailable) {
      vorx_go_internal_main_thread_init_tls();
      return;
    } else {
      DB_CHECK(0, "current_mode == vorx_deepbind_pthread_mode_dynamic");
    }
  } else if (current == vorx_deepbind_pthread_mode_static || current == vorx_deepbind_pthread_mode_go) {
    DB_CHECK(current == vorx_deepbind_pthread_mode_static, "g_pthread_load_mode == vorx_deepbind_pthread_mode_static");
    DB_CHECK(mode == vorx_deepbind_pthread_mode_static, "mode == vorx_deepbind_pthread_mode_static");
    notify_pytrace(1);
    return;
  }
  /* Every function that this layer passes on must be reachable. */
  APP_ROW_CHECK(pthread_key_create);
  APP_ROW_CHECK(pthread_setspecific);
  APP_ROW_CHECK(pthread_getspecific);
  APP_ROW_CHECK(pthread_self);
  APP_ROW_CHECK(pthread_getattr_np);
  APP_ROW_CHECK(pthread_attr_getstacksize);
  APP_ROW_CHECK(pthread_attr_setstacksize);
  APP_ROW_CHECK(pthread_attr_getstack);
  APP_ROW_CHECK(pthread_attr_setstack);
  APP_ROW_CHECK(pthread_attr_destroy);
  APP_ROW_CHECK(pthread_setcanceltype);
  APP_ROW_CHECK(_pthread_cleanup_push);
  APP_ROW_CHECK(_pthread_cleanup_pop);

  DB_CHECK(mode == vorx_deepbind_pthread_mode_static || mode == vorx_deepbind_pthread_mode_dynamic,
           "mode == vorx_deepbind_pthread_mode_static || mode == vorx_deepbind_pthread_mode_dynamic");
  if (init_type == 1 /* launched by the engine */ && g_process_id != sal_thread_id())
    vorx_deepbind_assert_fail(__FILE__, __LINE__, __func__, "g_process_id == sal_thread_id()", "%s",
                              "Attempt to load libpthread.so by a thread different from the main one. Unsupported.");
  g_pthread_load_mode = mode;
  create_real_keys();
  keys_changed();
  notify_pytrace(1);
}

void vorx_deepbind_notify_on_pthread_unloaded(void) {
  g_process_id = sal_process_id();
  if (g_pthread_load_mode == vorx_deepbind_pthread_mode_static)
    vorx_deepbind_assert_fail(__FILE__, __LINE__, __func__,
                              "g_pthread_load_mode != vorx_deepbind_pthread_mode_static", "%s",
                              "Attempt to unload libpthread.so aliased by the main executable. Unsupported.");
  for (int i = 0; i < VORX_DEEPBIND_TLS_KEYS; ++i) g_tls_map.pthread_keys[i] = VORX_DEEPBIND_NO_KEY;
  g_pthread_load_mode = vorx_deepbind_pthread_mode_unavailable;
  keys_changed();
  notify_pytrace(0);
}

void vorx_deepbind_reset(void) {
  uint32_t old_process_id = g_process_id;
  g_process_id = sal_process_id();
  DB_ASSERT(g_process_id != old_process_id);
  g_main_tsd = sal_get_tsd(); /* the forking thread is the child's main thread */
  for (int i = 0; i < VORX_DEEPBIND_TLS_KEYS; ++i) {
    if (!g_tls_map.is_key_used[i]) continue;
    g_tls_map.main_values[i] = nullptr;
    g_tls_map.service_values[i] = nullptr;
  }
  keys_changed();
}

/* ---- mutexes: recursive, futex-backed ----------------------------------- */

int vorx_db_mutex_init(pthread_mutex_t* pm, const pthread_mutexattr_t* a) {
  DB_CHECK(a == nullptr, "a == ((void *)0)");
  mutex_setup((db_mutex*)pm);
  return 0;
}

int vorx_db_mutex_destroy(pthread_mutex_t*) { return 0; }

int vorx_db_mutex_lock(pthread_mutex_t* pm) {
  db_mutex* m = (db_mutex*)pm;
  if (__atomic_load_n(&m->yield_period, __ATOMIC_ACQUIRE) == 0) mutex_setup(m);
  uintptr_t token = current_thread_token();
  if (m->depth != 0 && m->owner == token) {
    ++m->depth;
    return 0;
  }
  for (uint32_t i = 1; !cas(&m->lock, 0, 1);) {
    if (i % m->yield_period == 0) {
      ++i;
      sal_yield();
    } else if (i > m->spin_limit) {
      __atomic_add_fetch(&m->waiters, 1, __ATOMIC_ACQ_REL);
      futex_wait(&m->lock, 1);
      __atomic_sub_fetch(&m->waiters, 1, __ATOMIC_ACQ_REL);
      i = 1;
    } else {
      ++i;
    }
  }
  DB_LOCK_ACQUIRED(m, 1);
  m->owner = token;
  ++m->depth;
  return 0;
}

int vorx_db_mutex_trylock(pthread_mutex_t* pm) {
  db_mutex* m = (db_mutex*)pm;
  if (__atomic_load_n(&m->yield_period, __ATOMIC_ACQUIRE) == 0) mutex_setup(m);
  uintptr_t token = current_thread_token();
  if (m->depth != 0 && m->owner == token) {
    ++m->depth;
    return 0;
  }
  if (!cas(&m->lock, 0, 1)) return kEbusy;
  DB_LOCK_ACQUIRED(m, 1);
  m->owner = token;
  ++m->depth;
  return 0;
}

int vorx_db_mutex_unlock(pthread_mutex_t* pm) {
  db_mutex* m = (db_mutex*)pm;
  if (--m->depth > 0) return 0;
  m->owner = 0;
  DB_LOCK_RELEASED(m, 1);
  __atomic_exchange_n(&m->lock, 0, __ATOMIC_RELEASE);
  if (__atomic_load_n(&m->waiters, __ATOMIC_ACQUIRE) != 0) futex_wake_one(&m->lock);
  return 0;
}

/* ---- spin locks ------------------------------------------------------------ */

int vorx_db_spin_init(pthread_spinlock_t* lock, int pshared) {
  DB_ASSERT(pshared == 0);
  ((db_spin*)lock)->word = 0;
  return 0;
}
int vorx_db_spin_destroy(pthread_spinlock_t*) { return 0; }
int vorx_db_spin_lock(pthread_spinlock_t* lock) {
  spin_acquire((db_spin*)lock);
  return 0;
}
int vorx_db_spin_trylock(pthread_spinlock_t* lock) {
  db_spin* s = (db_spin*)lock;
  DB_SYNC_WORDS(s, sizeof *s);
  if (!cas(&s->word, 0, 1)) return kEbusy;
  DB_LOCK_ACQUIRED(s, 1);
  return 0;
}
int vorx_db_spin_unlock(pthread_spinlock_t* lock) {
  spin_release((db_spin*)lock);
  return 0;
}

/* ---- read-write locks: writers first -------------------------------------- */

int vorx_db_rwlock_init(pthread_rwlock_t* prw, const pthread_rwlockattr_t*) {
  memset(prw, 0, sizeof(db_rwlock));
  DB_SYNC_WORDS(prw, sizeof(db_rwlock));
  DB_LOCK_CREATED(prw);
  return 0;
}
int vorx_db_rwlock_destroy(pthread_rwlock_t*) { return 0; }

int vorx_db_rwlock_rdlock(pthread_rwlock_t* prw) {
  db_rwlock* rw = (db_rwlock*)prw;
  for (;;) {
    while (rw->waiting_writers != 0 || rw->state < 0) sal_yield();
    spin_acquire(&rw->count_lock);
    if (rw->waiting_writers == 0 && rw->state >= 0) {
      rw->state = rw->state + 1;
      spin_release(&rw->count_lock);
      DB_LOCK_ACQUIRED(rw, 0);
      return 0;
    }
    spin_release(&rw->count_lock);
  }
}

int vorx_db_rwlock_wrlock(pthread_rwlock_t* prw) {
  db_rwlock* rw = (db_rwlock*)prw;
  __atomic_add_fetch(&rw->waiting_writers, 1, __ATOMIC_ACQ_REL);
  for (;;) {
    while (rw->state > 0) sal_yield();
    spin_acquire(&rw->count_lock);
    if (rw->state == 0) {
      rw->state = -1;
      __atomic_sub_fetch(&rw->waiting_writers, 1, __ATOMIC_ACQ_REL);
      spin_release(&rw->count_lock);
      spin_acquire(&rw->writer_lock);
      DB_LOCK_ACQUIRED(rw, 1);
      return 0;
    }
    spin_release(&rw->count_lock);
    sal_yield(); /* another writer holds it */
  }
}

int vorx_db_rwlock_unlock(pthread_rwlock_t* prw) {
  db_rwlock* rw = (db_rwlock*)prw;
  spin_acquire(&rw->count_lock);
  int32_t state = rw->state;
  if (state != 0) DB_LOCK_RELEASED(rw, state < 0);
  if (state > 0) {
    rw->state = rw->state - 1;
    spin_release(&rw->count_lock);
    return 0;
  }
  if (state == 0) {
    spin_release(&rw->count_lock);
    vorx_deepbind_assert_fail(__FILE__, __LINE__, __func__, "unlock of the unlocked rwlock detected", "%s", "");
  }
  spin_release(&rw->writer_lock);
  rw->state = 0;
  spin_release(&rw->count_lock);
  return 0;
}

/* ---- semaphores ------------------------------------------------------------ */

int vorx_db_sem_init(sem_t* psem, int __pshared, unsigned value) {
  DB_ASSERT(__pshared == 0);
  db_sem* s = (db_sem*)psem;
  s->lock.word = 0;
  s->waiters = 0;
  s->count = value;
  DB_SYNC_WORDS(s, sizeof *s);
  return 0;
}
int vorx_db_sem_destroy(sem_t*) { return 0; }

int vorx_db_sem_wait(sem_t* psem) {
  db_sem* s = (db_sem*)psem;
  for (;;) {
    spin_acquire(&s->lock);
    if (s->count > 0) {
      s->count = s->count - 1;
      spin_release(&s->lock);
      DB_HAPPENS_AFTER(s);
      return 0;
    }
    spin_release(&s->lock);
    __atomic_add_fetch(&s->waiters, 1, __ATOMIC_ACQ_REL);
    futex_wait(&s->count, 0);
    __atomic_sub_fetch(&s->waiters, 1, __ATOMIC_ACQ_REL);
  }
}

int vorx_db_sem_post(sem_t* psem) {
  db_sem* s = (db_sem*)psem;
  DB_HAPPENS_BEFORE(s);
  spin_acquire(&s->lock);
  s->count = s->count + 1;
  bool wake = __atomic_load_n(&s->waiters, __ATOMIC_ACQUIRE) != 0;
  spin_release(&s->lock);
  if (wake) futex_wake_one(&s->count);
  return 0;
}

/* ---- thread-specific data -------------------------------------------------- */

int vorx_db_key_create(pthread_key_t* key, void (*destructor)(void*)) {
  for (uint32_t i = 0; i < VORX_DEEPBIND_TLS_KEYS; ++i) {
    if (g_tls_map.is_key_used[i]) continue;
    g_tls_map.destructors[i] = destructor;
    g_tls_map.main_values[i] = nullptr;
    g_tls_map.service_values[i] = nullptr;
    g_tls_map.pthread_keys[i] = VORX_DEEPBIND_NO_KEY;
    g_tls_map.is_key_used[i] = 1;
    keys_changed();
    if (library_mode()) {
      pthread_key_t real = VORX_DEEPBIND_NO_KEY;
      int res = APP_FN_CHECKED(pthread_key_create)(&real, real_destructor(i));
      DB_ASSERT(res == 0);
      g_tls_map.pthread_keys[i] = real;
    }
    *key = i;
    return 0;
  }
  vorx_deepbind_assert_fail(__FILE__, __LINE__, __func__, "free_key < 5", "%s",
                            "There is no available deepbind TLS keys anymore.");
}

void* vorx_db_getspecific(pthread_key_t key) {
  check_key(key);
  if (on_service_stack()) return g_tls_map.service_values[key];
  if (!g_vorx_db_static_tls || !library_mode()) return read_specific(key);
  void* cached;
  if (cached_value(key, &cached)) return cached;
  uint32_t generation = __atomic_load_n(&g_key_generation, __ATOMIC_ACQUIRE), stores = t_keys.stores;
  void* value = read_specific(key);
  keep_value(key, value, generation, stores);
  return value;
}

int vorx_db_setspecific(pthread_key_t key, const void* value) {
  check_key(key);
  if (on_service_stack()) {
    g_tls_map.service_values[key] = (void*)value;
    return 0;
  }
  uint32_t mode = g_pthread_load_mode;
  if (mode == vorx_deepbind_pthread_mode_unavailable) {
    g_tls_map.main_values[key] = (void*)value;
    keys_changed();
    return 0;
  }
  if (mode == vorx_deepbind_pthread_mode_go) x86_mode_not_implemented();
  DB_CHECK(g_process_id != 0, "g_process_id != 0");
  if (g_vorx_db_static_tls) ++t_keys.stores;
  int res = APP_FN(pthread_setspecific)(g_tls_map.pthread_keys[key], value);
  /* Values stored before the library came stay visible after it, and back:
   * the main thread's own, and any descriptor of the main thread. */
  bool main_descriptor = (uintptr_t)value >= kMarkerLimit && *(const uint32_t*)value == g_process_id;
  if (main_descriptor || is_main_thread()) {
    g_tls_map.main_values[key] = (void*)value;
    keys_changed();
  }
  if (g_vorx_db_static_tls) t_keys.valid &= ~(1u << key);  /* read again through the rules above, once */
  return res;
}

/* ---- passed to the application's library ------------------------------------ */

pthread_t vorx_db_self(void) {
  DB_NOT_SERVICE();
  uint32_t mode = g_pthread_load_mode;
  if (mode == vorx_deepbind_pthread_mode_unavailable) return 0;
  DB_ASSERT(library_mode());
  return APP_FN_CHECKED(pthread_self)();
}

int vorx_db_getattr_np(pthread_t thread, pthread_attr_t* attr) {
  DB_NOT_SERVICE();
  if (g_pthread_load_mode == vorx_deepbind_pthread_mode_unavailable) return -1;
  DB_ASSERT(library_mode());
  return APP_FN_CHECKED(pthread_getattr_np)(thread, attr);
}

char* vorx_db_getenv(const char* name) {
  DB_NOT_SERVICE();
  if (vorx_env_getenv) {
    const char* own = vorx_env_getenv(name);
    if (own) return (char*)own;
  }
  auto app_getenv = APP_FN(getenv);
  return app_getenv ? app_getenv(name) : nullptr;
}

bool g_vorx_db_static_tls = false;

/* A thread's errno never moves: each thread asks the application's library once. */
__thread int* vorx_t_app_errno __attribute__((tls_model("initial-exec")));
int* applibc___errno_location(void) {
  if (!g_vorx_db_static_tls) return APP_FN_CHECKED(__errno_location)();
  if (!vorx_t_app_errno) vorx_t_app_errno = APP_FN_CHECKED(__errno_location)();
  return vorx_t_app_errno;
}
void* applibc_dlopen(const char* file, int mode) { return APP_FN_CHECKED(dlopen)(file, mode); }
int applibc_dlclose(void* handle) { return APP_FN_CHECKED(dlclose)(handle); }
void* applibc_dlsym(void* handle, const char* name) { return APP_FN_CHECKED(dlsym)(handle, name); }

void* vorx_go_internal_new_thread_allocate_tls_on_stack(void* block20) {
  memset(block20, 0, 20);
  return block20;
}
void vorx_go_internal_new_thread_init_tls(void) { x86_mode_not_implemented(); }
void vorx_go_internal_main_thread_init_tls(void) { x86_mode_not_implemented(); }

}  // extern "C"

/* ==========================================================================
 * The public names. Each is defined under its assembler name, so that the
 * C library's own declarations (some of them inline) don't collide. Before
 * the layer is active a name forwards to the next definition in the link
 * order; afterwards it runs the algorithm above, passes the call to the
 * application, or refuses.
 * ======================================================================= */
#ifndef VORX_DEEPBIND_NO_PUBLIC_NAMES

namespace {

template <class Fn>
Fn next_definition(Fn* cache, const char* name) {
  Fn fn = __atomic_load_n(cache, __ATOMIC_ACQUIRE);
  if (!fn) {
    fn = reinterpret_cast<Fn>(dlsym(RTLD_NEXT, name));
    __atomic_store_n(cache, fn, __ATOMIC_RELEASE);
  }
  return fn;
}

[[noreturn]] void refuse(const char* name, const char* text) {
  vorx_deepbind_assert_fail(__FILE__, __LINE__, name, text, "%s", "");
}

int db_setenv(const char* name, const char* value, int replace) {
  DB_NOT_SERVICE();
  return APP_FN_CHECKED(setenv)(name, value, replace);
}

int db_fstat(int fd, struct stat* buf) {
  DB_NOT_SERVICE();
  memset(buf, 0, sizeof(*buf));
#ifdef VORX_DEEPBIND_HAVE_ENGINE
  LEVEL_BASE::USIZE size = 0;
  LEVEL_BASE::OS_FileSizeFD(fd, &size);
  buf->st_size = size;
#else
  struct stat64 st;
  if (syscall(SYS_fstat64, fd, &st) == 0) buf->st_size = st.st_size;
#endif
  return 0;
}

int* db_errno_location() {
  vorx_deepbind_assert_fail(__FILE__, __LINE__, __func__, "Request of __errno_location in KEL's loader domain.",
                            "%s", "");
}

int db_attr_passthrough_guard() {
  DB_NOT_SERVICE();
  return 0;
}

}  // namespace

/* Implemented names: (return type, name, parameters, arguments, active body). */
#define VORX_DEEPBIND_IMPLEMENTED(X)                                                                        \
  X(int, pthread_key_create, (pthread_key_t* k, void (*d)(void*)), (k, d), vorx_db_key_create(k, d))       \
  X(void*, pthread_getspecific, (pthread_key_t k), (k), vorx_db_getspecific(k))                           \
  X(int, pthread_setspecific, (pthread_key_t k, const void* v), (k, v), vorx_db_setspecific(k, v))        \
  X(int, pthread_spin_init, (pthread_spinlock_t* l, int p), (l, p), vorx_db_spin_init(l, p))              \
  X(int, pthread_spin_destroy, (pthread_spinlock_t* l), (l), vorx_db_spin_destroy(l))                     \
  X(int, pthread_spin_lock, (pthread_spinlock_t* l), (l), vorx_db_spin_lock(l))                           \
  X(int, pthread_spin_unlock, (pthread_spinlock_t* l), (l), vorx_db_spin_unlock(l))                       \
  X(int, pthread_spin_trylock, (pthread_spinlock_t* l), (l), vorx_db_spin_trylock(l))                     \
  X(int, pthread_mutex_init, (pthread_mutex_t* m, const pthread_mutexattr_t* a), (m, a),                  \
    vorx_db_mutex_init(m, a))                                                                               \
  X(int, pthread_mutex_destroy, (pthread_mutex_t* m), (m), vorx_db_mutex_destroy(m))                      \
  X(int, pthread_mutex_lock, (pthread_mutex_t* m), (m), vorx_db_mutex_lock(m))                            \
  X(int, pthread_mutex_unlock, (pthread_mutex_t* m), (m), vorx_db_mutex_unlock(m))                        \
  X(int, pthread_mutex_trylock, (pthread_mutex_t* m), (m), vorx_db_mutex_trylock(m))                      \
  X(int, pthread_rwlock_init, (pthread_rwlock_t* r, const pthread_rwlockattr_t* a), (r, a),               \
    vorx_db_rwlock_init(r, a))                                                                              \
  X(int, pthread_rwlock_rdlock, (pthread_rwlock_t* r), (r), vorx_db_rwlock_rdlock(r))                     \
  X(int, pthread_rwlock_wrlock, (pthread_rwlock_t* r), (r), vorx_db_rwlock_wrlock(r))                     \
  X(int, pthread_rwlock_unlock, (pthread_rwlock_t* r), (r), vorx_db_rwlock_unlock(r))                     \
  X(int, pthread_rwlock_destroy, (pthread_rwlock_t* r), (r), vorx_db_rwlock_destroy(r))                   \
  X(int, sem_init, (sem_t* s, int p, unsigned v), (s, p, v), vorx_db_sem_init(s, p, v))                    \
  X(int, sem_destroy, (sem_t* s), (s), vorx_db_sem_destroy(s))                                              \
  X(int, sem_wait, (sem_t* s), (s), vorx_db_sem_wait(s))                                                    \
  X(int, sem_post, (sem_t* s), (s), vorx_db_sem_post(s))                                                    \
  X(int, pthread_yield, (void), (), (DB_NOT_SERVICE(), sal_yield(), 0))                                     \
  X(pthread_t, pthread_self, (void), (), vorx_db_self())                                                    \
  X(int, pthread_getattr_np, (pthread_t t, pthread_attr_t* a), (t, a), vorx_db_getattr_np(t, a))          \
  X(int, pthread_attr_setstacksize, (pthread_attr_t* a, size_t s), (a, s),                                 \
    (db_attr_passthrough_guard(), APP_FN_CHECKED(pthread_attr_setstacksize)(a, s)))                        \
  X(int, pthread_attr_getstacksize, (const pthread_attr_t* a, size_t* s), (a, s),                          \
    (db_attr_passthrough_guard(), APP_FN_CHECKED(pthread_attr_getstacksize)(a, s)))                        \
  X(int, pthread_attr_setstack, (pthread_attr_t* a, void* p, size_t s), (a, p, s),                         \
    (db_attr_passthrough_guard(), APP_FN_CHECKED(pthread_attr_setstack)(a, p, s)))                         \
  X(int, pthread_attr_getstack, (const pthread_attr_t* a, void** p, size_t* s), (a, p, s),                 \
    (db_attr_passthrough_guard(), APP_FN_CHECKED(pthread_attr_getstack)(a, p, s)))                         \
  X(int, pthread_attr_destroy, (pthread_attr_t* a), (a),                                                   \
    (db_attr_passthrough_guard(), APP_FN_CHECKED(pthread_attr_destroy)(a)))                                \
  X(int, pthread_setcanceltype, (int t, int* o), (t, o),                                                   \
    (db_attr_passthrough_guard(), APP_FN_CHECKED(pthread_setcanceltype)(t, o)))                            \
  X(int*, __errno_location, (void), (), db_errno_location())                                                \
  X(char*, getenv, (const char* n), (n), vorx_db_getenv(n))                                                 \
  X(int, setenv, (const char* n, const char* v, int r), (n, v, r), db_setenv(n, v, r))                     \
  X(int, fstat, (int fd, struct stat* b), (fd, b), db_fstat(fd, b))

/* Names that the collector never needs: (return type, name, parameters,
 * arguments, refusal text). */
#define VORX_DEEPBIND_NOT_SUPPORTED "this pthread function is not supported by deepbind"
#define VORX_DEEPBIND_REFUSED(X)                                                                           \
  X(int, pthread_attr_getdetachstate, (const pthread_attr_t* a, int* v), (a, v), VORX_DEEPBIND_NOT_SUPPORTED) \
  X(int, pthread_attr_getinheritsched, (const pthread_attr_t* a, int* v), (a, v), VORX_DEEPBIND_NOT_SUPPORTED) \
  X(int, pthread_attr_getschedparam, (const pthread_attr_t* a, struct sched_param* p), (a, p),             \
    VORX_DEEPBIND_NOT_SUPPORTED)                                                                           \
  X(int, pthread_attr_getschedpolicy, (const pthread_attr_t* a, int* v), (a, v), VORX_DEEPBIND_NOT_SUPPORTED) \
  X(int, pthread_attr_getscope, (const pthread_attr_t* a, int* v), (a, v), VORX_DEEPBIND_NOT_SUPPORTED)    \
  X(int, pthread_attr_init, (pthread_attr_t* a), (a), VORX_DEEPBIND_NOT_SUPPORTED)                         \
  X(int, pthread_attr_setdetachstate, (pthread_attr_t* a, int v), (a, v), VORX_DEEPBIND_NOT_SUPPORTED)     \
  X(int, pthread_attr_setinheritsched, (pthread_attr_t* a, int v), (a, v), VORX_DEEPBIND_NOT_SUPPORTED)    \
  X(int, pthread_attr_setschedparam, (pthread_attr_t* a, const struct sched_param* p), (a, p),             \
    VORX_DEEPBIND_NOT_SUPPORTED)                                                                           \
  X(int, pthread_attr_setschedpolicy, (pthread_attr_t* a, int v), (a, v), VORX_DEEPBIND_NOT_SUPPORTED)     \
  X(int, pthread_attr_setscope, (pthread_attr_t* a, int v), (a, v), VORX_DEEPBIND_NOT_SUPPORTED)           \
  X(int, pthread_condattr_destroy, (pthread_condattr_t* a), (a), VORX_DEEPBIND_NOT_SUPPORTED)              \
  X(int, pthread_condattr_init, (pthread_condattr_t* a), (a), VORX_DEEPBIND_NOT_SUPPORTED)                 \
  X(int, pthread_cond_broadcast, (pthread_cond_t* c), (c), VORX_DEEPBIND_NOT_SUPPORTED)                    \
  X(int, pthread_cond_destroy, (pthread_cond_t* c), (c), VORX_DEEPBIND_NOT_SUPPORTED)                      \
  X(int, pthread_cond_init, (pthread_cond_t* c, const pthread_condattr_t* a), (c, a), VORX_DEEPBIND_NOT_SUPPORTED) \
  X(int, pthread_cond_signal, (pthread_cond_t* c), (c), VORX_DEEPBIND_NOT_SUPPORTED)                       \
  X(int, pthread_cond_timedwait, (pthread_cond_t* c, pthread_mutex_t* m, const struct timespec* t), (c, m, t), \
    VORX_DEEPBIND_NOT_SUPPORTED)                                                                           \
  X(int, pthread_cond_wait, (pthread_cond_t* c, pthread_mutex_t* m), (c, m), VORX_DEEPBIND_NOT_SUPPORTED)   \
  X(int, pthread_equal, (pthread_t a, pthread_t b), (a, b), VORX_DEEPBIND_NOT_SUPPORTED)                   \
  X(void, pthread_exit, (void* r), (r), VORX_DEEPBIND_NOT_SUPPORTED)                                       \
  X(int, pthread_getschedparam, (pthread_t t, int* p, struct sched_param* s), (t, p, s), VORX_DEEPBIND_NOT_SUPPORTED) \
  X(int, pthread_cancel, (pthread_t t), (t), VORX_DEEPBIND_NOT_SUPPORTED)                                  \
  X(int, pthread_setcancelstate, (int s, int* o), (s, o), VORX_DEEPBIND_NOT_SUPPORTED)                     \
  X(int, pthread_setschedparam, (pthread_t t, int p, const struct sched_param* s), (t, p, s),              \
    VORX_DEEPBIND_NOT_SUPPORTED)                                                                           \
  X(int, pthread_key_delete, (pthread_key_t k), (k), VORX_DEEPBIND_NOT_SUPPORTED)                          \
  X(int, getrlimit64, (int r, struct rlimit64* l), (r, l), "not implemented")

#define VORX_DB_DECLARE(ret, name, params, args, ...)                                                \
  extern "C" __attribute__((visibility("default"))) ret vorx_db_public_##name params __asm__(#name);

#define VORX_DB_DEFINE_IMPLEMENTED(ret, name, params, args, body)                                    \
  ret vorx_db_public_##name params {                                                                 \
    static decltype(&vorx_db_public_##name) next;                                                    \
    if (__builtin_expect(!g_active, 0)) return next_definition(&next, #name) args;                  \
    return body;                                                                                     \
  }

#define VORX_DB_DEFINE_REFUSED(ret, name, params, args, text)                                        \
  ret vorx_db_public_##name params {                                                                 \
    static decltype(&vorx_db_public_##name) next;                                                    \
    if (!g_active) return next_definition(&next, #name) args;                                        \
    refuse(#name, text);                                                                             \
  }

VORX_DEEPBIND_IMPLEMENTED(VORX_DB_DECLARE)
VORX_DEEPBIND_REFUSED(VORX_DB_DECLARE)
VORX_DEEPBIND_IMPLEMENTED(VORX_DB_DEFINE_IMPLEMENTED)
VORX_DEEPBIND_REFUSED(VORX_DB_DEFINE_REFUSED)

#endif /* VORX_DEEPBIND_NO_PUBLIC_NAMES */
