// Fuzz entry of the reader: any bytes, as a plain stream, behind a magic record, or deflated
// into a compressed block, in chunks of any size. It must never crash nor read out of bounds,
// down to the summary's tables and the exports.
#include "report_tables.hpp"
#include "trace_export.hpp"
#include "trace_parser.hpp"

#include <zlib.h>

#include <cstdint>
#include <ostream>
#include <streambuf>
#include <vector>

namespace {

struct Sink : vorx::report::TraceSink {
  std::size_t chars = 0;
  void on_record(const vorx::report::Record &r, const vorx::report::Location &w) override
  {
    chars += vorx::report::format_record(r, w).size();
    activity.on_record(7, r);
  }
  vorx::report::ActivityTracker activity;
};

struct NullBuf : std::streambuf {
  int overflow(int c) override { return c; }
};

void run(const std::vector<std::uint8_t> &bytes, std::size_t chunk)
{
  Sink sink;
  vorx::report::Stats stats;
  vorx::report::TraceTokenizer tok("fuzz", sink, stats);
  for (std::size_t at = 0; at < bytes.size(); at += chunk)
    if (!tok.feed(vorx::report::Bytes(bytes.data() + at, std::min(chunk, bytes.size() - at)))) break;
  tok.finish();
  sink.activity.finish();
  NullBuf nb;
  std::ostream null(&nb);
  std::FILE *devnull = std::fopen("/dev/null", "w");
  for (const vorx::report::Table &t : vorx::report::build_tables(sink.activity, 1000)) vorx::report::print_csv(devnull, t);
  std::fclose(devnull);
  vorx::report::write_chrome_trace(null, sink.activity, {0, 1000});
  vorx::report::write_folded(null, sink.activity, {0, 1000});
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t *data, std::size_t size)
{
  if (size == 0) return 0;
  std::uint8_t mode = data[0];
  std::vector<std::uint8_t> body(data + 1, data + size);
  std::size_t chunk = 1 + (mode >> 2) * 37;
  static const std::uint8_t magic[8] = {0, 0, 0, 8, 0xFA, 0xDE, 0xDE, 0xAD};
  std::vector<std::uint8_t> bytes;
  switch (mode & 3) {
  case 0: bytes = body; break;
  case 1:
  case 2:
    bytes.assign(magic, magic + 8);
    bytes.insert(bytes.end(), body.begin(), body.end());
    break;
  case 3: {
    uLongf n = compressBound(uLong(body.size()));
    std::vector<std::uint8_t> z(n);
    compress2(z.data(), &n, body.data(), uLong(body.size()), 1);
    bytes.assign(magic, magic + 8);
    std::uint32_t len = std::uint32_t(n) + 6;
    std::uint8_t head[10] = {0, 0, 0x80, 0x02, std::uint8_t(len), std::uint8_t(len >> 8), std::uint8_t(len >> 16),
                             std::uint8_t(len >> 24), 50, 0};
    bytes.insert(bytes.end(), head, head + 10);
    bytes.insert(bytes.end(), z.begin(), z.begin() + std::ptrdiff_t(n));
    break;
  }
  }
  run(bytes, chunk);
  return 0;
}
