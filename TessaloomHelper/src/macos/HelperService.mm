#import "HelperService.h"

#include <memory>
#include <variant>

#import "HelperProcess.h"
#include "HelperProtocol/Methods.h"
#import "HelperProtocol/macos/FoundationValues.h"
#include "TessaloomHelper/HelperService.h"

using tessaloom::methodNamed;

namespace {

/// A call that is being received. It stays open until XPC has sent its reply, because the process
/// may exit as soon as no call is open.
class Call {
 public:
  explicit Call(tessaloom::Method::Kind kind)
      : connection_(NSXPCConnection.currentConnection), open_(tessaloom::openCall(kind)) {}

  /// After the reply block, on any thread. A connection that has ended calls the block at once.
  void closeOnceSent() const {
    const auto open = open_;
    [connection_ scheduleSendBarrierBlock:^{
      (void)open;
    }];
  }

 private:
  NSXPCConnection* connection_;
  std::shared_ptr<void> open_;
};

tessaloom::ReplyHandler dataReply(HelperDataReply reply, tessaloom::Method::Kind kind) {
  return [reply, call = Call(kind)](const tessaloom::Reply& outcome) {
    if (const auto* bytes = std::get_if<tessaloom::Bytes>(&outcome)) {
      reply(tessaloom::dataFromBytes(*bytes), nil);
    } else if (const auto* error = std::get_if<tessaloom::ReplyError>(&outcome)) {
      reply(nil, tessaloom::errorFromReplyError(*error));
    }
    call.closeOnceSent();
  };
}

}  // namespace

@implementation HelperService {
  std::unique_ptr<tessaloom::HelperService> _service;
}

- (instancetype)init {
  self = [super init];
  if (self != nil) {
    _service = std::make_unique<tessaloom::HelperService>(tessaloom::serviceContext());
  }
  return self;
}

- (void)call:(const tessaloom::Method&)method
     request:(nullable NSData*)request
       reply:(HelperDataReply)reply {
  _service->call(method, tessaloom::bytesFromData(request), dataReply(reply, method.kind));
}

- (void)protocolVersionWithReply:(void (^)(int64_t version))reply {
  static constexpr const tessaloom::Method& method = methodNamed("ProtocolVersion");
  _service->call(method, {}, [reply, call = Call(method.kind)](const tessaloom::Reply& outcome) {
    reply(std::get<std::int64_t>(outcome));
    call.closeOnceSent();
  });
}

- (void)listProcessesWithReply:(HelperDataReply)reply {
  [self call:methodNamed("ListProcesses") request:nil reply:reply];
}

- (void)killProcessWithRequest:(NSData*)request reply:(HelperDataReply)reply {
  [self call:methodNamed("KillProcess") request:request reply:reply];
}

- (void)listListeningPortsWithReply:(HelperDataReply)reply {
  [self call:methodNamed("ListListeningPorts") request:nil reply:reply];
}

- (void)helperCapabilitiesWithReply:(HelperDataReply)reply {
  [self call:methodNamed("HelperCapabilities") request:nil reply:reply];
}

- (void)generateTextWithRequest:(NSData*)request reply:(HelperDataReply)reply {
  [self call:methodNamed("GenerateText") request:request reply:reply];
}

- (void)cancelGenerationWithRequest:(NSData*)request reply:(HelperDataReply)reply {
  [self call:methodNamed("CancelGeneration") request:request reply:reply];
}

- (void)quitIfOutdatedWithReply:(HelperDataReply)reply {
  [self call:methodNamed("QuitIfOutdated") request:nil reply:reply];
}

- (void)generationEngineStatusWithRequest:(NSData*)request reply:(HelperDataReply)reply {
  [self call:methodNamed("GenerationEngineStatus") request:request reply:reply];
}

@end
