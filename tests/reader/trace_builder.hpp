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
  // A wrapped function's call record: the version byte and 32-bit words, as the callbacks write.
  TraceBuilder &call(std::uint32_t tid, std::uint32_t function_id, std::uint64_t begin, std::uint64_t end,
                     std::initializer_list<std::uint32_t> words)
  {
    std::uint32_t tail = words.size() ? 1 + 4 * std::uint32_t(words.size()) : 0;
    return put(64 + tail, [&](std::uint8_t *d) {
      std::uint32_t pos = tf_apiwrap_v1_put_head(d, 0x03000017u, tid, 0, end, begin, 0, function_id, tail);
      if (tail) d[pos++] = 1;
      for (std::uint32_t w : words) tf_st32(d + pos, w), pos += 4;
      return pos;
    });
  }
  // A call record with raw argument bytes (texts and words mixed), version 1.
  TraceBuilder &call_bytes(std::uint32_t tid, std::uint32_t function_id, std::uint64_t t, const std::vector<std::uint8_t> &args)
  {
    std::uint32_t tail = 1 + std::uint32_t(args.size());
    return put(64 + tail, [&](std::uint8_t *d) {
      std::uint32_t pos = tf_apiwrap_v1_put_head(d, 0x03000017u, tid, 0, t, t, 0, function_id, tail);
      d[pos++] = 1;
      std::memcpy(d + pos, args.data(), args.size());
      return pos + std::uint32_t(args.size());
    });
  }
  // An annotation record of the family: init fills the object (tf_record_apiwrap_v1/v2_init_*).
  template <typename R, typename Init>
  TraceBuilder &annotation(std::uint32_t tid, std::uint64_t t, Init init)
  {
    R r;
    init(&r);
    r.tid = tid;
    r.aux_id = 0;
    if constexpr (requires { r.time; }) r.time = t;
    else r.begin_time = r.end_time = t;
    std::uint32_t n = tf_record_size(&r);
    return put(n, [&](std::uint8_t *d) {
      tf_record_encode(&r, d, n);
      return n;
    });
  }
  template <typename Init>
  TraceBuilder &mark(std::uint32_t tid, std::uint64_t t, Init init) { return annotation<tf_record_apiwrap_v2_t>(tid, t, init); }
  template <typename Init>
  TraceBuilder &note(std::uint32_t tid, std::uint64_t t, Init init) { return annotation<tf_record_apiwrap_v1_t>(tid, t, init); }

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
