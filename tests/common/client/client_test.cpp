// The client against a recording server over real sockets: the exact command
// texts, the replies and the failure results.
#include <gtest/gtest.h>

#include <sys/socket.h>
#include <unistd.h>

#include <atomic>
#include <cstring>
#include <mutex>
#include <optional>
#include <string>
#include <thread>
#include <vector>

#include "vorx_client.h"
#include "vorx_comm.h"
#include "vorx_config.h"
#include "vorx_log.h"

namespace {

struct Allocator {
  sal_allocator a;
  Allocator() { sal_allocator_init(&a, sal_allocator_type_heap, SAL_ALLOCATOR_NO_LIMIT); }
  ~Allocator() { sal_allocator_destroy(&a); }
  sal_allocator *get() { return &a; }
};

// Accepts connections, keeps each frame's text and answers with `reply`:
// a text, nothing at all, or (empty_frame) a frame of length 0.
class RecordingServer {
 public:
  RecordingServer() {
    static std::atomic<int> n{0};
    domain_ = "vorx_ctest_" + std::to_string(getpid()) + "_" + std::to_string(n++) + ".";
    EXPECT_EQ(comm_server_establish(&server_, domain_.c_str(), 77), vorx_er_success);
    thread_ = std::thread([this] { loop(); });
  }
  ~RecordingServer() {
    stop_ = true;
    shutdown(server_.socket, SHUT_RDWR);
    thread_.join();
    comm_server_destroy(&server_);
  }
  std::string name() const { return domain_ + "77"; }
  std::vector<std::string> texts() {
    std::lock_guard lock(mutex_);
    return texts_;
  }
  // Waits until n frames have come.
  std::vector<std::string> wait_texts(size_t n) {
    for (int i = 0; i < 500 && texts().size() < n; i++) usleep(2000);
    return texts();
  }
  std::optional<std::string> reply = std::string("done");
  bool empty_frame = false;

