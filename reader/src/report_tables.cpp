#include "report_tables.hpp"

#include <algorithm>
#include <cstdlib>
#include <cinttypes>
#include <map>
#include <tuple>

namespace vorx::report {
namespace {

struct Agg {
  std::uint64_t count = 0, total = 0, max = 0, bytes = 0;
  void add(const Slice &s)
  {
    count++;
    total += s.full_duration();
    max = std::max(max, s.full_duration());
    bytes += s.bytes.value_or(0);
  }
};

class Seconds {
public:
  explicit Seconds(std::uint64_t hz) : hz_(hz ? double(hz) : 1e9) {}
  std::string operator()(std::uint64_t counts) const
  {
    char b[32];
    std::snprintf(b, sizeof b, "%.9f", double(counts) / hz_);
    return b;
  }

private:
  double hz_;
};

std::string thread_label(std::uint32_t tid, const ThreadTrack &t)
{
  return t.name.empty() ? std::to_string(tid) : std::to_string(tid) + " " + t.name;
}

std::string hex(std::uint64_t v)
{
  char b[24];
  std::snprintf(b, sizeof b, "0x%" PRIx64, v);
  return b;
}

std::string number(double v)
{
  char b[40];
  std::snprintf(b, sizeof b, "%.15g", v);
  return b;
}

// Rows keyed by (pid, tid, key...), gathered then sorted by a cost column.
template <typename Key>
using Groups = std::map<std::tuple<std::uint32_t, std::uint32_t, Key>, Agg>;

template <typename Key, typename Filter, typename KeyOf>
Groups<Key> group(const ActivityTracker &a, Filter keep, KeyOf key_of)
{
  Groups<Key> g;
  for (const auto &[k, t] : a.threads())
    for (const Slice &s : t.slices)
      if (keep(s)) g[{k.first, k.second, key_of(s)}].add(s);
  return g;
}

template <typename Key, typename Cost>
std::vector<std::pair<const typename Groups<Key>::key_type *, const Agg *>> by_cost(const Groups<Key> &g, Cost cost)
{
  std::vector<std::pair<const typename Groups<Key>::key_type *, const Agg *>> v;
  for (const auto &[k, agg] : g) v.push_back({&k, &agg});
  std::stable_sort(v.begin(), v.end(), [&](const auto &a, const auto &b) { return cost(*a.second) > cost(*b.second); });
  return v;
}

std::vector<std::string> thread_cells(const ActivityTracker &a, std::uint32_t pid, std::uint32_t tid)
{
  auto it = a.threads().find({pid, tid});
  return {std::to_string(pid), thread_label(tid, it->second)};
}

Table waits_by_function(const ActivityTracker &a, const Seconds &sec)
{
  Table t{"waits_by_function", "Waiting by function", {"pid", "thread", "function", "count", "total_s", "max_s"}, {}};
  auto g = group<std::string_view>(a, [](const Slice &s) { return s.kind == SliceKind::Wait; }, [](const Slice &s) { return s.name; });
  for (auto [k, agg] : by_cost<std::string_view>(g, [](const Agg &x) { return x.total; })) {
    auto row = thread_cells(a, std::get<0>(*k), std::get<1>(*k));
    row.insert(row.end(), {std::string(std::get<2>(*k)), std::to_string(agg->count), sec(agg->total), sec(agg->max)});
    t.rows.push_back(std::move(row));
  }
  return t;
}

Table waits_by_object(const ActivityTracker &a, const Seconds &sec)
{
  Table t{"waits_by_object", "Waiting by synchronisation object", {"pid", "thread", "object", "object_name", "function", "count", "total_s", "max_s"}, {}};
  using Key = std::pair<std::uint64_t, std::string_view>;
  auto g = group<Key>(a, [](const Slice &s) { return s.kind == SliceKind::Wait && s.object; },
                      [](const Slice &s) { return Key{*s.object, s.name}; });
  for (auto [k, agg] : by_cost<Key>(g, [](const Agg &x) { return x.total; })) {
    auto row = thread_cells(a, std::get<0>(*k), std::get<1>(*k));
    const Key &key = std::get<2>(*k);
    static const std::map<std::uint64_t, std::string> unnamed;
    auto process = a.processes().find(std::get<0>(*k));
    const auto &names = process != a.processes().end() ? process->second.sync_names : unnamed;
    auto name = names.find(key.first);
    row.insert(row.end(), {hex(key.first), name != names.end() ? name->second : "", std::string(key.second), std::to_string(agg->count),
                           sec(agg->total), sec(agg->max)});
    t.rows.push_back(std::move(row));
  }
  return t;
}

Table io_by_function(const ActivityTracker &a, const Seconds &sec)
{
  Table t{"io_by_function", "I/O by function", {"pid", "thread", "function", "calls", "bytes", "total_s", "max_s"}, {}};
  auto g = group<std::string_view>(a, [](const Slice &s) { return s.kind == SliceKind::Io; }, [](const Slice &s) { return s.name; });
  for (auto [k, agg] : by_cost<std::string_view>(g, [](const Agg &x) { return x.total; })) {
    auto row = thread_cells(a, std::get<0>(*k), std::get<1>(*k));
    row.insert(row.end(), {std::string(std::get<2>(*k)), std::to_string(agg->count), std::to_string(agg->bytes), sec(agg->total), sec(agg->max)});
    t.rows.push_back(std::move(row));
  }
  return t;
}

Table allocations(const ActivityTracker &a, const Seconds &sec)
{
  Table t{"allocations", "Allocations", {"pid", "thread", "function", "calls", "bytes", "total_s"}, {}};
  auto g = group<std::string_view>(a, [](const Slice &s) { return s.kind == SliceKind::Alloc || s.kind == SliceKind::Free; },
                              [](const Slice &s) { return s.name; });
  for (auto [k, agg] : by_cost<std::string_view>(g, [](const Agg &x) { return x.bytes; })) {
    auto row = thread_cells(a, std::get<0>(*k), std::get<1>(*k));
    row.insert(row.end(), {std::string(std::get<2>(*k)), std::to_string(agg->count), std::to_string(agg->bytes), sec(agg->total)});
    t.rows.push_back(std::move(row));
  }
  return t;
}

Table tasks_and_frames(const ActivityTracker &a, const Seconds &sec)
{
  Table t{"tasks_and_frames", "Tasks, frames and events", {"pid", "thread", "kind", "name", "count", "total_s", "max_s"}, {}};
  using Key = std::pair<SliceKind, std::string_view>;
  auto g = group<Key>(
      a, [](const Slice &s) { return s.kind == SliceKind::Task || s.kind == SliceKind::Frame || s.kind == SliceKind::Event; },
      [](const Slice &s) { return Key{s.kind, s.name}; });
  for (auto [k, agg] : by_cost<Key>(g, [](const Agg &x) { return x.total; })) {
    auto row = thread_cells(a, std::get<0>(*k), std::get<1>(*k));
    const Key &key = std::get<2>(*k);
    row.insert(row.end(), {std::string(slice_kind_name(key.first)), std::string(key.second), std::to_string(agg->count), sec(agg->total), sec(agg->max)});
    t.rows.push_back(std::move(row));
  }
  return t;
}

Table counters(const ActivityTracker &a)
{
  Table t{"counters", "Counters", {"pid", "counter", "updates", "last", "min", "max"}, {}};
  std::vector<std::pair<std::uint32_t, const CounterTrack *>> all;
  for (const auto &[pid, p] : a.processes())
    for (const auto &[id, c] : p.counters) all.push_back({pid, &c});
  std::stable_sort(all.begin(), all.end(), [](const auto &x, const auto &y) { return x.second->points.size() > y.second->points.size(); });
  for (const auto &[pid, c] : all) {
    if (c->points.empty()) continue;
    auto [lo, hi] = std::minmax_element(c->points.begin(), c->points.end(),
                                        [](const CounterPoint &x, const CounterPoint &y) { return x.value < y.value; });
    t.rows.push_back({std::to_string(pid), c->name, std::to_string(c->points.size()), number(c->points.back().value),
                      number(lo->value), number(hi->value)});
  }
  return t;
}

bool is_time_column(const std::string &name) { return name.size() > 2 && name.compare(name.size() - 2, 2, "_s") == 0; }

std::string human_seconds(const std::string &cell) { return format_seconds(std::strtod(cell.c_str(), nullptr)); }

} // namespace

std::string format_seconds(double v)
{
  char b[32];
  if (v == 0) return "0";
  if (v < 1e-6) std::snprintf(b, sizeof b, "%.0f ns", v * 1e9);
  else if (v < 1e-3) std::snprintf(b, sizeof b, "%.1f us", v * 1e6);
  else if (v < 1) std::snprintf(b, sizeof b, "%.2f ms", v * 1e3);
  else std::snprintf(b, sizeof b, "%.3f s", v);
  return b;
}

namespace {

bool numeric(const std::string &s)
{
  return !s.empty() && s.find_first_not_of("0123456789.-") == std::string::npos;
}

std::string csv_field(const std::string &s)
{
  if (s.find_first_of(",\"\n") == std::string::npos) return s;
  std::string q = "\"";
  for (char c : s) q += c == '"' ? std::string("\"\"") : std::string(1, c);
  return q + "\"";
}

} // namespace

std::vector<Table> build_tables(const ActivityTracker &activity, std::uint64_t hz)
{
  Seconds sec(hz);
  return {waits_by_function(activity, sec), waits_by_object(activity, sec), io_by_function(activity, sec),
          allocations(activity, sec),       tasks_and_frames(activity, sec), counters(activity)};
}

void print_table(std::FILE *out, const Table &t, std::size_t max_rows)
{
  std::fprintf(out, "%s:%s\n", t.title.c_str(), t.rows.empty() ? " none" : "");
  if (t.rows.empty()) return;
  std::size_t shown = max_rows ? std::min(max_rows, t.rows.size()) : t.rows.size();
  // Durations in a person's units ("total_s" becomes "total"); numbers to the right.
  std::vector<std::string> head = t.columns;
  std::vector<std::vector<std::string>> rows(t.rows.begin(), t.rows.begin() + std::ptrdiff_t(shown));
  std::vector<bool> right(head.size(), true);
  for (std::size_t c = 0; c < head.size(); c++) {
    bool time = is_time_column(head[c]);
    if (time) head[c].resize(head[c].size() - 2);
    for (auto &row : rows) {
      if (time) row[c] = human_seconds(row[c]);
      else right[c] = right[c] && numeric(row[c]);
    }
  }
  std::vector<std::size_t> width(head.size());
  for (std::size_t c = 0; c < head.size(); c++) {
    width[c] = head[c].size();
    for (const auto &row : rows) width[c] = std::max(width[c], row[c].size());
  }
  auto line = [&](const std::vector<std::string> &cells) {
    std::string s = " ";
    for (std::size_t c = 0; c < cells.size(); c++) {
      std::string pad(width[c] - cells[c].size(), ' ');
      s += ' ';
      s += right[c] ? pad + cells[c] : cells[c] + (c + 1 < cells.size() ? pad : "");
    }
    std::fprintf(out, "%s\n", s.c_str());
  };
  line(head);
  for (const auto &row : rows) line(row);
  if (shown < t.rows.size()) std::fprintf(out, "  ... %zu more rows (--all or --csv give them all)\n", t.rows.size() - shown);
}

void print_csv(std::FILE *out, const Table &t)
{
  std::string head = "table";
  for (const std::string &c : t.columns) head += "," + c;
  std::fprintf(out, "%s\n", head.c_str());
  for (const auto &row : t.rows) {
    std::string s = csv_field(t.name);
    for (const std::string &cell : row) s += "," + csv_field(cell);
    std::fprintf(out, "%s\n", s.c_str());
  }
}

} // namespace vorx::report
