#pragma once

#include <cstdint>
#include <string>
#include <string_view>
#include <utility>

namespace tessaloom {

/// Appends a text as a JSON string, which must be UTF-8.
void appendQuoted(std::string& text, std::string_view value);
void appendInteger(std::string& text, std::int64_t value);

/// Appends compact JSON to one text. A listing has tens of thousands of values, so nothing is built
/// in between. Commas are written by the container's functions; the caller keeps the nesting right.
class JSONWriter {
 public:
  void beginObject() { text_ += '{'; }
  /// Starts the next member of an object; its value follows.
  void key(std::string_view name);
  void endObject() { text_ += '}'; }

  void beginArray() { text_ += '['; }
  /// Starts the next element of an array; its value follows.
  void element();
  void endArray() { text_ += ']'; }

  /// Throws EncodingError (invalidValue) naming the last key when the text is not UTF-8.
  void string(std::string_view value);
  void integer(std::int64_t value) { appendInteger(text_, value); }
  void boolean(bool value) { text_ += value ? "true" : "false"; }

  /// Throws EncodingError (invalidValue) about the last key.
  [[noreturn]] void fail(std::string_view problem) const;

  std::string take() { return std::move(text_); }

 private:
  std::string text_;
  std::string_view lastKey_;
};

}  // namespace tessaloom
