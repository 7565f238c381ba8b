// Builds small traces in memory with the collector's own hand-built writers.
#pragma once

#include "vorx_traceformat.h"

#include <zlib.h>

#include <cstdint>
#include <cstring>
#include <string>
#include <vector>

class TraceBuilder {
public:
  TraceBuilder() { put(TF_MAGIC_SIZE, [](std::uint8_t *d) { return tf_magic_put(d); }); }

  template <typename F>
  TraceBuilder &put(std::size_t room, F write)
  {
    std::size_t at = bytes_.size();
    bytes_.resize(at + room + 8);
    bytes_.resize(at + write(bytes_.data() + at));
    return *this;
  }

  TraceBuilder &process(std::uint32_t pid, std::uint32_t cls, std::uint64_t ts, const char *name)
  {
    std::uint32_t n = std::uint32_t(std::strlen(name));
    return put(64 + n, [&](std::uint8_t *d) {
      std::uint32_t pos = tf_process_put_head(d, cls, pid, 0, ts, n);
      std::memcpy(d + pos, name, n);
      return pos + n;
    });
  }
  TraceBuilder &thread(std::uint32_t tid, std::uint32_t cls, std::uint64_t ts)
  {
    return put(TF_THREAD_WRITER_SIZE, [&](std::uint8_t *d) { return tf_thread_writer_put(d, cls, tid, 0, 0, ts); });
  }
  TraceBuilder &sample(std::uint32_t tid, std::uint64_t ts)
  {
    return put(TF_CPU_SAMPLE_SIZE, [&](std::uint8_t *d) { return tf_cpu_sample_put(d, tid, 0, ts, 1000, 3); });
  }
  TraceBuilder &hardcfg(std::uint64_t ts_hz)
  {
    return put(64, [&](std::uint8_t *d) {
      std::uint32_t pos = tf_hardcfg_put_head(d, 2000000000ull, ts_hz, 0xFFFFFFFF80000000ull, 32, 6, 0x3A, 9, 4);
      tf_st32(d + pos, 0); // no per-CPU groups
      return pos + 4;
    });
  }
  TraceBuilder &thread_name(std::uint32_t tid, std::uint64_t ts, const char *name)
  {
    tf_record_apiwrap_v1_t r;
    tf_record_apiwrap_v1_init___internal_thread_name(&r, name);
    r.tid = tid;
    r.aux_id = 0;
    r.begin_time = r.end_time = ts;
    std::uint32_t n = tf_record_size(&r);
    return put(n, [&](std::uint8_t *d) {
      tf_record_encode(&r, d, n);
      return n;
    });
  }
  // Everything after the magic record becomes one compressed block.
  TraceBuilder &compress()
  {
    std::vector<std::uint8_t> plain(bytes_.begin() + 8, bytes_.end());
    uLongf n = compressBound(uLong(plain.size()));
    std::vector<std::uint8_t> z(n);
    compress2(z.data(), &n, plain.data(), uLong(plain.size()), 6);
    bytes_.resize(8);
    std::uint8_t head[10];
    tf_compressed_put_head(head, std::uint32_t(n));
    bytes_.insert(bytes_.end(), head, head + 10);
    bytes_.insert(bytes_.end(), z.begin(), z.begin() + std::ptrdiff_t(n));
    return *this;
  }
  TraceBuilder &raw(std::initializer_list<std::uint8_t> b)
  {
    bytes_.insert(bytes_.end(), b);
    return *this;
  }

  const std::vector<std::uint8_t> &bytes() const { return bytes_; }

private:
  std::vector<std::uint8_t> bytes_;
};
