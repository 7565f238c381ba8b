#include "run_server.hpp"

#include <poll.h>
#include <signal.h>
#include <sys/socket.h>
#include <unistd.h>

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <iostream>
#include <vector>

#include "messages.hpp"
#include "sal_allocator.h"

namespace vorx::server {
namespace {

constexpr const char *kDone = "done";
constexpr const char *kFail = "fail";
// A configuration packet is a few KB; a frame far above that is not ours.
constexpr vorx_size_t kMaxFrame = 16u << 20;

std::string field(const std::string &text, size_t index) {
  size_t start = 0;
  for (size_t i = 0; i < index; i++) {
    start = text.find(':', start);
    if (start == std::string::npos) return {};
    start++;
  }
  size_t end = text.find(':', start);
  return text.substr(start, end == std::string::npos ? std::string::npos : end - start);
}

std::optional<pid_t> number(const std::string &text) {
  if (text.empty() || text.size() > 10) return std::nullopt;
  char *end = nullptr;
  unsigned long value = std::strtoul(text.c_str(), &end, 10);
  if (*end != '\0' || value == 0 || value > 0x7FFFFFFFul) return std::nullopt;
  return static_cast<pid_t>(value);
}

pid_t peer_pid_of(int socket) {
  struct ucred cred {};
  socklen_t size = sizeof(cred);
  if (getsockopt(socket, SOL_SOCKET, SO_PEERCRED, &cred, &size) != 0) return 0;
  return cred.pid;
}

}  // namespace

// ------------------------------------------------------------------ reports

void ReportSink::report(pid_t pid, const std::string &process_name, const std::string &level,
                        const std::string &text) {
  std::lock_guard lock(mutex_);
  if (level == "error") errors_++;
  else if (level == "warning") warnings_++;
  else if (level == "info") infos_++;
  std::string who = pid ? " [" + std::to_string(pid) + (process_name.empty() ? "" : " " + process_name) + "]" : "";
  std::cerr << "vorx: " << level << who << ": " << text << std::endl;
}

unsigned ReportSink::count(const std::string &level) const {
  std::lock_guard lock(mutex_);
  if (level == "error") return errors_;
  if (level == "warning") return warnings_;
  if (level == "info") return infos_;
  return 0;
}

// ------------------------------------------------------------ process lookups

std::string process_name(pid_t pid) {
  char link[4096];
  std::string exe = "/proc/" + std::to_string(pid) + "/exe";
  ssize_t n = readlink(exe.c_str(), link, sizeof(link) - 1);
  if (n > 0) {
    std::string path(link, (size_t)n);
    constexpr std::string_view kDeleted = " (deleted)";
    if (path.ends_with(kDeleted)) path.resize(path.size() - kDeleted.size());
    return path.substr(path.find_last_of('/') + 1);
  }
  std::ifstream comm("/proc/" + std::to_string(pid) + "/comm");
  std::string name;
  std::getline(comm, name);
  return name;
}

// ------------------------------------------------------------------- server

RunServer::RunServer(ConfigurationPtr base, ProcessTable &processes, ReportSink &reports)
    : base_(std::move(base)), processes_(processes), reports_(reports) {}

RunServer::~RunServer() { stop(); }

bool RunServer::start(uint32_t id, std::string &error) {
  id_ = id;
  comm_init();
  vorx_er_t result = comm_server_establish(&server_, kDomain, id);
  if (result != vorx_er_success) {
    comm_fini();
    error = "cannot listen as " + name() +
            (result == vorx_er_connection_failure ? ": the name is in use or sockets are unavailable"
                                                  : ": the name is too long");
    return false;
  }
  listening_ = true;
  stopping_ = false;
  acceptor_ = std::thread([this] { accept_loop(); });
  return true;
}

void RunServer::stop() {
  if (!listening_) return;
  stopping_ = true;
  // wakes the acceptor's poll at once instead of at its next timeout: the run ends without that wait
  shutdown(server_.socket, SHUT_RDWR);
  if (acceptor_.joinable()) acceptor_.join();
  {
    std::lock_guard lock(connections_mutex_);
    for (Connection &c : connections_)
      if (!c.done && c.socket >= 0) shutdown(c.socket, SHUT_RDWR);
  }
  for (Connection &c : connections_)
    if (c.thread.joinable()) c.thread.join();
  connections_.clear();
  comm_server_destroy(&server_);
  comm_fini();
  listening_ = false;
}

void RunServer::accept_loop() {
  // A child's death is the supervisor's to hear, on the main thread: this thread and the connections it
  // starts keep SIGCHLD blocked, so that it never interrupts their socket calls (a frame's read gives up
  // after a few interruptions).
  sigset_t child;
  sigemptyset(&child);
  sigaddset(&child, SIGCHLD);
  pthread_sigmask(SIG_BLOCK, &child, nullptr);
  while (!stopping_) {
    reap_finished_connections();
    struct pollfd pfd = {server_.socket, POLLIN, 0};
    int ready = poll(&pfd, 1, 100);
    if (ready <= 0 || !(pfd.revents & POLLIN)) continue;
    // accepted and listed under one lock, so that drained() never sees a connection between the two
    std::lock_guard lock(connections_mutex_);
    comm_client client;
    if (comm_server_wait_client(&server_, &client) != vorx_er_success) continue;
    struct timeval timeout = {receive_timeout_ms_ / 1000, (receive_timeout_ms_ % 1000) * 1000};
    setsockopt(client.socket, SOL_SOCKET, SO_RCVTIMEO, &timeout, sizeof(timeout));
    setsockopt(client.socket, SOL_SOCKET, SO_SNDTIMEO, &timeout, sizeof(timeout));
    Connection &c = connections_.emplace_back();
    c.socket = client.socket;
    c.thread = std::thread([this, client, &c] {
      serve(client);
      c.done = true;
    });
  }
}

bool RunServer::drained() {
  if (!listening_) return true;
  std::lock_guard lock(connections_mutex_);
  for (const Connection &c : connections_)
    if (!c.done) return false;
  struct pollfd pfd = {server_.socket, POLLIN, 0};
  return poll(&pfd, 1, 0) == 0;
}

void RunServer::reap_finished_connections() {
  std::lock_guard lock(connections_mutex_);
  for (auto it = connections_.begin(); it != connections_.end();) {
    if (it->done) {
      it->thread.join();
      it = connections_.erase(it);
    } else {
      ++it;
    }
  }
}

// Serves every frame of one connection until the peer closes it, breaks a
// frame, or stays silent past the timeout.
void RunServer::serve(comm_client client) {
  pid_t peer = peer_pid_of(client.socket);
  sal_allocator allocator;
  sal_allocator_init(&allocator, sal_allocator_type_heap, kMaxFrame);
  for (;;) {
    void *frame = nullptr;
    uint32_t length = 0;
    if (comm_client_recv(&client, &frame, &length, &allocator) != vorx_er_success) {
      if (client.pending_length)
        reports_.report(peer, process_name(peer), "warning",
                        "dropped a connection that announced a frame of " +
                            std::to_string(client.pending_length) + " bytes");
      break;
    }
    std::string text(static_cast<const char *>(frame), length);
    sal_allocator_free(&allocator);
    // Control-style peers send the NUL along; the collector does not.
    if (!text.empty() && text.back() == '\0') text.pop_back();
    // No reply: a report, the peer closes. An empty reply: the command
    // cannot be answered, and closing is the answer the client understands.
    std::optional<std::string> reply = handle(text, peer);
    if (!reply) continue;
    if (reply->empty() ||
        comm_client_send(&client, reply->data(), (uint32_t)reply->size()) != vorx_er_success)
      break;
  }
  sal_allocator_destroy(&allocator);
  comm_client_destroy(&client);
}

// The root can ask before the launcher has told its pid: fork and exec
// return in the launcher only after the new program is already starting.
pid_t RunServer::wait_for_root_pid() const {
  for (int i = 0; i < 2000 && root_pid_ == 0 && !stopping_; i++)
    std::this_thread::sleep_for(std::chrono::milliseconds(1));
  return root_pid_;
}

std::string RunServer::configuration_packet(pid_t pid, pid_t parent) {
  ConfigurationPtr conf(base_->ops->clone(base_.get()));
  if (!conf) return {};
  std::string name = process_name(pid);
  bool ignored = false;
  for (size_t i = 0; conf->ignored_processes && conf->ignored_processes[i]; i++)
    ignored = ignored || name == conf->ignored_processes[i];
  conf->origin_process_id = (int32_t)pid;
  conf->process_id = (int32_t)pid;
  conf->parent_process_id = (int32_t)parent;
  conf->is_root_process = pid == wait_for_root_pid();
  conf->profile_process = !ignored;
  processes_.on_config(pid, parent, name, !ignored);

  vorx_configuration_packager *packager = vorx_alloc_configuration_packager();
  if (!packager) return {};
  size_t size = 0;
  const void *packet = packager->ops->pack(packager, conf.get(), &size);
  std::string out = packet ? std::string(static_cast<const char *>(packet), size) : std::string();
  vorx_free_configuration_packager(packager);
  return out;
}

// "1234 trace records were lost: the results directory refused them (full, read-only, or no longer writable
// by the program)".
std::string describe_lost_records(std::uint64_t lost, unsigned causes) {
  std::vector<std::string> reasons;
  if (causes & 1) reasons.push_back("the results directory refused them (full, read-only, or no longer writable by the program)");
  if (causes & 2) reasons.push_back("the collector's memory for them ran out");
  if (causes & 4) reasons.push_back("they were too large to keep");
  std::string text = std::to_string(lost) + (lost == 1 ? " trace record was" : " trace records were") + " lost";
  for (size_t i = 0; i < reasons.size(); i++) text += (i ? "; " : ": ") + reasons[i];
  return text;
}

void RunServer::report_lost_records(pid_t pid, std::uint64_t lost, unsigned causes) {
  std::string name;
  if (auto p = processes_.find(pid)) name = p->name;
  reports_.report(pid, name, "warning", describe_lost_records(lost, causes));
}

std::optional<std::string> RunServer::handle_report(const std::string &word,
                                                    const std::string &body, pid_t peer_pid) {
  std::string name;
  if (auto p = processes_.find(peer_pid)) name = p->name;
  if (name.empty() && peer_pid) name = process_name(peer_pid);
  reports_.report(peer_pid, name, word, render_message(body));
  return std::nullopt;
}

std::optional<std::string> RunServer::handle(const std::string &text, pid_t peer_pid) {
  size_t colon = text.find(':');
  std::string word = text.substr(0, colon);
  std::string body = colon == std::string::npos ? std::string() : text.substr(colon + 1);
  switch (vorx_string_to_command(word.c_str())) {
    case vorx_command_config: {
      auto pid = number(field(text, 1));
      auto parent = number(field(text, 2));
      if (!pid) break;
      std::string packet = configuration_packet(*pid, parent.value_or(0));
      if (packet.empty())
        reports_.report(*pid, process_name(*pid), "error",
                        "cannot build the configuration packet; the process runs without collection");
      return packet;
    }
    case vorx_command_ready:
      if (auto pid = number(body)) {
        processes_.on_ready(*pid);
        return kDone;
      }
      break;
    case vorx_command_end:
      if (auto pid = number(field(text, 1))) {
        std::uint64_t lost = std::strtoull(field(text, 2).c_str(), nullptr, 10);
        unsigned causes = (unsigned)std::strtoul(field(text, 3).c_str(), nullptr, 10);
        processes_.on_end(*pid, lost, causes);
        if (lost) report_lost_records(*pid, lost, causes);
        return kDone;
      }
      break;
    case vorx_command_new: {
      auto child = number(field(text, 1));
      auto parent = number(field(text, 2));
      if (!child) break;
      processes_.on_new(*child, parent.value_or(0));
      return kDone;
    }
    case vorx_command_state: {
      std::string name;
      if (auto p = processes_.find(peer_pid)) name = p->name;
      reports_.report(peer_pid, name, "note", "the program asks to " + body + " the collection");
      return kDone;
    }
    case vorx_command_symfile:
      if (body.empty()) break;
      return symbol_file_for(body);
    case vorx_command_error:
    case vorx_command_warning:
    case vorx_command_info:
      return handle_report(word, body, peer_pid);
    default:
      break;
  }
  std::string shown = text.substr(0, 80);
  for (char &ch : shown)
    if (ch < 0x20 || ch > 0x7E) ch = '?';
  reports_.report(peer_pid, process_name(peer_pid), "warning",
                  "refused a command the server does not know: '" + shown + "'");
  return kFail;
}

}  // namespace vorx::server
