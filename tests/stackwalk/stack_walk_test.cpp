// The walker on the test's own stacks: through frames with tables, through libc (qsort's comparator), out
// of code with neither tables nor frame pointers, and from registers that point nowhere; and the online
// body's delta coding.
#include <gtest/gtest.h>
#include <signal.h>
#include <stdlib.h>
#include <string.h>

#include <vector>

#include "signal_manager.h"
#include "stack_walk.h"

extern "C" unsigned nofp_call(unsigned (*work)(unsigned), unsigned n);

namespace {

// A fault in a walk goes back to its protected frame, as the collector's handler does it.
void on_fault(int signo, siginfo_t*, void*) { vorx_throw_if_protected(signo); }

struct Walker : ::testing::Test {
  static void SetUpTestSuite() {
    struct sigaction a = {};
    a.sa_sigaction = on_fault;
    a.sa_flags = SA_SIGINFO | SA_NODEFER;
    sigaction(SIGSEGV, &a, nullptr);
    sigaction(SIGBUS, &a, nullptr);
    ASSERT_EQ(vorx_init_unwind(), 1);
  }
  static void TearDownTestSuite() {
    signal(SIGSEGV, SIG_DFL);
    signal(SIGBUS, SIG_DFL);
  }
};

vorx_stack_desc_t* g_desc;
std::vector<uint32_t> g_frames;

void take(vorx_stack_desc_t* d) {
  vorx_walk_own_stack(d);
  g_frames.assign(d->frames, d->frames + d->frame_count);
}

// True when some frame lies in [fn, fn + 512): a return address into fn.
bool has_frame_in(const std::vector<uint32_t>& frames, const void* fn) {
  uint32_t lo = uint32_t(uintptr_t(fn));
  for (uint32_t f : frames)
    if (f >= lo && f < lo + 512) return true;
  return false;
}

__attribute__((noinline)) void level3() { take(g_desc); asm volatile(""); }
__attribute__((noinline)) void level2() { level3(); asm volatile(""); }
__attribute__((noinline)) void level1() { level2(); asm volatile(""); }

TEST_F(Walker, WalksThroughFramesWithTablesToTheCaller) {
  g_desc = vorx_alloc_stack_desc(1, 0);
  ASSERT_NE(g_desc, nullptr);
  level1();
  EXPECT_TRUE(has_frame_in(g_frames, (void*)level3));
  EXPECT_TRUE(has_frame_in(g_frames, (void*)level2));
  EXPECT_TRUE(has_frame_in(g_frames, (void*)level1));
  EXPECT_GT(g_desc->stats.table_frames, 2u);
  vorx_free_stack_desc(g_desc);
}

int compare_and_walk(const void* a, const void* b) {
  static bool walked;
  if (!walked) {
    walked = true;
    take(g_desc);
  }
  return *(const int*)a - *(const int*)b;
}

__attribute__((noinline)) void sort_some() {
  int words[64];
  for (int i = 0; i < 64; ++i) words[i] = (i * 37) % 64;
  qsort(words, 64, sizeof words[0], compare_and_walk);
  asm volatile("");
}

TEST_F(Walker, WalksFromQsortsComparatorThroughLibcBackToItsCaller) {
  g_desc = vorx_alloc_stack_desc(1, 0);
  sort_some();
  EXPECT_TRUE(has_frame_in(g_frames, (void*)sort_some));
  vorx_free_stack_desc(g_desc);
}

uint32_t g_into_nofp, g_out_of_calls_nofp;

__attribute__((noinline)) unsigned walk_here(unsigned n) {
  g_into_nofp = uint32_t(uintptr_t(__builtin_return_address(0)));
  take(g_desc);
  return n;
}

__attribute__((noinline)) unsigned calls_nofp() {
  g_out_of_calls_nofp = uint32_t(uintptr_t(__builtin_return_address(0)));
  return nofp_call(walk_here, 1) + 1;
}

TEST_F(Walker, ScansOutOfCodeWithoutTablesOrFramePointers) {
  g_desc = vorx_alloc_stack_desc(1, 0);
  calls_nofp();
  // out of nofp_call (no tables, no frame pointer) the walk finds its way back to this test
  size_t into = 0, out = 0;
  while (into < g_frames.size() && g_frames[into] != g_into_nofp) ++into;
  while (out < g_frames.size() && g_frames[out] != g_out_of_calls_nofp) ++out;
  EXPECT_LT(into, g_frames.size());
  EXPECT_LT(out, g_frames.size());
  EXPECT_LT(into, out);
  EXPECT_GT(g_desc->stats.scanned_frames + g_desc->stats.pointer_frames, 0u);
  vorx_free_stack_desc(g_desc);
}

TEST_F(Walker, RegistersThatPointNowhereGiveAShortStackAndNoCrash) {
  vorx_stack_desc_t* d = vorx_alloc_stack_desc(1, 0);
  uint32_t garbage[64];
  for (int i = 0; i < 64; ++i) garbage[i] = 0xDEAD0000u + i;  // frame pointers into unmapped memory
  vorx_stack_start_t start = {};
  start.ip = uint32_t(uintptr_t(&level1)) + 3;
  start.sp = uint32_t(uintptr_t(garbage));
  start.fp = 0x10;
  // the words are no frames: what is found is found above them, on the test's real stack
  EXPECT_EQ(d->walk(d, &start), vorx_sw_frame);
  EXPECT_GE(d->frame_count, 1u);
  EXPECT_LE(d->frame_count, VORX_STACK_MAX_FRAMES);
  start.sp = 0x1000;  // not on any stack
  EXPECT_EQ(d->walk(d, &start), vorx_sw_end);
  vorx_free_stack_desc(d);
}

TEST_F(Walker, OfflineCopiesCodeAndStackWordsAboveSp) {
  g_desc = vorx_alloc_stack_desc(1, 1);
  level1();
  EXPECT_GT(g_desc->item_count, 3u);
  bool code = false;
  for (uint32_t i = 0; i < g_desc->item_count; ++i)
    code |= g_desc->item_value[i] >= uint32_t(uintptr_t(&level2)) && g_desc->item_value[i] < uint32_t(uintptr_t(&level2)) + 512;
  EXPECT_TRUE(code) << "a return address into level2 is among the words";
  vorx_free_stack_desc(g_desc);
}

TEST(StackBody, IsInnermostFirstAndDeltaCoded) {
  const uint32_t frames[] = {0x08049010, 0x0804900A, 0xF7E01234, 0x08048500};
  uint8_t body[64];
  uint32_t size = 0;
  ASSERT_EQ(vorx_pack_online_frames(frames, 4, body, sizeof body - 4, &size), 1);
  // the first frame absolute in four bytes, then -6 in one byte with the sign flag
  EXPECT_EQ(body[0], 4);
  EXPECT_EQ(body[5], 0x41);
  EXPECT_EQ(body[6], 0xFA);
  uint32_t back[8];
  ASSERT_EQ(vorx_unpack_online_frames(body, size, back, 8), 4);
  EXPECT_EQ(std::vector<uint32_t>(back, back + 4), std::vector<uint32_t>(frames, frames + 4));
}

TEST(StackBody, NeighbouringFramesCostFewBytes) {
  uint32_t frames[20];
  for (int i = 0; i < 20; ++i) frames[i] = 0x08049000 + 0x37 * i;
  uint8_t body[256];
  uint32_t size = 0;
  ASSERT_EQ(vorx_pack_online_frames(frames, 20, body, sizeof body - 4, &size), 1);
  EXPECT_EQ(size, 5u + 19u * 2u);
}

TEST(StackBody, TooSmallABufferIsRefused) {
  const uint32_t frames[] = {0x08049010, 0xF7E01234};
  uint8_t body[16];
  uint32_t size = 0;
  EXPECT_EQ(vorx_pack_online_frames(frames, 2, body, 6, &size), 2);
}

TEST(CallCheck, RecognisesTheFormsOfCall) {
  static uint8_t code[32] = {0x90, 0x90, 0x90, 0x90, 0x90, 0x90, 0x90, 0x90,
                             0xE8, 1, 2, 3, 4,        // call rel32: returns to 13
                             0xFF, 0xD0,              // call *%eax: returns to 15
                             0xFF, 0x55, 0x08,        // call *8(%ebp): returns to 18
                             0x90, 0x90, 0x90, 0x90, 0x90, 0x90, 0x90, 0x90};
  uint32_t base = uint32_t(uintptr_t(code));
  EXPECT_TRUE(vorx_check_previous_call_instruction(base + 13));
  EXPECT_TRUE(vorx_check_previous_call_instruction(base + 15));
  EXPECT_TRUE(vorx_check_previous_call_instruction(base + 18));
  EXPECT_FALSE(vorx_check_previous_call_instruction(base + 26));
}

}  // namespace
