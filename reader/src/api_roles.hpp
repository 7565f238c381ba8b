// What the arguments of a wrapped function's API record mean to the summary.
//
// The collector's callbacks write the arguments of a wrapped call as 32-bit words behind the
// version byte, in the order of the function's record shape: the object or descriptor first,
// then the byte count or size, then the result. The reader does not learn the meaning of a
// word from the record, so this table says, by function name, which word is what:
//
//   Sync     blocking synchronisation: word 0 is the object waited for (the mutex, condition,
//            rwlock, spin lock, semaphore, barrier, joined thread, user sync object). The
//            condition waits carry the condition first, so the wait is charged to it.
//   Io       word 0 is the descriptor or stream; `bytes` names the word with the bytes moved
//            (the call's result: a negative result moved nothing).
//   Alloc    `bytes` names the word with the requested size (calloc's is count * size already,
//            realloc's new size is word 1).
//   Free     a block is released: word 0.
//
// Functions that are not in the table are still counted: those the catalogue marks as blocking
// (kind wait or wait_retry) are waits without an object, the others plain calls.
#pragma once

#include <array>
#include <string_view>

namespace vorx::report {

enum class ApiRole { Call, Wait, Sync, Io, Alloc, Free };

struct ApiRoleRow {
  std::string_view name;
  ApiRole role;
  int bytes; // index of the 32-bit word with the bytes or size; -1: none
};

inline constexpr ApiRoleRow kApiRoles[] = {
    // Synchronisation objects: the object is word 0.
    {"pthread_mutex_lock", ApiRole::Sync, -1},
    {"pthread_mutex_timedlock", ApiRole::Sync, -1},
    {"pthread_rwlock_rdlock", ApiRole::Sync, -1},
    {"pthread_rwlock_wrlock", ApiRole::Sync, -1},
    {"pthread_rwlock_timedrdlock", ApiRole::Sync, -1},
    {"pthread_rwlock_timedwrlock", ApiRole::Sync, -1},
    {"pthread_spin_lock", ApiRole::Sync, -1},
    {"pthread_cond_wait", ApiRole::Sync, -1},
    {"pthread_cond_timedwait", ApiRole::Sync, -1},
    {"pthread_barrier_wait", ApiRole::Sync, -1},
    {"pthread_join", ApiRole::Sync, -1},
    {"sem_wait", ApiRole::Sync, -1},
    {"sem_timedwait", ApiRole::Sync, -1},
    {"__ozk_sync_acquired", ApiRole::Sync, -1},
    {"__ozk_sync_cancel", ApiRole::Sync, -1},
    {"flockfile", ApiRole::Sync, -1},
    {"flock", ApiRole::Sync, -1},
    {"lockf", ApiRole::Sync, -1},
    {"futex", ApiRole::Sync, -1},
    // I/O: descriptor, then the bytes the call moved.
    {"read", ApiRole::Io, 1},
    {"write", ApiRole::Io, 1},
    {"readv", ApiRole::Io, 1},
    {"writev", ApiRole::Io, 1},
    {"recv", ApiRole::Io, 1},
    {"recvfrom", ApiRole::Io, 1},
    {"recvmsg", ApiRole::Io, 1},
    {"send", ApiRole::Io, 1},
    {"sendto", ApiRole::Io, 1},
    {"sendmsg", ApiRole::Io, 1},
    {"fread", ApiRole::Io, -1}, // the result counts items, not bytes
    {"fwrite", ApiRole::Io, -1},
    {"open", ApiRole::Io, -1},
    {"fopen", ApiRole::Io, -1},
    {"close", ApiRole::Io, -1},
    {"fclose", ApiRole::Io, -1},
    {"accept", ApiRole::Io, -1},
    {"connect", ApiRole::Io, -1},
    {"socket", ApiRole::Io, -1},
    {"poll", ApiRole::Io, -1},
    {"ppoll", ApiRole::Io, -1},
    {"select", ApiRole::Io, -1},
    {"pselect", ApiRole::Io, -1},
    {"epoll_wait", ApiRole::Io, -1},
    {"epoll_pwait", ApiRole::Io, -1},
    // Allocations: the requested size.
    {"malloc", ApiRole::Alloc, 0},
    {"calloc", ApiRole::Alloc, 0},
    {"valloc", ApiRole::Alloc, 0},
    {"memalign", ApiRole::Alloc, 0},
    {"aligned_alloc", ApiRole::Alloc, 0},
    {"posix_memalign", ApiRole::Alloc, 0},
    {"mallocx", ApiRole::Alloc, 0},
    {"hbw_malloc", ApiRole::Alloc, 0},
    {"hbw_calloc", ApiRole::Alloc, 0},
    {"realloc", ApiRole::Alloc, 1},
    {"rallocx", ApiRole::Alloc, 1},
    {"hbw_realloc", ApiRole::Alloc, 1},
    {"free", ApiRole::Free, -1},
    {"cfree", ApiRole::Free, -1},
    {"dallocx", ApiRole::Free, -1},
    {"hbw_free", ApiRole::Free, -1},
};

constexpr const ApiRoleRow *find_api_role(std::string_view name)
{
  for (const ApiRoleRow &r : kApiRoles)
    if (r.name == name) return &r;
  return nullptr;
}

static_assert(find_api_role("pthread_mutex_lock")->role == ApiRole::Sync);
static_assert(find_api_role("read")->bytes == 1 && find_api_role("malloc")->bytes == 0);

} // namespace vorx::report
