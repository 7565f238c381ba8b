// Splits a trace stream into records. Accepts the stream in chunks of any size, keeps the
// bytes of an unfinished record between chunks, inflates compressed blocks and hands each
// record on with its place in the file. Problems are counted and described with the file
// name and byte offset; what was read before a problem is kept.
#pragma once

#include "record_decoder.hpp"
#include "report_stats.hpp"

#include <memory>
#include <string>
#include <vector>

namespace vorx::report {

// Where a record was found: its file offset, or the offset of the compressed block that
// holds it and its offset in the inflated bytes.
struct Location {
  std::uint64_t offset = 0;
  bool in_block = false;
  std::uint64_t inner = 0;
  std::string str() const;
};

class TraceSink {
public:
  virtual ~TraceSink() = default;
  virtual void on_record(const Record &record, const Location &where) = 0;
  virtual void on_stream_name(std::string_view name) {}
  virtual void on_problem(Stat stat, const std::string &message) {}
};

class TraceTokenizer {
public:
  TraceTokenizer(std::string file_name, TraceSink &sink, Stats &stats);
  ~TraceTokenizer();
  TraceTokenizer(const TraceTokenizer &) = delete;
  TraceTokenizer &operator=(const TraceTokenizer &) = delete;

  // Takes the next bytes of the stream. False once the stream cannot be followed any further;
  // later chunks are then ignored.
  bool feed(Bytes chunk);
  // The stream ended: an unfinished record is reported as truncated.
  void finish();

  std::uint64_t records() const { return records_; }
  std::size_t buffered() const { return pending_.size() - head_; }

private:
  enum class State { Start, Records, Stopped };
  bool drain(bool at_end);
  bool start(bool at_end);
  void handle(Bytes rec, const Location &where);
  void inflate_block(Bytes data, std::uint64_t block_offset);
  void problem(Stat stat, const std::string &what, const Location &where);

  std::string file_;
  TraceSink &sink_;
  Stats &stats_;
  State state_ = State::Start;
  bool named_ = false; // the stream name of the remote form was read
  std::vector<std::uint8_t> pending_;
  std::size_t head_ = 0;     // first unread byte of pending_
  std::uint64_t base_ = 0;   // file offset of pending_[0]
  std::uint64_t records_ = 0;
  struct Inflater;
  std::unique_ptr<Inflater> inflater_;
  std::vector<std::uint8_t> inflated_;
  Record record_;
  std::string error_;
};

} // namespace vorx::report
