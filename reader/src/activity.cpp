#include "activity.hpp"

#include "api_roles.hpp"

#include <algorithm>
#include <cstdio>

namespace vorx::report {
namespace {

// Which wrapped functions block and are restarted after an interruption, from the probe
// catalogue: their calls are waits.
struct ProbeKind {
  std::uint32_t id;
  std::string_view kind;
};
#ifdef VORX_READER_HAVE_PROBE_NAMES
constexpr ProbeKind kProbeKinds[] = {
#define VORX_PROBE(id, name, cname, kind, ...) {id, #kind},
#include "vorx_probes.def"
#undef VORX_PROBE
};
#else
constexpr ProbeKind kProbeKinds[] = {{~0u, ""}};
#endif

bool probe_blocks(std::uint32_t id)
{
  for (const ProbeKind &p : kProbeKinds)
    if (p.id == id) return p.kind == "wait_retry";
  return false;
}

std::uint64_t num(const Record &r, std::string_view name)
{
  const Field *f = r.find(name);
  return f && f->kind == Field::Kind::Num ? f->num : 0;
}

std::string text(const Record &r, std::string_view name)
{
  const Field *f = r.find(name);
  return f && f->kind == Field::Kind::Str ? std::string(reinterpret_cast<const char *>(f->bytes.data()), f->bytes.size())
                                          : std::string();
}

// The 32-bit argument words of a wrapped function's record, behind the version byte.
std::optional<std::uint32_t> word(const Record &r, int index)
{
  const Field *f = r.find("args");
  if (!f || index < 0 || f->bytes.size() < std::size_t(index + 1) * 4) return std::nullopt;
  return ld32(f->bytes.data() + std::size_t(index) * 4);
}

// A text argument of a wrapped function's record: u16 length and the bytes (a NUL kept out).
std::optional<std::string> take_text(Bytes b, std::size_t &pos)
{
  if (b.size() - pos < 2) return std::nullopt;
  std::size_t n = ld16(b.data() + pos);
  if (b.size() - pos - 2 < n) return std::nullopt;
  std::string s(reinterpret_cast<const char *>(b.data() + pos + 2), n);
  pos += 2 + n;
  while (!s.empty() && s.back() == '\0') s.pop_back();
  return s;
}

// Names of user synchronisation objects: object word, then the kind and the name (create,
// set_name) or the new name (rename).
std::optional<std::pair<std::uint64_t, std::string>> sync_name(const Record &r)
{
  const Field *f = r.find("args");
  if (!f || f->bytes.size() < 4) return std::nullopt;
  std::size_t pos = 4;
  auto first = take_text(f->bytes, pos);
  if (!first) return std::nullopt;
  if (r.function == "__ozk_sync_rename") return std::pair{std::uint64_t(ld32(f->bytes.data())), *first};
  auto second = take_text(f->bytes, pos);
  if (!second) return std::nullopt;
  std::string name = first->empty() ? *second : *second + " (" + *first + ")";
  return std::pair{std::uint64_t(ld32(f->bytes.data())), name};
}

SliceKind kind_of(ApiRole role)
{
  switch (role) {
  case ApiRole::Sync: case ApiRole::Wait: return SliceKind::Wait;
  case ApiRole::Io: return SliceKind::Io;
  case ApiRole::Alloc: return SliceKind::Alloc;
  case ApiRole::Free: return SliceKind::Free;
  case ApiRole::Call: break;
  }
  return SliceKind::Call;
}

std::string hex(std::uint64_t v)
{
  char b[24];
  std::snprintf(b, sizeof b, "0x%llx", static_cast<unsigned long long>(v));
  return b;
}

// Counter keys: a created counter by its id; a counter of the v3 forms by its domain and name
// handle, kept apart by the top bit.
constexpr std::uint64_t kHandleCounter = 1ull << 63;
std::uint64_t handle_counter(std::uint64_t domain, std::uint64_t name) { return kHandleCounter | (domain << 32) | name; }

// Frames submitted after the fact are named by their domain.
constexpr std::uint64_t kDomainName = 1ull << 63;


// Names that create records give to ids: the name is argument 0, the id argument 1.
struct Naming {
  std::string_view function;
  std::map<std::uint32_t, std::string> ProcessTrack::*names;
};
constexpr Naming kNamings[] = {
    {"__ozk_frame_create", &ProcessTrack::frame_names},
    {"__ozk_domain_create", &ProcessTrack::domain_names},
    {"__ozk_string_handle_create", &ProcessTrack::string_names},
    {"__ozk_event_create", &ProcessTrack::event_names},
};

// Begins and ends of slices. A begin is matched by the end on the same thread that has the same
// kind and, where the end carries one, the same key: the frame or event id (name_arg), or the
// task id words of the overlapped forms (match_arg). Plain task ends close the innermost task.
struct SliceMark {
  std::string_view function;
  SliceKind kind;
  bool begin;
  const char *name_arg;  // the id the name is found by (null: none)
  const char *match_arg; // task id words that pair an overlapped begin with its end (null: none)
};
constexpr SliceMark kSliceMarks[] = {
    {"__ozk_task_begin", SliceKind::Task, true, "arg2", nullptr},
    {"__ozk_task_begin_fn", SliceKind::Task, true, nullptr, nullptr},
    {"__ozk_task_end", SliceKind::Task, false, nullptr, nullptr},
    {"__ozk_task_begin_overlapped", SliceKind::Task, true, "arg3", "arg1"},
    {"__ozk_task_end_overlapped", SliceKind::Task, false, nullptr, "arg1"},
    {"__ozk_frame_begin", SliceKind::Frame, true, "arg0", nullptr},
    {"__ozk_frame_end", SliceKind::Frame, false, "arg0", nullptr},
    {"__ozk_event_start", SliceKind::Event, true, "arg0", nullptr},
    {"__ozk_event_end", SliceKind::Event, false, "arg0", nullptr},
};

// Counter changes: the counter is argument 0 (or the domain and name handle, arguments 0 and
// 1); the amount is 1 or the named argument.
struct CounterChange {
  std::string_view function;
  bool by_handle;
  double sign;
  const char *amount_arg;
  bool set;
};
constexpr CounterChange kCounterChanges[] = {
    {"__ozk_counter_inc", false, 1, nullptr, false},
    {"__ozk_counter_dec", false, -1, nullptr, false},
    {"__ozk_counter_inc_delta", false, 1, "arg1", false},
    {"__ozk_counter_dec_delta", false, -1, "arg1", false},
    {"__ozk_counter_set_value", false, 1, "arg1", true},
    {"__ozk_counter_inc_v3", true, 1, nullptr, false},
    {"__ozk_counter_dec_v3", true, -1, nullptr, false},
    {"__ozk_counter_inc_delta_v3", true, 1, "arg2", false},
    {"__ozk_counter_dec_delta_v3", true, -1, "arg2", false},
};

// A key from task id words: they pair an overlapped task's begin with its end.
std::uint64_t ids_key(const Record &r, const char *arg)
{
  const Field *f = r.find(arg);
  if (!f || f->kind != Field::Kind::Bytes || f->bytes.size() < 16) return 0;
  return ld64(f->bytes.data()) * 0x9E3779B97F4A7C15ull ^ ld64(f->bytes.data() + 8);
}
} // namespace

std::string_view slice_kind_name(SliceKind k)
{
  switch (k) {
  case SliceKind::Call: return "call";
  case SliceKind::Wait: return "wait";
  case SliceKind::Io: return "io";
  case SliceKind::Alloc: return "alloc";
  case SliceKind::Free: return "free";
  case SliceKind::Task: return "task";
  case SliceKind::Frame: return "frame";
  case SliceKind::Event: return "event";
  }
  return "?";
}

void ActivityTracker::on_record(std::uint32_t pid, const Record &r)
{
  profile_.on_record(pid, r);
  if (r.name() == "cpu_sample") { // a thread that only ran still has its track
    ThreadTrack &t = threads_[{pid, std::uint32_t(num(r, "tid"))}];
    t.last_time = std::max(t.last_time, num(r, "timestamp"));
  }
  if (!r.schema || !r.schema->api) return;
  std::uint32_t tid = std::uint32_t(num(r, "tid"));
  ThreadTrack &t = threads_[{pid, tid}];
  t.last_time = std::max({t.last_time, num(r, "end_time"), num(r, "time")});
  if (r.api) on_annotation(pid, r);
  else if (!r.function.empty()) on_call(pid, r);
}

void ActivityTracker::on_call(std::uint32_t pid, const Record &r)
{
  if (r.function == "__ozk_sync_create" || r.function == "__ozk_sync_set_name" || r.function == "__ozk_sync_rename")
    if (auto named = sync_name(r)) processes_[pid].sync_names[named->first] = named->second;
  const CallRole &cr = role_of(std::uint32_t(num(r, "function_id")), r.function);
  // The annotation and collector calls outside the table name things; they took no time of
  // the program's worth showing.
  if (cr.skip) return;
  const ApiRoleRow *row = cr.row;
  ApiRole role = cr.role;
  Slice s;
  s.pid = pid;
  s.tid = std::uint32_t(num(r, "tid"));
  s.begin = num(r, "begin_time");
  s.end = std::max(s.begin, num(r, "end_time"));
  s.kind = kind_of(role);
  s.name = r.function;
  if (role == ApiRole::Sync) s.object = word(r, 0);
  if (row && row->bytes >= 0)
    if (auto b = word(r, row->bytes)) s.bytes = std::int32_t(*b) < 0 ? 0 : *b;
  threads_[{pid, s.tid}].slices.push_back(std::move(s));
}

const ActivityTracker::CallRole &ActivityTracker::role_of(std::uint32_t id, std::string_view function)
{
  auto it = roles_.find(id);
  if (it != roles_.end()) return it->second;
  CallRole cr;
  cr.row = find_api_role(function);
  cr.skip = !cr.row && (function.starts_with("__ozk_") || function.starts_with("__internal_"));
  cr.role = cr.row ? cr.row->role : probe_blocks(id) ? ApiRole::Wait : ApiRole::Call;
  return roles_.emplace(id, cr).first->second;
}

void ActivityTracker::on_annotation(std::uint32_t pid, const Record &r)
{
  std::string_view fn = r.api->name;
  std::uint32_t tid = std::uint32_t(num(r, "tid"));
  // Points (type 9) have one time; calls of the family (type 7) count from their start.
  std::uint64_t t = r.find("time") ? num(r, "time") : num(r, "begin_time");
  ProcessTrack &p = processes_[pid];
  if (fn == "__ozk_thread_set_name" || fn == "__internal_thread_name") threads_[{pid, tid}].name = text(r, "arg0");
  else if (fn == "__ozk_counter_create" || fn == "__ozk_counter_create_typed")
    p.counter_names[num(r, "arg2")] = {text(r, "arg0"), text(r, "arg1")};
  else if (fn == "__ozk_frame_submit_v3") submitted_frame(pid, tid, r);
  for (const Naming &n : kNamings)
    if (n.function == fn) (p.*n.names)[std::uint32_t(num(r, "arg1"))] = text(r, "arg0");
  for (const SliceMark &m : kSliceMarks) {
    if (m.function != fn) continue;
    std::uint64_t match = m.match_arg ? ids_key(r, m.match_arg) : m.name_arg ? num(r, m.name_arg) : 0;
    if (!m.begin) close_slice(pid, tid, t, m.kind, m.match_arg || m.name_arg ? std::optional(match) : std::nullopt);
    else if (fn == "__ozk_task_begin_fn") open_slice(pid, tid, t, m.kind, match, 0, hex(num(r, "arg2")));
    else open_slice(pid, tid, t, m.kind, match, num(r, m.name_arg), {});
  }
  for (const CounterChange &c : kCounterChanges) {
    if (c.function != fn) continue;
    std::uint64_t counter = c.by_handle ? handle_counter(num(r, "arg0"), num(r, "arg1")) : num(r, "arg0");
    double amount = c.amount_arg ? double(num(r, c.amount_arg)) : 1;
    counter_op(pid, t, counter, c.sign * amount, c.set);
  }
}

// A frame reported after the fact, from its begin to its end, named by its domain.
void ActivityTracker::submitted_frame(std::uint32_t pid, std::uint32_t tid, const Record &r)
{
  Slice s;
  s.pid = pid, s.tid = tid, s.kind = SliceKind::Frame;
  s.begin = num(r, "arg2"), s.end = std::max(s.begin, num(r, "arg3"));
  s.name_key = kDomainName | num(r, "arg0");
  threads_[{pid, tid}].slices.push_back(std::move(s));
}

void ActivityTracker::open_slice(std::uint32_t pid, std::uint32_t tid, std::uint64_t t, SliceKind kind, std::uint64_t match,
                                 std::uint64_t name_key, std::string name)
{
  Open o;
  o.slice.pid = pid, o.slice.tid = tid, o.slice.begin = o.slice.end = t, o.slice.kind = kind;
  if (!name.empty()) o.slice.name = intern(std::move(name));
  o.slice.name_key = name_key;
  o.key = match;
  open_[{pid, tid}].push_back(std::move(o));
}

// Closes the innermost open slice of the kind (and key, for frames and events); an end
// without a begin is dropped, as the annotation library itself ignores it.
void ActivityTracker::close_slice(std::uint32_t pid, std::uint32_t tid, std::uint64_t t, SliceKind kind,
                                  std::optional<std::uint64_t> key)
{
  std::vector<Open> &stack = open_[{pid, tid}];
  for (auto it = stack.rbegin(); it != stack.rend(); ++it) {
    if (it->slice.kind != kind || (key && it->key != *key)) continue;
    Slice s = std::move(it->slice);
    s.end = std::max(s.begin, t);
    stack.erase(std::next(it).base());
    threads_[{pid, tid}].slices.push_back(std::move(s));
    return;
  }
}

void ActivityTracker::counter_op(std::uint32_t pid, std::uint64_t t, std::uint64_t counter, double value, bool set)
{
  counter_ops_[pid].push_back({t, counter, set ? CounterOp::Set : CounterOp::Add, value});
}

void ActivityTracker::resolve_names(std::uint32_t pid, ThreadTrack &t)
{
  const ProcessTrack &p = processes_[pid];
  auto lookup = [](const std::map<std::uint32_t, std::string> &names, std::uint64_t key, const char *what) {
    auto it = names.find(std::uint32_t(key));
    return it != names.end() && !it->second.empty() ? it->second : std::string(what) + " " + std::to_string(std::uint32_t(key));
  };
  for (Slice &s : t.slices) {
    if (!s.name.empty()) continue;
    if (s.kind == SliceKind::Task) s.name = intern(lookup(p.string_names, s.name_key, "task"));
    else if (s.kind == SliceKind::Event) s.name = intern(lookup(p.event_names, s.name_key, "event"));
    else if (s.kind == SliceKind::Frame && (s.name_key & kDomainName)) s.name = intern(lookup(p.domain_names, s.name_key, "domain"));
    else if (s.kind == SliceKind::Frame) s.name = intern(lookup(p.frame_names, s.name_key, "frame"));
  }
}

void nest_slices(std::vector<Slice> &slices)
{
  auto outer_first = [](const Slice &a, const Slice &b) { return a.begin != b.begin ? a.begin < b.begin : a.end > b.end; };
  // slices that never nest close in the order they opened: a thread of flat tasks needs no sort
  if (!std::is_sorted(slices.begin(), slices.end(), outer_first))
    std::stable_sort(slices.begin(), slices.end(), outer_first);
  std::vector<int> stack;
  for (int i = 0; i < int(slices.size()); i++) {
    Slice &s = slices[std::size_t(i)];
    while (!stack.empty() && slices[std::size_t(stack.back())].end <= s.begin &&
           !(slices[std::size_t(stack.back())].end == s.begin && slices[std::size_t(stack.back())].begin == s.begin))
      stack.pop_back();
    if (!stack.empty()) {
      const Slice &parent = slices[std::size_t(stack.back())];
      if (s.end > parent.end) {
        s.own_end = s.clipped ? s.own_end : s.end;
        s.end = parent.end;
        s.clipped = true;
      }
      s.parent = stack.back();
      s.depth = parent.depth + 1;
    }
    stack.push_back(i);
  }
}

// Objects that the program did not name get the name of the data symbol that holds them (each
// object looked up once).
void ActivityTracker::name_objects_by_symbol()
{
  for (auto &[key, t] : threads_) {
    auto modules = modules_.find(key.first);
    if (modules == modules_.end()) continue;
    auto &names = processes_[key.first].sync_names;
    for (const Slice &s : t.slices) {
      if (!s.object || names.count(*s.object)) continue;
      names.emplace(*s.object, modules->second.name_of(*s.object));
    }
  }
}

void ActivityTracker::finish()
{
  // Whatever is still open ends with the last time its thread was seen.
  for (auto &[key, stack] : open_) {
    ThreadTrack &t = threads_[key];
    for (Open &o : stack) {
      o.slice.end = std::max(o.slice.begin, t.last_time);
      o.slice.unfinished = true;
      t.slices.push_back(std::move(o.slice));
    }
  }
  open_.clear();
  for (auto &[key, t] : threads_) {
    resolve_names(key.first, t);
    nest_slices(t.slices);
  }
  if (recording_start_ > 0)
    for (auto &[pid, modules] : modules_) modules.set_recorded_at(recording_start_);
  name_objects_by_symbol();
  profile_.finish(modules_);
  for (auto &[pid, ops] : counter_ops_) {
    ProcessTrack &p = processes_[pid];
    std::stable_sort(ops.begin(), ops.end(), [](const CounterOp &a, const CounterOp &b) { return a.time < b.time; });
    for (const CounterOp &op : ops) {
      CounterTrack &c = p.counters[op.counter];
      double now = c.points.empty() ? 0 : c.points.back().value;
      c.points.push_back({op.time, op.op == CounterOp::Set ? op.value : now + op.value});
    }
    for (auto &[id, c] : p.counters) {
      if (id & kHandleCounter) {
        auto d = p.domain_names.find(std::uint32_t(id >> 32 & 0x7FFFFFFFu));
        auto n = p.string_names.find(std::uint32_t(id));
        c.name = (d != p.domain_names.end() ? d->second + "/" : std::string()) +
                 (n != p.string_names.end() ? n->second : "counter " + std::to_string(std::uint32_t(id)));
      } else if (auto it = p.counter_names.find(id); it != p.counter_names.end()) {
        c.name = it->second.domain.empty() ? it->second.name : it->second.domain + "/" + it->second.name;
      } else {
        c.name = "counter " + std::to_string(id);
      }
    }
  }
  counter_ops_.clear();
}

} // namespace vorx::report
