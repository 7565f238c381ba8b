// CPU samples and their stacks: the delta-coded stack records, samples joined to the stacks that
// follow them, names from a real 32-bit program (PIE and fixed-address), and the reports made of them.
#include "report_harness.hpp"
#include "trace_builder.hpp"

#include "object_symbols.hpp"
#include "record_decoder.hpp"
#include "source_lines.hpp"

#include <gtest/gtest.h>

#include <sys/stat.h>
#include <sys/time.h>

#include <cstdio>
#include <fstream>
#include <map>
#include <sstream>
#include <string>

using namespace vorx::report;

namespace {

// ---------------------------------------------------------------- stack bodies, byte by byte

// One item as the collector writes it: n | 0x40 for a negative difference, then its n low bytes.
void put_item(std::vector<std::uint8_t> &out, std::int32_t d)
{
  std::uint32_t u = std::uint32_t(d), fill = d < 0 ? 0xFF : 0;
  unsigned n = 4;
  while (n > 0 && ((u >> (8 * (n - 1))) & 0xFF) == fill) n--;
  out.push_back(std::uint8_t(n | (d < 0 ? 0x40 : 0)));
  for (unsigned i = 0; i < n; i++) out.push_back(std::uint8_t(u >> (8 * i)));
}

// Return addresses, innermost first: the first absolute, each further one a difference.
std::vector<std::uint8_t> pack(const std::vector<std::uint32_t> &returns)
{
  std::vector<std::uint8_t> out;
  std::uint32_t prev = 0;
  for (std::uint32_t r : returns) put_item(out, std::int32_t(r - prev)), prev = r;
  return out;
}

std::vector<std::uint32_t> unpack(const std::vector<std::uint8_t> &bytes)
{
  std::vector<std::uint32_t> frames;
  EXPECT_TRUE(unpack_online_stack(Bytes(bytes.data(), bytes.size()), frames));
  return frames;
}

TEST(StackBodies, DifferencesOfEitherSignAndEveryWidthAreUndone)
{
  // 0x08048123 absolute (4 bytes), +0xEDD (2 bytes), -0x10 (0x41 0xF0), +0 (0x00 alone), up to a PIE's
  // code (4 bytes), back down (0x44 and 4 bytes) and -0x10000 (0x42: two bytes, the rest is sign).
  std::vector<std::uint8_t> bytes = {0x04, 0x23, 0x81, 0x04, 0x08, 0x02, 0xDD, 0x0E, 0x41, 0xF0, 0x00, 0x04, 0x10,
                                     0x10, 0x51, 0x4E, 0x44, 0xF0, 0xEF, 0xAE, 0xB1, 0x42, 0x00, 0x00};
  EXPECT_EQ(unpack(bytes), (std::vector<std::uint32_t>{0x08048123, 0x08049000, 0x08048FF0, 0x08048FF0, 0x5655A000,
                                                       0x08048FF0, 0x08038FF0}));
  EXPECT_EQ(pack({0x08048123, 0x08049000, 0x08048FF0, 0x08048FF0, 0x5655A000, 0x08048FF0, 0x08038FF0}), bytes)
      << "the test's packer writes what the collector writes";
}

TEST(StackBodies, WhatTheCollectorPacksIsWhatTheReaderReads)
{
  std::vector<std::uint32_t> returns = {0x565561F3, 0x565561A0, 0xF7D8A519, 0xF7D8A5FF, 0x5655610A, 0, 0x5655610A};
  EXPECT_EQ(unpack(pack(returns)), returns);
  EXPECT_EQ(pack({0x10, 0x0F}), (std::vector<std::uint8_t>{0x01, 0x10, 0x40})) << "-1 is the sign alone";
}

TEST(StackBodies, ItemsCutShortOrMalformedAreRefused)
{
  std::vector<std::uint32_t> frames;
  std::vector<std::uint8_t> cut = {0x04, 0x23, 0x81};
  EXPECT_FALSE(unpack_online_stack(Bytes(cut.data(), cut.size()), frames));
  std::vector<std::uint8_t> wide = {0x05, 1, 2, 3, 4, 5};
  EXPECT_FALSE(unpack_online_stack(Bytes(wide.data(), wide.size()), frames));
  std::vector<std::uint8_t> flags = {0x81, 1};
  EXPECT_FALSE(unpack_online_stack(Bytes(flags.data(), flags.size()), frames));
}

// ---------------------------------------------------------------- traces with samples

constexpr std::uint32_t kPid = 300, kTid = 301, kOther = 302;

TraceBuilder &online_stack(TraceBuilder &b, std::uint32_t tid, const std::vector<std::uint32_t> &returns)
{
  std::vector<std::uint8_t> body = pack(returns);
  int alt = body.size() >= 128;
  return b.put(32 + body.size(), [&](std::uint8_t *d) {
    std::uint32_t pos = tf_online_stack_put_head(d, alt, tid, 0, 0x1234, std::uint32_t(body.size()));
    std::memcpy(d + pos, body.data(), body.size());
    return pos + std::uint32_t(body.size());
  });
}

TraceBuilder &sample(TraceBuilder &b, std::uint32_t tid, std::uint64_t t, std::uint32_t address, std::uint64_t period = 10000)
{
  return b.put(TF_CPU_SAMPLE_SIZE, [&](std::uint8_t *d) { return tf_cpu_sample_put(d, tid, 0, t, period, address); });
}

TraceBuilder &module(TraceBuilder &b, std::uint32_t start, std::uint32_t end, const std::string &path)
{
  return b.put(64 + path.size(), [&](std::uint8_t *d) {
    std::uint32_t pos = tf_module_map_put_head(d, 1000, start, end, 0, 0, 2 + std::uint32_t(path.size()));
    tf_st16(d + pos, std::uint16_t(path.size()));
    std::memcpy(d + pos + 2, path.data(), path.size());
    return pos + 2 + std::uint32_t(path.size());
  });
}

// The head of a process's trace: hardware record (1 GHz), marker at wall-clock time `wall` seconds.
TraceBuilder process_head(double wall)
{
  TraceBuilder b;
  b.hardcfg(1000000000)
      .put(TF_MARKER_SIZE, [&](std::uint8_t *d) { return tf_marker_put(d, 1000, std::uint64_t(wall * 1e7)); })
      .process(kPid, TF_EC_BEGIN, 1000, "subject")
      .thread(kTid, TF_EC_BEGIN, 1000);
  return b;
}

std::string read_text(const std::string &path)
{
  std::ifstream in(path);
  std::stringstream ss;
  ss << in.rdbuf();
  return ss.str();
}

std::vector<std::string> rows_of(const std::string &csv, const std::string &table)
{
  std::vector<std::string> out;
  std::istringstream in(csv);
  for (std::string line; std::getline(in, line);)
    if (line.rfind(table + ",", 0) == 0) out.push_back(line);
  return out;
}

std::string report(const TempDir &dir, std::vector<std::string> args)
{
  args.insert(args.begin(), dir.path);
  args.push_back("--no-progress");
  int status = -1;
  std::string out = run_report(args, &status);
  EXPECT_EQ(status, 0) << out;
  return out;
}

// Addresses with no module: named by themselves, so the joining alone is seen.
TEST(Samples, AStackJoinsTheSampleItFollowsOnItsThread)
{
  TempDir dir;
  TraceBuilder b = process_head(1e9);
  sample(b, kTid, 2000, 0x1010);
  online_stack(b, kTid, {0x2001, 0x3001});
  sample(b, kTid, 3000, 0x1010);
  b.thread_name(kTid, 3500, "worker");     // another record of the thread: this sample has no stack
  online_stack(b, kTid, {0x4001});         // the stack of a call, not of a sample
  sample(b, kOther, 3600, 0x5010);         // another thread's sample between
  sample(b, kTid, 4000, 0x1010);
  sample(b, kOther, 4100, 0x5010);
  online_stack(b, kTid, {0x2001, 0x3001}); // follows kTid's sample on kTid's unit
  dir.write("1-300.0.trace", b.bytes());

  std::string csv = report(dir, {"--csv"});
  EXPECT_EQ(rows_of(csv, "call_tree"), (std::vector<std::string>{
                                            "call_tree,300,0,0x3000,,2,40.0,0,0.0",
                                            "call_tree,300,1,0x2000,,2,40.0,0,0.0",
                                            "call_tree,300,2,0x1010,,2,40.0,2,40.0",
                                            "call_tree,300,0,0x5010,,2,40.0,2,40.0",
                                            "call_tree,300,0,0x1010,,1,20.0,1,20.0",
                                        }))
      << csv;
  std::string out = report(dir, {});
  EXPECT_NE(out.find("CPU samples: 5, 2 with a walked stack\n"), std::string::npos) << out;
}

TEST(Samples, LongStackRecordsAndOfflineCopiesAreRead)
{
  TempDir dir;
  TraceBuilder b = process_head(1e9);
  std::vector<std::uint32_t> deep;
  for (std::uint32_t i = 0; i < 40; i++) deep.push_back(0x10000001 + i * 0x01000000); // 5 bytes an item
  sample(b, kTid, 2000, 0x1010);
  online_stack(b, kTid, deep);
  ASSERT_GE(pack(deep).size(), 128u);
  sample(b, kTid, 2100, 0x1010);
  std::uint8_t raw[16] = {0x81, 0x05, 0x10, 0x20, 0x30, 0x40};
  b.put(64, [&](std::uint8_t *d) {
    std::uint32_t pos = tf_offline_stack_put_head(d, 0, kTid, 2100, 1, 0xBFFF0000, sizeof raw);
    std::memcpy(d + pos, raw, sizeof raw);
    return pos + std::uint32_t(sizeof raw);
  });
  dir.write("1-300.0.trace", b.bytes());
  std::string csv = report(dir, {"--csv"});
  std::vector<std::string> tree = rows_of(csv, "call_tree");
  ASSERT_EQ(tree.size(), 42u) << csv;
  EXPECT_EQ(tree[0], "call_tree,300,0,0x37000000,,1,50.0,0,0.0") << "the outermost return address, less one";
  EXPECT_EQ(tree[40], "call_tree,300,40,0x1010,,1,50.0,1,50.0");
  EXPECT_EQ(tree[41], "call_tree,300,0,0x1010,,1,50.0,1,50.0") << "the offline copy's sample keeps its address";
  std::string out = report(dir, {});
  EXPECT_NE(out.find("CPU samples: 2, 1 with a walked stack, 1 with a raw stack copy"), std::string::npos) << out;
}

// ---------------------------------------------------------------- names from a real program

// What the subject program says of itself when run: where its code is, and the addresses of a sample.
struct Subject {
  std::string path;
  std::uint32_t start = 0, end = 0, leaf = 0, return_middle = 0, return_outer = 0;
  std::map<std::string, int> lines; // function -> line of its "line:" mark
};

Subject run_subject(const char *program)
{
  Subject s;
  std::FILE *p = popen(program, "r");
  if (!p) return s;
  char key[64];
  char value[4096];
  while (std::fscanf(p, "%63s %4095s", key, value) == 2) {
    std::string k = key;
    if (k == "path") s.path = value;
    else if (k == "range") {
      s.start = std::uint32_t(std::stoul(value, nullptr, 16));
      unsigned long high = 0;
      if (std::fscanf(p, "%lx", &high) == 1) s.end = std::uint32_t(high);
    } else if (k == "leaf") s.leaf = std::uint32_t(std::stoul(value, nullptr, 16));
    else if (k == "return_middle") s.return_middle = std::uint32_t(std::stoul(value, nullptr, 16));
    else if (k == "return_outer") s.return_outer = std::uint32_t(std::stoul(value, nullptr, 16));
  }
  pclose(p);
  std::ifstream src(VORX_READER_TEST_DIR "/profile_subject.c");
  int n = 0;
  for (std::string line; std::getline(src, line);) {
    n++;
    if (auto at = line.find("line:"); at != std::string::npos) s.lines[line.substr(at + 5, line.find(' ', at) - at - 5)] = n;
  }
  return s;
}

std::string source_cell(const Subject &s, const std::string &function)
{
  return "profile_subject.c:" + std::to_string(s.lines.at(function));
}

class SubjectNames : public ::testing::TestWithParam<const char *> {};

TEST_P(SubjectNames, FunctionsAndLinesComeFromTheModuleFileAtItsLoadAddress)
{
  Subject s = run_subject(GetParam());
  ASSERT_NE(s.start, 0u) << GetParam();
  ASSERT_TRUE(s.leaf > s.start && s.leaf < s.end);
  TempDir dir;
  TraceBuilder b = process_head(1e10); // long after the program was built
  module(b, s.start, s.end, s.path);
  for (int i = 0; i < 3; i++) {
    sample(b, kTid, 2000 + i, s.leaf);
    online_stack(b, kTid, {s.return_middle, s.return_outer});
  }
  sample(b, kTid, 3000, s.return_middle - 1);
  online_stack(b, kTid, {s.return_outer});
  dir.write("1-300.0.trace", b.bytes());

  std::string csv = report(dir, {"--csv"});
  std::string module = s.path.substr(s.path.find_last_of('/') + 1);
  EXPECT_EQ(rows_of(csv, "hot_spots"),
            (std::vector<std::string>{
                "hot_spots,300,subject_leaf," + module + "," + source_cell(s, "subject_leaf") + ",3,0.003000000,3,0.003000000",
                "hot_spots,300,subject_middle," + module + "," + source_cell(s, "subject_middle") +
                    ",1,0.001000000,4,0.004000000",
                "hot_spots,300,subject_outer," + module + "," + source_cell(s, "subject_outer") + ",0,0.000000000,4,0.004000000",
            }))
      << csv;
  EXPECT_EQ(rows_of(csv, "call_tree"), (std::vector<std::string>{
                                            "call_tree,300,0,subject_outer," + module + ",4,100.0,0,0.0",
                                            "call_tree,300,1,subject_middle," + module + ",4,100.0,1,25.0",
                                            "call_tree,300,2,subject_leaf," + module + ",3,75.0,3,75.0",
                                        }))
      << csv;

  std::string folded = dir.path + "/samples.folded", speedscope = dir.path + "/profile.speedscope.json",
              chrome = dir.path + "/trace.json";
  report(dir, {"--folded-samples", folded, "--speedscope", speedscope, "--chrome", chrome});
  std::string root = "subject (300);thread 301;subject_outer (" + module + ");subject_middle (" + module + ")";
  EXPECT_EQ(read_text(folded), root + " 1\n" + root + ";subject_leaf (" + module + ") 3\n");
  std::string profile = read_text(speedscope);
  EXPECT_NE(profile.find("\"$schema\":\"https://www.speedscope.app/file-format-schema.json\""), std::string::npos);
  EXPECT_NE(profile.find("{\"name\":\"subject_leaf (" + module + ")\",\"file\":"), std::string::npos) << profile;
  EXPECT_NE(profile.find("\"samples\":[[0,1,2],[0,1,2],[0,1,2],[0,1]],\"weights\":[1.0000,1.0000,1.0000,1.0000]"),
            std::string::npos)
      << profile;
  std::string trace = read_text(chrome);
  EXPECT_NE(trace.find("\"ph\":\"P\",\"pid\":300,\"tid\":301,\"ts\":1.000,\"sf\":\"300.3\"}"), std::string::npos) << trace;
  EXPECT_NE(trace.find("\"300.3\":{\"name\":\"subject_leaf\",\"category\":\"" + module + "\",\"parent\":\"300.2\"}"),
            std::string::npos)
      << trace;
  int status = std::system(("python3 " VORX_READER_TEST_DIR "/check_chrome_trace.py " + chrome + " > /dev/null").c_str());
  EXPECT_EQ(status, 0);
}

INSTANTIATE_TEST_SUITE_P(PieAndFixed, SubjectNames, ::testing::Values(VORX_PROFILE_SUBJECT_PIE, VORX_PROFILE_SUBJECT_FIXED));

TEST(SubjectNames, AModuleThatIsNotTheMappedOneGivesModuleOffsets)
{
  Subject s = run_subject(VORX_PROFILE_SUBJECT_PIE);
  ASSERT_NE(s.start, 0u);
  std::string file = s.path.substr(s.path.find_last_of('/') + 1);
  char offset[32];
  std::snprintf(offset, sizeof offset, "+0x%x", s.leaf - s.start);
  auto leaf_name = [&](double wall, std::uint32_t end, const std::string &path) {
    TempDir dir;
    TraceBuilder b = process_head(wall);
    module(b, s.start, end, path);
    sample(b, kTid, 2000, s.leaf);
    dir.write("1-300.0.trace", b.bytes());
    std::vector<std::string> rows = rows_of(report(dir, {"--csv"}), "hot_spots");
    return rows.size() == 1 ? rows[0] : "";
  };
  EXPECT_EQ(leaf_name(1e10, s.end, s.path).rfind("hot_spots,300,subject_leaf,", 0), 0u);
  EXPECT_EQ(leaf_name(1e10, s.end + 0x1000, s.path), "hot_spots,300," + file + offset + "," + file + ",,1,0.001000000,1,0.001000000")
      << "another code size: another build";
  EXPECT_EQ(leaf_name(1000, s.end, s.path), "hot_spots,300," + file + offset + "," + file + ",,1,0.001000000,1,0.001000000")
      << "written after the collection began";
  EXPECT_EQ(leaf_name(1e10, s.end, "/nonexistent/" + file),
            "hot_spots,300," + file + offset + "," + file + ",,1,0.001000000,1,0.001000000")
      << "missing";
}

TEST(SubjectNames, TheFileKnowsItsBuildIdAndLines)
{
  auto elf = read_elf_objects(VORX_PROFILE_SUBJECT_PIE);
  ASSERT_NE(elf, nullptr);
  EXPECT_EQ(elf->build_id.size(), 40u) << "a SHA-1 build-id, as gcc links by default here";
  const ElfObjects::Symbol *leaf = nullptr;
  for (const auto &f : elf->functions)
    if (f.name == "subject_leaf") leaf = &f;
  ASSERT_NE(leaf, nullptr);
  EXPECT_EQ(elf->function_at(leaf->value + leaf->size - 1), leaf);
  EXPECT_EQ(elf->function_at(elf->exec_vaddr + elf->exec_memsz + 0x100000), nullptr) << "beyond the code";
  SourceLines lines(VORX_PROFILE_SUBJECT_PIE);
  auto at = lines.at(leaf->value);
  ASSERT_TRUE(at.has_value());
  EXPECT_EQ(at->line, run_subject(VORX_PROFILE_SUBJECT_PIE).lines.at("subject_leaf"));
  EXPECT_FALSE(SourceLines("/nonexistent").at(0x1000).has_value());
}

} // namespace

namespace {

// A stripped library keeps its exported names only; its debug file, found by build-id, has the rest.
TEST(SubjectNames, AStrippedLibraryIsNamedFromItsDebugFile)
{
  const char *libc = "/usr/lib/i386-linux-gnu/libc.so.6";
  auto stripped = read_elf_objects(libc);
  if (!stripped || stripped->full_symbols) GTEST_SKIP() << "no stripped i386 libc here";
  std::string id = stripped->build_id;
  std::ifstream debug("/usr/lib/debug/.build-id/" + id.substr(0, 2) + "/" + id.substr(2) + ".debug");
  if (!debug) GTEST_SKIP() << "libc6-dbg:i386 is not installed";
  auto has = [](const ElfObjects &e, const char *name) {
    for (const auto &f : e.functions)
      if (f.name == name) return true;
    return false;
  };
  EXPECT_FALSE(has(*stripped, "__libc_start_call_main")) << "a local function";
  auto named = read_module_symbols(libc);
  ASSERT_NE(named, nullptr);
  EXPECT_TRUE(named->full_symbols);
  EXPECT_TRUE(has(*named, "__libc_start_call_main"));
  EXPECT_TRUE(has(*named, "malloc"));
}

} // namespace
