// A test tool: every routine of libc.so.6 that the engine calls safe gets a probe whose replacement only
// jumps to the trampoline. The program must behave exactly as without the engine. The totals (probed, and
// refused by reason) go to the file named by -o.
#include <sys/mman.h>

#include <cstdio>
#include <cstring>
#include <map>
#include <set>
#include <string>

#include "kel.h"

namespace {

KNOB<std::string> knob_output(KNOB_MODE_WRITEONCE, "keltool", "o", "", "file for the probe totals");
KNOB<BOOL> knob_all(KNOB_MODE_WRITEONCE, "keltool", "all", "0", "probe every image but the vDSO, not only libc");

// A replacement that goes straight on to the trampoline: `jmp *slot`, with the slot filled once the
// trampoline is known.
struct PassThrough {
  uint8_t code[6];
  uint8_t pad[2];
  uintptr_t slot;
};

PassThrough* new_pass_through() {
  static PassThrough* next = nullptr;
  static size_t left = 0;
  if (left == 0) {
    next = static_cast<PassThrough*>(mmap(nullptr, 1 << 16, PROT_READ | PROT_WRITE | PROT_EXEC,
                                          MAP_PRIVATE | MAP_ANONYMOUS, -1, 0));
    left = (1 << 16) / sizeof(PassThrough);
  }
  --left;
  PassThrough* p = next++;
  p->code[0] = 0xff;
  p->code[1] = 0x25;
  uintptr_t slot = reinterpret_cast<uintptr_t>(&p->slot);
  memcpy(p->code + 2, &slot, 4);
  return p;
}

void sweep(IMG img) {
  std::set<ADDRINT> seen;
  std::map<std::string, int> refused;
  int probed = 0;
  for (SYM sym = IMG_RegsymHead(img); SYM_Valid(sym); sym = SYM_Next(sym)) {
    RTN rtn = RTN_FindByAddress(SYM_Value(sym) + IMG_LoadOffset(img));
    if (!RTN_Valid(rtn) || !seen.insert(RTN_Address(rtn)).second) continue;
    std::string reason = RTN_ProbeRefusalReason(rtn, PROBE_MODE_ALLOW_RELOCATION);
    if (reason != "ok") {
      ++refused[reason];
      continue;
    }
    PassThrough* p = new_pass_through();
    p->slot = reinterpret_cast<uintptr_t>(p->code);  // never taken before the trampoline is stored
    AFUNPTR trampoline = RTN_ReplaceProbedEx(rtn, PROBE_MODE_ALLOW_RELOCATION, reinterpret_cast<AFUNPTR>(p->code));
    if (!trampoline) {
      ++refused["replace_failed"];
      continue;
    }
    p->slot = reinterpret_cast<uintptr_t>(trampoline);
    ++probed;
  }
  FILE* out = knob_output.Value().empty() ? stderr : fopen(knob_output.Value().c_str(), "a");
  if (!out) return;
  int total_refused = 0;
  for (auto& [reason, n] : refused) total_refused += n;
  fprintf(out, "%s: %d routines probed, %d refused\n", IMG_Name(img).c_str(), probed, total_refused);
  for (auto& [reason, n] : refused) fprintf(out, "  refused %-20s %d\n", reason.c_str(), n);
  if (out != stderr) fclose(out);
}

void on_image(IMG img, void*) {
  if (IMG_IsVDSO(img)) return;
  if (knob_all.Value() || IMG_Name(img).find("/libc.so.6") != std::string::npos) sweep(img);
}

}  // namespace

int main(int argc, char** argv) {
  if (KEL_Init(argc, argv)) return 1;
  IMG_AddInstrumentFunction(on_image, nullptr);
  KEL_StartProgramProbed();
}
