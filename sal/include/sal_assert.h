/*
 * The small assertion routine of the libraries that sit below the collector's
 * own assertion machinery (system layer, trace format, trace unit, time
 * source). They cannot use the logging layer, which is built on them, so a
 * failed check prints one line to standard error and aborts:
 *
 *     "<file>:<line> <function>: Assertion '<expression>' failed.\n<remark>\n"
 *
 * The text is formatted into a 256-byte buffer on the stack and written with
 * one write(2): nothing is allocated, so the routine is usable from signal
 * handlers and while the heap is broken.
 *
 * Each library gets its own routine with its own prefix, so that a failure
 * names the library it came from in a debugger's backtrace:
 *
 *     // tf_assert.h
 *     SAL_DECLARE_ASSERT_ROUTINE(tf)
 *     #define TF_ASSERT(cond) SAL_ASSERT_WITH(tf_assert_fail, cond)
 *     #define TF_ASSERT_MSG(cond, ...) SAL_ASSERT_MSG_WITH(tf_assert_fail, cond, __VA_ARGS__)
 *     // tf_assert.c
 *     SAL_DEFINE_ASSERT_ROUTINE(tf)
 */
#ifndef SAL_ASSERT_H
#define SAL_ASSERT_H

#include <stdarg.h>

#ifdef __cplusplus
extern "C" {
#endif

#define SAL_ASSERT_TEXT_SIZE 256

/* Formats the failure text into out (at most size bytes, always terminated);
 * a null format gives an empty remark. Returns the text's length. */
unsigned sal_assert_format(char *out, unsigned size, const char *file, unsigned line,
                           const char *function, const char *expression,
                           const char *format, va_list args);

/* Prints the failure text to standard error and aborts. */
__attribute__((noreturn)) void sal_assert_fail_v(const char *file, unsigned line,
                                                 const char *function, const char *expression,
                                                 const char *format, va_list args);

/* The system layer's own routine. */
__attribute__((noreturn, format(printf, 5, 6))) void sal_assert_fail(
    const char *file, unsigned line, const char *function, const char *expression,
    const char *format, ...);

#define SAL_DECLARE_ASSERT_ROUTINE(prefix)                                                       \
    __attribute__((noreturn, format(printf, 5, 6))) void prefix##_assert_fail(                 \
        const char *file, unsigned line, const char *function, const char *expression,         \
        const char *format, ...);

#define SAL_DEFINE_ASSERT_ROUTINE(prefix)                                                        \
    void prefix##_assert_fail(const char *file, unsigned line, const char *function,            \
                              const char *expression, const char *format, ...)                 \
    {                                                                                           \
        va_list args;                                                                           \
        va_start(args, format);                                                                 \
        sal_assert_fail_v(file, line, function, expression, format, args);                     \
    }

/* The expression is stringified after macro expansion, as written in the
 * failure texts ("result == 0", "fd != -1"). */
#define SAL_ASSERT_STR_(x) #x
#define SAL_ASSERT_XSTR_(x) SAL_ASSERT_STR_(x)

#define SAL_ASSERT_WITH(routine, cond)                                                           \
    ((cond) ? (void)0 : routine(__FILE__, __LINE__, __func__, SAL_ASSERT_XSTR_(cond), "%s", ""))

#define SAL_ASSERT_MSG_WITH(routine, cond, ...)                                                  \
    ((cond) ? (void)0 : routine(__FILE__, __LINE__, __func__, SAL_ASSERT_XSTR_(cond), __VA_ARGS__))

#define SAL_ASSERT(cond) SAL_ASSERT_WITH(sal_assert_fail, cond)
#define SAL_ASSERT_MSG(cond, ...) SAL_ASSERT_MSG_WITH(sal_assert_fail, cond, __VA_ARGS__)

#ifdef __cplusplus
}
#endif

#endif /* SAL_ASSERT_H */
