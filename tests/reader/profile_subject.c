/* A program with known functions and lines for the reader's symbolisation tests. Run, it prints where
 * its code is mapped and the addresses a sample of it would hold: an instruction of subject_leaf and
 * the return addresses into subject_middle and subject_outer. The test finds the lines of the functions
 * by their "line:" marks. */
#include <stdio.h>
#include <string.h>
#include <unistd.h>

static void *g_returns[2];

__attribute__((noinline)) int subject_leaf(int x) { /* line:subject_leaf */
  g_returns[0] = __builtin_return_address(0);
  return x * 3 + 1;
}

__attribute__((noinline)) int subject_middle(int x) { /* line:subject_middle */
  g_returns[1] = __builtin_return_address(0);
  return subject_leaf(x) + 2;
}

__attribute__((noinline)) int subject_outer(int x) { /* line:subject_outer */
  return subject_middle(x) * 2;
}

/* The executable mappings of this program's file, joined as the collector's module map joins them. */
static void print_code_range(void)
{
  char self[4096], line[4096 + 128];
  ssize_t n = readlink("/proc/self/exe", self, sizeof self - 1);
  self[n > 0 ? n : 0] = 0;
  FILE *maps = fopen("/proc/self/maps", "r");
  unsigned long low = 0, high = 0;
  while (maps && fgets(line, sizeof line, maps)) {
    unsigned long a, b;
    char mode[8], path[4096] = "";
    if (sscanf(line, "%lx-%lx %7s %*s %*s %*s %4095s", &a, &b, mode, path) < 3) continue;
    if (mode[2] != 'x' || strcmp(path, self) != 0) continue;
    if (!low) low = a;
    high = b;
  }
  if (maps) fclose(maps);
  printf("path %s\nrange %lx %lx\n", self, low, high);
}

int main(int argc, char **argv)
{
  (void)argv;
  int r = subject_outer(argc);
  print_code_range();
  printf("leaf %lx\nreturn_middle %lx\nreturn_outer %lx\n", (unsigned long)(subject_leaf) + 4,
         (unsigned long)g_returns[0], (unsigned long)g_returns[1]);
  return r == 0;
}
