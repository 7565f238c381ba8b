#include "trace_export.hpp"

#include <charconv>
#include <cinttypes>
#include <cmath>
#include <cstdio>
#include <map>
#include <string>

namespace vorx::report {

void json_string(std::string &out, std::string_view s)
{
  out += '"';
  for (unsigned char c : s) {
    if (c == '"' || c == '\\') {
      out += '\\';
      out += char(c);
    } else if (c < 0x20) {
      char b[8];
      std::snprintf(b, sizeof b, "\\u%04x", c);
      out += b;
    } else {
      out += char(c);
    }
  }
  out += '"';
}

std::string process_label(std::uint32_t pid, const ActivityTracker &a)
{
  auto it = a.processes().find(pid);
  return it != a.processes().end() && !it->second.name.empty() ? it->second.name + " (" + std::to_string(pid) + ")"
                                                                 : "process " + std::to_string(pid);
}

std::string thread_label(std::uint32_t tid, const ThreadTrack &t)
{
  return t.name.empty() ? "thread " + std::to_string(tid) : t.name + " (" + std::to_string(tid) + ")";
}

std::string thread_label(const ActivityTracker &a, std::uint32_t pid, std::uint32_t tid)
{
  auto it = a.threads().find({pid, tid});
  return it != a.threads().end() ? thread_label(tid, it->second) : "thread " + std::to_string(tid);
}

std::string folded_frame(std::string s)
{
  for (char &c : s)
    if (c == ';' || c == '\n' || c == '\r') c = ':';
  return s;
}

namespace {

// As printf's "%.3f" writes it, without printf's cost: every slice has two of these.
std::string fixed3(double v)
{
  char b[64];
  auto [end, ec] = std::to_chars(b, b + sizeof b, v, std::chars_format::fixed, 3);
  if (ec != std::errc()) {
    std::snprintf(b, sizeof b, "%.3f", v);
    return b;
  }
  return std::string(b, end);
}

std::string json_number(double v)
{
  if (!std::isfinite(v)) return "0";
  char b[40];
  std::snprintf(b, sizeof b, "%.15g", v);
  return b;
}

class EventList {
public:
  explicit EventList(std::ostream &out) : out_(out) { out_ << "{\"traceEvents\":[\n"; }
  ~EventList() { out_ << "\n]" << tail_ << ",\"displayTimeUnit\":\"ms\"}\n"; }
  // Members of the top object behind the event list, with their leading comma.
  void set_tail(std::string tail) { tail_ = std::move(tail); }
  void add(const std::string &event)
  {
    out_ << (first_ ? "" : ",\n") << event;
    first_ = false;
  }

private:
  std::ostream &out_;
  bool first_ = true;
  std::string tail_;
};

// A node of a process's call tree as a stack frame id: "<pid>.<node>".
std::string frame_id(std::uint32_t pid, std::uint32_t node) { return "\"" + std::to_string(pid) + "." + std::to_string(node) + "\""; }

// ,"stackFrames":{id:{name, category (the module), parent}}: every node of every process's call tree.
std::string stack_frames(const ActivityTracker &activity)
{
  std::string out = ",\"stackFrames\":{";
  bool first = true;
  for (const auto &[pid, p] : activity.profile().processes())
    for (std::uint32_t n = 1; n < p.nodes.size(); n++) {
      const ProfileFunction &f = p.functions[p.nodes[n].function];
      out += (first ? "\n" : ",\n") + frame_id(pid, n) + ":{\"name\":";
      json_string(out, f.name);
      out += ",\"category\":";
      json_string(out, f.module.empty() ? "?" : f.module);
      if (p.nodes[n].parent) out += ",\"parent\":" + frame_id(pid, p.nodes[n].parent);
      out += "}";
      first = false;
    }
  return out + "}";
}

// A CPU sample as a sample event ("P") whose "sf" is its innermost frame.
std::string sample_event(std::uint32_t pid, std::uint32_t tid, const ProfileSample &s, const ExportClock &clock)
{
  return "{\"name\":\"cpu sample\",\"cat\":\"sample\",\"ph\":\"P\",\"pid\":" + std::to_string(pid) +
         ",\"tid\":" + std::to_string(tid) + ",\"ts\":" + fixed3(clock.micros(s.time)) + ",\"sf\":" + frame_id(pid, s.node) + "}";
}

// Viewers show the ids beside the names themselves.
std::string plain_process_name(std::uint32_t pid, const ActivityTracker &a)
{
  auto it = a.processes().find(pid);
  return it != a.processes().end() && !it->second.name.empty() ? it->second.name : "process " + std::to_string(pid);
}

std::string plain_thread_name(std::uint32_t tid, const ThreadTrack &t) { return t.name.empty() ? "thread " + std::to_string(tid) : t.name; }

std::string metadata(const char *what, std::uint32_t pid, std::uint32_t tid, const std::string &name)
{
  std::string e = std::string("{\"name\":\"") + what + "\",\"ph\":\"M\",\"pid\":" + std::to_string(pid) +
                  ",\"tid\":" + std::to_string(tid) + ",\"args\":{\"name\":";
  json_string(e, name);
  return e + "}}";
}

// object_names: the process's names of synchronisation objects (null: none known).
std::string complete(const Slice &s, const ExportClock &clock, const std::map<std::uint64_t, std::string> *object_names)
{
  std::string e = "{\"name\":";
  json_string(e, s.name);
  e += ",\"cat\":\"" + std::string(slice_kind_name(s.kind)) + "\",\"ph\":\"X\",\"pid\":" + std::to_string(s.pid) +
       ",\"tid\":" + std::to_string(s.tid) + ",\"ts\":" + fixed3(clock.micros(s.begin)) +
       ",\"dur\":" + fixed3(clock.micros_span(s.duration()));
  std::string args;
  auto arg = [&](const char *k, const std::string &v) { args += std::string(args.empty() ? "" : ",") + "\"" + k + "\":" + v; };
  if (s.object) {
    char hex[24];
    std::snprintf(hex, sizeof hex, "\"0x%" PRIx64 "\"", *s.object);
    arg("object", hex);
    if (object_names)
      if (auto name = object_names->find(*s.object); name != object_names->end() && !name->second.empty()) {
        std::string text;
        json_string(text, name->second);
        arg("object_name", text);
      }
  }
  // Viewers that aggregate (speedscope) take the arguments as part of the name: only what
  // should tell calls apart goes here. Byte counts differ from call to call; the summary has them.
  if (s.unfinished) arg("unfinished", "true");
  if (s.clipped) arg("clipped", "true");
  if (!args.empty()) e += ",\"args\":{" + args + "}";
  return e + "}";
}

std::string counter(std::uint32_t pid, const std::string &name, const CounterPoint &p, const ExportClock &clock)
{
  std::string e = "{\"name\":";
  json_string(e, name);
  return e + ",\"ph\":\"C\",\"pid\":" + std::to_string(pid) + ",\"tid\":0,\"ts\":" + fixed3(clock.micros(p.time)) +
         ",\"args\":{\"value\":" + json_number(p.value) + "}}";
}

} // namespace

void write_chrome_trace(std::ostream &out, const ActivityTracker &activity, const ExportClock &clock)
{
  EventList events(out);
  std::map<std::uint32_t, bool> named;
  for (const auto &[key, t] : activity.threads()) {
    if (!named[key.first]) events.add(metadata("process_name", key.first, 0, plain_process_name(key.first, activity)));
    named[key.first] = true;
    events.add(metadata("thread_name", key.first, key.second, plain_thread_name(key.second, t)));
  }
  for (const auto &[pid, p] : activity.processes())
    if (!named[pid]) events.add(metadata("process_name", pid, 0, plain_process_name(pid, activity)));
  for (const auto &[key, t] : activity.threads()) {
    auto process = activity.processes().find(key.first);
    const auto *object_names = process != activity.processes().end() ? &process->second.sync_names : nullptr;
    for (const Slice &s : t.slices) events.add(complete(s, clock, object_names));
  }
  for (const auto &[pid, p] : activity.processes())
    for (const auto &[id, c] : p.counters)
      for (const CounterPoint &point : c.points) events.add(counter(pid, c.name, point, clock));
  for (const auto &[key, samples] : activity.profile().threads())
    for (const ProfileSample &s : samples) events.add(sample_event(key.first, key.second, s, clock));
  if (!activity.profile().processes().empty()) events.set_tail(stack_frames(activity));
}

void write_folded(std::ostream &out, const ActivityTracker &activity, const ExportClock &clock)
{
  std::map<std::string, double> weights;
  for (const auto &[key, t] : activity.threads()) {
    std::string root = folded_frame(process_label(key.first, activity)) + ";" + folded_frame(thread_label(key.second, t));
    std::vector<std::uint64_t> self(t.slices.size());
    std::vector<std::string> path(t.slices.size());
    for (std::size_t i = 0; i < t.slices.size(); i++) {
      const Slice &s = t.slices[i];
      self[i] = s.duration();
      path[i] = (s.parent >= 0 ? path[std::size_t(s.parent)] : root) + ";" + folded_frame(std::string(s.name));
      if (s.parent >= 0) {
        std::uint64_t &p = self[std::size_t(s.parent)];
        p -= std::min(p, s.duration());
      }
    }
    for (std::size_t i = 0; i < t.slices.size(); i++) weights[path[i]] += clock.micros_span(self[i]);
  }
  for (const auto &[stack, us] : weights) {
    if (us <= 0) continue;
    long long w = std::llround(us);
    out << stack << ' ' << (w > 0 ? w : 1) << '\n';
  }
}

} // namespace vorx::report
