// Filtering data and the search for waiters: one thread's release tells another thread's wait that it
// was contended, so that the waiter reports its wait however short it was, and the release reports itself.
#include <stdlib.h>
#include <sys/syscall.h>
#include <unistd.h>
#include <string.h>
#include <time.h>

#include "event_filtering.h"
#include "vorx_log.h"

namespace {

vorx_filtering_data* as_filtering(void* data) { return static_cast<vorx_filtering_data*>(data); }

void count_waiter_in(vorx_filtering_data* fd) {
  if (__atomic_exchange_n(&fd->sys_sync.count, 1u, __ATOMIC_ACQ_REL) == 0)
    __atomic_add_fetch(&g_vorx_sync_waiters, 1u, __ATOMIC_ACQ_REL);
}

void count_waiter_out(vorx_filtering_data* fd) {
  if (__atomic_exchange_n(&fd->sys_sync.count, 0u, __ATOMIC_ACQ_REL) != 0)
    __atomic_sub_fetch(&g_vorx_sync_waiters, 1u, __ATOMIC_ACQ_REL);
}

void clear_block(vorx_filtering_data* fd) {
  count_waiter_out(fd);
  auto reset = fd->reset;
  auto destroy = fd->destroy;
  memset(fd, 0, sizeof *fd);
  fd->reset = reset;
  fd->destroy = destroy;
}

void destroy_block(vorx_filtering_data* fd) {
  count_waiter_out(fd);
  free(fd);
}

vorx_u32_t address_word(const void* object) { return static_cast<vorx_u32_t>(reinterpret_cast<uintptr_t>(object)); }

// The walk holds each thread's owner while it looks at its block; the releaser is skipped by its tid.
vorx_contention_request* as_request(void* request) { return static_cast<vorx_contention_request*>(request); }

vorx_filtering_data* filtering_of(vorx_ts_desc_t* thread, void* wsp, vorx_u32_t requester) {
  if (!wsp || thread->l1.data.tid == requester) return nullptr;
  return as_filtering(static_cast<vorx_workspace*>(wsp)->filtering_data);
}

}  // namespace

