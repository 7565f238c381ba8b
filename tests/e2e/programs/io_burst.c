/* Many small writes to /dev/null, each one an I/O record: enough records to fill a small results
 * filesystem. Prints the bytes written and exits with the status given (to tell it from the collector's). */
#include <fcntl.h>
#include <stdio.h>
#include <stdlib.h>
#include <unistd.h>

int main(int argc, char **argv)
{
  int writes = argc > 1 ? atoi(argv[1]) : 100000;
  int status = argc > 2 ? atoi(argv[2]) : 0;
  int fd = open("/dev/null", O_WRONLY);
  long written = 0;
  for (int i = 0; i < writes; i++) written += write(fd, "x", 1);
  close(fd);
  printf("%ld bytes written\n", written);
  return status;
}
