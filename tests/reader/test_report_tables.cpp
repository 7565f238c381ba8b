// The summary's tables, the Chrome trace and the folded stacks, from the sample collection of
// sample_results.hpp: a process with two threads and a forked child.
#include "activity.hpp"
#include "trace_tokenizer.hpp"
#include "report_harness.hpp"
#include "sample_results.hpp"

#include <gtest/gtest.h>

#include <sstream>

using namespace vorx::report;

namespace {

std::vector<std::string> lines_of(const std::string &text, const std::string &prefix)
{
  std::vector<std::string> out;
  std::istringstream in(text);
  for (std::string line; std::getline(in, line);)
    if (line.rfind(prefix, 0) == 0) out.push_back(line);
  return out;
}

std::string read_text(const std::string &path)
{
  std::ifstream in(path);
  std::stringstream ss;
  ss << in.rdbuf();
  return ss.str();
}

struct SampleResults : ::testing::Test {
  TempDir dir;
  void SetUp() override { sample::write_results(dir.path); }
  std::string report(std::vector<std::string> args)
  {
    args.insert(args.begin(), dir.path);
    args.push_back("--no-progress");
    int status = -1;
    std::string out = run_report(args, &status);
    EXPECT_EQ(status, 0) << out;
    return out;
  }
};

TEST_F(SampleResults, CsvColumnsAreStable)
{
  std::string csv = report({"--csv"});
  EXPECT_EQ(lines_of(csv, "table,"), (std::vector<std::string>{
                                         "table,pid,thread,function,count,total_s,max_s",
                                         "table,pid,thread,object,object_name,function,count,total_s,max_s",
                                         "table,pid,thread,function,calls,bytes,total_s,max_s",
                                         "table,pid,thread,function,calls,bytes,total_s",
                                         "table,pid,thread,kind,name,count,total_s,max_s",
                                         "table,pid,counter,updates,last,min,max",
                                         "table,pid,function,module,source,self_samples,self_s,total_samples,total_s",
                                         "table,pid,thread,function,module,source,self_samples,self_s,total_samples,total_s",
                                         "table,pid,depth,function,module,total_samples,total_pct,self_samples,self_pct",
                                     }))
      << csv;
  EXPECT_EQ(csv.find("processes:"), std::string::npos) << "CSV holds the tables only";
}

TEST_F(SampleResults, WaitsAggregatePerObjectAndFunctionAndProcess)
{
  std::string csv = report({"--csv"});
  // Equal totals keep the order of process, thread and name; the child's lock at the same
  // address is its own object.
  EXPECT_EQ(lines_of(csv, "waits_by_function,"), (std::vector<std::string>{
                                                     "waits_by_function,100,100 main,pthread_cond_wait,3,0.000600000,0.000300000",
                                                     "waits_by_function,100,101 worker,pthread_mutex_lock,3,0.000600000,0.000300000",
                                                     "waits_by_function,200,200,pthread_mutex_lock,1,0.000050000,0.000050000",
                                                 }));
  EXPECT_EQ(lines_of(csv, "waits_by_object,"),
            (std::vector<std::string>{
                "waits_by_object,100,100 main,0x804a080,,pthread_cond_wait,3,0.000600000,0.000300000",
                "waits_by_object,100,101 worker,0x804a040,queue lock (mutex),pthread_mutex_lock,3,0.000600000,0.000300000",
                "waits_by_object,200,200,0x804a040,,pthread_mutex_lock,1,0.000050000,0.000050000",
            }));
}

TEST_F(SampleResults, IoAllocationsTasksFramesAndCounters)
{
  std::string csv = report({"--csv"});
  EXPECT_EQ(lines_of(csv, "io_by_function,"), (std::vector<std::string>{
                                                  "io_by_function,100,100 main,read,1,4096,0.000100000,0.000100000",
                                                  "io_by_function,100,101 worker,write,2,64,0.000050000,0.000030000",
                                              }));
  EXPECT_EQ(lines_of(csv, "allocations,"), (std::vector<std::string>{
                                               "allocations,100,100 main,malloc,2,4196,0.000003000",
                                               "allocations,100,100 main,free,1,0,0.000001000",
                                           }));
  EXPECT_EQ(lines_of(csv, "tasks_and_frames,"), (std::vector<std::string>{
                                                    "tasks_and_frames,100,100 main,frame,render,3,0.001800000,0.000600000",
                                                    "tasks_and_frames,100,100 main,task,load,1,0.000190000,0.000190000",
                                                }));
  // inc, inc, inc, +5, dec: in time order whatever the file order.
  EXPECT_EQ(lines_of(csv, "counters,"), (std::vector<std::string>{"counters,100,app/queue depth,5,7,1,8"}));
}

TEST_F(SampleResults, TerminalSummaryIsAlignedAndNamed)
{
  std::string out = report({});
  EXPECT_NE(out.find("  process 100 contention\n    thread 100 main: 28 records, 4.00 ms, waiting 600.0 us (15%)\n"),
            std::string::npos)
      << out;
  EXPECT_NE(out.find("  process 200 contention\n    thread 200:"), std::string::npos) << out;
  EXPECT_NE(out.find("Waiting by synchronisation object:\n"
                     "  pid thread     object    object_name        function           count    total      max\n"
                     "  100 100 main   0x804a080                    pthread_cond_wait      3 600.0 us 300.0 us\n"
                     "  100 101 worker 0x804a040 queue lock (mutex) pthread_mutex_lock     3 600.0 us 300.0 us\n"),
            std::string::npos)
      << out;
}

TEST_F(SampleResults, ChromeTraceNestsSlicesPerThread)
{
  std::string json = dir.path + "/out.json";
  report({"--chrome", json});
  std::string text = read_text(json);
  ASSERT_FALSE(text.empty());
  EXPECT_NE(text.find(R"J({"name":"process_name","ph":"M","pid":200,"tid":0,"args":{"name":"contention"}})J"),
            std::string::npos);
  EXPECT_NE(text.find(R"J({"name":"thread_name","ph":"M","pid":100,"tid":101,"args":{"name":"worker"}})J"),
            std::string::npos);
  // The first frame starts 300 us after the first stamp and holds the first condition wait.
  EXPECT_NE(text.find(R"J({"name":"render","cat":"frame","ph":"X","pid":100,"tid":100,"ts":300.000,"dur":600.000})J"),
            std::string::npos)
      << text;
  EXPECT_NE(text.find(R"J({"name":"pthread_mutex_lock","cat":"wait","ph":"X","pid":100,"tid":101,"ts":400.000,"dur":100.000,"args":{"object":"0x804a040","object_name":"queue lock (mutex)"}})J"),
            std::string::npos);
  if (std::system("python3 -c '' 2>/dev/null") != 0) GTEST_SKIP() << "python3 is not installed";
  std::string check = std::string("python3 ") + VORX_READER_TEST_DIR "/check_chrome_trace.py " + json + " 17 5";
  EXPECT_EQ(std::system(check.c_str()), 0) << check;
}

TEST_F(SampleResults, FoldedStacksChargeOwnTime)
{
  std::string folded = dir.path + "/out.folded";
  report({"--folded", folded});
  std::string text = read_text(folded);
  EXPECT_NE(text.find("contention (100);main (100);load 86\n"), std::string::npos) << text;
  EXPECT_NE(text.find("contention (100);main (100);load;read 100\n"), std::string::npos) << text;
  EXPECT_NE(text.find("contention (100);main (100);render 1200\n"), std::string::npos) << text;
  EXPECT_NE(text.find("contention (100);main (100);render;pthread_cond_wait 600\n"), std::string::npos) << text;
  EXPECT_NE(text.find("contention (200);thread 200;pthread_mutex_lock 50\n"), std::string::npos) << text;
}

TEST(Exports, UnwritableOutputIsAnErrorNamingTheFile)
{
  TempDir dir;
  sample::write_results(dir.path);
  int status = -1;
  run_report({dir.path, "--no-progress", "--csv", "--chrome", dir.path + "/no/such/dir/out.json"}, &status);
  EXPECT_EQ(status, 1);
  run_report({dir.path, "--chrome"}, &status);
  EXPECT_EQ(status, 2);
}

Slice slice(std::uint64_t begin, std::uint64_t end, const char *name)
{
  Slice s;
  s.begin = begin, s.end = end, s.name = name;
  return s;
}

TEST(Nesting, OverlapIsClippedToTheParentAndDepthsFollow)
{
  std::vector<Slice> v = {slice(10, 12, "after"), slice(5, 15, "overlaps"), slice(0, 10, "outer"), slice(6, 7, "inner"),
                          slice(10, 10, "at end")};
  nest_slices(v);
  ASSERT_EQ(v.size(), 5u);
  EXPECT_EQ(v[0].name, "outer");
  EXPECT_EQ(v[1].name, "overlaps");
  EXPECT_TRUE(v[1].clipped);
  EXPECT_EQ(v[1].end, 10u);
  EXPECT_EQ(v[1].parent, 0);
  EXPECT_EQ(v[2].name, "inner");
  EXPECT_EQ(v[2].depth, 2);
  EXPECT_EQ(v[3].name, "after");
  EXPECT_EQ(v[3].depth, 0);
  EXPECT_EQ(v[4].name, "at end");
  EXPECT_EQ(v[4].parent, 3);
}

TEST(Activity, UnfinishedTasksEndWithTheirThreadAndStrayEndsAreIgnored)
{
  TraceBuilder b;
  std::uint64_t ids[2] = {1, 0};
  b.mark(5, 100, [](auto *r) { tf_record_apiwrap_v2_init___ozk_task_end(r, 1); })
      .mark(5, 200, [&](auto *r) { tf_record_apiwrap_v2_init___ozk_task_begin(r, 1, ids, 9); })
      .call(5, sample::kRead, 300, 900, {0, 10});
  struct Sink : TraceSink {
    ActivityTracker a;
    void on_record(const Record &r, const Location &) override { a.on_record(1, r); }
  } sink;
  Stats stats;
  TraceTokenizer tok("t", sink, stats);
  tok.feed(Bytes(b.bytes().data(), b.bytes().size()));
  tok.finish();
  sink.a.finish();
  const auto &slices = sink.a.threads().at({1, 5}).slices;
  ASSERT_EQ(slices.size(), 2u);
  EXPECT_EQ(slices[0].name, "task 9"); // no string handle in the trace
  EXPECT_TRUE(slices[0].unfinished);
  EXPECT_EQ(slices[0].end, 900u);
  EXPECT_EQ(slices[1].parent, 0);
}

} // namespace

