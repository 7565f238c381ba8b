#include "launch.hpp"

#include <elf.h>
#include <errno.h>
#include <fcntl.h>
#include <limits.h>
#include <signal.h>
#include <spawn.h>
#include <stdlib.h>
#include <string.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdio>
#include <cstring>
#include <filesystem>
#include <fstream>

namespace vorx::server {
namespace fs = std::filesystem;

namespace {

std::string with_slash(std::string path) {
  if (path.empty() || path.back() != '/') path += '/';
  return path;
}

bool is_executable_file(const std::string &path) {
  struct stat st {};
  return stat(path.c_str(), &st) == 0 && S_ISREG(st.st_mode) && access(path.c_str(), X_OK) == 0;
}

}  // namespace

std::string make_results_dir(const std::string &requested, std::string &error) {
  std::error_code ec;
  if (!requested.empty()) {
    fs::create_directories(requested, ec);
    if (ec || !fs::is_directory(requested)) {
      error = "cannot create the result directory '" + requested + "': " +
              (ec ? ec.message() : std::string("not a directory"));
      return {};
    }
    return with_slash(fs::absolute(requested).lexically_normal().string());
  }
  for (int n = 0; n < 1000; n++) {
    char name[32];
    std::snprintf(name, sizeof(name), "vorx-results-%03d", n);
    if (mkdir(name, 0775) == 0) return with_slash(fs::absolute(name).lexically_normal().string());
    if (errno != EEXIST) {
      error = std::string("cannot create a result directory in the current directory: ") + strerror(errno);
      return {};
    }
  }
  error = "all of ./vorx-results-000 to 999 exist; remove old results or give --result-dir";
  return {};
}

std::string find_program(const std::string &name, std::string &error) {
  if (name.find('/') != std::string::npos) {
    if (access(name.c_str(), F_OK) != 0) {
      error = "program '" + name + "' does not exist";
      return {};
    }
    if (!is_executable_file(name)) {
      error = "program '" + name + "' is not an executable file";
      return {};
    }
    return name;
  }
  const char *path = getenv("PATH");
  std::string dirs = path ? path : "/usr/local/bin:/usr/bin:/bin";
  size_t start = 0;
  while (start <= dirs.size()) {
    size_t end = dirs.find(':', start);
    std::string dir = dirs.substr(start, end == std::string::npos ? std::string::npos : end - start);
    std::string candidate = (dir.empty() ? std::string(".") : dir) + "/" + name;
    if (is_executable_file(candidate)) return candidate;
    if (end == std::string::npos) break;
    start = end + 1;
  }
  error = "program '" + name + "' was not found in PATH";
  return {};
}

std::string foreign_program_reason(const std::string &path) {
  std::ifstream file(path, std::ios::binary);
  Elf32_Ehdr header{};
  if (!file.read(reinterpret_cast<char *>(&header), sizeof(header))) return {};
  if (std::memcmp(header.e_ident, ELFMAG, SELFMAG) != 0) return {};
  if (header.e_ident[EI_CLASS] == ELFCLASS32 && header.e_machine == EM_386) return {};
  const char *kind = header.e_ident[EI_CLASS] == ELFCLASS64 ? "a 64-bit program" : "not a 32-bit x86 program";
  return "'" + path + "' is " + kind + "; the collector works inside 32-bit x86 programs only";
}

std::string own_directory() {
  std::error_code ec;
  fs::path self = fs::read_symlink("/proc/self/exe", ec);
  return ec ? std::string(".") : self.parent_path().string();
}

std::string locate_engine(const std::string &given, std::string &error) {
  std::string path = given.empty() ? own_directory() + "/kel" : given;
  if (!is_executable_file(path)) {
    error = "the instrumentation engine was not found at '" + path +
            "'; build it (target kel) or install vorx together with it";
    return {};
  }
  return path;
}

std::string locate_tool(const std::string &given, std::string &error) {
  std::string path = given.empty()
                         ? (fs::path(own_directory()) / ".." / "lib" / "libvorxtool.so").lexically_normal().string()
                         : given;
  if (access(path.c_str(), R_OK) != 0) {
    error = "the collector library was not found at '" + path +
            "'; build it (target vorxtool) or install vorx together with it";
    return {};
  }
  return path;
}

std::vector<std::string> engine_command(const std::string &engine, const std::string &tool,
                                        const std::string &server_name,
                                        const std::vector<std::string> &program) {
  std::vector<std::string> argv = {engine, "-t", tool, "-server_name", server_name, "--"};
  argv.insert(argv.end(), program.begin(), program.end());
  return argv;
}

// The engine starts through posix_spawn: the library's vfork-like clone shares the server's memory until the
// exec instead of copying its page tables, and hands back the exec's error itself. Signals start at their
// defaults and unblocked, whatever the server set for itself.
std::optional<pid_t> spawn(const std::vector<std::string> &argv, std::string &error) {
  std::vector<char *> args;
  for (const std::string &a : argv) args.push_back(const_cast<char *>(a.c_str()));
  args.push_back(nullptr);

  posix_spawnattr_t attr;
  posix_spawnattr_init(&attr);
  sigset_t all, none;
  sigfillset(&all);
  sigemptyset(&none);
  posix_spawnattr_setsigdefault(&attr, &all);
  posix_spawnattr_setsigmask(&attr, &none);
  posix_spawnattr_setflags(&attr, POSIX_SPAWN_SETSIGDEF | POSIX_SPAWN_SETSIGMASK);
  pid_t pid = -1;
  int err = posix_spawn(&pid, args[0], nullptr, &attr, args.data(), environ);
  posix_spawnattr_destroy(&attr);
  if (err != 0) {
    error = "cannot execute '" + argv[0] + "': " + strerror(err);
    return std::nullopt;
  }
  return pid;
}

}  // namespace vorx::server
