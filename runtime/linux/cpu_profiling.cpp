// CPU sampling: a timer per thread that counts the thread's CPU time and sends the sampling signal to the
// thread itself; at each tick a sample record (the interrupted address, and the CPU time that it stands for)
// and, right behind it in the thread's stream, the thread's stack.
//
// A tick that finds the thread inside the collector waits until the thread leaves (the signal layer queues
// it) and becomes a sample at the place where the thread went back to the program. Ticks are counted, not
// recorded one by one: a record's period covers every tick since the record before, so CPU time adds up also
// when ticks were merged by the kernel, came while sampling was paused, or found nothing to sample.
#include <signal.h>
#include <string.h>
#include <sys/syscall.h>
#include <time.h>
#include <ucontext.h>

#include "runtime_entries.h"
#include "sal.h"
#include "signal_manager.h"
#include "stack_walk.h"
#include "thread_manager.h"
#include "vorx_config.h"
#include "vorx_log.h"
#include "vorx_timesource.h"
#include "workspace.h"
#include "writer.h"

namespace {

constexpr uint64_t kHundredNsPerMs = 10000;

// ---- system calls that leave errno alone (the kernel's answer, negative for a failure)

// Rare calls (a thread's timer is made, set and deleted a few times in its life): the trap will do.
long raw_syscall(long nr, long a, long b, long c, long d) {
  long result;
  __asm__ volatile("int $0x80" : "=a"(result) : "0"(nr), "b"(a), "c"(b), "d"(c), "S"(d) : "memory");
  return result;
}

void error_text(long result, char* text, unsigned size) {
  sal_error_code_to_string(vorx_u32_t(-result), text, size);
}

// ---- the timer: a POSIX timer on the thread's CPU-time clock, signalling that thread only

struct kernel_sigevent {
  int value;
  int signo;
  int notify;
  int thread_id;
  int pad[12];
};

struct vorx_timer {
  vorx_u32_t (*init)(vorx_timer* t);
  void (*fini)(vorx_timer* t);
  vorx_u32_t (*start)(vorx_timer* t, vorx_u32_t interval_us);
  vorx_u32_t (*stop)(vorx_timer* t);
  vorx_u32_t thread;
  int timer_id;                /* -1: none */
  volatile vorx_u64_t samples; /* ticks seen on this thread */
};

int sampling_signal() { return g_vorx_conf ? int(g_vorx_conf->sampling_signal) : SIGPROF; }

vorx_u32_t posix_timer_init(vorx_timer* t) {
  kernel_sigevent event = {};
  event.signo = sampling_signal();
  event.notify = 4;  // SIGEV_THREAD_ID
  event.thread_id = int(t->thread);
  int id = -1;
  long r = raw_syscall(SYS_timer_create, CLOCK_THREAD_CPUTIME_ID, long(&event), long(&id), 0);
  if (r < 0) {
    char text[128];
    error_text(r, text, sizeof text);
    VORX_LOG(vorx_log_level_error, "__NR_timer_create() system call returned -1.");
    vorx_report(vorx_msg_cannot_create_timer, text);
    return vorx_er_general_failure;  // the thread goes without samples, the program goes on
  }
  t->timer_id = id;
  return vorx_er_success;
}

void posix_timer_fini(vorx_timer* t) {
  t->samples = 0;
  if (t->timer_id != -1) raw_syscall(SYS_timer_delete, t->timer_id, 0, 0, 0);
  t->timer_id = -1;
}

long settime(vorx_timer* t, vorx_u32_t interval_us) {
  struct itimerspec setting = {};
  setting.it_interval.tv_sec = interval_us / 1000000;
  setting.it_interval.tv_nsec = long(interval_us % 1000000) * 1000;
  setting.it_value = setting.it_interval;
  return raw_syscall(SYS_timer_settime, t->timer_id, 0, long(&setting), 0);
}

vorx_u32_t posix_timer_start(vorx_timer* t, vorx_u32_t interval_us) {
  if (t->timer_id == -1) return vorx_er_general_failure;
  VORX_LOG(vorx_log_level_trace, "CPU profiling interval = %d", int(interval_us / 1000));
  long r = settime(t, interval_us);
  if (r == 0) return vorx_er_success;
  char text[128];
  error_text(r, text, sizeof text);
  vorx_report(vorx_msg_cannot_set_posix_timer, text);
  return vorx_er_general_failure;
}

vorx_u32_t posix_timer_stop(vorx_timer* t) {
  if (t->timer_id == -1) return vorx_er_success;
  long r = settime(t, 0);
  if (r == 0) return vorx_er_success;
  if (g_vorx_conf && g_vorx_conf->log_level > 1) {
    char text[128];
    error_text(r, text, sizeof text);
    vorx_report(vorx_msg_cannot_stop_posix_timer, text);
  }
  return vorx_er_general_failure;
}

// ---- the per-thread descriptor

struct cpu_prof_desc {
  /* operations: the workspace calls the third and fourth */
  void (*init)(cpu_prof_desc* d);
  void (*reset)(cpu_prof_desc* d);
  vorx_u32_t (*start)(void* d);
  vorx_u32_t (*stop)(void* d);
  /* state */
  uint8_t delayed_sample;
  uint8_t sample_generated;
  volatile vorx_u32_t suspended;
  vorx_u64_t recorded;  /* ticks that records already stand for */
  vorx_u32_t walks_failed;
  vorx_timer* timer;
};

bool cpu_sampling_on() { return g_vorx_conf && vorx_conf_has_collection(g_vorx_conf, vorx_cl_cpu); }
vorx_u32_t interval_ms() {
  vorx_u64_t ms = g_vorx_conf ? g_vorx_conf->sampling_interval : 10;
  return ms ? vorx_u32_t(ms) : 10;
}

void desc_init_inner(cpu_prof_desc* d) {
  d->delayed_sample = 0;
  d->sample_generated = 0;
  d->suspended = 0;
  d->walks_failed = 0;
}

void desc_init(cpu_prof_desc* d) {
  if (d->timer) d->timer->init(d->timer);
  desc_init_inner(d);
}

void desc_reset(cpu_prof_desc* d) {
  if (d->timer) d->timer->fini(d->timer);
}

vorx_u32_t desc_start(void* p) {
  auto* d = static_cast<cpu_prof_desc*>(p);
  if (!cpu_sampling_on() || !d->timer) return vorx_er_success;
  desc_init_inner(d);
  return d->timer->start(d->timer, interval_ms() * 1000);
}

vorx_u32_t desc_stop(void* p) {
  auto* d = static_cast<cpu_prof_desc*>(p);
  return d->timer ? d->timer->stop(d->timer) : vorx_er_success;
}

vorx_timer* alloc_timer(vorx_u32_t thread) {
  auto* t = static_cast<vorx_timer*>(sal_mmap(sizeof(vorx_timer)));
  if (!t) return nullptr;
  t->init = posix_timer_init;
  t->fini = posix_timer_fini;
  t->start = posix_timer_start;
  t->stop = posix_timer_stop;
  t->thread = thread;
  t->timer_id = -1;
  t->fini(t);
  return t;
}

// ---- samples

struct tick {
  const ucontext_t* context;
  vorx_u32_t merged;  /* ticks that the kernel merged into this one */
  bool delayed;
};

cpu_prof_desc* prof(vorx_workspace* wsp) { return static_cast<cpu_prof_desc*>(wsp->cpu_prof_desc); }

bool sampling_active() { return g_vorx_conf && g_vorx_conf->state == vorx_st_resumed; }

// The collector's own code: frames there are the way from a wrapper's exit to the delayed sample.
struct code_range {
  uintptr_t lo = 0, hi = 0;
  bool holds(uint32_t address) const { return address >= lo && address < hi; }
};
code_range g_own_code;

void find_own_code() {
  uintptr_t lo = 0, hi = 0;
  if (vorx_stack_code_range(uintptr_t(&find_own_code), &lo, &hi)) g_own_code = {lo, hi};
}

// A delayed sample is where the thread went back to the program: the first frame outside the collector.
uint32_t drop_own_frames(vorx_stack_desc_t* s) {
  uint32_t k = 0;
  while (k < s->frame_count && g_own_code.holds(s->frames[k])) ++k;
  if (k == s->frame_count) {
    s->frame_count = 0;
    return 0;
  }
  memmove(s->frames, s->frames + k, (s->frame_count - k) * sizeof s->frames[0]);
  s->frame_count -= k;
  return s->frames[0];
}

vorx_stack_start_t start_of(const tick& t) {
  const greg_t* regs = t.context->uc_mcontext.gregs;
  vorx_stack_start_t start;
  start.ip = uint32_t(regs[REG_EIP]);
  start.sp = uint32_t(regs[REG_ESP]);
  start.fp = uint32_t(regs[REG_EBP]);
  start.ucontext = t.context;
  start.exact_ip = t.delayed ? 0 : 1;
  return start;
}

// The stack, walked now so that a delayed sample knows its own address; written behind the sample.
vorx_stack_desc_t* walk(vorx_workspace* wsp, const tick& t, uint32_t* ip) {
  auto* stack = static_cast<vorx_stack_desc_t*>(wsp->stack_desc);
  vorx_stack_start_t start = start_of(t);
  *ip = t.delayed ? 0 : start.ip;
  if (!stack) return nullptr;
  if (stack->walk(stack, &start) != vorx_sw_frame) return nullptr;
  if (t.delayed && !stack->offline) *ip = drop_own_frames(stack);
  return stack;
}

void take_sample(vorx_workspace* wsp, const tick& t) {
  cpu_prof_desc* d = prof(wsp);
  if (!d || !d->timer || !wsp->master_tmu) return;
  vorx_timer* timer = d->timer;
  timer->samples += 1 + t.merged;
  if (!sampling_active()) {
    d->recorded = timer->samples;  // paused: ticks are counted and stand for nothing
    return;
  }
  if (wsp->runtime_level != vorx_le_in_original && wsp->runtime_level != vorx_le_in_application) return;
  if (d->suspended) {
    d->delayed_sample = 1;
    return;
  }
  uint32_t ip = 0;
  vorx_stack_desc_t* stack = walk(wsp, t, &ip);
  if (ip == 0 && !(stack && stack->offline)) return;  // nothing of the program to point at: the next one counts
  uint64_t now = vorx_timesource()->now();
  uint64_t period = (timer->samples - d->recorded) * interval_ms() * kHundredNsPerMs;
  d->recorded = timer->samples;
  put_sample_record(wsp->master_tmu, wsp->thread, now, period, ip);
  d->sample_generated = 1;
  if (stack && stack->put(stack, wsp->master_tmu, wsp->thread, now) == vorx_sw_failed) ++d->walks_failed;
}

// The sampling callback: the thread is outside the collector and enters it here itself.
void gather_sample(void*, void* context, const siginfo_t* info, int delayed) {
  if (!context) return;
  vorx_ts_desc_t* key = nullptr;
  void* data = nullptr;
  if (vorx_thread_manager_enter(g_vorx_thread_manager, &key, &data) != vorx_thread_manager_op_err_ok) return;
  tick t;
  t.context = static_cast<const ucontext_t*>(context);
  t.merged = info && info->si_code == SI_TIMER && info->si_overrun > 0 ? vorx_u32_t(info->si_overrun) : 0;
  t.delayed = delayed != 0;
  take_sample(static_cast<vorx_workspace*>(data), t);
  vorx_thread_manager_release(g_vorx_thread_manager, key);
}

bool stacks_wanted() { return cpu_sampling_on(); }

}  // namespace

