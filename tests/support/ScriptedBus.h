#pragma once

#include <sys/socket.h>

#include <cstdint>
#include <string_view>
#include <vector>

#include <gtest/gtest.h>

#include "HelperProtocol/linux/BusRequests.h"

namespace tessaloom {

/// A connection whose other end is the test, which plays the bus and everybody on it: so it may
/// write any sender.
class ScriptedBus {
 public:
  ScriptedBus() {
    int ends[2];
    EXPECT_EQ(::socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0, ends), 0);
    played_ = endOf(ends[0], true);
    bus_ = endOf(ends[1], false);
  }

  sd_bus* connection() const { return bus_.get(); }

  /// Lets both ends handle what they have received.
  void exchange() {
    for (int idle = 0; idle < 2;) {
      sd_bus_message* message = nullptr;
      int busy = isReading ? sd_bus_process(played_.get(), &message) : 0;
      if (message != nullptr) received.emplace_back(message);
      busy += sd_bus_process(bus_.get(), nullptr);
      idle = busy > 0 ? 0 : idle + 1;
    }
  }

  /// The last call of this method that arrived at the test's end; null if there is none.
  sd_bus_message* asked(std::string_view method) {
    exchange();
    for (auto call = received.rbegin(); call != received.rend(); ++call) {
      const char* member = sd_bus_message_get_member(call->get());
      if (member != nullptr && member == method) return call->get();
    }
    return nullptr;
  }

  /// A call to the connection.
  sd_bus_message* newCall(const char* interface, const char* method) const {
    sd_bus_message* call = nullptr;
    sd_bus_message_new_method_call(played_.get(), &call, ":1.0", "/", interface, method);
    return call;
  }

  void sendAs(const char* sender, sd_bus_message* message) {
    const BusMessage owned(message);
    EXPECT_GE(sd_bus_message_set_sender(message, sender), 0);
    std::uint64_t serial = 0;  // Asked for, since otherwise the library wants no reply.
    EXPECT_GE(sd_bus_send(played_.get(), message, &serial), 0);
    exchange();
  }

  /// Replies to a call; `types` and `arguments` as for sd_bus_message_append().
  template <class... Arguments>
  void reply(const char* sender, sd_bus_message* call, const char* types, Arguments... arguments) {
    ASSERT_NE(call, nullptr);
    sd_bus_message* reply = nullptr;
    sd_bus_message_new_method_return(call, &reply);
    sd_bus_message_append(reply, types, arguments...);
    sendAs(sender, reply);
  }

  void replyError(const char* sender, sd_bus_message* call, const char* name) {
    ASSERT_NE(call, nullptr);
    sd_bus_message* reply = nullptr;
    sd_bus_message_new_method_errorf(call, &reply, name, "no");
    sendAs(sender, reply);
  }

  void reportOwner(const char* sender, const char* name, const char* owner) {
    sd_bus_message* signal = nullptr;
    sd_bus_message_new_signal(played_.get(), &signal, BusRequests::busPath,
                              BusRequests::busInterface, "NameOwnerChanged");
    sd_bus_message_append(signal, "sss", name, "", owner);
    sendAs(sender, signal);
  }

  std::vector<BusMessage> received;  ///< At the test's end.
  bool isReading = true;             ///< There; otherwise what is sent to it stays where it is.

 private:
  static BusHandle endOf(int descriptor, bool isServer) {
    sd_bus* bus = nullptr;
    EXPECT_GE(sd_bus_new(&bus), 0);
    BusHandle owned(bus);
    EXPECT_GE(sd_bus_set_fd(bus, descriptor, descriptor), 0);
    sd_id128_t id{};
    if (isServer) id.bytes[0] = 1;
    EXPECT_GE(sd_bus_set_server(bus, isServer ? 1 : 0, id), 0);
    EXPECT_GE(sd_bus_start(bus), 0);
    return owned;
  }

  BusHandle played_;
  BusHandle bus_;
};

}  // namespace tessaloom
