#pragma once

#include <cstdint>
#include <stdexcept>
#include <string>

namespace tessaloom {

/// A generation record that would break one of its limits.
///
/// Two errors are equal when their kind and all associated values are, wherever they came up. The
/// numeric value of a kind is the code that a reply's error carries.
class GenerationDTOError : public std::runtime_error {
 public:
  enum class Kind : std::int64_t {
    textTooLong = 101,
    timeoutOutOfRange = 102,
    tooManyItems = 103,
    unknownEngine = 104,
    unknownShape = 105,
    controlCharacters = 106,
  };

  /// A bounded text has `actual` characters, more than `limit`.
  static GenerationDTOError textTooLong(std::int64_t limit, std::int64_t actual);
  /// A timeout of `seconds`, which is outside 5 to 300.
  static GenerationDTOError timeoutOutOfRange(std::int64_t seconds, std::int64_t minimum,
                                              std::int64_t maximum);
  /// A list has `actual` entries, more than `limit`.
  static GenerationDTOError tooManyItems(std::int64_t limit, std::int64_t actual);
  /// A string that did not come in a message body names no engine.
  static GenerationDTOError unknownEngine(std::string offending);
  /// A string that did not come in a message body names no shape.
  static GenerationDTOError unknownShape(std::string offending);
  /// A bounded text holds a forbidden control character.
  static GenerationDTOError controlCharacters();

  /// The same error, whose what() begins with the key path of the member that it is about.
  GenerationDTOError at(const std::string& path) const;

  Kind kind() const { return kind_; }
  /// The limit of textTooLong and tooManyItems; 0 for the others.
  std::int64_t limit() const { return limit_; }
  /// The actual count of textTooLong and tooManyItems, the seconds of timeoutOutOfRange; 0 for the
  /// others.
  std::int64_t actual() const { return actual_; }
  /// The offending string of unknownEngine and unknownShape; empty for the others.
  const std::string& offending() const { return offending_; }

  friend bool operator==(const GenerationDTOError& a, const GenerationDTOError& b) {
    return a.kind_ == b.kind_ && a.limit_ == b.limit_ && a.actual_ == b.actual_ &&
           a.offending_ == b.offending_;
  }

 private:
  GenerationDTOError(Kind kind, const std::string& message, std::string offending = {},
                     std::int64_t actual = 0, std::int64_t limit = 0);

  Kind kind_;
  std::int64_t limit_;
  std::int64_t actual_;
  std::string offending_;
};

}  // namespace tessaloom
