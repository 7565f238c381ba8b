/* Exits with the status given as its argument, after a line of output. */
#include <stdio.h>
#include <stdlib.h>

int main(int argc, char **argv) {
  puts("exiting");
  return argc > 1 ? atoi(argv[1]) : 0;
}
