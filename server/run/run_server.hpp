// The run-tool server: listens on "vorx_server.<id>" and answers the
// collector in every process of the collection.
//
// Each exchange comes on a connection of its own and is served on a thread
// of its own, so a client that stalls or breaks a frame costs only its own
// connection. Replies:
//   config:<pid>:<ppid>:1   the configuration packet for that process
//   ready, end, new, state  "done"; an end may carry the trace records the process lost
//   symfile:<path>          the path of the file that holds the symbols
//   error, warning, info    no reply; printed as a readable line
//   anything else           "fail"
#pragma once

#include <sys/types.h>

#include <atomic>
#include <cstdint>
#include <functional>
#include <list>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <thread>

#include "process_table.hpp"
#include "symbols.hpp"
#include "vorx_comm.h"
#include "vorx_config.h"

namespace vorx::server {

struct ConfigurationDeleter {
  void operator()(vorx_configuration *c) const { vorx_free_configuration(c); }
};
using ConfigurationPtr = std::unique_ptr<vorx_configuration, ConfigurationDeleter>;

// Where reports and notices go; the default prints to standard error.
class ReportSink {
 public:
  virtual ~ReportSink() = default;
  // level is "error", "warning", "info" or "note".
  virtual void report(pid_t pid, const std::string &process_name, const std::string &level,
                      const std::string &text);
  unsigned count(const std::string &level) const;

 protected:
  mutable std::mutex mutex_;
  unsigned errors_ = 0, warnings_ = 0, infos_ = 0;
};

class RunServer {
 public:
  static constexpr const char *kDomain = "vorx_server.";

  RunServer(ConfigurationPtr base, ProcessTable &processes, ReportSink &reports);
  ~RunServer();
  RunServer(const RunServer &) = delete;
  RunServer &operator=(const RunServer &) = delete;

  // Listens as <kDomain><id>; false with a reason when the name is taken.
  bool start(uint32_t id, std::string &error);
  void stop();
  std::string name() const { return std::string(kDomain) + std::to_string(id_); }

  // The first process of the collection: its configuration says so.
  void set_root_pid(pid_t pid) { root_pid_ = pid; }
  // How long a connection may stay silent in the middle of a frame.
  void set_receive_timeout_ms(int ms) { receive_timeout_ms_ = ms; }

  // Nothing in flight: every connection has closed and none waits to be accepted.
  bool drained();

  // One command text from a process: the reply frame; none for a report;
  // an empty text when the connection is to be closed without an answer.
  std::optional<std::string> handle(const std::string &text, pid_t peer_pid);

 private:
  void accept_loop();
  void serve(comm_client client);
  void reap_finished_connections();
  std::string configuration_packet(pid_t pid, pid_t parent);
  pid_t wait_for_root_pid() const;
  std::optional<std::string> handle_report(const std::string &word, const std::string &body,
                                           pid_t peer_pid);
  void report_lost_records(pid_t pid, std::uint64_t lost, unsigned causes);

  ConfigurationPtr base_;
  ProcessTable &processes_;
  ReportSink &reports_;
  uint32_t id_ = 0;
  std::atomic<pid_t> root_pid_{0};
  int receive_timeout_ms_ = 5000;
  comm_server server_{};
  bool listening_ = false;
  std::atomic<bool> stopping_{false};
  std::thread acceptor_;

  struct Connection {
    std::thread thread;
    std::atomic<bool> done{false};
    int socket = -1;
  };
  std::mutex connections_mutex_;
  std::list<Connection> connections_;
};

// What a process's dropped trace records amount to, and why, for a warning.
std::string describe_lost_records(std::uint64_t lost, unsigned causes);

// Base name of a process's program, read from /proc while it lives.
std::string process_name(pid_t pid);

}  // namespace vorx::server
