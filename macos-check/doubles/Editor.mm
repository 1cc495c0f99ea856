// An editor that does nothing but use the example client, for the scenarios.
//
//   Editor register | status | generate IDENTIFIER PROMPT | cancel IDENTIFIER | stop PID
//   Editor connections COUNT       as many connections, one after the other, a call over each

#import "HelperClient.h"

#include <cstdio>
#include <cstdlib>
#include <functional>
#include <future>
#include <memory>
#include <string>
#include <string_view>
#include <thread>

#import "HelperProtocol/macos/FoundationValues.h"

using tessaloom::stringFromText;
using tessaloom::textFromString;

namespace {

/// Takes the one answer, which must come on another thread.
struct Answer {
  const std::thread::id caller = std::this_thread::get_id();
  std::promise<std::string> text;

  void give(std::string value) {
    if (std::this_thread::get_id() == caller) std::abort();
    text.set_value(std::move(value));
  }
};
using Done = std::shared_ptr<Answer>;

std::string awaited(const std::function<void(Done)>& start) {
  const auto done = std::make_shared<Answer>();
  @autoreleasepool {
    start(done);
  }
  return done->text.get_future().get();
}

std::string answer(HelperClient* client, std::string_view command, const char* first,
                   const char* second) {
  NSString* text = stringFromText(first);
  return awaited([&](const Done& done) {
    if (command == "status") {
      [client statusOfEngine:text
                       reply:^(BOOL isFound, NSString* version) {
                         done->give((isFound ? "found " : "missing ") + textFromString(version));
                       }];
    } else if (command == "generate") {
      [client generateText:stringFromText(second)
                    engine:@"claudeCode"
                identifier:text
                     reply:^(NSString* result, HelperFailure failure, NSString* description) {
                       done->give(std::to_string(failure) + " " + textFromString(result) +
                                  textFromString(description));
                     }];
    } else if (command == "cancel") {
      [client cancel:text
               reply:^(BOOL isSignaled) {
                 done->give(isSignaled ? "signaled" : "not signaled");
               }];
    } else if (command == "stop") {
      [client
          stopProcess:std::atoi(first)
                reply:^(BOOL isSignaled, NSString* message) {
                  done->give((isSignaled ? "signaled" : "not signaled ") + textFromString(message));
                }];
    } else {
      done->text.set_value("unknown command");
    }
  });
}

}  // namespace

int main(int count, char** arguments) {
  const std::string_view command = count > 1 ? arguments[1] : "";
  const char* first = count > 2 ? arguments[2] : "";
  @autoreleasepool {
    if (command == "register") {
      const std::string text = awaited([](const Done& done) {
        [HelperClient registerHelper:^(NSError* error) {
          done->give(error == nil ? "registered" : textFromString(error.localizedDescription));
        }];
      });
      std::puts(text.c_str());
      return 0;
    }
    const int connections = command == "connections" ? std::atoi(first) : 1;
    for (int i = 0; i < connections; ++i) {
      @autoreleasepool {
        HelperClient* client = [[HelperClient alloc] init];
        const bool isOne = command != "connections";
        const std::string text =
            isOne ? answer(client, command, first, count > 3 ? arguments[3] : "")
                  : answer(client, "cancel", "6B29FC40-CA47-4067-B31D-00DD010662DA", "");
        if (isOne || text != "not signaled") std::puts(text.c_str());
      }
    }
  }
  return 0;
}
