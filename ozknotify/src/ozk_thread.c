/*
 * Per-thread state of the library: nesting depths that keep begin/end pairs
 * honest when the program's calls are unbalanced, and the model's disable
 * stack. Plain thread-local storage; it needs no cleanup at thread end.
 */
#include "ozk_internal.h"

static __thread ozk_thread_state t_state;

ozk_thread_state *ozk_thread(void)
{
    return &t_state;
}
