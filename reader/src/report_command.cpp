// `vorx report <results dir | trace file>... [--dump | --csv] [--chrome FILE] [--folded FILE]
//  [--folded-samples FILE] [--speedscope FILE]`
#include "vorx_report.h"

#include "profile_output.hpp"
#include "trace_export.hpp"
#include "process_endings.hpp"
#include "trace_parser.hpp"

#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <memory>
#include <string>
#include <vector>

namespace fs = std::filesystem;

namespace vorx::report {
namespace {

constexpr std::size_t kChunk = 1u << 20;

constexpr std::size_t kTerminalRows = 25;

const char kUsage[] =
    "usage: vorx report <results directory | trace file>... [options]\n"
    "  prints processes and threads, then per thread the time spent waiting by function and by\n"
    "  synchronisation object, I/O, allocations, tasks and frames (sorted by cost) and counters;\n"
    "  with CPU samples, the hot spots (self and total per function) and the call tree\n"
    "  --all                   every row of every table and the whole call tree (the terminal\n"
    "                          shows the first 25 rows and the branches of 1% or more)\n"
    "  --csv                   the same tables as CSV, one block a table, for scripts\n"
    "  --chrome FILE           Chrome trace event JSON (chrome://tracing, Perfetto, speedscope),\n"
    "                          with the CPU samples and their stacks\n"
    "  --folded FILE           folded stacks of tasks, waits and calls for flame graphs:\n"
    "                          process;thread;...;slice microseconds\n"
    "  --folded-samples FILE   folded stacks of the CPU samples for flame graphs:\n"
    "                          process;thread;outermost;...;innermost function samples\n"
    "  --speedscope FILE       the CPU samples in speedscope's file format, a profile a thread\n"
    "  --dump                  every record with its decoded fields, one record a line\n"
    "  --no-progress           no progress line on the terminal\n";

// Writes one export through a temporary name, so that a failed run leaves no half file.
template <typename Write>
bool write_export(const std::string &path, const char *what, Write write)
{
  std::string tmp = path + ".part";
  {
    std::ofstream out(tmp, std::ios::binary | std::ios::trunc);
    if (out) write(out);
    out.flush();
    if (!out) {
      std::fprintf(stderr, "vorx report: cannot write the %s to %s: %s\n", what, path.c_str(), std::strerror(errno));
      std::error_code ec;
      fs::remove(tmp, ec);
      return false;
    }
  }
  std::error_code ec;
  fs::rename(tmp, path, ec);
  if (ec) {
    std::fprintf(stderr, "vorx report: cannot write the %s to %s: %s\n", what, path.c_str(), ec.message().c_str());
    return false;
  }
  return true;
}

bool is_trace_name(const std::string &name)
{
  static const char *const suffixes[] = {".trace", ".th", ".trace.aux", ".th.aux", ".pytrace", ".pytrace-sym"};
  for (const char *s : suffixes) {
    std::size_t n = std::strlen(s);
    if (name.size() > n && name.compare(name.size() - n, n, s) == 0) return true;
  }
  return false;
}

// Progress on a terminal, for files that take more than a second.
class Progress {
public:
  Progress(bool enabled, const std::string &path, std::uint64_t total)
      : enabled_(enabled), path_(path), total_(total), start_(Clock::now()), last_(start_)
  {
  }
  ~Progress()
  {
    if (shown_) std::fprintf(stderr, "\r\033[K");
  }
  void update(std::uint64_t done)
  {
    if (!enabled_ || total_ == 0) return;
    auto now = Clock::now();
    if (now - start_ < std::chrono::seconds(1) || now - last_ < std::chrono::milliseconds(200)) return;
    last_ = now;
    shown_ = true;
    std::fprintf(stderr, "\rvorx report: %s %3u%%", path_.c_str(), unsigned(done * 100 / total_));
  }

private:
  using Clock = std::chrono::steady_clock;
  bool enabled_;
  std::string path_;
  std::uint64_t total_;
  Clock::time_point start_, last_;
  bool shown_ = false;
};

struct FileCloser {
  void operator()(std::FILE *f) const { std::fclose(f); }
};

void read_file(const std::string &path, TraceParser &parser, Stats &stats, bool progress)
{
  std::unique_ptr<std::FILE, FileCloser> f(std::fopen(path.c_str(), "rb"));
  std::error_code ec;
  std::uint64_t size = fs::file_size(path, ec);
  parser.begin_file(path, ec ? 0 : size);
  if (!f) {
    stats.add(Stat::files_unreadable);
    parser.on_problem(Stat::files_unreadable, path + ": cannot open: " + std::strerror(errno));
    parser.end_file(0);
    return;
  }
  TraceTokenizer tok(path, parser, stats);
  Progress bar(progress, path, ec ? 0 : size);
  std::vector<std::uint8_t> chunk(kChunk);
  std::uint64_t done = 0;
  for (;;) {
    std::size_t n = std::fread(chunk.data(), 1, chunk.size(), f.get());
    if (n == 0) break;
    done += n;
    if (!tok.feed(Bytes(chunk.data(), n))) break;
    bar.update(done);
  }
  if (std::ferror(f.get())) {
    stats.add(Stat::files_unreadable);
    parser.on_problem(Stat::files_unreadable, path + ": read error after byte " + std::to_string(done));
  }
  tok.finish();
  parser.end_file(tok.records());
}

std::vector<std::string> collect_files(const std::vector<std::string> &inputs, bool &ok)
{
  std::vector<std::string> files;
  for (const std::string &in : inputs) {
    std::error_code ec;
    if (fs::is_directory(in, ec)) {
      std::vector<std::string> found;
      for (const auto &e : fs::directory_iterator(in, ec))
        if (e.is_regular_file() && is_trace_name(e.path().filename().string())) found.push_back(e.path().string());
      if (ec) {
        std::fprintf(stderr, "vorx report: cannot list %s: %s\n", in.c_str(), ec.message().c_str());
        ok = false;
      }
      if (found.empty())
        std::fprintf(stderr, "vorx report: %s holds no trace files (*.trace, *.th, ...)%s\n", in.c_str(),
                     fs::exists(fs::path(in) / "manifest.json", ec)
                         ? ": the collection wrote none; its manifest.json and any *.log files there may say why"
                         : "");
      std::sort(found.begin(), found.end());
      files.insert(files.end(), found.begin(), found.end());
    } else if (fs::exists(in, ec)) {
      files.push_back(in);
    } else {
      std::fprintf(stderr, "vorx report: %s: no such file or directory\n", in.c_str());
      ok = false;
    }
  }
  return files;
}

} // namespace
} // namespace vorx::report

