// Waits for a collection to end: the root program has exited and every
// process that opened a collection has closed it or died. The run-tool is the
// reaper of the whole process tree, so that the death of any descendant,
// crash included, is seen with its status.
#pragma once

#include <sys/types.h>

#include <chrono>
#include <functional>
#include <string>

#include "process_table.hpp"
#include "run_server.hpp"

namespace vorx::server {

class Supervisor {
 public:
  // drained: whether nothing is left in flight towards the server (see RunServer::drained); without it the
  // end waits a few quiet rounds for late connections.
  Supervisor(ProcessTable &processes, ReportSink &reports, std::function<bool()> drained = {})
      : processes_(processes), reports_(reports), drained_(std::move(drained)) {}

  // Becomes the reaper of orphaned descendants. An interrupt from the
  // terminal is the program's to handle; once the program has ended it stops
  // the waiting for the others. A termination request is passed on to the
  // program.
  static void prepare();

  // Runs until the collection has ended; returns the root's wait status.
  int wait_for(pid_t root);

 private:
  void reap();
  void notice_death(const ProcessInfo &p);
  void say_who_is_awaited();
  std::string awaited_list() const;

  bool finished_quietly() const;

  ProcessTable &processes_;
  ReportSink &reports_;
  std::function<bool()> drained_;
  pid_t root_ = 0;
  bool no_children_ = false;  // every descendant has been reaped: none can connect any more
  int root_status_ = 0;
  bool root_done_ = false;
  bool waiting_said_ = false;
};

// The exit status a shell would show for a wait status: the code, or
// 128 + signal.
int shell_status(int wait_status);

}  // namespace vorx::server
