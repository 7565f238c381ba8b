// The engine's operating-system layer: locks that identify their holder by thread id (not by the thread
// pointer, which a raw clone thread shares with its creator), and a few file and host queries.
#include <fcntl.h>
#include <linux/futex.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <sys/utsname.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

#include "kel.h"

namespace LEVEL_BASE {
namespace {

long futex(volatile INT32* word, int op, INT32 value) {
  return syscall(SYS_futex, const_cast<INT32*>(word), op, value, nullptr, nullptr, 0);
}

OS_RETURN_CODE ok() { return {OS_RETURN_CODE_NO_ERROR, 0}; }
OS_RETURN_CODE failed(OS_RETURN_CODE_GENERIC what) { return {what, errno}; }

OS_RETURN_CODE copy_out(const char* text, CHAR* buffer, USIZE size) {
  if (!buffer || size == 0) return {OS_RETURN_CODE_INVALID_ARGS, 0};
  size_t n = strlen(text);
  if (n + 1 > size) return {OS_RETURN_CODE_BUFFER_TOO_SHORT, 0};
  memcpy(buffer, text, n + 1);
  return ok();
}

}  // namespace

NATIVE_PID OS_GetTid() { return static_cast<NATIVE_PID>(syscall(SYS_gettid)); }

VOID OS_MutexInit(OS_MUTEX_TYPE* lock) { *lock = OS_MUTEX_TYPE{0, 0, 0, 0}; }
VOID OS_MutexRecursiveInit(OS_MUTEX_TYPE* lock) { *lock = OS_MUTEX_TYPE{0, 0, 0, 1}; }
VOID OS_MutexFini(OS_MUTEX_TYPE*) {}

BOOL OS_MutexTryLock(OS_MUTEX_TYPE* lock) {
  INT32 self = OS_GetTid();
  if (lock->recursive && __atomic_load_n(&lock->owner, __ATOMIC_ACQUIRE) == self) {
    ++lock->depth;
    return true;
  }
  INT32 expected = 0;
  if (!__atomic_compare_exchange_n(&lock->word, &expected, 1, false, __ATOMIC_ACQUIRE, __ATOMIC_RELAXED))
    return false;
  __atomic_store_n(&lock->owner, self, __ATOMIC_RELAXED);
  lock->depth = 1;
  return true;
}

// The classic three-state futex mutex (0 free, 1 locked, 2 locked with waiters).
VOID OS_MutexLock(OS_MUTEX_TYPE* lock) {
  INT32 self = OS_GetTid();
  if (lock->recursive && __atomic_load_n(&lock->owner, __ATOMIC_ACQUIRE) == self) {
    ++lock->depth;
    return;
  }
  INT32 state = 0;
  if (!__atomic_compare_exchange_n(&lock->word, &state, 1, false, __ATOMIC_ACQUIRE, __ATOMIC_RELAXED)) {
    if (state != 2) state = __atomic_exchange_n(&lock->word, 2, __ATOMIC_ACQUIRE);
    while (state != 0) {
      futex(&lock->word, FUTEX_WAIT, 2);
      state = __atomic_exchange_n(&lock->word, 2, __ATOMIC_ACQUIRE);
    }
  }
  __atomic_store_n(&lock->owner, self, __ATOMIC_RELAXED);
  lock->depth = 1;
}

VOID OS_MutexUnlock(OS_MUTEX_TYPE* lock) {
  if (lock->recursive && --lock->depth > 0) return;
  __atomic_store_n(&lock->owner, 0, __ATOMIC_RELAXED);
  if (__atomic_exchange_n(&lock->word, 0, __ATOMIC_RELEASE) == 2) futex(&lock->word, FUTEX_WAKE, 1);
}

VOID OS_RWLockInitialize(OS_RWLOCK_TYPE* lock) { *lock = OS_RWLOCK_TYPE{0, 0}; }

VOID OS_RWLockAcquireRead(OS_RWLOCK_TYPE* lock) {
  for (;;) {
    INT32 seq = __atomic_load_n(&lock->seq, __ATOMIC_ACQUIRE);
    INT32 readers = __atomic_load_n(&lock->readers, __ATOMIC_ACQUIRE);
    if (readers >= 0 &&
        __atomic_compare_exchange_n(&lock->readers, &readers, readers + 1, false, __ATOMIC_ACQUIRE, __ATOMIC_RELAXED))
      return;
    if (readers < 0) futex(&lock->seq, FUTEX_WAIT, seq);
  }
}

VOID OS_RWLockAcquireWrite(OS_RWLOCK_TYPE* lock) {
  for (;;) {
    INT32 seq = __atomic_load_n(&lock->seq, __ATOMIC_ACQUIRE);
    INT32 expected = 0;
    if (__atomic_compare_exchange_n(&lock->readers, &expected, -1, false, __ATOMIC_ACQUIRE, __ATOMIC_RELAXED)) return;
    futex(&lock->seq, FUTEX_WAIT, seq);
  }
}

VOID OS_RWLockRelease(OS_RWLOCK_TYPE* lock) {
  INT32 readers = __atomic_load_n(&lock->readers, __ATOMIC_ACQUIRE);
  if (readers < 0) __atomic_store_n(&lock->readers, 0, __ATOMIC_RELEASE);
  else __atomic_fetch_sub(&lock->readers, 1, __ATOMIC_RELEASE);
  __atomic_fetch_add(&lock->seq, 1, __ATOMIC_RELEASE);
  futex(&lock->seq, FUTEX_WAKE, 0x7fffffff);
}

OS_RETURN_CODE OS_GetKernelRelease(CHAR* buffer, USIZE size) {
  struct utsname name {};
  if (uname(&name) != 0) return failed(OS_RETURN_CODE_FAILED);
  return copy_out(name.release, buffer, size);
}

OS_RETURN_CODE OS_GetHostCPUArch(CHAR* buffer, USIZE size) {
  struct utsname name {};
  if (uname(&name) != 0) return failed(OS_RETURN_CODE_FAILED);
  return copy_out(name.machine, buffer, size);
}

OS_RETURN_CODE OS_GetFileAttributes(const CHAR* path, OS_FILE_ATTRIBUTES* attributes) {
  if (!path || !attributes) return {OS_RETURN_CODE_INVALID_ARGS, 0};
  struct stat st {};
  *attributes = OS_FILE_ATTRIBUTES_NONE;
  if (lstat(path, &st) != 0) return failed(OS_RETURN_CODE_FILE_QUERY_FAILED);
  *attributes |= OS_FILE_ATTRIBUTES_EXIST;
  if (S_ISLNK(st.st_mode)) {
    *attributes |= OS_FILE_ATTRIBUTES_SYMBOLIC_LINK;
    if (stat(path, &st) != 0) return ok();  // a dangling link exists, and is nothing more
  }
  if (S_ISREG(st.st_mode)) *attributes |= OS_FILE_ATTRIBUTES_REGULAR;
  if (S_ISDIR(st.st_mode)) *attributes |= OS_FILE_ATTRIBUTES_DIRECTORY;
  return ok();
}

OS_RETURN_CODE OS_FileSizeFD(NATIVE_FD fd, USIZE* size) {
  if (!size) return {OS_RETURN_CODE_INVALID_ARGS, 0};
  struct stat st {};
  if (fstat(fd, &st) != 0) return failed(OS_RETURN_CODE_FILE_QUERY_FAILED);
  *size = static_cast<USIZE>(st.st_size);
  return ok();
}

}  // namespace LEVEL_BASE
