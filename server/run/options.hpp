// The options of `vorx run`, and the configuration they make.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "run_server.hpp"

namespace CLI {
class App;
}

namespace vorx::server {

struct RunOptions {
  std::vector<std::string> collections{"cpu"};
  uint64_t interval_ms = 10;
  std::string result_dir;  // empty: a fresh ./vorx-results-NNN/
  int log_level = 2;
  int compression = 0;
  bool shared_files = false;
  uint64_t wait_threshold_us = 0;
  uint64_t short_wait_threshold_us = 0;
  uint64_t stack_threshold_us = 0;
  bool contention_filter = true;
  bool paused = false;
  bool no_follow = false;
  std::vector<std::string> ignored;
  std::vector<std::string> environment;  // NAME=VALUE
  std::string time_source = "auto";
  unsigned sampling_signal = 27;  // SIGPROF
  bool offline_stack_walk = false;
  bool show_info = false;
  uint32_t memory_threshold = 1;
  std::string engine;  // the launcher; default <bindir>/kel
  std::string tool;    // the collector; default <bindir>/../lib/libvorxtool.so
  std::vector<std::string> command;
};

// Registers every option of `vorx run` on app.
void add_run_options(CLI::App &app, RunOptions &options);
// A reason when the options cannot make a configuration; empty when they can.
std::string check_run_options(const RunOptions &options);
// "tsc" or "system": what "auto" comes to on this machine; the other two as they are.
std::string resolved_time_source(const std::string &choice);
// The configuration every process starts from; data_dir ends with '/'.
ConfigurationPtr make_base_configuration(const RunOptions &options, const std::string &data_dir);
// The options as "name": value pairs, for the manifest.
std::vector<std::pair<std::string, std::string>> describe_run_options(const RunOptions &options);

}  // namespace vorx::server
