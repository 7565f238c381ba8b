#include "report_harness.hpp"
#include "trace_builder.hpp"

#include "trace_parser.hpp"
#include "vorx_report.h"

#include <gtest/gtest.h>

#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <string>

using namespace vorx::report;

namespace {

struct Lines : TraceSink {
  std::vector<std::string> records, problems;
  std::string stream_name;
  bool with_place = true;
  void on_record(const Record &r, const Location &where) override
  {
    std::string line = format_record(r, where);
    records.push_back(with_place ? line : line.substr(line.find(' ') + 1));
  }
  void on_problem(Stat, const std::string &m) override { problems.push_back(m); }
  void on_stream_name(std::string_view n) override { stream_name = n; }
};

// Feeds the bytes in chunks of chunk bytes (0: all at once).
Lines tokenize(const std::vector<std::uint8_t> &bytes, std::size_t chunk = 0, Stats *stats_out = nullptr,
               bool with_place = true)
{
  Lines l;
  l.with_place = with_place;
  Stats stats;
  TraceTokenizer tok("t.trace", l, stats);
  if (chunk == 0) chunk = bytes.size() ? bytes.size() : 1;
  for (std::size_t at = 0; at < bytes.size(); at += chunk)
    tok.feed(Bytes(bytes.data() + at, std::min(chunk, bytes.size() - at)));
  tok.finish();
  if (stats_out) *stats_out = stats;
  return l;
}

TraceBuilder sample_trace()
{
  TraceBuilder b;
  b.hardcfg(1000000000)
      .put(TF_MARKER_SIZE, [](std::uint8_t *d) { return tf_marker_put(d, 500, 17640000000000000ull); })
      .process(100, TF_EC_BEGIN, 1000, "app")
      .thread(101, TF_EC_BEGIN, 1500)
      .sample(101, 2000)
      .thread_name(101, 2500, "worker")
      .thread(101, TF_EC_END, 3000)
      .process(100, TF_EC_END, 4000, "app");
  return b;
}

} // namespace

TEST(Tokenizer, AnyChunkBoundaryGivesTheSameRecords)
{
  std::vector<std::uint8_t> bytes = sample_trace().bytes();
  Lines whole = tokenize(bytes);
  EXPECT_TRUE(whole.problems.empty());
  ASSERT_EQ(whole.records.size(), 9u);
  for (std::size_t chunk : {1u, 3u, 7u, 64u}) EXPECT_EQ(tokenize(bytes, chunk).records, whole.records) << chunk;
}

TEST(Tokenizer, DumpLinesAreStable)
{
  Lines l = tokenize(sample_trace().bytes());
  ASSERT_EQ(l.records.size(), 9u);
  EXPECT_EQ(l.records[0], "@0 magic desc=0x08000000 word=2917064442");
  EXPECT_EQ(l.records[2], "@52 marker desc=0x22000020 word2=32 kind=2 count=500 wall_clock=17640000000000000");
  EXPECT_EQ(l.records[3], "@77 process desc=0x02400017 event_class=4096 tid=100 aux_id=0 timestamp=1000 size=7 type=0 name=\"app\"");
  EXPECT_EQ(l.records[5], "@140 cpu_sample desc=0x02000617 event_class=4 tid=101 aux_id=0 timestamp=2000 period=1000 last=3 reserved=0");
  EXPECT_EQ(l.records[6], "@180 apiwrap_v1 desc=0x03000017 function=__internal_thread_name event_class=64 tid=101 aux_id=0 "
                          "end_time=2500 size=30 type=7 begin_time=2500 stack_word=0 function_id=286 version=1 arg0=\"worker\"");
}

TEST(Tokenizer, CompressedBlocksAreInflatedTransparently)
{
  Lines plain = tokenize(sample_trace().bytes(), 0, nullptr, false);
  TraceBuilder z = sample_trace();
  z.compress();
  Lines inflated = tokenize(z.bytes(), 5, nullptr, false);
  EXPECT_TRUE(inflated.problems.empty());
  EXPECT_EQ(inflated.records, plain.records);
  EXPECT_EQ(tokenize(z.bytes()).records[1].substr(0, 5), "@8+0 ");
}

TEST(Tokenizer, RemoteStreamsBeginWithTheirName)
{
  std::vector<std::uint8_t> bytes = {'h', 'o', 's', 't', '/', 0xC3, 0xA9, 0};
  const TraceBuilder trace = sample_trace();
  const auto &t = trace.bytes();
  bytes.insert(bytes.end(), t.begin(), t.end());
  Lines l = tokenize(bytes, 3);
  EXPECT_EQ(l.stream_name, "host/\xC3\xA9");
  EXPECT_TRUE(l.problems.empty());
  EXPECT_EQ(l.records.size(), 9u);
  EXPECT_EQ(l.records[0].substr(0, 3), "@8 ");
}

