// What the arguments of a wrapped function's API record mean to the summary.
//
// The collector's callbacks write the arguments of a wrapped call as 32-bit words behind the
// version byte, in the order of the function's record shape (generated/gen_callbacks.py): the
// object or descriptor first, then the byte count or size, then the result. The record does not
// say what a word means, so this table says, by function name, which word is what:
//
//   Sync     blocking synchronisation: word 0 is the object waited for (the mutex, condition,
//            rwlock, spin lock, semaphore, barrier, joined thread, user sync object). The
//            condition waits carry the condition first, so the wait is charged to it.
//   Io       word 0 is the descriptor or stream; `bytes` names the word with the bytes moved
//            (the call's result: a negative result moved nothing).
//   Alloc    `bytes` names the word with the requested size (calloc's is count * size already,
//            realloc's new size is word 1).
//   Free     a block is released: word 0 (the heap annotations: word 1).
//
//   Wait     blocking without an object of the program's (sleeps, signal and child waits).
//
// Functions that are not in the table are still counted: those the catalogue restarts after an
// interruption (kind wait_retry) are waits without an object, the others plain calls. Kind
// wait alone is not enough: it also covers the init, destroy and unlock calls of the objects.
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
    {"msgrcv", ApiRole::Sync, -1}, // the queue or set id
    {"msgsnd", ApiRole::Sync, -1},
    {"semop", ApiRole::Sync, -1},
    {"semtimedop", ApiRole::Sync, -1},
    {"mq_receive", ApiRole::Sync, -1},
    {"mq_timedreceive", ApiRole::Sync, -1},
    {"mq_send", ApiRole::Sync, -1},
    {"mq_timedsend", ApiRole::Sync, -1},
    // Waiting without an object of the program's.
    {"sleep", ApiRole::Wait, -1},
    {"usleep", ApiRole::Wait, -1},
    {"nanosleep", ApiRole::Wait, -1},
    {"clock_nanosleep", ApiRole::Wait, -1},
    {"pause", ApiRole::Wait, -1},
    {"sigsuspend", ApiRole::Wait, -1},
    {"sigwait", ApiRole::Wait, -1},
    {"sigwaitinfo", ApiRole::Wait, -1},
    {"sigtimedwait", ApiRole::Wait, -1},
    {"wait", ApiRole::Wait, -1},
    {"waitpid", ApiRole::Wait, -1},
    {"waitid", ApiRole::Wait, -1},
    {"wait3", ApiRole::Wait, -1},
    {"wait4", ApiRole::Wait, -1},
    {"io_getevents", ApiRole::Wait, -1},
    {"aio_suspend", ApiRole::Wait, -1},
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
    {"fread", ApiRole::Io, 1}, // items read times the item size
    {"fwrite", ApiRole::Io, 1},
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
    {"memkind_malloc", ApiRole::Alloc, 0},
    {"memkind_calloc", ApiRole::Alloc, 0},
    {"realloc", ApiRole::Alloc, 1}, // old block, new size, new block
    {"rallocx", ApiRole::Alloc, 1},
    {"xallocx", ApiRole::Alloc, 1},
    {"hbw_realloc", ApiRole::Alloc, 1},
    {"__ozk_heap_allocate_end", ApiRole::Alloc, 2}, // heap, block, size
    {"__ozk_heap_reallocate_end", ApiRole::Alloc, 3},
    {"__ozk_heap_free_end", ApiRole::Free, -1},
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
