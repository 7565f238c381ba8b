// Subsystems whose work is not built yet are still entered from start-up
// through their own functions, so that the start-up order stays the one the
// collector needs. Each does nothing and succeeds until its subsystem arrives:
// signal handling and CPU sampling, JIT symbols, projection, handle tracking.
#include "runtime_entries.h"

extern "C" {

void vorx_init_signal_manager(void) {}
vorx_er_t vorx_init_cpu_profiling(int) { return vorx_er_success; }
void vorx_stop_cpu_profiling(void) {}
void vorx_set_ctrl_c_handler(int) {}
void vorx_init_crash_signal_handler(void) {}
void vorx_fini_crash_signal_handler(void) {}
void vorx_init_cancel_signal_handler(void) {}
void vorx_fini_cancel_signal_handler(void) {}


void vorx_init_jit_support(void) {}
void vorx_init_projection_manager(void) {}
void vorx_init_handles_db(void) {}
void vorx_init_stack_walk(void) {}
void vorx_init_runtime(void) {}

// The control service: started at the end of start-up and stopped on exit.
void vorx_start_notification_service(uint32_t, int) {}
void vorx_stop_notification_service(void) {}

// Until the signal manager exists no collector signal interrupts a call, and
// the profiling signal is never armed.
struct vorx_signal_descr;
int vorx_signal_internal_arrived(struct vorx_signal_descr *) { return 0; }
void vorx_signal_clear_internal_arrived(struct vorx_signal_descr *) {}
void vorx_block_profiling_signal(void) {}
void vorx_unblock_profiling_signal(void) {}

}  // extern "C"
