/* The system layer's assertion routine, shared by the libraries below the
 * logging layer (each defines its own prefix with SAL_DEFINE_ASSERT_ROUTINE). */
#include <stdio.h>
#include <stdlib.h>
#include <unistd.h>

#include "sal_assert.h"

unsigned sal_assert_format(char *out, unsigned size, const char *file, unsigned line,
                           const char *function, const char *expression, const char *format,
                           va_list args)
{
    char remark[SAL_ASSERT_TEXT_SIZE];
    remark[0] = '\0';
    if (format != NULL)
        vsnprintf(remark, sizeof(remark), format, args);
    int length = snprintf(out, size, "%s:%u %s: Assertion '%s' failed.\n%s\n",
                          file ? file : "", line, function ? function : "",
                          expression ? expression : "", remark);
    if (length < 0)
        length = 0;
    if ((unsigned)length >= size)
        length = (int)size - 1;
    return (unsigned)length;
}

void sal_assert_fail_v(const char *file, unsigned line, const char *function,
                       const char *expression, const char *format, va_list args)
{
    char text[SAL_ASSERT_TEXT_SIZE];
    unsigned length = sal_assert_format(text, sizeof(text), file, line, function, expression,
                                        format, args);
    /* One write, no stdio: the heap or stdio locks may be what broke. */
    ssize_t ignored = write(STDERR_FILENO, text, length);
    (void)ignored;
    abort();
}

void sal_assert_fail(const char *file, unsigned line, const char *function,
                     const char *expression, const char *format, ...)
{
    va_list args;
    va_start(args, format);
    sal_assert_fail_v(file, line, function, expression, format, args);
}