TEST(Tokenizer, TruncatedFileNamesTheOffsetAndKeepsWhatItRead)
{
  std::vector<std::uint8_t> bytes = sample_trace().bytes();
  bytes.resize(bytes.size() - 10); // the last process record loses its tail
  Stats stats;
  Lines l = tokenize(bytes, 100, &stats);
  EXPECT_EQ(l.records.size(), 8u);
  ASSERT_EQ(l.problems.size(), 1u);
  EXPECT_EQ(l.problems[0], "t.trace: truncated record (needs at least 28 bytes, the file has 21 left) at byte offset " +
                               std::to_string(bytes.size() - 21));
  EXPECT_EQ(stats.get(Stat::truncated_records), 1u);
}

TEST(Tokenizer, CorruptRecordsStopTheFileWithTheirOffset)
{
  TraceBuilder b = sample_trace();
  std::size_t at = b.bytes().size();
  b.raw({0x40, 0, 0, 0, 0, 0, 0, 0});
  b.sample(1, 1);
  Stats stats;
  Lines l = tokenize(b.bytes(), 0, &stats);
  EXPECT_EQ(l.records.size(), 9u);
  ASSERT_EQ(l.problems.size(), 1u);
  EXPECT_EQ(l.problems[0], "t.trace: corrupt record: unknown record descriptor 0x40 at byte offset " + std::to_string(at));
  EXPECT_EQ(stats.get(Stat::corrupt_records), 1u);

  std::vector<std::uint8_t> nomagic = {1, 2, 3, 4, 5, 6, 7, 8, 9, 10};
  l = tokenize(nomagic, 0, &stats);
  EXPECT_EQ(stats.get(Stat::missing_magic), 1u);
}

TEST(Tokenizer, BrokenCompressedBlockIsReportedAndSkipped)
{
  TraceBuilder b = sample_trace();
  b.compress();
  std::vector<std::uint8_t> bytes = b.bytes();
  bytes[30] ^= 0xFF;
  TraceBuilder more;
  const auto &tail = more.sample(7, 7).bytes();
  bytes.insert(bytes.end(), tail.begin() + 8, tail.end());
  Stats stats;
  Lines l = tokenize(bytes, 0, &stats);
  EXPECT_EQ(stats.get(Stat::corrupt_compressed_blocks), 1u);
  ASSERT_FALSE(l.records.empty());
  EXPECT_NE(l.records.back().find("tid=7"), std::string::npos); // the stream goes on behind the block
}

TEST(ReportCommand, SummaryOfAResultsDirectory)
{
  TempDir dir;
  TraceBuilder z = sample_trace();
  z.compress();
  dir.write("1-100.0.trace", z.bytes());
  dir.write("1-100.1.th", TraceBuilder().thread(102, TF_EC_BEGIN, 5000).sample(102, 9000).bytes());
  dir.write("1-100.0.log", {'x'});
  int status = -1;
  std::string out = run_report({dir.path, "--no-progress"}, &status);
  EXPECT_EQ(status, 0);
  EXPECT_NE(out.find("files: 2"), std::string::npos) << out;
  EXPECT_NE(out.find("records: 12"), std::string::npos) << out;
  EXPECT_NE(out.find("  process 100 app\n    thread 101 worker: 4 records, 1.5 us\n    thread 102: 2 records, 4.0 us (no end record)\n"),
            std::string::npos) << out;
  EXPECT_NE(out.find("  cpu_sample           2\n"), std::string::npos) << out;
  EXPECT_NE(out.find("time span: 1000 .. 9000 (8000 counts, 0.000008 s at 1000000000 Hz)"), std::string::npos) << out;
  EXPECT_NE(out.find("started: 2025-11-24 16:00:00.000000 UTC"), std::string::npos) << out;
  EXPECT_NE(out.find("threads_without_end          1"), std::string::npos) << out;
  EXPECT_NE(out.find("import problems: none"), std::string::npos) << out;
}

TEST(ReportCommand, DumpAndErrors)
{
  TempDir dir;
  std::vector<std::uint8_t> bytes = sample_trace().bytes();
  bytes.resize(bytes.size() - 1);
  std::string path = dir.write("cut.trace", bytes);
  int status = -1;
  std::string out = run_report({path, "--dump"}, &status);
  EXPECT_EQ(status, 1); // an import problem
  EXPECT_EQ(out.find("== " + path + "\n@0 magic"), 0u) << out;
  EXPECT_NE(out.find("@140 cpu_sample"), std::string::npos);

  EXPECT_EQ(run_report({dir.path + "/missing"}, &status), "");
  EXPECT_EQ(status, 2);
  run_report({"--bogus"}, &status);
  EXPECT_EQ(status, 2);
}

