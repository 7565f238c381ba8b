// What the CPU samples say, for a person and for viewers: hot spots (self and total per function),
// the top-down call tree, folded sample stacks for flame-graph tools and speedscope's file format.
#pragma once

#include "activity.hpp"
#include "report_tables.hpp"
#include "trace_export.hpp"

#include <cstdio>
#include <ostream>
#include <vector>

namespace vorx::report {

// hot_spots (per process), hot_spots_by_thread and call_tree.
std::vector<Table> build_profile_tables(const ActivityTracker &activity);

// The call tree of each process, indented, with shares of its samples; branches below 1% are left
// out unless all is set. At most max_rows lines a process (0: all).
void print_call_tree(std::FILE *out, const ActivityTracker &activity, std::size_t max_rows, bool all);

// "process;thread;outermost;...;innermost count" lines, one a distinct stack, counted in samples.
void write_folded_samples(std::ostream &out, const ActivityTracker &activity);

// speedscope's JSON file format: one sampled profile a thread, samples in time order, weights in
// milliseconds of CPU time.
void write_speedscope(std::ostream &out, const ActivityTracker &activity);

// A function as viewers show it: "name (module)", or the bare name without a module.
std::string function_label(const ProfileFunction &f);

} // namespace vorx::report
