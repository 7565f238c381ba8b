// Instruction queries over routines of this very program: a sample with each kind of control flow, a jump
// stub, and a routine made at an address that has no symbol.
#include <gtest/gtest.h>
#include <link.h>

#include <string>
#include <vector>

#include "engine.h"

extern "C" char kel_ins_sample[], kel_jump_stub[];
extern "C" char* kel_nameless_address;

// kel_ins_sample:  push %ebp; mov %esp,%ebp; test %eax,%eax; je 1f; call *%eax; 1: pop %ebp; ret
// kel_jump_stub:   jmp kel_ins_sample
// (no symbol):     mov $1,%eax; ret
__asm__(R"(
  .text
  .globl kel_ins_sample
  .hidden kel_ins_sample
  .type kel_ins_sample, @function
kel_ins_sample:
  push %ebp
  mov %esp, %ebp
  test %eax, %eax
  je 1f
  call *%eax
1:
  pop %ebp
  ret
  .size kel_ins_sample, .-kel_ins_sample
  .globl kel_jump_stub
  .hidden kel_jump_stub
  .type kel_jump_stub, @function
kel_jump_stub:
  jmp kel_ins_sample
  .size kel_jump_stub, .-kel_jump_stub
.Lnameless:
  mov $1, %eax
  ret
  .data
  .globl kel_nameless_address
  .hidden kel_nameless_address
kel_nameless_address:
  .long .Lnameless
  .text
)");

namespace kel {
namespace {

class OwnImage : public testing::Test {
 protected:
  static void SetUpTestSuite() {
    uintptr_t base = 0;
    dl_iterate_phdr(
        [](dl_phdr_info* info, size_t, void* out) {
          *static_cast<uintptr_t*>(out) = info->dlpi_addr;
          return 1;  // the program comes first
        },
        &base);
    KEL_LockClient();
    image_ = IMG(static_cast<INT32>(create_image("/proc/self/exe", base, true, false, nullptr)));
    KEL_UnlockClient();
  }
  static IMG image_;
};
IMG OwnImage::image_;

std::vector<INS> instructions(RTN rtn) {
  std::vector<INS> out;
  RTN_Open(rtn);
  for (INS ins = RTN_InsHead(rtn); INS_Valid(ins); ins = INS_Next(ins)) out.push_back(ins);
  RTN_Close(rtn);
  return out;
}

TEST_F(OwnImage, ClassifiesControlFlow) {
  RTN rtn = RTN_FindByName(image_, "kel_ins_sample");
  ASSERT_TRUE(RTN_Valid(rtn));
  EXPECT_EQ(RTN_Address(rtn), reinterpret_cast<ADDRINT>(kel_ins_sample));
  std::vector<INS> ins = instructions(rtn);
  ASSERT_EQ(ins.size(), 7u);
  EXPECT_EQ(INS_Address(ins[0]), RTN_Address(rtn));
  EXPECT_EQ(INS_Mnemonic(ins[0]), "push");
  EXPECT_TRUE(INS_HasFallThrough(ins[0]));
  EXPECT_FALSE(INS_IsBranch(ins[0]));
  // je 1f
  EXPECT_TRUE(INS_IsBranch(ins[3]));
  EXPECT_TRUE(INS_IsDirectBranch(ins[3]));
  EXPECT_TRUE(INS_HasFallThrough(ins[3]));
  EXPECT_EQ(INS_DirectControlFlowTargetAddress(ins[3]), INS_Address(ins[5]));
  // call *%eax
  EXPECT_TRUE(INS_IsCall(ins[4]));
  EXPECT_TRUE(INS_IsIndirectControlFlow(ins[4]));
  EXPECT_FALSE(INS_IsBranch(ins[4]));
  EXPECT_EQ(INS_Disassemble(ins[4]), "call %eax");  // the decoder's AT&T form
  // ret
  EXPECT_TRUE(INS_IsRet(ins[6]));
  EXPECT_FALSE(INS_HasFallThrough(ins[6]));
  EXPECT_EQ(INS_Opcode(ins[6]), KEL_OPCODE_RET_NEAR);
  EXPECT_FALSE(INS_Valid(INS_Next(ins[6])));
  EXPECT_EQ(INS_Prev(ins[1]), ins[0]);
  EXPECT_FALSE(INS_IsAddedForFunctionReplacement(ins[0]));
  EXPECT_EQ(RTN_InsTail(rtn), ins[6]);
}

TEST_F(OwnImage, RecognisesJumpStubs) {
  RTN stub = RTN_FindByName(image_, "kel_jump_stub");
  ASSERT_TRUE(RTN_Valid(stub));
  INS head = RTN_InsHead(stub);
  EXPECT_EQ(INS_Opcode(head), KEL_OPCODE_JMP);
  EXPECT_TRUE(INS_IsDirectBranch(head));
  EXPECT_FALSE(INS_HasFallThrough(head));
  EXPECT_EQ(INS_DirectControlFlowTargetAddress(head), reinterpret_cast<ADDRINT>(kel_ins_sample));
}

TEST_F(OwnImage, CreatesRoutinesWhereNoSymbolIs) {
  ADDRINT address = reinterpret_cast<ADDRINT>(kel_nameless_address);
  RTN around = RTN_FindByAddress(address);
  ASSERT_NE(RTN_Address(around), address);  // inside another routine's range, or none
  RTN made = RTN_CreateAt(address, "__fake_rtn__");
  ASSERT_TRUE(RTN_Valid(made));
  EXPECT_EQ(RTN_Name(made), "__fake_rtn__");
  EXPECT_EQ(RTN_Address(made), address);
  EXPECT_EQ(RTN_FindByAddress(address), made);
  EXPECT_EQ(RTN_CreateAt(address, "again"), made);  // one routine per address
  EXPECT_EQ(RTN_FindByName(image_, "__fake_rtn__"), made);
  INS head = RTN_InsHead(made);
  EXPECT_EQ(INS_Disassemble(head), "mov $0x01, %eax");
  EXPECT_TRUE(INS_IsRet(INS_Next(head)));
  // The routine before it ends where the new one starts.
  RTN stub = RTN_FindByName(image_, "kel_jump_stub");
  EXPECT_EQ(RTN_FindByAddress(RTN_Address(stub)), stub);
}

}  // namespace
}  // namespace kel
