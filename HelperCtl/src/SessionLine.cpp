#include "SessionLine.h"

#include <algorithm>

#include "Console.h"
#include "HelperProtocol/Methods.h"

namespace tessaloom {

SessionLine parseSessionLine(std::string_view line) {
  if (line.ends_with('\r')) line.remove_suffix(1);
  const std::size_t space = line.find(' ');
  SessionLine parsed{std::string(line.substr(0, space)), std::nullopt};
  const std::string_view rest =
      space == std::string_view::npos ? std::string_view() : line.substr(space + 1);
  const Method* method = findMethod(parsed.method);
  if (!rest.empty() || (method != nullptr && method->takesRequest())) parsed.body.emplace(rest);
  return parsed;
}

std::string formatSessionReply(std::size_t number, const CallReply& reply) {
  std::string line = std::to_string(number);
  if (reply) {
    line.append(" ok ").append(*reply);
    // One line each: between the tokens of JSON a space means what a line feed does, and inside a
    // string there is none.
    std::ranges::replace(line, '\n', ' ');
  } else {
    std::string name = Console::safeLine(reply.error().name);
    std::ranges::replace(name, ' ', '_');  // It is one word of the line.
    line.append(" error ").append(name).append(" ");
    line.append(Console::safeLine(reply.error().message));
  }
  return line + "\n";
}

}  // namespace tessaloom
