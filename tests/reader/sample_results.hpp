// A results directory as a collection of a small program would leave it: a process with a main
// thread and a worker, and a forked child, whose files name their own process. Times are
// nanoseconds (the hardware record gives 1 GHz), written as microseconds from 1 ms on.
#pragma once

#include "trace_builder.hpp"

#include <fstream>
#include <string>

namespace sample {

// Probe ids of the catalogue: trace records carry them, so they never move.
enum : std::uint32_t {
  kWrite = 15,
  kMutexLock = 38,
  kRead = 64,
  kCondWait = 76,
  kMalloc = 99,
  kFree = 267,
  kSyncCreate = 121,
};

constexpr std::uint64_t us(std::uint64_t v) { return 1000000 + v * 1000; }
constexpr std::uint32_t kParent = 100, kWorker = 101, kChild = 200;
constexpr std::uint32_t kQueueLock = 0x0804a040, kQueueCond = 0x0804a080;

inline std::vector<std::uint8_t> sync_create_args(std::uint32_t object, const char *type, const char *name)
{
  std::vector<std::uint8_t> a(4);
  tf_st32(a.data(), object);
  for (const char *s : {type, name}) {
    std::uint16_t n = std::uint16_t(std::strlen(s) + 1);
    a.push_back(std::uint8_t(n)), a.push_back(std::uint8_t(n >> 8));
    a.insert(a.end(), s, s + n);
  }
  a.insert(a.end(), {0, 0, 0, 0});
  return a;
}

// The main thread: a task "load" with a read and two allocations in it, then three frames of
// "render" with a wait on the queue's condition inside each, a counter raised and lowered.
inline TraceBuilder parent_main()
{
  TraceBuilder b;
  b.hardcfg(1000000000)
      .put(TF_MARKER_SIZE, [](std::uint8_t *d) { return tf_marker_put(d, us(0), 17640000000000000ull); })
      .process(kParent, TF_EC_BEGIN, us(0), "contention")
      .thread(kParent, TF_EC_BEGIN, us(0))
      .note(kParent, us(1), [](auto *r) { tf_record_apiwrap_v1_init___ozk_thread_set_name(r, "main"); })
      .note(kParent, us(1), [](auto *r) { tf_record_apiwrap_v1_init___ozk_domain_create(r, "app", 1); })
      .note(kParent, us(1), [](auto *r) { tf_record_apiwrap_v1_init___ozk_string_handle_create(r, "load", 2); })
      .note(kParent, us(1), [](auto *r) { tf_record_apiwrap_v1_init___ozk_frame_create(r, "render", 3); })
      .note(kParent, us(1), [](auto *r) { tf_record_apiwrap_v1_init___ozk_counter_create(r, "queue depth", "app", 4); })
      .call_bytes(kParent, kSyncCreate, us(2), sync_create_args(kQueueLock, "mutex", "queue lock"));
  std::uint64_t ids[2] = {7, 0};
  b.mark(kParent, us(10), [&](auto *r) { tf_record_apiwrap_v2_init___ozk_task_begin(r, 1, ids, 2); })
      .call(kParent, kRead, us(20), us(120), {3, 4096})
      .call(kParent, kMalloc, us(130), us(131), {4096, 0x0900a000})
      .call(kParent, kMalloc, us(140), us(142), {100, 0x0900c000})
      .call(kParent, kFree, us(150), us(151), {0x0900c000})
      .mark(kParent, us(200), [](auto *r) { tf_record_apiwrap_v2_init___ozk_task_end(r, 1); });
  for (std::uint64_t f = 0; f < 3; f++) {
    std::uint64_t at = us(300 + f * 1000);
    b.mark(kParent, at, [](auto *r) { tf_record_apiwrap_v2_init___ozk_frame_begin(r, 3); })
        .note(kParent, at + 1000, [](auto *r) { tf_record_apiwrap_v1_init___ozk_counter_inc(r, 4); })
        .call(kParent, kCondWait, at + 100000, at + 100000 + (f + 1) * 100000, {kQueueCond, kQueueLock, 0})
        .mark(kParent, at + 600000, [](auto *r) { tf_record_apiwrap_v2_init___ozk_frame_end(r, 3); });
  }
  b.note(kParent, us(3500), [](auto *r) { tf_record_apiwrap_v1_init___ozk_counter_inc_delta(r, 4, 5); })
      .note(kParent, us(3600), [](auto *r) { tf_record_apiwrap_v1_init___ozk_counter_dec(r, 4); })
      .thread(kParent, TF_EC_END, us(4000))
      .process(kParent, TF_EC_END, us(4000), "contention");
  return b;
}

// The worker: three waits for the queue lock (100, 300 and 200 us) and two writes.
inline TraceBuilder parent_worker()
{
  TraceBuilder b;
  b.thread(kWorker, TF_EC_BEGIN, us(5))
      .thread_name(kWorker, us(5), "worker")
      .call(kWorker, kMutexLock, us(400), us(500), {kQueueLock, 0})
      .call(kWorker, kWrite, us(510), us(530), {1, 64})
      .call(kWorker, kMutexLock, us(1400), us(1700), {kQueueLock, 0})
      .call(kWorker, kMutexLock, us(2400), us(2600), {kQueueLock, 0})
      .call(kWorker, kWrite, us(2610), us(2640), {1, 0xFFFFFFFFu}) // failed: moved nothing
      .thread(kWorker, TF_EC_END, us(3900));
  return b;
}

// The forked child: the same lock address, which in its own memory is another object.
inline TraceBuilder child()
{
  TraceBuilder b;
  b.hardcfg(1000000000)
      .process(kChild, TF_EC_BEGIN, us(1000), "contention")
      .thread(kChild, TF_EC_BEGIN, us(1000))
      .call(kChild, kMutexLock, us(1100), us(1150), {kQueueLock, 0})
      .thread(kChild, TF_EC_END, us(1200))
      .process(kChild, TF_EC_END, us(1200), "contention");
  return b;
}

inline void write_file(const std::string &path, const TraceBuilder &b)
{
  std::ofstream(path, std::ios::binary).write(reinterpret_cast<const char *>(b.bytes().data()), std::streamsize(b.bytes().size()));
}

inline void write_results(const std::string &dir)
{
  write_file(dir + "/1-100.0.trace", parent_main());
  write_file(dir + "/1-100.1.th", parent_worker());
  write_file(dir + "/100-200.0.trace", child());
}

} // namespace sample
