#include "record_decoder.hpp"

extern "C" {
#include "tf_schema_gen.h"
}

#include <algorithm>
#include <array>
#include <charconv>
#include <cstring>
#include <unordered_map>

namespace vorx::report {
namespace {

constexpr std::uint32_t kMagicDesc = 0x08000000u;
constexpr std::uint32_t kSize16 = 0x00400000u, kSize32 = 0x00800000u, kApiSize = 0x01000000u;

// Bytes between the descriptor and a size field, from the descriptor's mask.
std::size_t size_field_offset(std::uint32_t desc)
{
  struct Bit { std::uint32_t mask; unsigned width; };
  static constexpr Bit bits[] = {{0x20000000u, 4}, {0x1u, 4}, {0x2u, 4}, {0x4u, 4}, {0x8u, 8},
                                 {0x10u, 8},       {0x20u, 8}, {0x200u, 8}, {0x400u, 8}};
  std::size_t off = 4;
  for (const Bit &b : bits)
    if (desc & b.mask) off += b.width;
  return off;
}

constexpr std::array<std::string_view, 16> kArgNames = {
    "arg0", "arg1", "arg2", "arg3", "arg4", "arg5", "arg6", "arg7",
    "arg8", "arg9", "arg10", "arg11", "arg12", "arg13", "arg14", "arg15"};

bool is_api_desc(std::uint32_t desc) { return (desc & ~0x6u) == 0x03000011u; }

const tf_schema_t *find_fixed_schema(std::uint32_t desc)
{
  for (const tf_schema_t &s : tf_schemas)
    if (!s.sized && (s.desc == desc || s.alt_desc == desc)) return &s;
  return nullptr;
}

const tf_schema_t *find_sized_schema(std::uint32_t desc, int type, Bytes rec, std::size_t after_type)
{
  for (const tf_schema_t &s : tf_schemas) {
    if (!s.sized || s.type != type) continue;
    if (s.api ? !is_api_desc(desc) : (s.desc != desc && s.alt_desc != desc)) continue;
    if (s.version >= 0) {
      if (rec.size() < after_type + 4 || ld32(rec.data() + after_type) != std::uint32_t(s.version)) continue;
    }
    return &s;
  }
  return nullptr;
}

// Names of the wrapped functions, from the probe catalogue, for API records that are not
// members of the API family: their arguments stay undecoded, their function is named.
struct ProbeName {
  std::uint32_t id;
  const char *name;
};
#ifdef VORX_READER_HAVE_PROBE_NAMES
constexpr ProbeName kProbeNames[] = {
#define VORX_PROBE(id, name, ...) {id, name},
#include "vorx_probes.def"
#undef VORX_PROBE
};
#else
constexpr ProbeName kProbeNames[] = {{~0u, ""}};
#endif

std::string_view probe_name(std::uint32_t id)
{
  for (const ProbeName &p : kProbeNames)
    if (p.id == id) return p.name;
  return {};
}

const tf_api_desc_t *find_api(std::uint32_t id, int form)
{
  for (const tf_api_desc_t &a : tf_api_descs)
    if (a.id == id && a.form == form) return &a;
  return nullptr;
}

unsigned count_width(tf_field_kind_t k)
{
  switch (k) {
  case TF_FK_ARR8: return 1;
  case TF_FK_ARR16: case TF_FK_ENTS16: return 2;
  default: return 4;
  }
}

unsigned scalar_width(tf_field_kind_t k)
{
  switch (k) {
  case TF_FK_U8: return 1;
  case TF_FK_U16: return 2;
  case TF_FK_U32: return 4;
  case TF_FK_U64: return 8;
  case TF_FK_TAG4: return 4;
  default: return 0;
  }
}

Bytes strip_nul(Bytes b) { return (!b.empty() && b.back() == 0) ? b.first(b.size() - 1) : b; }

class Walker {
public:
  Walker(Bytes rec, Record &out, std::string &error) : cur_(rec), out_(out), error_(error) {}

