#include "Client.h"

#include <memory>
#include <utility>

#include <nlohmann/json.hpp>

#include "EventLoop.h"
#include "TLFoundation/ErrnoText.h"

namespace tessaloom {
namespace {

constexpr std::chrono::seconds silence{3};
constexpr std::string_view waitingText =
    "no answer yet; to find out why, run `tessaloom-helperctl doctor` in another terminal";

CallError noAnswer(std::chrono::seconds limit) {
  CallError error{CallError::Category::unreachable, std::string(timedOutError),
                  "Nothing came within " + std::to_string(limit.count()) + " seconds."};
  error.advice = "To see what is wrong: tessaloom-helperctl doctor";
  return error;
}

}  // namespace

CallReply callAndWait(Transport& transport, std::string_view method,
                      const std::optional<Bytes>& body, std::optional<std::chrono::seconds> limit,
                      Wait wait) {
  // Shared with the handler, which the transport keeps beyond the time limit.
  const auto answer = std::make_shared<std::optional<CallReply>>();
  EventLoop loop(transport);
  transport.call(std::string(method), body,
                 [answer](CallReply reply) { *answer = std::move(reply); });
  bool isAnnounced = false;
  if (wait == Wait::announced && Console::errorIsTerminal()) {
    loop.every(silence, [&isAnnounced] {
      if (std::exchange(isAnnounced, true)) return;
      Console::printToError(Console::styledForError(Console::Style::dim, waitingText) + "\n");
    });
  }
  std::optional<EventLoop::Clock::time_point> deadline;
  if (limit) deadline = EventLoop::Clock::now() + *limit;
  loop.run([&answer] { return answer->has_value(); }, deadline);
  return std::move(*answer).value_or(std::unexpected(noAnswer(limit.value_or(callTimeLimit))));
}

CallReply callOnce(std::string_view method, const std::optional<Bytes>& body,
                   std::optional<std::chrono::seconds> limit, Wait wait) {
  auto transport = openTransport();
  if (!transport) return std::unexpected(transport.error());
  return callAndWait(**transport, method, body, limit, wait);
}

ExitStatus reportError(const CallError& error, bool json) {
  if (json) {
    nlohmann::ordered_json object;
    object["name"] = error.name;
    if (error.domain) object["domain"] = *error.domain;
    if (error.code) object["code"] = *error.code;
    if (error.kind) object["kind"] = *error.kind;
    object["message"] = error.message;
    const nlohmann::ordered_json whole{{"error", object}};
    Console::printErrorJSON(whole.dump(-1, ' ', false, nlohmann::json::error_handler_t::replace));
  } else {
    const std::string text = Console::safeLine(error.message.empty() ? error.name : error.message);
    const bool isUnreachable = error.category == CallError::Category::unreachable;
    Console::printError((isUnreachable ? "no answer from the helper: " : "") + text, error.advice);
  }
  return error.category == CallError::Category::unreachable ? ExitStatus::unreachable
                                                            : ExitStatus::refused;
}

ExitStatus reportUnreadableReply(std::string_view problem, bool json) {
  CallError error{CallError::Category::failed, "unreadableReply",
                  "the helper's reply could not be read: " + std::string(problem)};
  error.advice = differentVersionsAdvice;
  return reportError(error, json);
}

ExitStatus reportOutputError(int error, bool json) {
  return reportError({CallError::Category::failed, "output",
                      "the output could not be written: " + errnoText(error)},
                     json);
}

}  // namespace tessaloom
