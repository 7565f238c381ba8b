// How each process of a collection ended, as the run-tool wrote it in the results directory's manifest.json:
// the trace of a process that died of a signal reads up to its end, and the report says what the end was.
#include "process_endings.hpp"

#include <csignal>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <regex>

namespace vorx::report {
namespace {

// The manifest keeps one process a line: {"pid": 17068, ..., "exit_code": null, "exit_signal": 6}.
std::optional<long> number_after(const std::string &line, const char *key)
{
  std::smatch m;
  std::regex pattern(std::string("\"") + key + "\"\\s*:\\s*(-?[0-9]+)");
  if (!std::regex_search(line, m, pattern)) return std::nullopt;
  return std::stol(m[1].str());
}

} // namespace

std::string describe_ending(std::optional<long> exit_code, std::optional<long> exit_signal)
{
  if (exit_signal) {
    const char *name = *exit_signal > 0 && *exit_signal < 65 ? strsignal(static_cast<int>(*exit_signal)) : nullptr;
    return "killed by signal " + std::to_string(*exit_signal) + (name ? std::string(" (") + name + ")" : "");
  }
  if (exit_code) return "exited with status " + std::to_string(*exit_code);
  return {};
}

// Calls back with the line of each process in the manifests of the results directories among the inputs.
template <typename PerProcess> void for_each_process_line(const std::vector<std::string> &inputs, PerProcess each)
{
  for (const std::string &in : inputs) {
    std::error_code ec;
    if (!std::filesystem::is_directory(in, ec)) continue;
    std::ifstream manifest(std::filesystem::path(in) / "manifest.json");
    std::string line;
    while (std::getline(manifest, line)) {
      if (line.find("\"pid\"") == std::string::npos || line.find("\"parent\"") == std::string::npos) continue;
      if (std::optional<long> pid = number_after(line, "pid")) each(static_cast<std::uint32_t>(*pid), line);
    }
  }
}

ProcessEndings read_process_endings(const std::vector<std::string> &inputs)
{
  ProcessEndings endings;
  for_each_process_line(inputs, [&](std::uint32_t pid, const std::string &line) {
    std::string text = describe_ending(number_after(line, "exit_code"), number_after(line, "exit_signal"));
    if (!text.empty()) endings[pid] = text;
  });
  return endings;
}

LostRecords read_lost_records(const std::vector<std::string> &inputs)
{
  LostRecords lost;
  for_each_process_line(inputs, [&](std::uint32_t pid, const std::string &line) {
    std::optional<long> count = number_after(line, "records_lost");
    if (count && *count > 0) lost[pid] += static_cast<std::uint64_t>(*count);
  });
  return lost;
}

} // namespace vorx::report
