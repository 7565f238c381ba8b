/* The time source's own assertion routine: a message in the collector's form, then abort.
 * Nothing in the time source returns an error to a hot path. */
#ifndef VORX_TIMESOURCE_ASSERT_H
#define VORX_TIMESOURCE_ASSERT_H

void vorx_ts_assert_fail(const char *file, unsigned line, const char *func, const char *expr) __attribute__((noreturn));
#define VORX_TS_ASSERT(e) ((e) ? (void)0 : vorx_ts_assert_fail(__FILE__, __LINE__, __func__, #e))

#endif
