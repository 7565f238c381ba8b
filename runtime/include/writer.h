// Records that describe the process, the machine and the collector: the opening
// of a trace, births and ends of processes and threads, module loads and state
// changes. Built as bytes and handed to a unit as a head and a tail.
#pragma once

#include <stdint.h>

#include "vorx_types.h"

#ifdef __cplusplus
extern "C" {
#endif

struct vorx_tmu;
struct vorx_workspace;

// The whole opening sequence of a process stream (after the unit's own magic
// record): collector, system, CPU, hardware, marker, process, and the module map.
void vorx_put_initial_process_records(struct vorx_tmu *unit);

void vorx_put_collector_record(struct vorx_tmu *unit);
void vorx_put_sysinfo_record(struct vorx_tmu *unit);
void vorx_put_cpuinfo_record(struct vorx_tmu *unit);
void vorx_put_hardcfg_record(struct vorx_tmu *unit);
void vorx_put_head_marker_record(struct vorx_tmu *unit);
void put_head_marker_record(struct vorx_tmu *unit, vorx_u64_t counter, vorx_u64_t wall);
void vorx_put_new_process_record(struct vorx_tmu *unit);
void put_old_process_record(struct vorx_tmu *unit);
// The process's count of dropped records so far, when there are any.
void put_records_lost_record(struct vorx_tmu *unit);
void vorx_put_softcfg_record(struct vorx_workspace *wsp);
void vorx_put_initial_thread_records(struct vorx_workspace *wsp);
void put_new_thread_record(struct vorx_workspace *wsp);
void put_old_thread_record(struct vorx_workspace *wsp);
void put_thread_name_record(struct vorx_workspace *wsp);
void put_module_info(struct vorx_tmu *unit, const char *name, vorx_address_t start, vorx_address_t end);
void put_module_map_record(struct vorx_tmu *unit, const void *payload, vorx_u32_t length);
void put_sample_record(struct vorx_tmu *unit, vorx_u32_t tid, vorx_u64_t timestamp, vorx_u64_t period,
                       vorx_u32_t last);

// The collector's capability mask for the configuration in force.
vorx_u64_t vorx_collector_capabilities(void);

#ifdef __cplusplus
}
#endif

#ifdef __cplusplus
extern "C" {
#endif
// Switches the collection between paused and resumed and records the change.
void vorx_set_profiling_state(void *wsp, vorx_u32_t state);
#ifdef __cplusplus
}
#endif
