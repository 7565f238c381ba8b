/* Internal to the trace management units: not for users of the library. */
#ifndef VORX_TMU_INTERNAL_H
#define VORX_TMU_INTERNAL_H

#include "vorx_tmu.h"

#include "sal_assert.h"

SAL_DECLARE_ASSERT_ROUTINE(vorx_tmu)
#define TMU_ASSERT(cond) SAL_ASSERT_WITH(vorx_tmu_assert_fail, cond)

/* Deflates one buffer through the process's pool and writes it as a compressed block. */
int vorx_tmu_write_compressed(vorx_tmu_t *tmu, const void *data, vorx_u32_t length);
/* The pool, or null when the process doesn't compress. */
int vorx_tmu_compression_enabled(void);

void vorx_tmu_sleep_poll(void);

#endif
