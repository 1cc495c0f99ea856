#include "e2e/BusClient.h"

#include <stdexcept>

#include "HelperProtocol/HelperConstants.h"

namespace tessaloom {

namespace {

constexpr const char* helperName = HelperConstants::machServiceName.data();
constexpr std::uint64_t callLimit = 150'000'000;  // Microseconds.

int check(int result, const char* what) {
  if (result < 0) throw std::runtime_error(std::string(what) + ": " + std::to_string(result));
  return result;
}

std::map<std::string, std::string> readDetails(sd_bus_message* message) {
  std::map<std::string, std::string> details;
  if (sd_bus_message_skip(message, "s") < 0) return details;
  if (sd_bus_message_enter_container(message, 'a', "{sv}") <= 0) return details;
  while (sd_bus_message_enter_container(message, 'e', "sv") > 0) {
    const char* key = nullptr;
    const char* type = nullptr;
    check(sd_bus_message_read(message, "s", &key), "key");
    check(sd_bus_message_peek_type(message, nullptr, &type), "type");
    check(sd_bus_message_enter_container(message, 'v', type), "variant");
    const char* text = nullptr;
    std::int64_t number = 0;
    if (*type == 's') check(sd_bus_message_read(message, "s", &text), "text");
    if (*type == 'x') check(sd_bus_message_read(message, "x", &number), "number");
    details[key] = text != nullptr ? text : std::to_string(number);
    check(sd_bus_message_exit_container(message), "variant");
    check(sd_bus_message_exit_container(message), "entry");
  }
  return details;
}

BusReply readReply(sd_bus_message* message) {
  BusReply reply;
  if (const sd_bus_error* error = sd_bus_message_get_error(message)) {
    reply.errorName = error->name;
    reply.message = error->message != nullptr ? error->message : "";
    reply.details = readDetails(message);
    return reply;
  }
  const std::string_view signature = sd_bus_message_get_signature(message, 1);
  const void* bytes = nullptr;
  const char* text = "";
  std::size_t size = 0;
  std::uint32_t small = 0;
  if (signature == "ay") check(sd_bus_message_read_array(message, 'y', &bytes, &size), "body");
  if (signature == "x") check(sd_bus_message_read(message, "x", &reply.number), "number");
  if (signature == "u") check(sd_bus_message_read(message, "u", &small), "number");
  if (signature == "s") check(sd_bus_message_read(message, "s", &text), "text");
  reply.body = bytes != nullptr ? std::string(static_cast<const char*>(bytes), size) : text;
  if (small != 0) reply.number = small;
  return reply;
}

}  // namespace

class BusClient::Pending {
 public:
  Pending() = default;
  ~Pending() { sd_bus_slot_unref(slot); }
  Pending(const Pending&) = delete;
  Pending& operator=(const Pending&) = delete;

  static int onReply(sd_bus_message* message, void* pending, sd_bus_error*) {
    static_cast<Pending*>(pending)->reply = readReply(message);
    return 1;
  }

  sd_bus_slot* slot = nullptr;
  std::optional<BusReply> reply;
};

BusClient::BusClient(const std::string& address) {
  check(sd_bus_new(&bus_), "bus");
  check(sd_bus_set_address(bus_, address.c_str()), "address");
  check(sd_bus_set_bus_client(bus_, 1), "client");
  check(sd_bus_start(bus_), "start");
  // Known once the bus has answered: calls are sent at once from here on.
  const char* name = nullptr;
  check(sd_bus_get_unique_name(bus_, &name), "connect");
}

BusClient::~BusClient() {
  sd_bus_flush_close_unref(bus_);
}

std::shared_ptr<BusClient::Pending> BusClient::send(const char* method,
                                                    std::optional<std::string_view> body) {
  sd_bus_message* call = nullptr;
  check(sd_bus_message_new_method_call(bus_, &call, helperName, HelperConstants::objectPath,
                                       HelperConstants::interfaceName, method),
        "message");
  if (body) check(sd_bus_message_append_array(call, 'y', body->data(), body->size()), "body");
  auto pending = std::make_shared<Pending>();
  check(sd_bus_call_async(bus_, &pending->slot, call, Pending::onReply, pending.get(), callLimit),
        "call");
  sd_bus_message_unref(call);
  process();
  return pending;
}

BusReply BusClient::await(const std::shared_ptr<Pending>& pending) {
  while (!pending->reply) {
    if (check(sd_bus_process(bus_, nullptr), "process") == 0) {
      check(sd_bus_wait(bus_, UINT64_MAX), "wait");
    }
  }
  return *pending->reply;
}

bool BusClient::hasAnswer(const std::shared_ptr<Pending>& pending) {
  process();
  return pending->reply.has_value();
}

BusReply BusClient::call(const char* method, std::optional<std::string_view> body) {
  return await(send(method, body));
}

BusReply BusClient::callOther(const char* destination, const char* path, const char* interface,
                              const char* method, const char* types, const char* argument) {
  const auto pending = std::make_shared<Pending>();
  check(sd_bus_call_method_async(bus_, &pending->slot, destination, path, interface, method,
                                 Pending::onReply, pending.get(), types, argument),
        "call");
  return await(pending);
}

pid_t BusClient::helperProcess() {
  const BusReply reply =
      callOther("org.freedesktop.DBus", "/org/freedesktop/DBus", "org.freedesktop.DBus",
                "GetConnectionUnixProcessID", "s", helperName);
  return static_cast<pid_t>(reply.number);
}

void BusClient::serve(const char* name, std::function<int(sd_bus_message*)> answer) {
  answer_ = std::move(answer);
  check(sd_bus_add_filter(
            bus_, nullptr,
            [](sd_bus_message* message, void* client, sd_bus_error*) {
              if (sd_bus_message_is_method_call(message, nullptr, nullptr) <= 0) return 0;
              return static_cast<BusClient*>(client)->answer_(message);
            },
            this),
        "filter");
  check(sd_bus_request_name(bus_, name, 0), "name");
}

void BusClient::process() {
  while (check(sd_bus_process(bus_, nullptr), "process") > 0) {
  }
}

}  // namespace tessaloom
