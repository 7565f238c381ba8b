#include "messages.hpp"

#include <algorithm>
#include <array>
#include <cctype>
#include <charconv>

#include "vorx_messages.h"

namespace vorx::server {
namespace {

struct CatalogueEntry {
  unsigned id;
  const char *text;
};

constexpr CatalogueEntry kCatalogue[] = {
#define VORX_MESSAGE(id, name, level, fatal, text, arguments) {id, text},
#include "vorx_messages.def"
#undef VORX_MESSAGE
};

// The text between `open` and the next `close` after pos; npos when absent.
std::optional<std::string_view> take_between(std::string_view text, size_t &pos,
                                             std::string_view open, std::string_view close) {
  size_t start = text.find(open, pos);
  if (start == std::string_view::npos) return std::nullopt;
  start += open.size();
  size_t end = text.find(close, start);
  if (end == std::string_view::npos) return std::nullopt;
  pos = end + close.size();
  return text.substr(start, end - start);
}

}  // namespace

const char *message_format(unsigned id) {
  auto it = std::find_if(std::begin(kCatalogue), std::end(kCatalogue),
                         [id](const CatalogueEntry &e) { return e.id == id; });
  return it == std::end(kCatalogue) ? nullptr : it->text;
}

std::optional<ParsedMessage> parse_message(std::string_view xml) {
  constexpr std::string_view kHead = "<?xml ?><msg name='";
  if (!xml.starts_with(kHead)) return std::nullopt;
  ParsedMessage out;
  auto [ptr, ec] = std::from_chars(xml.data() + kHead.size(), xml.data() + xml.size(), out.id);
  if (ec != std::errc() || std::string_view(ptr, 2) != "'>") return std::nullopt;
  size_t pos = (size_t)(ptr - xml.data()) + 2;
  // Values are not escaped by the collector: a value ends at the first "' />".
  while (xml.substr(pos).starts_with("<arg name='")) {
    auto name = take_between(xml, pos, "<arg name='", "' value='");
    if (!name) return std::nullopt;
    size_t value_start = pos;
    size_t value_end = xml.find("' />", value_start);
    if (value_end == std::string_view::npos) return std::nullopt;
    out.args.emplace_back(std::string(*name), std::string(xml.substr(value_start, value_end - value_start)));
    pos = value_end + 4;
  }
  if (!xml.substr(pos).starts_with("</msg>")) return std::nullopt;
  return out;
}

// printf conversions of the catalogue texts take one argument each; "%%" is
// a percent sign. Values are text already, so every conversion prints its
// value as it came.
std::string render_message(std::string_view xml) {
  auto parsed = parse_message(xml);
  const char *format = parsed ? message_format(parsed->id) : nullptr;
  if (!format) return std::string(xml);
  std::string out;
  size_t next_arg = 0;
  for (const char *p = format; *p; ++p) {
    if (*p != '%') {
      out += *p;
      continue;
    }
    if (p[1] == '%') {
      out += '%';
      ++p;
      continue;
    }
    // Skip flags, width, precision and length up to the conversion letter.
    const char *q = p + 1;
    while (*q && !std::isalpha((unsigned char)*q)) ++q;
    while (*q == 'l' || *q == 'h' || *q == 'z') ++q;
    if (!*q) break;
    out += next_arg < parsed->args.size() ? parsed->args[next_arg].second : std::string("?");
    ++next_arg;
    p = q;
  }
  while (!out.empty() && out.back() == ' ') out.pop_back();
  return out;
}

}  // namespace vorx::server
