#include "HelperProtocol/linux/BusError.h"

#include <string_view>

#include "HelperProtocol/HelperConstants.h"

namespace tessaloom {

std::string busErrorName(const ReplyError& error) {
  using enum ReplyError::Category;
  std::string helper(HelperConstants::errorDomain);
  switch (error.category) {
    case decoding:
      return helper + ".DecodingError";
    case encoding:
      return helper + ".EncodingError";
    case generation:
      return std::string(HelperConstants::generationErrorDomain) + '.' + error.kind.value_or("");
  }
  return helper;
}

int appendErrorDetails(sd_bus_message* reply, const ReplyError& error) {
  int result = sd_bus_message_open_container(reply, 'a', "{sv}");
  if (result >= 0) {
    result = sd_bus_message_append(reply, "{sv}", "domain", "s", error.domain.c_str());
  }
  if (result >= 0) result = sd_bus_message_append(reply, "{sv}", "code", "x", error.code);
  if (result >= 0 && error.kind) {
    result = sd_bus_message_append(reply, "{sv}", "kind", "s", error.kind->c_str());
  }
  return result < 0 ? result : sd_bus_message_close_container(reply);
}

BusErrorDetails readErrorDetails(sd_bus_message* error) {
  BusErrorDetails details;
  if (sd_bus_message_rewind(error, 1) < 0 || sd_bus_message_skip(error, "s") < 0) return details;
  if (sd_bus_message_enter_container(error, 'a', "{sv}") <= 0) return details;
  while (sd_bus_message_enter_container(error, 'e', "sv") > 0) {
    const char* key = nullptr;
    if (sd_bus_message_read(error, "s", &key) < 0) return details;
    const std::string_view name(key);
    const char* text = nullptr;
    std::int64_t number = 0;
    if (name == "domain" && sd_bus_message_read(error, "v", "s", &text) > 0) {
      details.domain = text;
    } else if (name == "code" && sd_bus_message_read(error, "v", "x", &number) > 0) {
      details.code = number;
    } else if (name == "kind" && sd_bus_message_read(error, "v", "s", &text) > 0) {
      details.kind = text;
    } else if (sd_bus_message_skip(error, "v") < 0) {
      return details;
    }
    if (sd_bus_message_exit_container(error) < 0) return details;
  }
  return details;
}

}  // namespace tessaloom
