/* What the generated event callbacks share: the callback tables and the writing of an API record
 * through the thread's unit. A record that cannot be written ends the process (message 49): the
 * trace would otherwise lie about what the application did. */
#ifndef VORX_EVENT_RECORDS_H
#define VORX_EVENT_RECORDS_H

#include <stdint.h>

#include "vorx_probe_params.h"
#include "vorx_probe_table.h"
#include "vorx_traceformat.h"
#include "vorx_tmu.h"
#include "workspace.h"

#ifdef __cplusplus
extern "C" {
#endif

typedef void (*vorx_callback_t)(void* wsp, vorx_probe_data_t* data);

/* A table of the callback directory: the generated entries, the entries in force after the collection's
 * filter, its name and its link. */
typedef struct vorx_callback_table {
  const vorx_callback_t* generated; /* VORX_CALLBACK_ENTRIES entries */
  vorx_callback_t entries[VORX_CALLBACK_ENTRIES];
  const char* name;
  struct vorx_callback_table* next;
} vorx_callback_table;

extern vorx_callback_table g_vorx_tp_cbks; /* "tp_filter": the records of the calls */
extern vorx_callback_table g_vorx_ss_cbks; /* "ss_filter": stacks at call points */
extern const vorx_callback_t g_vorx_tp_cbks_generated[VORX_CALLBACK_ENTRIES];
extern const vorx_callback_t g_vorx_ss_cbks_generated[VORX_CALLBACK_ENTRIES];

/* Runs entry `index` of every linked table. */
void vorx_run_directory_callbacks(uint32_t index, void* wsp, vorx_probe_data_t* data);
/* 1 when some table of the directory has a callback at index. */
int vorx_directory_has_callbacks(uint32_t index);
/* 1 when every callback at index is a record of the tp table, which reads nothing of the call but its
 * parameters, times, state and unit. */
int vorx_directory_plain_records(uint32_t index);
/* The callback at each index where exactly one table has one (most indexes: the tp table's record). */
extern vorx_callback_t g_vorx_only_callback[VORX_CALLBACK_ENTRIES];
/* vorx_run_directory_callbacks, with the one callback of an index called inline, without the walk. */
static inline void vorx_run_callbacks(uint32_t index, void* wsp, vorx_probe_data_t* data) {
  vorx_callback_t only = g_vorx_only_callback[index];
  if (only)
    only(wsp, data);
  else
    vorx_run_directory_callbacks(index, wsp, data);
}
/* Where vorx_directory_plain_records(index) holds: the one callback there, the tp table's. */
static inline void vorx_run_plain_record(uint32_t index, void* wsp, vorx_probe_data_t* data) {
  g_vorx_tp_cbks.entries[index](wsp, data);
}

/* Applies the filter of collection_types (bitmap words of the configuration) to the table and links it
 * into the directory; 1 linked, 0 left out because no id of it is active. */
vorx_u32_t vorx_register_callbacks(vorx_callback_table* table, const vorx_u32_t* collection_types);

/* The unit of the record: aux_tmu when the call says so and the workspace has one. */
static inline vorx_tmu_t* vorx_cbk_unit(vorx_workspace* wsp, const vorx_probe_data_t* data) {
  if (data->locals.to_aux_tmu == 1 && wsp->aux_tmu) return wsp->aux_tmu;
  return wsp->master_tmu;
}
/* A record written in place: open writes the head into the unit and answers where the tail_len bytes of
 * values go (NULL: the unit drops records, and there is nothing to close); close ends it. Between the two
 * the unit is the caller's alone: nothing else may be recorded meanwhile. Both are inline: every recorded
 * call goes through them. */
typedef struct vorx_cbk_record {
  vorx_tmu_t* unit;
  vorx_tmu_lease_t lease;
} vorx_cbk_record;

#define VORX_CBK_DESCRIPTOR 0x03000017u /* tid and aux_id present, aux_id always 0 */
#define VORX_CBK_POINT_FLAG 0x80000000u
/* The heads that tf_apiwrap_v1_put_head and tf_apiwrap_v2_put_head write for VORX_CBK_DESCRIPTOR. */
#define VORX_CBK_CALL_HEAD_SIZE 44u
#define VORX_CBK_POINT_HEAD_SIZE 32u

static inline uint8_t* vorx_cbk_open_room(vorx_cbk_record* r, vorx_tmu_t* unit, uint32_t size) {
  r->unit = unit;
  return (uint8_t*)vorx_tmu_open_record(unit, size, &r->lease);
}
/* A type 7 record: the call's times, the thread, `id`, then the values. */
static inline uint8_t* vorx_cbk_open_call_record(vorx_cbk_record* r, vorx_workspace* wsp, const vorx_probe_data_t* data,
                                                 vorx_tmu_t* unit, uint32_t id, uint32_t tail_len) {
  uint8_t* d = vorx_cbk_open_room(r, unit, VORX_CBK_CALL_HEAD_SIZE + tail_len);
  return d ? d + tf_apiwrap_v1_put_head(d, VORX_CBK_DESCRIPTOR, wsp->thread, 0, data->locals.leave_time,
                                        data->locals.enter_time, 0, id, tail_len)
           : d;
}
/* A type 9 record: one time (enter_time), id | 0x80000000, then the values. */
static inline uint8_t* vorx_cbk_open_point_record(vorx_cbk_record* r, vorx_workspace* wsp, const vorx_probe_data_t* data,
                                                  vorx_tmu_t* unit, uint32_t id, uint32_t tail_len) {
  uint8_t* d = vorx_cbk_open_room(r, unit, VORX_CBK_POINT_HEAD_SIZE + tail_len);
  return d ? d + tf_apiwrap_v2_put_head(d, VORX_CBK_DESCRIPTOR, wsp->thread, 0, data->locals.enter_time,
                                        id | VORX_CBK_POINT_FLAG, tail_len)
           : d;
}
/* A record that the unit dropped (and counted): no memory for it, or the results directory refused it. */
void vorx_cbk_record_lost(const char* callback);
static inline void vorx_cbk_close_record(vorx_cbk_record* r, const char* callback) {
  if (!vorx_tmu_close_record(r->unit, &r->lease)) vorx_cbk_record_lost(callback);
}
/* A type 7 record whose values end with a list of 32-bit words (the ready descriptors of poll and select):
 * `prefix` is the version byte and the fixed values, `list` the words behind them. */
void vorx_cbk_put_call_record_with_list(vorx_workspace* wsp, const vorx_probe_data_t* data, vorx_tmu_t* unit,
                                        uint32_t id, const uint8_t* prefix, uint32_t prefix_len,
                                        const vorx_u32_t* list, uint32_t count, const char* callback);
/* Gathers into wsp->fd_vector the descriptors of `fds` with a non-zero revents (at most nfds); the count. */
uint32_t vorx_cbk_poll_fds(vorx_workspace* wsp, const void* fds, uint32_t nfds);
/* Gathers every descriptor set in readfds, writefds and exceptfds, in this order, nfds bits each; a
 * descriptor set in two sets appears twice. */
void vorx_get_signaled_fds(vorx_fd_vector* fd_vector, const void* readfds, const void* writefds,
                           const void* exceptfds, int nfds, uint32_t* out_count);
/* Pieces of a tail, little-endian at any alignment; each returns the bytes written. */
static inline uint32_t vorx_cbk_u8(uint8_t* d, uint8_t v) { *d = v; return 1; }
static inline uint32_t vorx_cbk_u32(uint8_t* d, uint32_t v) { __builtin_memcpy(d, &v, 4); return 4; }
static inline uint32_t vorx_cbk_u64(uint8_t* d, uint64_t v) { __builtin_memcpy(d, &v, 8); return 8; }
/* u16 length and the text under the record rule (at most 8191 characters and the NUL; null: one NUL). */
uint32_t vorx_cbk_text_size(const char* text);
uint32_t vorx_cbk_text(uint8_t* d, const char* text);
/* The same for a text given with its length: at most `limit` bytes of it, or the whole text when `limit` is
 * 0 or less (the annotation API's convention); it need not end in a NUL. */
uint32_t vorx_cbk_text_n_size(const char* text, int limit);
uint32_t vorx_cbk_text_n(uint8_t* d, const char* text, int limit);
/* The id word of an annotation object (its header's id), 0 for null. */
uint32_t vorx_cbk_object_id(const void* object);

#ifdef __cplusplus
}
#endif

#endif
