// Process control: the tool's callbacks, image events, fork and exec, detach and attach, the client lock.
#include <fcntl.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <alloca.h>
#include <cerrno>
#include <cstring>
#include <vector>

#include "engine.h"
#include "target.h"

namespace kel {
namespace {

template <class Fn>
struct Registration {
  Fn fn;
  void* arg;
};

// Registrations of the tool. Written by the tool under the client lock, before the program starts or inside
// callbacks; cleared by a detach.
struct Callbacks {
  std::vector<Registration<LEVEL_KELCLIENT::IMAGECALLBACK>> image_load, image_unload;
  std::vector<Registration<LEVEL_KELCLIENT::FORK_PROBE_MODE_CALLBACK>> fork[3];
  std::vector<Registration<LEVEL_KELCLIENT::FOLLOW_CHILD_PROCESS_CALLBACK>> follow_child;
  std::vector<Registration<LEVEL_KELCLIENT::DETACH_PROBE_CALLBACK>> detach;
  std::vector<Registration<LEVEL_KELCLIENT::APPLICATION_START_CALLBACK>> application_start;
  std::vector<Registration<LEVEL_KELCLIENT::THREAD_ATTACH_PROBED_CALLBACK>> thread_attach;
  std::vector<Registration<LEVEL_KELCLIENT::THREAD_DETACH_PROBED_CALLBACK>> thread_detach;
};
Callbacks& callbacks() {
  static auto* instance = new Callbacks;
  return *instance;
}

LEVEL_BASE::OS_MUTEX_TYPE g_client_lock = {0, 0, 0, 1};
bool g_detached = false;
bool g_program_consistent = false;   // the loader has finished the initial set of images

// Originals of the routines the engine watches itself, callable (through their trampolines).
using ForkFn = int (*)();
using ExecveFn = int (*)(const char*, char* const*, char* const*);
using ErrnoFn = int* (*)();
ForkFn g_fork_original = nullptr;
ExecveFn g_execve_original = nullptr;
ErrnoFn g_application_errno = nullptr;

// Keeps the application's errno across tool callbacks that might change it.
struct ApplicationErrnoGuard {
  int saved = 0;
  ApplicationErrnoGuard() {
    if (g_application_errno) saved = *g_application_errno();
  }
  ~ApplicationErrnoGuard() {
    if (g_application_errno) *g_application_errno() = saved;
  }
};

void report_image(uint32_t id, const std::vector<Registration<LEVEL_KELCLIENT::IMAGECALLBACK>>& list) {
  auto copy = list;  // a callback may register more
  for (auto& r : copy) r.fn(LEVEL_KELCLIENT::IMG(static_cast<int32_t>(id)), r.arg);
}

// No copy of the list: in a forked child the engine library's allocator may be locked by a thread that
// no longer exists. Indexing stays right if a callback registers more.
void run_fork_callbacks(LEVEL_KELCLIENT::FPOINT point, uint32_t pid) {
  auto& list = callbacks().fork[point];
  for (size_t i = 0; i < list.size(); ++i) {
    Registration<LEVEL_KELCLIENT::FORK_PROBE_MODE_CALLBACK> r = list[i];
    r.fn(pid, r.arg);
  }
}

// Is `path` a program the engine can live in (an ELF of our architecture, or a script whose interpreter is)?
// Raw system calls only: this runs in vfork children.
bool can_follow(const char* path, int depth = 0) {
  int fd = static_cast<int>(syscall(SYS_openat, AT_FDCWD, path, O_RDONLY | O_CLOEXEC));
  if (fd < 0) return false;
  char head[256];
  long n = syscall(SYS_read, fd, head, sizeof head - 1);
  syscall(SYS_close, fd);
  if (n < 4) return false;
  head[n] = 0;
  if (head[0] == '#' && head[1] == '!' && depth == 0) {
    char* p = head + 2;
    while (*p == ' ' || *p == '\t') ++p;
    char* end = p;
    while (*end && *end != ' ' && *end != '\t' && *end != '\n') ++end;
    *end = 0;
    return can_follow(p, 1);
  }
  uint16_t machine;
  memcpy(&machine, head + 18, sizeof machine);  // e_machine, at the same offset in both classes
  return n >= 20 && memcmp(head, "\177ELF", 4) == 0 && head[4] == arch::kElfClassIdent && machine == arch::kElfMachine;
}

bool starts_with(const char* s, const char* prefix) { return strncmp(s, prefix, strlen(prefix)) == 0; }

bool is_engine_variable(const char* entry) {
  const LaunchInfo& info = launch_info();
  return (!info.injected_audit.empty() && strcmp(entry, info.injected_audit.c_str()) == 0) ||
         starts_with(entry, "KEL_TOOL=") || starts_with(entry, "KEL_ARGS=") || starts_with(entry, "KEL_SAVED_LD_AUDIT=");
}

}  // namespace

// Visitors of visit_all_threads: on one thread, in a signal handler (or on the caller's thread).
void run_thread_attach_callbacks(void* signal_mask) {
  auto& list = callbacks().thread_attach;
  for (size_t i = 0; i < list.size(); ++i) list[i].fn(signal_mask, list[i].arg);
}
std::vector<Registration<LEVEL_KELCLIENT::THREAD_DETACH_PROBED_CALLBACK>>& visiting_detach_callbacks() {
  static auto* list = new std::vector<Registration<LEVEL_KELCLIENT::THREAD_DETACH_PROBED_CALLBACK>>;
  return *list;
}
void run_thread_detach_callbacks(void*) {
  auto& list = visiting_detach_callbacks();
  for (size_t i = 0; i < list.size(); ++i) list[i].fn(list[i].arg);
}

bool g_tool_started = false;
bool tool_started() { return g_tool_started; }
bool program_running() { return g_program_consistent; }

void on_image_loaded(uint32_t id) {
  LEVEL_KELCLIENT::KEL_LockClient();
  Image& image = tables().images[id - 1];
  log_line(2, "image %u: %s at %#lx", id, image.name.c_str(), static_cast<unsigned long>(image.load_offset));
  image.in_load_event = true;
  std::string base = image.name.substr(image.name.rfind('/') + 1);
  if (base.rfind("libc.so", 0) == 0) install_process_hooks(id);
  if (!g_detached) report_image(id, callbacks().image_load);
  close_image_code(image);
  image.in_load_event = false;
  LEVEL_KELCLIENT::KEL_UnlockClient();
}

void on_image_unloading(uint32_t id) {
  LEVEL_KELCLIENT::KEL_LockClient();
  if (!g_detached && tables().images[id - 1].valid) report_image(id, callbacks().image_unload);
  forget_probes(id);
  invalidate_image(id);
  LEVEL_KELCLIENT::KEL_UnlockClient();
}

void on_loader_consistent() {
  LEVEL_KELCLIENT::KEL_LockClient();
  for (uint32_t i = 0; i < tables().images.size(); ++i) tables().images[i].relocated = true;
  if (!g_program_consistent) {
    g_program_consistent = true;
    // In a launched process the start functions come once the initial images are in place.
    auto copy = callbacks().application_start;
    if (!g_detached)
      for (auto& r : copy) r.fn(r.arg);
  }
  LEVEL_KELCLIENT::KEL_UnlockClient();
}

void fixup_locks_after_fork(int parent_tid) {
  // Only the forking thread exists in the child. It keeps a lock it held, under its new id; a lock that
  // another thread held is free, since that thread is gone.
  if (g_client_lock.owner == parent_tid) g_client_lock.owner = LEVEL_BASE::OS_GetTid();
  else LEVEL_BASE::OS_MutexRecursiveInit(&g_client_lock);
}

}  // namespace kel

