// The directory of callback tables: each collection that records events links
// its table of pre and post callbacks here, indexed by (id * 2 + state) * 2 + order.
// Wrappers and the thread start walk it; until event tables are linked it is empty.
#include <stdint.h>

#include "runtime_entries.h"
#include "vorx_probe_params.h"

namespace {

typedef void (*vorx_callback_t)(void *wsp, vorx_probe_data_t *data);

struct callback_table {
  const vorx_callback_t *entries;
  callback_table *next;
};

// Linked at init (before the runtime opens) and unlinked at detach or abort;
// walked without locks by application threads in between.
callback_table *g_vorx_callbacks_dir = nullptr;

}  // namespace

extern "C" void vorx_run_directory_callbacks(uint32_t index, void *wsp, vorx_probe_data_t *data) {
  for (callback_table *table = g_vorx_callbacks_dir; table; table = table->next)
    if (vorx_callback_t callback = table->entries[index]) callback(wsp, data);
}

extern "C" void vorx_unlink_callback_tables(void) { g_vorx_callbacks_dir = nullptr; }

extern "C" void vorx_init_stacks_collection(void) {}
extern "C" void vorx_init_threads_profiling(void) {}
