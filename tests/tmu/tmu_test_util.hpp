// Helpers of the unit tests: a scratch directory, and reading a trace back through the reader.
#pragma once

#include "trace_tokenizer.hpp"
#include "vorx_traceformat.h"
#include "vorx_tmu.h"

#include <gtest/gtest.h>

#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <iterator>
#include <string>
#include <vector>

struct ScratchDir {
  std::string path;
  ScratchDir()
  {
    char tmpl[] = "/tmp/vorx_tmu_XXXXXX";
    path = mkdtemp(tmpl);
  }
  ~ScratchDir() { std::system(("rm -rf " + path).c_str()); }
  std::string file(const char *name) const { return path + "/" + name; }
};

inline std::vector<std::uint8_t> read_bytes(const std::string &path)
{
  std::ifstream in(path, std::ios::binary);
  return std::vector<std::uint8_t>(std::istreambuf_iterator<char>(in), {});
}

// The CPU-sample records of a trace, as (tid, timestamp) pairs, and what else was seen.
struct Collected : vorx::report::TraceSink {
  std::vector<std::pair<std::uint32_t, std::uint64_t>> samples;
  std::vector<std::string> problems;
  unsigned magics = 0, blocks_seen = 0;
  void on_record(const vorx::report::Record &r, const vorx::report::Location &where) override
  {
    if (r.name() == "magic") magics++;
    if (where.in_block) blocks_seen++;
    if (r.name() == "cpu_sample") samples.emplace_back(std::uint32_t(r.find("tid")->num), r.find("timestamp")->num);
  }
  void on_problem(vorx::report::Stat, const std::string &m) override { problems.push_back(m); }
};

inline Collected read_trace(const std::string &path)
{
  Collected c;
  vorx::report::Stats stats;
  vorx::report::TraceTokenizer tok(path, c, stats);
  std::vector<std::uint8_t> bytes = read_bytes(path);
  tok.feed(vorx::report::Bytes(bytes.data(), bytes.size()));
  tok.finish();
  return c;
}

// A typical 40-byte record carrying a sequence number in its time stamp.
inline int put_sample(vorx_tmu_t *tmu, std::uint32_t tid, std::uint64_t seq)
{
  std::uint8_t rec[TF_CPU_SAMPLE_SIZE];
  tf_cpu_sample_put(rec, tid, 0, seq, 1000, 7);
  return tmu->put_record(tmu, rec, 24, rec + 24, TF_CPU_SAMPLE_SIZE - 24);
}

inline void expect_sequence(const Collected &c, std::uint32_t tid, std::uint64_t first, std::uint64_t count)
{
  std::uint64_t next = first, seen = 0;
  for (const auto &[t, seq] : c.samples) {
    if (t != tid) continue;
    ASSERT_EQ(seq, next) << "record out of order or lost";
    next++;
    seen++;
  }
  EXPECT_EQ(seen, count);
}
