// kel: starts a program with the engine and a tool inside it.
//
//   kel [engine switches] -t <tool.so> [tool switches] -- <program> [args]
//
// The engine runtime (lib/libkel.so beside this program's bin/) becomes the program's LD_AUDIT module; the tool
// and the whole command line travel in two variables of the engine's own, which the runtime takes out of the
// environment again before the program sees it.
#include <elf.h>
#include <sys/stat.h>
#include <unistd.h>

#include <climits>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

#include "../src/elf_model.h"
#include "target.h"

namespace {

constexpr char kArgumentSeparator = '\x1f';

void usage() {
  fprintf(stderr,
          "usage: kel [engine switches] -t <tool.so> [tool switches] -- <program> [args]\n"
          "  engine switches: -log_level <0-3>, -logfile <path>, -branch_index_cache <0/1>,\n"
          "                   -thread_signal <n>\n");
}

[[noreturn]] void die(const std::string& message) {
  fprintf(stderr, "kel: %s\n", message.c_str());
  exit(2);
}

std::string absolute(const std::string& path) {
  char resolved[PATH_MAX];
  return realpath(path.c_str(), resolved) ? resolved : path;
}

std::string directory_of(const std::string& path) {
  size_t slash = path.rfind('/');
  return slash == std::string::npos ? "." : path.substr(0, slash);
}

// The program as execvp would find it.
std::string find_program(const std::string& name) {
  if (name.find('/') != std::string::npos) return access(name.c_str(), X_OK) == 0 ? name : "";
  const char* path = getenv("PATH");
  std::string dirs = path ? path : "/usr/local/bin:/usr/bin:/bin";
  size_t start = 0;
  while (start <= dirs.size()) {
    size_t end = dirs.find(':', start);
    if (end == std::string::npos) end = dirs.size();
    std::string dir = dirs.substr(start, end - start);
    std::string candidate = (dir.empty() ? "." : dir) + "/" + name;
    if (access(candidate.c_str(), X_OK) == 0) return candidate;
    start = end + 1;
  }
  return "";
}

void check_tool(const std::string& tool) {
  if (access(tool.c_str(), R_OK) != 0) die("tool '" + tool + "' not found (give the path of the tool's .so after -t)");
  kel::ElfModel model;
  std::string error;
  bool has_main = false;
  if (!kel::find_function_export(tool, "main", &model, &has_main, &error))
    die("tool '" + tool + "' is not a shared object: " + error);
  if (model.elf_class != kel::arch::kElfClass || model.machine != kel::arch::kElfMachine)
    die("tool '" + tool + "' is not a " + kel::arch::kArchitectureName + " shared object; build it for that target");
  if (has_main) return;
  die("tool '" + tool + "' exports no main(); the engine enters a tool through its main(argc, argv)");
}

void check_program(const std::string& program) {
  kel::ElfModel model;
  std::string error;
  if (!kel::read_elf_file(program, &model, &error, kel::ElfDetail::dynamic_symbols)) return;  // a script: its interpreter is checked by the loader
  if (model.elf_class != kel::arch::kElfClass || model.machine != kel::arch::kElfMachine)
    die("program '" + program + "' is not a " + kel::arch::kArchitectureName + " program; this engine runs in " +
        kel::arch::kArchitectureName + " processes only");
  if (!model.has_interpreter)
    die("program '" + program + "' is statically linked; the engine needs the dynamic loader to enter it");
  struct stat st {};
  if (stat(program.c_str(), &st) == 0 && (st.st_mode & (S_ISUID | S_ISGID)) && getuid() != 0)
    die("program '" + program + "' is set-user-ID or set-group-ID; the loader ignores audit modules there, so "
        "the engine cannot enter it (run it as its owner, or from a copy without the bit)");
}

}  // namespace

int main(int argc, char** argv) {
  int tool_at = -1, program_at = -1;
  for (int i = 1; i < argc; ++i) {
    if (tool_at < 0 && strcmp(argv[i], "-t") == 0 && i + 1 < argc) tool_at = ++i;
    else if (strcmp(argv[i], "--") == 0) {
      program_at = i + 1;
      break;
    }
  }
  if (tool_at < 0) {
    usage();
    die("no tool: give one with -t <tool.so>");
  }
  if (program_at < 0 || program_at >= argc) {
    usage();
    die("no program: give it after '--'");
  }
  std::string tool = absolute(argv[tool_at]);
  check_tool(tool);
  std::string program = find_program(argv[program_at]);
  if (program.empty()) die(std::string("program '") + argv[program_at] + "' not found");
  check_program(program);

  std::string runtime = directory_of(absolute("/proc/self/exe")) + "/../lib/libkel.so";
  runtime = absolute(runtime);
  if (access(runtime.c_str(), R_OK) != 0) die("engine runtime '" + runtime + "' is missing (lib/ beside bin/)");

  std::string args = absolute("/proc/self/exe");
  for (int i = 1; i < argc; ++i) {
    args += kArgumentSeparator;
    args += i == tool_at ? tool : argv[i];
  }
  // An audit module of the user's own still loads, after the engine; the program sees only its own value.
  std::string audit = runtime;
  if (const char* own = getenv("LD_AUDIT"); own && *own) {
    setenv("KEL_SAVED_LD_AUDIT", own, 1);
    audit += std::string(":") + own;
  }
  setenv("LD_AUDIT", audit.c_str(), 1);
  setenv("KEL_TOOL", tool.c_str(), 1);
  setenv("KEL_ARGS", args.c_str(), 1);
  execv(program.c_str(), argv + program_at);
  die("cannot start '" + program + "': " + strerror(errno));
}
