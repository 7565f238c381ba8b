// The writing of API records for the generated event callbacks: the head is built here, the callback
// builds the values behind it, and the thread's unit gets both in one put.
#include <poll.h>
#include <sys/select.h>
#include <string.h>

#include "event_records.h"
#include "vorx_log.h"
#include "vorx_traceformat.h"

namespace {

constexpr uint32_t kHeadMax = 64;

// Library objects of the annotation API start with a tag and then their id.
struct annotation_object_head {
  uint32_t tag;
  uint32_t id;
};

void put_record(vorx_tmu_t* unit, const uint8_t* head, uint32_t head_len, const uint8_t* tail, uint32_t tail_len,
                const char* callback) {
  VORX_ASSERT(unit != nullptr);
  if (unit->put_record(unit, head, head_len, tail_len ? tail : nullptr, tail_len) == 0) vorx_cbk_record_lost(callback);
}

// Room for one more descriptor in the workspace's vector, growing it by doubling.
void fd_vector_push(vorx_fd_vector* v, uint32_t used, vorx_u32_t fd) {
  if (used >= v->capacity || !v->entries) {
    vorx_u32_t grown = v->capacity ? v->capacity * 2 : 64;
    while (grown <= used) grown *= 2;
    vorx_fd_vector_realloc(v, grown);
    VORX_ASSERT_MSG(v->entries != nullptr && v->capacity >= grown, "Cannot reallocate wsp->fd_vector.");
  }
  v->entries[used] = fd;
}

void gather_set(vorx_fd_vector* v, const fd_set* set, int nfds, uint32_t* count) {
  if (!set) return;
  for (int fd = 0; fd < nfds && fd < FD_SETSIZE; ++fd)
    if (FD_ISSET(fd, set)) fd_vector_push(v, (*count)++, (vorx_u32_t)fd);
}

// Characters of a counted text as a record stores them: up to its NUL, its count and the record's cap.
uint32_t text_n_length(const char* text, int limit) {
  if (!text) return 0;
  uint32_t cap = limit > 0 && static_cast<uint32_t>(limit) < TF_STRING_MAX_CHARS ? static_cast<uint32_t>(limit)
                                                                                 : TF_STRING_MAX_CHARS;
  uint32_t n = 0;
  while (n < cap && text[n]) ++n;
  return n;
}

}  // namespace

extern "C" {

void vorx_cbk_put_call_record_with_list(vorx_workspace* wsp, const vorx_probe_data_t* data, vorx_tmu_t* unit,
                                        uint32_t id, const uint8_t* prefix, uint32_t prefix_len,
                                        const vorx_u32_t* list, uint32_t count, const char* callback) {
  uint8_t head[kHeadMax + 16];
  VORX_ASSERT(prefix_len <= 16);
  uint32_t list_len = count * 4;
  uint32_t head_len = tf_apiwrap_v1_put_head(head, VORX_CBK_DESCRIPTOR, wsp->thread, 0, data->locals.leave_time,
                                             data->locals.enter_time, 0, id, prefix_len + list_len);
  memcpy(head + head_len, prefix, prefix_len);
  put_record(unit, head, head_len + prefix_len, reinterpret_cast<const uint8_t*>(list), list_len, callback);
}

uint32_t vorx_cbk_poll_fds(vorx_workspace* wsp, const void* fds, uint32_t nfds) {
  const struct pollfd* p = static_cast<const struct pollfd*>(fds);
  uint32_t count = 0;
  for (uint32_t i = 0; p && i < nfds; ++i)
    if (p[i].revents != 0) fd_vector_push(&wsp->fd_vector, count++, (vorx_u32_t)p[i].fd);
  return count;
}

void vorx_get_signaled_fds(vorx_fd_vector* fd_vector, const void* readfds, const void* writefds,
                           const void* exceptfds, int nfds, uint32_t* out_count) {
  uint32_t count = 0;
  gather_set(fd_vector, static_cast<const fd_set*>(readfds), nfds, &count);
  gather_set(fd_vector, static_cast<const fd_set*>(writefds), nfds, &count);
  gather_set(fd_vector, static_cast<const fd_set*>(exceptfds), nfds, &count);
  *out_count = count;
}

// The unit has counted the record (the process reports the count when it ends): the program goes on,
// and the callback is named in the log once per process, not once per record.
void vorx_cbk_record_lost(const char* callback) {
  static int logged;
  if (__atomic_exchange_n(&logged, 1, __ATOMIC_RELAXED)) return;
  VORX_LOG(vorx_log_level_warning, "%s: a record was dropped; the trace goes on without it", callback);
}

uint32_t vorx_cbk_text_size(const char* text) { return 2 + tf_str_stored_len(text); }

uint32_t vorx_cbk_text(uint8_t* d, const char* text) { return tf_put_str16(d, text); }

uint32_t vorx_cbk_text_n_size(const char* text, int limit) { return 2 + text_n_length(text, limit) + 1; }

uint32_t vorx_cbk_text_n(uint8_t* d, const char* text, int limit) {
  uint32_t length = text_n_length(text, limit);
  tf_st16(d, static_cast<uint16_t>(length + 1));
  if (length) memcpy(d + 2, text, length);
  d[2 + length] = 0;
  return 2 + length + 1;
}

uint32_t vorx_cbk_object_id(const void* object) {
  if (!object) return 0;
  return static_cast<const annotation_object_head*>(object)->id;
}

}  // extern "C"
