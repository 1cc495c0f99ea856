#pragma once

#include <cstdint>
#include <stdexcept>
#include <string>

namespace tessaloom {

/// A message body that is not the record that was expected: what is wrong, and where.
///
/// The numeric value of a kind is the code that a reply's error carries.
class DecodingError : public std::runtime_error {
 public:
  enum class Kind : std::int64_t {
    /// Not JSON, or a value that is not a valid engine, shape, kind, signal, UUID or date.
    dataCorrupted = 1,
    typeMismatch = 2,  ///< Another JSON type than the field's.
    keyNotFound = 3,   ///< A required key is missing, or null.
    /// An integer outside the field's range; a number beyond a double is dataCorrupted.
    numberDoesNotFit = 4,
  };

  /// `path` names the field, as in `prompt` or `fields.tags[3]`; empty for the whole body.
  /// `problem` completes a sentence about the field, without a full stop, as in "is missing". Both
  /// may quote the body, so they are cleaned and bounded here; what() is one line of valid UTF-8,
  /// at most 500 scalars.
  DecodingError(Kind kind, const std::string& path, const std::string& problem);

  Kind kind() const { return kind_; }

 private:
  Kind kind_;
};

/// A record that cannot be written. The numeric value of a kind is the code that a reply's error
/// carries.
class EncodingError : public std::runtime_error {
 public:
  enum class Kind : std::int64_t {
    invalidValue = 1,   ///< A text that is not UTF-8, or a date outside the years 0 to 9999.
    replyTooLarge = 2,  ///< The encoded reply is larger than the transport carries.
  };

  EncodingError(Kind kind, const std::string& problem) : std::runtime_error(problem), kind_(kind) {}

  Kind kind() const { return kind_; }

 private:
  Kind kind_;
};

}  // namespace tessaloom
