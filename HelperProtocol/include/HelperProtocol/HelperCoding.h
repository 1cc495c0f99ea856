#pragma once

#include <string>
#include <string_view>

namespace tessaloom {

/// Writes one record as the UTF-8 JSON text of a message body.
///
/// Keys are the field names in declared order, without white space; an absent optional has no key.
/// A date is the second that holds it, as in 2026-11-21T10:00:00Z; a UUID is in upper case. Holds
/// no state: make one for each message.
class JSONEncoder {
 public:
  /// `Record` is any message record of this module, or a std::vector of ProcessSample or
  /// PortSample. Throws EncodingError (invalidValue); then nothing was written.
  template <class Record>
  std::string encode(const Record& record) const;
};

/// Reads one record from a message body.
///
/// Strict: see JSONReader. A number with a fraction or an exponent is read as a double and counts
/// as an integer if that is integral (5.0 does) and between -2^63 and 2^63. A boolean is not
/// accepted for a number, nor a number for a boolean. An optional field may be null, which is the
/// same as no key; keys that the record does not have are ignored. Dates may have a numeric offset
/// instead of the Z. Memory is bounded by what the record keeps and about four times the longest
/// token of the body, with the white space before it, or eight times a body that is not JSON. Holds
/// no state: make one for each message.
class JSONDecoder {
 public:
  /// Throws DecodingError, or what the record's own checks throw (GenerationDTOError,
  /// HelperDTOError). The first failure ends decoding. A GenerationRequest is read in this order:
  /// `instructions` and then `prompt`, each against the 64,000 characters of BoundedText and its
  /// control-character rule; then their own limits; then `requestID`, `engine`, `shape`, `timeout`.
  /// Other records are read in declared order.
  template <class Record>
  Record decode(std::string_view body) const;
};

/// The one JSON coding of every request and reply body.
namespace HelperCoding {

inline JSONEncoder makeEncoder() {
  return {};
}
inline JSONDecoder makeDecoder() {
  return {};
}

}  // namespace HelperCoding

}  // namespace tessaloom
