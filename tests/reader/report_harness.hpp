// Running `vorx report` inside a test: a scratch directory and the command with stdout captured.
#pragma once

#include "vorx_report.h"

#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <string>
#include <vector>

struct TempDir {
  std::string path;
  TempDir()
  {
    char tmpl[] = "/tmp/vorx_report_XXXXXX";
    path = mkdtemp(tmpl);
  }
  ~TempDir() { std::system(("rm -rf " + path).c_str()); }
  std::string write(const char *name, const std::vector<std::uint8_t> &bytes) const
  {
    std::string p = path + "/" + name;
    std::ofstream(p, std::ios::binary).write(reinterpret_cast<const char *>(bytes.data()), std::streamsize(bytes.size()));
    return p;
  }
};

// Runs command_report with stdout captured.
inline std::string run_report(std::vector<std::string> args, int *status)
{
  std::fflush(stdout);
  std::FILE *tmp = std::tmpfile();
  int saved = dup(1);
  dup2(fileno(tmp), 1);
  args.insert(args.begin(), "report");
  std::vector<char *> argv;
  for (std::string &a : args) argv.push_back(a.data());
  *status = command_report(int(argv.size()), argv.data());
  std::fflush(stdout);
  dup2(saved, 1);
  close(saved);
  std::rewind(tmp);
  std::string out;
  char buf[4096];
  for (std::size_t n; (n = std::fread(buf, 1, sizeof buf, tmp)) > 0;) out.append(buf, n);
  std::fclose(tmp);
  return out;
}