  bool fail(std::string_view field, std::string_view what)
  {
    error_ = std::string(out_.name()) + "." + std::string(field) + ": " + std::string(what) + " at record byte " +
             std::to_string(cur_.pos());
    return false;
  }
  bool need(std::string_view field, std::size_t n) { return cur_.has(n) || fail(field, "runs past the end of the record"); }

  void num(std::string_view name, std::uint64_t v) { out_.fields.push_back({name, Field::Kind::Num, v, {}, 1}); }
  void str(std::string_view name, Bytes b) { out_.fields.push_back({name, Field::Kind::Str, 0, strip_nul(b), 1}); }
  void bytes(std::string_view name, Bytes b, std::uint32_t elem) { out_.fields.push_back({name, Field::Kind::Bytes, 0, b, elem}); }

  bool field(const tf_field_desc_t &f, std::string_view name, bool alt)
  {
    if (f.optbit && !(out_.desc & f.optbit)) return true;
    if (f.altonly && !alt) return true;
    switch (f.kind) {
    case TF_FK_U8: case TF_FK_U16: case TF_FK_U32: case TF_FK_U64: {
      unsigned w = scalar_width(f.kind);
      if (!need(name, w)) return false;
      num(name, cur_.take(w));
      return true;
    }
    case TF_FK_SIZE16: case TF_FK_SIZE32: case TF_FK_SIZEVAR: {
      bool wide = f.kind == TF_FK_SIZE32 || (f.kind == TF_FK_SIZEVAR && alt);
      if (!need("size", wide ? 6 : 4)) return false;
      num("size", cur_.take(wide ? 4 : 2));
      num("type", cur_.take(2));
      return true;
    }
    case TF_FK_STR16: case TF_FK_STR8: {
      unsigned w = f.kind == TF_FK_STR8 ? 1 : 2;
      if (!need(name, w)) return false;
      std::size_t n = cur_.take(w);
      if (!need(name, n)) return false;
      str(name, cur_.take_bytes(n));
      return true;
    }
    case TF_FK_TAG4:
      if (!need(name, 4)) return false;
      str(name, cur_.take_bytes(4));
      return true;
    case TF_FK_STRREST:
      str(name, cur_.take_bytes(cur_.left()));
      return true;
    case TF_FK_REST:
      bytes(name, cur_.take_bytes(cur_.left()), 1);
      return true;
    case TF_FK_ARR8: case TF_FK_ARR16: case TF_FK_ARR32: {
      unsigned w = count_width(f.kind);
      if (!need(name, w)) return false;
      std::uint64_t n = cur_.take(w) * std::uint64_t(f.elem);
      if (!need(name, n)) return false;
      bytes(name, cur_.take_bytes(n), f.elem);
      return true;
    }
    case TF_FK_ENTS16: case TF_FK_ENTS32:
      return entries(f, name);
    case TF_FK_ARGS:
      return args();
    }
    return fail(name, "unknown field kind");
  }

  // Entries of a fixed part and strings whose lengths the fixed part holds.
  bool entries(const tf_field_desc_t &f, std::string_view name)
  {
    unsigned w = count_width(f.kind);
    if (!need(name, w)) return false;
    std::uint64_t n = cur_.take(w);
    Cursor probe = cur_;
    std::uint64_t total = 0;
    for (std::uint64_t i = 0; i < n; i++) {
      if (!probe.has(f.elem)) return fail(name, "entry runs past the end of the record");
      Bytes fixed = probe.take_bytes(f.elem);
      std::uint64_t strings = 0;
      for (unsigned k = 0; k < f.nlens; k++) strings += ld32(fixed.data() + f.lens[k]);
      if (!probe.has(strings)) return fail(name, "entry strings run past the end of the record");
      probe.take_bytes(strings);
      total += f.elem + strings;
    }
    bytes(name, cur_.take_bytes(total), 1);
    return true;
  }

