// A manager with counting callbacks, shared by the thread-manager tests.
#pragma once

#include <gtest/gtest.h>
#include <pthread.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <atomic>

#include "thread_manager.h"

namespace tmtest {

inline vorx_u32_t gettid_now() { return (vorx_u32_t)syscall(SYS_gettid); }

// Private block as the tests see it. `holders` proves mutual exclusion: every
// party that holds the descriptor raises it and must find it 0 first.
struct Block {
  std::atomic<int> holders;
  std::atomic<int> touches;
  vorx_u32_t tid;
  int constructed;  // 1 fresh, 2 recycled
};
static_assert(sizeof(Block) <= 128);

struct Counters {
  std::atomic<int> alloc{0}, init{0}, recycle{0}, free{0};
  std::atomic<int> resume{0}, suspend{0}, attach{0}, detach{0};
  std::atomic<int> alloc_global{0}, free_global{0}, complete_global{0};
  std::atomic<int> signal_enter_not_found{0};
};

extern Counters g_counters;

// Holds and releases the block, checking nobody else holds it meanwhile.
inline void hold_exclusively(void* data) {
  auto* b = static_cast<Block*>(data);
  int before = b->holders.fetch_add(1);
  EXPECT_EQ(before, 0) << "two parties hold one descriptor";
  b->touches.fetch_add(1, std::memory_order_relaxed);
  b->holders.fetch_sub(1);
}

class ManagerTest : public ::testing::Test {
 protected:
  void SetUp() override;
  void TearDown() override;
  vorx_thread_manager_options_t options(vorx_u32_t cache_limit = 500);
  void make_manager(vorx_u32_t cache_limit = 500);

  vorx_thr_mgr_t* mgr_ = nullptr;
  pthread_key_t key_{};
};

}  // namespace tmtest