TEST(Dump, OnlineStacksShowTheirFrames)
{
  // Innermost first: 0x08048123 absolute, then +0xEDD, -0x8049000 (to 0) and +0xB7F01000.
  std::uint8_t packed[] = {0x04, 0x23, 0x81, 0x04, 0x08, 0x02, 0xDD, 0x0E, 0x44, 0x00, 0x70,
                           0xFB, 0xF7, 0x44, 0x00, 0x10, 0xF0, 0xB7};
  std::uint32_t n = sizeof packed;
  TraceBuilder b;
  b.put(64 + n, [&](std::uint8_t *d) {
    std::uint32_t pos = tf_online_stack_put_head(d, 0, 77, 0, 0x1234, n);
    std::memcpy(d + pos, packed, n);
    return pos + n;
  });
  Lines l = tokenize(b.bytes());
  ASSERT_EQ(l.records.size(), 2u);
  EXPECT_NE(l.records[1].find(" frames=0x8048123,0x8049000,0x0,0xb7f01000"), std::string::npos) << l.records[1];
}

TEST(Dump, InterpreterRecordsShowTheirTag)
{
  TraceBuilder b;
  b.put(64, [](std::uint8_t *d) {
    std::uint32_t pos = tf_interpreter_put_head(d, 'P' | 'Y' << 8 | 'T' << 16 | 'E' << 24, 4);
    tf_st32(d + pos, 321); // the thread id of a "PYTE" record
    return pos + 4;
  });
  Lines l = tokenize(b.bytes());
  ASSERT_EQ(l.records.size(), 2u);
  EXPECT_EQ(l.records[1], "@8 interpreter desc=0x03000000 size=12 type=2 tag=\"PYTE\" body=[4x1]41010000");
}

TEST(ReportCommand, FileNamesGiveTheProcess)
{
  EXPECT_EQ(pid_of_file_name("/r/1-100.0.trace"), 100u);
  EXPECT_EQ(pid_of_file_name("12-345.2.th.aux"), 345u);
  EXPECT_EQ(pid_of_file_name("t.trace"), std::nullopt);
  EXPECT_EQ(pid_of_file_name("1-.0.trace"), std::nullopt);
  EXPECT_EQ(pid_of_file_name("1-99999999999.0.trace"), std::nullopt);
  // Without a pid in the name, the file's own process record names it.
  TempDir dir;
  dir.write("child.trace", TraceBuilder().process(300, TF_EC_BEGIN, 10, "kid").thread(301, TF_EC_BEGIN, 20).bytes());
  int status = -1;
  std::string out = run_report({dir.path, "--no-progress"}, &status);
  EXPECT_NE(out.find("  process 300 kid (no end record)\n    thread 301: 1 records"), std::string::npos) << out;
}

// Records the collector dropped reach the report from both places that carry them: the record the process
// wrote into its trace before its last spill, and the manifest with what its collector counted at the very
// end. The larger count of a process wins; a process known only to the manifest counts too.
TEST(ReportCommand, LostRecordsComeFromTheTraceAndTheManifest)
{
  TempDir dir;
  auto with_lost = [](std::uint32_t pid, std::uint64_t lost) {
    return TraceBuilder().process(pid, TF_EC_BEGIN, 10, "app").put(32, [lost](std::uint8_t *d) {
      return tf_records_lost_put(d, 0, lost, 1);
    });
  };
  dir.write("1-100.0.trace", with_lost(100, 40).process(100, TF_EC_END, 20, "app").bytes());
  dir.write("1-200.0.trace", with_lost(200, 5).process(200, TF_EC_END, 20, "app").bytes());
  dir.write("manifest.json", [] {
    std::string m = "{\n  \"processes\": [\n"
                    "    {\"pid\": 100, \"parent\": 1, \"exit_code\": 0, \"records_lost\": 25, \"loss_causes\": 1},\n"
                    "    {\"pid\": 200, \"parent\": 1, \"exit_code\": 0, \"records_lost\": 7, \"loss_causes\": 1},\n"
                    "    {\"pid\": 300, \"parent\": 1, \"exit_code\": 0, \"records_lost\": 3, \"loss_causes\": 2}\n  ]\n}\n";
    return std::vector<std::uint8_t>(m.begin(), m.end());
  }());
  int status = -1;
  std::string out = run_report({dir.path, "--no-progress"}, &status);
  EXPECT_NE(out.find("  process 100 app: exited with status 0 (40 records lost)\n"), std::string::npos) << out;
  EXPECT_NE(out.find("  process 200 app: exited with status 0 (7 records lost)\n"), std::string::npos) << out;
  EXPECT_NE(out.find("lost while recording:\n"), std::string::npos) << out;
  EXPECT_NE(out.find("  records_lost                 50  ("), std::string::npos) << out;

  TempDir clean;
  clean.write("1-100.0.trace", TraceBuilder().process(100, TF_EC_BEGIN, 10, "app").process(100, TF_EC_END, 20, "app").bytes());
  EXPECT_NE(run_report({clean.path, "--no-progress"}, &status).find("lost while recording: none"), std::string::npos);
}
