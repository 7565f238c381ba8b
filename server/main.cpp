// vorx: the command-line program of the collector.
//
//   vorx run [options] -- <program> [arguments]
//   vorx report <dir> [options]
//   vorx pause|resume|stop -p <pid>
#include <CLI/CLI.hpp>
#include <cstring>
#include <iostream>

#include "vorx.h"

#ifndef VORX_VERSION
#define VORX_VERSION "0.0.0"
#endif

const char *vorx::version() { return VORX_VERSION; }

namespace {

struct Subcommand {
  const char *name;
  const char *summary;
  int (*entry)(int, char **);
};

constexpr Subcommand kSubcommands[] = {
    {"run", "Run a program and collect its profile and trace", command_run},
    {"report", "Read the results of a run", command_report_dispatch},
    {"pause", "Pause the collection in a running process", command_pause},
    {"resume", "Resume the collection in a running process", command_resume},
    {"stop", "End the collection in a running process", command_stop},
};

}  // namespace

int main(int argc, char **argv) {
  // A subcommand parses its own options, the program's included.
  if (argc >= 2)
    for (const Subcommand &sub : kSubcommands)
      if (std::strcmp(argv[1], sub.name) == 0) return sub.entry(argc - 1, argv + 1);

  if (argc >= 2 && argv[1][0] != '-') {
    std::cerr << "vorx: unknown command '" << argv[1] << "'; the commands are";
    for (const Subcommand &sub : kSubcommands) std::cerr << " " << sub.name;
    std::cerr << " (vorx --help tells more)" << std::endl;
    return 2;
  }

  CLI::App app{"vorx: profiles and traces a program from inside its own process.", "vorx"};
  app.set_version_flag("-V,--version", std::string("vorx ") + vorx::version());
  for (const Subcommand &sub : kSubcommands) app.add_subcommand(sub.name, sub.summary);
  app.footer("Run 'vorx <command> --help' for the options of a command.");
  try {
    app.parse(argc, argv);
  } catch (const CLI::ParseError &e) {
    return app.exit(e) == 0 ? 0 : 2;  // 2: the usage was wrong
  }
  // No command at all: say what there is.
  std::cout << app.help() << std::flush;
  return 2;
}
