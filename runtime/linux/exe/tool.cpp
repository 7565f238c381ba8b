// The tool's entry: the engine loads libvorxtool.so into the process under study
// and calls main() before the application's first instruction. From here to
// KEL_StartProgramProbed the collector sets itself up; the runtime itself opens
// later, at a gate inside the application's own start-up.
#include <dlfcn.h>
#include <elf.h>
#include <fcntl.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <unistd.h>

#include <string>

#include "kel.h"
#include "vorx_init.h"
#include "tool_entry.h"

namespace {

// The tool's three switches, in the engine's family for tools. Built by the
// library's static initialisers before main runs.
LEVEL_BASE::KNOB<std::string> Knob_g_vorx_prd_dir_name(LEVEL_BASE::KNOB_MODE_WRITEONCE, "keltool", "prd_dir", "",
                                                      "product directory path");
LEVEL_BASE::KNOB<std::string> Knob_g_vorx_server_name(LEVEL_BASE::KNOB_MODE_WRITEONCE, "keltool", "server_name",
                                                     "", "server ipc name");
LEVEL_BASE::KNOB<std::string> Knob_g_vorx_pause_runtime(LEVEL_BASE::KNOB_MODE_WRITEONCE, "keltool",
                                                       "pause_runtime", "0", "sleep time on start");

}  // namespace

extern "C" int main(int argc, char **argv);

// Builds "add-symbol-file <path> <.text> -s .data <.data> -s .bss <.bss>" for
// the tool's own file, so that a debugger attached during the pause finds its
// symbols. Returns false (and leaves `out` empty) when the engine or the file
// cannot be read.
bool vorx_make_debugger_load_command(char *out, size_t out_size) {
  out[0] = '\0';
  void *version = dlsym(RTLD_DEFAULT, "ZundVersionC");
  if (!version) {
    vorx_tool_trace("Unable to dlsym(ZundVersionC): %s\n", dlerror());
    return false;
  }
  Dl_info info{};
  if (!dladdr(reinterpret_cast<void *>(&main), &info) || !info.dli_fname) {
    vorx_tool_trace("Unable to dladdr(ZundVersionC): %s\n", dlerror());
    return false;
  }
  ElfSections sections{};
  if (!vorx_read_elf_sections(info.dli_fname, &sections)) return false;
  uintptr_t shift = reinterpret_cast<uintptr_t>(info.dli_fbase) - sections.link_address;
  snprintf(out, out_size, "add-symbol-file %s %p -s .data %p -s .bss %p", info.dli_fname,
           reinterpret_cast<void *>(sections.text + shift), reinterpret_cast<void *>(sections.data + shift),
           reinterpret_cast<void *>(sections.bss + shift));
  return true;
}

extern "C" int main(int argc, char **argv) {
  // The load command is computed before the engine parses anything, and kept.
  static char load_command[4096];
  bool have_command = vorx_make_debugger_load_command(load_command, sizeof load_command);

  if (KEL_Init(argc, argv)) {
    vorx_tool_trace("KEL_Init/KEL_StartProgramProbed failed! Exiting ...");
    return 1;
  }

  int pause = atoi(Knob_g_vorx_pause_runtime.Value().c_str());
  if (pause != 0) {
    printf("Pausing to attach to pid %d\n", static_cast<int>(getpid()));
    fflush(stdout);
    if (have_command) {
      printf("To load the tool's debug info to gdb use:\n   %s\n", load_command);
      fflush(stdout);
      vorx_update_gdbinit(".gdbinit", getpid(), load_command);
    }
  }
  g_pause_time = pause;

  vorx_deepbind_init(KEL_IsAttaching());
  vorx_create();

  const std::string &server = Knob_g_vorx_server_name.Value();
  uint32_t inited = main_on_reattach(server.empty() ? nullptr : server.c_str());
  vorx_tool_assert_init_type_at_start(inited);

  vorx_start_notification_service(inited, pause);
  KEL_StartProgramProbed();

  vorx_tool_trace("KEL_Init/KEL_StartProgramProbed failed! Exiting ...");
  return 1;
}
