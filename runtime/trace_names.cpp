// Trace and log file names of a process and its threads.
#include "trace_names.h"

#include <stdio.h>

#include "vorx_config.h"
#include "vorx_log.h"

namespace {

constexpr vorx_size_t kNameCapacity = 4096;
constexpr vorx_size_t kNoIndex = static_cast<vorx_size_t>(-1);

// Written by the first thread that names a file (the gate, before other threads
// exist) and reset by an abort or a fork; read by everyone after.
vorx_size_t g__data_dir_proc_idx = kNoIndex;

bool format_process_name(char *buffer, vorx_size_t index, const char *ext) {
  int n = snprintf(buffer, kNameCapacity, "%s%u-%u.%lu.%s", vorx_trace_data_dir(), sal_parent_process_id(),
                   sal_process_id(), static_cast<unsigned long>(index), ext);
  return n > 0 && static_cast<vorx_size_t>(n) < kNameCapacity;
}

// The lowest index from 0 whose file with extension `ext` does not exist.
vorx_size_t first_free_process_index(char *buffer, const char *ext) {
  vorx_size_t index = 0;
  while (format_process_name(buffer, index, ext) && sal_file_exists(buffer)) ++index;
  return index;
}

}  // namespace

extern "C" const char *vorx_trace_data_dir(void) {
  const vorx_configuration *conf = g_vorx_conf;
  return conf && conf->data_dir ? conf->data_dir : "";
}

extern "C" void vorx_reset_process_trace_counter(void) { g__data_dir_proc_idx = kNoIndex; }

extern "C" vorx_er_t vorx_generate_process_trace_filename(const char *ext, const char *master_ext,
                                                          sal_allocator *allocator, char **out_name) {
  char *buffer = static_cast<char *>(allocator->vtbl->mem_alloc(allocator, kNameCapacity));
  if (!buffer) return vorx_er_general_failure;
  if (g__data_dir_proc_idx == kNoIndex) g__data_dir_proc_idx = first_free_process_index(buffer, master_ext);
  // The index was chosen on the master extension; the requested one must be
  // free at that index too, or two processes would share a file.
  vorx_size_t cur_count = g__data_dir_proc_idx;
  if (!format_process_name(buffer, cur_count, ext)) return vorx_er_general_failure;
  vorx_size_t new_count = sal_file_exists(buffer) ? cur_count + 1 : cur_count;
  VORX_ASSERT(new_count == cur_count);
  *out_name = buffer;
  return vorx_er_success;
}

extern "C" vorx_er_t vorx_generate_thread_trace_filename(const char *ext, vorx_u32_t thread_id,
                                                         sal_allocator *allocator, char **out_name) {
  VORX_ASSERT(g__data_dir_proc_idx != kNoIndex);
  char *buffer = static_cast<char *>(allocator->vtbl->mem_alloc(allocator, kNameCapacity));
  if (!buffer) return vorx_er_general_failure;
  for (unsigned long counter = 0;; ++counter) {
    int n = snprintf(buffer, kNameCapacity, "%s%u-%u.%lu-%u.%lu.%s", vorx_trace_data_dir(), sal_parent_process_id(),
                     sal_process_id(), static_cast<unsigned long>(g__data_dir_proc_idx), thread_id, counter, ext);
    if (n <= 0 || static_cast<vorx_size_t>(n) >= kNameCapacity) return vorx_er_general_failure;
    if (!sal_file_exists(buffer)) break;
  }
  *out_name = buffer;
  return vorx_er_success;
}
