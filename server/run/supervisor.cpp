#include "supervisor.hpp"

#include <errno.h>
#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <string>
#include <thread>

namespace vorx::server {
namespace {

volatile sig_atomic_t g_forward_signal = 0;
volatile sig_atomic_t g_interrupted = 0;

void remember_signal(int sig) { g_forward_signal = sig; }
// The terminal's interrupt reaches the program by itself; vorx only needs it
// to stop waiting for processes that outlive the program.
void remember_interrupt(int) { g_interrupted = 1; }

bool alive(pid_t pid) { return kill(pid, 0) == 0 || errno == EPERM; }

// A child's death wakes the waiting at once through this pipe, whichever thread the signal lands on; the
// rounds stay as the fallback (and for the end of connections, which sends no signal).
int g_child_pipe[2] = {-1, -1};

void note_child(int) {
  int saved = errno;
  char byte = 1;
  ssize_t ignored = write(g_child_pipe[1], &byte, 1);
  (void)ignored;
  errno = saved;
}

// Sleeps one round, or less when a child died meanwhile.
void sleep_one_round(std::chrono::milliseconds round) {
  if (g_child_pipe[0] < 0) {
    std::this_thread::sleep_for(round);
    return;
  }
  struct pollfd fd = {g_child_pipe[0], POLLIN, 0};
  if (poll(&fd, 1, (int)round.count()) > 0) {
    char bytes[64];
    while (read(g_child_pipe[0], bytes, sizeof bytes) > 0) {
    }
  }
}

// Short rounds: the program's end is seen within a couple of milliseconds, which counts on short runs.
constexpr auto kPoll = std::chrono::milliseconds(2);
constexpr auto kSayWhoAfter = std::chrono::seconds(3);
// Connections of the last moments (a child's "end" on its way) land first: 20 ms with nobody pending,
// unless no descendant is left and the server has nothing in flight, which ends the run at once.
constexpr int kQuietRoundsToEnd = 10;

}  // namespace

int shell_status(int wait_status) {
  if (WIFEXITED(wait_status)) return WEXITSTATUS(wait_status);
  if (WIFSIGNALED(wait_status)) return 128 + WTERMSIG(wait_status);
  return 1;
}

void Supervisor::prepare() {
  prctl(PR_SET_CHILD_SUBREAPER, 1);
  signal(SIGQUIT, SIG_IGN);
  struct sigaction sa {};
  sigemptyset(&sa.sa_mask);
  sa.sa_handler = remember_interrupt;
  sigaction(SIGINT, &sa, nullptr);
  sa.sa_handler = remember_signal;
  sigaction(SIGTERM, &sa, nullptr);
  sigaction(SIGHUP, &sa, nullptr);
  if (g_child_pipe[0] < 0 && pipe2(g_child_pipe, O_CLOEXEC | O_NONBLOCK) == 0) {
    sa.sa_handler = note_child;
    sa.sa_flags = SA_RESTART | SA_NOCLDSTOP;
    sigaction(SIGCHLD, &sa, nullptr);
  }
}

void Supervisor::notice_death(const ProcessInfo &p) {
  std::string who = p.pid == root_ ? "the program " : "the process ";
  if (p.exit_signal && p.ended)
    reports_.report(p.pid, p.name, "note", who + "was " + describe_exit(p) + "; its trace was written up to then");
  else if (p.exit_signal)
    reports_.report(p.pid, p.name, "warning", who + "was " + describe_exit(p) + "; its collection is cut short");
  else if (p.ready && !p.ended)
    reports_.report(p.pid, p.name, "warning", who + describe_exit(p) + " without closing its collection");
}

void Supervisor::reap() {
  int status = 0;
  pid_t pid;
  while ((pid = waitpid(-1, &status, WNOHANG)) > 0) {
    if (pid == root_) {
      root_done_ = true;
      root_status_ = status;
    }
    if (auto p = processes_.on_exit(pid, status)) notice_death(*p);
  }
  // orphans are handed to this process, so no child at all means no descendant at all
  no_children_ = pid < 0 && errno == ECHILD;
  for (const ProcessInfo &p : processes_.sweep(alive))
    reports_.report(p.pid, p.name, "warning", "the process is gone without closing its collection");
}

bool Supervisor::finished_quietly() const { return no_children_ && drained_ && drained_(); }

std::string Supervisor::awaited_list() const {
  std::string list;
  for (const ProcessInfo &p : processes_.pending())
    list += (list.empty() ? "" : ", ") + std::to_string(p.pid) + (p.name.empty() ? "" : " (" + p.name + ")");
  return list;
}

void Supervisor::say_who_is_awaited() {
  reports_.report(0, "", "note",
                  "the program has ended; waiting for " + awaited_list() + " to finish (Ctrl-C stops waiting)");
  waiting_said_ = true;
}

int Supervisor::wait_for(pid_t root) {
  root_ = root;
  auto root_end_time = std::chrono::steady_clock::now();
  int quiet_rounds = 0;
  for (;;) {
    if (g_forward_signal) {
      kill(root_, g_forward_signal);
      g_forward_signal = 0;
    }
    bool was_done = root_done_;
    reap();
    if (root_done_ && !was_done) root_end_time = std::chrono::steady_clock::now();
    if (!root_done_) g_interrupted = 0;
    if (root_done_ && g_interrupted) {
      reports_.report(0, "", "note", "interrupted: not waiting any longer for " + awaited_list());
      break;
    }
    if (root_done_) {
      quiet_rounds = processes_.anyone_pending() ? 0 : quiet_rounds + 1;
      if (quiet_rounds >= kQuietRoundsToEnd || (quiet_rounds > 0 && finished_quietly())) break;
      if (!waiting_said_ && quiet_rounds == 0 &&
          std::chrono::steady_clock::now() - root_end_time > kSayWhoAfter)
        say_who_is_awaited();
    }
    sleep_one_round(kPoll);
  }
  return root_status_;
}

}  // namespace vorx::server
