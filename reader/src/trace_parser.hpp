// Receives the records of every file in order and keeps the trackers the summary is made of:
// processes, threads, record counts by type and the time span, and the activity tracker that
// the summary's tables and the exports are made of. Records are charged to the process whose
// files they come from: the file name "<ppid>-<pid>.<idx>.<ext>" names it, else the file's
// process record does.
#pragma once

#include "activity.hpp"
#include "process_endings.hpp"
#include "trace_tokenizer.hpp"

#include <cstdio>
#include <map>
#include <optional>
#include <string>

namespace vorx::report {

struct ProcessInfo {
  std::string name;
  bool begun = false, ended = false;
};

struct ThreadInfo {
  bool begun = false, ended = false;
  std::uint64_t records = 0;
  std::uint64_t first = 0, last = 0; // time stamps of the thread's records (0: none)
  std::string name;
};

struct FileInfo {
  std::string path;
  std::string stream_name;
  std::uint64_t bytes = 0;
  std::uint64_t records = 0;
  std::optional<std::uint32_t> pid;
};

// The process id in a trace file's name "<ppid>-<pid>.<idx>.<ext>", if it has that form.
std::optional<std::uint32_t> pid_of_file_name(const std::string &path);

class TraceParser : public TraceSink {
public:
  // dump: print every record to out as it arrives.
  TraceParser(std::FILE *out, bool dump) : out_(out), dump_(dump) {}

  void begin_file(const std::string &path, std::uint64_t bytes);
  void end_file(std::uint64_t records);
  void on_record(const Record &record, const Location &where) override;
  void on_stream_name(std::string_view name) override;
  void on_problem(Stat stat, const std::string &message) override;
  // End of input: turns what the trackers saw into recording-loss counts, and settles the
  // activity (open slices, nesting, counters).
  void finish(Stats &stats);

  // How processes ended (from the results directory), shown beside them in the overview.
  void set_process_endings(ProcessEndings endings) { endings_ = std::move(endings); }
  // What each process's collector said it dropped at its end (from the results directory). A trace
  // carries the count it had before its last spill; the larger of the two counts.
  void set_lost_records(LostRecords lost) { lost_ = std::move(lost); }
  // The overview, then the tables and the call tree (at most max_rows rows each on the terminal;
  // 0: all, and the call tree's smallest branches too).
  void print_summary(const Stats &stats, std::size_t max_rows = 0) const;
  // The same tables as CSV, nothing else.
  void print_csv_tables() const;

  // Keyed by names of the generated tables, which live as long as the program.
  const std::map<std::string_view, std::uint64_t> &counts() const { return counts_; }
  const std::map<ThreadKey, ThreadInfo> &threads() const { return threads_; }
  const std::map<std::uint32_t, ProcessInfo> &processes() const { return processes_; }
  std::optional<std::uint64_t> first_time() const { return first_; }
  std::optional<std::uint64_t> last_time() const { return last_; }
  const std::vector<std::string> &problems() const { return problems_; }
  const ActivityTracker &activity() const { return activity_; }
  std::uint64_t timesource_hz() const { return timesource_hz_; }

private:
  ProcessEndings endings_;
  LostRecords lost_;
  void track(const Record &r);
  void see_time(std::uint64_t t);
  void print_profile(std::size_t max_rows) const;
  std::string thread_time(const ThreadKey &key, const ThreadInfo &t) const;
  std::uint32_t file_pid() const { return files_.empty() ? 0 : files_.back().pid.value_or(0); }

  std::FILE *out_;
  bool dump_;
  std::vector<FileInfo> files_;
  std::map<std::string_view, std::uint64_t> counts_;
  std::map<std::string_view, std::uint64_t> api_counts_;
  std::map<std::uint32_t, ProcessInfo> processes_;
  std::map<ThreadKey, ThreadInfo> threads_;
  // Runs of records share their kind, function and thread: the entries of the last record, kept (the maps'
  // entries never move) so that a run pays one lookup each.
  struct Recent {
    std::string_view name, function;
    std::uint64_t *count = nullptr, *api_count = nullptr;
    ThreadKey thread{};
    ThreadInfo *thread_info = nullptr;
  } recent_;
  ActivityTracker activity_;
  std::optional<std::uint64_t> first_, last_;
  std::uint64_t timesource_hz_ = 0;
  // The first marker: a time-source count and the wall clock (100 ns units) at one instant.
  std::optional<std::pair<std::uint64_t, std::uint64_t>> marker_;
  std::vector<std::string> problems_;
};

// One line of --dump for a record: "@<where> <name> desc=0x... field=value ...".
std::string format_record(const Record &r, const Location &where);

} // namespace vorx::report
