#include "process_table.hpp"

#include <sys/wait.h>

#include <cstring>

namespace vorx::server {

ProcessInfo &ProcessTable::entry(pid_t pid) {
  auto [it, inserted] = processes_.try_emplace(pid);
  if (inserted) {
    it->second.pid = pid;
    it->second.first_seen = Clock::now();
  }
  return it->second;
}

void ProcessTable::on_config(pid_t pid, pid_t parent, const std::string &name, bool profiled) {
  std::lock_guard lock(mutex_);
  ProcessInfo &p = entry(pid);
  if (parent) p.parent = parent;
  if (!name.empty()) p.name = name;
  p.configs++;
  p.profiled = profiled;
  p.ready = p.ended = false;
}

void ProcessTable::on_ready(pid_t pid) {
  std::lock_guard lock(mutex_);
  ProcessInfo &p = entry(pid);
  p.ready = true;
  p.ended = false;
  p.ready_at = Clock::now();
}

void ProcessTable::on_end(pid_t pid, std::uint64_t records_lost, unsigned loss_causes) {
  std::lock_guard lock(mutex_);
  ProcessInfo &p = entry(pid);
  p.ended = true;
  p.ended_at = Clock::now();
  p.records_lost += records_lost;
  p.loss_causes |= loss_causes;
}

void ProcessTable::on_new(pid_t child, pid_t parent) {
  std::lock_guard lock(mutex_);
  ProcessInfo &p = entry(child);
  p.announced = true;
  if (parent) p.parent = parent;
}

std::optional<ProcessInfo> ProcessTable::on_exit(pid_t pid, int wait_status) {
  std::lock_guard lock(mutex_);
  auto it = processes_.find(pid);
  if (it == processes_.end()) return std::nullopt;
  ProcessInfo &p = it->second;
  p.dead = true;
  p.died_at = Clock::now();
  if (WIFEXITED(wait_status)) p.exit_code = WEXITSTATUS(wait_status);
  if (WIFSIGNALED(wait_status)) {
    p.exit_signal = WTERMSIG(wait_status);
    p.core_dumped = WCOREDUMP(wait_status);
  }
  return p;
}

std::vector<ProcessInfo> ProcessTable::sweep(const std::function<bool(pid_t)> &is_alive) {
  std::lock_guard lock(mutex_);
  std::vector<ProcessInfo> gone;
  for (auto &[pid, p] : processes_) {
    if (!is_pending(p) || is_alive(pid)) continue;
    p.dead = true;
    p.died_at = Clock::now();
    gone.push_back(p);
  }
  return gone;
}

bool ProcessTable::is_pending(const ProcessInfo &p) {
  if (p.dead || p.ended) return false;
  // Announced by "new" but not yet asking for its configuration: it will.
  if (p.configs == 0) return p.announced;
  return p.profiled;
}

bool ProcessTable::anyone_pending() const {
  std::lock_guard lock(mutex_);
  for (const auto &[pid, p] : processes_)
    if (is_pending(p)) return true;
  return false;
}

std::vector<ProcessInfo> ProcessTable::pending() const {
  std::lock_guard lock(mutex_);
  std::vector<ProcessInfo> out;
  for (const auto &[pid, p] : processes_)
    if (is_pending(p)) out.push_back(p);
  return out;
}

std::vector<ProcessInfo> ProcessTable::snapshot() const {
  std::lock_guard lock(mutex_);
  std::vector<ProcessInfo> out;
  for (const auto &[pid, p] : processes_) out.push_back(p);
  return out;
}

std::optional<ProcessInfo> ProcessTable::find(pid_t pid) const {
  std::lock_guard lock(mutex_);
  auto it = processes_.find(pid);
  if (it == processes_.end()) return std::nullopt;
  return it->second;
}

std::string describe_exit(const ProcessInfo &p) {
  if (p.exit_signal)
    return "killed by signal " + std::to_string(*p.exit_signal) + " (" + strsignal(*p.exit_signal) + ")" +
           (p.core_dumped ? ", core dumped" : "");
  if (p.exit_code) return "exited with status " + std::to_string(*p.exit_code);
  return "gone";
}

}  // namespace vorx::server
