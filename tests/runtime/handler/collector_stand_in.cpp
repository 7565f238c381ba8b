// What the probe table's wrappers reach outside the pieces under test: the runtime is never opened
// here, so no wrapper runs; these only let the table link.
#include <errno.h>

struct vorx_signal_descr;
extern "C" {
volatile int g_vorx_is_rtl_initialized = 0;
int* applibc___errno_location(void) { return &errno; }
int vorx_signal_internal_arrived(struct vorx_signal_descr*) { return 0; }
void vorx_signal_clear_internal_arrived(struct vorx_signal_descr*) {}
void vorx_incomplete_wait_cleanup_handler(void*) {}
void vorx_detach_runtime(void) {}
void vorx_stop_notification_service(void) {}
void vorx_block_profiling_signal(void) {}
void vorx_unblock_profiling_signal(void) {}
const char* vorx_env_getenv(const char*) { return nullptr; }
}

// The workspace's descriptor vector grows as the workspace itself grows it.
#include <stdlib.h>
#include "workspace.h"
extern "C" void vorx_fd_vector_realloc(vorx_fd_vector* v, vorx_u32_t new_size) {
  void* grown = realloc(v->entries, new_size * sizeof(vorx_u32_t));
  if (!grown) return;
  v->entries = static_cast<vorx_u32_t*>(grown);
  v->capacity = new_size;
}
