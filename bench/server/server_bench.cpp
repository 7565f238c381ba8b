// Cost of the collector's conversation with the run-tool server: packing and
// unpacking a configuration, and whole exchanges (connect, send, reply,
// close) against the real server over an abstract unix socket.
#include <benchmark/benchmark.h>
#include <unistd.h>

#include "options.hpp"
#include "run_server.hpp"
#include "vorx_client.h"

using namespace vorx::server;

namespace {

class QuietSink : public ReportSink {
 public:
  void report(pid_t, const std::string &, const std::string &, const std::string &) override {}
};

ConfigurationPtr typical_configuration() {
  RunOptions o;
  o.collections = {"cpu", "threading", "io"};
  o.environment = {"LD_LIBRARY_PATH=/opt/app/lib", "APP_MODE=bench"};
  o.ignored = {"sh", "bash"};
  return make_base_configuration(o, "/tmp/vorx-bench-results/");
}

void BM_PackConfiguration(benchmark::State &state) {
  ConfigurationPtr conf = typical_configuration();
  vorx_configuration_packager *packager = vorx_alloc_configuration_packager();
  size_t size = 0;
  for (auto _ : state) benchmark::DoNotOptimize(packager->ops->pack(packager, conf.get(), &size));
  state.SetBytesProcessed((int64_t)(state.iterations() * size));
  vorx_free_configuration_packager(packager);
}
BENCHMARK(BM_PackConfiguration);

void BM_UnpackConfiguration(benchmark::State &state) {
  ConfigurationPtr conf = typical_configuration();
  vorx_configuration_packager *packager = vorx_alloc_configuration_packager();
  size_t size = 0;
  const void *packed = packager->ops->pack(packager, conf.get(), &size);
  std::string packet(static_cast<const char *>(packed), size);
  for (auto _ : state)
    vorx_free_configuration(packager->ops->unpack(packager, packet.data(), packet.size()));
  state.SetBytesProcessed((int64_t)(state.iterations() * size));
  vorx_free_configuration_packager(packager);
}
BENCHMARK(BM_UnpackConfiguration);

// A server for the exchanges, named after this process.
struct BenchServer {
  ProcessTable processes;
  QuietSink sink;
  RunServer server{typical_configuration(), processes, sink};
  vorx_client *client = nullptr;
  BenchServer() {
    std::string error;
    // Above any real process id, below what the client's decimal reading holds.
    uint32_t id = 1900000000u + (uint32_t)getpid() % 100000u;
    if (!server.start(id, error)) throw std::runtime_error(error);
    server.set_root_pid(1);
    client = vorx_alloc_client(server.name().c_str());
  }
  ~BenchServer() { vorx_free_client(client); }
};

BenchServer &bench_server() {
  static BenchServer s;
  return s;
}

void BM_ReadyExchange(benchmark::State &state) {
  vorx_client *client = bench_server().client;
  for (auto _ : state)
    if (client->ops->notify(client, vorx_command_ready) != vorx_er_success) state.SkipWithError("ready");
}
BENCHMARK(BM_ReadyExchange)->UseRealTime();

void BM_ConfigExchange(benchmark::State &state) {
  vorx_client *client = bench_server().client;
  for (auto _ : state) {
    sal_allocator alloc;
    sal_allocator_init(&alloc, sal_allocator_type_heap, SAL_ALLOCATOR_NO_LIMIT);
    void *packet;
    vorx_size_t length;
    if (client->ops->get_configuration(client, &packet, &length, &alloc) != vorx_er_success)
      state.SkipWithError("config");
    sal_allocator_destroy(&alloc);
  }
}
BENCHMARK(BM_ConfigExchange)->UseRealTime();

void BM_ReportWithoutReply(benchmark::State &state) {
  vorx_client *client = bench_server().client;
  static const char kMessage[] = "<?xml ?><msg name='17'><arg name='time_mark' value='now' /></msg>";
  for (auto _ : state)
    client->ops->log_message(client, kMessage, sizeof(kMessage) - 1, vorx_severity_info);
}
BENCHMARK(BM_ReportWithoutReply)->UseRealTime();

}  // namespace

BENCHMARK_MAIN();
