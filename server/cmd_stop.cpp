// vorx stop -p PID: ends the collection in a running process; the process
// itself goes on, free of probes.
#include "run/control.hpp"
#include "vorx.h"

int command_stop(int argc, char **argv) {
  return vorx::server::run_control_command(
      argc, argv, "stop", "End the collection in a running process; the process goes on.", "stop");
}
