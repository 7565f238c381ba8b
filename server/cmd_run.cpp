// vorx run [options] -- <program> [arguments]
//
// Starts the run-tool server as vorx_server.<pid>, launches the program under
// the engine with the collector, serves every process of the collection and
// ends with the program's exit status once the collection is over.
#include <unistd.h>

#include <CLI/CLI.hpp>
#include <iostream>

#include "run/launch.hpp"
#include "run/manifest.hpp"
#include "run/options.hpp"
#include "run/run_server.hpp"
#include "run/supervisor.hpp"
#include "vorx.h"

using namespace vorx::server;

namespace {

constexpr int kUsageError = 2;
constexpr int kCannotExecute = 126;
constexpr int kCannotStart = 127;

int fail(const std::string &reason, int status) {
  std::cerr << "vorx run: " << reason << std::endl;
  return status;
}

// The last words of a run: what was collected and where it is.
void summarize(const RunRecord &record) {
  size_t collected = 0;
  bool root_asked = false;
  for (const ProcessInfo &p : record.processes) {
    collected += p.ready ? 1 : 0;
    root_asked = root_asked || (p.pid == record.root_pid && p.configs > 0);
  }
  if (!root_asked)
    std::cerr << "vorx: warning: the program never asked for its configuration, so nothing was "
                 "collected; check that the engine and the collector library load"
              << std::endl;
  // Lost records take the place of "0 errors": what went wrong is what the user must see.
  std::uint64_t lost = record.records_lost();
  std::string problems;
  if (record.errors || !lost) problems = std::to_string(record.errors) + (record.errors == 1 ? " error" : " errors");
  if (lost)
    problems += (problems.empty() ? "" : ", ") + std::to_string(lost) + (lost == 1 ? " record lost" : " records lost");
  std::cerr << "vorx: " << collected << (collected == 1 ? " process" : " processes") << " collected, " << problems
            << "; results in "
            << record.results_dir << " (read them with: vorx report " << record.results_dir << ")"
            << std::endl;
}

}  // namespace

int command_run(int argc, char **argv) {
  CLI::App app{"Run a program and collect its profile and trace.", "vorx run"};
  app.footer("The program and its arguments follow the options, after \"--\" when they could be\n"
             "taken for options of vorx.\n"
             "Example: vorx run -c cpu,threading -i 5 -- ./app --its-own-option\n");
  RunOptions options;
  add_run_options(app, options);
  app.prefix_command();
  try {
    app.parse(argc, argv);
  } catch (const CLI::ParseError &e) {
    return app.exit(e) == 0 ? 0 : 2;  // 2: the usage was wrong
  }
  // The first word that is not an option of ours starts the program's
  // command line; "--" may mark it.
  std::vector<std::string> rest = app.remaining();
  if (!rest.empty() && rest.front() == "--") rest.erase(rest.begin());
  options.command = std::move(rest);
  if (std::string reason = check_run_options(options); !reason.empty()) return fail(reason, kUsageError);

  std::string error;
  std::string program = find_program(options.command.front(), error);
  if (program.empty()) return fail(error, kCannotStart);
  if (std::string reason = foreign_program_reason(program); !reason.empty())
    return fail(reason, kCannotExecute);
  std::string engine = locate_engine(options.engine, error);
  if (engine.empty()) return fail(error, kCannotStart);
  std::string tool = locate_tool(options.tool, error);
  if (tool.empty()) return fail(error, kCannotStart);
  std::string results = make_results_dir(options.result_dir, error);
  if (results.empty()) return fail(error, kCannotStart);

  ProcessTable processes;
  ReportSink reports;
  RunServer server(make_base_configuration(options, results), processes, reports);
  if (!server.start((uint32_t)getpid(), error)) return fail(error, kCannotStart);

  Supervisor::prepare();
  RunRecord record;
  record.command = options.command;
  record.options = describe_run_options(options);
  record.server_name = server.name();
  record.results_dir = results;
  record.started = Clock::now();

  std::vector<std::string> program_argv = options.command;
  program_argv.front() = program;
  auto root = spawn(engine_command(engine, tool, server.name(), program_argv), error);
  if (!root) {
    server.stop();
    return fail(error, kCannotStart);
  }
  server.set_root_pid(*root);
  processes.on_new(*root, getpid());
  record.root_pid = *root;

  int status = Supervisor(processes, reports, [&server] { return server.drained(); }).wait_for(*root);
  server.stop();

  record.finished = Clock::now();
  record.exit_status = shell_status(status);
  record.processes = processes.snapshot();
  record.errors = reports.count("error");
  record.warnings = reports.count("warning");
  if (!write_manifest(record, error)) std::cerr << "vorx run: " << error << std::endl;
  summarize(record);
  return record.exit_status;
}
