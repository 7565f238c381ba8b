// The engine as the loader's audit module: it is loaded into a link namespace of its own (with its own C
// library) before the program's images are mapped, loads the tool into that namespace, runs the tool's
// `main` on a private stack up to KEL_StartProgramProbed, then reports every image of the program as the
// loader maps and unmaps it.
#include <dlfcn.h>
#include <link.h>
#include <sys/auxv.h>
#include <sys/mman.h>
#include <ucontext.h>
#include <unistd.h>

#include <cerrno>
#include <climits>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "engine.h"

extern "C" __attribute__((visibility("default"))) const char ZundVersionC[] = "kel 0.1.0 (probe mode, i386)";

namespace kel {
namespace {

constexpr size_t kToolStackSize = 1 << 20;

ucontext_t g_loader_context;
ucontext_t g_tool_context;
int (*g_tool_main)(int, char**) = nullptr;
std::vector<char*> g_tool_argv;
int g_tool_result = 0;
bool g_tool_returned = false;
bool g_active = false;         // a tool was loaded: the engine reports images
bool g_seen_main = false;

void run_tool_main() {
  g_tool_result = g_tool_main(static_cast<int>(g_tool_argv.size()) - 1, g_tool_argv.data());
  g_tool_returned = true;  // falls back to g_loader_context through uc_link
}

std::vector<std::string> split_arguments(const char* encoded) {
  std::vector<std::string> out;
  std::string current;
  for (const char* p = encoded; *p; ++p) {
    if (*p == kArgumentSeparator) out.push_back(current), current.clear();
    else current += *p;
  }
  out.push_back(current);
  return out;
}

std::string own_path() {
  Dl_info info{};
  if (dladdr(reinterpret_cast<void*>(&own_path), &info) && info.dli_fname) return info.dli_fname;
  return {};
}

// Takes the engine's variables out of the process's environment, so that the program sees the environment
// it was started with. The environment array is the one on the initial stack, shared with the program's C
// library, and unsetenv edits it in place.
void scrub_environment(const char* tool, const char* args) {
  LaunchInfo& info = launch_info();
  info.tool_path = tool;
  info.arguments = split_arguments(args);
  info.runtime_path = own_path();
  info.injected_audit = "LD_AUDIT=" + info.runtime_path;
  info.injected_tool = std::string(kToolVariable) + "=" + tool;
  // A followed program gets the same switches, then its own command line after "--".
  info.injected_args = std::string(kArgsVariable) + "=";
  for (const std::string& a : info.arguments) {
    info.injected_args += a;
    info.injected_args += kArgumentSeparator;
    if (a == "--") break;
  }
  // The program's own LD_AUDIT, if it had one, goes back in place of ours. setenv would build a new array
  // that only this namespace's library sees, so the entry is replaced in the shared array itself.
  const char* saved = getenv(kSavedAuditVariable);
  char* restored = saved ? strdup((std::string("LD_AUDIT=") + saved).c_str()) : nullptr;
  unsetenv(kToolVariable);
  unsetenv(kArgsVariable);
  unsetenv(kSavedAuditVariable);
  bool replaced = false;
  for (char** entry = environ; restored && *entry; ++entry)
    if (strncmp(*entry, "LD_AUDIT=", 9) == 0) *entry = restored, replaced = true;
  if (!replaced) unsetenv("LD_AUDIT");
}

[[noreturn]] __attribute__((format(printf, 1, 2))) void fail(const char* format, ...) {
  va_list ap;
  va_start(ap, format);
  fprintf(stderr, "kel: ");
  vfprintf(stderr, format, ap);
  fputc('\n', stderr);
  va_end(ap);
  _exit(1);
}

void start_tool() {
  const char* tool = getenv(kToolVariable);
  const char* args = getenv(kArgsVariable);
  if (!tool || !args) return;  // inherited LD_AUDIT without a tool: stay out of the way
  scrub_environment(tool, args);
  LaunchInfo& info = launch_info();

  // A plain dlopen from here loads into this namespace; the tool binds to this copy of the engine.
  void* handle = dlopen(info.tool_path.c_str(), RTLD_NOW | RTLD_LOCAL);
  if (!handle) fail("cannot load tool '%s': %s", info.tool_path.c_str(), dlerror());
  g_tool_main = reinterpret_cast<int (*)(int, char**)>(dlsym(handle, "main"));
  if (!g_tool_main)
    fail("tool '%s' exports no main(); build it with its main visible (default visibility)", info.tool_path.c_str());
  for (std::string& a : info.arguments) g_tool_argv.push_back(a.data());
  g_tool_argv.push_back(nullptr);

  long page = sysconf(_SC_PAGESIZE);
  auto* stack = static_cast<char*>(mmap(nullptr, kToolStackSize + page, PROT_READ | PROT_WRITE,
                                        MAP_PRIVATE | MAP_ANONYMOUS | MAP_STACK, -1, 0));
  if (stack == MAP_FAILED) fail("cannot map the tool's stack: %s", strerror(errno));
  mprotect(stack, page, PROT_NONE);  // guard page below the stack
  getcontext(&g_tool_context);
  g_tool_context.uc_stack.ss_sp = stack + page;
  g_tool_context.uc_stack.ss_size = kToolStackSize;
  g_tool_context.uc_link = &g_loader_context;
  makecontext(&g_tool_context, run_tool_main, 0);
  g_active = true;
  swapcontext(&g_loader_context, &g_tool_context);
  if (g_tool_returned) {
    fprintf(stderr, "kel: the tool's main() returned %d without starting the program\n", g_tool_result);
    _exit(g_tool_result ? g_tool_result : 1);
  }
}

std::string main_executable_path() {
  char path[PATH_MAX];
  ssize_t n = readlink("/proc/self/exe", path, sizeof path - 1);
  if (n <= 0) return "";
  path[n] = 0;
  return path;
}

bool is_vdso(const link_map* map) {
  uintptr_t vdso = getauxval(AT_SYSINFO_EHDR);
  return vdso && map->l_ld && reinterpret_cast<uintptr_t>(map->l_ld) >= vdso &&
         reinterpret_cast<uintptr_t>(map->l_ld) < vdso + 0x10000;
}

}  // namespace

LaunchInfo& launch_info() {
  static auto* info = new LaunchInfo;
  return *info;
}

}  // namespace kel

