#pragma once

#include <cstddef>
#include <optional>
#include <string>
#include <string_view>

#include "HelperProtocol/Reply.h"
#include "Transport.h"

namespace tessaloom {

/// One line of a session's input.
struct SessionLine {
  std::string method;
  std::optional<Bytes> body;

  friend bool operator==(const SessionLine&, const SessionLine&) = default;
};

/// `METHOD BODY`, parted by the first space; a carriage return at the end is dropped. A method that
/// takes a body gets an empty one where the line has none, and one that takes none gets none where
/// the line ends after its name.
SessionLine parseSessionLine(std::string_view line);

/// The line that answers the call of line `number`, with its line feed.
std::string formatSessionReply(std::size_t number, const CallReply& reply);

}  // namespace tessaloom
