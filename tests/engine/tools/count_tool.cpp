// A test tool: pass-through counting wrappers on libc functions, every version of each, counting only the
// calls made by the main program (so the program can compare with its own count). The program asks for a
// count through its function kel_test_count(name), which this tool replaces.
#include <atomic>
#include <cstdio>
#include <cstring>
#include <pthread.h>
#include <stdlib.h>
#include <string.h>
#include <sys/syscall.h>
#include <unistd.h>

#include "kel.h"

namespace {

ADDRINT g_exe_low, g_exe_high;

bool from_program(void* return_address) {
  auto a = reinterpret_cast<ADDRINT>(return_address);
  return a >= g_exe_low && a <= g_exe_high;
}

struct Counter {
  char name[96];
  std::atomic<long> calls{0};
};
Counter g_counters[64];
std::atomic<int> g_counter_count{0};

// A counter per symbol name; a probe set again after a detach keeps counting into the same one.
Counter* new_counter(const std::string& name) {
  for (int i = 0; i < g_counter_count.load(); ++i)
    if (name == g_counters[i].name) return &g_counters[i];
  int i = g_counter_count.fetch_add(1);
  snprintf(g_counters[i].name, sizeof g_counters[i].name, "%s", name.c_str());
  return &g_counters[i];
}

// One wrapper per function and version slot; its original and counter are filled in when probed.
template <int Id, int Version, auto Function>
struct Wrapper;
template <int Id, int Version, class R, class... A, R (*Function)(A...)>
struct Wrapper<Id, Version, Function> {
  static inline R (*original)(A...) = nullptr;
  static inline Counter* counter = nullptr;
  static R call(A... args) {
    if (from_program(__builtin_return_address(0))) counter->calls.fetch_add(1, std::memory_order_relaxed);
    return original(args...);
  }
};

struct Entry {
  const char* name;
  AFUNPTR wrappers[2];
  void** originals[2];
  Counter** counters[2];
};

// The counted functions: one line each.
#define COUNTED_FUNCTIONS(X)                                 \
  X(0, read) X(1, write) X(2, pthread_mutex_lock) X(3, pthread_mutex_unlock) X(4, malloc) X(5, free) \
  X(6, getpid) X(7, pthread_cond_wait) X(8, pthread_cond_signal) X(9, strlen)

#define SLOT(id, fn, v)                                                                  \
  reinterpret_cast<AFUNPTR>(&Wrapper<id, v, &::fn>::call)
#define ENTRY(id, fn)                                                                    \
  {#fn,                                                                                  \
   {SLOT(id, fn, 0), SLOT(id, fn, 1)},                                                   \
   {reinterpret_cast<void**>(&Wrapper<id, 0, &::fn>::original),                          \
    reinterpret_cast<void**>(&Wrapper<id, 1, &::fn>::original)},                         \
   {&Wrapper<id, 0, &::fn>::counter, &Wrapper<id, 1, &::fn>::counter}},
Entry g_entries[] = {COUNTED_FUNCTIONS(ENTRY)};

long answer_count(const char* name) {
  for (int i = 0; i < g_counter_count.load(); ++i)
    if (strcmp(g_counters[i].name, name) == 0) return g_counters[i].calls.load();
  // A plain name answers for its default version.
  std::string wanted = std::string(name) + "@@";
  for (int i = 0; i < g_counter_count.load(); ++i)
    if (strncmp(g_counters[i].name, wanted.c_str(), wanted.size()) == 0 || strcmp(g_counters[i].name, name) == 0)
      return g_counters[i].calls.load();
  return -2;
}

void probe_libc(IMG img) {
  for (Entry& e : g_entries) {
    int version = 0;
    size_t len = strlen(e.name);
    for (SYM sym = IMG_RegsymHead(img); SYM_Valid(sym) && version < 2; sym = SYM_Next(sym)) {
      const std::string& name = SYM_Name(sym);
      if (name.compare(0, len, e.name) != 0 || (name.size() > len && name[len] != '@')) continue;
      RTN rtn = RTN_FindByAddress(SYM_Value(sym) + IMG_LoadOffset(img));
      if (!RTN_Valid(rtn)) continue;
      if (!RTN_IsSafeForProbedReplacementEx(rtn, PROBE_MODE_ALLOW_RELOCATION)) {
        if (strcmp(RTN_ProbeRefusalReason(rtn, PROBE_MODE_ALLOW_RELOCATION), "already_probed") != 0)
          fprintf(stderr, "count_tool: %s refused: %s\n", name.c_str(),
                RTN_ProbeRefusalReason(rtn, PROBE_MODE_ALLOW_RELOCATION));
        continue;
      }
      AFUNPTR original = RTN_ReplaceProbedEx(rtn, PROBE_MODE_ALLOW_RELOCATION, e.wrappers[version]);
      if (!original) continue;  // an alias of a routine already probed
      *e.originals[version] = reinterpret_cast<void*>(original);
      *e.counters[version] = new_counter(name);
      ++version;
    }
  }
}

void on_image(IMG img, void*);

// Detach and attach on the program's request: kel_test_detach() and kel_test_attach() are its functions.
// No probe survives a detach, so the request to attach again comes through a word of the program
// (kel_test_attach_request), watched by a thread of the tool as a collector's control thread would.
Counter* g_detach_counter = nullptr;
Counter* g_refused_attach_counter = nullptr;
volatile int* g_attach_request = nullptr;
void register_callbacks(void*);

void* attach_on_request(void*) {
  while (!*g_attach_request) usleep(50);
  if (KEL_AttachProbed(register_callbacks, nullptr) == ATTACH_INITIATED &&
      KEL_AttachProbed(register_callbacks, nullptr) == ATTACH_FAILED_DETACH)
    g_refused_attach_counter->calls.fetch_add(1);
  *g_attach_request = 0;
  return nullptr;
}

void on_detach(void*) {
  g_detach_counter->calls.fetch_add(1);
  pthread_t thread;
  if (g_attach_request && pthread_create(&thread, nullptr, attach_on_request, nullptr) == 0) pthread_detach(thread);
}
// Thread callbacks: each call counts, and counts again as "...on_own_thread" when no other call of the
// same visit ran on its thread (each thread is visited once).
Counter* g_thread_attach_counter = nullptr;
Counter* g_thread_attach_own = nullptr;
Counter* g_thread_detach_counter = nullptr;
Counter* g_thread_detach_own = nullptr;
Counter* g_thread_attach_mask = nullptr;
std::atomic<long> g_visit_tids[2][256];
std::atomic<int> g_visit_count[2];

void count_visit(int kind, Counter* calls, Counter* own) {
  long tid = syscall(SYS_gettid);
  int n = g_visit_count[kind].fetch_add(1) % 256;
  bool again = false;
  for (int i = 0; i < n; ++i) again |= g_visit_tids[kind][i].load() == tid;
  g_visit_tids[kind][n] = tid;
  calls->calls.fetch_add(1);
  if (!again) own->calls.fetch_add(1);
}
void on_thread_attach(void* signal_mask, void*) {
  count_visit(0, g_thread_attach_counter, g_thread_attach_own);
  if (signal_mask) g_thread_attach_mask->calls.fetch_add(1);
}
void on_thread_detach(void*) { count_visit(1, g_thread_detach_counter, g_thread_detach_own); }

void register_callbacks(void*) {
  g_visit_count[0] = 0;
  g_visit_count[1] = 0;
  IMG_AddInstrumentFunction(on_image, nullptr);
  KEL_AddDetachFunctionProbed(on_detach, nullptr);
  KEL_AddThreadAttachProbedFunction(on_thread_attach, nullptr);
  KEL_AddThreadDetachProbedFunction(on_thread_detach, nullptr);
}
void detach_now() { KEL_DetachProbed(); }

void replace_in_program(IMG img, const char* name, AFUNPTR replacement) {
  RTN rtn = RTN_FindByName(img, name);
  if (RTN_Valid(rtn) && !RTN_ReplaceProbed(rtn, replacement))
    fprintf(stderr, "count_tool: cannot replace %s: %s\n", name, RTN_ProbeRefusalReason(rtn, PROBE_MODE_DEFAULT));
}

void on_image(IMG img, void*) {
  if (IMG_IsMainExecutable(img)) {
    g_exe_low = IMG_LowAddress(img);
    g_exe_high = IMG_HighAddress(img);
    replace_in_program(img, "kel_test_count", reinterpret_cast<AFUNPTR>(answer_count));
    replace_in_program(img, "kel_test_detach", reinterpret_cast<AFUNPTR>(detach_now));
    for (SYM sym = IMG_RegsymHead(img); SYM_Valid(sym); sym = SYM_Next(sym))
      if (SYM_Name(sym) == "kel_test_attach_request")
        g_attach_request = reinterpret_cast<volatile int*>(SYM_Value(sym) + IMG_LoadOffset(img));
    return;
  }
  if (IMG_Name(img).find("/libc.so") != std::string::npos) probe_libc(img);
}

}  // namespace

int main(int argc, char** argv) {
  if (KEL_Init(argc, argv)) return 1;
  g_detach_counter = new_counter("detach_callbacks");
  g_refused_attach_counter = new_counter("second_attach_refused");
  g_thread_attach_counter = new_counter("thread_attach_callbacks");
  g_thread_attach_own = new_counter("thread_attach_on_own_thread");
  g_thread_attach_mask = new_counter("thread_attach_with_mask");
  g_thread_detach_counter = new_counter("thread_detach_callbacks");
  g_thread_detach_own = new_counter("thread_detach_on_own_thread");
  register_callbacks(nullptr);
  KEL_StartProgramProbed();
}
