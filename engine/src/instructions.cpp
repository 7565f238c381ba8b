// Instructions of an open routine: decoded once when the routine is opened, kept for the process's life
// (a handle must stay readable after RTN_Close, and routines are few).
#include <string>

#include "engine.h"

namespace LEVEL_KELCLIENT {
using kel::routine_of;
using kel::tables;

namespace {
kel::Instruction* ins_of(INS ins) {
  uint32_t i = static_cast<uint32_t>(ins.q());
  return i && i <= tables().instructions.size() ? &tables().instructions[i - 1] : nullptr;
}
}  // namespace

VOID RTN_Open(RTN rtn) {
  kel::Routine* r = routine_of(rtn);
  if (!r) return;
  KEL_LockClient();
  if (!r->opened) {
    r->first_ins = tables().instructions.size() + 1;
    uintptr_t end = r->address + r->size;
    for (uintptr_t at = r->address; at < end;) {
      kel::arch::DecodedInstruction d;
      if (!kel::arch::decode_instruction(at, end - at, &d)) break;  // stop at bytes that are not code
      kel::Instruction ins;
      ins.routine = static_cast<uint32_t>(rtn.q());
      ins.address = at;
      ins.size = d.size;
      ins.flags = d.flags;
      ins.opcode = d.opcode;
      ins.target = d.target;
      ins.mnemonic = d.mnemonic;
      tables().instructions.push(std::move(ins));
      at += d.size;
    }
    r->ins_count = tables().instructions.size() + 1 - r->first_ins;
    r->opened = true;
  }
  KEL_UnlockClient();
}

VOID RTN_Close(RTN) {}

INS RTN_InsHead(RTN rtn) {
  kel::Routine* r = routine_of(rtn);
  if (!r) return INS();
  if (!r->opened) RTN_Open(rtn);
  return r->ins_count ? INS(static_cast<INT32>(r->first_ins)) : INS();
}

INS RTN_InsHeadOnly(RTN rtn) { return RTN_InsHead(rtn); }

INS RTN_InsTail(RTN rtn) {
  kel::Routine* r = routine_of(rtn);
  if (!r || !r->opened || !r->ins_count) return INS();
  return INS(static_cast<INT32>(r->first_ins + r->ins_count - 1));
}

BOOL INS_Valid(INS ins) { return ins_of(ins) != nullptr; }
INS INS_Invalid() { return INS(); }
INS INS_Next(INS ins) {
  kel::Instruction* i = ins_of(ins);
  if (!i) return INS();
  kel::Routine& r = tables().routines[i->routine - 1];
  uint32_t next = static_cast<uint32_t>(ins.q()) + 1;
  return next < r.first_ins + r.ins_count ? INS(static_cast<INT32>(next)) : INS();
}
INS INS_Prev(INS ins) {
  kel::Instruction* i = ins_of(ins);
  if (!i) return INS();
  kel::Routine& r = tables().routines[i->routine - 1];
  uint32_t index = static_cast<uint32_t>(ins.q());
  return index > r.first_ins ? INS(static_cast<INT32>(index - 1)) : INS();
}
ADDRINT INS_Address(INS ins) { return ins_of(ins) ? ins_of(ins)->address : 0; }
USIZE INS_Size(INS ins) { return ins_of(ins) ? ins_of(ins)->size : 0; }
ADDRINT INS_NextAddress(INS ins) { return INS_Address(ins) + INS_Size(ins); }
ADDRINT INS_DirectControlFlowTargetAddress(INS ins) { return ins_of(ins) ? ins_of(ins)->target : 0; }
// The engine never adds instructions to a routine: probes live outside it.
BOOL INS_IsAddedForFunctionReplacement(INS) { return false; }
string INS_Disassemble(INS ins) {
  kel::Instruction* i = ins_of(ins);
  if (!i) return "";
  char text[128];
  kel::arch::disassemble(i->address, i->size, text, sizeof text);
  return text;
}

}  // namespace LEVEL_KELCLIENT

namespace LEVEL_CORE {
namespace {
kel::Instruction* ins_of(INS ins) {
  uint32_t i = static_cast<uint32_t>(ins.q());
  return i && i <= kel::tables().instructions.size() ? &kel::tables().instructions[i - 1] : nullptr;
}
bool has(INS ins, uint32_t flag) { return ins_of(ins) && (ins_of(ins)->flags & flag); }
}  // namespace

BOOL INS_IsBranch(INS ins) { return has(ins, kel::arch::ins_branch); }
BOOL INS_IsDirectBranch(INS ins) { return has(ins, kel::arch::ins_branch) && has(ins, kel::arch::ins_direct); }
BOOL INS_IsIndirectControlFlow(INS ins) { return has(ins, kel::arch::ins_indirect); }
BOOL INS_IsRet(INS ins) { return has(ins, kel::arch::ins_ret); }
BOOL INS_IsSysret(INS ins) { return has(ins, kel::arch::ins_sysret); }
BOOL INS_HasFallThrough(INS ins) { return has(ins, kel::arch::ins_fallthrough); }
BOOL INS_IsCall(INS ins) { return has(ins, kel::arch::ins_call); }
OPCODE INS_Opcode(INS ins) { return ins_of(ins) ? ins_of(ins)->opcode : KEL_OPCODE_INVALID; }
string INS_Mnemonic(INS ins) { return ins_of(ins) ? kel::arch::mnemonic_name(ins_of(ins)->mnemonic) : ""; }

}  // namespace LEVEL_CORE
