/*
 * Per-thread state of the library: nesting depths that keep begin/end pairs
 * honest when the program's calls are unbalanced, and the model's disable
 * stack. Thread-local storage that needs no cleanup at thread end.
 */
#include "ozk_internal.h"

/* Initial-exec: one %gs-relative load instead of a __tls_get_addr call on
 * every begin and end. The block is a few dozen bytes, well inside the static
 * TLS reserve that also lets a dlopen()ed copy of the library load. */
static __thread ozk_thread_state t_state __attribute__((tls_model("initial-exec")));

ozk_thread_state *ozk_thread(void)
{
    return &t_state;
}