namespace {

TEST(Activity, CountersByHandleAndSetValuesReplayInTimeOrder)
{
  TraceBuilder b;
  // Written out of time order, as two threads' units would leave them in one file.
  b.note(1, 50, [](auto *r) { tf_record_apiwrap_v1_init___ozk_counter_inc_delta_v3(r, 1, 2, 10); })
      .note(1, 10, [](auto *r) { tf_record_apiwrap_v1_init___ozk_domain_create(r, "net", 1); })
      .note(1, 10, [](auto *r) { tf_record_apiwrap_v1_init___ozk_string_handle_create(r, "packets", 2); })
      .note(2, 20, [](auto *r) { tf_record_apiwrap_v1_init___ozk_counter_inc_v3(r, 1, 2); })
      .note(2, 60, [](auto *r) { tf_record_apiwrap_v1_init___ozk_counter_dec_v3(r, 1, 2); })
      .note(1, 5, [](auto *r) { tf_record_apiwrap_v1_init___ozk_counter_create_typed(r, "level", nullptr, 8, 2); })
      .note(1, 30, [](auto *r) { tf_record_apiwrap_v1_init___ozk_counter_set_value(r, 8, 40); })
      .note(2, 40, [](auto *r) { tf_record_apiwrap_v1_init___ozk_counter_dec_delta(r, 8, 15); });
  struct Sink : TraceSink {
    ActivityTracker a;
    void on_record(const Record &r, const Location &) override { a.on_record(1, r); }
  } sink;
  Stats stats;
  TraceTokenizer tok("t", sink, stats);
  tok.feed(Bytes(b.bytes().data(), b.bytes().size()));
  tok.finish();
  sink.a.finish();
  const ProcessTrack &p = sink.a.processes().at(1);
  ASSERT_EQ(p.counters.size(), 2u);
  std::map<std::string, std::vector<double>> values;
  for (const auto &[id, c] : p.counters)
    for (const CounterPoint &pt : c.points) values[c.name].push_back(pt.value);
  EXPECT_EQ(values["net/packets"], (std::vector<double>{1, 11, 10}));
  EXPECT_EQ(values["level"], (std::vector<double>{40, 25}));
}

} // namespace

