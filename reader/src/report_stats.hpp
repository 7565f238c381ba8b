// Every count the reader keeps about the quality of what it read, in one list. Each entry
// says whether the loss happened while recording (the collector could not write it) or is a
// problem found while importing the files, and how bad it is.
#pragma once

#include <array>
#include <cstdint>
#include <string_view>

namespace vorx::report {

enum class StatSource { Recording, Import };
enum class StatSeverity { Info, DataLoss, Error };

// X(name, source, severity, description)
#define VORX_REPORT_STATS(X)                                                                          \
  X(threads_without_end, Recording, DataLoss, "threads whose end record never reached the trace")     \
  X(processes_without_end, Recording, DataLoss, "processes whose end record never reached the trace") \
  X(empty_trace_files, Recording, Info, "trace files without any record")                             \
  X(records_lost, Recording, DataLoss,                                                                \
    "records the collector dropped: the results directory refused them, or its memory ran out")      \
  X(files_unreadable, Import, Error, "trace files that could not be opened or read")                  \
  X(missing_magic, Import, Error, "trace files that do not begin with the magic record")              \
  X(truncated_records, Import, DataLoss, "files that end inside a record")                            \
  X(corrupt_records, Import, Error, "records that could not be framed; the rest of the file is lost") \
  X(undecodable_records, Import, Error, "records whose fields do not fit their size")                 \
  X(unknown_record_types, Import, Info, "records of a type this reader does not know")                \
  X(corrupt_compressed_blocks, Import, Error, "compressed blocks that do not inflate")                \
  X(block_ends_inside_record, Import, Error, "inflated blocks that end inside a record")              \
  X(unknown_api_functions, Import, Info, "API records of a function id this reader does not know")

enum class Stat : unsigned {
#define VORX_STAT_ENUM(name, source, severity, text) name,
  VORX_REPORT_STATS(VORX_STAT_ENUM)
#undef VORX_STAT_ENUM
  count
};

struct StatInfo {
  std::string_view name;
  StatSource source;
  StatSeverity severity;
  std::string_view text;
};

inline constexpr std::array<StatInfo, unsigned(Stat::count)> kStatInfo = {{
#define VORX_STAT_INFO(name, source, severity, text) {#name, StatSource::source, StatSeverity::severity, text},
    VORX_REPORT_STATS(VORX_STAT_INFO)
#undef VORX_STAT_INFO
}};

class Stats {
public:
  void add(Stat s, std::uint64_t n = 1) { values_[unsigned(s)] += n; }
  std::uint64_t get(Stat s) const { return values_[unsigned(s)]; }
  bool any(StatSource src) const
  {
    for (unsigned i = 0; i < values_.size(); i++)
      if (values_[i] && kStatInfo[i].source == src) return true;
    return false;
  }
  // Problems beyond information: lost or broken data.
  bool any_loss(StatSource src) const
  {
    for (unsigned i = 0; i < values_.size(); i++)
      if (values_[i] && kStatInfo[i].source == src && kStatInfo[i].severity != StatSeverity::Info) return true;
    return false;
  }
  void merge(const Stats &o)
  {
    for (unsigned i = 0; i < values_.size(); i++) values_[i] += o.values_[i];
  }

private:
  std::array<std::uint64_t, unsigned(Stat::count)> values_{};
};

} // namespace vorx::report
