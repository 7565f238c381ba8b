// Thread manager under load: threads that come and go, enter and release
// (also nested and from signal handlers) while samplers catch and iterate
// them, a fork in the middle, and a detach of the whole manager at the end.
// Every party that holds a descriptor checks that it holds it alone.
#include <signal.h>
#include <sys/wait.h>

#include <chrono>
#include <functional>
#include <thread>
#include <vector>

#include "tm_test_fixture.h"

namespace tmtest {
namespace {

constexpr int kWorkers = 6;
constexpr int kLivesPerWorker = 6;
constexpr int kEntersPerLife = 3000;

struct Load {
  vorx_thr_mgr_t* mgr;
  std::atomic<bool> stop{false};
  std::atomic<bool> workers_may_stop{false};  // until then workers keep living
  std::atomic<long> caught{0}, walked{0};
};

// One thread's lives: register, many enters (with a nested one), unregister.
void worker_body(Load* load) {
  vorx_thr_mgr_t* m = load->mgr;
  vorx_u32_t tid = gettid_now();
  for (int life = 0; life < kLivesPerWorker || !load->workers_may_stop; ++life) {
    vorx_thread_manager_reserve(m);
    vorx_u32_t reg = vorx_thread_manager_register(m, tid, nullptr);
    if (reg == vorx_thread_manager_op_err_closed) {
      vorx_thread_manager_cancel(m);
      return;
    }
    ASSERT_EQ(reg, vorx_thread_manager_op_err_ok);
    vorx_thread_manager_cancel(m);  // registration holds its own count
    vorx_ts_desc_t* key = nullptr;
    for (int i = 0; i < kEntersPerLife; ++i) {
      void* data = nullptr;
      vorx_u32_t r = vorx_thread_manager_enter_quick(m, &key, &data);
      if (r == vorx_thread_manager_op_err_thread_not_found) break;  // detached under us
      ASSERT_EQ(r, vorx_thread_manager_op_err_ok);
      hold_exclusively(data);
      if ((i & 63) == 0) {
        vorx_ts_desc_t* nested = nullptr;
        void* nested_data;
        ASSERT_EQ(vorx_thread_manager_enter_quick(m, &nested, &nested_data), vorx_thread_manager_op_err_acquired);
        if ((i & 255) == 0) pthread_kill(pthread_self(), SIGUSR2);
      }
      vorx_thread_manager_release(m, key);
    }
    vorx_u32_t un = vorx_thread_manager_unregister(m, tid, nullptr);
    ASSERT_TRUE(un == vorx_thread_manager_op_err_ok || un == vorx_thread_manager_op_err_closed ||
                un == vorx_thread_manager_op_err_thread_not_found || un == vorx_thread_manager_op_err_empty)
        << un;
  }
}

vorx_thr_mgr_t* g_handler_mgr;
void handler_enters(int) {
  vorx_ts_desc_t* key = nullptr;
  void* data;
  vorx_u32_t r = vorx_thread_manager_enter_quick(g_handler_mgr, &key, &data);
  // The interrupted frame holds the descriptor: the handler must not release.
  if (r != vorx_thread_manager_op_err_acquired) abort();
}

// A sampler: an ignored thread that catches every descriptor it can find.
vorx_u32_t catch_one(vorx_ts_desc_t* d, void* tsd, void* arg) {
  auto* load = static_cast<Load*>(arg);
  void* data = nullptr;
  for (;;) {
    vorx_u32_t r = vorx_thread_manager_catch(load->mgr, d, &data);
    if (r == vorx_thread_manager_op_err_again) {
      std::this_thread::yield();
      continue;
    }
    if (r == vorx_thread_manager_op_err_ok || r == vorx_thread_manager_op_err_thread_attaching) {
      hold_exclusively(data);
      vorx_thread_manager_release(load->mgr, d);
      load->caught++;
    }
    return vorx_thread_manager_op_err_cont;
  }
}

void sampler_body(Load* load) {
  vorx_thread_manager_ignore(load->mgr);
  while (!load->stop) {
    vorx_thread_manager_enumerate(load->mgr, catch_one, load);
    std::this_thread::yield();
  }
}

// A registered thread that walks lock-free while holding its own descriptor.
void walker_body(Load* load) {
  vorx_thr_mgr_t* m = load->mgr;
  if (vorx_thread_manager_register(m, gettid_now(), nullptr) != vorx_thread_manager_op_err_ok) return;
  vorx_ts_desc_t* key = nullptr;
  while (!load->stop) {
    void* data;
    if (vorx_thread_manager_enter_quick(m, &key, &data) != vorx_thread_manager_op_err_ok) break;
    vorx_thread_manager_iterate(m, key, [](vorx_ts_desc_t* d, void*, void* arg) -> vorx_u32_t {
      auto* l = static_cast<Load*>(arg);
      l->walked++;
      if (d == nullptr || d->l1.data.magic != VORX_TM_MAGIC) ADD_FAILURE() << "walk met a dead descriptor";
      return vorx_thread_manager_op_err_cont;
    }, load);
    vorx_thread_manager_release(m, key);
    std::this_thread::yield();
  }
}

class ManagerStressTest : public ManagerTest {
 protected:
  void SetUp() override {
    ManagerTest::SetUp();
    struct sigaction sa {};
    sa.sa_handler = handler_enters;
    sigaction(SIGUSR2, &sa, &old_);
    make_manager(/*cache_limit=*/4);
    g_handler_mgr = mgr_;
    load_.mgr = mgr_;
    vorx_thread_manager_reserve(mgr_);  // the test itself keeps the collection open
  }
  void TearDown() override {
    ManagerTest::TearDown();
    sigaction(SIGUSR2, &old_, nullptr);
  }
  void run(std::function<void()> middle) {
    std::vector<std::thread> threads;
    threads.emplace_back(sampler_body, &load_);
    threads.emplace_back(walker_body, &load_);
    std::vector<std::thread> workers;
    for (int i = 0; i < kWorkers; ++i) workers.emplace_back(worker_body, &load_);
    middle();
    // Let the samplers meet the workers before the workers may end.
    for (int i = 0; i < 500 && (load_.caught < 100 || load_.walked < 100) &&
                    mgr_->state == vorx_thr_mgr_st_threads_enabled;
         ++i)
      std::this_thread::sleep_for(std::chrono::milliseconds(10));
    load_.workers_may_stop = true;
    for (auto& w : workers) w.join();
    load_.stop = true;
    for (auto& t : threads) t.join();
  }
  Load load_;
  struct sigaction old_ {};
};

TEST_F(ManagerStressTest, ThreadsComeAndGoWhileSamplersCatchAndWalk) {
  run([] {});
  EXPECT_GT(load_.caught.load(), 0);
  EXPECT_GT(load_.walked.load(), 0);
  // Every attach is matched by a detach; every block constructed is recycled or freed.
  EXPECT_EQ(g_counters.attach - g_counters.detach, 1) << "only the walker is still attached";
  EXPECT_EQ(g_counters.resume - g_counters.suspend - g_counters.detach, 1);
}

TEST_F(ManagerStressTest, ForkInTheMiddle) {
  run([this] {
    std::this_thread::sleep_for(std::chrono::milliseconds(20));
    pid_t child = fork();
    if (child == 0) {
      vorx_thread_manager_reset_threads(mgr_);
      int failures = mgr_->state != vorx_thr_mgr_st_complete;
      vorx_thread_manager_enable_threads(mgr_, nullptr);
      failures += vorx_thread_manager_register(mgr_, gettid_now(), nullptr) != vorx_thread_manager_op_err_ok;
      vorx_ts_desc_t* key = nullptr;
      void* data;
      failures += vorx_thread_manager_enter_quick(mgr_, &key, &data) != vorx_thread_manager_op_err_ok;
      _exit(failures);
    }
    int status = 0;
    waitpid(child, &status, 0);
    EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0) << status;
  });
}

TEST_F(ManagerStressTest, DetachWholeManagerWhileThreadsAreInside) {
  run([this] {
    std::this_thread::sleep_for(std::chrono::milliseconds(30));
    vorx_thread_manager_complete_threads(mgr_);
    EXPECT_EQ(mgr_->state, (vorx_u32_t)vorx_thr_mgr_st_complete);
    EXPECT_EQ(g_counters.complete_global, 1);
  });
  EXPECT_EQ(g_counters.attach, g_counters.detach) << "every attached thread was detached once";
  EXPECT_EQ(mgr_->tls.l1.data.unclaimed, 0u);
  EXPECT_EQ(g_counters.resume, g_counters.suspend + g_counters.detach);
}

// Signals land anywhere in the manager's own code: in the guard, under the
// storage lock, between a list change and its unblocking. A handler's enter
// must answer at once, and when it gets the descriptor it must be alone.
std::atomic<long> g_storm_results[vorx_thread_manager_op_err_eof + 1];
vorx_thr_mgr_t* g_storm_mgr;

void storm_handler(int) {
  vorx_ts_desc_t* key = nullptr;
  void* data = nullptr;
  vorx_u32_t r = vorx_thread_manager_enter_quick(g_storm_mgr, &key, &data);
  if (r > vorx_thread_manager_op_err_eof) abort();
  g_storm_results[r]++;
  if (r == vorx_thread_manager_op_err_ok) {
    hold_exclusively(data);
    vorx_thread_manager_release(g_storm_mgr, key);
  }
}

TEST_F(ManagerStressTest, SignalsInterruptTheManagersOwnCode) {
  struct sigaction sa {}, old{};
  sa.sa_handler = storm_handler;
  sigaction(SIGUSR1, &sa, &old);
  g_storm_mgr = mgr_;
  for (auto& r : g_storm_results) r = 0;
  std::atomic<bool> stop{false};
  std::atomic<bool> started{false};
  std::atomic<long> lives{0};
  pthread_t target{};
  std::thread victim([&] {
    vorx_u32_t tid = gettid_now();
    started = true;
    while (!stop) {
      ASSERT_EQ(vorx_thread_manager_register(mgr_, tid, nullptr), vorx_thread_manager_op_err_ok);
      vorx_ts_desc_t* key = nullptr;
      for (int i = 0; i < 20; ++i) {
        void* data;
        ASSERT_EQ(vorx_thread_manager_enter_quick(mgr_, &key, &data), vorx_thread_manager_op_err_ok);
        hold_exclusively(data);
        vorx_thread_manager_release(mgr_, key);
      }
      vorx_thread_manager_unregister(mgr_, tid, nullptr);
      lives++;
    }
  });
  target = victim.native_handle();
  while (!started) std::this_thread::yield();
  for (long sent = 1; sent <= 20000 || lives < 100; ++sent) {
    pthread_kill(target, SIGUSR1);
    if ((sent & 15) == 0) std::this_thread::yield();
  }
  stop = true;
  victim.join();
  sigaction(SIGUSR1, &old, nullptr);
  long answered = 0;
  for (auto& r : g_storm_results) answered += r;
  EXPECT_GT(answered, 0);
  EXPECT_EQ(answered, g_storm_results[vorx_thread_manager_op_err_ok] +
                          g_storm_results[vorx_thread_manager_op_err_acquired] +
                          g_storm_results[vorx_thread_manager_op_err_thread_not_found]);
  // Where each signal landed is up to the scheduler; record the spread.
  RecordProperty("ok", (int)g_storm_results[vorx_thread_manager_op_err_ok].load());
  RecordProperty("acquired", (int)g_storm_results[vorx_thread_manager_op_err_acquired].load());
  RecordProperty("not_found", (int)g_storm_results[vorx_thread_manager_op_err_thread_not_found].load());
}

}  // namespace
}  // namespace tmtest
