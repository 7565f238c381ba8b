// Reports of the collector, turned into lines a person can read.
//
// A report arrives as "<?xml ?><msg name='N'><arg name='a' value='v' />...</msg>":
// the catalogue id and the argument values. The text is the catalogue's,
// made from the same description as the collector's own messages.
#pragma once

#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace vorx::server {

struct ParsedMessage {
  unsigned id = 0;
  std::vector<std::pair<std::string, std::string>> args;  // name, value in order
};

// Null when the text is not a message of that shape.
std::optional<ParsedMessage> parse_message(std::string_view xml);

// The catalogue's text with the argument values put in; the raw text when the
// id is unknown or the message cannot be read.
std::string render_message(std::string_view xml);

// The catalogue's plain text format of an id, or null.
const char *message_format(unsigned id);

}  // namespace vorx::server
