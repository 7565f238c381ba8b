// vorx report <dir> ...: the reader, when it is built into this vorx.
#include <iostream>

#include "vorx.h"

#ifdef VORX_HAVE_READER
#include "vorx_report.h"
#endif

int command_report_dispatch(int argc, char **argv) {
#ifdef VORX_HAVE_READER
  return command_report(argc, argv);
#else
  (void)argc;
  (void)argv;
  std::cerr << "vorx report: this vorx was built without the reader (target vorx_reader)" << std::endl;
  return 2;
#endif
}
