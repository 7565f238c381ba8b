// The socket layer and the control loop over real abstract unix sockets.
#include <gtest/gtest.h>

#include <sys/socket.h>
#include <unistd.h>

#include <atomic>
#include <cstring>
#include <string>
#include <thread>
#include <vector>

#include "vorx_comm.h"

namespace {

// A heap allocator on the stack that frees its block when it goes.
struct Allocator {
  sal_allocator a;
  explicit Allocator(vorx_size_t max = SAL_ALLOCATOR_NO_LIMIT) {
    sal_allocator_init(&a, sal_allocator_type_heap, max);
  }
  ~Allocator() { sal_allocator_destroy(&a); }
  sal_allocator *get() { return &a; }
};

std::string unique_domain(const char *tag) {
  static std::atomic<int> n{0};
  return std::string("vorx_test_") + tag + "_" + std::to_string(getpid()) + "_" +
         std::to_string(n++) + ".";
}

class Server {
 public:
  explicit Server(const std::string &domain, uint32_t id = 7) {
    result = comm_server_establish(&server, domain.c_str(), id);
  }
  ~Server() { comm_server_destroy(&server); }
  comm_server server{};
  vorx_er_t result;
};

TEST(Address, TextAndLimits) {
  char text[COMM_ADDRESS_SIZE];
  ASSERT_EQ(comm_format_address(text, sizeof(text), "vorx_server.", 1234), vorx_er_success);
  EXPECT_STREQ(text, "/tmp/_server_vorx_server.1234");
  // "/tmp/_server_" is 13 characters: a domain of 94 and a 1-digit id make 108.
  std::string domain(94, 'd');
  EXPECT_EQ(comm_format_address(text, sizeof(text), domain.c_str(), 1), vorx_er_general_failure);
  comm_server server;
  EXPECT_NE(comm_server_establish(&server, domain.c_str(), 1), vorx_er_success);
  domain.pop_back();
  EXPECT_EQ(comm_format_address(text, sizeof(text), domain.c_str(), 1), vorx_er_success);
  EXPECT_EQ(strlen(text), 107u);
}

TEST(Server, LivesInTheAbstractNamespace) {
  std::string domain = unique_domain("abstract");
  Server s(domain, 55);
  ASSERT_EQ(s.result, vorx_er_success);
  EXPECT_EQ(std::string(comm_server_get_ipc_name(&s.server)), domain + "55");
  EXPECT_NE(access(("/tmp/_server_" + domain + "55").c_str(), F_OK), 0);
  // A second server on the same name is refused while the first lives.
  Server twin(domain, 55);
  EXPECT_EQ(twin.result, vorx_er_connection_failure);
}

TEST(Client, NoServerIsAConnectionFailure) {
  comm_client client;
  EXPECT_EQ(comm_client_connect(&client, unique_domain("none").c_str(), 1),
            vorx_er_connection_failure);
  EXPECT_EQ(client.socket, -1);
}

// Runs peer(connection) on the server's side of one connection while body(client) talks to it.
template <typename Peer, typename Body>
void with_peer(const char *tag, Peer peer, Body body) {
  std::string domain = unique_domain(tag);
  Server s(domain);
  ASSERT_EQ(s.result, vorx_er_success);
  std::thread thread([&] {
    comm_client c;
    ASSERT_EQ(comm_server_wait_client(&s.server, &c), vorx_er_success);
    peer(c);
    comm_client_destroy(&c);
  });
  comm_client c;
  EXPECT_EQ(comm_client_connect(&c, domain.c_str(), 7), vorx_er_success);
  if (c.socket >= 0) body(c);
  comm_client_destroy(&c);
  thread.join();
}

TEST(Frames, RoundTripBothWays) {
  auto echo = [](comm_client &c) {
    Allocator alloc;
    void *frame;
    uint32_t length;
    ASSERT_EQ(comm_client_recv(&c, &frame, &length, alloc.get()), vorx_er_success);
    std::string reply = "re:" + std::string(static_cast<char *>(frame), length);
    EXPECT_EQ(comm_client_send(&c, reply.data(), (uint32_t)reply.size()), vorx_er_success);
  };
  with_peer("frames", echo, [](comm_client &c) {
    EXPECT_EQ(comm_client_send(&c, nullptr, 3), vorx_er_general_failure);
    EXPECT_EQ(comm_client_send(&c, "x", 0), vorx_er_general_failure);
    ASSERT_EQ(comm_client_send(&c, "ready:42", 8), vorx_er_success);
    Allocator alloc;
    void *frame;
    uint32_t length;
    ASSERT_EQ(comm_client_recv(&c, &frame, &length, alloc.get()), vorx_er_success);
    EXPECT_EQ(std::string(static_cast<char *>(frame), length), "re:ready:42");
  });
}

TEST(Frames, ShortBodyAndClosedPeerFailWithoutOutput) {
  auto short_body = [](comm_client &c) {  // raw bytes: a frame the layer would not send
    uint32_t length = 100;
    ASSERT_EQ(send(c.socket, &length, 4, MSG_NOSIGNAL), 4);
    ASSERT_EQ(send(c.socket, "only ten..", 10, MSG_NOSIGNAL), 10);
  };
  with_peer("short", short_body, [](comm_client &c) {
    Allocator alloc;
    void *frame = reinterpret_cast<void *>(0x1);
    uint32_t length = 77;
    EXPECT_EQ(comm_client_recv(&c, &frame, &length, alloc.get()), vorx_er_connection_failure);
    EXPECT_EQ(frame, reinterpret_cast<void *>(0x1));
    EXPECT_EQ(length, 77u);
    EXPECT_EQ(alloc.a.block, nullptr);  // the partial buffer went back
  });
}

TEST(Frames, RefusedBufferKeepsTheLengthForTheNextCall) {
  auto big_frame = [](comm_client &c) {
    std::string big(64, 'b');
    EXPECT_EQ(comm_client_send(&c, big.data(), (uint32_t)big.size()), vorx_er_success);
    char ack;
    recv(c.socket, &ack, 1, 0);  // wait for the peer to close
  };
  with_peer("pending", big_frame, [](comm_client &c) {
    void *frame;
    uint32_t length;
    Allocator small(16);
    EXPECT_EQ(comm_client_recv(&c, &frame, &length, small.get()), vorx_er_general_failure);
    EXPECT_EQ(c.pending_length, 64u);
    Allocator large;
    ASSERT_EQ(comm_client_recv(&c, &frame, &length, large.get()), vorx_er_success);
    EXPECT_EQ(std::string(static_cast<char *>(frame), length), std::string(64, 'b'));
    EXPECT_EQ(c.pending_length, 0u);
  });
}

// ------------------------------------------------------------ control loop

struct Recorder {
  std::vector<std::string> commands;
};

const char *record_and_answer(const char *command, sal_allocator *allocator, void *user) {
  static_cast<Recorder *>(user)->commands.emplace_back(command);
  bool ok = std::strncmp(command, "state:", 6) == 0;
  return comm_control_handler_respond_with_status(ok, allocator, user);
}

class ControlLoop : public ::testing::Test {
 protected:
  std::string domain = unique_domain("ctl");
  comm_control_state state{};
  Recorder recorder;
  std::atomic<int> outcome{-1};
  std::thread loop;