 private:
  void loop() {
    while (!stop_) {
      comm_client c;
      if (comm_server_wait_client(&server_, &c) != vorx_er_success) return;
      Allocator alloc;
      void *frame;
      uint32_t length;
      if (comm_client_recv(&c, &frame, &length, alloc.get()) == vorx_er_success) {
        {
          std::lock_guard lock(mutex_);
          texts_.emplace_back(static_cast<char *>(frame), length);
        }
        if (empty_frame) {
          uint32_t zero = 0;
          send(c.socket, &zero, 4, MSG_NOSIGNAL);
        } else if (reply) {
          comm_client_send(&c, reply->data(), (uint32_t)reply->size());
        }
      }
      comm_client_destroy(&c);
    }
  }
  std::string domain_;
  comm_server server_{};
  std::thread thread_;
  std::atomic<bool> stop_{false};
  std::mutex mutex_;
  std::vector<std::string> texts_;
};

struct ClientDeleter {
  void operator()(vorx_client *c) const { vorx_free_client(c); }
};
using ClientPtr = std::unique_ptr<vorx_client, ClientDeleter>;

std::string pid_text() { return std::to_string(getpid()); }

TEST(ClientName, DomainKeepsTheLastDotAndTheIdFollows) {
  ClientPtr c(vorx_alloc_client("a.b.77"));
  EXPECT_STREQ(c->domain, "a.b.");
  EXPECT_EQ(c->server_pid, 77u);
  ClientPtr d(vorx_alloc_client("vorx_server.1234"));
  EXPECT_STREQ(d->domain, "vorx_server.");
  EXPECT_EQ(d->server_pid, 1234u);
}

TEST(ClientNameDeathTest, NameWithoutDotOrWithIdZeroIsRefused) {
  EXPECT_DEATH(vorx_alloc_client("nodot"), "dot != \\(\\(void \\*\\)0\\)");
  EXPECT_DEATH(vorx_alloc_client("server.0"), "server_pid != 0");
  EXPECT_DEATH(vorx_alloc_client("server.x"), "server_pid != 0");
  EXPECT_DEATH(vorx_alloc_client(nullptr), "server_name != \\(\\(void \\*\\)0\\)");
}

class ClientCommands : public ::testing::Test {
 protected:
  RecordingServer server;
  ClientPtr client{vorx_alloc_client(server.name().c_str())};
};

// The texts are what the server parses: each command, its ids and its words.
TEST_F(ClientCommands, EachCommandSendsItsText) {
  EXPECT_EQ(client->ops->notify(client.get(), vorx_command_ready), vorx_er_success);
  EXPECT_EQ(client->ops->notify(client.get(), vorx_command_end), vorx_er_success);
  EXPECT_EQ(client->ops->notify_new_process(client.get(), 5, 6), vorx_er_success);
  // A state word is checked by its prefix only.
  for (const char *state : {"Pause", "Pausexyz", "Detach"})
    EXPECT_EQ(client->ops->change_profiling_state(client.get(), state), vorx_er_success);
  server.reply = std::string("/usr/lib/debug/bin/ls.debug");
  Allocator alloc;
  char *text = nullptr;
  ASSERT_EQ(client->ops->load_symbol_file(client.get(), "/bin/ls", &text, alloc.get()),
            vorx_er_success);
  EXPECT_STREQ(text, "/usr/lib/debug/bin/ls.debug");
  EXPECT_EQ(server.texts(),
            (std::vector<std::string>{"ready:" + pid_text(), "end:" + pid_text(), "new:6:5",
                                      "state:Pause", "state:Pausexyz", "state:Detach",
                                      "symfile:/bin/ls"}));
}

TEST_F(ClientCommands, ConfigAsksWithPidAndParentAndNeedsABody) {
  server.reply = std::string("PACKET");
  Allocator alloc;
  void *packet = nullptr;
  vorx_size_t length = 0;
  ASSERT_EQ(client->ops->get_configuration(client.get(), &packet, &length, alloc.get()),
            vorx_er_success);
  EXPECT_EQ(length, 6u);
  EXPECT_STREQ(static_cast<char *>(packet), "PACKET");  // terminated behind its length
  EXPECT_EQ(server.texts().at(0), "config:" + pid_text() + ":" + std::to_string(getppid()) + ":1");

  server.empty_frame = true;
  Allocator fresh;
  EXPECT_EQ(client->ops->get_configuration(client.get(), &packet, &length, fresh.get()),
            vorx_er_general_failure);
}

TEST(ClientStateDeathTest, UnknownStateWordIsABrokenCaller) {
  ClientPtr c(vorx_alloc_client("x.1"));
  EXPECT_DEATH(c->ops->change_profiling_state(c.get(), "Paus"), "is_state_word");
}

TEST_F(ClientCommands, ReportsGoAsTheCommandOfTheirSeverity) {
  server.reply.reset();
  for (uint32_t severity = 0; severity < 4; severity++)
    EXPECT_EQ(client->ops->log_message(client.get(), "m", 1, severity), vorx_er_success);
  EXPECT_EQ(client->ops->log_message(client.get(), "ignored", 0, 2), vorx_er_success);
  EXPECT_EQ(vorx_client_report(client.get(), vorx_severity_error,
                               "<?xml ?><msg name='78'><arg name='symbol' value='%s' /></msg>", "poll"),
            vorx_er_success);
  EXPECT_EQ(vorx_client_report(nullptr, vorx_severity_error, "x"), vorx_er_general_failure);
  EXPECT_EQ(server.wait_texts(6),
            (std::vector<std::string>{"error:m", "error:m", "warning:m", "info:m",
                                      "warning:<?xml ?><msg name='55'></msg>",
                                      "error:<?xml ?><msg name='78'><arg name='symbol' value='poll' /></msg>"}));
}

TEST_F(ClientCommands, SeverityFourIsRefusedWithReportFive) {
  server.reply.reset();
  vorx_client_install_report_hook(client.get());
  EXPECT_EQ(client->ops->log_message(client.get(), "m", 1, 4), vorx_er_general_failure);
  vorx_client_install_report_hook(nullptr);
  EXPECT_EQ(server.wait_texts(1), (std::vector<std::string>{"error:<?xml ?><msg name='5'></msg>"}));
}

TEST(ClientWithoutServer, EveryExchangeIsAConnectionFailure) {
  std::string name = "vorx_ctest_absent_" + std::to_string(getpid()) + ".3";
  ClientPtr c(vorx_alloc_client(name.c_str()));
  Allocator alloc;
  void *packet;
  vorx_size_t length;
  char *text;
  EXPECT_EQ(c->ops->notify(c.get(), vorx_command_ready), vorx_er_connection_failure);
  EXPECT_EQ(c->ops->notify_new_process(c.get(), 1, 2), vorx_er_connection_failure);
  EXPECT_EQ(c->ops->get_configuration(c.get(), &packet, &length, alloc.get()),
            vorx_er_connection_failure);
  EXPECT_EQ(c->ops->load_symbol_file(c.get(), "/x", &text, alloc.get()), vorx_er_connection_failure);
  EXPECT_EQ(c->ops->log_message(c.get(), "m", 1, 1), vorx_er_connection_failure);
}

#ifdef VORX_WITH_CATALOGUE
// vorx_init_configuration fetches, publishes and derives.
TEST(InitConfiguration, PublishesTheServersConfigurationWithItsActiveProbes) {
  RecordingServer server;
  vorx_configuration *conf = vorx_alloc_configuration();
  conf->ops->set_data_dir(conf, "/tmp/r/");
  vorx_conf_add_collection(conf, vorx_cl_threading);
  conf->process_id = 1;  // overwritten by the real ids
  vorx_configuration_packager *packager = vorx_alloc_configuration_packager();
  size_t size = 0;
  const void *packet = packager->ops->pack(packager, conf, &size);
  server.reply = std::string(static_cast<const char *>(packet), size);
  vorx_free_configuration_packager(packager);
  vorx_free_configuration(conf);

  ASSERT_EQ(vorx_init_configuration(server.name().c_str()), vorx_er_success);
  ASSERT_NE(g_vorx_conf, nullptr);
  EXPECT_STREQ(g_vorx_conf->data_dir, "/tmp/r/");
  EXPECT_EQ(g_vorx_conf->process_id, (int32_t)getpid());
  EXPECT_EQ(g_vorx_conf->parent_process_id, (int32_t)getppid());
  bool any = false;
  for (vorx_bitmap_t word : g_vorx_conf->active_probes) any = any || word != 0;
  EXPECT_TRUE(any);  // collection 0's probes at least
  ASSERT_NE(g_vorx_client, nullptr);
  EXPECT_EQ(g_vorx_client->server_pid, 77u);

  // A reattach replaces the configuration as a whole.
  vorx_configuration *first = g_vorx_conf;
  ASSERT_EQ(vorx_init_configuration(server.name().c_str()), vorx_er_success);
  EXPECT_NE(g_vorx_conf, first);
  vorx_client_install_report_hook(nullptr);
}

TEST(InitConfiguration, NoServerLeavesTheConfigurationAlone) {
  vorx_configuration *before = g_vorx_conf;
  std::string name = "vorx_ctest_absent_" + std::to_string(getpid()) + ".4";
  EXPECT_EQ(vorx_init_configuration(name.c_str()), vorx_er_connection_failure);
  EXPECT_EQ(g_vorx_conf, before);
  vorx_client_install_report_hook(nullptr);
}
#endif

}  // namespace