extern "C" {

void* vorx_alloc_cpu_profiling_descriptor(vorx_ts_desc_t*, vorx_u32_t thread) {
  if (!cpu_sampling_on()) return nullptr;
  auto* d = static_cast<cpu_prof_desc*>(sal_mmap(sizeof(cpu_prof_desc)));
  if (!d) return nullptr;
  d->init = desc_init;
  d->reset = desc_reset;
  d->start = desc_start;
  d->stop = desc_stop;
  d->recorded = 0;
  d->timer = alloc_timer(thread);
  d->init(d);
  return d;
}

void vorx_free_cpu_profiling_descriptor(void* p) {
  auto* d = static_cast<cpu_prof_desc*>(p);
  if (!d) return;
  if (d->timer) {
    d->reset(d);
    sal_munmap(d->timer, sizeof(vorx_timer));
  }
  sal_munmap(d, sizeof(cpu_prof_desc));
}

void* vorx_alloc_stack_descriptor(vorx_u32_t thread, vorx_xstack*) {
  if (!stacks_wanted() || thread == 0) return nullptr;
  return vorx_alloc_stack_desc(thread, g_vorx_conf->offline_stack_walk != 0);
}

void vorx_init_stack_descriptor(void* p, vorx_xstack*) {
  auto* d = static_cast<vorx_stack_desc_t*>(p);
  if (d) d->init(d, d->thread);
}

void vorx_free_stack_descriptor(void* p) { vorx_free_stack_desc(static_cast<vorx_stack_desc_t*>(p)); }

// The sample that vorx_attach_thread asks for when a thread joins: a thread with no ticks yet has nothing to
// report, so this writes nothing.
void vorx_generate_sample_record(vorx_workspace*, void*, void*) {}

void vorx_init_stack_walk(void) {
  if (!stacks_wanted()) return;
  if (vorx_init_unwind() != 1) VORX_LOG(vorx_log_level_error, "Cannot initialize unwind cursor.");
  find_own_code();
}

vorx_er_t vorx_init_cpu_profiling(int) {
  if (!cpu_sampling_on()) {
    VORX_LOG(vorx_log_level_info, "CPU sampling is off");
    return vorx_er_success;
  }
  if (vorx_init_profiling_signal_handler(gather_sample) != vorx_sig_ok)
    VORX_LOG(vorx_log_level_warning, "the application holds the sampling signal: no CPU samples");
  return vorx_er_success;
}

void vorx_stop_cpu_profiling(void) {
  if (cpu_sampling_on()) vorx_fini_profiling_signal_handler();
}

}  // extern "C"