// ---------------------------------------------------------------------------------------------------------
// The engine's own hooks in the application's C library.
// ---------------------------------------------------------------------------------------------------------
extern "C" __attribute__((visibility("hidden"))) int kel_fork_hook() {
  using namespace kel;
  int parent_tid = LEVEL_BASE::OS_GetTid();
  {
    ApplicationErrnoGuard keep;
    run_fork_callbacks(LEVEL_KELCLIENT::FPOINT_BEFORE, 0);
  }
  int pid = g_fork_original();
  ApplicationErrnoGuard keep;  // the fork's own errno is what the application must see
  if (pid == 0) {
    fixup_locks_after_fork(parent_tid);
    run_fork_callbacks(LEVEL_KELCLIENT::FPOINT_AFTER_IN_CHILD, static_cast<uint32_t>(getpid()));
  } else if (pid > 0) {
    run_fork_callbacks(LEVEL_KELCLIENT::FPOINT_AFTER_IN_PARENT, static_cast<uint32_t>(pid));
  }
  return pid;
}

struct LEVEL_KELCLIENT::KEL_CHILD_PROCESS {
  const char* path;
  int argc;
  const char* const* argv;
};

// Decides whether the new program keeps the engine, and writes its environment accordingly on the stack:
// no heap, since a vfork (or posix_spawn) child shares its parent's memory and locks.
extern "C" __attribute__((visibility("hidden"))) int kel_execve_hook(const char* path, char* const argv[],
                                                                       char* const envp[]) {
  using namespace kel;
  bool follow = false;
  {
    ApplicationErrnoGuard keep;
    LEVEL_KELCLIENT::KEL_LockClient();
    auto& list = callbacks().follow_child;
    // The tool hears of every exec, also one it cannot follow: its process image is about to go.
    if (!list.empty() && !g_detached && path) {
      int argc = 0;
      while (argv && argv[argc]) ++argc;
      LEVEL_KELCLIENT::KEL_CHILD_PROCESS child{path, argc, argv};
      follow = true;
      for (size_t i = 0; i < list.size(); ++i) {  // by index, without a copy: this may be a vfork child
        auto r = list[i];
        follow = r.fn(&child, r.arg) && follow;
      }
      if (follow && !can_follow(path)) {
        follow = false;
        log_line(1, "not following into %s: not a program of this engine's architecture", path);
      }
    }
    LEVEL_KELCLIENT::KEL_UnlockClient();
  }
  int count = 0;
  while (envp && envp[count]) ++count;
  auto** environment = static_cast<char**>(alloca((count + 5) * sizeof(char*)));
  int n = 0;
  const char* programs_audit = nullptr;  // an LD_AUDIT of the program's own, kept for the new program
  for (int i = 0; i < count; ++i) {
    if (is_engine_variable(envp[i])) continue;
    if (follow && starts_with(envp[i], "LD_AUDIT=")) {
      programs_audit = envp[i] + 9;
      continue;
    }
    environment[n++] = envp[i];
  }
  if (follow) {
    const LaunchInfo& info = launch_info();
    if (programs_audit && *programs_audit) {  // ours first, then the program's own
      size_t size = info.injected_audit.size() + 1 + strlen(programs_audit) + 1;
      auto* both = static_cast<char*>(alloca(size));
      strcpy(both, info.injected_audit.c_str());
      strcat(both, ":");
      strcat(both, programs_audit);
      environment[n++] = both;
    } else {
      environment[n++] = const_cast<char*>(info.injected_audit.c_str());
    }
    environment[n++] = const_cast<char*>(info.injected_tool.c_str());
    size_t size = info.injected_args.size() + 1;
    for (int i = 0; argv && argv[i]; ++i) size += strlen(argv[i]) + 1;
    auto* args = static_cast<char*>(alloca(size));
    strcpy(args, info.injected_args.c_str());
    for (int i = 0; argv && argv[i]; ++i) {
      if (i) {
        size_t end = strlen(args);
        args[end] = kArgumentSeparator;
        args[end + 1] = 0;
      }
      strcat(args, argv[i]);
    }
    environment[n++] = args;
    if (programs_audit) {
      size_t size = strlen(kSavedAuditVariable) + 1 + strlen(programs_audit) + 1;
      auto* saved = static_cast<char*>(alloca(size));
      strcpy(saved, kSavedAuditVariable);
      strcat(saved, "=");
      strcat(saved, programs_audit);
      environment[n++] = saved;
    }
  }
  environment[n] = nullptr;
  return g_execve_original(path, argv, environment);
}

