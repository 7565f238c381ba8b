// i386: single-instruction decoding for the instruction queries of an open routine.
#include <Zydis/Zydis.h>

#include <cstdio>

#include "../../src/arch.h"
#include "decoder.h"
#include "kel.h"

namespace kel::arch {
namespace {

uint32_t opcode_of(ZydisMnemonic m) {
  switch (m) {
    case ZYDIS_MNEMONIC_JMP: return LEVEL_CORE::KEL_OPCODE_JMP;
    case ZYDIS_MNEMONIC_CALL: return LEVEL_CORE::KEL_OPCODE_CALL_NEAR;
    case ZYDIS_MNEMONIC_RET: return LEVEL_CORE::KEL_OPCODE_RET_NEAR;
    case ZYDIS_MNEMONIC_NOP: return LEVEL_CORE::KEL_OPCODE_NOP;
    default: return LEVEL_CORE::KEL_OPCODE_OTHER_BASE + static_cast<uint32_t>(m);
  }
}

}  // namespace

bool decode_instruction(uintptr_t address, size_t available, DecodedInstruction* out) {
  ZydisDecodedInstruction in;
  ZydisDecodedOperand operands[ZYDIS_MAX_OPERAND_COUNT];
  size_t length = available < ZYDIS_MAX_INSTRUCTION_LENGTH ? available : ZYDIS_MAX_INSTRUCTION_LENGTH;
  if (!ZYAN_SUCCESS(ZydisDecoderDecodeFull(&decoder(), reinterpret_cast<const void*>(address), length, &in, operands)))
    return false;
  *out = DecodedInstruction{};
  out->size = in.length;
  out->mnemonic = static_cast<uint16_t>(in.mnemonic);
  out->opcode = opcode_of(in.mnemonic);
  bool relative = (in.attributes & ZYDIS_ATTRIB_IS_RELATIVE) && in.raw.imm[0].is_relative;
  if (relative) out->target = address + in.length + static_cast<uintptr_t>(in.raw.imm[0].value.s);
  switch (in.meta.category) {
    case ZYDIS_CATEGORY_COND_BR:
      out->flags = ins_branch | ins_fallthrough | (relative ? ins_direct : ins_indirect);
      break;
    case ZYDIS_CATEGORY_UNCOND_BR:
      out->flags = ins_branch | (relative ? ins_direct : ins_indirect);
      break;
    case ZYDIS_CATEGORY_CALL:
      out->flags = ins_call | ins_fallthrough | (relative ? ins_direct : ins_indirect);
      break;
    case ZYDIS_CATEGORY_RET:
      out->flags = ins_ret;
      break;
    case ZYDIS_CATEGORY_SYSRET:
      out->flags = ins_sysret;
      break;
    default:
      out->flags = in.mnemonic == ZYDIS_MNEMONIC_HLT || in.mnemonic == ZYDIS_MNEMONIC_UD2 ? 0u : uint32_t{ins_fallthrough};
      break;
  }
  return true;
}

const char* mnemonic_name(uint16_t mnemonic) {
  const char* name = ZydisMnemonicGetString(static_cast<ZydisMnemonic>(mnemonic));
  return name ? name : "?";
}

void disassemble(uintptr_t address, size_t available, char* out, size_t out_size) {
  ZydisDisassembledInstruction in;
  size_t length = available < ZYDIS_MAX_INSTRUCTION_LENGTH ? available : ZYDIS_MAX_INSTRUCTION_LENGTH;
  if (ZYAN_SUCCESS(ZydisDisassembleATT(ZYDIS_MACHINE_MODE_LEGACY_32, address, reinterpret_cast<const void*>(address),
                                       length, &in)))
    snprintf(out, out_size, "%s", in.text);
  else
    snprintf(out, out_size, "(bad)");
}

}  // namespace kel::arch
