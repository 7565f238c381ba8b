// Fixed-width little-endian loads from byte spans. The reader never overlays structures on
// trace bytes: a trace written by the 32-bit collector reads the same on any host.
#pragma once

#include <cstddef>
#include <cstdint>
#include <span>

namespace vorx::report {

using Bytes = std::span<const std::uint8_t>;

inline std::uint16_t ld16(const std::uint8_t *p) { return std::uint16_t(p[0] | (p[1] << 8)); }
inline std::uint32_t ld32(const std::uint8_t *p)
{
  return std::uint32_t(p[0]) | (std::uint32_t(p[1]) << 8) | (std::uint32_t(p[2]) << 16) | (std::uint32_t(p[3]) << 24);
}
inline std::uint64_t ld64(const std::uint8_t *p) { return ld32(p) | (std::uint64_t(ld32(p + 4)) << 32); }

inline std::uint64_t ld_width(const std::uint8_t *p, unsigned width)
{
  switch (width) {
  case 1: return p[0];
  case 2: return ld16(p);
  case 4: return ld32(p);
  default: return ld64(p);
  }
}

// A bounds-checked cursor over one record.
class Cursor {
public:
  explicit Cursor(Bytes b) : bytes_(b) {}
  bool has(std::size_t n) const { return n <= bytes_.size() - pos_; }
  std::size_t pos() const { return pos_; }
  std::size_t left() const { return bytes_.size() - pos_; }
  std::uint64_t take(unsigned width)
  {
    std::uint64_t v = ld_width(bytes_.data() + pos_, width);
    pos_ += width;
    return v;
  }
  Bytes take_bytes(std::size_t n)
  {
    Bytes b = bytes_.subspan(pos_, n);
    pos_ += n;
    return b;
  }

private:
  Bytes bytes_;
  std::size_t pos_ = 0;
};

} // namespace vorx::report
