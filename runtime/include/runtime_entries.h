// Entry points of the collector's subsystems that start-up calls. Each belongs
// to its own subsystem; those not built yet are placeholders in
// deferred_subsystems.cpp that do nothing and succeed.
#pragma once

#include <stdint.h>

#include "vorx_types.h"

#ifdef __cplusplus
extern "C" {
#endif

// Signals and sampling.
void vorx_init_signal_manager(void);
vorx_er_t vorx_init_cpu_profiling(int at_attach);
void vorx_stop_cpu_profiling(void);
void vorx_set_ctrl_c_handler(int mode);
void vorx_init_crash_signal_handler(void);
void vorx_fini_crash_signal_handler(void);
void vorx_init_cancel_signal_handler(void);
void vorx_fini_cancel_signal_handler(void);

// Detach and the control service.
void vorx_init_detach_complete(void);
void vorx_reset_detach_complete(void);

// Analyses that hang on the configuration.
void vorx_init_jit_support(void);
void vorx_init_projection_manager(void);
void vorx_init_handles_db(void);
void vorx_init_stacks_collection(void);
void vorx_init_threads_profiling(void);
void vorx_init_stack_walk(void);
void vorx_init_runtime(void);
void vorx_init_profiled_process_env(void);

#ifdef __cplusplus
}
#endif

#ifdef __cplusplus
extern "C" {
#endif
void vorx_unlink_callback_tables(void);
void vorx_start_notification_service(uint32_t init_type, int pause_seconds);
void vorx_stop_notification_service(void);
#ifdef __cplusplus
}
#endif
