/* Living beside the application's signals.
 *
 * The collector owns the kernel's signal actions; the application sees its own
 * signal world through the wrappers of its signal API. Two classes of handler
 * exist for a signal: the first-class one is the collector's (in the kernel it
 * is always real_signal_handler), the second-class one is the application's,
 * kept in the manager's table and called by the collector.
 *
 * A signal that arrives while its thread runs collector code (the thread holds
 * its descriptor in the thread manager) is queued in the thread's signal
 * descriptor and delivered when the thread leaves the collector, so no
 * application handler ever runs inside the collector, and none can jump out of
 * it with a lock held.
 *
 * The kernel's signal mask of a thread is the application's own, less the
 * collector's internal signals (the sampling signal): blocked signals stay
 * pending in the kernel exactly as they would natively, so sigwait, signalfd
 * and process-directed signals reach the thread that would take them natively.
 *
 * Operations return vorx_sig_ok (1), vorx_sig_failed (2, with an errno value
 * through the last argument) or vorx_sig_special (3, the special outcome each
 * operation names). */
#ifndef VORX_SIGNAL_MANAGER_H
#define VORX_SIGNAL_MANAGER_H

#include <signal.h>
#include <stdbool.h>
#include <stdint.h>

#include "vorx_types.h"

#ifdef __cplusplus
extern "C" {
#endif

#define VORX_SIGNALS 65 /* signal numbers 0..64 */

enum vorx_sig_result { vorx_sig_ok = 1, vorx_sig_failed = 2, vorx_sig_special = 3 };

/* The state of a thread's fast mask: while blocked, the collector's handlers queue what arrives. */
typedef enum vorx_bs { vorx_bs_blocked = 0, vorx_bs_unblocked = 1, vorx_bs_eof = 2 } vorx_bs_t;

typedef void (*vorx_siginfo_handler_t)(int, siginfo_t*, void*);
typedef void (*vorx_call_handler_t)(const struct sigaction* action, int signo, siginfo_t* info, void* context);

typedef struct vorx_signal_manager vorx_signal_manager;
struct vorx_signal_manager {
  /* operations */
  void (*initialise)(vorx_signal_manager* m);
  void (*set_call_handler)(vorx_signal_manager* m, vorx_call_handler_t routine);
  void (*finalise)(vorx_signal_manager* m);
  void (*reinitialise_after_fork)(vorx_signal_manager* m);
  vorx_u32_t (*register_first_class_handler)(vorx_signal_manager* m, int signo, bool is_internal, bool is_deferable,
                                             const struct sigaction* action, int* err);
  vorx_u32_t (*unregister_first_class_handler)(vorx_signal_manager* m, int signo, int* err);
  bool (*is_handler_set)(vorx_signal_manager* m, int signo);
  bool (*is_fatal_signal_unhandled)(vorx_signal_manager* m, int signo);
  void (*call_second_class_handler)(vorx_signal_manager* m, int signo, siginfo_t* info, void* context);
  vorx_u32_t (*set_second_class_handler)(vorx_signal_manager* m, int signo, const struct sigaction* action,
                                         struct sigaction* old, int* err, void* original);
  /* state, guarded by `lock` (a thread's own tid while it holds it) */
  volatile int lock;
  vorx_u32_t pid; /* the process whose tables these are: a vfork child shares them and must not write */
  struct sigaction first_class[VORX_SIGNALS];
  struct sigaction second_class[VORX_SIGNALS];
  uint8_t is_first_class_handler_set[VORX_SIGNALS];
  uint8_t is_internal_handler[VORX_SIGNALS];
  uint8_t is_deferable_hander[VORX_SIGNALS];
  uint8_t is_second_class_handler_set[VORX_SIGNALS];
  uint8_t is_relay[VORX_SIGNALS]; /* first class only to carry the application's handler */
  vorx_call_handler_t call_handler;
};

extern vorx_signal_manager* g_signal_manager;

/* A deferred signal. */
typedef struct vorx_completion_object {
  int signo;
  uint8_t is_first_class;
  siginfo_t info;
} vorx_completion_object;

#define VORX_DEFERRED_SIGNALS 16

typedef struct vorx_signal_descr vorx_signal_descr;
struct vorx_signal_descr {
  /* operations; the first four are also read by the wrappers' inline enter and leave */
  vorx_u32_t (*initialise)(vorx_signal_descr* d);
  void (*finalise)(vorx_signal_descr* d);
  vorx_u32_t (*set_altstack_size)(vorx_signal_descr* d, vorx_u32_t size, vorx_u32_t min);
  vorx_u32_t (*set_first_class_fast_mask)(vorx_signal_descr* d, vorx_u32_t state, vorx_u32_t* old, void* binder);
  vorx_u32_t (*set_first_class_mask)(vorx_signal_descr* d, int how, const sigset_t* set, sigset_t* oset, int* err);
  vorx_u32_t (*set_second_class_signal_mask)(vorx_signal_descr* d, int how, const sigset_t* set, sigset_t* oset,
                                             int* err, void* original);
  vorx_u32_t (*get_pending)(vorx_signal_descr* d, sigset_t* set, int* err, void* original);
  vorx_u32_t (*wait_for_signal)(vorx_signal_descr* d, const sigset_t* set, int* err, void* original);
  vorx_u32_t (*set_altstack)(vorx_signal_descr* d, const stack_t* ss, stack_t* oss, bool is_safe, int* err,
                             void* original);
  void (*prepare_for_exception)(vorx_signal_descr* d);
  void (*leave_handler)(vorx_signal_descr* d, void (*routine)(void*), void* argument);
  /* state */
  vorx_u32_t owner;                 /* the thread's id */
  volatile vorx_u32_t deferred_count;
  vorx_completion_object deferred[VORX_DEFERRED_SIGNALS];
  vorx_u32_t deferred_lost;         /* signals that found the queue full, delivered at once instead */
  sigset_t effective_mask;          /* what the collector itself blocked on this thread */
  sigset_t second_class_mask;       /* what the application believes it blocked */
  volatile vorx_u32_t fast_mask;    /* vorx_bs_* */
  volatile uint8_t internal_signal_arrived;
  volatile uint8_t application_signal_delivered;
  stack_t own_altstack;             /* ss_flags SS_DISABLE while the collector has none */
  vorx_u32_t own_altstack_total;
  stack_t application_altstack;     /* the application's view */
  vorx_u32_t altstack_size, altstack_min_size;
};

/* ---- the manager -------------------------------------------------------------------------------- */

vorx_u32_t vorx_alloc_signal_manager(vorx_signal_manager** out);
void vorx_free_signal_manager(vorx_signal_manager* m);
void vorx_init_signal_manager(void);

/* The signals that only the collector may handle on this thread: the sampling signal while sampling. */
bool vorx_is_internal_signal(int signo);
/* True in a child that shares the parent's memory (vfork, posix_spawn) before it execs: its signal calls go to
 * the kernel as they are and leave the parent's tables alone. */
bool vorx_signal_tables_not_ours(void);
/* Default action of a signal: terminate (with or without core), ignore or stop. */
bool vorx_signal_default_terminates(int signo);

/* ---- the per-thread descriptor ------------------------------------------------------------------ */

vorx_u32_t vorx_alloc_signal_descr(vorx_signal_descr** out, vorx_u32_t altstack_size, vorx_u32_t altstack_min_size,
                                   const void* mask, int replace_small);
void vorx_free_signal_descr(vorx_signal_descr* d);
/* The calling thread's descriptor, or null for a thread the collector does not know. */
vorx_signal_descr* vorx_current_signal_descr(void);
/* Delivers what the thread queued while it was in the collector; called after it let go of its descriptor. */
void vorx_complete_deferred_signals(vorx_signal_descr* d);
static inline bool vorx_signal_descr_has_deferred(const vorx_signal_descr* d) {
  return d && __atomic_load_n(&d->deferred_count, __ATOMIC_ACQUIRE) != 0;
}
int vorx_signal_internal_arrived(vorx_signal_descr* d);
void vorx_signal_clear_internal_arrived(vorx_signal_descr* d);

/* A stack with an inaccessible page below it, for signal handlers; null when memory is short. */
void* vorx_alloc_stack_with_guard_page(vorx_u32_t size, vorx_u32_t* out_total);
void vorx_free_stack_with_guard_page(void* stack, vorx_u32_t total);
/* The application's handler of a signal that waited for its thread to leave the collector. */
void vorx_deliver_deferred_signal(int signo, siginfo_t* info);
/* Takes into the application's view what it installed while the collector could not see it (before the
 * runtime opened), and hands the collector's handlers back to the kernel. */
void vorx_signal_manager_resync(void);

/* ---- set-up of the collector's own handlers ------------------------------------------------------ */

void vorx_set_ctrl_c_handler(int mode);
void vorx_init_crash_signal_handler(void);
void vorx_fini_crash_signal_handler(void);
void vorx_init_cancel_signal_handler(void);
void vorx_fini_cancel_signal_handler(void);
/* Sampling: `callback` runs on the ticked thread outside the collector; result 2 when the application
 * holds the signal with a handler of its own. A tick that found the thread inside the collector comes to it
 * once the thread has left, with `delayed` 1 and the context of that moment; `info` is the tick's own
 * (its overrun counts the ticks that the kernel merged into it). */
typedef void (*vorx_sampling_callback_t)(void* wsp, void* context, const siginfo_t* info, int delayed);
vorx_u32_t vorx_init_profiling_signal_handler(vorx_sampling_callback_t callback);
void vorx_fini_profiling_signal_handler(void);
/* The program installs a handler of its own on the sampling signal: sampling ends, the signal is the program's,
 * and ticks still on their way stop their timers without reaching it. */
void vorx_give_up_sampling_signal(void);
void vorx_block_profiling_signal(void);
void vorx_unblock_profiling_signal(void);
void vorx_modify_signal_mask_on_attach(sigset_t* set);

/* Writes every thread's trace out before the process dies by `signo`; once a process. */
void vorx_flush_before_death(int signo);

/* ---- protected frames: surviving a fault while reading the program's memory ---------------------- */

enum vorx_xtype { vorx_xtype_unknown = 0, vorx_xtype_segv = 1, vorx_xtype_bus = 2, vorx_xtype_reserved = 3,
                  vorx_xtype_eof = 4 };
enum { vorx_xframe_op_err_init = 0, vorx_xframe_op_err_thrown = 1 };
#define VORX_XFRAME_MAGIC 0xBEAFu

typedef struct vorx_xframe {
  vorx_u32_t saved[6]; /* ebx, esi, edi, ebp, esp, return address */
  struct vorx_xframe* prev;
  vorx_u32_t types[4];
  vorx_u32_t type_count;
  vorx_u32_t magic;
  vorx_u32_t is_finally;
  vorx_u32_t caught_type;
  void* data;
} vorx_xframe;

/* Returns vorx_xframe_op_err_init when saving, and the restore's value (never 0) when a fault comes back. */
int vorx_xframe_save_context(vorx_xframe* frame) __attribute__((returns_twice));
__attribute__((noreturn)) void vorx_xframe_restore_context(vorx_xframe* frame, int value);
/* Pushes `frame` on the calling thread's list for faults of the given types (after a successful save). */
void vorx_xframe_push(vorx_xframe* frame, vorx_u32_t type_count, const vorx_u32_t* types);
void vorx_xframe_pop(vorx_xframe* frame);
/* From a fault's handler: resumes the innermost protected frame that takes this signal's type, if any. */
void vorx_throw_if_protected(int signo);
/* Copies `size` bytes of program memory; false when the memory cannot be read. */
bool vorx_read_memory_protected(void* to, const void* from, vorx_u32_t size);

#ifdef __cplusplus
}
#endif

#endif
