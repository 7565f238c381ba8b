// The generated wrappers with the collector's real event handling behind them: a lock wait longer than
// the wait threshold makes exactly one record with the lock and both times, a shorter one none, and a
// read made inside fread is not measured on its own.
#include <gtest/gtest.h>

#include "handler_fixture.hpp"
#include "wrapper_template.h"

extern "C" {
int vorx_pthread_mutex_lock_mod1_ver0(void* mutex);
unsigned vorx_fread_mod1_ver0(void* ptr, unsigned size, unsigned n, void* stream);
int vorx_read_mod1_ver0(int fd, void* buf, unsigned n);
void vorx___ozk_sync_prepare_mod0_ver0(void* addr);
void vorx___ozk_sync_acquired_mod0_ver0(void* addr);
void vorx___ozk_sync_cancel_mod0_ver0(void* addr);
}

namespace {

unsigned long long lock_takes = 0;
unsigned reads_seen = 0;
unsigned levels_seen_by_read = 0;

int fake_lock(void*) {
  handler_glue::st().clock += lock_takes;
  return 0;
}

int fake_read(int, void*, unsigned n) {
  ++reads_seen;
  levels_seen_by_read = handler_glue::st().wsp->runtime_level;
  handler_glue::st().clock += 40;
  return int(n);
}

// fread reads through the wrapped read, as the C library does.
unsigned fake_fread(void* ptr, unsigned size, unsigned n, void*) {
  int got = vorx_read_mod1_ver0(3, ptr, size * n);
  handler_glue::st().clock += 60;
  return unsigned(got) / size;
}

class WrappedCalls : public HandlerTest {
 protected:
  void SetUp() override {
    HandlerTest::SetUp();
    vorx_u32_t all[VORX_CONF_COLLECTION_WORDS];
    memset(all, 0xff, sizeof all);
    ASSERT_EQ(vorx_register_callbacks(&g_vorx_tp_cbks, all), 1u);
    handler_glue::st() = handler_glue::state_t{};
    handler_glue::st().wsp = &wsp_;
    wsp_.runtime_level = vorx_le_in_application;
    reads_seen = 0;
    for (unsigned v = 0; v < 3; ++v) {
      vorx_probe_row(vorx_pi_pthread_mutex_lock, 3, 1, v)->trampoline = (void*)&fake_lock;
      vorx_probe_row(vorx_pi_read, 3, 1, v)->trampoline = (void*)&fake_read;
      vorx_probe_row(vorx_pi_fread, 3, 1, v)->trampoline = (void*)&fake_fread;
    }
  }
};

// With the contention filter on, a lock wait that nobody marked contended counts by its length alone.
TEST_F(WrappedCalls, LockWaitAboveTheThresholdMakesOneRecord) {
  int mutex = 0;
  handler_glue::st().contention_filter = true;
  lock_takes = 25;  // threshold 10
  EXPECT_EQ(vorx_pthread_mutex_lock_mod1_ver0(&mutex), 0);
  lock_takes = 10;  // not above the threshold: nothing
  EXPECT_EQ(vorx_pthread_mutex_lock_mod1_ver0(&mutex), 0);
  EXPECT_EQ(wsp_.incomplete_wait, nullptr);
  EXPECT_EQ(wsp_.runtime_level, unsigned(vorx_le_in_application));

  Collector aux = read("aux");
  ASSERT_EQ(aux.api.size(), 1u);
  const ApiRecord& r = aux.api[0];
  EXPECT_EQ(r.function_id, uint32_t(vorx_pi_pthread_mutex_lock));
  EXPECT_EQ(r.tid, wsp_.thread);
  EXPECT_EQ(r.begin, 1000u);
  EXPECT_EQ(r.end, 1025u);
  ASSERT_EQ(r.args.size(), 8u);
  EXPECT_EQ(word_at(r.args, 0), uint32_t(uintptr_t(&mutex)));
  EXPECT_EQ(word_at(r.args, 1), 0u);
}

// Without the filter every lock that the fast path could not take is reported, however short; with it a
// wait that a releasing thread marked contended is reported too.
TEST_F(WrappedCalls, ShortLockWaitIsReportedWhenUnfilteredOrContended) {
  int mutex = 0;
  lock_takes = 2;
  vorx_pthread_mutex_lock_mod1_ver0(&mutex);
  handler_glue::st().contention_filter = true;
  vorx_pthread_mutex_lock_mod1_ver0(&mutex);  // short and uncontended: nothing
  EXPECT_EQ(filtering()->sys_sync.count, 0u);  // the object list is cleared after the wait

  // a releaser finds this thread waiting on the mutex while the lock is held
  static vorx_workspace* self;
  self = &wsp_;
  for (unsigned v = 0; v < 3; ++v)
    vorx_probe_row(vorx_pi_pthread_mutex_lock, 3, 1, v)->trampoline = (void*)+[](void* m) -> int {
      vorx_ts_desc_t waiter{};
      waiter.l1.data.tid = 1;
      vorx_contention_request req{uint32_t(uintptr_t(m)), 2, 0, 0};
      vorx_sys_sync_contention_callback(&waiter, self, &req);
      handler_glue::st().clock += 2;
      return 0;
    };
  vorx_pthread_mutex_lock_mod1_ver0(&mutex);

  Collector aux = read("aux");
  ASSERT_EQ(aux.api.size(), 2u);
  EXPECT_EQ(aux.api[0].end - aux.api[0].begin, 2u);
  EXPECT_EQ(aux.api[1].end - aux.api[1].begin, 2u);
}

TEST_F(WrappedCalls, ReadInsideFreadIsMeasuredOnlyAsTheFread) {
  char buf[64];
  FILE* stream = reinterpret_cast<FILE*>(0x1234);
  EXPECT_EQ(vorx_fread_mod1_ver0(buf, 1, sizeof buf, stream), sizeof buf);
  EXPECT_EQ(reads_seen, 1u);
  EXPECT_EQ(levels_seen_by_read, unsigned(vorx_le_in_original));

  Collector aux = read("aux");
  ASSERT_EQ(aux.api.size(), 1u);
  EXPECT_EQ(aux.api[0].function_id, uint32_t(vorx_pi_fread));
  EXPECT_EQ(aux.api[0].end - aux.api[0].begin, 100u);  // the read's 40 ticks are inside
  ASSERT_EQ(aux.api[0].args.size(), 8u);
  EXPECT_EQ(word_at(aux.api[0].args, 0), 0x1234u);
  EXPECT_EQ(word_at(aux.api[0].args, 1), 64u);  // bytes: items times item size
}

TEST_F(WrappedCalls, ReadOnItsOwnIsMeasured) {
  char buf[16];
  handler_glue::st().wait_threshold = 0;
  EXPECT_EQ(vorx_read_mod1_ver0(7, buf, sizeof buf), 16);
  Collector aux = read("aux");
  ASSERT_EQ(aux.api.size(), 1u);
  EXPECT_EQ(aux.api[0].function_id, uint32_t(vorx_pi_read));
  EXPECT_EQ(word_at(aux.api[0].args, 0), 7u);
  EXPECT_EQ(word_at(aux.api[0].args, 1), 16u);
}

// An annotated wait runs from its prepare to its acquired (or cancel), whatever the calls in between; the
// thread's slots hold it meanwhile, and an end without a prepare is a wait of no length.
TEST_F(WrappedCalls, UserWaitRunsFromPrepareToItsEnd) {
  for (unsigned v = 0; v < 3; ++v)
    for (unsigned id : {vorx_pi___ozk_sync_prepare, vorx_pi___ozk_sync_acquired, vorx_pi___ozk_sync_cancel})
      vorx_probe_row(id, 3, 0, v)->trampoline = (void*)+[](void*) {};
  int first = 0, second = 0, never_prepared = 0;
  handler_glue::st().clock = 1000;
  vorx___ozk_sync_prepare_mod0_ver0(&first);
  handler_glue::st().clock = 1100;
  vorx___ozk_sync_prepare_mod0_ver0(&second);
  vorx___ozk_sync_prepare_mod0_ver0(&first);  // open already: its first time stands
  EXPECT_EQ(filtering()->user_sync.nested_calls_count, 2);
  EXPECT_EQ(wsp_.incomplete_wait, nullptr);
  handler_glue::st().clock = 1500;
  vorx___ozk_sync_acquired_mod0_ver0(&first);
  handler_glue::st().clock = 1700;
  vorx___ozk_sync_cancel_mod0_ver0(&second);
  vorx___ozk_sync_acquired_mod0_ver0(&never_prepared);
  EXPECT_EQ(filtering()->user_sync.nested_calls_count, 0);
  EXPECT_EQ(wsp_.runtime_level, unsigned(vorx_le_in_application));

  Collector aux = read("aux");
  ASSERT_EQ(aux.api.size(), 3u);
  EXPECT_EQ(aux.api[0].function_id, uint32_t(vorx_pi___ozk_sync_acquired));
  EXPECT_EQ(aux.api[0].begin, 1000u);
  EXPECT_EQ(aux.api[0].end, 1500u);
  EXPECT_EQ(word_at(aux.api[0].args, 0), uint32_t(uintptr_t(&first)));
  EXPECT_EQ(aux.api[1].function_id, uint32_t(vorx_pi___ozk_sync_cancel));
  EXPECT_EQ(aux.api[1].begin, 1100u);
  EXPECT_EQ(aux.api[1].end, 1700u);
  EXPECT_EQ(aux.api[2].end - aux.api[2].begin, 0u);
}

// Past the 64 slots a prepare is counted but not kept; the ends bring the count back.
TEST_F(WrappedCalls, PreparesPastTheSlotsAreCountedNotKept) {
  for (unsigned v = 0; v < 3; ++v)
    for (unsigned id : {vorx_pi___ozk_sync_prepare, vorx_pi___ozk_sync_acquired})
      vorx_probe_row(id, 3, 0, v)->trampoline = (void*)+[](void*) {};
  static int objects[66];
  for (int& o : objects) vorx___ozk_sync_prepare_mod0_ver0(&o);
  EXPECT_EQ(filtering()->user_sync.nested_calls_count, 66);
  for (int& o : objects) vorx___ozk_sync_acquired_mod0_ver0(&o);
  EXPECT_EQ(filtering()->user_sync.nested_calls_count, 0);
  for (unsigned slot = 0; slot < VORX_SYNC_SLOTS; ++slot) EXPECT_EQ(filtering()->user_sync.objects[slot], 0u);
}

}  // namespace
