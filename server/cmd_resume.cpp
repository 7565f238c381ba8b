// vorx resume -p PID: asks a process under the collector to resume its collection.
#include "run/control.hpp"
#include "vorx.h"

int command_resume(int argc, char **argv) {
  return vorx::server::run_control_command(argc, argv, "resume", "Resume the collection in a running process.",
                                           "state:Resume");
}
