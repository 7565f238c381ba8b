// Exports for viewers: the Chrome trace event JSON and folded stacks for flame graphs.
#pragma once

#include "activity.hpp"

#include <cstdint>
#include <ostream>

namespace vorx::report {

struct ExportClock {
  std::uint64_t origin = 0; // the first time stamp of the traces: time 0 of the export
  std::uint64_t hz = 0;     // counts per second; 0: stamps taken as nanoseconds
  double micros(std::uint64_t t) const { return double(t > origin ? t - origin : 0) * 1e6 / (hz ? double(hz) : 1e9); }
  double micros_span(std::uint64_t counts) const { return double(counts) * 1e6 / (hz ? double(hz) : 1e9); }
};

// s as a JSON string, quotes included, appended to out.
void json_string(std::string &out, std::string_view s);
// "name (pid)" or "process pid"; "name (tid)" or "thread tid".
std::string process_label(std::uint32_t pid, const ActivityTracker &a);
std::string thread_label(std::uint32_t tid, const ThreadTrack &t);
std::string thread_label(const ActivityTracker &a, std::uint32_t pid, std::uint32_t tid);
// A frame of a folded stack: the separators of the format cannot stand inside it.
std::string folded_frame(std::string s);

// {"traceEvents":[...]}: "M" names of processes and threads, "X" slices in nesting order per
// thread (args: the synchronisation object of a wait), "C" counter values; pid and tid as the
// trace has them, ts and dur in microseconds from the first time stamp.
void write_chrome_trace(std::ostream &out, const ActivityTracker &activity, const ExportClock &clock);

// "process;thread;outer;...;slice weight" lines, weight the slice's own time in microseconds
// (time spent in slices nested inside it is charged to them), identical stacks summed.
void write_folded(std::ostream &out, const ActivityTracker &activity, const ExportClock &clock);

} // namespace vorx::report
