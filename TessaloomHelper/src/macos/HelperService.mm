#import "HelperService.h"

#include <expected>

#import "HelperProcess.h"
#import "HelperProtocol/macos/FoundationValues.h"
#include "TessaloomHelper/HelperService.h"

namespace {

tessaloom::DataReply dataReply(void (^reply)(NSData* _Nullable data, NSError* _Nullable error)) {
  return [reply, call = tessaloom::openCall()](
             const std::expected<tessaloom::Bytes, tessaloom::ReplyError>& outcome) {
    if (outcome) {
      reply(tessaloom::dataFromBytes(*outcome), nil);
    } else {
      reply(nil, tessaloom::errorFromReplyError(outcome.error()));
    }
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

- (void)protocolVersionWithReply:(void (^)(int64_t version))reply {
  _service->protocolVersion(
      [reply, call = tessaloom::openCall()](std::int64_t version) { reply(version); });
}

- (void)listProcessesWithReply:(void (^)(NSData* _Nullable data, NSError* _Nullable error))reply {
  _service->listProcesses(dataReply(reply));
}

- (void)killProcessWithRequest:(NSData*)request
                         reply:(void (^)(NSData* _Nullable data, NSError* _Nullable error))reply {
  _service->killProcess(tessaloom::bytesFromData(request), dataReply(reply));
}

- (void)listListeningPortsWithReply:(void (^)(NSData* _Nullable data,
                                              NSError* _Nullable error))reply {
  _service->listListeningPorts(dataReply(reply));
}

- (void)helperCapabilitiesWithReply:(void (^)(NSData* _Nullable data,
                                              NSError* _Nullable error))reply {
  _service->helperCapabilities(dataReply(reply));
}

- (void)generateTextWithRequest:(NSData*)request
                          reply:(void (^)(NSData* _Nullable data, NSError* _Nullable error))reply {
  _service->generateText(tessaloom::bytesFromData(request), dataReply(reply));
}

- (void)cancelGenerationWithRequest:(NSData*)request
                              reply:(void (^)(NSData* _Nullable data,
                                              NSError* _Nullable error))reply {
  _service->cancelGeneration(tessaloom::bytesFromData(request), dataReply(reply));
}

- (void)quitIfOutdatedWithReply:(void (^)(NSData* _Nullable data, NSError* _Nullable error))reply {
  _service->quitIfOutdated(dataReply(reply));
}

- (void)generationEngineStatusWithRequest:(NSData*)request
                                    reply:(void (^)(NSData* _Nullable data,
                                                    NSError* _Nullable error))reply {
  _service->generationEngineStatus(tessaloom::bytesFromData(request), dataReply(reply));
}

@end
