#include "options.hpp"

#include <CLI/CLI.hpp>

#include <filesystem>
#include <fstream>
#include <signal.h>

namespace vorx::server {
namespace {

// The words whose collections write records today. The vocabulary knows more (projection, opencl, user_sync,
// cm, power, opencl_ex): their probes are not set or write nothing yet, and a run that asked for one of them
// would end with an empty trace and no word why. Those are refused by name until they collect something.
constexpr const char *kWorkingCollections[] = {"cpu",    "threading", "io",      "waiting", "memory",
                                               "task",   "frame",     "utimer",  "opengles"};

bool collects_something(const std::string &word) {
  for (const char *w : kWorkingCollections)
    if (word == w) return true;
  return false;
}

std::string collection_words() {
  std::string words;
  for (const char *w : kWorkingCollections) words += (words.empty() ? "" : ", ") + std::string(w);
  return words;
}

// The processor's counter is the cheaper clock by far (one instruction against a clock_gettime call), but
// only where it ticks at one constant rate whatever the core's speed and sleep states, on one memory node.
bool counter_is_usable() {
  std::ifstream cpuinfo("/proc/cpuinfo");
  std::string line;
  bool constant = false, nonstop = false;
  while (std::getline(cpuinfo, line))
    if (line.starts_with("flags")) {
      constant = line.find(" constant_tsc") != std::string::npos;
      nonstop = line.find(" nonstop_tsc") != std::string::npos;
      break;
    }
  return constant && nonstop && !std::filesystem::exists("/sys/devices/system/node/node1");
}

// Ticks of the time source in a microsecond: the system clock counts
// nanoseconds; the time stamp counter runs at the processor's clock.
uint64_t ticks_per_microsecond(const std::string &time_source) {
  if (time_source != "tsc") return 1000;
  std::ifstream cpuinfo("/proc/cpuinfo");
  std::string line;
  while (std::getline(cpuinfo, line))
    if (line.starts_with("cpu MHz")) {
      auto colon = line.find(':');
      if (colon != std::string::npos) return (uint64_t)std::stod(line.substr(colon + 1));
    }
  return 1000;
}

}  // namespace

void add_run_options(CLI::App &app, RunOptions &o) {
  app.add_option("-c,--collect", o.collections,
                 "What to collect, by words separated with commas: " + collection_words())
      ->delimiter(',')
      ->check([](const std::string &word) -> std::string {
        if (collects_something(word)) return {};
        if (vorx_string_to_collection(word.c_str()) != vorx_cl_eof)
          return "the collection '" + word + "' collects nothing yet; collections that work: " + collection_words();
        return "unknown collection '" + word + "'; known ones are " + collection_words();
      })
      ->capture_default_str();
  app.add_option("-i,--interval", o.interval_ms, "CPU sampling interval in milliseconds")
      ->check(CLI::Range(1, 1000000))
      ->capture_default_str();
  app.add_option("-r,--result-dir", o.result_dir,
                 "Directory for the results (default: a new ./vorx-results-NNN/)");
  app.add_option("-l,--log-level", o.log_level,
                 "Collector log level: -1 quiet, 0 critical, 1 error, 2 warning, 3 info, 4 trace")
      ->check(CLI::Range(-1, 4))
      ->capture_default_str();
  app.add_option("-z,--compression", o.compression, "Trace compression level, 0 (none) to 9")
      ->check(CLI::Range(0, 9))
      ->capture_default_str();
  app.add_flag("--shared-files", o.shared_files,
               "Write all threads of a process into its process files, not one file per thread");
  app.add_option("--wait-threshold", o.wait_threshold_us,
                 "Report waits longer than this many microseconds")
      ->capture_default_str();
  app.add_option("--short-wait-threshold", o.short_wait_threshold_us,
                 "Waits shorter than this many microseconds get no stack")
      ->capture_default_str();
  app.add_option("--stack-threshold", o.stack_threshold_us,
                 "Calls shorter than this many microseconds get a cheaper stack")
      ->capture_default_str();
  app.add_flag("--contention-filter,!--no-contention-filter", o.contention_filter,
               "Report a lock wait only when another thread's release found it waiting, and a release only "
               "when it had a waiter (default); with --no-contention-filter every blocking lock call and "
               "every release is reported")
      ->capture_default_str();
  app.add_flag("-p,--paused", o.paused, "Start with collection paused (the program resumes it)");
  app.add_flag("--no-follow", o.no_follow, "Do not follow child processes");
  app.add_option("--ignore", o.ignored, "Do not collect in programs of this base name (repeatable)");
  app.add_option("-e,--env", o.environment, "Set NAME=VALUE in the profiled program (repeatable)")
      ->check([](const std::string &pair) -> std::string {
        auto eq = pair.find('=');
        if (eq == std::string::npos || eq == 0) return "expected NAME=VALUE, got '" + pair + "'";
        if (eq + 1 == pair.size()) return "'" + pair + "' has an empty value, which cannot be passed";
        return {};
      });
  app.add_option("--time-source", o.time_source,
                 "Time stamps from 'tsc' (the processor's counter), 'system' (the monotonic clock), or 'auto': "
                 "tsc where it runs at a constant rate on a single memory node, else system")
      ->check(CLI::IsMember({"auto", "system", "tsc"}))
      ->capture_default_str();
  app.add_option("--sampling-signal", o.sampling_signal,
                 "Signal number of the sampling timer (27 is SIGPROF, or a real-time signal)")
      ->check(CLI::Range(1, 64))
      ->capture_default_str();
  app.add_flag("--offline-stack-walk", o.offline_stack_walk,
               "Store raw stacks and walk them later instead of at sample time");
  app.add_flag("--show-info", o.show_info, "Show the collector's informational messages");
  app.add_option("--memory-threshold", o.memory_threshold,
                 "Track allocations of at least this many bytes")
      ->check(CLI::Range(1u, 0xFFFFFFFFu))
      ->capture_default_str();
  app.add_option("--engine", o.engine, "The instrumentation engine to launch with")->group("");
  app.add_option("--tool", o.tool, "The collector library to load")->group("");
  // The program and its arguments are what follows the options (after "--"
  // when the program's own options could be taken for ours).
}

std::string resolved_time_source(const std::string &choice) {
  if (choice != "auto") return choice;
  return counter_is_usable() ? "tsc" : "system";
}

std::string check_run_options(const RunOptions &o) {
  if (o.command.empty() || o.command.front().empty())
    return "no program given: use vorx run [options] -- <program> [arguments]";
  return {};
}

ConfigurationPtr make_base_configuration(const RunOptions &o, const std::string &data_dir) {
  ConfigurationPtr conf(vorx_alloc_configuration());
  if (!conf) return nullptr;
  auto *ops = conf->ops;
  for (const std::string &word : o.collections)
    vorx_conf_add_collection(conf.get(), vorx_string_to_collection(word.c_str()));
  ops->set_sampling_interval(conf.get(), o.interval_ms);
  ops->set_sampling_signal(conf.get(), o.sampling_signal);
  ops->set_data_dir(conf.get(), data_dir.c_str());
  ops->set_log_level(conf.get(), o.log_level);
  ops->set_compression_level(conf.get(), o.compression);
  ops->set_state(conf.get(), o.paused ? vorx_st_paused : vorx_st_resumed);
  conf->per_thread_files = o.shared_files ? 0 : 1;
  conf->follow_children = !o.no_follow;
  conf->quiet_info = o.show_info ? 0 : 1;
  conf->offline_stack_walk = o.offline_stack_walk ? 1 : 0;
  conf->memory_size_threshold = o.memory_threshold;
  const std::string time_source = resolved_time_source(o.time_source);
  conf->time_source = time_source == "tsc" ? 1 : 2;
  ops->set_time_source_text(conf.get(), time_source.c_str());

  uint64_t per_us = ticks_per_microsecond(time_source);
  for (uint32_t row = 0; row < VORX_CONF_SYNC_THRESHOLD_ROWS; row++)
    conf->sync_thresholds[row].kind = row;
  conf->sync_thresholds[vorx_sth_contention_filter].threshold = o.contention_filter ? 1 : 0;
  conf->sync_thresholds[vorx_sth_short_wait].threshold = o.short_wait_threshold_us * per_us;
  conf->sync_thresholds[vorx_sth_wait].threshold = o.wait_threshold_us * per_us;
  conf->sync_thresholds[vorx_sth_stack].threshold = o.stack_threshold_us * per_us;

  std::vector<char *> env;
  std::vector<std::string> parts;
  parts.reserve(o.environment.size() * 2);
  for (const std::string &pair : o.environment) {
    auto eq = pair.find('=');
    parts.push_back(pair.substr(0, eq));
    parts.push_back(pair.substr(eq + 1));
  }
  for (std::string &part : parts) env.push_back(part.data());
  env.push_back(nullptr);
  if (!o.environment.empty()) vorx_conf_set_string_list(&conf->environment, env.data());

  std::vector<char *> ignored;
  for (const std::string &name : o.ignored) ignored.push_back(const_cast<char *>(name.c_str()));
  ignored.push_back(nullptr);
  if (!o.ignored.empty()) vorx_conf_set_string_list(&conf->ignored_processes, ignored.data());
  return conf;
}

std::vector<std::pair<std::string, std::string>> describe_run_options(const RunOptions &o) {
  auto join = [](const std::vector<std::string> &items) {
    std::string out;
    for (const auto &item : items) out += (out.empty() ? "" : ",") + item;
    return out;
  };
  return {
      {"collect", join(o.collections)},
      {"interval_ms", std::to_string(o.interval_ms)},
      {"log_level", std::to_string(o.log_level)},
      {"compression", std::to_string(o.compression)},
      {"per_thread_files", o.shared_files ? "false" : "true"},
      {"wait_threshold_us", std::to_string(o.wait_threshold_us)},
      {"short_wait_threshold_us", std::to_string(o.short_wait_threshold_us)},
      {"stack_threshold_us", std::to_string(o.stack_threshold_us)},
      {"contention_filter", o.contention_filter ? "true" : "false"},
      {"paused", o.paused ? "true" : "false"},
      {"follow_children", o.no_follow ? "false" : "true"},
      {"ignore", join(o.ignored)},
      {"env", join(o.environment)},
      {"time_source", resolved_time_source(o.time_source)},
      {"sampling_signal", std::to_string(o.sampling_signal)},
      {"offline_stack_walk", o.offline_stack_walk ? "true" : "false"},
      {"memory_threshold", std::to_string(o.memory_threshold)},
  };
}

}  // namespace vorx::server
