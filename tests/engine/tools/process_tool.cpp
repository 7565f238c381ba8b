// A test tool that writes the engine's process events to a log (one line each, with the process id):
// images loaded and unloaded, fork points, exec decisions. -follow decides whether exec'd programs keep
// the engine.
#include <fcntl.h>
#include <unistd.h>

#include <cstdarg>
#include <cstdio>
#include <cstring>
#include <string>

#include "kel.h"

namespace {

KNOB<std::string> knob_log(KNOB_MODE_WRITEONCE, "keltool", "log", "", "event log file");
KNOB<BOOL> knob_follow(KNOB_MODE_WRITEONCE, "keltool", "follow", "0", "keep the engine in exec'd programs");

// Raw writes with O_APPEND: events come from forked children and several processes at once.
void event(const char* format, ...) __attribute__((format(printf, 1, 2)));
void event(const char* format, ...) {
  char line[512];
  int n = snprintf(line, sizeof line, "%d ", getpid());
  va_list ap;
  va_start(ap, format);
  n += vsnprintf(line + n, sizeof line - n - 1, format, ap);
  va_end(ap);
  line[n++] = '\n';
  int fd = open(knob_log.Value().c_str(), O_WRONLY | O_APPEND | O_CREAT | O_CLOEXEC, 0644);
  if (fd < 0) return;
  ssize_t ignored = write(fd, line, n);
  (void)ignored;
  close(fd);
}

std::string base_name(const std::string& path) { return path.substr(path.rfind('/') + 1); }

// The plugin's function gets a probe at each load; an address reused by a later load must be probed anew.
int (*g_plugin_sum)(int) = nullptr;
int plugin_sum_probe(int n) {
  event("call plugin_sum");
  return g_plugin_sum(n);
}

void on_load(IMG img, void*) {
  event("load %s%s", base_name(IMG_Name(img)).c_str(), IMG_IsMainExecutable(img) ? " (main)" : "");
  RTN sum = RTN_FindByName(img, "plugin_sum");
  if (RTN_Valid(sum)) {
    g_plugin_sum = reinterpret_cast<int (*)(int)>(RTN_ReplaceProbed(sum, reinterpret_cast<AFUNPTR>(plugin_sum_probe)));
    event("probe plugin_sum %s", g_plugin_sum ? "set" : RTN_ProbeRefusalReason(sum, PROBE_MODE_DEFAULT));
  }
}
void on_unload(IMG img, void*) { event("unload %s", base_name(IMG_Name(img)).c_str()); }
void on_fork_before(UINT32, void*) { event("fork before"); }
void on_fork_parent(UINT32 child, void*) { event("fork parent child=%u", child); }
void on_fork_child(UINT32, void*) { event("fork child"); }
BOOL on_exec(CHILD_PROCESS child, void*) {
  INT32 argc = 0;
  const CHAR* const* argv = nullptr;
  CHILD_PROCESS_GetCommandLine(child, &argc, &argv);
  std::string line;
  for (INT32 i = 0; i < argc; ++i) line += std::string(" ") + argv[i];
  event("exec follow=%d argc=%d:%s", knob_follow.Value() ? 1 : 0, argc, line.c_str());
  return knob_follow.Value();
}

}  // namespace

int main(int argc, char** argv) {
  if (KEL_Init(argc, argv)) return 1;
  std::string program;  // what the engine says follows "--": this process's own command line
  for (int i = 1, after = 0; i < argc; ++i) {
    if (after) program += std::string(" ") + argv[i];
    after |= std::string(argv[i]) == "--";
  }
  event("tool main:%s", program.c_str());
  IMG_AddInstrumentFunction(on_load, nullptr);
  IMG_AddUnloadFunction(on_unload, nullptr);
  KEL_AddForkFunctionProbed(FPOINT_BEFORE, on_fork_before, nullptr);
  KEL_AddForkFunctionProbed(FPOINT_AFTER_IN_PARENT, on_fork_parent, nullptr);
  KEL_AddForkFunctionProbed(FPOINT_AFTER_IN_CHILD, on_fork_child, nullptr);
  KEL_AddFollowChildProcessFunction(on_exec, nullptr);
  KEL_StartProgramProbed();
}
