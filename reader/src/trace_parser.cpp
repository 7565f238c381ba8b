#include "trace_parser.hpp"

#include "profile_output.hpp"
#include "report_tables.hpp"

#include <algorithm>
#include <cinttypes>
#include <ctime>

namespace vorx::report {
namespace {

constexpr std::uint32_t kClassBegin = 4096, kClassEnd = 8192;
constexpr std::size_t kDumpBytesMax = 256;

constexpr std::string_view kTimeFields[] = {"timestamp", "begin_time", "end_time", "time"};

// A record carries each of these at most once.
bool is_time_field(std::string_view name)
{
  for (std::string_view t : kTimeFields)
    if (name == t) return true;
  return false;
}

std::uint64_t num_or(const Record &r, std::string_view name, std::uint64_t fallback)
{
  const Field *f = r.find(name);
  return f && f->kind == Field::Kind::Num ? f->num : fallback;
}

std::string text_of(const Field *f) { return f ? std::string(reinterpret_cast<const char *>(f->bytes.data()), f->bytes.size()) : std::string(); }

void append_escaped(std::string &out, Bytes b)
{
  static const char hex[] = "0123456789abcdef";
  out += '"';
  for (std::uint8_t c : b) {
    if (c == '"' || c == '\\') {
      out += '\\';
      out += char(c);
    } else if (c < 0x20 || c >= 0x7F) {
      out += "\\x";
      out += hex[c >> 4];
      out += hex[c & 15];
    } else {
      out += char(c);
    }
  }
  out += '"';
}

void append_hex(std::string &out, Bytes b)
{
  static const char hex[] = "0123456789abcdef";
  std::size_t n = std::min(b.size(), kDumpBytesMax);
  for (std::size_t i = 0; i < n; i++) {
    out += hex[b[i] >> 4];
    out += hex[b[i] & 15];
  }
  if (n < b.size()) out += "...(+" + std::to_string(b.size() - n) + ")";
}

} // namespace

std::string format_record(const Record &r, const Location &where)
{
  thread_local std::vector<std::uint32_t> frames;
  char head[64];
  std::snprintf(head, sizeof head, " desc=0x%08" PRIX32, r.desc);
  std::string line = "@" + where.str() + " " + std::string(r.name()) + head;
  if (!r.schema) {
    line += " type=" + std::to_string(r.type) + " bytes=" + std::to_string(r.raw.size());
    return line;
  }
  if (!r.function.empty()) line += " function=" + std::string(r.function);
  for (const Field &f : r.fields) {
    line += ' ';
    line += f.name;
    line += '=';
    switch (f.kind) {
    case Field::Kind::Num: line += std::to_string(f.num); break;
    case Field::Kind::Str: append_escaped(line, f.bytes); break;
    case Field::Kind::Bytes:
      line += "[" + std::to_string(f.bytes.size() / f.elem) + "x" + std::to_string(f.elem) + "]";
      append_hex(line, f.bytes);
      break;
    }
  }
  if (r.name() == "online_stack")
    if (const Field *p = r.find("packed"); p && unpack_online_stack(p->bytes, frames)) {
      line += " frames=";
      for (std::size_t i = 0; i < frames.size(); i++) {
        char hex[16];
        std::snprintf(hex, sizeof hex, "%s0x%" PRIx32, i ? "," : "", frames[i]);
        line += hex;
      }
    }
  return line;
}

std::optional<std::uint32_t> pid_of_file_name(const std::string &path)
{
  std::size_t slash = path.find_last_of('/');
  std::string_view name = std::string_view(path).substr(slash == std::string::npos ? 0 : slash + 1);
  auto digits = [&](std::size_t from) {
    std::size_t to = from;
    while (to < name.size() && name[to] >= '0' && name[to] <= '9') to++;
    return to;
  };
  std::size_t dash = digits(0);
  if (dash == 0 || dash >= name.size() || name[dash] != '-') return std::nullopt;
  std::size_t dot = digits(dash + 1);
  if (dot == dash + 1 || dot >= name.size() || name[dot] != '.' || dot - dash - 1 > 9) return std::nullopt;
  return std::uint32_t(std::stoul(std::string(name.substr(dash + 1, dot - dash - 1))));
}

void TraceParser::begin_file(const std::string &path, std::uint64_t bytes)
{
  files_.push_back({path, {}, bytes, 0, pid_of_file_name(path)});
  if (dump_) std::fprintf(out_, "== %s\n", path.c_str());
}

void TraceParser::end_file(std::uint64_t records) { files_.back().records = records; }

void TraceParser::on_stream_name(std::string_view name)
{
  files_.back().stream_name = name;
  if (dump_) std::fprintf(out_, "stream name \"%.*s\"\n", int(name.size()), name.data());
}

void TraceParser::on_problem(Stat, const std::string &message)
{
  problems_.push_back(message);
  std::fprintf(stderr, "vorx report: %s\n", message.c_str());
}

void TraceParser::see_time(std::uint64_t t)
{
  if (t == 0) return;
  if (!first_ || t < *first_) first_ = t;
  if (!last_ || t > *last_) last_ = t;
}

void TraceParser::track(const Record &r)
{
  std::string_view n = r.name();
  if (!recent_.count || recent_.name != n) recent_.name = n, recent_.count = &counts_[n];
  ++*recent_.count;
  if (r.schema && r.schema->api) {
    std::string_view function = r.function.empty() ? std::string_view("(unknown function)") : r.function;
    if (!recent_.api_count || recent_.function != function)
      recent_.function = function, recent_.api_count = &api_counts_[function];
    ++*recent_.api_count;
  }
  std::uint64_t times[std::size(kTimeFields)];
  std::size_t time_count = 0;
  for (const Field &f : r.fields)
    if (f.kind == Field::Kind::Num && is_time_field(f.name) && time_count < std::size(times)) times[time_count++] = f.num;
  for (std::size_t i = 0; i < time_count; i++) see_time(times[i]);
  if (n == "hardcfg" || n == "hardcfg3" || n == "hardcfg4" || n == "hardcfg5")
    timesource_hz_ = num_or(r, "timesource_frequency", 0);
  if (n == "marker" && !marker_) marker_ = {num_or(r, "count", 0), num_or(r, "wall_clock", 0)};
  if (n == "process") {
    std::uint32_t pid = std::uint32_t(num_or(r, "tid", 0));
    if (!files_.empty() && !files_.back().pid) files_.back().pid = pid;
    ProcessInfo &p = processes_[pid];
    std::uint64_t cls = num_or(r, "event_class", 0);
    if (cls == kClassBegin) p.begun = true;
    if (cls == kClassEnd) p.ended = true;
    if (const Field *f = r.find("name"); f && !f->bytes.empty()) {
      p.name = text_of(f);
      activity_.name_process(pid, p.name);
    }
    return;
  }
  if (n == "records_lost") {
    std::uint64_t &lost = lost_[file_pid()];
    lost = std::max(lost, num_or(r, "count", 0));
    return;
  }
  if (n == "module_map" || n == "module_map_untimed")
    if (const Field *path = r.find("name"))
      activity_.add_module(file_pid(), num_or(r, "start", 0), num_or(r, "end", 0), text_of(path));
  activity_.on_record(file_pid(), r);
  const Field *tid = r.find("tid");
  if (!tid || tid->kind != Field::Kind::Num) return;
  ThreadKey key{file_pid(), std::uint32_t(tid->num)};
  if (!recent_.thread_info || recent_.thread != key) recent_.thread = key, recent_.thread_info = &threads_[key];
  ThreadInfo &t = *recent_.thread_info;
  t.records++;
  for (std::size_t i = 0; i < time_count; i++)
    if (std::uint64_t v = times[i]) {
      t.first = t.first ? std::min(t.first, v) : v;
      t.last = std::max(t.last, v);
    }
  if (n == "thread" || n == "thread_writer") {
    std::uint64_t cls = num_or(r, "event_class", 0);
    if (cls == kClassBegin) t.begun = true;
    if (cls == kClassEnd) t.ended = true;
  }
  if (r.api && std::string_view(r.api->name) == "__internal_thread_name") t.name = text_of(r.find("arg0"));
}

void TraceParser::on_record(const Record &record, const Location &where)
{
  track(record);
  if (dump_) {
    std::string line = format_record(record, where);
    line += '\n';
    std::fwrite(line.data(), 1, line.size(), out_);
  }
}

void TraceParser::finish(Stats &stats)
{
  if (marker_ && marker_->second) activity_.set_recording_start(double(marker_->second) / 1e7);
  activity_.finish();
  for (const auto &[tid, t] : threads_)
    if (t.begun && !t.ended) stats.add(Stat::threads_without_end);
  for (const auto &[pid, p] : processes_)
    if (p.begun && !p.ended) stats.add(Stat::processes_without_end);
  for (const auto &[pid, lost] : lost_) stats.add(Stat::records_lost, lost);
}

// ", 3.90 ms, waiting 600.0 us (15%)": how long the thread was seen and how much of it it waited.
std::string TraceParser::thread_time(const ThreadKey &key, const ThreadInfo &t) const
{
  if (t.last <= t.first) return {};
  double hz = timesource_hz_ ? double(timesource_hz_) : 1e9;
  std::uint64_t waited = 0;
  if (auto a = activity_.threads().find(key); a != activity_.threads().end())
    for (const Slice &s : a->second.slices)
      if (s.kind == SliceKind::Wait) waited += s.full_duration();
  std::string text = ", " + format_seconds(double(t.last - t.first) / hz);
  if (waited)
    text += ", waiting " + format_seconds(double(waited) / hz) + " (" +
            std::to_string(unsigned(double(waited) * 100 / double(t.last - t.first) + 0.5)) + "%)";
  return text;
}

void TraceParser::print_csv_tables() const
{
  std::vector<Table> tables = build_tables(activity_, timesource_hz_);
  for (Table &t : build_profile_tables(activity_)) tables.push_back(std::move(t));
  for (const Table &t : tables) {
    print_csv(out_, t);
    std::fprintf(out_, "\n");
  }
}

void TraceParser::print_profile(std::size_t max_rows) const
{
  const ProfileCounts &c = activity_.profile().counts();
  std::fprintf(out_, "\n");
  if (!c.samples) {
    std::fprintf(out_, "no CPU samples in the traces (vorx run -c cpu collects them)\n");
    return;
  }
  std::fprintf(out_, "CPU samples: %" PRIu64 ", %" PRIu64 " with a walked stack", c.samples, c.with_stack);
  if (c.offline_stacks) std::fprintf(out_, ", %" PRIu64 " with a raw stack copy (not walked: sampled address only)", c.offline_stacks);
  if (c.broken_stacks) std::fprintf(out_, ", %" PRIu64 " stacks undecodable", c.broken_stacks);
  std::fprintf(out_, "\n");
  for (const Table &t : build_profile_tables(activity_)) {
    if (t.name == "call_tree") continue; // indented below
    std::fprintf(out_, "\n");
    print_table(out_, t, max_rows);
  }
  std::fprintf(out_, "\n");
  print_call_tree(out_, activity_, max_rows, max_rows == 0);
}

void TraceParser::print_summary(const Stats &stats, std::size_t max_rows) const
{
  std::FILE *o = out_;
  std::uint64_t bytes = 0, records = 0;
  for (const FileInfo &f : files_) bytes += f.bytes, records += f.records;
  std::fprintf(o, "files: %zu (%" PRIu64 " bytes), records: %" PRIu64 "\n", files_.size(), bytes, records);
  for (const FileInfo &f : files_) {
    std::fprintf(o, "  %s: %" PRIu64 " records", f.path.c_str(), f.records);
    if (!f.stream_name.empty()) std::fprintf(o, ", stream \"%s\"", f.stream_name.c_str());
    std::fprintf(o, "\n");
  }
  std::fprintf(o, "processes: %zu, threads: %zu\n", processes_.size(), threads_.size());
  std::map<std::uint32_t, bool> listed;
  auto print_threads = [&](std::uint32_t pid) {
    for (const auto &[key, t] : threads_) {
      if (key.first != pid) continue;
      auto a = activity_.threads().find(key);
      const std::string &name = a != activity_.threads().end() && !a->second.name.empty() ? a->second.name : t.name;
      std::fprintf(o, "    thread %u%s%s: %" PRIu64 " records%s%s\n", key.second, name.empty() ? "" : " ", name.c_str(),
                   t.records, thread_time(key, t).c_str(), t.begun && !t.ended ? " (no end record)" : "");
    }
  };
  for (const auto &[pid, p] : processes_) {
    auto ending = endings_.find(pid);
    std::string end = ending != endings_.end() ? ": " + ending->second : "";
    auto lost = lost_.find(pid);
    std::string dropped = lost != lost_.end() && lost->second ? " (" + std::to_string(lost->second) + " records lost)" : "";
    std::fprintf(o, "  process %u %s%s%s%s\n", pid, p.name.empty() ? "(no name)" : p.name.c_str(), end.c_str(),
                 p.ended ? "" : " (no end record)", dropped.c_str());
    print_threads(pid);
    listed[pid] = true;
  }
  for (const auto &[key, t] : threads_)
    if (!listed[key.first]) {
      std::fprintf(o, "  process %u (no process record)\n", key.first);
      print_threads(key.first);
      listed[key.first] = true;
    }
  if (first_) {
    std::uint64_t span = *last_ - *first_;
    std::fprintf(o, "time span: %" PRIu64 " .. %" PRIu64 " (%" PRIu64 " counts", *first_, *last_, span);
    if (timesource_hz_) std::fprintf(o, ", %.6f s at %" PRIu64 " Hz", double(span) / double(timesource_hz_), timesource_hz_);
    std::fprintf(o, ")\n");
    if (timesource_hz_ && marker_) {
      // Calendar time of the first stamp, from the marker's pair of count and wall clock.
      double offset_s = (double(*first_) - double(marker_->first)) / double(timesource_hz_);
      double wall_s = double(marker_->second) / 1e7 + offset_s;
      std::time_t secs = std::time_t(wall_s);
      char when[64];
      struct tm tm_utc;
      gmtime_r(&secs, &tm_utc);
      std::strftime(when, sizeof when, "%Y-%m-%d %H:%M:%S", &tm_utc);
      std::fprintf(o, "started: %s.%06u UTC\n", when, unsigned((wall_s - double(secs)) * 1e6));
    }
  } else {
    std::fprintf(o, "time span: no time stamps\n");
  }
  if (!timesource_hz_ && first_) std::fprintf(o, "no hardware configuration record: time stamps are taken as nanoseconds\n");
  std::vector<Table> tables = build_tables(activity_, timesource_hz_);
  bool empty = std::all_of(tables.begin(), tables.end(), [](const Table &t) { return t.rows.empty(); });
  if (empty) std::fprintf(o, "\nno waits, I/O, allocations, tasks, frames or counters in the traces\n");
  for (const Table &t : tables) {
    if (empty) break;
    std::fprintf(o, "\n");
    print_table(o, t, max_rows);
  }
  print_profile(max_rows);
  std::fprintf(o, "\n");
  std::fprintf(o, "records by type:\n");
  for (const auto &[name, n] : counts_) std::fprintf(o, "  %-20.*s %" PRIu64 "\n", int(name.size()), name.data(), n);
  if (!api_counts_.empty()) {
    std::fprintf(o, "API records by function:\n");
    for (const auto &[name, n] : api_counts_) std::fprintf(o, "  %-36.*s %" PRIu64 "\n", int(name.size()), name.data(), n);
  }

  for (StatSource src : {StatSource::Recording, StatSource::Import}) {
    std::fprintf(o, "%s:%s\n", src == StatSource::Recording ? "lost while recording" : "import problems",
                 stats.any(src) ? "" : " none");
    for (unsigned i = 0; i < kStatInfo.size(); i++) {
      const StatInfo &s = kStatInfo[i];
      std::uint64_t v = stats.get(Stat(i));
      if (s.source == src && v)
        std::fprintf(o, "  %-28s %" PRIu64 "  (%.*s)\n", std::string(s.name).c_str(), v, int(s.text.size()), s.text.data());
    }
  }
}

} // namespace vorx::report
