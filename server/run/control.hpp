// Commands to the control thread of a process under the collector, at the
// abstract address /tmp/_server_vorx_ipc.<pid>.
#pragma once

#include <sys/types.h>

#include <string>

namespace vorx::server {

inline constexpr const char *kControlDomain = "vorx_ipc.";

enum class ControlResult { done, refused, unreachable };

// Sends command (with its NUL) and reads the response; the response text goes
// to response when given.
ControlResult send_control_command(pid_t pid, const std::string &command, std::string *response = nullptr);

// The entry of `vorx pause|resume|stop`: parses -p PID and sends command.
int run_control_command(int argc, char **argv, const char *name, const char *summary,
                        const std::string &command);

}  // namespace vorx::server
