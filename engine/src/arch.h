// What each processor architecture gives the engine. One implementation per folder under engine/arch/<cpu>/;
// nothing outside those folders knows instruction encodings, register layouts or system-call numbers.
#pragma once

#include <cstddef>
#include <cstdint>
#include <vector>

namespace kel::arch {

// Why a routine's entry cannot take a probe. Bits, so that a routine can be refused for several reasons and
// the totals of a sweep can be grouped.
enum Refusal : uint32_t {
  refusal_none = 0,
  refusal_too_short = 1u << 0,          // the routine ends (ret/jmp) before the patch is covered
  refusal_loop_in_prologue = 1u << 1,   // jecxz/loop cannot be re-targeted from the trampoline
  refusal_branch_into_patch = 1u << 2,  // some branch of the module lands inside the overwritten bytes
  refusal_undecodable = 1u << 3,        // bytes the decoder does not know, or a form we do not relocate
  refusal_ifunc_unresolved = 1u << 4,   // an IFUNC whose resolver cannot be called yet
  refusal_needs_relocation = 1u << 5,   // default mode only: an instruction would have to change form
  refusal_live_unaligned = 1u << 6,     // code may be running and the patch does not fit an atomic window
  refusal_already_probed = 1u << 7,     // the tool has already replaced this routine
  refusal_outside_code = 1u << 8,       // the address is not in an executable section of a live image
  refusal_eof = 1u << 9,
};
const char* refusal_name(Refusal why);  // a short word per single reason, "ok" for none

// Size of the jump written at a probed entry.
constexpr size_t kPatchSize = 5;
// Largest relocated prologue plus the jump back.
constexpr size_t kMaxTrampolineSize = 64;

struct RelocatedPrologue {
  uint8_t code[kMaxTrampolineSize];
  size_t code_size = 0;     // bytes of `code`, the jump back included
  size_t copied = 0;        // bytes of the original covered (>= kPatchSize)
  bool changed_form = false;  // some instruction was rewritten rather than copied or re-targeted
};

// Decodes the instructions at `address` (readable memory) covering at least kPatchSize bytes and writes their
// equivalent, to run at `destination`, followed by a jump back to the first instruction not copied.
// `limit` is the routine's end: bytes beyond it are not part of the routine.
Refusal relocate_prologue(uintptr_t address, uintptr_t limit, uintptr_t destination, RelocatedPrologue* out);

// Appends to `targets` every direct branch and call target found by a linear sweep of [address, address+size).
void collect_branch_targets(uintptr_t address, size_t size, std::vector<uintptr_t>* targets);

// The 5 bytes of a jump from `from` to `to`.
void encode_jump(uintptr_t from, uintptr_t to, uint8_t out[kPatchSize]);

// Writes `size` bytes at `address` while other threads may be executing them: true when done atomically.
// Fails (writing nothing) when the bytes do not fit one aligned 8-byte window.
bool write_code_atomically(uintptr_t address, const uint8_t* bytes, size_t size);

// Stub that calls `replacement` with arguments picked from the call (see kel.h: IARG_*), then returns what it
// returned. Each slot of `plan` is pushed as one 32-bit word, last slot first.
struct StubSlot {
  enum Kind { caller_word, constant, return_address } kind;
  uint32_t value;  // caller_word: the word's index among the call's arguments; constant: the value
};
// Writes the stub into `out` (at least kMaxStubSize bytes, to run at `destination`); returns its size.
constexpr size_t kMaxStubSize = 256;
size_t build_signature_stub(const std::vector<StubSlot>& plan, uintptr_t replacement, uint8_t* out);

// Stub that calls `function(argument)` and jumps to the address it returns, the caller's arguments and
// return address untouched: a callable whose destination is decided at its first call.
constexpr size_t kLazyJumpSize = 32;
size_t build_lazy_jump_stub(uintptr_t function, uint32_t argument, uint8_t* out);

// An indirect jump through `slot` (an absolute address): the body of a probe's dispatch cell.
constexpr size_t kDispatchSize = 6;
void encode_dispatch(uintptr_t slot, uint8_t out[kDispatchSize]);

// One decoded instruction, in the engine's terms.
enum : uint32_t {
  ins_branch = 1u << 0,       // jump, conditional or not
  ins_direct = 1u << 1,       // the target is an immediate
  ins_indirect = 1u << 2,     // the target comes from a register or memory
  ins_ret = 1u << 3,
  ins_sysret = 1u << 4,
  ins_fallthrough = 1u << 5,  // execution may go on at the next instruction
  ins_call = 1u << 6,
};
struct DecodedInstruction {
  uint8_t size = 0;
  uint32_t flags = 0;
  uint32_t opcode = 0;   // LEVEL_CORE opcode number
  uintptr_t target = 0;  // direct targets only
  uint16_t mnemonic = 0;
};
bool decode_instruction(uintptr_t address, size_t available, DecodedInstruction* out);
const char* mnemonic_name(uint16_t mnemonic);
void disassemble(uintptr_t address, size_t available, char* out, size_t out_size);

}  // namespace kel::arch
