// How an application thread becomes known to the collector: the work of the
// pthread_create wrapper in the creating thread, the first code of the new
// thread, registration, and the simulated start of threads registered late.
#pragma once

#include <stdint.h>

#include "vorx_types.h"
#include "workspace.h"

#ifdef __cplusplus
extern "C" {
#endif

// The handle of a thread is its kernel tid.
vorx_u32_t vorx_get_thread_handle(vorx_u32_t tid);
void vorx_put_thread_handle(vorx_u32_t handle);

// The collector's own threads are never registered.
bool vorx_is_internal_thread(vorx_u32_t handle);

// Registers a thread with the manager; internal threads get thread_not_found.
vorx_u32_t vorx_register_thread(vorx_registration_data *reg);

// Gives a thread registered after its start the start records it never had.
void vorx_simulate_thread_start_routine_wrapper_pre(vorx_workspace *wsp, uintptr_t start);

// First code of every thread created under the collector; `record` is the
// user-callback entry that holds the application's routine and argument.
void *vorx_thread_start_routine_wrapper(void *record);

#ifdef __cplusplus
}
#endif
