// Instruction relocation, one group of cases per class of instruction that can sit in the patched bytes.
// Code is assembled by hand into an executable buffer, so that addresses (and thus rel32 values) are real.
#include <gtest/gtest.h>
#include <sys/mman.h>

#include <cstring>
#include <vector>

#include "arch.h"

namespace kel::arch {
namespace {

class CodeBuffer {
 public:
  CodeBuffer() {
    base_ = static_cast<uint8_t*>(
        mmap(nullptr, 1 << 16, PROT_READ | PROT_WRITE | PROT_EXEC, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0));
    memset(base_, 0x90, 1 << 16);  // nops, so that decoding past the test bytes stays harmless
  }
  ~CodeBuffer() { munmap(base_, 1 << 16); }
  uintptr_t put(size_t offset, std::vector<uint8_t> bytes) {
    memcpy(base_ + offset, bytes.data(), bytes.size());
    return at(offset);
  }
  uintptr_t at(size_t offset) const { return reinterpret_cast<uintptr_t>(base_ + offset); }

 private:
  uint8_t* base_;
};

std::vector<uint8_t> le32(uint32_t v) { return {uint8_t(v), uint8_t(v >> 8), uint8_t(v >> 16), uint8_t(v >> 24)}; }
std::vector<uint8_t> cat(std::vector<uint8_t> a, const std::vector<uint8_t>& b) {
  a.insert(a.end(), b.begin(), b.end());
  return a;
}
uint32_t rel_from(uintptr_t end_of_instruction, uintptr_t target) { return uint32_t(target - end_of_instruction); }
std::vector<uint8_t> jump_back(uintptr_t at, uintptr_t target) { return cat({0xe9}, le32(rel_from(at + 5, target))); }

struct Relocated {
  Refusal why;
  RelocatedPrologue out;
  std::vector<uint8_t> code() const { return {out.code, out.code + out.code_size}; }
};
Relocated relocate(uintptr_t address, uintptr_t destination, size_t size = 64) {
  Relocated r;
  r.why = relocate_prologue(address, address + size, destination, &r.out);
  return r;
}

constexpr uintptr_t kTrampoline = 0x1000000;

// Instructions without a relative operand are copied byte for byte.
TEST(RelocatePrologue, CopiesPlainInstructions) {
  CodeBuffer buf;
  // push %ebp; mov %esp,%ebp; sub $0x10,%esp
  uintptr_t f = buf.put(0, {0x55, 0x89, 0xe5, 0x83, 0xec, 0x10});
  auto r = relocate(f, kTrampoline);
  ASSERT_EQ(r.why, refusal_none);
  EXPECT_EQ(r.out.copied, 6u);
  EXPECT_EQ(r.code(), cat({0x55, 0x89, 0xe5, 0x83, 0xec, 0x10}, jump_back(kTrampoline + 6, f + 6)));

  // call *%gs:0x10 (the system-call gate) has no relative operand either.
  uintptr_t g = buf.put(64, {0x65, 0xff, 0x15, 0x10, 0x00, 0x00, 0x00});
  r = relocate(g, kTrampoline);
  ASSERT_EQ(r.why, refusal_none);
  EXPECT_EQ(r.code(), cat({0x65, 0xff, 0x15, 0x10, 0, 0, 0}, jump_back(kTrampoline + 7, g + 7)));
}

// f:  e8 <thunk>  call __x86.get_pc_thunk.bx     =>   bb <f+5>  mov $f+5, %ebx
TEST(RelocatePrologue, PcThunkCallBecomesMove) {
  CodeBuffer buf;
  uintptr_t thunk = buf.put(256, {0x8b, 0x1c, 0x24, 0xc3});  // mov (%esp),%ebx; ret
  uintptr_t f = buf.at(0);
  buf.put(0, cat({0xe8}, le32(rel_from(f + 5, thunk))));
  auto r = relocate(f, kTrampoline);
  ASSERT_EQ(r.why, refusal_none);
  EXPECT_TRUE(r.out.changed_form);
  EXPECT_EQ(r.code(), cat(cat({0xbb}, le32(uint32_t(f + 5))), jump_back(kTrampoline + 5, f + 5)));

  // The other registers of the thunk family, and a thunk into %esi after a push.
  uintptr_t thunk_si = buf.put(272, {0x8b, 0x34, 0x24, 0xc3});
  uintptr_t g = buf.at(64);
  buf.put(64, cat({0x56, 0xe8}, le32(rel_from(g + 6, thunk_si))));
  r = relocate(g, kTrampoline);
  ASSERT_EQ(r.why, refusal_none);
  EXPECT_EQ(r.code(), cat(cat({0x56, 0xbe}, le32(uint32_t(g + 6))), jump_back(kTrampoline + 6, g + 6)));
}

// glvnd stubs:  e8 00 00 00 00  call $+5; 58 pop %eax   =>   68 <f+5>  push $f+5  (the pop runs in place)
TEST(RelocatePrologue, CallToNextInstructionBecomesPush) {
  CodeBuffer buf;
  uintptr_t f = buf.put(0, {0xe8, 0, 0, 0, 0, 0x58, 0xff, 0x20});
  auto r = relocate(f, kTrampoline);
  ASSERT_EQ(r.why, refusal_none);
  EXPECT_EQ(r.out.copied, 5u);
  EXPECT_EQ(r.code(), cat(cat({0x68}, le32(uint32_t(f + 5))), jump_back(kTrampoline + 5, f + 5)));
}

// Other direct calls and jumps keep their targets from the new address.
TEST(RelocatePrologue, RetargetsCallsAndJumps) {
  CodeBuffer buf;
  uintptr_t callee = buf.put(512, {0x31, 0xc0, 0xc3});
  uintptr_t f = buf.at(0);
  buf.put(0, cat({0xe8}, le32(rel_from(f + 5, callee))));
  auto r = relocate(f, kTrampoline);
  ASSERT_EQ(r.why, refusal_none);
  EXPECT_FALSE(r.out.changed_form);
  EXPECT_EQ(r.code(), cat(cat({0xe8}, le32(rel_from(kTrampoline + 5, callee))), jump_back(kTrampoline + 5, f + 5)));

  uintptr_t g = buf.at(64);
  buf.put(64, cat({0xe9}, le32(rel_from(g + 5, callee))));
  r = relocate(g, kTrampoline);
  ASSERT_EQ(r.why, refusal_none);
  EXPECT_EQ(r.code(), cat(cat({0xe9}, le32(rel_from(kTrampoline + 5, callee))), jump_back(kTrampoline + 5, g + 5)));
}

// jcc rel8 and rel32 become jcc rel32 (0f 8x) with the same condition and target.
TEST(RelocatePrologue, WidensConditionalJumps) {
  CodeBuffer buf;
  // test %eax,%eax; je +0x20; nop
  uintptr_t f = buf.put(0, {0x85, 0xc0, 0x74, 0x20, 0x90});
  auto r = relocate(f, kTrampoline);
  ASSERT_EQ(r.why, refusal_none);
  uintptr_t target = f + 4 + 0x20;
  std::vector<uint8_t> expected = {0x85, 0xc0, 0x0f, 0x84};
  expected = cat(expected, le32(rel_from(kTrampoline + 8, target)));
  expected = cat(expected, {0x90});
  EXPECT_EQ(r.code(), cat(expected, jump_back(kTrampoline + 9, f + 5)));

  // jne rel32
  uintptr_t g = buf.put(128, cat({0x0f, 0x85}, le32(0x100)));
  r = relocate(g, kTrampoline);
  ASSERT_EQ(r.why, refusal_none);
  EXPECT_EQ(r.code(), cat(cat({0x0f, 0x85}, le32(rel_from(kTrampoline + 6, g + 6 + 0x100))),
                          jump_back(kTrampoline + 6, g + 6)));
}

TEST(RelocatePrologue, Refusals) {
  CodeBuffer buf;
  // jecxz and loop have no 32-bit form.
  EXPECT_EQ(relocate(buf.put(0, {0xe3, 0x10, 0x90, 0x90, 0x90}), kTrampoline).why, refusal_loop_in_prologue);
  EXPECT_EQ(relocate(buf.put(64, {0x90, 0xe2, 0x10, 0x90, 0x90}), kTrampoline).why, refusal_loop_in_prologue);
  // xor %eax,%eax; ret: shorter than the jump.
  EXPECT_EQ(relocate(buf.put(128, {0x31, 0xc0, 0xc3, 0x90, 0x90}), kTrampoline).why, refusal_too_short);
  // A short jump first: the routine goes elsewhere before the patch is covered.
  EXPECT_EQ(relocate(buf.put(192, {0xeb, 0x10, 0x90, 0x90, 0x90}), kTrampoline).why, refusal_too_short);
  // The routine's own bytes end before 5.
  EXPECT_EQ(relocate(buf.put(256, {0x90, 0x90, 0x90}), kTrampoline, 3).why, refusal_too_short);
  // je into its own patched bytes.
  EXPECT_EQ(relocate(buf.put(320, {0x74, 0x01, 0x90, 0x90, 0x90, 0x90}), kTrampoline).why, refusal_branch_into_patch);
  // Bytes the decoder does not know.
  EXPECT_EQ(relocate(buf.put(384, {0xff, 0xff, 0x90, 0x90, 0x90}), kTrampoline).why, refusal_undecodable);
}

// The trampoline really runs: a routine that returns the address after its thunk call.
TEST(RelocatePrologue, TrampolineRuns) {
  CodeBuffer buf;
  uintptr_t thunk = buf.put(256, {0x8b, 0x04, 0x24, 0xc3});  // mov (%esp),%eax; ret
  uintptr_t f = buf.at(0);
  buf.put(0, cat(cat({0xe8}, le32(rel_from(f + 5, thunk))), {0xc3}));
  uintptr_t trampoline = buf.at(1024);
  RelocatedPrologue out;
  ASSERT_EQ(relocate_prologue(f, f + 6, trampoline, &out), refusal_none);
  memcpy(reinterpret_cast<void*>(trampoline), out.code, out.code_size);
  auto call = reinterpret_cast<uintptr_t (*)()>(trampoline);
  EXPECT_EQ(call(), f + 5);
  EXPECT_EQ(reinterpret_cast<uintptr_t (*)()>(f)(), f + 5);
}

TEST(BranchTargets, LinearSweepFindsDirectTargets) {
  CodeBuffer buf;
  uintptr_t base = buf.put(0, {0x74, 0x02, 0x90, 0x90, 0xe8, 0, 0, 0, 0, 0xe9, 0x10, 0, 0, 0, 0xff, 0xe0, 0xc3});
  std::vector<uintptr_t> targets;
  collect_branch_targets(base, 17, &targets);
  // je +2, call $+5, jmp +0x10; the indirect jmp *%eax has none.
  EXPECT_EQ(targets, (std::vector<uintptr_t>{base + 4, base + 9, base + 14 + 0x10}));
}

TEST(AtomicWrite, OnlyWithinOneAlignedWindow) {
  alignas(8) uint8_t code[16];
  memset(code, 0x90, sizeof code);
  uint8_t jump[5] = {0xe9, 1, 2, 3, 4};
  EXPECT_TRUE(write_code_atomically(reinterpret_cast<uintptr_t>(code + 3), jump, 5));
  EXPECT_EQ(memcmp(code + 3, jump, 5), 0);
  EXPECT_EQ(code[2], 0x90);
  EXPECT_FALSE(write_code_atomically(reinterpret_cast<uintptr_t>(code + 4), jump, 5));
  EXPECT_EQ(code[8], 0x90);
}

// The signature stub passes picked arguments and constants, and aligns the stack for the replacement.
uintptr_t g_seen_frame;
int replacement(int a, int b, int (*original)(int, int), int constant) {
  g_seen_frame = reinterpret_cast<uintptr_t>(__builtin_frame_address(0));
  return original(a, b) * 100 + constant;
}
int original_sum(int a, int b) { return a + b; }

TEST(SignatureStub, CallsReplacementWithPlan) {
  CodeBuffer buf;
  std::vector<StubSlot> plan = {{StubSlot::caller_word, 1},
                                {StubSlot::caller_word, 0},
                                {StubSlot::constant, uint32_t(reinterpret_cast<uintptr_t>(&original_sum))},
                                {StubSlot::constant, 7}};
  auto* stub = reinterpret_cast<uint8_t*>(buf.at(0));
  ASSERT_GT(build_signature_stub(plan, reinterpret_cast<uintptr_t>(&replacement), stub), 0u);
  auto call = reinterpret_cast<int (*)(int, int, int)>(stub);
  EXPECT_EQ(call(2, 3, 99), 507);
  // At the replacement's entry (esp+4) % 16 == 0, so its frame pointer is 8 past a 16-byte boundary.
  EXPECT_EQ(g_seen_frame % 16, 8u);
}

}  // namespace
}  // namespace kel::arch
