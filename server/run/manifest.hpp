// The manifest of a run: what was run, how, which processes took part and
// how they ended. One JSON file in the results directory.
#pragma once

#include <cstdint>
#include <string>
#include <utility>
#include <vector>

#include "process_table.hpp"

namespace vorx::server {

struct RunRecord {
  std::vector<std::string> command;
  std::vector<std::pair<std::string, std::string>> options;
  std::string server_name;
  std::string results_dir;
  pid_t root_pid = 0;
  int exit_status = 0;
  Clock::time_point started, finished;
  std::vector<ProcessInfo> processes;
  unsigned errors = 0, warnings = 0;

  // Trace records the collector dropped, over every process.
  std::uint64_t records_lost() const {
    std::uint64_t total = 0;
    for (const ProcessInfo &p : processes) total += p.records_lost;
    return total;
  }
};

std::string manifest_json(const RunRecord &run);
// Writes <results_dir>manifest.json; false with a reason.
bool write_manifest(const RunRecord &run, std::string &error);

// JSON string literal of text.
std::string json_string(const std::string &text);

}  // namespace vorx::server