  void start(const char *start_command = "") {
    comm_control_server_init(&state);
    loop = std::thread([this, start_command] {
      outcome = comm_control_server_loop(&state, record_and_answer, domain.c_str(), 9,
                                         start_command, &recorder);
    });
    while (!state.established && outcome == -1) std::this_thread::yield();
  }
  void TearDown() override {
    if (loop.joinable()) {
      EXPECT_TRUE(comm_control_server_loop_break(&state));
      loop.join();
    }
  }
};

TEST_F(ControlLoop, CommandsOnOneConnectionGetResponsesInOrder) {
  start();
  comm_client c;
  ASSERT_EQ(comm_client_connect(&c, domain.c_str(), 9), vorx_er_success);
  Allocator alloc;
  for (const char *cmd : {"state:Pause", "state:Resume", "bogus"}) {
    ASSERT_EQ(comm_client_send(&c, cmd, (uint32_t)strlen(cmd) + 1), vorx_er_success);
    void *frame;
    uint32_t length;
    ASSERT_EQ(comm_client_recv(&c, &frame, &length, alloc.get()), vorx_er_success);
    EXPECT_STREQ(static_cast<char *>(frame),
                 std::strncmp(cmd, "state:", 6) == 0 ? "done" : "fail");
    sal_allocator_free(alloc.get());
  }
  comm_client_destroy(&c);
  EXPECT_TRUE(comm_control_server_loop_break(&state));
  loop.join();
  EXPECT_EQ(outcome, 1);
  EXPECT_EQ(recorder.commands, (std::vector<std::string>{"state:Pause", "state:Resume", "bogus"}));
}

TEST_F(ControlLoop, ALookAlikeOfTheStopWordIsAnOrdinaryCommand) {
  start();
  std::string look_alike = COMM_CONTROL_STOP_COMMAND;
  look_alike[2] = 'X';
  char *response = nullptr;
  Allocator alloc;
  ASSERT_TRUE(comm_control_command_send(9, domain.c_str(), look_alike.c_str(), &response,
                                        alloc.get()));
  EXPECT_STREQ(response, "fail");
  EXPECT_EQ(recorder.commands.size(), 1u);
  EXPECT_TRUE(comm_control_command_send_simple(9, domain.c_str(), "state:Pause"));
}

TEST_F(ControlLoop, RefusedStartCommandEndsTheLoop) {
  start("attach:1");
  loop.join();
  EXPECT_EQ(outcome, 0);
  EXPECT_EQ(state.established, 0);
  EXPECT_TRUE(comm_control_server_loop_break(&state));  // nothing to stop

  comm_control_state never_started{};
  comm_control_server_init(&never_started);
  EXPECT_TRUE(comm_control_server_loop_break(&never_started)) << "before the server is up: a no-op";
}

}  // namespace
