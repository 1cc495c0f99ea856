#include <string>
#include <string_view>
#include <vector>

#include <gtest/gtest.h>

#include "HelperProtocol/linux/BusRequests.h"
#include "support/ScriptedBus.h"

namespace tessaloom {
namespace {

constexpr const char* service = "com.example.Service";
constexpr const char* attacker = ":1.66";

class BusRequestsTest : public testing::Test, protected ScriptedBus {
 protected:
  /// With an error if the text is the name of one.
  void reply(const char* sender, sd_bus_message* call, const char* text) {
    if (std::string_view(text).starts_with("org.freedesktop.DBus.Error.")) {
      replyError(sender, call, text);
    } else {
      ScriptedBus::reply(sender, call, "s", text);
    }
  }

  BusRequest call(const char* destination, const char* method) {
    sd_bus_message* message = nullptr;
    sd_bus_message_new_method_call(connection(), &message, destination, "/",
                                   "com.example.Interface", method);
    const BusMessage owned(message);
    return *requests.send(message, [this](sd_bus_message* reply) {
      const sd_bus_error* error = sd_bus_message_get_error(reply);
      const char* text = nullptr;
      if (error == nullptr) sd_bus_message_read(reply, "s", &text);
      answers.emplace_back(error != nullptr ? error->name : text);
    });
  }

  std::vector<std::string> answers;
  BusRequests requests{connection()};
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
  reply(":1.7", asked("Dropped"), "nobody wants it anymore");
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
  const auto other = call(":1.9", "Other");
  const auto second = call(service, "Second");
  const auto third = call(service, "Third");
  reply(BusRequests::busName, asked("GetNameOwner"), SD_BUS_ERROR_ACCESS_DENIED);
  EXPECT_EQ(answers.size(), 3U) << "the owner was asked for again, and both calls wait for that";
}

TEST_F(BusRequestsTest, OwnersAreReportedUntilTheRequestEnds) {
  Texts owners;
  BusRequest inner;
  const auto handler = [&](std::string_view owner) {
    owners.emplace_back(owner);
    // A handler may begin others and end its own.
    inner = *requests.watchOwner(":1.9", [](std::string_view) { FAIL(); }, {});
  };
  auto watch = requests.watchOwner(":1.9", handler, {});
  reportOwner(BusRequests::busName, ":1.9", "");
  inner = {};
  watch = {};
  EXPECT_NE(asked("RemoveMatch"), nullptr);
  reportOwner(BusRequests::busName, ":1.9", "");
  EXPECT_EQ(owners, Texts{""});
}

}  // namespace
}  // namespace tessaloom
