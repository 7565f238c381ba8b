// Knobs and the command line: `kel [engine switches] -t <tool> [tool switches] -- <program> [args]`.
// Engine switches belong to the family "kel"; every other family is the tool's.
#include <cerrno>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <vector>

#include "engine.h"

namespace LEVEL_BASE {
namespace {

constexpr const char* kEngineFamily = "kel";

std::vector<KNOB_BASE*>& registry() {
  static auto* knobs = new std::vector<KNOB_BASE*>;  // outlives every knob: never destroyed
  return *knobs;
}

KNOB_BASE* find_knob(const std::string& name, bool engine) {
  for (KNOB_BASE* k : registry())
    if (k->Name() == name && (k->Family() == kEngineFamily) == engine) return k;
  return nullptr;
}

}  // namespace

KNOB_BASE::KNOB_BASE(KNOB_MODE mode, const string& family, const string& name, const string& default_value,
                     const string& purpose)
    : mode_(mode), family_(family), name_(name), default_(default_value), purpose_(purpose) {
  registry().push_back(this);
}

KNOB_BASE::~KNOB_BASE() {
  auto& r = registry();
  for (auto it = r.begin(); it != r.end(); ++it)
    if (*it == this) {
      r.erase(it);
      break;
    }
}

BOOL KNOB_BASE::SetFromCommandLine(const string& value, string* error) {
  if (mode_ == KNOB_MODE_WRITEONCE && set_count_ > 0) {
    if (error) *error = "trying to overwrite write-once knob '" + name_ + "'";
    return false;
  }
  bool append = (mode_ == KNOB_MODE_ACCUMULATE || mode_ == KNOB_MODE_APPEND) && set_count_ > 0;
  if (!Parse(value, append)) {
    if (error) *error = "invalid value '" + value + "' for knob '" + name_ + "'";
    return false;
  }
  ++set_count_;
  return true;
}

VOID KNOB_BASE::Reset() {
  set_count_ = 0;
  ResetValue();
}

string KNOB_BASE::StringKnobSummary() {
  string out;
  string family;
  for (KNOB_BASE* k : registry()) {
    if (k->family_ != family) out += "\n" + (family = k->family_) + " switches:\n";
    out += "  -" + k->name_ + " <" + k->default_ + ">  " + k->purpose_ + "\n";
  }
  return out;
}

BOOL KnobParseValue(const string& text, string* out, BOOL append) {
  *out = append && !out->empty() ? *out + "," + text : text;
  return true;
}

BOOL KnobParseValue(const string& text, BOOL* out, BOOL) {
  if (text.empty() || text == "1" || text == "true" || text == "yes") return *out = true, true;
  if (text == "0" || text == "false" || text == "no") return *out = false, true;
  return false;
}

namespace {
template <class T, class Conv>
BOOL parse_number(const string& text, T* out, Conv conv) {
  if (text.empty()) return *out = 0, true;  // an empty default means zero
  errno = 0;
  char* end = nullptr;
  auto value = conv(text.c_str(), &end, 0);
  if (errno || !end || *end) return false;
  *out = static_cast<T>(value);
  return true;
}
}  // namespace

BOOL KnobParseValue(const string& text, INT32* out, BOOL) { return parse_number(text, out, strtol); }
BOOL KnobParseValue(const string& text, UINT32* out, BOOL) { return parse_number(text, out, strtoul); }
BOOL KnobParseValue(const string& text, INT64* out, BOOL) { return parse_number(text, out, strtoll); }
BOOL KnobParseValue(const string& text, UINT64* out, BOOL) { return parse_number(text, out, strtoull); }

}  // namespace LEVEL_BASE

namespace kel {
namespace {

LEVEL_BASE::KNOB<int> g_knob_log_level(LEVEL_BASE::KNOB_MODE_WRITEONCE, "kel", "log_level", "0",
                                       "engine log: 0 errors, 1 refusals, 2 images and probes, 3 everything");
LEVEL_BASE::KNOB<std::string> g_knob_logfile(LEVEL_BASE::KNOB_MODE_WRITEONCE, "kel", "logfile", "",
                                             "engine log file (standard error when empty)");

FILE* g_log_stream = nullptr;

FILE* log_stream() {
  if (!g_log_stream) {
    const std::string& path = g_knob_logfile.Value();
    if (!path.empty()) g_log_stream = fopen(path.c_str(), "a");
    if (!g_log_stream) g_log_stream = stderr;
  }
  return g_log_stream;
}

void vlog(const char* prefix, const char* format, va_list ap) {
  char line[1024];
  int n = snprintf(line, sizeof line, "kel: %s", prefix);
  vsnprintf(line + n, sizeof line - n, format, ap);
  fprintf(log_stream(), "%s\n", line);
  fflush(log_stream());
}

}  // namespace

int log_level() { return g_knob_log_level.Value(); }

void log_line(int level, const char* format, ...) {
  if (level > log_level()) return;
  va_list ap;
  va_start(ap, format);
  vlog("", format, ap);
  va_end(ap);
}

void engine_error(const char* format, ...) {
  va_list ap;
  va_start(ap, format);
  vlog("error: ", format, ap);
  va_end(ap);
}

}  // namespace kel

namespace LEVEL_KELCLIENT {

// argv: [launcher, engine switches..., -t, tool, tool switches..., --, program, args...]
BOOL KEL_Init(INT32 argc, CHAR** argv) {
  bool engine = true;
  std::string tool;
  for (INT32 i = 1; i < argc; ++i) {
    std::string arg = argv[i];
    if (arg == "--") break;
    if (engine && arg == "-t") {
      if (i + 1 >= argc) {
        fprintf(stderr, "KEL ERROR: -t needs the tool's path\n");
        return true;
      }
      tool = argv[++i];
      engine = false;
      continue;
    }
    if (arg == "-h" || arg == "-help" || arg == "--help") {
      fprintf(stderr, "usage: kel [engine switches] -t <tool.so> [tool switches] -- <program> [args]\n%s",
              KNOB_BASE::StringKnobSummary().c_str());
      return true;
    }
    if (arg.size() < 2 || arg[0] != '-') {
      fprintf(stderr, "KEL ERROR: unexpected argument '%s' (switches start with '-'; the program follows '--')\n",
              arg.c_str());
      return true;
    }
    std::string name = arg.substr(1);
    KNOB_BASE* knob = find_knob(name, engine);
    if (!knob) {
      if (engine) fprintf(stderr, "KEL ERROR: unknown engine switch '%s'\n", arg.c_str());
      else fprintf(stderr, "KEL ERROR: unknown switch '%s' for tool '%s'\n", arg.c_str(), tool.c_str());
      return true;
    }
    std::string value;
    bool has_value = i + 1 < argc && std::string(argv[i + 1]) != "--";
    if (knob->TakesOptionalValue()) {
      BOOL parsed = false;
      if (has_value && KnobParseValue(argv[i + 1], &parsed, false) && argv[i + 1][0] != '-') value = argv[++i];
      else value = "1";
    } else if (has_value) {
      value = argv[++i];
    } else {
      fprintf(stderr, "KEL ERROR: switch '%s' needs a value\n", arg.c_str());
      return true;
    }
    std::string error;
    if (!knob->SetFromCommandLine(value, &error)) {
      fprintf(stderr, "KEL ERROR: %s\n", error.c_str());
      return true;
    }
  }
  return false;
}

}  // namespace LEVEL_KELCLIENT
