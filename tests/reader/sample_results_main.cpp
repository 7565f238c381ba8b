// Writes the sample collection of sample_results.hpp into a directory, for looking at the
// reader's output by hand and in viewers (reader/tools/view_in_speedscope.sh).
#include "sample_results.hpp"

#include <cstdio>
#include <filesystem>

int main(int argc, char **argv)
{
  if (argc != 2) {
    std::fprintf(stderr, "usage: %s <directory>\n  writes a small collection's trace files into the directory\n", argv[0]);
    return 2;
  }
  std::error_code ec;
  std::filesystem::create_directories(argv[1], ec);
  if (ec) {
    std::fprintf(stderr, "%s: cannot create %s: %s\n", argv[0], argv[1], ec.message().c_str());
    return 1;
  }
  sample::write_results(argv[1]);
  return 0;
}
