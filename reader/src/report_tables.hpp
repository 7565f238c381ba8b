// The summary's tables: one list of tables, each with stable column names, printed aligned for
// a person or as CSV for scripts. Durations are seconds of the trace's time source, to the
// nanosecond in CSV, in ns/us/ms/s on the terminal.
#pragma once

#include "activity.hpp"

#include <cstdio>
#include <string>
#include <vector>

namespace vorx::report {

struct Table {
  std::string name;  // also the first column of every CSV row
  std::string title; // heading on the terminal
  std::vector<std::string> columns;
  std::vector<std::vector<std::string>> rows; // sorted by cost, dearest first
};

// hz: time-source counts per second (0: unknown, stamps are taken as nanoseconds).
std::vector<Table> build_tables(const ActivityTracker &activity, std::uint64_t hz);

// Seconds for a person: the unit that keeps three or four digits (ns, us, ms, s).
std::string format_seconds(double seconds);

// Aligned columns, numbers to the right, durations in a person's units. At most max_rows rows
// a table (0: all).
void print_table(std::FILE *out, const Table &t, std::size_t max_rows);
// "table,<columns>" then one line a row; fields with commas or quotes are quoted.
void print_csv(std::FILE *out, const Table &t);

} // namespace vorx::report
