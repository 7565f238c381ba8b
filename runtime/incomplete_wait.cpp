// A thread cancelled inside a blocking call never returns to its wrapper: the
// cleanup handler that the wrapper pushed before the call closes the wait, so
// the record of that wait is not lost.
#include "workspace.h"

extern "C" void vorx_flush_incomplete_wait(vorx_workspace *wsp) __attribute__((weak));

extern "C" void vorx_incomplete_wait_cleanup_handler(void *wsp) {
  if (wsp && vorx_flush_incomplete_wait) vorx_flush_incomplete_wait(static_cast<vorx_workspace *>(wsp));
}