namespace kel {
namespace {
uintptr_t engine_hook(uintptr_t, void* hook) { return reinterpret_cast<uintptr_t>(hook); }

template <class Fn>
void watch(uint32_t libc, const char* name, void* hook, Fn* original) {
  LEVEL_KELCLIENT::RTN rtn = LEVEL_KELCLIENT::RTN_FindByName(LEVEL_KELCLIENT::IMG(static_cast<int32_t>(libc)), name);
  if (!LEVEL_KELCLIENT::RTN_Valid(rtn)) return;
  uint32_t index = static_cast<uint32_t>(rtn.q());
  uintptr_t address = 0;
  arch::Refusal why = probe_refusal(index, LEVEL_KELCLIENT::PROBE_MODE_DEFAULT, &address);
  uintptr_t callable = why == arch::refusal_none ? install_probe(index, address, true, engine_hook, hook, &why) : 0;
  if (!callable) {
    engine_error("cannot watch %s in %s (%s): its callbacks will not run", name,
                 tables().images[libc - 1].name.c_str(), arch::refusal_name(why));
    return;
  }
  *original = reinterpret_cast<Fn>(callable);
}
}  // namespace

void install_process_hooks(uint32_t libc) {
  watch(libc, "fork", reinterpret_cast<void*>(kel_fork_hook), &g_fork_original);
  watch(libc, "execve", reinterpret_cast<void*>(kel_execve_hook), &g_execve_original);
  LEVEL_KELCLIENT::RTN errno_rtn =
      LEVEL_KELCLIENT::RTN_FindByName(LEVEL_KELCLIENT::IMG(static_cast<int32_t>(libc)), "__errno_location");
  if (LEVEL_KELCLIENT::RTN_Valid(errno_rtn))
    g_application_errno = reinterpret_cast<ErrnoFn>(LEVEL_KELCLIENT::RTN_Address(errno_rtn));
}

}  // namespace kel

