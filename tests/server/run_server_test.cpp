// The run-tool server in-process, spoken to over real sockets: replies to
// every command, the configuration it hands out, readable reports, and its
// robustness against broken clients.
#include <gtest/gtest.h>

#include <sys/socket.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <thread>

#include "control.hpp"
#include "manifest.hpp"
#include "messages.hpp"
#include "options.hpp"
#include "process_table.hpp"
#include "run_server.hpp"
#include "vorx_client.h"
#include "vorx_comm.h"

using namespace vorx::server;

namespace {

struct Allocator {
  sal_allocator a;
  Allocator() { sal_allocator_init(&a, sal_allocator_type_heap, SAL_ALLOCATOR_NO_LIMIT); }
  ~Allocator() { sal_allocator_destroy(&a); }
  sal_allocator *get() { return &a; }
};

class CapturingSink : public ReportSink {
 public:
  void report(pid_t pid, const std::string &name, const std::string &level,
              const std::string &text) override {
    std::lock_guard lock(mutex_);
    lines.push_back(level + ": " + text);
  }
  std::vector<std::string> wait_lines(size_t n) {
    for (int i = 0; i < 500; i++) {
      {
        std::lock_guard lock(mutex_);
        if (lines.size() >= n) return lines;
      }
      usleep(2000);
    }
    std::lock_guard lock(mutex_);
    return lines;
  }
  std::vector<std::string> lines;
};

uint32_t unique_id() {
  static std::atomic<uint32_t> n{0};
  return 3000000000u + (uint32_t)getpid() % 100000u * 100u + n++;
}

class Server : public ::testing::Test {
 protected:
  ProcessTable processes;
  CapturingSink sink;
  RunOptions options;
  std::unique_ptr<RunServer> server;
  uint32_t id = unique_id();

  void SetUp() override { start(); }
  void start() {
    server = std::make_unique<RunServer>(make_base_configuration(options, "/tmp/results/"),
                                         processes, sink);
    std::string error;
    ASSERT_TRUE(server->start(id, error)) << error;
    server->set_root_pid(1);  // some other process is the root
  }

