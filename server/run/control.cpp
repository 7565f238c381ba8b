#include "control.hpp"

#include <CLI/CLI.hpp>
#include <iostream>

#include "sal_allocator.h"
#include "vorx_comm.h"

namespace vorx::server {

ControlResult send_control_command(pid_t pid, const std::string &command, std::string *response) {
  sal_allocator allocator;
  sal_allocator_init(&allocator, sal_allocator_type_heap, 1u << 20);
  char *text = nullptr;
  comm_init();
  bool sent = comm_control_command_send((uint32_t)pid, kControlDomain, command.c_str(), &text, &allocator);
  comm_fini();
  ControlResult result = ControlResult::unreachable;
  if (sent) {
    if (response) *response = text;
    result = comm_control_response_is_positive(text) ? ControlResult::done : ControlResult::refused;
  }
  sal_allocator_destroy(&allocator);
  return result;
}

int run_control_command(int argc, char **argv, const char *name, const char *summary,
                        const std::string &command) {
  CLI::App app{summary, std::string("vorx ") + name};
  pid_t pid = 0;
  app.add_option("-p,--pid", pid, "The process, running under vorx run")->required()->check(CLI::PositiveNumber);
  try {
    app.parse(argc, argv);
  } catch (const CLI::ParseError &e) {
    return app.exit(e) == 0 ? 0 : 2;
  }
  switch (send_control_command(pid, command)) {
    case ControlResult::done:
      return 0;
    case ControlResult::refused:
      std::cerr << "vorx " << name << ": process " << pid << " refused '" << command << "'" << std::endl;
      return 1;
    case ControlResult::unreachable:
      break;
  }
  std::cerr << "vorx " << name << ": process " << pid
            << " cannot be reached; is it running under vorx run, and still collecting?" << std::endl;
  return 3;
}

}  // namespace vorx::server
