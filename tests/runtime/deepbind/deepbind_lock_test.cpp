// The deepbind layer's locks under contention: every critical section checks
// that it is alone, and counts that must come out exact.
#include <atomic>
#include <thread>
#include <vector>

#include "deepbind_fixture.h"

namespace dbtest {
namespace {

constexpr int kThreads = 6;

template <class Body>
void run_threads(int n, Body body) {
  std::vector<std::thread> threads;
  for (int i = 0; i < n; ++i) threads.emplace_back(body, i);
  for (auto& t : threads) t.join();
}

TEST_F(DeepbindTest, ZeroedMutexIsRecursiveAndExclusive) {
  pthread_mutex_t m;
  memset(&m, 0, sizeof m);  // no init: the first lock sets it up
  ASSERT_EQ(vorx_db_mutex_lock(&m), 0);
  ASSERT_EQ(vorx_db_mutex_lock(&m), 0);
  std::thread other([&] { EXPECT_EQ(vorx_db_mutex_trylock(&m), 16); });
  other.join();
  vorx_db_mutex_unlock(&m);
  std::thread still([&] { EXPECT_EQ(vorx_db_mutex_trylock(&m), 16) << "one unlock of two"; });
  still.join();
  vorx_db_mutex_unlock(&m);
  std::thread free_now([&] {
    EXPECT_EQ(vorx_db_mutex_trylock(&m), 0);
    EXPECT_EQ(vorx_db_mutex_trylock(&m), 0) << "trylock is recursive too";
    vorx_db_mutex_unlock(&m);
    vorx_db_mutex_unlock(&m);
  });
  free_now.join();
  pthread_mutexattr_t attr;
  pthread_mutexattr_init(&attr);
  EXPECT_DEATH(vorx_db_mutex_init(&m, &attr), "a == \\(\\(void \\*\\)0\\)");
}

TEST_F(DeepbindTest, MutexUnderContention) {
  pthread_mutex_t m;
  ASSERT_EQ(vorx_db_mutex_init(&m, nullptr), 0);
  long counter = 0;
  std::atomic<int> inside{0};
  constexpr int kRounds = 20000;
  run_threads(kThreads, [&](int) {
    for (int i = 0; i < kRounds; ++i) {
      vorx_db_mutex_lock(&m);
      if (inside.fetch_add(1) != 0) ADD_FAILURE() << "two threads inside";
      if ((i & 7) == 0) {  // nested section
        vorx_db_mutex_lock(&m);
        ++counter;
        vorx_db_mutex_unlock(&m);
      } else {
        ++counter;
      }
      if ((i & 1023) == 0) std::this_thread::yield();  // hold long enough for sleepers
      inside.fetch_sub(1);
      vorx_db_mutex_unlock(&m);
    }
  });
  EXPECT_EQ(counter, (long)kThreads * kRounds);
}

TEST_F(DeepbindTest, SpinLockExcludesAndRefusesSharing) {
  pthread_spinlock_t s;
  ASSERT_EQ(vorx_db_spin_init(&s, 0), 0);
  long counter = 0;
  run_threads(kThreads, [&](int) {
    for (int i = 0; i < 20000; ++i) {
      vorx_db_spin_lock(&s);
      ++counter;
      vorx_db_spin_unlock(&s);
    }
  });
  EXPECT_EQ(counter, kThreads * 20000L);
  vorx_db_spin_lock(&s);
  EXPECT_EQ(vorx_db_spin_trylock(&s), 16);
  vorx_db_spin_unlock(&s);
  EXPECT_EQ(vorx_db_spin_trylock(&s), 0);
  vorx_db_spin_unlock(&s);
  EXPECT_DEATH(vorx_db_spin_init(&s, 1), "pshared == 0");
}

TEST_F(DeepbindTest, RwlockReadersShareWritersExclude) {
  pthread_rwlock_t rw;
  ASSERT_EQ(vorx_db_rwlock_init(&rw, nullptr), 0);
  // Writers keep a == b; readers must never see them differ.
  volatile long a = 0, b = 0;
  std::atomic<int> readers_inside{0}, max_readers{0};
  run_threads(kThreads, [&](int t) {
    for (int i = 0; i < 3000; ++i) {
      if (t < 2) {
        vorx_db_rwlock_wrlock(&rw);
        if (readers_inside.load() != 0) ADD_FAILURE() << "writer beside readers";
        a = a + 1;
        std::this_thread::yield();
        b = b + 1;
        vorx_db_rwlock_unlock(&rw);
      } else {
        vorx_db_rwlock_rdlock(&rw);
        int now = readers_inside.fetch_add(1) + 1;
        int seen = max_readers.load();
        while (now > seen && !max_readers.compare_exchange_weak(seen, now)) {}
        if (a != b) ADD_FAILURE() << "reader saw a half-done write";
        readers_inside.fetch_sub(1);
        vorx_db_rwlock_unlock(&rw);
      }
    }
  });
  EXPECT_EQ(a, 6000);
  EXPECT_EQ(b, 6000);
  EXPECT_DEATH(vorx_db_rwlock_unlock(&rw), "unlock of the unlocked rwlock detected");
}

TEST_F(DeepbindTest, SemaphoreCountsEveryPost) {
  sem_t sem;
  ASSERT_EQ(vorx_db_sem_init(&sem, 0, 0), 0);
  constexpr int kItems = 5000;
  std::atomic<int> consumed{0};
  std::vector<std::thread> consumers;
  for (int c = 0; c < 3; ++c)
    consumers.emplace_back([&] {
      for (int i = 0; i < kItems; ++i) {
        vorx_db_sem_wait(&sem);
        consumed++;
      }
    });
  run_threads(3, [&](int) {
    for (int i = 0; i < kItems; ++i) vorx_db_sem_post(&sem);
  });
  for (auto& c : consumers) c.join();
  EXPECT_EQ(consumed.load(), 3 * kItems);
  // A waiter sleeps until a post comes.
  std::atomic<bool> woke{false};
  std::thread waiter([&] {
    vorx_db_sem_wait(&sem);
    woke = true;
  });
  for (int i = 0; i < 50 && !woke; ++i) std::this_thread::yield();
  EXPECT_FALSE(woke.load());
  vorx_db_sem_post(&sem);
  waiter.join();
  EXPECT_TRUE(woke.load());
  EXPECT_DEATH(vorx_db_sem_init(&sem, 1, 0), "__pshared == 0");
}

}  // namespace
}  // namespace dbtest
