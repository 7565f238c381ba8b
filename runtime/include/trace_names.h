// Names of the files a process writes: "<data_dir><ppid>-<pid>.<idx>.<ext>" for
// the process and "<data_dir><ppid>-<pid>.<idx>-<tid>.<n>.<ext>" for a thread.
#pragma once

#include "sal.h"
#include "sal_allocator.h"
#include "vorx_types.h"

#ifdef __cplusplus
extern "C" {
#endif

// The name of a per-process file with extension `ext`. The first call in a
// process picks the index on `master_ext` (the lowest one whose file does not
// exist yet), so that the log and the trace of one process share it. The name
// is allocated (4096 bytes) from `allocator`. Returns vorx_er_success.
vorx_er_t vorx_generate_process_trace_filename(const char *ext, const char *master_ext, sal_allocator *allocator,
                                               char **out_name);

// The name of a per-thread file; the per-thread counter is the lowest free one.
vorx_er_t vorx_generate_thread_trace_filename(const char *ext, vorx_u32_t thread_id, sal_allocator *allocator,
                                              char **out_name);

// Forgets the chosen process index (after an abort or in a forked child).
void vorx_reset_process_trace_counter(void);

// Where the names go; the configuration's data directory unless a test sets it.
const char *vorx_trace_data_dir(void);

#ifdef __cplusplus
}
#endif
