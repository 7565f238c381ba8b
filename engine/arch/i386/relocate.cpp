// i386: moving the first instructions of a routine into a trampoline, and the small code generators of probes.
//
// A probe overwrites the first 5 bytes of a routine with a jump:
//
//     before                                   after
//     f:    e8 xx xx xx xx  call __x86.get_pc_thunk.bx    f:    e9 rr rr rr rr  jmp <dispatch cell>
//     f+5:  81 c3 ..        add $GOT, %ebx                f+5:  81 c3 ..        (unchanged)
//
// and the trampoline runs what was overwritten, in a form that is right at its new address, then jumps back:
//
//     tramp:    bb <f+5>        mov $f+5, %ebx      (what the thunk would have loaded)
//     tramp+5:  e9 <f+5>        jmp f+5
//
// Each class of instruction that can appear in the first 5 bytes has one rule here (and a test in
// tests/engine/relocate_test.cpp):
//   - no relative operand (push, mov, sub, call *%gs:0x10, ...): copied byte for byte;
//   - call rel32 to a pc thunk (mov (%esp),%reg; ret): `mov $next, %reg`  (b8+r imm32);
//   - call rel32 to the next instruction (call $+5; pop %reg, as in glvnd stubs): `push $next`  (68 imm32);
//   - any other call rel32: the same call re-targeted (it returns into the trampoline, which goes on);
//   - jmp rel8/rel32: jmp rel32 to the same target;
//   - jcc rel8/rel32: jcc rel32 (0f 8x) to the same target;
//   - jecxz, jcxz, loop*: refused, they have no rel32 form;
//   - ret or jmp before 5 bytes are covered: refused, the routine is too short;
//   - a relative branch whose target lies inside the copied bytes: refused.
#include <Zydis/Zydis.h>

#include <cstring>

#include "../../src/arch.h"
#include "decoder.h"

