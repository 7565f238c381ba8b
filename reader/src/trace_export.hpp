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

// {"traceEvents":[...]}: "M" names of processes and threads, "X" slices in nesting order per
// thread (args: the synchronisation object of a wait), "C" counter values; pid and tid as the
// trace has them, ts and dur in microseconds from the first time stamp.
void write_chrome_trace(std::ostream &out, const ActivityTracker &activity, const ExportClock &clock);

// "process;thread;outer;...;slice weight" lines, weight the slice's own time in microseconds
// (time spent in slices nested inside it is charged to them), identical stacks summed.
void write_folded(std::ostream &out, const ActivityTracker &activity, const ExportClock &clock);

} // namespace vorx::report
