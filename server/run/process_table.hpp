// Every process of a collection, as the run-tool server has come to know it:
// through its own commands ("config", "ready", "end", "new") and through the
// exit statuses that the run-tool collects as the reaper of the process tree.
#pragma once

#include <sys/types.h>

#include <chrono>
#include <cstdint>
#include <functional>
#include <map>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

namespace vorx::server {

using Clock = std::chrono::system_clock;

struct ProcessInfo {
  pid_t pid = 0;
  pid_t parent = 0;
  std::string name;           // program base name, read while the process lived
  bool announced = false;     // named by "new"
  unsigned configs = 0;       // "config" requests (one per image)
  bool profiled = true;       // the configuration handed over said so
  bool ready = false;         // the runtime is open
  bool ended = false;         // "end" came after the last "ready"
  bool dead = false;          // reaped, or found gone
  std::optional<int> exit_code;
  std::optional<int> exit_signal;
  bool core_dumped = false;
  std::uint64_t records_lost = 0;  // trace records the collector dropped, summed over the images
  unsigned loss_causes = 0;         // bits: 1 refused writes, 2 no memory, 4 a record too big
  Clock::time_point first_seen;
  std::optional<Clock::time_point> ready_at, ended_at, died_at;
};

class ProcessTable {
 public:
  // A process asked for its configuration: a new image of it starts over.
  void on_config(pid_t pid, pid_t parent, const std::string &name, bool profiled);
  void on_ready(pid_t pid);
  // The end of an image's collection, with the trace records it dropped and why.
  void on_end(pid_t pid, std::uint64_t records_lost = 0, unsigned loss_causes = 0);
  void on_new(pid_t child, pid_t parent);
  // Records an exit status of waitpid; returns the record as it now stands.
  std::optional<ProcessInfo> on_exit(pid_t pid, int wait_status);
  // Marks gone every process that is still waited for but no longer exists
  // (is_alive tells); returns those found gone.
  std::vector<ProcessInfo> sweep(const std::function<bool(pid_t)> &is_alive);

  // True while some process is still to be waited for: profiled, known to
  // the server, neither ended nor dead.
  bool anyone_pending() const;
  std::vector<ProcessInfo> pending() const;
  std::vector<ProcessInfo> snapshot() const;
  std::optional<ProcessInfo> find(pid_t pid) const;

 private:
  ProcessInfo &entry(pid_t pid);  // called with mutex_ held
  static bool is_pending(const ProcessInfo &p);

  mutable std::mutex mutex_;
  std::map<pid_t, ProcessInfo> processes_;
};

// "killed by signal 11 (Segmentation fault)" or "exited with status 3".
std::string describe_exit(const ProcessInfo &p);

}  // namespace vorx::server
