// A tool for the real engine that does the collector's first and last words
// with the run-tool server, and nothing else: the server name arrives as the
// tool's "server_name" switch, the configuration is fetched and installed,
// "ready" and "end" are said, and the program runs untouched.
#include "kel.h"
#include "vorx_client.h"

KNOB<string> Knob_g_vorx_server_name(KNOB_MODE_WRITEONCE, "keltool", "server_name", "",
                                     "server ipc name");

int main(int argc, char **argv) {
  if (KEL_Init(argc, argv)) return 1;
  const string &name = Knob_g_vorx_server_name.Value();
  if (!name.empty() && vorx_init_configuration(name.c_str()) == vorx_er_success) {
    vorx_client_notify(g_vorx_client, vorx_command_ready);
    vorx_client_notify(g_vorx_client, vorx_command_end);
  }
  KEL_StartProgramProbed();
  return 1;
}
