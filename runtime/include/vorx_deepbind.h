/* The tool domain's threading layer.
 *
 * The collector runs beside its own copy of the C library, and not against the
 * application's thread library. This layer defines, inside libvorxtool.so, the
 * public names that the collector's code uses (pthread_mutex_*, sem_*,
 * pthread_key_*, getenv, __errno_location, ...):
 *   - locks and semaphores are futex-based and need nobody;
 *   - thread-specific data lives in 5 static slots until the application's
 *     thread library is there, and in its keys afterwards;
 *   - everything else goes to the application's own functions through the
 *     probe table's trampolines.
 * Until vorx_deepbind_init has run, every public name forwards to the next
 * definition in the link order (the ordinary C library), so that a program
 * that merely links the runtime library keeps its own libc behaviour.
 *
 * The vorx_db_* entry points are the same algorithms under private names; the
 * public names are a thin layer over them. */
#ifndef VORX_DEEPBIND_H
#define VORX_DEEPBIND_H

#include <pthread.h>
#include <semaphore.h>
#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif

typedef enum vorx_deepbind_pthread_mode {
  vorx_deepbind_pthread_mode_unavailable = 0,
  vorx_deepbind_pthread_mode_static = 1,  /* the thread library is part of the main executable */
  vorx_deepbind_pthread_mode_dynamic = 2,
  vorx_deepbind_pthread_mode_go = 3,      /* a Go runtime: recognised and refused */
  vorx_deepbind_pthread_mode_eof
} vorx_deepbind_pthread_mode_t;

#define VORX_DEEPBIND_TLS_KEYS 5
#define VORX_DEEPBIND_NO_KEY 0xFFFFFFFFu

/* Thread-specific data of the tool domain. Writers: pthread_key_create (once
 * per key, at start-up), the load notifications, reset in a forked child.
 * main_values and service_values are written by their own threads only. */
typedef struct vorx_deepbind_tls_map {
  uint32_t is_key_used[VORX_DEEPBIND_TLS_KEYS];
  void (*destructors[VORX_DEEPBIND_TLS_KEYS])(void*);
  void* main_values[VORX_DEEPBIND_TLS_KEYS];
  void* service_values[VORX_DEEPBIND_TLS_KEYS];
  uint32_t pthread_keys[VORX_DEEPBIND_TLS_KEYS]; /* the application's keys, or VORX_DEEPBIND_NO_KEY */
} vorx_deepbind_tls_map_t;

extern volatile uint32_t g_pthread_load_mode;
extern uint32_t g_process_id;
extern vorx_deepbind_tls_map_t g_tls_map;

/* Control. */
void vorx_deepbind_init(int is_attaching);
void vorx_deepbind_notify_on_pthread_loaded(uint32_t init_type, uint32_t mode);
void vorx_deepbind_notify_on_pthread_unloaded(void);
void vorx_deepbind_reset(void);
/* Names the one thread that runs on the engine's own thread facilities (the
 * control service), by the bounds [low, high) of its stack. */
void vorx_deepbind_set_internal_thread_stack_boundaries(uintptr_t high, uintptr_t low);
int is_control_service_thread_current(void);

/* The application's own functions, through the probe table's trampolines;
 * each asserts that the trampoline is there. */
int* applibc___errno_location(void);
/* Whether threads have the static TLS block of a thread library (not the page that stands in for it
 * early): only then does the collector keep per-thread answers there. */
extern bool g_vorx_db_static_tls;
/* The answer above as this thread kept it (null until the first ask): read inline by the wrappers, which
 * need it twice per call. */
extern __thread int* vorx_t_app_errno __attribute__((tls_model("initial-exec")));
static inline int* vorx_app_errno_location(void) {
  int* kept = g_vorx_db_static_tls ? vorx_t_app_errno : (int*)0;
  return kept ? kept : applibc___errno_location();
}
void* applibc_dlopen(const char* file, int mode);
int applibc_dlclose(void* handle);
void* applibc_dlsym(void* handle, const char* name);

/* Go runtime support, not implemented on 32-bit x86. */
void* vorx_go_internal_new_thread_allocate_tls_on_stack(void* block20);
void vorx_go_internal_new_thread_init_tls(void);
void vorx_go_internal_main_thread_init_tls(void);

/* The algorithms under private names (the public names forward here once
 * the layer is active). Results as their public counterparts. */
int vorx_db_mutex_init(pthread_mutex_t* m, const pthread_mutexattr_t* a);
int vorx_db_mutex_destroy(pthread_mutex_t* m);
int vorx_db_mutex_lock(pthread_mutex_t* m);
int vorx_db_mutex_trylock(pthread_mutex_t* m);
int vorx_db_mutex_unlock(pthread_mutex_t* m);
int vorx_db_spin_init(pthread_spinlock_t* lock, int pshared);
int vorx_db_spin_destroy(pthread_spinlock_t* lock);
int vorx_db_spin_lock(pthread_spinlock_t* lock);
int vorx_db_spin_trylock(pthread_spinlock_t* lock);
int vorx_db_spin_unlock(pthread_spinlock_t* lock);
int vorx_db_rwlock_init(pthread_rwlock_t* rw, const pthread_rwlockattr_t* a);
int vorx_db_rwlock_destroy(pthread_rwlock_t* rw);
int vorx_db_rwlock_rdlock(pthread_rwlock_t* rw);
int vorx_db_rwlock_wrlock(pthread_rwlock_t* rw);
int vorx_db_rwlock_unlock(pthread_rwlock_t* rw);
int vorx_db_sem_init(sem_t* sem, int pshared, unsigned value);
int vorx_db_sem_destroy(sem_t* sem);
int vorx_db_sem_wait(sem_t* sem);
int vorx_db_sem_post(sem_t* sem);
int vorx_db_key_create(pthread_key_t* key, void (*destructor)(void*));
void* vorx_db_getspecific(pthread_key_t key);
int vorx_db_setspecific(pthread_key_t key, const void* value);
pthread_t vorx_db_self(void);
int vorx_db_getattr_np(pthread_t thread, pthread_attr_t* attr);
char* vorx_db_getenv(const char* name);
/* True once vorx_deepbind_init has run: the public names stop forwarding. */
int vorx_deepbind_is_active(void);

#ifdef __cplusplus
}
#endif

#endif
