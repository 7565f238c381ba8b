// What the threads did: calls, waits, I/O, allocations, tasks, frames and counters, taken from
// the API records. Every timed thing becomes a slice on its thread; the slice tracker puts the
// slices of a thread in time order and gives each its depth and parent in one place, so the
// summary, the Chrome trace and the folded stacks all see the same nesting.
#pragma once

#include "api_roles.hpp"
#include "object_symbols.hpp"
#include "record_decoder.hpp"
#include "sample_profile.hpp"

#include <cstdint>
#include <map>
#include <set>
#include <optional>
#include <string>
#include <utility>
#include <vector>

namespace vorx::report {

enum class SliceKind { Call, Wait, Io, Alloc, Free, Task, Frame, Event };
std::string_view slice_kind_name(SliceKind k);

struct Slice {
  std::uint32_t pid = 0, tid = 0;
  std::uint64_t begin = 0, end = 0;
  SliceKind kind = SliceKind::Call;
  std::string_view name;               // function, or the annotation's name (held by the tracker)
  std::optional<std::uint64_t> object; // synchronisation object
  std::optional<std::uint64_t> bytes;  // I/O bytes or allocation size
  bool unfinished = false;             // no end in the trace: closed at the thread's last time
  bool clipped = false;                // ended after its parent: cut at the parent's end
  std::uint64_t own_end = 0;           // clipped: where it really ended
  int depth = 0;
  int parent = -1;            // index into the thread's slices
  std::uint64_t name_key = 0; // annotations: the id the name is found by at the end
  // As nested (what viewers show) and as it was (what the summary counts).
  std::uint64_t duration() const { return end - begin; }
  std::uint64_t full_duration() const { return (clipped ? own_end : end) - begin; }
};

struct CounterPoint {
  std::uint64_t time = 0;
  double value = 0;
};

struct CounterTrack {
  std::string name;
  std::vector<CounterPoint> points; // in time order after finish()
};

using ThreadKey = std::pair<std::uint32_t, std::uint32_t>; // pid, tid

struct ThreadTrack {
  std::string name;
  std::uint64_t last_time = 0;
  std::vector<Slice> slices; // after finish(): sorted by begin, properly nested
};

struct ProcessTrack {
  std::string name;
  std::map<std::uint32_t, std::string> frame_names, event_names, domain_names, string_names;
  // Synchronisation objects by address: what the program named, else the symbol that holds the object.
  std::map<std::uint64_t, std::string> sync_names;
  struct CounterName {
    std::string name, domain;
  };
  std::map<std::uint64_t, CounterName> counter_names;
  std::map<std::uint64_t, CounterTrack> counters;
};

class ActivityTracker {
public:
  // pid: the process whose file the record came from.
  void on_record(std::uint32_t pid, const Record &r);
  void name_process(std::uint32_t pid, std::string name) { processes_[pid].name = std::move(name); }
  void name_thread(std::uint32_t pid, std::uint32_t tid, std::string name) { threads_[{pid, tid}].name = std::move(name); }
  // A module's code mapped at [start, end): what names the objects in its data.
  void add_module(std::uint32_t pid, std::uint64_t start, std::uint64_t end, std::string path) {
    modules_[pid].add_module(start, end, std::move(path));
  }
  // When the collection began (seconds since the epoch): module files written later are not the
  // ones that ran, and name nothing.
  void set_recording_start(double seconds) { recording_start_ = seconds; }
  // End of input: closes open slices, sorts and nests, resolves names, evaluates counters, names
  // the samples' code.
  void finish();

  const std::map<ThreadKey, ThreadTrack> &threads() const { return threads_; }
  const std::map<std::uint32_t, ProcessTrack> &processes() const { return processes_; }
  const SampleProfile &profile() const { return profile_; }

private:
  struct Open {
    Slice slice;
    std::uint64_t key = 0;
  };
  struct CounterOp {
    std::uint64_t time;
    std::uint64_t counter;
    enum { Add, Set } op;
    double value;
  };
  // What a wrapped function's calls are, found once a function id.
  struct CallRole {
    const ApiRoleRow *row = nullptr;
    ApiRole role = ApiRole::Call;
    bool skip = false;
  };
  const CallRole &role_of(std::uint32_t id, std::string_view function);
  void on_call(std::uint32_t pid, const Record &r);
  void on_annotation(std::uint32_t pid, const Record &r);
  void open_slice(std::uint32_t pid, std::uint32_t tid, std::uint64_t t, SliceKind kind, std::uint64_t match,
                  std::uint64_t name_key, std::string name);
  void submitted_frame(std::uint32_t pid, std::uint32_t tid, const Record &r);
  void close_slice(std::uint32_t pid, std::uint32_t tid, std::uint64_t t, SliceKind kind, std::optional<std::uint64_t> key);
  void counter_op(std::uint32_t pid, std::uint64_t t, std::uint64_t counter, double value, bool set);
  void resolve_names(std::uint32_t pid, ThreadTrack &t);
  void name_objects_by_symbol();
  // One copy of each name, however many slices carry it; function names are the generated
  // tables' own and need none.
  std::string_view intern(std::string name) { return *names_.insert(std::move(name)).first; }

  std::set<std::string, std::less<>> names_;
  std::map<std::uint32_t, CallRole> roles_;
  std::map<ThreadKey, ThreadTrack> threads_;
  std::map<std::uint32_t, ProcessTrack> processes_;
  std::map<ThreadKey, std::vector<Open>> open_;
  std::map<std::uint32_t, std::vector<CounterOp>> counter_ops_;
  std::map<std::uint32_t, ModuleSymbols> modules_;
  SampleProfile profile_;
  double recording_start_ = 0;
};

// Sorts one thread's slices by begin (longer first on ties) and gives each its depth and
// parent; a slice that outlives its parent is cut at the parent's end and marked clipped.
void nest_slices(std::vector<Slice> &slices);

} // namespace vorx::report
