// Seeds and expectations for the generated round-trip fillers (tf_records_test_gen.h).
#pragma once

#include <cstdint>
#include <cstring>
#include <string>
#include <vector>

struct tf_expected_field {
  std::string name;
  bool is_num;
  std::uint64_t num;
  std::vector<std::uint8_t> bytes;
};
struct tf_expect_t {
  std::vector<tf_expected_field> fields;
};

inline void tf_expect_num(tf_expect_t *e, const char *name, std::uint64_t v) { e->fields.push_back({name, true, v, {}}); }
inline void tf_expect_bytes(tf_expect_t *e, const char *name, const void *p, std::uint32_t n)
{
  const auto *b = static_cast<const std::uint8_t *>(p);
  e->fields.push_back({name, false, 0, b ? std::vector<std::uint8_t>(b, b + n) : std::vector<std::uint8_t>()});
}
// A string as the decoder gives it back: at most 8191 characters, without the NUL.
inline void tf_expect_str(tf_expect_t *e, const char *name, const char *s)
{
  std::size_t n = s ? strnlen(s, TF_STRING_MAX_CHARS) : 0;
  tf_expect_bytes(e, name, s, std::uint32_t(n));
}

inline std::uint64_t tf_seed_value(std::uint32_t seed, int i)
{
  std::uint64_t x = (std::uint64_t(seed) << 32) ^ (0x9E3779B97F4A7C15ull * std::uint64_t(i + 1));
  x ^= x >> 29;
  x *= 0xBF58476D1CE4E5B9ull;
  return x ^ (x >> 32);
}

// alt picks the long form: a string beyond the 8191-character limit.
inline const char *tf_seed_string(std::uint32_t seed, int i, int alt)
{
  static std::string strings[4];
  std::string &s = strings[(seed + unsigned(i)) % 4];
  s.assign(alt ? 9000 : 5 + (seed + unsigned(i)) % 40, char('a' + (seed + unsigned(i)) % 26));
  if (!alt && seed % 3 == 0) return nullptr; // a null string is stored as a single NUL
  return s.c_str();
}
inline const char *tf_seed_short_string(std::uint32_t seed, int i) { return tf_seed_string(seed, i, 0) ?: "vorx"; }

inline const void *tf_seed_bytes(std::uint32_t seed, int i)
{
  static std::vector<std::uint8_t> pattern = [] {
    std::vector<std::uint8_t> p(80000);
    for (std::size_t k = 0; k < p.size(); k++) p[k] = std::uint8_t(k * 7 + (k >> 8));
    return p;
  }();
  return pattern.data() + (seed + unsigned(i)) % 97;
}
inline std::uint32_t tf_seed_count(std::uint32_t seed, int i, std::uint32_t max) { return std::uint32_t(tf_seed_value(seed, i) % (max + 1)); }
// Above the long-form thresholds of stacks (128) and CPU identification (65,520) when alt.
inline std::uint32_t tf_seed_rest_size(std::uint32_t seed, int i, int alt) { return alt ? 70000 : 1 + seed % 127; }

// Entries of a fixed part and NUL-terminated strings whose lengths stand in the fixed part.
inline std::uint32_t tf_seed_entries(std::uint32_t seed, int i, std::uint32_t fixed, const std::uint32_t *lens,
                                     int nlens, const void **data, std::uint32_t *bytes)
{
  static std::vector<std::uint8_t> buf;
  buf.clear();
  std::uint32_t count = 1 + seed % 3;
  for (std::uint32_t e = 0; e < count; e++) {
    std::size_t start = buf.size();
    buf.resize(start + fixed, std::uint8_t(e + 1));
    for (int k = 0; k < nlens; k++) {
      std::uint32_t len = 2 + (seed + e + unsigned(k)) % 9;
      std::memcpy(&buf[start + lens[k]], &len, 4);
      for (std::uint32_t c = 0; c + 1 < len; c++) buf.push_back(std::uint8_t('A' + k));
      buf.push_back(0);
    }
  }
  *data = buf.data();
  *bytes = std::uint32_t(buf.size());
  return count;
}
