/* A library that the process test program loads with dlopen. */
#include <stdlib.h>
#include <string.h>

__attribute__((visibility("default"))) int plugin_sum(int n) {
  int* v = malloc(n * sizeof *v);
  int s = 0;
  for (int i = 0; i < n; ++i) v[i] = i;
  for (int i = 0; i < n; ++i) s += v[i];
  free(v);
  return s;
}
