// Thread manager: the life of one thread's descriptor, the refusals of enter,
// catch from other threads, tid reuse, signals, and the end of a collection.
// Enters go through the inline quick enter, as the wrappers' do (it hands
// every case but the common one to the full enter).
#include <signal.h>
#include <stdlib.h>
#include <string.h>

#include <thread>
#include <vector>

#include "tm_test_fixture.h"

namespace tmtest {

Counters g_counters;

namespace {

vorx_u32_t on_alloc(vorx_ts_desc_t*, void* data, void*) {
  auto* b = static_cast<Block*>(data);
  b->tid = gettid_now();
  b->constructed = 1;
  g_counters.alloc++;
  return 1;
}
vorx_u32_t on_init(vorx_ts_desc_t*, void* data, void*) {
  auto* b = static_cast<Block*>(data);
  b->tid = gettid_now();
  b->constructed = 2;
  g_counters.init++;
  return 1;
}
vorx_u32_t on_recycle(void*, void*) { g_counters.recycle++; return 1; }
vorx_u32_t on_free(void*, void*) { g_counters.free++; return 1; }
vorx_u32_t on_resume(void*, void*) { g_counters.resume++; return 1; }
vorx_u32_t on_suspend(void*, void*) { g_counters.suspend++; return 1; }
vorx_u32_t on_attach(void*, void*) { g_counters.attach++; return 1; }
vorx_u32_t on_detach(vorx_ts_desc_t*, void*, void*) { g_counters.detach++; return 1; }
vorx_u32_t on_alloc_global(void*, void*) { g_counters.alloc_global++; return 1; }
vorx_u32_t on_free_global(void*, void*) { g_counters.free_global++; return 1; }
vorx_u32_t on_complete_global(void*) { g_counters.complete_global++; return 1; }

}  // namespace

void ManagerTest::SetUp() {
  ASSERT_EQ(pthread_key_create(&key_, nullptr), 0);
  for (auto* c : {&g_counters.alloc, &g_counters.init, &g_counters.recycle, &g_counters.free,
                  &g_counters.resume, &g_counters.suspend, &g_counters.attach, &g_counters.detach,
                  &g_counters.alloc_global, &g_counters.free_global, &g_counters.complete_global,
                  &g_counters.signal_enter_not_found})
    c->store(0);
}

void ManagerTest::TearDown() {
  if (mgr_) {
    vorx_thread_manager_complete_threads(mgr_);
    vorx_thread_manager_destroy(mgr_);
  }
  pthread_key_delete(key_);
}

vorx_thread_manager_options_t ManagerTest::options(vorx_u32_t cache_limit) {
  vorx_thread_manager_options_t o{};
  o.key = key_;
  o.data_size = 128;
  o.cache_limit = cache_limit;
  o.alloc = on_alloc;
  o.init = on_init;
  o.recycle = on_recycle;
  o.free = on_free;
  o.resume = on_resume;
  o.suspend = on_suspend;
  o.attach = on_attach;
  o.detach = on_detach;
  o.mirror_slots = getenv("VORX_TM_TEST_MIRROR_SLOTS") != nullptr;
  return o;
}

void ManagerTest::make_manager(vorx_u32_t cache_limit) {
  ASSERT_EQ(vorx_thread_manager_create(&mgr_, 128, on_alloc_global, on_free_global, on_complete_global,
                                       nullptr),
            vorx_thread_manager_op_err_ok);
  ASSERT_EQ(vorx_thread_manager_create_global(mgr_), vorx_thread_manager_op_err_ok);
  auto o = options(cache_limit);
  ASSERT_EQ(vorx_thread_manager_enable_threads(mgr_, &o), vorx_thread_manager_op_err_ok);
}

namespace {

vorx_u32_t enter(vorx_thr_mgr_t* m, vorx_ts_desc_t** key, void** data) {
  return vorx_thread_manager_enter_quick(m, key, data);
}

TEST_F(ManagerTest, OneThreadLivesThroughRegisterEnterUnregister) {
  make_manager();
  vorx_u32_t tid = gettid_now();
  vorx_ts_desc_t* key = nullptr;
  void* data = nullptr;

  EXPECT_EQ(enter(mgr_, &key, &data), vorx_thread_manager_op_err_thread_not_found)
      << "an unregistered thread is unobserved";
  EXPECT_EQ(pthread_getspecific(key_), nullptr) << "the slot falls back to empty";

  ASSERT_EQ(vorx_thread_manager_register(mgr_, tid, nullptr), vorx_thread_manager_op_err_ok);
  EXPECT_EQ(g_counters.alloc, 1);
  EXPECT_EQ(g_counters.resume, 1);
  EXPECT_EQ(g_counters.attach, 0) << "attach runs on the thread's first enter";
  EXPECT_EQ(vorx_thread_manager_register(mgr_, tid, nullptr), vorx_thread_manager_op_err_thread_found);
  EXPECT_EQ(g_counters.alloc, 1) << "a known tid changes nothing";

  key = nullptr;
  ASSERT_EQ(enter(mgr_, &key, &data), vorx_thread_manager_op_err_ok);
  ASSERT_NE(key, nullptr);
  EXPECT_EQ(g_counters.attach, 1);
  EXPECT_EQ(static_cast<Block*>(data)->tid, tid);
  EXPECT_EQ(key->l1.data.state, (vorx_u32_t)vorx_ts_st_in_profiling);

  vorx_ts_desc_t* nested_key = nullptr;
  void* nested_data = nullptr;
  EXPECT_EQ(enter(mgr_, &nested_key, &nested_data), vorx_thread_manager_op_err_acquired);
  EXPECT_EQ(nested_data, data);
  vorx_thread_manager_release(mgr_, key);
  EXPECT_EQ(key->l1.data.owner, 0);

  EXPECT_EQ(enter(mgr_, &key, &data), vorx_thread_manager_op_err_ok) << "cached key, no TLS read";
  vorx_thread_manager_release(mgr_, key);
  EXPECT_EQ(g_counters.attach, 1);

  vorx_thread_manager_reserve(mgr_);  // someone else keeps the collection alive
  EXPECT_EQ(vorx_thread_manager_unregister(mgr_, tid, nullptr), vorx_thread_manager_op_err_ok);
  EXPECT_EQ(g_counters.detach, 1);
  EXPECT_EQ(g_counters.recycle, 1);
  EXPECT_EQ(enter(mgr_, &key, &data), vorx_thread_manager_op_err_thread_not_found)
      << "a handed-in key of an unregistered thread";
  key = nullptr;
  EXPECT_EQ(enter(mgr_, &key, &data), vorx_thread_manager_op_err_thread_not_found);

  ASSERT_EQ(vorx_thread_manager_register(mgr_, tid, nullptr), vorx_thread_manager_op_err_ok);
  EXPECT_EQ(g_counters.init, 1) << "the block comes back from the free list";
  key = nullptr;
  ASSERT_EQ(enter(mgr_, &key, &data), vorx_thread_manager_op_err_ok);
  EXPECT_EQ(static_cast<Block*>(data)->constructed, 2);
  vorx_thread_manager_release(mgr_, key);
  EXPECT_EQ(vorx_thread_manager_unregister(mgr_, tid, nullptr), vorx_thread_manager_op_err_ok);
  EXPECT_EQ(vorx_thread_manager_cancel(mgr_), vorx_thread_manager_op_err_empty);
}

TEST_F(ManagerTest, LastUnregisterEndsTheCollection) {
  make_manager();
  vorx_u32_t tid = gettid_now();
  ASSERT_EQ(vorx_thread_manager_register(mgr_, tid, nullptr), vorx_thread_manager_op_err_ok);
  void* global = nullptr;
  ASSERT_EQ(vorx_thread_manager_lock_global(mgr_, &global), vorx_thread_manager_op_err_ok);
  EXPECT_NE(global, nullptr);
  vorx_thread_manager_unlock_global(mgr_);

  EXPECT_EQ(vorx_thread_manager_unregister(mgr_, tid, nullptr), vorx_thread_manager_op_err_empty);
  EXPECT_EQ(g_counters.suspend, 1) << "never entered: attach_in_progress back to detached";
  EXPECT_EQ(g_counters.detach, 0);
  EXPECT_EQ(g_counters.complete_global, 1);
  EXPECT_EQ(g_counters.free_global, 1);
  EXPECT_EQ(mgr_->state, (vorx_u32_t)vorx_thr_mgr_st_complete);
  EXPECT_EQ(vorx_thread_manager_lock_global(mgr_, &global), vorx_thread_manager_op_err_closed);
  EXPECT_EQ(global, nullptr);
  EXPECT_EQ(vorx_thread_manager_register(mgr_, tid, nullptr), vorx_thread_manager_op_err_closed);
  vorx_ts_desc_t* key = nullptr;
  void* data;
  EXPECT_EQ(enter(mgr_, &key, &data), vorx_thread_manager_op_err_thread_not_found);

  // A new collection with the old options.
  ASSERT_EQ(vorx_thread_manager_enable_threads(mgr_, nullptr), vorx_thread_manager_op_err_ok);
  ASSERT_EQ(vorx_thread_manager_register(mgr_, tid, nullptr), vorx_thread_manager_op_err_ok);
  key = nullptr;
  EXPECT_EQ(enter(mgr_, &key, &data), vorx_thread_manager_op_err_ok);
  vorx_thread_manager_release(mgr_, key);
}

TEST_F(ManagerTest, FreeListKeepsAtMostTheCacheLimit) {
  make_manager(/*cache_limit=*/1);
  std::vector<vorx_u32_t> tids = {100001, 100002, 100003};
  for (auto t : tids) ASSERT_EQ(vorx_thread_manager_register(mgr_, t, nullptr), vorx_thread_manager_op_err_ok);
  vorx_thread_manager_reserve(mgr_);
  for (auto t : tids) EXPECT_EQ(vorx_thread_manager_unregister(mgr_, t, nullptr), vorx_thread_manager_op_err_ok);
  EXPECT_EQ(g_counters.recycle, 1);
  EXPECT_EQ(g_counters.free, 2);
  EXPECT_EQ(mgr_->free_list.cached_tsd_count, 1u);
  EXPECT_EQ(vorx_thread_manager_register(mgr_, 100004, nullptr), vorx_thread_manager_op_err_ok);
  EXPECT_EQ(g_counters.init, 1);
  EXPECT_EQ(mgr_->free_list.cached_tsd_count, 0u);
  EXPECT_EQ(vorx_thread_manager_unregister(mgr_, 99, nullptr), vorx_thread_manager_op_err_thread_not_found);
}

TEST_F(ManagerTest, IgnoredAndClosedThreadsAreNeverObserved) {
  vorx_ts_desc_t* key = nullptr;
  void* data;
  EXPECT_EQ(enter(nullptr, &key, &data), vorx_thread_manager_op_err_thread_not_found);
  ASSERT_EQ(vorx_thread_manager_create(&mgr_, 128, on_alloc_global, on_free_global, on_complete_global,
                                       nullptr),
            vorx_thread_manager_op_err_ok);
  EXPECT_EQ(enter(mgr_, &key, &data), vorx_thread_manager_op_err_thread_not_found) << "created only";
  EXPECT_EQ(vorx_thread_manager_register(mgr_, gettid_now(), nullptr), vorx_thread_manager_op_err_closed);
  auto o = options();
  vorx_thread_manager_enable_threads(mgr_, &o);

  std::thread internal([&] {
    vorx_thread_manager_ignore(mgr_);
    vorx_ts_desc_t* k = nullptr;
    void* d;
    EXPECT_EQ(enter(mgr_, &k, &d), vorx_thread_manager_op_err_thread_not_found);
    EXPECT_EQ(pthread_getspecific(key_), (void*)vorx_ts_desc_ma_ignored);
  });
  internal.join();
}

TEST_F(ManagerTest, ReusedTidMarksTheDeadEntryOrphan) {
  make_manager();
  vorx_u32_t tid = gettid_now();
  ASSERT_EQ(vorx_thread_manager_register(mgr_, tid, nullptr), vorx_thread_manager_op_err_ok);
  vorx_ts_desc_t* old_key = nullptr;
  void* data;
  ASSERT_EQ(enter(mgr_, &old_key, &data), vorx_thread_manager_op_err_ok);
  vorx_thread_manager_release(mgr_, old_key);

  // A new thread with the same id: its slot is empty, the old entry is cached.
  // With nothing unclaimed in storage, enter doesn't even look.
  vorx_thread_manager_forget_slot(mgr_);
  vorx_ts_desc_t* key = nullptr;
  EXPECT_EQ(enter(mgr_, &key, &data), vorx_thread_manager_op_err_thread_not_found);
  EXPECT_EQ(old_key->l1.data.flags[vorx_ts_desc_fl_orphan], 0u);
  // Another thread registered and not yet entered: now the lookup runs.
  ASSERT_EQ(vorx_thread_manager_register(mgr_, 400001, nullptr), vorx_thread_manager_op_err_ok);
  EXPECT_EQ(mgr_->tls.l1.data.unclaimed, 1u);
  EXPECT_EQ(enter(mgr_, &key, &data), vorx_thread_manager_op_err_thread_not_found);
  EXPECT_EQ(key, nullptr);
  EXPECT_EQ(pthread_getspecific(key_), nullptr);
  EXPECT_EQ(old_key->l1.data.flags[vorx_ts_desc_fl_orphan], 1u);
  EXPECT_EQ(vorx_thread_manager_register(mgr_, tid, nullptr), vorx_thread_manager_op_err_ok)
      << "orphans match no tid";
  key = nullptr;
  ASSERT_EQ(enter(mgr_, &key, &data), vorx_thread_manager_op_err_ok);
  EXPECT_NE(key, old_key);
  vorx_thread_manager_release(mgr_, key);
  EXPECT_EQ(mgr_->tls.l1.data.unclaimed, 1u) << "only 400001 is unclaimed";
}

TEST_F(ManagerTest, RegisterOrphansADeadEntryThatEnterSkipped) {
  make_manager();
  vorx_u32_t tid = gettid_now();
  ASSERT_EQ(vorx_thread_manager_register(mgr_, tid, nullptr), vorx_thread_manager_op_err_ok);
  vorx_ts_desc_t* old_key = nullptr;
  void* data;
  ASSERT_EQ(enter(mgr_, &old_key, &data), vorx_thread_manager_op_err_ok);
  vorx_thread_manager_release(mgr_, old_key);
  EXPECT_EQ(mgr_->tls.l1.data.unclaimed, 0u);
  vorx_thread_manager_forget_slot(mgr_);
  EXPECT_EQ(vorx_thread_manager_register(mgr_, tid, nullptr), vorx_thread_manager_op_err_ok);
  EXPECT_EQ(old_key->l1.data.flags[vorx_ts_desc_fl_orphan], 1u);
  vorx_ts_desc_t* key = nullptr;
  ASSERT_EQ(enter(mgr_, &key, &data), vorx_thread_manager_op_err_ok);
  EXPECT_NE(key, old_key);
  vorx_thread_manager_release(mgr_, key);
}

// A second thread that registers itself, enters and parks until told.
struct Worker {
  vorx_thr_mgr_t* mgr;
  std::atomic<vorx_ts_desc_t*> key{nullptr};
  std::atomic<int> step{0};
  std::thread thread;