namespace kel::arch {
namespace {

// The sweep of a whole module only needs lengths and relative immediates: the minimal mode skips the
// semantic analysis and is several times faster.
const ZydisDecoder& sweep_decoder() {
  static ZydisDecoder instance = [] {
    ZydisDecoder d;
    ZydisDecoderInit(&d, ZYDIS_MACHINE_MODE_LEGACY_32, ZYDIS_STACK_WIDTH_32);
    ZydisDecoderEnableMode(&d, ZYDIS_DECODER_MODE_MINIMAL, ZYAN_TRUE);
    return d;
  }();
  return instance;
}

bool decode(uintptr_t address, size_t available, ZydisDecodedInstruction* instruction) {
  size_t length = available < ZYDIS_MAX_INSTRUCTION_LENGTH ? available : ZYDIS_MAX_INSTRUCTION_LENGTH;
  return ZYAN_SUCCESS(ZydisDecoderDecodeInstruction(&decoder(), nullptr, reinterpret_cast<const void*>(address),
                                                    length, instruction));
}

void put32(uint8_t* at, uint32_t value) { memcpy(at, &value, 4); }

uint32_t rel32(uintptr_t instruction_end, uintptr_t target) { return static_cast<uint32_t>(target - instruction_end); }

bool is_loop_family(ZydisMnemonic m) {
  return m == ZYDIS_MNEMONIC_JECXZ || m == ZYDIS_MNEMONIC_JCXZ || m == ZYDIS_MNEMONIC_LOOP ||
         m == ZYDIS_MNEMONIC_LOOPE || m == ZYDIS_MNEMONIC_LOOPNE;
}

// `mov (%esp), %reg; ret`: the body of __x86.get_pc_thunk.<reg>. Returns the register number or -1.
int pc_thunk_register(uintptr_t target) {
  const auto* b = reinterpret_cast<const uint8_t*>(target);
  if (b[0] != 0x8b || b[2] != 0x24 || b[3] != 0xc3) return -1;
  if ((b[1] & 0xc7) != 0x04) return -1;
  int reg = (b[1] >> 3) & 7;
  return reg == 4 ? -1 : reg;  // %esp cannot be a thunk's destination
}

struct Emitter {
  RelocatedPrologue* out;
  uintptr_t destination;
  bool fits(size_t n) const { return out->code_size + n <= sizeof(out->code); }
  uintptr_t here() const { return destination + out->code_size; }
  void bytes(const void* data, size_t n) {
    memcpy(out->code + out->code_size, data, n);
    out->code_size += n;
  }
  void op_rel32(std::initializer_list<uint8_t> opcode, uintptr_t target) {
    uint8_t buf[6];
    size_t n = 0;
    for (uint8_t b : opcode) buf[n++] = b;
    put32(buf + n, rel32(here() + n + 4, target));
    bytes(buf, n + 4);
  }
  void op_imm32(uint8_t opcode, uint32_t value) {
    uint8_t buf[5] = {opcode};
    put32(buf + 1, value);
    bytes(buf, 5);
  }
};

// One relative instruction in its new form. Returns refusal_none or the reason it cannot move.
Refusal relocate_relative(const ZydisDecodedInstruction& in, uintptr_t address, Emitter* emit) {
  uintptr_t next = address + in.length;
  uintptr_t target = next + static_cast<uintptr_t>(in.raw.imm[0].value.s);
  if (in.operand_width != 32 && in.meta.category != ZYDIS_CATEGORY_COND_BR &&
      in.meta.category != ZYDIS_CATEGORY_UNCOND_BR && in.meta.category != ZYDIS_CATEGORY_CALL)
    return refusal_undecodable;
  if (in.operand_width == 16) return refusal_undecodable;  // 66-prefixed branches truncate %eip
  switch (in.meta.category) {
    case ZYDIS_CATEGORY_CALL:
      if (target == next) {
        emit->op_imm32(0x68, static_cast<uint32_t>(next));  // push $next
        emit->out->changed_form = true;
      } else if (int reg = pc_thunk_register(target); reg >= 0) {
        emit->op_imm32(static_cast<uint8_t>(0xb8 + reg), static_cast<uint32_t>(next));  // mov $next, %reg
        emit->out->changed_form = true;
      } else {
        emit->op_rel32({0xe8}, target);
      }
      return refusal_none;
    case ZYDIS_CATEGORY_UNCOND_BR:
      emit->op_rel32({0xe9}, target);
      return refusal_none;
    case ZYDIS_CATEGORY_COND_BR: {
      uint8_t cc = in.opcode & 0x0f;
      emit->op_rel32({0x0f, static_cast<uint8_t>(0x80 | cc)}, target);
      return refusal_none;
    }
    default:
      return refusal_undecodable;  // xbegin and other rarities
  }
}

}  // namespace

const char* refusal_name(Refusal why) {
  switch (why) {
    case refusal_none: return "ok";
    case refusal_too_short: return "too_short";
    case refusal_loop_in_prologue: return "loop_in_prologue";
    case refusal_branch_into_patch: return "branch_into_patch";
    case refusal_undecodable: return "undecodable";
    case refusal_ifunc_unresolved: return "ifunc_unresolved";
    case refusal_needs_relocation: return "needs_relocation";
    case refusal_live_unaligned: return "live_unaligned";
    case refusal_already_probed: return "already_probed";
    case refusal_outside_code: return "outside_code";
    default: return "several";
  }
}

Refusal relocate_prologue(uintptr_t address, uintptr_t limit, uintptr_t destination, RelocatedPrologue* out) {
  *out = RelocatedPrologue{};
  Emitter emit{out, destination};
  size_t offset = 0;
  while (offset < kPatchSize) {
    uintptr_t at = address + offset;
    if (at >= limit) return refusal_too_short;
    ZydisDecodedInstruction in;
    if (!decode(at, limit - at, &in)) return refusal_undecodable;
    if (is_loop_family(in.mnemonic)) return refusal_loop_in_prologue;
    bool ends_flow = in.meta.category == ZYDIS_CATEGORY_RET || in.meta.category == ZYDIS_CATEGORY_UNCOND_BR;
    if (ends_flow && offset + in.length < kPatchSize) return refusal_too_short;
    if (!emit.fits(in.length + 6 + kPatchSize)) return refusal_undecodable;
    if (in.attributes & ZYDIS_ATTRIB_IS_RELATIVE) {
      uintptr_t target = at + in.length + static_cast<uintptr_t>(in.raw.imm[0].value.s);
      if (Refusal r = relocate_relative(in, at, &emit); r != refusal_none) return r;
      // From the trampoline, a target past the patch is intact original code; inside it is not.
      if (target > address && target < address + kPatchSize) return refusal_branch_into_patch;
    } else {
      emit.bytes(reinterpret_cast<const void*>(at), in.length);
    }
    offset += in.length;
  }
  out->copied = offset;
  emit.op_rel32({0xe9}, address + offset);  // back to the first instruction not copied
  return refusal_none;
}

void collect_branch_targets(uintptr_t address, size_t size, std::vector<uintptr_t>* targets) {
  uintptr_t at = address;
  uintptr_t end = address + size;
  while (at < end) {
    ZydisDecodedInstruction in;
    size_t length = end - at < ZYDIS_MAX_INSTRUCTION_LENGTH ? end - at : ZYDIS_MAX_INSTRUCTION_LENGTH;
    if (!ZYAN_SUCCESS(ZydisDecoderDecodeInstruction(&sweep_decoder(), nullptr, reinterpret_cast<const void*>(at),
                                                    length, &in))) {
      ++at;  // data in the text, or padding the decoder refuses: resynchronise on the next byte
      continue;
    }
    if ((in.attributes & ZYDIS_ATTRIB_IS_RELATIVE) && in.raw.imm[0].is_relative)
      targets->push_back(at + in.length + static_cast<uintptr_t>(in.raw.imm[0].value.s));
    at += in.length;
  }
}

void encode_jump(uintptr_t from, uintptr_t to, uint8_t out[kPatchSize]) {
  out[0] = 0xe9;
  put32(out + 1, rel32(from + kPatchSize, to));
}

bool write_code_atomically(uintptr_t address, const uint8_t* bytes, size_t size) {
  uintptr_t window = address & ~static_cast<uintptr_t>(7);
  size_t shift = address - window;
  if (shift + size > 8) return false;
  auto* word = reinterpret_cast<uint64_t*>(window);
  uint64_t expected = __atomic_load_n(word, __ATOMIC_ACQUIRE);
  uint64_t desired;
  do {  // lock cmpxchg8b: another core's instruction fetch sees either the old or the new 8 bytes
    desired = expected;
    memcpy(reinterpret_cast<uint8_t*>(&desired) + shift, bytes, size);
  } while (!__atomic_compare_exchange_n(word, &expected, desired, false, __ATOMIC_SEQ_CST, __ATOMIC_SEQ_CST));
  return true;
}

// The stub keeps the caller's frame reachable through %ebp and aligns the stack to 16 bytes for the call,
// since callers of routines such as _init may leave it only 4-byte aligned:
//
//     55                 push %ebp
//     89 e5              mov %esp, %ebp
//     83 e4 f0           and $-16, %esp
//     83 ec PP           sub $pad, %esp          so that %esp is 16-aligned after the pushes
//     ff 75 DD / 68 VV   push 8+4*i(%ebp) / push $constant     (one per slot, last first)
//     b8 AA AA AA AA     mov $replacement, %eax
//     ff d0              call *%eax
//     c9                 leave
//     c3                 ret
size_t build_signature_stub(const std::vector<StubSlot>& plan, uintptr_t replacement, uint8_t* out) {
  size_t n = 0;
  auto byte = [&](uint8_t b) { out[n++] = b; };
  byte(0x55);
  byte(0x89), byte(0xe5);
  byte(0x83), byte(0xe4), byte(0xf0);
  uint8_t pad = static_cast<uint8_t>((16 - (plan.size() * 4) % 16) % 16);
  byte(0x83), byte(0xec), byte(pad);
  for (auto slot = plan.rbegin(); slot != plan.rend(); ++slot) {
    if (n + 16 > kMaxStubSize) return 0;
    switch (slot->kind) {
      case StubSlot::caller_word: {
        uint32_t disp = 8 + 4 * slot->value;
        if (disp < 128) {
          byte(0xff), byte(0x75), byte(static_cast<uint8_t>(disp));
        } else {
          byte(0xff), byte(0xb5);
          put32(out + n, disp);
          n += 4;
        }
        break;
      }
      case StubSlot::constant:
        byte(0x68);
        put32(out + n, slot->value);
        n += 4;
        break;
      case StubSlot::return_address:
        byte(0xff), byte(0x75), byte(0x04);
        break;
    }
  }
  byte(0xb8);
  put32(out + n, static_cast<uint32_t>(replacement));
  n += 4;
  byte(0xff), byte(0xd0);
  byte(0xc9);
  byte(0xc3);
  return n;
}

//     55                 push %ebp
//     89 e5              mov %esp, %ebp
//     83 e4 f0           and $-16, %esp
//     83 ec 0c           sub $12, %esp
//     68 AA AA AA AA     push $argument           %esp is 16-aligned at the call
//     b8 FF FF FF FF     mov $function, %eax
//     ff d0              call *%eax
//     c9                 leave                    back to the caller's frame, arguments in place
//     ff e0              jmp *%eax
size_t build_lazy_jump_stub(uintptr_t function, uint32_t argument, uint8_t* out) {
  const uint8_t head[] = {0x55, 0x89, 0xe5, 0x83, 0xe4, 0xf0, 0x83, 0xec, 0x0c, 0x68};
  size_t n = 0;
  memcpy(out, head, sizeof head);
  n += sizeof head;
  put32(out + n, argument);
  n += 4;
  out[n++] = 0xb8;
  put32(out + n, static_cast<uint32_t>(function));
  n += 4;
  const uint8_t tail[] = {0xff, 0xd0, 0xc9, 0xff, 0xe0};
  memcpy(out + n, tail, sizeof tail);
  return n + sizeof tail;
}

void encode_dispatch(uintptr_t slot, uint8_t out[kDispatchSize]) {
  out[0] = 0xff;  // jmp *slot
  out[1] = 0x25;
  put32(out + 2, static_cast<uint32_t>(slot));
}

}  // namespace kel::arch
