// Subsystems whose work is not built yet are still entered from start-up
// through their own functions, so that the start-up order stays the one the
// collector needs. Each does nothing and succeeds until its subsystem arrives:
// JIT symbols, projection, handle tracking.
#include "runtime_entries.h"

extern "C" {

void vorx_init_jit_support(void) {}
void vorx_init_projection_manager(void) {}
void vorx_init_handles_db(void) {}
void vorx_init_runtime(void) {}

// The control service: started at the end of start-up and stopped on exit.
void vorx_start_notification_service(uint32_t, int) {}
void vorx_stop_notification_service(void) {}

}  // extern "C"
