#include "TerminalJSON.h"

#include <algorithm>
#include <cstddef>

#include <nlohmann/json.hpp>

#include "HelperProtocol/JSONReader.h"
#include "TLFoundation/DisplayString.h"
#include "TLFoundation/Unicode.h"

namespace tessaloom {
namespace {

/// More than any reply of the helper has. What is nested deeper is not indented, which could make
/// it much longer.
constexpr std::size_t deepestIndented = 16;

/// How deep a JSON text is nested.
class JSONDepth final : public JSONTarget {
 public:
  std::size_t deepest() const { return deepest_; }

  void scalar(JSONScalar /*value*/, std::string_view /*source*/) override {}
  void begin(JSONContainer /*container*/) override { deepest_ = std::max(deepest_, ++depth_); }
  JSONTarget* member(std::string_view /*key*/) override { return this; }
  JSONTarget* element() override { return this; }
  void end() override { --depth_; }

 private:
  std::size_t depth_ = 0;
  std::size_t deepest_ = 0;
};

/// Valid JSON with each member and element on a line of its own.
std::string indented(std::string_view json) {
  std::string result;
  std::size_t depth = 0;
  bool isInString = false;
  for (std::size_t i = 0; i < json.size(); ++i) {
    const char character = json[i];
    if (isInString) {
      result += character;
      if (character == '\\') result += json[++i];
      isInString = character != '"';
      continue;
    }
    if (std::string_view(" \t\r\n").contains(character)) continue;
    const bool opens = character == '{' || character == '[';
    const bool closes = character == '}' || character == ']';
    const bool isFirst = result.ends_with('{') || result.ends_with('[');
    if (closes) --depth;
    if (isFirst != closes || result.ends_with(',')) result.append("\n").append(2 * depth, ' ');
    result += character;
    if (opens) ++depth;
    if (character == ':') result += ' ';
    isInString = character == '"';
  }
  return result;
}

/// Valid JSON with escapes for the characters that a terminal must not get: control characters,
/// invisible ones and, if it lacks UTF-8, all that are not ASCII.
std::string escaped(std::string_view json, bool toASCII) {
  std::string result;
  while (!json.empty()) {
    const std::string_view character = Unicode::firstScalar(json);
    json.remove_prefix(character.size());
    if (character == "\r") continue;  // Between tokens, where it means nothing.
    const bool isShown =
        !DisplayString::multiLine(character, 1).empty() && (!toASCII || character.size() == 1);
    if (isShown) {
      result += character;
    } else {
      const std::string quoted = nlohmann::json(character).dump(-1, ' ', true);
      result.append(quoted, 1, quoted.size() - 2);
    }
  }
  return result;
}

}  // namespace

std::string terminalJSON(std::string_view text, JSONLayout layout, bool toASCII) {
  JSONDepth depth;
  if (JSONReader::read(text, depth)) {
    // Nothing is cut: no text has more scalars than bytes.
    return DisplayString::multiLine(text, static_cast<std::int64_t>(text.size()));
  }
  const bool indents = layout == JSONLayout::indented && depth.deepest() <= deepestIndented;
  return indents ? escaped(indented(text), toASCII) : escaped(text, toASCII);
}

}  // namespace tessaloom
