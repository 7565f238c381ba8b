// Record framing and decoding, driven by the tables generated from records.tbl: the same
// description the collector's encoders come from.
#pragma once

#include "le.hpp"
#include "tf_schema.h"

#include <string>
#include <string_view>
#include <vector>

namespace vorx::report {

struct Field {
  enum class Kind { Num, Str, Bytes };
  std::string_view name;
  Kind kind = Kind::Num;
  std::uint64_t num = 0;
  Bytes bytes;           // Str: without the NUL; Bytes: the elements
  std::uint32_t elem = 1; // element size of Bytes
};

struct Record {
  const tf_schema_t *schema = nullptr; // null: a sized record of a type the reader doesn't know
  const tf_api_desc_t *api = nullptr;  // API member, when the function id is a known one
  std::string_view function;           // API records: the function's name, when known
  std::uint32_t desc = 0;
  int type = -1;
  Bytes raw;
  std::vector<Field> fields;

  std::string_view record_name = "unknown"; // the schema's name, measured once
  std::string_view name() const { return record_name; }
  const Field *find(std::string_view n) const
  {
    for (const Field &f : fields)
      if (f.name == n) return &f;
    return nullptr;
  }
};

enum class FrameStatus { Ok, NeedMore, Corrupt };

struct Frame {
  FrameStatus status = FrameStatus::Corrupt;
  std::size_t length = 0; // Ok: the record's length; NeedMore: the least length known to be needed
  std::string error;      // Corrupt: why
};

// The length of the record at the start of bytes, from its descriptor and size field.
Frame frame_record(Bytes bytes);

// Decodes one complete record (exactly the bytes frame_record measured). On failure, error
// says which field broke; out keeps the fields read before it.
bool decode_record(Bytes rec, Record &out, std::string &error);

// The return addresses of an online stack's packed bytes, innermost first; false when the bytes
// are not a whole number of items.
bool unpack_online_stack(Bytes packed, std::vector<std::uint32_t> &frames);

// Records larger than this are taken for corruption: the collector never writes one.
constexpr std::size_t kMaxRecordSize = 64u << 20;

} // namespace vorx::report
