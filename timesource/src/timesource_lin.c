/* Clocks of Linux: wall clock, time stamp counter, and the reference point that ties them to
 * the system clock. */
#include "vorx_timesource.h"

#include "timesource_assert.h"

#include "sal.h"

#include <sys/time.h>

vorx_u64_t vorx_get_timeofday(void)
{
  struct timeval tv;
  int rc = gettimeofday(&tv, NULL);
  VORX_TS_ASSERT(rc == 0);
  VORX_TS_ASSERT(tv.tv_sec > 0);
  return ((vorx_u64_t)tv.tv_sec * 1000000u + (vorx_u64_t)tv.tv_usec) * 10u;
}

vorx_u64_t vorx_get_count_tsc(void) { return sal_timestamp(); }

vorx_u64_t vorx_get_reference_point(vorx_reference_point_t *out, vorx_u64_t max_error_us)
{
  if (!out) return 0;
  vorx_u64_t sys_freq = sal_system_time_freq();
  VORX_TS_ASSERT(sys_freq != 0);
  vorx_u64_t bound = max_error_us * sys_freq / 1000000u;
  vorx_u64_t best_err = ~(vorx_u64_t)0, best_count = 0, best_sys = 0, best_wall = 0, rate = 0;

  for (vorx_u8_t round = 0; round < 25; round++) {
    vorx_u64_t w0 = vorx_get_timeofday(), s0 = sal_system_time(), c0 = vorx_get_count_tsc();
    vorx_u64_t w = w0, c = c0, s = s0, s_prev = s0, step = 0, last_step = 0;
    /* Spin until the wall clock ticks; the tick lies between the last two reads. */
    while (w == w0) {
      s_prev = s;
      last_step = step;
      w = vorx_get_timeofday();
      c = vorx_get_count_tsc();
      s = sal_system_time();
      step = s - s_prev;
    }
    if (s != s0) rate = (c - c0) * sys_freq / (s - s0);
    vorx_u64_t err = last_step + (s - s_prev);
    if (err < best_err) {
      best_err = err;
      best_count = c;
      best_sys = s;
      best_wall = w;
    }
    if (best_err <= bound * 2) break;
  }

  vorx_u64_t cpu_hz = 0;
  sal_cpu_frequency(&cpu_hz);
  out->wall_clock = best_wall;
  out->sources[0].tag = 1;
  out->sources[0].count = best_count;
  out->sources[0].frequency = cpu_hz > rate ? cpu_hz : rate;
  out->sources[1].tag = 2;
  out->sources[1].count = best_sys - best_err / 2;
  out->sources[1].frequency = sys_freq;
  return best_err * 1000000u / sys_freq;
}
