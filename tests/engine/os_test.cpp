// The engine's OS layer: locks owned by thread id, recursion, exclusion, and the file and host queries.
#include <gtest/gtest.h>
#include <sched.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <cstdio>
#include <thread>
#include <vector>

#include "kel.h"

namespace {

TEST(OsMutex, ExcludesAndRecurses) {
  OS_MUTEX_TYPE lock;
  OS_MutexRecursiveInit(&lock);
  OS_MutexLock(&lock);
  OS_MutexLock(&lock);  // the holder may take it again
  std::atomic<bool> other_got_it{false};
  std::thread other([&] { other_got_it = OS_MutexTryLock(&lock); });
  other.join();
  EXPECT_FALSE(other_got_it);
  OS_MutexUnlock(&lock);
  std::thread still([&] { other_got_it = OS_MutexTryLock(&lock); });
  still.join();
  EXPECT_FALSE(other_got_it) << "released after one of two acquisitions";
  OS_MutexUnlock(&lock);
  std::thread now([&] {
    other_got_it = OS_MutexTryLock(&lock);
    if (other_got_it) OS_MutexUnlock(&lock);
  });
  now.join();
  EXPECT_TRUE(other_got_it);
}

TEST(OsMutex, CountsStayExactUnderContention) {
  OS_MUTEX_TYPE lock;
  OS_MutexInit(&lock);
  long counter = 0;
  std::vector<std::thread> threads;
  for (int t = 0; t < 4; ++t)
    threads.emplace_back([&] {
      for (int i = 0; i < 20000; ++i) {
        OS_MutexLock(&lock);
        ++counter;
        OS_MutexUnlock(&lock);
      }
    });
  for (auto& t : threads) t.join();
  EXPECT_EQ(counter, 80000);
}

// A thread made by clone without its own TLS shares its creator's thread pointer; the lock still tells
// the two apart, by thread id.
TEST(OsMutex, RawCloneThreadIsNotItsCreator) {
  static OS_MUTEX_TYPE lock;
  static std::atomic<int> result{-1};
  OS_MutexRecursiveInit(&lock);
  OS_MutexLock(&lock);
  alignas(16) static char stack[64 * 1024];
  auto body = [](void*) -> int {
    result = OS_MutexTryLock(&lock) ? 1 : 0;  // only raw system calls inside
    return 0;
  };
  int pid = clone(body, stack + sizeof stack, CLONE_VM | CLONE_FS | CLONE_FILES | SIGCHLD, nullptr);
  ASSERT_GT(pid, 0);
  int status = 0;
  ASSERT_EQ(waitpid(pid, &status, 0), pid);
  EXPECT_EQ(result, 0);
  OS_MutexUnlock(&lock);
}

TEST(OsRWLock, ReadersShareWritersExclude) {
  OS_RWLOCK_TYPE lock;
  OS_RWLockInitialize(&lock);
  long value = 0;
  std::atomic<long> bad_reads{0};
  std::vector<std::thread> threads;
  for (int t = 0; t < 2; ++t)
    threads.emplace_back([&] {
      for (int i = 0; i < 5000; ++i) {
        OS_RWLockAcquireWrite(&lock);
        value += 1;
        value += 1;
        OS_RWLockRelease(&lock);
      }
    });
  for (int t = 0; t < 2; ++t)
    threads.emplace_back([&] {
      for (int i = 0; i < 5000; ++i) {
        OS_RWLockAcquireRead(&lock);
        if (value % 2) ++bad_reads;  // a writer is half way
        OS_RWLockRelease(&lock);
      }
    });
  for (auto& t : threads) t.join();
  EXPECT_EQ(value, 20000);
  EXPECT_EQ(bad_reads, 0);
}

TEST(OsQueries, HostAndFiles) {
  char text[128];
  ASSERT_TRUE(OS_RETURN_CODE_IS_SUCCESS(OS_GetKernelRelease(text, sizeof text)));
  EXPECT_GT(strlen(text), 0u);
  ASSERT_TRUE(OS_RETURN_CODE_IS_SUCCESS(OS_GetHostCPUArch(text, sizeof text)));
  EXPECT_GT(strlen(text), 0u);
  char tiny[1];
  EXPECT_EQ(OS_GetKernelRelease(tiny, sizeof tiny).generic_err, OS_RETURN_CODE_BUFFER_TOO_SHORT);

  OS_FILE_ATTRIBUTES attributes = 0;
  ASSERT_TRUE(OS_RETURN_CODE_IS_SUCCESS(OS_GetFileAttributes("/proc/self", &attributes)));
  EXPECT_TRUE(attributes & OS_FILE_ATTRIBUTES_EXIST);
  EXPECT_TRUE(attributes & OS_FILE_ATTRIBUTES_SYMBOLIC_LINK);
  EXPECT_TRUE(attributes & OS_FILE_ATTRIBUTES_DIRECTORY);
  OS_RETURN_CODE missing = OS_GetFileAttributes("/no/such/file", &attributes);
  EXPECT_FALSE(OS_RETURN_CODE_IS_SUCCESS(missing));
  EXPECT_EQ(missing.os_specific_err, ENOENT);
  EXPECT_EQ(attributes, OS_FILE_ATTRIBUTES_NONE);

  FILE* f = tmpfile();
  fputs("12345", f);
  fflush(f);
  USIZE size = 0;
  ASSERT_TRUE(OS_RETURN_CODE_IS_SUCCESS(OS_FileSizeFD(fileno(f), &size)));
  EXPECT_EQ(size, 5u);
  fclose(f);
  EXPECT_FALSE(OS_RETURN_CODE_IS_SUCCESS(OS_FileSizeFD(-1, &size)));
}

}  // namespace
