// `vorx run` as a user runs it, with a stand-in engine that starts a program
// talking to the server through the real client.
#include <gtest/gtest.h>

#include <fcntl.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

namespace fs = std::filesystem;

namespace {

struct Outcome {
  int status = -1;  // as a shell shows it
  std::string err;
};

// Runs vorx with args in directory cwd; standard error is captured. After
// interrupt_after_ms (when given), vorx gets SIGINT.
Outcome run_vorx(const std::vector<std::string> &args, const std::string &cwd = ".",
                 int interrupt_after_ms = 0) {
  int pipefd[2];
  EXPECT_EQ(pipe(pipefd), 0);
  std::vector<std::string> argv = {VORX_BINARY};
  argv.insert(argv.end(), args.begin(), args.end());
  pid_t pid = fork();
  if (pid == 0) {
    if (chdir(cwd.c_str()) != 0) _exit(120);
    dup2(pipefd[1], 2);
    int null = open("/dev/null", O_WRONLY);
    dup2(null, 1);
    close(null);
    close(pipefd[0]);
    close(pipefd[1]);
    std::vector<char *> raw;
    for (auto &a : argv) raw.push_back(a.data());
    raw.push_back(nullptr);
    execv(raw[0], raw.data());
    _exit(121);
  }
  close(pipefd[1]);
  std::thread interrupter;
  if (interrupt_after_ms)
    interrupter = std::thread([pid, interrupt_after_ms] {
      usleep((useconds_t)interrupt_after_ms * 1000);
      kill(pid, SIGINT);
    });
  Outcome out;
  char buffer[4096];
  ssize_t n;
  while ((n = read(pipefd[0], buffer, sizeof(buffer))) > 0) out.err.append(buffer, (size_t)n);
  close(pipefd[0]);
  int status;
  waitpid(pid, &status, 0);
  if (interrupter.joinable()) interrupter.join();
  out.status = WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
  return out;
}

std::string read_file(const fs::path &path) {
  std::ifstream in(path);
  std::stringstream s;
  s << in.rdbuf();
  return s.str();
}

int elf_class(const char *path) {
  std::ifstream in(path, std::ios::binary);
  char ident[5] = {};
  in.read(ident, 5);
  return ident[4];
}

size_t count(const std::string &text, const std::string &what) {
  size_t n = 0;
  for (size_t pos = text.find(what); pos != std::string::npos; pos = text.find(what, pos + 1)) n++;
  return n;
}

class VorxRun : public ::testing::Test {
 protected:
  fs::path dir;
  void SetUp() override {
    char templ[] = "/tmp/vorx_run_test_XXXXXX";
    ASSERT_NE(mkdtemp(templ), nullptr);
    dir = templ;
  }
  void TearDown() override { fs::remove_all(dir); }
  std::vector<std::string> with_standin(std::vector<std::string> tail, const std::string &results = "") {
    std::vector<std::string> args = {"run", "--engine", FAKE_KEL, "--tool", "/dev/null",
                                     "-r", results.empty() ? (dir / "res").string() : results, "--",
                                     STANDIN};
    args.insert(args.end(), tail.begin(), tail.end());
    return args;
  }
  std::string manifest(const std::string &results = "") {
    return read_file(fs::path(results.empty() ? (dir / "res").string() : results) / "manifest.json");
  }
};

TEST_F(VorxRun, TwentyForkedChildrenEachGetAConfiguration) {
  Outcome o = run_vorx(with_standin({"forks", "20"}));
  EXPECT_EQ(o.status, 0) << o.err;
  std::string m = manifest();
  EXPECT_EQ(count(m, "\"configurations\": 1"), 21u) << m;
  EXPECT_EQ(count(m, "\"ready\": null"), 0u);
  EXPECT_EQ(count(m, "\"ended\": null"), 0u);
  EXPECT_NE(m.find("\"exit_status\": 0"), std::string::npos);
  EXPECT_NE(m.find("\"server\": \"vorx_server."), std::string::npos);
}

TEST_F(VorxRun, ExitsWithTheProgramsStatus) {
  EXPECT_EQ(run_vorx(with_standin({"exit", "7"})).status, 7);
}

TEST_F(VorxRun, ACrashIsNamedAndGivesTheSignalStatus) {
  Outcome o = run_vorx(with_standin({"crash"}));
  EXPECT_EQ(o.status, 128 + 11);
  EXPECT_NE(o.err.find("killed by signal 11"), std::string::npos) << o.err;
  EXPECT_NE(o.err.find("collector_standin"), std::string::npos) << o.err;
  EXPECT_NE(manifest().find("\"exit_signal\": 11"), std::string::npos);
}

TEST_F(VorxRun, ReportsArePrintedAsText) {
  Outcome o = run_vorx(with_standin({"report"}));
  EXPECT_EQ(o.status, 0);
  EXPECT_NE(o.err.find("error"), std::string::npos);
  EXPECT_NE(o.err.find("Valid poll symbol is not found in the binary of the analysis target."),
            std::string::npos)
      << o.err;
}

TEST_F(VorxRun, WaitsForAChildThatOutlivesTheRoot) {
  Outcome o = run_vorx(with_standin({"linger"}));
  EXPECT_EQ(o.status, 0) << o.err;
  std::string m = manifest();
  EXPECT_EQ(count(m, "\"ended\": null"), 0u) << m;
  EXPECT_EQ(count(m, "\"configurations\": 1"), 2u) << m;
}

TEST_F(VorxRun, AnInterruptStopsTheWaitForProcessesThatOutliveTheRoot) {
  auto begin = std::chrono::steady_clock::now();
  Outcome o = run_vorx(with_standin({"orphan"}), ".", 1500);
  EXPECT_LT(std::chrono::steady_clock::now() - begin, std::chrono::milliseconds(4500));
  EXPECT_EQ(o.status, 0) << o.err;
  EXPECT_NE(o.err.find("interrupted: not waiting any longer for"), std::string::npos) << o.err;
  EXPECT_NE(o.err.find("(vorx_collector_standin)"), std::string::npos) << o.err;
}

TEST_F(VorxRun, FreshNumberedResultDirectories) {
  std::vector<std::string> args = {"run", "--engine", FAKE_KEL, "--tool", "/dev/null", "--",
                                   STANDIN, "exit", "0"};
  EXPECT_EQ(run_vorx(args, dir.string()).status, 0);
  EXPECT_EQ(run_vorx(args, dir.string()).status, 0);
  EXPECT_TRUE(fs::exists(dir / "vorx-results-000" / "manifest.json"));
  EXPECT_TRUE(fs::exists(dir / "vorx-results-001" / "manifest.json"));
  EXPECT_NE(read_file(dir / "vorx-results-001" / "manifest.json")
                .find("\"results_dir\": \"" + (dir / "vorx-results-001").string() + "/\""),
            std::string::npos);
}

TEST_F(VorxRun, TwoRunsAtOnceKeepToThemselves) {
  Outcome a, b;
  std::string ra = (dir / "a").string(), rb = (dir / "b").string();
  std::thread ta([&] { a = run_vorx(with_standin({"forks", "8"}, ra)); });
  std::thread tb([&] { b = run_vorx(with_standin({"forks", "8"}, rb)); });
  ta.join();
  tb.join();
  EXPECT_EQ(a.status, 0) << a.err;
  EXPECT_EQ(b.status, 0) << b.err;
  EXPECT_EQ(count(manifest(ra), "\"configurations\": 1"), 9u);
  EXPECT_EQ(count(manifest(rb), "\"configurations\": 1"), 9u);
}

TEST_F(VorxRun, UsageErrorsAreClear) {
  Outcome o = run_vorx({"run", "-c", "cpu,gpu", "--", "/bin/true"});
  EXPECT_EQ(o.status, 2);
  EXPECT_NE(o.err.find("unknown collection 'gpu'"), std::string::npos) << o.err;
  // Words of the vocabulary whose collections write nothing yet are refused by name, with what works.
  for (const char *word : {"projection", "opencl", "user_sync", "cm", "power", "opencl_ex"}) {
    o = run_vorx({"run", "-c", std::string("threading,") + word, "--", "/bin/true"});
    EXPECT_EQ(o.status, 2) << word;
    EXPECT_NE(o.err.find(std::string("the collection '") + word + "' collects nothing yet; collections that work: "
                         "cpu, threading, io, waiting, memory, task, frame, utimer, opengles"),
              std::string::npos)
        << o.err;
  }
  o = run_vorx({"run", "--engine", FAKE_KEL, "--", "no_such_program_anywhere"});
  EXPECT_EQ(o.status, 127);
  EXPECT_NE(o.err.find("'no_such_program_anywhere' was not found in PATH"), std::string::npos);
  o = run_vorx({"run", "--engine", "/nonexistent/kel", "--", STANDIN});
  EXPECT_EQ(o.status, 127);
  EXPECT_NE(o.err.find("instrumentation engine was not found"), std::string::npos);
  if (elf_class("/bin/true") == 2) {  // the host's own programs are 64-bit here
    o = run_vorx({"run", "--engine", FAKE_KEL, "--", "/bin/true"});
    EXPECT_EQ(o.status, 126) << o.err;
    EXPECT_NE(o.err.find("is a 64-bit program"), std::string::npos) << o.err;
  }
  o = run_vorx({"run", "-e", "EMPTY=", "--", "/bin/true"});
  EXPECT_EQ(o.status, 2);
  o = run_vorx({"frobnicate"});
  EXPECT_EQ(o.status, 2);
  EXPECT_NE(o.err.find("unknown command 'frobnicate'"), std::string::npos);
}

#ifdef KEL_BINARY
// The real engine between vorx and the program: the tool gets the server's
// name and fetches its configuration; vorx follows the program to its end.
TEST_F(VorxRun, UnderTheRealEngine) {
  Outcome o = run_vorx({"run", "--engine", KEL_BINARY, "--tool", STANDIN_TOOL, "-r",
                        (dir / "res").string(), "--", EXIT_WITH, "5"});
  EXPECT_EQ(o.status, 5) << o.err;
  std::string m = manifest();
  EXPECT_EQ(count(m, "\"configurations\": 1"), 1u) << m << o.err;
  EXPECT_EQ(count(m, "\"ended\": null"), 0u) << m;
}
#endif

}  // namespace
