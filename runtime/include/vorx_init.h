// Start-up of the collector: init types, the per-start record, the gates that
// open the runtime inside the application's own start-up, and trace file names.
#pragma once

#include <stdint.h>
#include <stddef.h>

#ifdef __cplusplus
extern "C" {
#endif

// How this process came under the collector. The values are part of the design;
// 0 is impossible.
typedef enum vorx_init_type {
  vorx_init_run = 1,
  vorx_init_attach = 2,
  vorx_init_reattach = 3,
  vorx_init_proc_ignored = 4,
  vorx_init_config_failed = 5,
  vorx_init_attach_failed = 6,
  vorx_init_eof
} vorx_init_type;

typedef enum vorx_pthr_lnk_to_exe {
  vorx_pthr_lnk_to_exe_unknown = 0,
  vorx_pthr_lnk_to_exe_linked = 1,
  vorx_pthr_lnk_to_exe_not_linked = 2,
} vorx_pthr_lnk_to_exe;

// Allocated once per start (first start and every reattach) and kept by the
// module-load and application-start callbacks for the life of the run.
typedef struct vorx_start_data {
  uint32_t init_type;
  void *global;  // global thread descriptor, locked until vorx_attach ends
  bool initial_pthread_load_event_on_attach;
} vorx_start_data;

// What has been seen of the process so far. Written by engine callbacks under
// the engine's client lock and by the gates, which run before other threads exist.
typedef struct vorx_instr_global {
  bool is_libc_so_loaded;
  bool is_libc_so_initialized;
  bool is_libpthread_so_loaded;
  bool is_libpthread_so_initialized;
  bool is_libdl_so_loaded;
  uint32_t exe_id;  // 0xFFFFFFFF when unknown or consumed
  bool is_exe_initialized;
  uint32_t exe_img;  // engine image handle, refreshed from exe_id
} vorx_instr_global;

extern vorx_instr_global g_instr_global;
extern volatile int g_vorx_is_rtl_initialized;
extern int g_pause_time;
extern uintptr_t g_vorx_entry_point_orig;

uint32_t vorx_calc_init_type(uint32_t requested);
uint32_t main_on_reattach(const char *server_name);
void main_on_reattach_callback(void *arg);

void vorx_create(void);
uint32_t vorx_init(const char *server_name, void **out_global);
void vorx_init_logging(void);
void vorx_abort(void *global);
void vorx_reset(void);
void vorx_attach(void *global);

void vorx_pause_for_debugger(void);  // sleeps g_pause_time seconds when set

#ifdef __cplusplus
}
#endif
