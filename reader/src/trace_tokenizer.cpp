#include "trace_tokenizer.hpp"

#include <zlib.h>

#include <algorithm>
#include <cstring>

namespace vorx::report {
namespace {

constexpr std::uint32_t kMagicDesc = 0x08000000u;
constexpr std::uint32_t kMagicWord = 0xADDEDEFAu;
constexpr int kCompressedType = 50;
// A remote stream begins with its name; longer names are taken for garbage.
constexpr std::size_t kMaxStreamName = 4096;
// The collector's buffers stay below 16 MiB; an inflated block beyond this is corrupt.
constexpr std::size_t kMaxInflated = 64u << 20;

bool plausible_name(Bytes name)
{
  return !name.empty() && std::none_of(name.begin(), name.end(), [](std::uint8_t c) { return c < 0x20 || c == 0x7F; });
}

} // namespace

std::string Location::str() const
{
  return in_block ? std::to_string(offset) + "+" + std::to_string(inner) : std::to_string(offset);
}

struct TraceTokenizer::Inflater {
  z_stream z{};
  bool ready = false;
  Inflater() { ready = inflateInit(&z) == Z_OK; }
  ~Inflater()
  {
    if (ready) inflateEnd(&z);
  }
};

TraceTokenizer::TraceTokenizer(std::string file_name, TraceSink &sink, Stats &stats)
    : file_(std::move(file_name)), sink_(sink), stats_(stats)
{
}

TraceTokenizer::~TraceTokenizer() = default;

void TraceTokenizer::problem(Stat stat, const std::string &what, const Location &where)
{
  stats_.add(stat);
  sink_.on_problem(stat, file_ + ": " + what + " at byte offset " + where.str());
}

bool TraceTokenizer::feed(Bytes chunk)
{
  if (state_ == State::Stopped) return false;
  // Drop what was read before keeping more: memory stays at about one chunk and one record.
  if (head_ > 0 && head_ >= pending_.size() / 2) {
    pending_.erase(pending_.begin(), pending_.begin() + std::ptrdiff_t(head_));
    base_ += head_;
    head_ = 0;
  }
  pending_.insert(pending_.end(), chunk.begin(), chunk.end());
  return drain(false);
}

void TraceTokenizer::finish()
{
  if (state_ == State::Stopped) return;
  if (state_ == State::Start && pending_.empty()) {
    stats_.add(Stat::empty_trace_files);
    state_ = State::Stopped;
    return;
  }
  drain(true);
  state_ = State::Stopped;
}

bool TraceTokenizer::start(bool at_end)
{
  Bytes in(pending_.data() + head_, pending_.size() - head_);
  Location here{base_ + head_};
  if (in.size() >= 4 && ld32(in.data()) == kMagicDesc) {
    if (in.size() < 8) {
      if (at_end) problem(Stat::truncated_records, "file ends inside the magic record", here);
      return false;
    }
    if (ld32(in.data() + 4) != kMagicWord) {
      problem(Stat::missing_magic, "bad magic record", here);
      state_ = State::Stopped;
      return false;
    }
    state_ = State::Records;
    return true;
  }
  // The remote form: the UTF-8 stream name and its NUL come first.
  const std::uint8_t *nul = static_cast<const std::uint8_t *>(std::memchr(in.data(), 0, std::min(in.size(), kMaxStreamName)));
  if (named_ || in.size() < 4) {
    if (!at_end && in.size() < 4) return false;
    problem(Stat::missing_magic, named_ ? "no magic record behind the stream name" : "not a trace: no magic record", here);
    state_ = State::Stopped;
    return false;
  }
  if (nul && plausible_name(in.first(std::size_t(nul - in.data())))) {
    std::size_t n = std::size_t(nul - in.data()) + 1;
    sink_.on_stream_name(std::string_view(reinterpret_cast<const char *>(in.data()), n - 1));
    head_ += n;
    named_ = true;
    return true; // look for the magic record behind the name
  }
  if (!nul && in.size() < kMaxStreamName && !at_end) return false;
  problem(Stat::missing_magic, "not a trace: no magic record", here);
  state_ = State::Stopped;
  return false;
}

bool TraceTokenizer::drain(bool at_end)
{
  while (state_ == State::Start)
    if (!start(at_end)) return state_ != State::Stopped;
  while (state_ == State::Records) {
    Bytes in(pending_.data() + head_, pending_.size() - head_);
    if (in.empty()) return true;
    Location here{base_ + head_};
    Frame f = frame_record(in);
    if (f.status == FrameStatus::NeedMore) {
      if (at_end)
        problem(Stat::truncated_records,
                "truncated record (needs at least " + std::to_string(f.length) + " bytes, the file has " +
                    std::to_string(in.size()) + " left)",
                here);
      return !at_end;
    }
    if (f.status == FrameStatus::Corrupt) {
      problem(Stat::corrupt_records, "corrupt record: " + f.error, here);
      state_ = State::Stopped;
      return false;
    }
    handle(in.first(f.length), here);
    head_ += f.length;
  }
  return state_ != State::Stopped;
}

void TraceTokenizer::handle(Bytes rec, const Location &where)
{
  if (!decode_record(rec, record_, error_)) {
    problem(Stat::undecodable_records, "undecodable record: " + error_, where);
    return;
  }
  if (record_.schema && record_.type == kCompressedType && !where.in_block) {
    const Field *data = record_.find("data");
    inflate_block(data ? data->bytes : Bytes{}, where.offset);
    return;
  }
  if (!record_.schema) stats_.add(Stat::unknown_record_types);
  else if (record_.schema->api && record_.function.empty()) stats_.add(Stat::unknown_api_functions);
  records_++;
  sink_.on_record(record_, where);
}

void TraceTokenizer::inflate_block(Bytes data, std::uint64_t block_offset)
{
  Location block{block_offset};
  if (!inflater_) inflater_ = std::make_unique<Inflater>();
  z_stream &z = inflater_->z;
  if (!inflater_->ready || inflateReset(&z) != Z_OK) {
    problem(Stat::corrupt_compressed_blocks, "cannot set up inflation", block);
    return;
  }
  inflated_.resize(std::max<std::size_t>(inflated_.size(), 1u << 20));
  z.next_in = const_cast<Bytef *>(data.data());
  z.avail_in = uInt(data.size());
  std::size_t out = 0;
  int rc = Z_OK;
  while (rc == Z_OK) {
    if (out == inflated_.size()) {
      if (inflated_.size() >= kMaxInflated) break;
      inflated_.resize(inflated_.size() * 2);
    }
    z.next_out = inflated_.data() + out;
    z.avail_out = uInt(inflated_.size() - out);
    rc = inflate(&z, Z_SYNC_FLUSH);
    out = inflated_.size() - z.avail_out;
    if (rc == Z_BUF_ERROR && z.avail_out != 0) break; // input ended before the stream did
  }
  if (rc != Z_STREAM_END) {
    problem(Stat::corrupt_compressed_blocks,
            std::string("compressed block does not inflate (") + (z.msg ? z.msg : "stream incomplete") + ")", block);
    return;
  }
  // A block holds whole records: frame them as a stream of their own.
  Bytes all(inflated_.data(), out);
  std::size_t pos = 0;
  while (pos < all.size()) {
    Location here{block_offset, true, pos};
    Frame f = frame_record(all.subspan(pos));
    if (f.status == FrameStatus::NeedMore) {
      problem(Stat::block_ends_inside_record, "compressed block ends inside a record", here);
      return;
    }
    if (f.status == FrameStatus::Corrupt) {
      problem(Stat::corrupt_records, "corrupt record: " + f.error, here);
      return;
    }
    handle(all.subspan(pos, f.length), here);
    pos += f.length;
  }
}

} // namespace vorx::report