  // One exchange as the collector makes it: connect, send, read the reply.
  std::optional<std::string> exchange(const std::string &text) {
    comm_client c;
    if (comm_client_connect(&c, RunServer::kDomain, id) != vorx_er_success) return std::nullopt;
    EXPECT_EQ(comm_client_send(&c, text.data(), (uint32_t)text.size()), vorx_er_success);
    Allocator alloc;
    void *frame;
    uint32_t length;
    std::optional<std::string> reply;
    if (comm_client_recv(&c, &frame, &length, alloc.get()) == vorx_er_success)
      reply.emplace(static_cast<char *>(frame), length);
    comm_client_destroy(&c);
    return reply;
  }
  void send_only(const std::string &text) {
    comm_client c;
    ASSERT_EQ(comm_client_connect(&c, RunServer::kDomain, id), vorx_er_success);
    ASSERT_EQ(comm_client_send(&c, text.data(), (uint32_t)text.size()), vorx_er_success);
    comm_client_destroy(&c);
  }
};

TEST_F(Server, NameIsTheDomainAndTheId) {
  EXPECT_EQ(server->name(), "vorx_server." + std::to_string(id));
  // A second server on the same name is refused with a reason.
  RunServer twin(make_base_configuration(options, "/tmp/x/"), processes, sink);
  std::string error;
  EXPECT_FALSE(twin.start(id, error));
  EXPECT_NE(error.find("in use"), std::string::npos);
}

TEST_F(Server, LifecycleCommandsAreAcknowledgedAndTracked) {
  EXPECT_EQ(exchange("new:4243:4242"), "done");
  EXPECT_EQ(exchange("ready:4243"), "done");
  ASSERT_TRUE(processes.find(4243));
  EXPECT_TRUE(processes.find(4243)->ready);
  EXPECT_EQ(processes.find(4243)->parent, 4242);
  EXPECT_TRUE(processes.anyone_pending());
  EXPECT_EQ(exchange("end:4243"), "done");
  EXPECT_FALSE(processes.anyone_pending());
  EXPECT_EQ(exchange("state:Pause"), "done");
}

// A process that dropped trace records says how many at its end: the count is kept per process, summed
// over its images, and named in a warning with its causes.
TEST_F(Server, AnEndCarriesTheRecordsTheProcessLost) {
  EXPECT_EQ(exchange("ready:4243"), "done");
  EXPECT_EQ(exchange("end:4243:1234:3"), "done");
  EXPECT_EQ(processes.find(4243)->records_lost, 1234u);
  auto lines = sink.wait_lines(1);
  ASSERT_EQ(lines.size(), 1u);
  EXPECT_EQ(lines[0], "warning: 1234 trace records were lost: the results directory refused them (full, read-only, "
                      "or no longer writable by the program); the collector's memory for them ran out");
  EXPECT_EQ(exchange("ready:4243"), "done");  // an image after exec
  EXPECT_EQ(exchange("end:4243:1:4"), "done");
  EXPECT_EQ(processes.find(4243)->records_lost, 1235u);
  EXPECT_EQ(processes.find(4243)->loss_causes, 7u);
  EXPECT_EQ(exchange("end:4244:0:0"), "done");
  EXPECT_EQ(exchange("end:4245"), "done");
  EXPECT_EQ(sink.wait_lines(3).size(), 2u) << "no warning without a loss";

  RunRecord run;
  run.processes = processes.snapshot();
  EXPECT_EQ(run.records_lost(), 1235u);
}

TEST_F(Server, UnknownOrMalformedCommandsAreRefused) {
  EXPECT_EQ(exchange("statex:Pause"), "fail");
  EXPECT_EQ(exchange("ready:"), "fail");
  EXPECT_EQ(exchange("ready:abc"), "fail");
  EXPECT_EQ(exchange("new::1"), "fail");
  EXPECT_EQ(exchange("config:0:1:1"), "fail");
  EXPECT_EQ(sink.wait_lines(5).size(), 5u);
}

TEST_F(Server, ConfigIsThePacketOfThisProcess) {
  server->set_root_pid(getpid());
  auto reply = exchange("config:" + std::to_string(getpid()) + ":" + std::to_string(getppid()) + ":1");
  ASSERT_TRUE(reply);
  vorx_configuration_packager *packager = vorx_alloc_configuration_packager();
  vorx_configuration *conf = packager->ops->unpack(packager, reply->data(), reply->size());
  ASSERT_NE(conf, nullptr);
  EXPECT_STREQ(conf->data_dir, "/tmp/results/");
  EXPECT_TRUE(conf->is_root_process);
  EXPECT_TRUE(conf->profile_process);
  EXPECT_EQ(conf->process_id, (int32_t)getpid());
  EXPECT_EQ(conf->parent_process_id, (int32_t)getppid());
  EXPECT_TRUE(vorx_conf_has_collection(conf, vorx_cl_cpu));
  EXPECT_EQ(conf->sampling_interval, 10u);
  EXPECT_EQ(conf->sampling_signal, 27u);
  EXPECT_EQ(conf->time_source, resolved_time_source("auto") == "tsc" ? 1u : 2u);
  vorx_free_configuration(conf);
  vorx_free_configuration_packager(packager);
  ASSERT_TRUE(processes.find(getpid()));
  EXPECT_EQ(processes.find(getpid())->configs, 1u);
}

TEST_F(Server, IgnoredProgramsGetACollectionFreeConfiguration) {
  server.reset();
  options.ignored = {process_name(getpid())};
  start();
  auto reply = exchange("config:" + std::to_string(getpid()) + ":1:1");
  ASSERT_TRUE(reply);
  vorx_configuration_packager *packager = vorx_alloc_configuration_packager();
  vorx_configuration *conf = packager->ops->unpack(packager, reply->data(), reply->size());
  ASSERT_NE(conf, nullptr);
  EXPECT_FALSE(conf->profile_process);
  EXPECT_FALSE(conf->is_root_process);
  vorx_free_configuration(conf);
  vorx_free_configuration_packager(packager);
  EXPECT_FALSE(processes.anyone_pending());  // nobody waits for an ignored process
}

TEST_F(Server, SymfileAnswersWithAPath) {
  EXPECT_EQ(exchange("symfile:/definitely/not/here"), "/definitely/not/here");
  EXPECT_EQ(exchange("symfile:"), "fail");
}

TEST_F(Server, ReportsArePrintedReadablyAndGetNoReply) {
  send_only("error:<?xml ?><msg name='78'><arg name='symbol' value='poll' /></msg>");
  send_only("warning:<?xml ?><msg name='5'></msg>");
  send_only("info:not a message at all");
  auto lines = sink.wait_lines(3);
  std::sort(lines.begin(), lines.end());
  EXPECT_EQ(lines, (std::vector<std::string>{
                       "error: Valid poll symbol is not found in the binary of the analysis target.",
                       "info: not a message at all", "warning: Incorrect log level"}));
}

// Raw bytes on a fresh connection, for frames the layer would never send.
int raw_connection(uint32_t id) {
  comm_client c;
  EXPECT_EQ(comm_client_connect(&c, RunServer::kDomain, id), vorx_er_success);
  return c.socket;
}

TEST_F(Server, AFrameLongerThanWhatIsSentEndsOnlyThatConnection) {
  int fd = raw_connection(id);
  uint32_t length = 1000;
  ASSERT_EQ(send(fd, &length, 4, MSG_NOSIGNAL), 4);
  ASSERT_EQ(send(fd, "ready:4242", 10, MSG_NOSIGNAL), 10);
  close(fd);
  // Half a header, then gone.
  fd = raw_connection(id);
  ASSERT_EQ(send(fd, "\x05\x00", 2, MSG_NOSIGNAL), 2);
  close(fd);
  EXPECT_EQ(exchange("ready:77"), "done");
  EXPECT_FALSE(processes.find(4242));
}

// The run ends without waiting once nothing is in flight: a connection still open or not yet accepted
// keeps it going.
TEST_F(Server, DrainedOnlyWhenEveryConnectionHasClosed) {
  EXPECT_TRUE(server->drained());
  int fd = raw_connection(id);
  EXPECT_FALSE(server->drained());
  uint32_t length = 10;
  ASSERT_EQ(send(fd, &length, 4, MSG_NOSIGNAL), 4);
  ASSERT_EQ(send(fd, "ready:4243", 10, MSG_NOSIGNAL), 10);
  close(fd);
  for (int i = 0; i < 500 && !server->drained(); ++i) usleep(1000);
  EXPECT_TRUE(server->drained());
  EXPECT_TRUE(processes.find(4243)) << "what the closed connection sent was read first";
}

TEST_F(Server, ASilentClientDoesNotHoldOthersUp) {
  server.reset();
  server = std::make_unique<RunServer>(make_base_configuration(options, "/tmp/r/"), processes, sink);
  server->set_receive_timeout_ms(300);
  std::string error;
  ASSERT_TRUE(server->start(id, error));
  int stalled = raw_connection(id);
  uint32_t length = 64;
  ASSERT_EQ(send(stalled, &length, 4, MSG_NOSIGNAL), 4);
  auto begin = std::chrono::steady_clock::now();
  EXPECT_EQ(exchange("ready:5"), "done");
  EXPECT_LT(std::chrono::steady_clock::now() - begin, std::chrono::milliseconds(250));
  // The stalled connection is closed by the server after its timeout.
  char byte;
  EXPECT_EQ(recv(stalled, &byte, 1, 0), 0);
  close(stalled);
}

TEST_F(Server, AnAbsurdFrameLengthIsRefused) {
  int fd = raw_connection(id);
  uint32_t length = 0xFFFFFFF0u;
  ASSERT_EQ(send(fd, &length, 4, MSG_NOSIGNAL), 4);
  char byte;
  EXPECT_EQ(recv(fd, &byte, 1, 0), 0);  // closed at once, nothing allocated
  close(fd);
  auto lines = sink.wait_lines(1);
  ASSERT_EQ(lines.size(), 1u);
  EXPECT_NE(lines[0].find("4294967280 bytes"), std::string::npos);
}

// The collector's own client against the real server: every operation
// gets the answer the client expects, and the server keeps track.
class ClientAgainstServer : public Server {
 protected:
  void SetUp() override {
    id = (uint32_t)getpid() % 100000u + 1900000000u + unique_id() % 100u;
    Server::SetUp();
    client = vorx_alloc_client(server->name().c_str());
  }
  void TearDown() override { vorx_free_client(client); }
  vorx_client *client = nullptr;
};

TEST_F(ClientAgainstServer, EveryOperationIsAnswered) {
  server->set_root_pid(getpid());
  Allocator alloc;
  void *packet = nullptr;
  vorx_size_t length = 0;
  ASSERT_EQ(client->ops->get_configuration(client, &packet, &length, alloc.get()), vorx_er_success);
  vorx_configuration_packager *packager = vorx_alloc_configuration_packager();
  vorx_configuration *conf = packager->ops->unpack(packager, packet, length);
  ASSERT_NE(conf, nullptr);
  EXPECT_TRUE(conf->is_root_process);
  vorx_free_configuration(conf);
  vorx_free_configuration_packager(packager);

  EXPECT_EQ(vorx_client_notify(client, vorx_command_ready), vorx_er_success);
  EXPECT_TRUE(processes.find(getpid())->ready);
  EXPECT_EQ(client->ops->notify_new_process(client, (uint32_t)getpid(), 54321), vorx_er_success);
  EXPECT_TRUE(processes.find(54321)->announced);
  EXPECT_EQ(processes.find(54321)->parent, getpid());
  EXPECT_EQ(client->ops->change_profiling_state(client, "Resume"), vorx_er_success);
  char *symbols = nullptr;
  Allocator text_alloc;
  EXPECT_EQ(client->ops->load_symbol_file(client, "/no/such/binary", &symbols, text_alloc.get()),
            vorx_er_success);
  EXPECT_STREQ(symbols, "/no/such/binary");
  EXPECT_EQ(client->ops->log_message(client, "<?xml ?><msg name='36'></msg>", 29, vorx_severity_error),
            vorx_er_success);
  EXPECT_EQ(vorx_client_notify(client, vorx_command_end), vorx_er_success);
  EXPECT_TRUE(processes.find(getpid())->ended);
  EXPECT_EQ(vorx_client_notify_end(client, 7, 2), vorx_er_success);
  EXPECT_EQ(processes.find(getpid())->records_lost, 7u);
  auto lines = sink.wait_lines(2);
  EXPECT_NE(std::find(lines.begin(), lines.end(), "error: Cannot notify server about process spawning."),
            lines.end());
  EXPECT_NE(std::find(lines.begin(), lines.end(), "note: the program asks to Resume the collection"),
            lines.end());
}

TEST_F(ClientAgainstServer, AStoppedServerIsAConnectionFailure) {
  server->stop();
  EXPECT_EQ(vorx_client_notify(client, vorx_command_ready), vorx_er_connection_failure);
  EXPECT_EQ(client->ops->log_message(client, "x", 1, vorx_severity_info), vorx_er_connection_failure);
}

// Debug files are found by build id first, then by path.
TEST(Symbols, DebugFileByBuildIdThenByPath) {
  char templ[] = "/tmp/vorx_debug_root_XXXXXX";
  ASSERT_NE(mkdtemp(templ), nullptr);
  std::string root = templ;
  std::string self = "/proc/self/exe";
  char target[4096];
  ssize_t n = readlink(self.c_str(), target, sizeof(target) - 1);
  ASSERT_GT(n, 0);
  std::string binary(target, (size_t)n);
  auto id = elf_build_id(binary);
  ASSERT_TRUE(id) << "the test binary is built with a build id";
  EXPECT_EQ(id->size(), 40u);

  EXPECT_EQ(symbol_file_for(binary, root), binary);  // nothing installed
  std::string by_path = root + binary + ".debug";
  std::filesystem::create_directories(std::filesystem::path(by_path).parent_path());
  std::ofstream(by_path) << "x";
  EXPECT_EQ(symbol_file_for(binary, root), by_path);
  std::string by_id = root + "/.build-id/" + id->substr(0, 2) + "/" + id->substr(2) + ".debug";
  std::filesystem::create_directories(std::filesystem::path(by_id).parent_path());
  std::ofstream(by_id) << "x";
  EXPECT_EQ(symbol_file_for(binary, root), by_id);
  std::filesystem::remove_all(root);

  EXPECT_FALSE(elf_build_id("/proc/self/status"));  // not an ELF file
  EXPECT_EQ(symbol_file_for("relative/path", root), "relative/path");
}

// vorx pause|resume|stop speak to a control loop as the collector runs it.
const char *answer_state_and_stop(const char *command, sal_allocator *allocator, void *) {
  bool known = std::strcmp(command, "state:Pause") == 0 || std::strcmp(command, "state:Resume") == 0 ||
               std::strcmp(command, "stop") == 0;
  return comm_control_handler_respond_with_status(known, allocator, nullptr);
}

TEST(ControlCommands, DoneRefusedAndUnreachable) {
  pid_t fake_pid = (pid_t)(1800000000u + (uint32_t)getpid() % 100000u);
  EXPECT_EQ(send_control_command(fake_pid, "state:Pause"), ControlResult::unreachable);
  comm_control_state state{};
  comm_control_server_init(&state);
  std::thread loop([&] {
    comm_control_server_loop(&state, answer_state_and_stop, kControlDomain, (uint32_t)fake_pid, "", nullptr);
  });
  while (!state.established) std::this_thread::yield();
  std::string response;
  EXPECT_EQ(send_control_command(fake_pid, "state:Pause", &response), ControlResult::done);
  EXPECT_EQ(response, "done");
  EXPECT_EQ(send_control_command(fake_pid, "state:Resume"), ControlResult::done);
  EXPECT_EQ(send_control_command(fake_pid, "stop"), ControlResult::done);
  EXPECT_EQ(send_control_command(fake_pid, "reattach:x.1"), ControlResult::refused);
  EXPECT_TRUE(comm_control_server_loop_break(&state));
  loop.join();
}

TEST(ProcessTable, WaitsForOpenCollectionsAndAnnouncedProcesses) {
  ProcessTable t;
  t.on_new(10, 1);
  EXPECT_TRUE(t.anyone_pending());  // announced, config still to come
  t.on_config(10, 1, "app", true);
  EXPECT_TRUE(t.anyone_pending());
  t.on_ready(10);
  t.on_end(10);
  EXPECT_FALSE(t.anyone_pending());
  t.on_config(10, 1, "app", true);  // a new image after exec starts over
  t.on_ready(10);
  EXPECT_TRUE(t.anyone_pending());
  auto gone = t.sweep([](pid_t) { return false; });
  ASSERT_EQ(gone.size(), 1u);
  EXPECT_EQ(gone[0].pid, 10);
  EXPECT_FALSE(t.anyone_pending());
  t.on_config(11, 1, "ignored", false);
  EXPECT_FALSE(t.anyone_pending());
}

TEST(ProcessTable, ExitStatusesAreKept) {
  ProcessTable t;
  t.on_config(12, 1, "app", true);
  auto p = t.on_exit(12, 11);  // killed by signal 11
  ASSERT_TRUE(p);
  EXPECT_TRUE(p->dead);
  EXPECT_EQ(p->exit_signal, 11);
  EXPECT_NE(describe_exit(*p).find("signal 11"), std::string::npos);
  EXPECT_FALSE(t.on_exit(99, 0));
}

TEST(Messages, ArgumentsComeInTheirOrder) {
  EXPECT_EQ(render_message("<?xml ?><msg name='14'><arg name='time_mark' value='T' />"
                           "<arg name='img_name' value='libm.so' /></msg>"),
            "[T] libm.so module processing scheduled...");
  EXPECT_EQ(render_message("<?xml ?><msg name='18'><arg name='signum' value='27' /></msg>")
                .substr(0, 46),
            "Application sets its own handler for signal 27");
  // Unknown ids and texts that are not messages come out as they are.
  EXPECT_EQ(render_message("<?xml ?><msg name='9999'></msg>"), "<?xml ?><msg name='9999'></msg>");
  EXPECT_EQ(render_message("<?xml ?><msg name='78'><arg name='symbol' value='x'"),
            "<?xml ?><msg name='78'><arg name='symbol' value='x'");
  EXPECT_FALSE(parse_message("<?xml ?><msg name='x'></msg>"));
}

TEST(Options, MakeTheConfiguration) {
  RunOptions o;
  o.collections = {"threading", "opengles"};
  o.interval_ms = 5;
  o.paused = true;
  o.no_follow = true;
  o.shared_files = true;
  o.wait_threshold_us = 3;
  o.time_source = "system";
  o.contention_filter = true;
  o.environment = {"A=1", "B=x=y"};
  o.ignored = {"sh"};
  ConfigurationPtr c = make_base_configuration(o, "/r/");
  EXPECT_FALSE(vorx_conf_has_collection(c.get(), vorx_cl_cpu));
  EXPECT_TRUE(vorx_conf_has_collection(c.get(), vorx_cl_threading));
  EXPECT_TRUE(vorx_conf_has_collection(c.get(), vorx_cl_opengles));
  EXPECT_EQ(c->sampling_interval, 5u);
  EXPECT_EQ(c->state, (uint32_t)vorx_st_paused);
  EXPECT_FALSE(c->follow_children);
  EXPECT_EQ(c->per_thread_files, 0u);
  EXPECT_EQ(c->sync_thresholds[vorx_sth_wait].threshold, 3000u);  // system clock: ns
  EXPECT_EQ(c->sync_thresholds[vorx_sth_contention_filter].threshold, 1u);
  ASSERT_NE(c->environment, nullptr);
  EXPECT_STREQ(c->environment[0], "A");
  EXPECT_STREQ(c->environment[3], "x=y");
  EXPECT_EQ(c->environment[4], nullptr);
  EXPECT_STREQ(c->ignored_processes[0], "sh");
  EXPECT_STREQ(c->data_dir, "/r/");
}

}  // namespace
