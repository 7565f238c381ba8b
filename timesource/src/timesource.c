/* The table of the current time source and the choice between the sources. */
#include "vorx_timesource.h"

#include "timesource_assert.h"

#include "sal.h"

#include <dirent.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>

void vorx_ts_assert_fail(const char *file, unsigned line, const char *func, const char *expr)
{
  fprintf(stderr, "%s:%u %s: Assertion '%s' failed.\n%s\n", file, line, func, expr, "");
  abort();
}

/* ------------------------------------------------------------------ TSC source */

static vorx_u32_t tsc_type(void) { return vorx_timesource_tsc; }

static vorx_u64_t tsc_frequency(void)
{
  vorx_u64_t hz = 0;
  int res = sal_cpu_frequency(&hz);
  VORX_TS_ASSERT(res);
  return hz;
}

static int tsc_reference(vorx_u64_t *count, vorx_u64_t *wall_clock)
{
  vorx_u64_t c = vorx_get_count_tsc();
  vorx_u64_t w = vorx_get_timeofday();
  if (count) *count = c;
  if (wall_clock) *wall_clock = w;
  return 1;
}

static const vorx_timesource_table_t g_tsc_table = {tsc_type, tsc_frequency, vorx_get_count_tsc, tsc_reference};

/* ------------------------------------------------------------------ system clock source */

static vorx_u32_t system_type(void) { return vorx_timesource_system; }

static vorx_u64_t system_frequency(void)
{
  vorx_u64_t res = sal_system_time_freq();
  VORX_TS_ASSERT(res);
  return res;
}

static int system_reference(vorx_u64_t *count, vorx_u64_t *wall_clock)
{
  vorx_u64_t c = sal_system_time();
  vorx_u64_t w = vorx_get_timeofday();
  if (count) *count = c;
  if (wall_clock) *wall_clock = w;
  return 1;
}

static const vorx_timesource_table_t g_system_table = {system_type, system_frequency, sal_system_time, system_reference};

/* ------------------------------------------------------------------ the current source */

/* Written by vorx_timesource_init/fini at start-up and end only. */
static const vorx_timesource_table_t *g_vorx_timesource;

const vorx_timesource_table_t *vorx_timesource(void) { return g_vorx_timesource; }

int vorx_ts_init_tsc(void) { return 1; }
void vorx_ts_fini_tsc(void) {}

int vorx_timesource_init(vorx_u32_t type)
{
  switch (type) {
  case vorx_timesource_tsc:
    vorx_ts_init_tsc();
    g_vorx_timesource = &g_tsc_table;
    return 1;
  case vorx_timesource_system:
    g_vorx_timesource = &g_system_table;
    return 1;
  default:
    return 0;
  }
}

void vorx_timesource_fini(void)
{
  if (!g_vorx_timesource) return;
  vorx_u32_t type = g_vorx_timesource->type();
  if (type == vorx_timesource_tsc) vorx_ts_fini_tsc();
  else if (type != vorx_timesource_system) vorx_ts_assert_fail(__FILE__, __LINE__, __func__, "Invalid timesource type");
  g_vorx_timesource = NULL;
}

/* ------------------------------------------------------------------ selection */

vorx_u32_t vorx_timesource_select(vorx_u32_t family, vorx_u32_t model, const char *node_dir)
{
  /* Two processor models settle it whatever the machine's nodes. */
  if (family == 6 && model == 0x57) return vorx_timesource_tsc;
  if (family == 6 && model == 0x2D) return vorx_timesource_system;
  DIR *dir = opendir(node_dir);
  if (!dir) return vorx_timesource_tsc;
  /* More than one memory node: counters of different sockets may disagree. */
  unsigned nodes = 0;
  vorx_u32_t type = vorx_timesource_tsc;
  for (struct dirent *e; (e = readdir(dir)) != NULL;) {
    if (strncmp(e->d_name, "node", 4) == 0 && ++nodes == 2) {
      type = vorx_timesource_system;
      break;
    }
  }
  closedir(dir);
  return type;
}

vorx_u32_t vorx_timesource_auto_select(void)
{
  vorx_u32_t signature[3] = {0, 0, 0};
  vorx_address_t max_address = 0;
  vorx_u32_t address_bits = 0, cpu_count = 0;
  sal_cpu_topology *topology = NULL;
  sal_allocator alloc = SAL_ALLOCATOR_INITIALIZER(sal_allocator_type_heap);
  if (!sal_get_cpu_info(signature, &max_address, &address_bits, &cpu_count, &topology, &alloc))
    signature[0] = signature[1] = 0;
  sal_allocator_destroy(&alloc);
  return vorx_timesource_select(signature[0], signature[1], "/sys/devices/system/node");
}
