/* Annotated task begin/end pairs and nothing else: run_bench.sh divides the collector's CPU time over them
 * by the records they make (two a pair). The count comes as the only argument; 0 is start-up and end alone. */
#include <ozknotify.h>
#include <stdlib.h>

int main(int argc, char **argv) {
  long pairs = argc > 1 ? atol(argv[1]) : 1000000;
  ozk_domain *domain = __ozk_domain_create("bench");
  ozk_string_handle *name = __ozk_string_handle_create("task");
  for (long i = 0; i < pairs; ++i) {
    __ozk_task_begin(domain, ozk_null_id(), ozk_null_id(), name);
    __ozk_task_end(domain);
  }
  return 0;
}
