// A test tool that sets the start-up gates a collector uses: a signature replacement of the executable's
// _init (which gets the original's three arguments, the original's address and a constant) and a probe on
// libc's __libc_early_init. Each gate writes one line to standard output when it runs.
#include <unistd.h>

#include <cstdio>
#include <cstring>

#include "kel.h"

namespace {

const char kExeTag[] = "exe";

void say(const char* text) {
  ssize_t ignored = write(1, text, strlen(text));
  (void)ignored;
}

void (*g_early_init_original)(int) = nullptr;
void early_init_gate(int initial) {
  say("gate __libc_early_init\n");
  g_early_init_original(initial);
}

int init_gate(int argc, char** argv, char** envp, int (*original)(int, char**, char**), const char* tag) {
  char line[256];
  snprintf(line, sizeof line, "gate _init of %s: argc=%d argv[1]=%s env=%s\n", tag, argc,
           argc > 1 ? argv[1] : "-", envp && envp[0] ? "yes" : "no");
  say(line);
  return original(argc, argv, envp);
}

void on_image(IMG img, void*) {
  if (IMG_IsMainExecutable(img)) {
    RTN init = RTN_FindByName(img, "_init");
    if (!RTN_Valid(init) || !RTN_IsSafeForProbedReplacement(init)) {
      say("no _init gate\n");
      return;
    }
    PROTO proto = PROTO_Allocate(KEL_PARG(int), CALLINGSTD_DEFAULT, "_init", KEL_PARG(int), KEL_PARG(char**),
                                 KEL_PARG(char**), KEL_PARG_END());
    AFUNPTR done = RTN_ReplaceSignatureProbed(init, reinterpret_cast<AFUNPTR>(init_gate), IARG_PROTOTYPE, proto,
                                              IARG_FUNCARG_ENTRYPOINT_VALUE, 0, IARG_FUNCARG_ENTRYPOINT_VALUE, 1,
                                              IARG_FUNCARG_ENTRYPOINT_VALUE, 2, IARG_ORIG_FUNCPTR, IARG_PTR,
                                              kExeTag, IARG_END);
    PROTO_Free(proto);
    if (!done) say("_init gate refused\n");
  } else if (IMG_Name(img).find("/libc.so") != std::string::npos) {
    RTN early = RTN_FindByName(img, "__libc_early_init");
    if (RTN_Valid(early))
      g_early_init_original = reinterpret_cast<void (*)(int)>(
          RTN_ReplaceProbed(early, reinterpret_cast<AFUNPTR>(early_init_gate)));
    if (!g_early_init_original) say("__libc_early_init gate refused\n");
  }
}

}  // namespace

int main(int argc, char** argv) {
  if (KEL_Init(argc, argv)) return 1;
  IMG_AddInstrumentFunction(on_image, nullptr);
  KEL_StartProgramProbed();
}
