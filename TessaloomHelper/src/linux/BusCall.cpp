#include "linux/BusCall.h"

#include "HelperProtocol/linux/BusError.h"

namespace tessaloom {

namespace {

/// Each makes the message of one kind of outcome.
struct ReplyMessage {
  explicit ReplyMessage(sd_bus_message* answered) : call(answered) {}

  sd_bus_message* call;
  BusMessage reply;

  int operator()(std::monostate) {
    return sd_bus_message_new_method_errorf(
        call, out(), SD_BUS_ERROR_NO_MEMORY,
        "The helper does not have enough memory or threads to carry out the call.");
  }

  int operator()(TooManyCalls) {
    reply = retain(call);
    return 0;
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
    const std::string name = busErrorName(error);
    sd_bus_error described{};
    described.name = name.c_str();
    described.message = error.localizedDescription.c_str();
    const int result = sd_bus_message_new_method_error(call, out(), &described);
    return result < 0 ? result : appendErrorDetails(reply.get(), error);
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

std::expected<std::string_view, int> requestOf(sd_bus_message* call, const Method& method) {
  if (!method.takesRequest()) return std::string_view();
  const void* bytes = nullptr;
  std::size_t size = 0;
  const int result = sd_bus_message_read_array(call, 'y', &bytes, &size);
  if (result < 0) return std::unexpected(result);
  return std::string_view(static_cast<const char*>(bytes), size);
}

std::uint64_t queuedMessages(sd_bus* bus) {
  std::uint64_t queued = 0;
  sd_bus_get_n_queued_write(bus, &queued);
  return queued;
}

int sendReply(sd_bus_message* call, const CallOutcome& outcome) {
  ReplyMessage message(call);
  int result = std::visit(message, outcome);
  if (result >= 0) result = sd_bus_send(nullptr, message.reply.get(), nullptr);
  return result >= 0 ? result : sd_bus_reply_method_errno(call, result, nullptr);
}

}  // namespace tessaloom
