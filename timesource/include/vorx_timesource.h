/* The time source of every time stamp in a trace: the processor's time stamp counter or the
 * system clock, chosen once per process. Hot paths call `vorx_timesource()->now()`: one load
 * and an indirect call, with no branch on the type. */
#ifndef VORX_TIMESOURCE_H
#define VORX_TIMESOURCE_H

#include "vorx_types.h"

#ifdef __cplusplus
extern "C" {
#endif

typedef enum vorx_timesource_type {
  vorx_timesource_none = 0,
  vorx_timesource_tsc = 1,
  vorx_timesource_system = 2,
  vorx_timesource_eof
} vorx_timesource_type_t;

/* Four operations, in this order. */
typedef struct vorx_timesource_table {
  vorx_u32_t (*type)(void);
  vorx_u64_t (*frequency)(void); /* counts a second */
  vorx_u64_t (*now)(void);       /* the current count */
  /* The count and the wall clock (100 ns units) at one instant; either pointer may be null.
   * Returns 1. */
  int (*reference)(vorx_u64_t *count, vorx_u64_t *wall_clock);
} vorx_timesource_table_t;

/* Written once at start-up, before any thread writes a record; read without locks. */
const vorx_timesource_table_t *vorx_timesource(void);

vorx_u32_t vorx_timesource_auto_select(void);
/* The selection rule on given inputs: CPU family and model, and the directory that lists the
 * machine's memory nodes. */
vorx_u32_t vorx_timesource_select(vorx_u32_t family, vorx_u32_t model, const char *node_dir);
/* Returns 1, or 0 for an unknown type (the table is then left as it was). */
int vorx_timesource_init(vorx_u32_t type);
void vorx_timesource_fini(void);

int vorx_ts_init_tsc(void);
void vorx_ts_fini_tsc(void);

/* The wall clock as 100-nanosecond units since 1970. */
vorx_u64_t vorx_get_timeofday(void);
vorx_u64_t vorx_get_count_tsc(void);

/* A reference point ties the wall clock, the counter and the system clock to one instant.
 * Its two sources are the 17-byte entries of a reference point record. */
typedef struct __attribute__((packed)) vorx_reference_source {
  vorx_u8_t tag; /* 1: counter, 2: system clock */
  vorx_u64_t count;
  vorx_u64_t frequency;
} vorx_reference_source_t;

typedef struct __attribute__((packed)) vorx_reference_point {
  vorx_u64_t wall_clock;
  vorx_reference_source_t sources[2];
} vorx_reference_point_t;

/* Fills out within max_error_us if it can (25 rounds at most); returns the error reached in
 * microseconds, or 0 for a null out (no clock is read then). */
vorx_u64_t vorx_get_reference_point(vorx_reference_point_t *out, vorx_u64_t max_error_us);

#ifdef __cplusplus
}
#endif
#endif