  explicit Worker(vorx_thr_mgr_t* m, bool enter_once) : mgr(m) {
    thread = std::thread([this, enter_once] {
      EXPECT_EQ(vorx_thread_manager_register(mgr, gettid_now(), nullptr), vorx_thread_manager_op_err_ok);
      vorx_ts_desc_t* k = nullptr;
      void* d;
      if (enter_once) {
        EXPECT_EQ(vorx_thread_manager_enter_quick(mgr, &k, &d), vorx_thread_manager_op_err_ok);
        vorx_thread_manager_release(mgr, k);
      } else {
        k = (vorx_ts_desc_t*)pthread_getspecific(mgr->tls.l1.data.key);
      }
      key = k;
      step = 1;
      while (step != 2) std::this_thread::yield();
      // Enter while a catcher may hold us: waits, then gets its data.
      vorx_u32_t r = vorx_thread_manager_enter_quick(mgr, &k, &d);
      EXPECT_TRUE(r == vorx_thread_manager_op_err_ok || r == vorx_thread_manager_op_err_thread_not_found);
      if (r == vorx_thread_manager_op_err_ok) vorx_thread_manager_release(mgr, k);
      step = 3;
    });
    while (step != 1) std::this_thread::yield();
  }
  void finish() {
    step = 2;
    thread.join();
  }
};

TEST_F(ManagerTest, CatchSeesStateAndHolder) {
  make_manager();
  Worker attaching(mgr_, /*enter_once=*/false);
  Worker running(mgr_, /*enter_once=*/true);
  void* data = nullptr;

  EXPECT_EQ(vorx_thread_manager_catch(mgr_, nullptr, &data), vorx_thread_manager_op_err_thread_not_found);
  ASSERT_EQ(vorx_thread_manager_catch(mgr_, attaching.key, &data), vorx_thread_manager_op_err_thread_attaching);
  vorx_thread_manager_release(mgr_, attaching.key);

  ASSERT_EQ(vorx_thread_manager_catch(mgr_, running.key, &data), vorx_thread_manager_op_err_ok);
  EXPECT_EQ(vorx_thread_manager_catch(mgr_, running.key, &data), vorx_thread_manager_op_err_acquired);
  // The worker's enter must wait while we hold it.
  running.step = 2;
  for (int i = 0; i < 20; ++i) std::this_thread::yield();
  EXPECT_EQ(running.step.load(), 2) << "enter went on while the descriptor was caught";
  vorx_thread_manager_release(mgr_, running.key);
  running.thread.join();
  EXPECT_EQ(running.step.load(), 3);

  // Held by its own thread: again.
  vorx_s32_t saved_owner = 0;
  __atomic_exchange(&running.key.load()->l1.data.owner, &running.key.load()->l1.data.tid, &saved_owner,
                    __ATOMIC_SEQ_CST);
  EXPECT_EQ(vorx_thread_manager_catch(mgr_, running.key, &data), vorx_thread_manager_op_err_again);
  vorx_thread_manager_release(mgr_, running.key);

  vorx_thread_manager_reserve(mgr_);
  EXPECT_EQ(vorx_thread_manager_unregister(mgr_, running.key.load()->l1.data.tid, nullptr),
            vorx_thread_manager_op_err_ok);
  EXPECT_EQ(vorx_thread_manager_catch(mgr_, running.key, &data), vorx_thread_manager_op_err_thread_not_found);
  attaching.finish();
}

TEST_F(ManagerTest, WalksSeeEveryThreadAndStopWhenAsked) {
  make_manager();
  for (vorx_u32_t t = 200001; t < 200006; ++t) vorx_thread_manager_register(mgr_, t, nullptr);
  ASSERT_EQ(vorx_thread_manager_register(mgr_, gettid_now(), nullptr), vorx_thread_manager_op_err_ok);
  vorx_ts_desc_t* key = nullptr;
  void* data;
  ASSERT_EQ(enter(mgr_, &key, &data), vorx_thread_manager_op_err_ok);

  int seen = 0;
  auto count = [](vorx_ts_desc_t*, void*, void* n) -> vorx_u32_t {
    ++*static_cast<int*>(n);
    return vorx_thread_manager_op_err_cont;
  };
  EXPECT_EQ(vorx_thread_manager_iterate(mgr_, key, count, &seen), vorx_thread_manager_op_err_ok);
  EXPECT_EQ(seen, 6);
  seen = 0;
  auto stop_third = [](vorx_ts_desc_t*, void*, void* n) -> vorx_u32_t {
    return ++*static_cast<int*>(n) == 3 ? vorx_thread_manager_op_err_stop : vorx_thread_manager_op_err_cont;
  };
  EXPECT_EQ(vorx_thread_manager_iterate(mgr_, key, stop_third, &seen), vorx_thread_manager_op_err_stop);
  EXPECT_EQ(seen, 3);
  auto tid_of = [](vorx_ts_desc_t* d, void*, void* out) -> vorx_u32_t {
    *static_cast<vorx_u32_t*>(out) = d->l1.data.tid;
    return vorx_thread_manager_op_err_ok;
  };
  vorx_u32_t got = 0;
  EXPECT_EQ(vorx_thread_manager_execute(mgr_, key, 200003, tid_of, &got), vorx_thread_manager_op_err_ok);
  EXPECT_EQ(got, 200003u);
  EXPECT_EQ(vorx_thread_manager_execute(mgr_, key, 7, tid_of, &got), vorx_thread_manager_op_err_thread_not_found);
  vorx_thread_manager_release(mgr_, key);

  seen = 0;
  EXPECT_EQ(vorx_thread_manager_enumerate(mgr_, count, &seen), vorx_thread_manager_op_err_ok);
  EXPECT_EQ(seen, 6);
  EXPECT_DEATH(vorx_thread_manager_iterate(mgr_, key, count, &seen), "l1.data.owner == .*l1.data.tid")
      << "a lock-free walk needs the walker's own descriptor held";
  seen = 0;
  EXPECT_DEATH(vorx_thread_manager_enumerate(mgr_, stop_third, &seen), "__thr_mgr_ts_desc_cbk__unreachable");
}

// ---- signals ---------------------------------------------------------------

vorx_thr_mgr_t* g_signal_mgr;
std::atomic<vorx_u32_t> g_signal_result;

void enter_in_handler(int) {
  vorx_ts_desc_t* key = nullptr;
  void* data = nullptr;
  vorx_u32_t r = vorx_thread_manager_enter_quick(g_signal_mgr, &key, &data);
  g_signal_result = r;
  if (r == vorx_thread_manager_op_err_ok) vorx_thread_manager_release(g_signal_mgr, key);
  if (r == vorx_thread_manager_op_err_thread_not_found) g_counters.signal_enter_not_found++;
}

vorx_u32_t alloc_and_raise(vorx_ts_desc_t* d, void* data, void* reg) {
  raise(SIGUSR1);  // a signal in the middle of the manager's own code
  return 1;
}

TEST_F(ManagerTest, SignalHandlerEnterSeesTheInterruptedFrame) {
  struct sigaction sa {}, old{};
  sa.sa_handler = enter_in_handler;
  sigaction(SIGUSR1, &sa, &old);
  make_manager();
  g_signal_mgr = mgr_;

  raise(SIGUSR1);
  EXPECT_EQ(g_signal_result.load(), (vorx_u32_t)vorx_thread_manager_op_err_thread_not_found);

  ASSERT_EQ(vorx_thread_manager_register(mgr_, gettid_now(), nullptr), vorx_thread_manager_op_err_ok);
  vorx_ts_desc_t* key = nullptr;
  void* data;
  ASSERT_EQ(enter(mgr_, &key, &data), vorx_thread_manager_op_err_ok);
  raise(SIGUSR1);
  EXPECT_EQ(g_signal_result.load(), (vorx_u32_t)vorx_thread_manager_op_err_acquired);
  vorx_thread_manager_release(mgr_, key);
  raise(SIGUSR1);
  EXPECT_EQ(g_signal_result.load(), (vorx_u32_t)vorx_thread_manager_op_err_ok);
  EXPECT_EQ(key->l1.data.owner, 0);

  // Inside the manager (a construction callback of another registration) the
  // handler passes unobserved.
  mgr_->options.alloc = alloc_and_raise;
  mgr_->options.init = alloc_and_raise;
  g_counters.signal_enter_not_found = 0;
  ASSERT_EQ(vorx_thread_manager_register(mgr_, 300001, nullptr), vorx_thread_manager_op_err_ok);
  EXPECT_EQ(g_counters.signal_enter_not_found, 0) << "construction runs outside the guard";
  mgr_->options.resume = [](void*, void*) -> vorx_u32_t {
    raise(SIGUSR1);
    return 1;
  };
  g_counters.signal_enter_not_found = 0;
  ASSERT_EQ(vorx_thread_manager_register(mgr_, 300002, nullptr), vorx_thread_manager_op_err_ok);
  EXPECT_EQ(g_counters.signal_enter_not_found, 0)
      << "resume of another thread: our own descriptor is free, the handler enters";
  sigaction(SIGUSR1, &old, nullptr);
}

TEST_F(ManagerTest, CompleteThreadsDetachesEveryThreadOnce) {
  make_manager();
  Worker a(mgr_, true), b(mgr_, false);
  vorx_thread_manager_complete_threads(mgr_);
  EXPECT_EQ(g_counters.detach, 1);
  EXPECT_EQ(g_counters.suspend, 1);
  EXPECT_EQ(g_counters.complete_global, 1);
  EXPECT_EQ(g_counters.recycle, 2);
  EXPECT_EQ(mgr_->state, (vorx_u32_t)vorx_thr_mgr_st_complete);
  vorx_thread_manager_complete_threads(mgr_);  // the second one finds the work done
  EXPECT_EQ(g_counters.complete_global, 1);
  void* catch_data;
  EXPECT_EQ(vorx_thread_manager_catch(mgr_, a.key, &catch_data), vorx_thread_manager_op_err_thread_not_found);
  a.finish();
  b.finish();
}

TEST_F(ManagerTest, ResetAfterForkLeavesOnlyTheCaller) {
  make_manager();
  Worker other(mgr_, true);
  ASSERT_EQ(vorx_thread_manager_register(mgr_, gettid_now(), nullptr), vorx_thread_manager_op_err_ok);
  vorx_ts_desc_t* key = nullptr;
  void* data;
  ASSERT_EQ(enter(mgr_, &key, &data), vorx_thread_manager_op_err_ok);
  vorx_thread_manager_release(mgr_, key);

  pid_t child = fork();
  if (child == 0) {
    int failures = 0;
    vorx_thread_manager_reset_threads(mgr_);
    failures += mgr_->state != vorx_thr_mgr_st_complete;
    failures += key->l1.data.tid != gettid_now();
    failures += mgr_->threads_count != 0;
    failures += mgr_->global != nullptr;
    failures += g_counters.free_global != 1;
    vorx_thread_manager_enable_threads(mgr_, nullptr);
    int seen = 0;
    vorx_thread_manager_enumerate(mgr_, [](vorx_ts_desc_t*, void*, void* n) -> vorx_u32_t {
      ++*static_cast<int*>(n);
      return vorx_thread_manager_op_err_cont;
    }, &seen);
    failures += seen != 0;
    failures += vorx_thread_manager_register(mgr_, gettid_now(), nullptr) != vorx_thread_manager_op_err_ok;
    vorx_ts_desc_t* k = nullptr;
    failures += vorx_thread_manager_enter_quick(mgr_, &k, &data) != vorx_thread_manager_op_err_ok;
    _exit(failures);
  }
  int status = 0;
  waitpid(child, &status, 0);
  ASSERT_TRUE(WIFEXITED(status));
  EXPECT_EQ(WEXITSTATUS(status), 0);
  other.finish();
}

}  // namespace
}  // namespace tmtest
