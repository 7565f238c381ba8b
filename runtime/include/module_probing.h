// Module-load probing: what the collector does when the engine reports an
// image. The engine's callbacks themselves (vorx_on_module_loading,
// vorx_on_module_unloading, vorx_reset_instrumented_modules) are declared in
// engine_callbacks.h; this header holds what they keep and what they are made
// of, for the parts of the collector that read it and for tests.
#pragma once

#include <stddef.h>
#include <stdint.h>

#include "kel.h"
#include "module_map.h"

extern "C" {

// Where the collector's helper libraries lie, so that stack walks and the
// user-callback registry can tell them from application code. All zero while
// the library is absent.
extern vorx_range_t g_vorx_ozknotify_range;
extern vorx_range_t g_vorx_ozknotify_collector_range;
extern vorx_range_t g_vorx_vumat_range;

// Looks the image up by its base name (up to the second dot) in the module
// descriptors and probes every function of the matching descriptor that is
// active or employed. A name starting with "ld-linux" selects "ld-linux".
void vorx_probe_module_by_name(const char *name, size_t length, LEVEL_KELCLIENT::IMG img);

// Functions that a library hands over as pointers rather than symbols (rows of a ".unk" module). Take-over
// makes the pointer the row's original and answers what the library should call from now on: the row's
// wrapper when the function is instrumented, else the function itself; null when the module has no row for
// the id. Give-back answers the library's own function for a pointer that is the row's wrapper.
void *vorx_take_over_handed_function(unsigned id, const char *module, void *routine);
void *vorx_give_back_handed_function(unsigned id, const char *module, void *routine);

// Clears `original` in every row before the end row, so that probing after a
// reattach sees all of them unresolved (detach calls it once the probes are gone).
void vorx_forget_resolved_rows(void);

}  // extern "C"

// Run-time address of the last entry of the image's DT_INIT_ARRAY, or 0 when
// it has none. Works before and after the image is relocated.
LEVEL_BASE::ADDRINT vorx_image_last_init_array_entry(LEVEL_KELCLIENT::IMG img);

// The routine that stands for the image's initialisation as the platform runs
// it: DT_INIT ("_init") when the image has one, else the last DT_INIT_ARRAY
// entry (made a routine of its own when no symbol names it). Invalid when the
// image has neither.
LEVEL_KELCLIENT::RTN vorx_image_init_routine(LEVEL_KELCLIENT::IMG img);