namespace LEVEL_KELCLIENT {
[[noreturn]] VOID KEL_StartProgramProbed() {
  if (kel::g_tool_started || !kel::g_active) {
    kel::engine_error("KEL_StartProgramProbed called %s", kel::g_tool_started ? "twice" : "outside the tool's main");
    abort();
  }
  kel::g_tool_started = true;
  setcontext(&kel::g_loader_context);  // back into la_version; main's frame stays mapped, abandoned
  abort();
}
}  // namespace LEVEL_KELCLIENT

extern "C" {

__attribute__((visibility("default"))) unsigned int la_version(unsigned int) {
  kel::start_tool();
  return LAV_CURRENT;
}

__attribute__((visibility("default"))) unsigned int la_objopen(struct link_map* map, Lmid_t lmid, uintptr_t* cookie) {
  if (!kel::g_active || lmid != LM_ID_BASE) {
    *cookie = 0;
    return 0;
  }
  bool main_executable = !kel::g_seen_main && (!map->l_name || !map->l_name[0]);
  bool vdso = !main_executable && kel::is_vdso(map);
  std::string path = main_executable ? kel::main_executable_path() : (map->l_name ? map->l_name : "");
  if (main_executable) kel::g_seen_main = true;
  LEVEL_KELCLIENT::KEL_LockClient();
  uint32_t id = kel::create_image(path, map->l_addr, main_executable, vdso, map);
  LEVEL_KELCLIENT::KEL_UnlockClient();
  *cookie = id;
  kel::on_image_loaded(id);
  return 0;  // no symbol-binding audit: it would send every PLT call through the slow path
}

__attribute__((visibility("default"))) unsigned int la_objclose(uintptr_t* cookie) {
  if (kel::g_active && *cookie) kel::on_image_unloading(static_cast<uint32_t>(*cookie));
  return 0;
}

__attribute__((visibility("default"))) void la_activity(uintptr_t*, unsigned int flag) {
  if (kel::g_active && flag == LA_ACT_CONSISTENT) kel::on_loader_consistent();
}

}  // extern "C"
