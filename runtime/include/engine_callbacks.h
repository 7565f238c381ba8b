// The collector's functions that the engine calls back, and queries of the
// engine's view of the process that start-up keeps.
#pragma once

#include "kel.h"
#include "vorx_init.h"

// The executable's image; refreshed from its id when the handle went stale.
LEVEL_KELCLIENT::IMG vorx_exe_img();

extern "C" {
uint32_t vorx_pthread_linked_to_exe(void);

// Module loads and unloads (probing and the module map).
void vorx_on_module_loading(LEVEL_KELCLIENT::IMG img, void *data);
void vorx_on_module_unloading(LEVEL_KELCLIENT::IMG img, void *data);
void vorx_reset_instrumented_modules(void);

// Fork and exec.
void vorx_on_fork_before(LEVEL_BASE::UINT32 child_pid, void *arg);
void vorx_on_fork_after_in_parent(LEVEL_BASE::UINT32 child_pid, void *arg);
void vorx_on_fork_after_in_child(LEVEL_BASE::UINT32 child_pid, void *arg);
LEVEL_BASE::BOOL vorx_on_process_creation(LEVEL_KELCLIENT::CHILD_PROCESS child, void *arg);

// Attach and detach.
void vorx_on_app_start(void *data);
void vorx_threads_enum_on_attach_callback(void *sigmask, void *arg);
void vorx_threads_enum_on_detach_callback(void *arg);
void vorx_on_probes_removed(void *arg);
void vorx_abort_on_improperly_linked_exe(vorx_start_data *data);

// The end of a collection: every thread, then the process.
void vorx_detach_runtime(void);
void vorx_remove_probes(void);
uint32_t vorx_detach(void *global);
void vorx_signal_detach_complete(void);

// The gates: each stands in for a module's initialisation routine.
typedef void (*vorx_init_routine)(int argc, char **argv, char **envp);
void vorx_libc_init(int argc, char **argv, char **envp, vorx_init_routine original, vorx_start_data *data);
void vorx_libpthread_init(int argc, char **argv, char **envp, vorx_init_routine original, vorx_start_data *data);
void vorx_libpthread_fini(vorx_init_routine original);
void vorx_exe_init(int argc, char **argv, char **envp, vorx_init_routine original, vorx_start_data *data);
}
