/*
 * The communication library's own check. It sits below the collector's
 * logging, so a failure prints "<file>:<line> <function>: Assertion '<expr>'
 * failed.\n<remark>\n" to standard error and aborts.
 */
#ifndef COMM_ASSERT_H
#define COMM_ASSERT_H

#include "sal_assert.h"

SAL_DECLARE_ASSERT_ROUTINE(comm)
#define COMM_ASSERT(cond) SAL_ASSERT_WITH(comm_assert_fail, cond)
#define COMM_ASSERT_MSG(cond, ...) SAL_ASSERT_MSG_WITH(comm_assert_fail, cond, __VA_ARGS__)

#endif /* COMM_ASSERT_H */
