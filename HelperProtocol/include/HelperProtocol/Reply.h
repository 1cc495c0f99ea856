#pragma once

#include <cstdint>
#include <functional>
#include <optional>
#include <string>
#include <variant>

namespace tessaloom {

/// A message body: the UTF-8 JSON text of one record.
using Bytes = std::string;

/// Why a call has no data, in the terms that each transport turns into its own error.
struct ReplyError {
  enum class Category : std::uint8_t {
    decoding,    ///< The request's body is not the record that the method expects.
    encoding,    ///< The reply could not be made (any failure, lack of memory included), or is too
                 ///< large to send.
    generation,  ///< A generation failed; `kind` says how.
  };

  Category category;
  std::string domain;
  std::int64_t code;
  std::string localizedDescription;  ///< One bounded line of valid UTF-8.
  std::optional<std::string> kind;   ///< The name of a GenerationFailureKind, for generations only.

  friend bool operator==(const ReplyError&, const ReplyError&) = default;
};

/// The one outcome of a call: a body, the bare integer of the version method, or an error.
using Reply = std::variant<Bytes, std::int64_t, ReplyError>;

/// Takes the reply of one call; called exactly once, on any thread.
using ReplyHandler = std::function<void(Reply)>;

}  // namespace tessaloom