namespace {

TEST(Activity, OverlappedTasksPairByIdAndKeepTheirDurationInTheSummary)
{
  TraceBuilder b;
  std::uint64_t a[2] = {1, 0}, c[2] = {2, 0}, none[2] = {0, 0};
  b.note(3, 1, [](auto *r) { tf_record_apiwrap_v1_init___ozk_string_handle_create(r, "A", 11); })
      .note(3, 1, [](auto *r) { tf_record_apiwrap_v1_init___ozk_string_handle_create(r, "B", 12); })
      .mark(3, 10, [&](auto *r) { tf_record_apiwrap_v2_init___ozk_task_begin_overlapped(r, 1, a, none, 11); })
      .mark(3, 20, [&](auto *r) { tf_record_apiwrap_v2_init___ozk_task_begin_overlapped(r, 1, c, none, 12); })
      .mark(3, 30, [&](auto *r) { tf_record_apiwrap_v2_init___ozk_task_end_overlapped(r, 1, a); })
      .mark(3, 45, [&](auto *r) { tf_record_apiwrap_v2_init___ozk_task_end_overlapped(r, 1, c); })
      .hardcfg(1000000000);
  TempDir dir;
  dir.write("1-3.0.trace", b.bytes());
  int status = -1;
  std::string csv = run_report({dir.path, "--csv"}, &status);
  EXPECT_EQ(lines_of(csv, "tasks_and_frames,"), (std::vector<std::string>{
                                                    "tasks_and_frames,3,3,task,B,1,0.000000025,0.000000025",
                                                    "tasks_and_frames,3,3,task,A,1,0.000000020,0.000000020",
                                                }));
  std::string json = dir.path + "/t.json";
  run_report({dir.path, "--chrome", json}, &status);
  std::string text = read_text(json);
  // B ends after A, which holds its start: the viewer gets it cut at A's end, marked.
  EXPECT_NE(text.find(R"J("name":"B","cat":"task","ph":"X","pid":3,"tid":3,"ts":0.019,"dur":0.010,"args":{"clipped":true})J"),
            std::string::npos)
      << text;
}

} // namespace
