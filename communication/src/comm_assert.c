#include "comm_assert.h"

SAL_DEFINE_ASSERT_ROUTINE(comm)
