// The writing of API records for the generated event callbacks: the head is built here, the callback
// builds the values behind it, and the thread's unit gets both in one put.
#include <stdio.h>
#include <string.h>

#include "event_records.h"
#include "vorx_client.h"
#include "vorx_log.h"
#include "vorx_traceformat.h"

namespace {

constexpr uint32_t kCallDescriptor = 0x03000017u;  // tid and aux_id present, aux_id always 0
constexpr uint32_t kPointFlag = 0x80000000u;
constexpr uint32_t kHeadMax = 64;

// Library objects of the annotation API start with a tag and then their id.
struct annotation_object_head {
  uint32_t tag;
  uint32_t id;
};

void put_or_die(vorx_tmu_t* unit, const uint8_t* head, uint32_t head_len, const uint8_t* tail, uint32_t tail_len,
                const char* callback) {
  VORX_ASSERT(unit != nullptr);
  if (unit->put_record(unit, head, head_len, tail_len ? tail : nullptr, tail_len) == 0) vorx_cbk_record_lost(callback);
}

}  // namespace

extern "C" {

vorx_tmu_t* vorx_cbk_unit(vorx_workspace* wsp, const vorx_probe_data_t* data) {
  if (data->locals.to_aux_tmu == 1 && wsp->aux_tmu) return wsp->aux_tmu;
  return wsp->master_tmu;
}

void vorx_cbk_put_call_record(vorx_workspace* wsp, const vorx_probe_data_t* data, vorx_tmu_t* unit, uint32_t id,
                              const uint8_t* tail, uint32_t tail_len, const char* callback) {
  uint8_t head[kHeadMax];
  uint32_t head_len = tf_apiwrap_v1_put_head(head, kCallDescriptor, wsp->thread, 0, data->locals.leave_time,
                                             data->locals.enter_time, 0, id, tail_len);
  put_or_die(unit, head, head_len, tail, tail_len, callback);
}

void vorx_cbk_put_point_record(vorx_workspace* wsp, const vorx_probe_data_t* data, vorx_tmu_t* unit, uint32_t id,
                               const uint8_t* tail, uint32_t tail_len, const char* callback) {
  uint8_t head[kHeadMax];
  uint32_t head_len =
      tf_apiwrap_v2_put_head(head, kCallDescriptor, wsp->thread, 0, data->locals.enter_time, id | kPointFlag, tail_len);
  put_or_die(unit, head, head_len, tail, tail_len, callback);
}

// Nothing is retried: a lost record (a full disk) stops the studied application on purpose.
void vorx_cbk_record_lost(const char* callback) {
  char text[256];
  int len = snprintf(text, sizeof text, "%s: Cannot put the record into a tracefile.", callback);
  if (len < 0) len = 0;
  if ((size_t)len >= sizeof text) len = sizeof text - 1;
  VORX_LOG(vorx_log_level_critical, "%s", text);
  sal_write(2, text, (vorx_size_t)len);
  sal_write(2, "\n", 1);
  if (g_vorx_client)
    vorx_client_report(g_vorx_client, vorx_severity_critical,
                       "<?xml ?><msg name='49'><arg name='function' value='%s' /></msg>", callback);
  *(volatile int*)nullptr = 0;
  __builtin_trap();
}

uint32_t vorx_cbk_text_size(const char* text) { return 2 + tf_str_stored_len(text); }

uint32_t vorx_cbk_text(uint8_t* d, const char* text) { return tf_put_str16(d, text); }

uint32_t vorx_cbk_object_id(const void* object) {
  if (!object) return 0;
  return static_cast<const annotation_object_head*>(object)->id;
}

}  // extern "C"