// ---------------------------------------------------------------------------------------------------------
// The tool's interface.
// ---------------------------------------------------------------------------------------------------------
namespace LEVEL_KELCLIENT {
using kel::callbacks;

VOID KEL_LockClient() { LEVEL_BASE::OS_MutexLock(&kel::g_client_lock); }
VOID KEL_UnlockClient() { LEVEL_BASE::OS_MutexUnlock(&kel::g_client_lock); }
BOOL KEL_IsAttaching() { return false; }
BOOL KEL_InitSymbols() { return true; }
string KEL_Version() { return ZundVersionC; }

namespace {
template <class List, class Fn>
BOOL add(List& list, Fn fn, VOID* arg) {
  if (!fn) return false;
  KEL_LockClient();
  list.push_back({fn, arg});
  KEL_UnlockClient();
  return true;
}
}  // namespace

BOOL KEL_AddApplicationStartFunction(APPLICATION_START_CALLBACK fn, VOID* arg) {
  return add(callbacks().application_start, fn, arg);
}
BOOL KEL_AddThreadAttachProbedFunction(THREAD_ATTACH_PROBED_CALLBACK fn, VOID* arg) {
  return add(callbacks().thread_attach, fn, arg);
}
BOOL KEL_AddThreadDetachProbedFunction(THREAD_DETACH_PROBED_CALLBACK fn, VOID* arg) {
  return add(callbacks().thread_detach, fn, arg);
}
BOOL KEL_AddDetachFunctionProbed(DETACH_PROBE_CALLBACK fn, VOID* arg) { return add(callbacks().detach, fn, arg); }
BOOL KEL_AddForkFunctionProbed(FPOINT point, FORK_PROBE_MODE_CALLBACK fn, VOID* arg) {
  if (point < FPOINT_BEFORE || point > FPOINT_AFTER_IN_CHILD) return false;
  return add(callbacks().fork[point], fn, arg);
}
BOOL KEL_AddFollowChildProcessFunction(FOLLOW_CHILD_PROCESS_CALLBACK fn, VOID* arg) {
  return add(callbacks().follow_child, fn, arg);
}

// Images already there when the tool registers (a late registration, or an attach) are shown at once.
VOID IMG_AddInstrumentFunction(IMAGECALLBACK fn, VOID* arg) {
  if (!fn) return;
  KEL_LockClient();
  callbacks().image_load.push_back({fn, arg});
  if (kel::tool_started() && !kel::g_detached)
    for (IMG img = APP_ImgHead(); IMG_Valid(img); img = IMG_Next(img)) fn(img, arg);
  KEL_UnlockClient();
}
VOID IMG_AddUnloadFunction(IMAGECALLBACK fn, VOID* arg) { add(callbacks().image_unload, fn, arg); }

BOOL CHILD_PROCESS_GetCommandLine(CHILD_PROCESS child, INT32* argc, const CHAR* const** argv) {
  if (!child) return false;
  if (argc) *argc = child->argc;
  if (argv) *argv = child->argv;
  return true;
}
string CHILD_PROCESS_GetProgram(CHILD_PROCESS child) { return child && child->path ? child->path : ""; }

// Every probe of the tool is disarmed (its entry restored where that can be done atomically, otherwise sent
// straight to its trampoline), then the detach callbacks run and all registrations are forgotten.
// No heap is touched: the caller may be a raw clone thread sharing another thread's TLS (and with it the
// engine library's allocator caches). The lists are cleared, keeping their storage for the next attach.
VOID KEL_DetachProbed() {
  constexpr size_t kMaxDetachCallbacks = 64;
  kel::Registration<DETACH_PROBE_CALLBACK> detach[kMaxDetachCallbacks];
  size_t detach_count = 0;
  KEL_LockClient();
  if (kel::g_detached) {
    KEL_UnlockClient();
    return;
  }
  kel::disarm_all_probes();
  kel::g_detached = true;
  kel::Callbacks& c = callbacks();
  for (auto& r : c.detach)
    if (detach_count < kMaxDetachCallbacks) detach[detach_count++] = r;
  // The thread detach callbacks are visited outside the lock (the threads' handlers may want it); their
  // list moves aside by a swap, which allocates nothing.
  kel::visiting_detach_callbacks().swap(c.thread_detach);
  c.image_load.clear(), c.image_unload.clear(), c.follow_child.clear(), c.detach.clear();
  c.application_start.clear(), c.thread_attach.clear(), c.thread_detach.clear();
  for (auto& list : c.fork) list.clear();
  KEL_UnlockClient();
  if (!kel::visiting_detach_callbacks().empty()) kel::visit_all_threads(kel::run_thread_detach_callbacks);
  kel::visiting_detach_callbacks().clear();
  for (size_t i = 0; i < detach_count; ++i) detach[i].fn(detach[i].arg);
  kel::log_line(1, "detached: %zu detach callbacks run", detach_count);
}

ATTACH_STATUS KEL_AttachProbed(ATTACH_PROBED_CALLBACK callback, VOID* arg) {
  KEL_LockClient();
  if (!kel::g_detached) {
    KEL_UnlockClient();
    return ATTACH_FAILED_DETACH;
  }
  kel::g_detached = false;
  if (callback) callback(arg);  // registers afresh; images appear to IMG callbacks as they register
  bool visit = !callbacks().thread_attach.empty();
  KEL_UnlockClient();
  if (visit) kel::visit_all_threads(kel::run_thread_attach_callbacks);  // outside the lock, as at detach
  KEL_LockClient();
  auto start = callbacks().application_start;
  for (auto& r : start) r.fn(r.arg);
  KEL_UnlockClient();
  return ATTACH_INITIATED;
}

}  // namespace LEVEL_KELCLIENT
