// The collector's check for test programs configured without the log library:
// print the expression and remark, then abort, so that death tests can match.
#include <stdarg.h>
#include <stdio.h>
#include <stdlib.h>

extern "C" void vorx_assert_raise_assert(const char* file, unsigned line, const char* function,
                                         const char* expression, const char* format, ...) {
  fprintf(stderr, "%s:%u %s: Assertion '%s' failed.\n", file, line, function, expression);
  if (format) {
    va_list args;
    va_start(args, format);
    vfprintf(stderr, format, args);
    va_end(args);
    fputc('\n', stderr);
  }
  abort();
}
