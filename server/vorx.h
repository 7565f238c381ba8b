// The vorx program: one entry point per subcommand, each in a file of its own.
#pragma once

// `vorx run [options] -- <program> [args]`: runs a program under the collector.
int command_run(int argc, char **argv);
// `vorx report <dir> ...`: reads a results directory (the reader library).
int command_report_dispatch(int argc, char **argv);
// `vorx pause|resume|stop -p PID`: the control thread of a process under the collector.
int command_pause(int argc, char **argv);
int command_resume(int argc, char **argv);
int command_stop(int argc, char **argv);

namespace vorx {
inline constexpr const char *kProgramName = "vorx";
const char *version();
}  // namespace vorx
