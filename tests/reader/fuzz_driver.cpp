// A standalone mutation driver for the fuzz entry, for builds without libFuzzer: mutates seed
// traces made with the collector's writers for a given number of seconds.
#include "trace_builder.hpp"

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <random>

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t *data, std::size_t size);

int main(int argc, char **argv)
{
  double seconds = argc > 1 ? std::atof(argv[1]) : 20;
  std::vector<std::vector<std::uint8_t>> seeds;
  TraceBuilder full;
  full.hardcfg(1000).process(1, TF_EC_BEGIN, 5, "p").thread(2, TF_EC_BEGIN, 6).sample(2, 7).thread_name(2, 8, "t");
  for (std::uint8_t mode : {0, 1, 3}) {
    std::vector<std::uint8_t> s{std::uint8_t(mode | 4)};
    const auto &b = full.bytes();
    s.insert(s.end(), b.begin() + (mode == 0 ? 0 : 8), b.end());
    seeds.push_back(s);
  }
  std::mt19937 rng(12345);
  auto end = std::chrono::steady_clock::now() + std::chrono::duration<double>(seconds);
  unsigned long runs = 0;
  while (std::chrono::steady_clock::now() < end) {
    for (int k = 0; k < 64; k++, runs++) {
      std::vector<std::uint8_t> in = seeds[rng() % seeds.size()];
      for (unsigned m = 1 + rng() % 8; m > 0 && !in.empty(); m--) {
        std::size_t at = rng() % in.size();
        switch (rng() % 5) {
        case 0: in[at] ^= std::uint8_t(1u << (rng() % 8)); break;
        case 1: in[at] = std::uint8_t(rng()); break;
        case 2: in.resize(at + 1); break;
        case 3: in.insert(in.begin() + std::ptrdiff_t(at), std::uint8_t(rng())); break;
        case 4: in[at] = std::uint8_t(std::vector<int>{0, 0xFF, 0x7F, 0x80, 0x40}[rng() % 5]); break;
        }
      }
      LLVMFuzzerTestOneInput(in.data(), in.size());
      if (rng() % 16 == 0) seeds.push_back(in); // keep some mutants as seeds of their own
      if (seeds.size() > 256) seeds.erase(seeds.begin() + 3);
    }
  }
  std::printf("fuzz driver: %lu inputs in %.0f s, no crash\n", runs, seconds);
  return 0;
}