extern "C" int command_report(int argc, char **argv)
{
  using namespace vorx::report;
  bool dump = false, csv = false, all = false, progress = isatty(STDERR_FILENO);
  std::string chrome, folded, folded_samples, speedscope;
  std::vector<std::string> inputs;
  for (int i = 1; i < argc; i++) {
    std::string a = argv[i];
    if (a == "--dump") dump = true;
    else if (a == "--csv") csv = true;
    else if (a == "--all") all = true;
    else if (a == "--no-progress") progress = false;
    else if (a == "--chrome" || a == "--folded" || a == "--folded-samples" || a == "--speedscope") {
      if (i + 1 >= argc || argv[i + 1][0] == '\0') {
        std::fprintf(stderr, "vorx report: %s needs an output file name\n%s", a.c_str(), kUsage);
        return 2;
      }
      (a == "--chrome" ? chrome : a == "--folded" ? folded : a == "--speedscope" ? speedscope : folded_samples) = argv[++i];
    }
    else if (a == "-h" || a == "--help") {
      std::fputs(kUsage, stdout);
      return 0;
    } else if (!a.empty() && a[0] == '-') {
      std::fprintf(stderr, "vorx report: unknown option %s\n%s", a.c_str(), kUsage);
      return 2;
    } else {
      inputs.push_back(a);
    }
  }
  if (dump && csv) {
    std::fprintf(stderr, "vorx report: --dump and --csv both take the output; choose one\n");
    return 2;
  }
  if (inputs.empty()) {
    std::fprintf(stderr, "vorx report: name a results directory or trace file\n%s", kUsage);
    return 2;
  }
  bool ok = true;
  std::vector<std::string> files = collect_files(inputs, ok);
  if (files.empty()) return 2;
  Stats stats;
  TraceParser parser(stdout, dump);
  parser.set_process_endings(read_process_endings(inputs));
  parser.set_lost_records(read_lost_records(inputs));
  for (const std::string &f : files) read_file(f, parser, stats, progress);
  parser.finish(stats);
  if (csv) parser.print_csv_tables();
  else if (!dump) parser.print_summary(stats, all ? 0 : kTerminalRows);
  std::fflush(stdout);
  ExportClock clock{parser.first_time().value_or(0), parser.timesource_hz()};
  if (!chrome.empty())
    ok &= write_export(chrome, "Chrome trace", [&](std::ostream &o) { write_chrome_trace(o, parser.activity(), clock); });
  if (!folded.empty())
    ok &= write_export(folded, "folded stacks", [&](std::ostream &o) { write_folded(o, parser.activity(), clock); });
  if (!folded_samples.empty())
    ok &= write_export(folded_samples, "folded sample stacks",
                       [&](std::ostream &o) { write_folded_samples(o, parser.activity()); });
  if (!speedscope.empty())
    ok &= write_export(speedscope, "speedscope profile", [&](std::ostream &o) { write_speedscope(o, parser.activity()); });
  return ok && !stats.any_loss(StatSource::Import) ? 0 : 1;
}
