#import <Foundation/Foundation.h>

#include <objc/message.h>
#include <poll.h>

#include <string_view>
#include <unordered_map>
#include <utility>

#include "HelperProtocol/CallLoad.h"
#include "HelperProtocol/HelperConstants.h"
#include "HelperProtocol/Methods.h"
#import "HelperProtocol/macos/FoundationValues.h"
#import "HelperProtocol/macos/HelperServicing.h"
#include "ReplyInbox.h"
#include "Transport.h"

namespace tessaloom {
namespace {

/// XPC's own failures: the connection was interrupted, is invalid, or got a reply of another type.
/// A peer whose signature the helper's requirement refuses sees an interruption, too.
constexpr std::string_view connectionErrorDomain = "NSCocoaErrorDomain";
constexpr NSInteger connectionInterrupted = 4097;
constexpr NSInteger connectionReplyInvalid = 4101;

constexpr const char* interruptionAdvice =
    "Most often the system refuses an unsigned program: the helper admits only the editor's "
    "code-signing identifier. How to sign this client for development is in docs/macos.md. If it "
    "is signed that way, the helper exited during the call: try again, and if it happens again, "
    "see Console for a crash report.";
constexpr const char* invalidNameAdvice =
    "The helper's agent is not registered for this user, or it is switched off in System Settings, "
    "General, Login Items. How to register it is in docs/macos.md.";

CallError callError(NSError* error) {
  CallError result{CallError::Category::failed, textFromString(error.domain),
                   textFromString(error.localizedDescription)};
  result.domain = result.name;
  result.code = error.code;
  id kind = error.userInfo[replyErrorKindKey];
  if ([kind isKindOfClass:[NSString class]]) {
    result.kind = textFromString(kind);
    result.name += "." + *result.kind;
  }
  return result;
}

/// What the connection itself reports instead of a reply.
CallError connectionError(NSError* error) {
  CallError result = callError(error);
  if (result.name == connectionErrorDomain && error.code == connectionReplyInvalid) return result;
  result.category = CallError::Category::unreachable;
  result.advice = error.code == connectionInterrupted ? interruptionAdvice : invalidNameAdvice;
  return result;
}

CallReply callReply(NSData* data, NSError* error) {
  if (error != nil) return std::unexpected(callError(error));
  return bytesFromData(data);
}

CallError usageError(std::string name, std::string message) {
  return {CallError::Category::failed, std::move(name), std::move(message)};
}

class XPCTransport final : public Transport {
 public:
  XPCTransport();
  ~XPCTransport() override { [connection_ invalidate]; }

  void call(const std::string& method, const std::optional<Bytes>& body, Handler handler) override;
  Readiness readiness() override { return {inbox_->descriptor(), POLLIN, std::nullopt}; }
  void process() override;

 private:
  void send(const Method& method, const std::optional<Bytes>& body, std::uint64_t call);

  NSXPCConnection* connection_;
  /// Shared with the blocks of calls that outlive the transport.
  std::shared_ptr<ReplyInbox> inbox_ = std::make_shared<ReplyInbox>();
  std::unordered_map<std::uint64_t, Handler> handlers_;
  std::uint64_t lastCall_ = 0;
};

XPCTransport::XPCTransport()
    : connection_([[NSXPCConnection alloc]
          initWithMachServiceName:stringFromText(HelperConstants::machServiceName)
                          options:0]) {
  connection_.remoteObjectInterface =
      [NSXPCInterface interfaceWithProtocol:@protocol(HelperServicing)];
  [connection_ resume];
}

void XPCTransport::call(const std::string& method, const std::optional<Bytes>& body,
                        Handler handler) {
  const std::uint64_t call = ++lastCall_;
  handlers_.emplace(call, std::move(handler));

  const Method* known = findMethod(method);
  if (known == nullptr) {
    CallError error = usageError("unknownMethod", "\"" + method + "\" is not a method name.");
    error.advice = "To list the methods: tessaloom-helperctl call --help";
    return inbox_->put(call, std::unexpected(std::move(error)));
  }
  if (known->takesRequest() != body.has_value()) {
    return inbox_->put(
        call, std::unexpected(usageError(
                  "invalidArguments",
                  method + (known->takesRequest() ? " takes a body." : " takes no body."))));
  }
  // The helper has no limit here, but a session does not keep the rest of a longer line.
  if (body && body->size() > CallLoad::maximumBytes) {
    return inbox_->put(call, std::unexpected(usageError("invalidArguments",
                                                        "The body exceeds the limit, 16 MiB.")));
  }
  @autoreleasepool {
    send(*known, body, call);
  }
}

void XPCTransport::send(const Method& method, const std::optional<Bytes>& body,
                        std::uint64_t call) {
  // XPC calls either the reply block or the error handler, once.
  const std::shared_ptr<ReplyInbox> inbox = inbox_;
  id helper = [connection_ remoteObjectProxyWithErrorHandler:^(NSError* error) {
    inbox->put(call, std::unexpected(connectionError(error)));
  }];
  if (&method == &methodNamed("ProtocolVersion")) {
    [helper protocolVersionWithReply:^(int64_t version) {
      inbox->put(call, std::to_string(version));
    }];
    return;
  }
  const HelperDataReply reply = ^(NSData* data, NSError* error) {
    inbox->put(call, callReply(data, error));
  };
  const SEL selector = sel_registerName(method.selector);
  if (body) {
    using Send = void (*)(id helper, SEL selector, NSData* request, HelperDataReply reply);
    reinterpret_cast<Send>(objc_msgSend)(helper, selector, dataFromBytes(*body), reply);
  } else {
    using Send = void (*)(id helper, SEL selector, HelperDataReply reply);
    reinterpret_cast<Send>(objc_msgSend)(helper, selector, reply);
  }
}

void XPCTransport::process() {
  @autoreleasepool {
    for (ReplyInbox::Item& item : inbox_->take()) {
      auto handler = handlers_.extract(item.call);
      if (handler) handler.mapped()(std::move(item.reply));
    }
  }
}

}  // namespace

std::expected<std::unique_ptr<Transport>, CallError> openTransport() {
  @autoreleasepool {
    return std::make_unique<XPCTransport>();
  }
}

}  // namespace tessaloom