extern "C" {

void* vorx_alloc_filtering_data(void) {
  auto* fd = static_cast<vorx_filtering_data*>(calloc(1, sizeof(vorx_filtering_data)));
  VORX_ASSERT(fd != nullptr);
  fd->reset = clear_block;
  fd->destroy = destroy_block;
  return fd;
}

void vorx_reset_filtering_data(void* data) {
  if (data) as_filtering(data)->reset(as_filtering(data));
}

void vorx_free_filtering_data(void* data) {
  if (data) as_filtering(data)->destroy(as_filtering(data));
}

void vorx_filtering_set_wait_time(void* filtering_data, uint64_t time) {
  if (filtering_data) as_filtering(filtering_data)->last_wait_start = time;
}

// Lock wrappers keep exactly one object: the one they are about to wait on.
void vorx_filtering_push_sync(void* filtering_data, void* object) {
  vorx_filtering_data* fd = as_filtering(filtering_data);
  if (!fd) return;
  fd->sys_sync.objects[0] = address_word(object);
  fd->sys_sync.contended[0] = 0;
  count_waiter_in(fd);
}

int vorx_filtering_contended(void* filtering_data) {
  vorx_filtering_data* fd = as_filtering(filtering_data);
  return fd && __atomic_load_n(&fd->sys_sync.contended[0], __ATOMIC_ACQUIRE) != 0;
}

void vorx_filtering_clear_sync(void* filtering_data) {
  vorx_filtering_data* fd = as_filtering(filtering_data);
  if (!fd) return;
  count_waiter_out(fd);
  fd->sys_sync.objects[0] = 0;
  fd->sys_sync.contended[0] = 0;
  fd->wait_in_progress = 0;
}

// Threads that have a lock object in their block right now. A release finds no waiter while this is 0, so
// the wrappers of releases skip the walk over all threads (and everything else) then; they read it directly.
vorx_u32_t g_vorx_sync_waiters;

int vorx_sync_waiters_possible(void) { return __atomic_load_n(&g_vorx_sync_waiters, __ATOMIC_ACQUIRE) != 0; }

uint32_t vorx_filtering_user_heap_nesting(void* filtering_data) {
  return filtering_data ? as_filtering(filtering_data)->user_heap : 0;
}

vorx_u32_t vorx_sys_sync_contention_callback(vorx_ts_desc_t* thread, void* wsp, void* request) {
  vorx_contention_request* req = as_request(request);
  vorx_filtering_data* fd = filtering_of(thread, wsp, req->requester_tid);
  if (!fd) return vorx_thread_manager_op_err_cont;
  vorx_u32_t count = __atomic_load_n(&fd->sys_sync.count, __ATOMIC_ACQUIRE);
  if (count > VORX_SYNC_SLOTS) count = VORX_SYNC_SLOTS;
  for (vorx_u32_t i = 0; i < count; ++i) {
    if (fd->sys_sync.objects[i] != req->object) continue;
    req->found = 1;
    req->found_wait_start = fd->last_wait_start;
    __atomic_store_n(&fd->sys_sync.contended[0], (vorx_u8_t)1, __ATOMIC_RELEASE);
    break;
  }
  return vorx_thread_manager_op_err_cont;
}

vorx_u32_t vorx_user_sync_contention_callback(vorx_ts_desc_t* thread, void* wsp, void* request) {
  vorx_contention_request* req = as_request(request);
  vorx_filtering_data* fd = filtering_of(thread, wsp, req->requester_tid);
  if (!fd) return vorx_thread_manager_op_err_cont;
  for (vorx_u32_t slot = 0; slot < VORX_SYNC_SLOTS; ++slot) {
    if (__atomic_load_n(&fd->user_sync.objects[slot], __ATOMIC_ACQUIRE) != req->object) continue;
    if (!fd->wait_in_progress) continue;
    req->found = 1;
    req->found_wait_start = fd->user_sync.waits[slot].locals.enter_time;
    __atomic_store_n(&fd->user_sync.contended[slot], (vorx_u8_t)1, __ATOMIC_RELEASE);
  }
  return vorx_thread_manager_op_err_cont;
}

int vorx_find_sync_waiter(vorx_ts_desc_t* key, void* filtering_data, void* object, int user_sync, uint64_t* since) {
  vorx_filtering_data* fd = as_filtering(filtering_data);
  if (!fd || !object) return 0;
  vorx_contention_request* req = &fd->request;
  req->object = address_word(object);
  req->requester_tid = key ? key->l1.data.tid : sal_thread_id();
  req->found = 0;
  req->found_wait_start = 0;
  vorx_thread_manager_iterate(g_vorx_thread_manager, key,
                              user_sync ? vorx_user_sync_contention_callback : vorx_sys_sync_contention_callback,
                              req);
  if (since) *since = req->found_wait_start;
  return req->found != 0;
}

// ------------------------------------------------------------------ pause and resume

void vorx_generate_sample_record(vorx_workspace* wsp, void* context, void* info) __attribute__((weak));

// A sample with no address closes the thread's sample stream at the moment of the change.
void vorx_put_boundary_paused_sample(vorx_workspace* wsp) {
  if (vorx_generate_sample_record) vorx_generate_sample_record(wsp, nullptr, nullptr);
}

}  // extern "C"

namespace {

// Catches a thread (waiting while it runs the collector), then `work` on its workspace.
template <class Fn>
void with_caught_thread(vorx_ts_desc_t* thread, Fn work) {
  for (;;) {
    void* data = nullptr;
    vorx_u32_t caught = vorx_thread_manager_catch(g_vorx_thread_manager, thread, &data);
    if (caught == vorx_thread_manager_op_err_again) {
      struct timespec pause = {0, 10 * 1000 * 1000};
      syscall(SYS_nanosleep, &pause, nullptr);  // not the library's: a cancellation point
      continue;
    }
    if (caught == vorx_thread_manager_op_err_ok) {
      work(static_cast<vorx_workspace*>(data));
      vorx_thread_manager_release(g_vorx_thread_manager, thread);
    }
    return;
  }
}

bool cpu_collection_on() { return g_vorx_conf && vorx_conf_has_collection(g_vorx_conf, vorx_cl_cpu); }

}  // namespace

extern "C" {

vorx_u32_t vorx_resume_callback(vorx_ts_desc_t* thread, void* wsp, void* data) {
  (void)wsp;
  (void)data;
  with_caught_thread(thread, [](vorx_workspace* caught) {
    vorx_mark_paused_waits_to_be_stored(caught);
    if (cpu_collection_on()) vorx_put_boundary_paused_sample(caught);
  });
  return vorx_thread_manager_op_err_cont;
}

vorx_u32_t vorx_pause_callback(vorx_ts_desc_t* thread, void* wsp, void* data) {
  (void)wsp;
  (void)data;
  with_caught_thread(thread, [](vorx_workspace* caught) {
    if (cpu_collection_on()) vorx_put_boundary_paused_sample(caught);
  });
  return vorx_thread_manager_op_err_cont;
}

}  // extern "C"