  // API arguments: typed by the member table when the function is known, raw otherwise.
  bool args()
  {
    if (cur_.left() == 0) return true; // no arguments: no version byte either
    num("version", cur_.take(1));
    if (!out_.api) {
      bytes("args", cur_.take_bytes(cur_.left()), 1);
      return true;
    }
    std::string_view layout = out_.api->args;
    for (unsigned i = 0; !layout.empty(); i++) {
      std::size_t comma = layout.find(',');
      std::string_view a = layout.substr(0, comma);
      layout = comma == std::string_view::npos ? std::string_view() : layout.substr(comma + 1);
      std::string_view name = kArgNames[i < kArgNames.size() ? i : kArgNames.size() - 1];
      if (!arg(a, name)) return false;
    }
    if (cur_.left() != 0) return fail("args", "bytes left behind the last argument");
    return true;
  }

  bool arg(std::string_view a, std::string_view name)
  {
    std::size_t bracket = a.find('[');
    std::string_view base = a.substr(0, bracket);
    if (base == "str") {
      if (!need(name, 2)) return false;
      std::size_t n = cur_.take(2);
      if (!need(name, n)) return false;
      str(name, cur_.take_bytes(n));
      return true;
    }
    unsigned w = base == "u8" ? 1 : base == "u16" ? 2 : base == "u32" ? 4 : 8;
    if (bracket == std::string_view::npos) {
      if (!need(name, w)) return false;
      num(name, cur_.take(w));
      return true;
    }
    if (!need(name, 4)) return false;
    std::uint64_t n = cur_.take(4) * std::uint64_t(w);
    if (!need(name, n)) return false;
    bytes(name, cur_.take_bytes(n), w);
    return true;
  }

