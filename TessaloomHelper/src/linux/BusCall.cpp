#include "linux/BusCall.h"

#include "HelperProtocol/HelperConstants.h"

namespace tessaloom {

namespace {

std::string errorName(const ReplyError& error) {
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

int appendDetails(sd_bus_message* reply, const ReplyError& error) {
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

// Each makes the message of one kind of outcome.
struct ReplyMessage {
  explicit ReplyMessage(sd_bus_message* answered) : call(answered) {}

  sd_bus_message* call;
  BusMessage reply;

  int operator()(std::monostate) {
    return sd_bus_message_new_method_errorf(call, out(), SD_BUS_ERROR_NO_MEMORY,
                                            "The helper could not carry out the call.");
  }

  int operator()(std::int64_t number) {
    const int result = sd_bus_message_new_method_return(call, out());
    return result < 0 ? result : sd_bus_message_append(reply.get(), "x", number);
  }

  int operator()(const Bytes& bytes) {
    const int result = sd_bus_message_new_method_return(call, out());
    return result < 0 ? result
                      : sd_bus_message_append_array(reply.get(), 'y', bytes.data(), bytes.size());
  }

  int operator()(const ReplyError& error) {
    const std::string name = errorName(error);
    sd_bus_error described{};
    described.name = name.c_str();
    described.message = error.localizedDescription.c_str();
    const int result = sd_bus_message_new_method_error(call, out(), &described);
    return result < 0 ? result : appendDetails(reply.get(), error);
  }

 private:
  class Out {
   public:
    explicit Out(BusMessage& owner) : owner_(owner) {}
    ~Out() { owner_.reset(created_); }
    operator sd_bus_message**() { return &created_; }

   private:
    BusMessage& owner_;
    sd_bus_message* created_ = nullptr;
  };

  Out out() { return Out(reply); }
};

}  // namespace

int sendReply(sd_bus_message* call, const CallOutcome& outcome) {
  ReplyMessage message(call);
  int result = std::visit(message, outcome);
  if (result >= 0) result = sd_bus_send(nullptr, message.reply.get(), nullptr);
  return result >= 0 ? result : sd_bus_reply_method_errno(call, result, nullptr);
}

}  // namespace tessaloom
