// vorx pause -p PID: asks a process under the collector to pause its collection.
#include "run/control.hpp"
#include "vorx.h"

int command_pause(int argc, char **argv) {
  return vorx::server::run_control_command(argc, argv, "pause", "Pause the collection in a running process.",
                                           "state:Pause");
}