  Cursor &cursor() { return cur_; }

private:
  Cursor cur_;
  Record &out_;
  std::string &error_;
};

// Length of a record without a size field: walk its schema over what is there.
Frame frame_fixed(Bytes bytes, std::uint32_t desc)
{
  const tf_schema_t *s = find_fixed_schema(desc);
  if (!s) {
    char hex[16];
    auto r = std::to_chars(hex, hex + sizeof hex, desc, 16);
    return {FrameStatus::Corrupt, 0, "unknown record descriptor 0x" + std::string(hex, r.ptr)};
  }
  bool alt = desc == s->alt_desc && s->alt_desc != s->desc;
  std::size_t pos = 4;
  for (unsigned i = 0; i < s->nfields; i++) {
    const tf_field_desc_t &f = s->fields[i];
    if (f.altonly && !alt) continue;
    if (unsigned w = scalar_width(f.kind)) {
      pos += w;
      continue;
    }
    // Only counted arrays stand in records without a size field.
    unsigned cw = count_width(f.kind);
    if (bytes.size() < pos + cw) return {FrameStatus::NeedMore, pos + cw, {}};
    pos += cw + ld_width(bytes.data() + pos, cw) * f.elem;
  }
  if (bytes.size() < pos) return {FrameStatus::NeedMore, pos, {}};
  return {FrameStatus::Ok, pos, {}};
}

} // namespace

Frame frame_record(Bytes bytes)
{
  if (bytes.size() < 4) return {FrameStatus::NeedMore, 4, {}};
  std::uint32_t desc = ld32(bytes.data());
  if (desc == kMagicDesc) {
    if (bytes.size() < 8) return {FrameStatus::NeedMore, 8, {}};
    return {FrameStatus::Ok, 8, {}};
  }
  if (!(desc & (kSize16 | kSize32 | kApiSize))) return frame_fixed(bytes, desc);
  if ((desc & kSize16) && (desc & kSize32)) return {FrameStatus::Corrupt, 0, "descriptor has both size forms"};
  std::size_t off = size_field_offset(desc);
  bool wide = desc & kSize32;
  std::size_t head = off + (wide ? 6 : 4);
  if (bytes.size() < head) return {FrameStatus::NeedMore, head, {}};
  std::size_t size = wide ? ld32(bytes.data() + off) : ld16(bytes.data() + off);
  if (size < std::size_t(wide ? 6 : 4)) return {FrameStatus::Corrupt, 0, "size " + std::to_string(size) + " smaller than its own field"};
  if (size > kMaxRecordSize) return {FrameStatus::Corrupt, 0, "size " + std::to_string(size) + " beyond any record"};
  std::size_t length = off + size;
  if (bytes.size() < length) return {FrameStatus::NeedMore, length, {}};
  return {FrameStatus::Ok, length, {}};
}

bool unpack_online_stack(Bytes packed, std::vector<std::uint32_t> &frames)
{
  // Items: a byte n (+0x40 for a negative value) and the n low bytes of the value, the higher
  // bytes being its sign; the first value is an address, each further one its difference from the
  // address before it. Return addresses, innermost first.
  frames.clear();
  std::size_t pos = 0;
  std::uint32_t prev = 0;
  while (pos < packed.size()) {
    std::uint8_t head = packed[pos++];
    unsigned n = head & 0x0F;
    if (n > 4 || (head & ~0x4Fu) || packed.size() - pos < n) return false;
    std::uint32_t v = (head & 0x40) ? 0xFFFFFFFFu : 0;
    for (unsigned i = 0; i < n; i++) v = (v & ~(0xFFu << (8 * i))) | (std::uint32_t(packed[pos + i]) << (8 * i));
    pos += n;
    prev += v;
    frames.push_back(prev);
  }
  return true;
}

namespace {

// The names of a schema and of its fields, measured once: the tables hold C strings, and a trace holds
// millions of records of a few kinds. Records of one kind come in runs, so the last answer is kept too.
struct SchemaNames {
  std::string_view record;
  std::vector<std::string_view> fields;
};

const SchemaNames &names_of(const tf_schema_t *schema)
{
  static std::unordered_map<const tf_schema_t *, SchemaNames> known;
  static const tf_schema_t *last = nullptr;
  static const SchemaNames *last_names = nullptr;
  if (schema == last) return *last_names;
  auto [it, fresh] = known.try_emplace(schema);
  if (fresh) {
    it->second.record = schema->name;
    for (unsigned i = 0; i < schema->nfields; i++) it->second.fields.emplace_back(schema->fields[i].name);
  }
  last = schema;
  last_names = &it->second;
  return it->second;
}

} // namespace

bool decode_record(Bytes rec, Record &out, std::string &error)
{
  out.schema = nullptr; // reset in place: the field vector keeps its memory between records
  out.api = nullptr;
  out.function = {};
  out.record_name = "unknown";
  out.type = -1;
  out.fields.clear();
  out.raw = rec;
  if (rec.size() < 4) {
    error = "record shorter than its descriptor";
    return false;
  }
  out.desc = ld32(rec.data());
  if (out.desc & (kSize16 | kSize32 | kApiSize)) {
    std::size_t off = size_field_offset(out.desc);
    bool wide = out.desc & kSize32;
    std::size_t after = off + (wide ? 6 : 4);
    if (rec.size() < after) {
      error = "record shorter than its size field";
      return false;
    }
    out.type = ld16(rec.data() + after - 2);
    out.schema = find_sized_schema(out.desc, out.type, rec, after);
    if (!out.schema) return true; // unknown type: framed, counted, not decoded
  } else {
    out.schema = find_fixed_schema(out.desc);
    if (!out.schema) {
      error = "unknown record descriptor";
      return false;
    }
  }
  const tf_schema_t &s = *out.schema;
  const SchemaNames &names = names_of(out.schema);
  out.record_name = names.record;
  bool alt = out.desc == s.alt_desc && s.alt_desc != s.desc;
  Walker w(rec, out, error);
  w.cursor().take(4);
  for (unsigned i = 0; i < s.nfields; i++) {
    const tf_field_desc_t &f = s.fields[i];
    if (f.kind == TF_FK_ARGS && !out.fields.empty() && out.fields.back().name == "function_id") {
      std::uint32_t id = std::uint32_t(out.fields.back().num);
      int form = out.type == 9 ? 2 : 1;
      std::uint32_t fid = form == 2 ? (id & 0x7FFFFFFFu) : id;
      out.api = find_api(fid, form);
      out.function = out.api ? std::string_view(out.api->name) : probe_name(fid);
    }
    if (!w.field(f, names.fields[i], alt)) return false;
  }
  if (w.cursor().left() != 0) {
    error = std::string(out.name()) + ": " + std::to_string(w.cursor().left()) + " bytes left behind the last field";
    return false;
  }
  return true;
}

} // namespace vorx::report
