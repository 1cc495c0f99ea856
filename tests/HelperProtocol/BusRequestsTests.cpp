#include <sys/socket.h>

#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include <gtest/gtest.h>

#include "HelperProtocol/linux/BusRequests.h"

namespace tessaloom {
namespace {

constexpr const char* service = "com.example.Service";
constexpr const char* attacker = ":1.66";

BusHandle endOf(int descriptor, bool isServer) {
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

/// A connection whose other end is the test, which plays the bus and everybody on it: so it may
/// write any sender.
class BusRequestsTest : public testing::Test {
 protected:
  BusRequestsTest() {
    int ends[2];
    EXPECT_EQ(::socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0, ends), 0);
    played_ = endOf(ends[0], true);
    bus_ = endOf(ends[1], false);
    requests_.emplace(bus_.get());
  }

  /// Lets both ends handle what they have received.
  void exchange() {
    for (int idle = 0; idle < 2;) {
      sd_bus_message* received = nullptr;
      int busy = sd_bus_process(played_.get(), &received);
      if (received != nullptr) asked_.emplace_back(received);
      busy += sd_bus_process(bus_.get(), nullptr);
      idle = busy > 0 ? 0 : idle + 1;
    }
  }

  /// The last call of this method that arrived at the test's end.
  sd_bus_message* asked(std::string_view method) {
    exchange();
    for (auto call = asked_.rbegin(); call != asked_.rend(); ++call) {
      if (sd_bus_message_get_member(call->get()) == method) return call->get();
    }
    return nullptr;
  }

  void sendAs(const char* sender, sd_bus_message* message) {
    const BusMessage owned(message);
    EXPECT_GE(sd_bus_message_set_sender(message, sender), 0);
    EXPECT_GE(sd_bus_send(played_.get(), message, nullptr), 0);
    exchange();
  }

  /// Replies to a call; with an error if the text is the name of one.
  void reply(const char* sender, sd_bus_message* call, const char* text) {
    ASSERT_NE(call, nullptr);
    sd_bus_message* reply = nullptr;
    if (std::string_view(text).starts_with("org.freedesktop.DBus.Error.")) {
      sd_bus_message_new_method_errorf(call, &reply, text, "no");
    } else {
      sd_bus_message_new_method_return(call, &reply);
      sd_bus_message_append(reply, "s", text);
    }
    sendAs(sender, reply);
  }

  void reportOwner(const char* sender, const char* name, const char* owner) {
    sd_bus_message* signal = nullptr;
    sd_bus_message_new_signal(played_.get(), &signal, BusRequests::busPath,
                              BusRequests::busInterface, "NameOwnerChanged");
    sd_bus_message_append(signal, "sss", name, "", owner);
    sendAs(sender, signal);
  }

  BusRequest call(const char* destination, const char* method) {
    sd_bus_message* message = nullptr;
    sd_bus_message_new_method_call(bus_.get(), &message, destination, "/", "com.example.Interface",
                                   method);
    const BusMessage owned(message);
    return *requests_->send(message, [this](sd_bus_message* reply) {
      const sd_bus_error* error = sd_bus_message_get_error(reply);
      const char* text = nullptr;
      if (error == nullptr) sd_bus_message_read(reply, "s", &text);
      answers.emplace_back(error != nullptr ? error->name : text);
    });
  }

  std::vector<std::string> answers;
  std::optional<BusRequests> requests_;

 private:
  std::vector<BusMessage> asked_;
  BusHandle played_;
  BusHandle bus_;
};

using Texts = std::vector<std::string>;

TEST_F(BusRequestsTest, RepliesOfANameComeFromWhoOwnedItSinceTheCall) {
  const auto first = call(service, "First");
  sd_bus_message* firstAsked = asked("First");
  reply(":1.5", firstAsked, "not yet its owner");
  reply(BusRequests::busName, asked("GetNameOwner"), ":1.5");
  reply(attacker, firstAsked, "forged");
  reply(BusRequests::busName, firstAsked, "the bus returns nothing for others");
  EXPECT_EQ(answers, Texts{});

  // The name passes on while a call is under way: either may have got it.
  reportOwner(attacker, service, attacker);
  reportOwner(BusRequests::busName, "com.example.Other", attacker);
  reportOwner(BusRequests::busName, service, "");
  reportOwner(BusRequests::busName, service, ":1.7");
  reply(attacker, firstAsked, "forged");
  const auto second = call(service, "Second");
  reply(":1.5", asked("Second"), "no longer its owner");
  EXPECT_EQ(answers, Texts{});
  reply(":1.5", firstAsked, "from the old owner");
  reply(":1.7", asked("Second"), "from the new owner");
  EXPECT_EQ(answers, (Texts{"from the old owner", "from the new owner"}));

  call(service, "Dropped");
  reply(":1.7", asked("Dropped"), "nobody wants it any more");
  const auto third = call(service, "Third");
  reply(attacker, asked("Third"), SD_BUS_ERROR_NO_REPLY);
  reply(BusRequests::busName, asked("Third"), SD_BUS_ERROR_SERVICE_UNKNOWN);
  EXPECT_EQ(answers.back(), SD_BUS_ERROR_SERVICE_UNKNOWN);
  EXPECT_EQ(answers.size(), 3U);
}

TEST_F(BusRequestsTest, CallsEndWhenTheBusDoesNotNameTheOwner) {
  const auto request = call(service, "First");
  reply(BusRequests::busName, asked("GetNameOwner"), SD_BUS_ERROR_NAME_HAS_NO_OWNER);
  EXPECT_EQ(answers, Texts{}) << "the call may start the service";
  reply(BusRequests::busName, asked("AddMatch"), SD_BUS_ERROR_LIMITS_EXCEEDED);
  EXPECT_EQ(answers, Texts{SD_BUS_ERROR_LIMITS_EXCEEDED});
}

TEST_F(BusRequestsTest, OwnersAreReportedUntilTheRequestEnds) {
  Texts owners;
  BusRequest inner;
  const auto handler = [&](std::string_view owner) {
    owners.emplace_back(owner);
    // A handler may begin others and end its own.
    inner = *requests_->watchOwner(":1.9", [](std::string_view) { FAIL(); }, {});
  };
  auto watch = requests_->watchOwner(":1.9", handler, {});
  reportOwner(BusRequests::busName, ":1.9", "");
  inner = {};
  watch = {};
  EXPECT_NE(asked("RemoveMatch"), nullptr);
  reportOwner(BusRequests::busName, ":1.9", "");
  EXPECT_EQ(owners, Texts{""});
}

}  // namespace
}  // namespace tessaloom
