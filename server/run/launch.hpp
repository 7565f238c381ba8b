// Finding what a run needs and starting the program under the engine.
#pragma once

#include <sys/types.h>

#include <optional>
#include <string>
#include <vector>

namespace vorx::server {

// A directory for results, absolute and ending with '/'. With requested
// empty, the first free ./vorx-results-NNN/ is made; otherwise requested is
// made if missing (parents included). Empty with a reason in error.
std::string make_results_dir(const std::string &requested, std::string &error);

// The path of a program as execvp would find it; empty with a reason.
std::string find_program(const std::string &name, std::string &error);

// A reason when path is an ELF program of another machine than the one the
// collector lives in (32-bit x86); empty for such programs and for scripts.
std::string foreign_program_reason(const std::string &path);

// The directory of the running vorx executable.
std::string own_directory();

// The engine and collector next to vorx: <bindir>/kel and
// <bindir>/../lib/libvorxtool.so, unless given. Empty with a reason.
std::string locate_engine(const std::string &given, std::string &error);
std::string locate_tool(const std::string &given, std::string &error);

// The command line that starts the program under the engine.
std::vector<std::string> engine_command(const std::string &engine, const std::string &tool,
                                        const std::string &server_name,
                                        const std::vector<std::string> &program);

// Forks and executes argv; the child gets the default handling of every
// signal back. Returns the pid, or nothing with a reason when the exec failed
// (the child's errno travels back through a close-on-exec pipe).
std::optional<pid_t> spawn(const std::vector<std::string> &argv, std::string &error);

}  // namespace vorx::server
