#import "HelperClient.h"

#import <ServiceManagement/ServiceManagement.h>

#include <dispatch/dispatch.h>

#include <exception>
#include <mutex>
#include <optional>
#include <stdexcept>
#include <string>

#include "HelperProtocol/EngineStatus.h"
#include "HelperProtocol/GenerationRequest.h"
#include "HelperProtocol/GenerationResult.h"
#include "HelperProtocol/HelperCoding.h"
#include "HelperProtocol/ProcessMessages.h"
#import "HelperProtocol/macos/FoundationValues.h"
#import "HelperProtocol/macos/HelperServicing.h"

using namespace tessaloom;

namespace {

/// In the editor's defaults: which version of it has registered the agent.
NSString* const registeredVersion = @"RegisteredHelperVersion";

constexpr const char* notRead = "The helper's reply could not be read.";

/// Takes the place of a result: why there is none.
using FailureBlock = void (^)(HelperFailure failure, NSString* description);

/// The body of a request. A record checks the limits that the helper checks, so what cannot be
/// asked for ends here; as everywhere, on a queue, and no exception escapes Objective-C++.
template <class Make>
NSData* _Nullable encoded(FailureBlock otherwise, Make make) {
  NSString* problem = nil;
  try {
    return dataFromBytes(HelperCoding::makeEncoder().encode(make()));
  } catch (const std::exception& error) {
    problem = stringFromText(error.what());
  }
  dispatch_async(dispatch_get_global_queue(QOS_CLASS_DEFAULT, 0), ^{
    otherwise(HelperFailureOther, problem);
  });
  return nil;
}

template <class Record>
std::optional<Record> decoded(NSData* _Nullable data) {
  try {
    return HelperCoding::makeDecoder().decode<Record>(bytesFromData(data));
  } catch (const std::exception&) {
    return std::nullopt;
  }
}

UUID identifierFrom(NSString* text) {
  const auto identifier = UUID::parse(textFromString(text));
  if (!identifier) throw std::invalid_argument("The identifier is not a UUID.");
  return *identifier;
}

/// Generations have their kind in the error; whatever comes from XPC itself has none.
HelperFailure failureOf(NSError* error) {
  const id kind = error.userInfo[replyErrorKindKey];
  if (kind == nil) {
    return [error.domain isEqual:@"com.brindlemoor.Tessaloom.helper"] ? HelperFailureOther
                                                                      : HelperFailureConnection;
  }
  if ([kind isEqual:@"notAuthenticated"]) return HelperFailureSignIn;
  if ([kind isEqual:@"cancelled"]) return HelperFailureCancelled;
  return HelperFailureOther;
}

/// A reply block that hands over the record in the reply, or why there is none.
template <class Record>
HelperDataReply reading(FailureBlock otherwise, void (^then)(const Record& record)) {
  return ^(NSData* _Nullable data, NSError* _Nullable error) {
    if (error != nil) {
      otherwise(failureOf(error), error.localizedDescription);
    } else if (const auto record = decoded<Record>(data)) {
      then(*record);
    } else {
      otherwise(HelperFailureOther, stringFromText(notRead));
    }
  };
}

}  // namespace

@implementation HelperClient {
  std::mutex _lock;
  NSXPCConnection* _connection;  // Guarded by the lock; nil when the next call has to make one.
}

+ (void)registerHelper:(void (^)(NSError* _Nullable))reply {
  SMAppService* agent =
      [SMAppService agentServiceWithPlistName:@"com.brindlemoor.Tessaloom.helper.plist"];
  NSString* version = NSBundle.mainBundle.infoDictionary[@"CFBundleVersion"];
  NSUserDefaults* defaults = NSUserDefaults.standardUserDefaults;
  void (^registerNow)(void) = ^{
    NSError* error = nil;
    if (![agent registerAndReturnError:&error]) return reply(error);
    [defaults setObject:version forKey:registeredVersion];
    reply(nil);
  };
  dispatch_async(dispatch_get_global_queue(QOS_CLASS_DEFAULT, 0), ^{
    if (agent.status != SMAppServiceStatusEnabled) return registerNow();
    if ([[defaults stringForKey:registeredVersion] isEqual:version]) return reply(nil);
    // The block is called once the old helper has ended; before that it is not to be registered.
    // Whether there was one to end does not matter.
    [agent unregisterWithCompletionHandler:^(NSError* _Nullable) {
      registerNow();
    }];
  });
}

- (void)dealloc {
  [_connection invalidate];
}

- (NSXPCConnection*)connection {
  const std::lock_guard locked(_lock);
  if (_connection != nil) return _connection;
  NSXPCConnection* connection =
      [[NSXPCConnection alloc] initWithMachServiceName:@"group.com.brindlemoor.Tessaloom.helper"
                                               options:0];
  connection.remoteObjectInterface =
      [NSXPCInterface interfaceWithProtocol:@protocol(HelperServicing)];
  // An interrupted connection needs no handler: its next call starts the helper again. What was
  // listed over it is forgotten. An invalid one is of no more use; a new one may be, once the agent
  // is registered.
  __weak HelperClient* weakSelf = self;
  __weak NSXPCConnection* weakConnection = connection;
  connection.invalidationHandler = ^{
    [weakSelf forget:weakConnection];
  };
  [connection resume];
  _connection = connection;
  return connection;
}

- (void)forget:(nullable NSXPCConnection*)connection {
  [connection invalidate];
  const std::lock_guard locked(_lock);
  if (_connection == connection) _connection = nil;
}

// XPC calls the error handler instead of a reply block whose reply will not come. XPC sets no time
// limit, and a generation needs none: the helper keeps the request's own.
- (id<HelperServicing>)helperOrElse:(FailureBlock)otherwise {
  return [[self connection] remoteObjectProxyWithErrorHandler:^(NSError* error) {
    otherwise(HelperFailureConnection, error.localizedDescription);
  }];
}

- (void)statusOfEngine:(NSString*)engine reply:(void (^)(BOOL, NSString*))reply {
  const FailureBlock otherwise = ^(HelperFailure, NSString*) {
    reply(NO, @"");
  };
  NSData* request = encoded(
      otherwise, [&] { return EngineStatusRequest{generationEngineID(textFromString(engine))}; });
  if (request == nil) return;
  [[self helperOrElse:otherwise]
      generationEngineStatusWithRequest:request
                                  reply:reading<EngineStatus>(
                                            otherwise, ^(const EngineStatus& status) {
                                              reply(status.binaryFound,
                                                    stringFromText(status.version.value_or("")));
                                            })];
}

- (void)generateText:(NSString*)prompt
              engine:(NSString*)engine
          identifier:(NSString*)identifier
               reply:(void (^)(NSString* _Nullable, HelperFailure, NSString*))reply {
  const FailureBlock otherwise = ^(HelperFailure failure, NSString* description) {
    reply(nil, failure, description);
  };
  NSData* request = encoded(otherwise, [&] {
    return GenerationRequest(identifierFrom(identifier), generationEngineID(textFromString(engine)),
                             GenerationShape::freeText, "", textFromString(prompt),
                             GenerationTimeout());
  });
  if (request == nil) return;
  [[self helperOrElse:otherwise]
      generateTextWithRequest:request
                        reply:reading<GenerationResult>(
                                  otherwise, ^(const GenerationResult& result) {
                                    reply(stringFromText(result.text), HelperFailureNone, @"");
                                  })];
}

- (void)cancel:(NSString*)identifier reply:(void (^)(BOOL))reply {
  const FailureBlock otherwise = ^(HelperFailure, NSString*) {
    reply(NO);
  };
  NSData* request =
      encoded(otherwise, [&] { return GenerationCancelRequest{identifierFrom(identifier)}; });
  if (request == nil) return;
  [[self helperOrElse:otherwise]
      cancelGenerationWithRequest:request
                            reply:reading<KillResult>(otherwise, ^(const KillResult& result) {
                              reply(result.succeeded);
                            })];
}

// The listing comes first, over the same connection: it is what allows the signal.
- (void)stopProcess:(int)pid reply:(void (^)(BOOL, NSString*))reply {
  const FailureBlock otherwise = ^(HelperFailure, NSString* description) {
    reply(NO, description);
  };
  NSData* request =
      encoded(otherwise, [&] { return KillRequest{ProcessID(pid), Signal::terminate}; });
  if (request == nil) return;
  const auto helper = [self helperOrElse:otherwise];
  [helper listProcessesWithReply:^(NSData*, NSError* error) {
    if (error != nil) return otherwise(failureOf(error), error.localizedDescription);
    [helper killProcessWithRequest:request
                             reply:reading<KillResult>(otherwise, ^(const KillResult& result) {
                               reply(result.succeeded, stringFromText(result.message.value_or("")));
                             })];
  }];
}

- (void)afterUpdate {
  [[self helperOrElse:^(HelperFailure, NSString*){
  }] quitIfOutdatedWithReply:^(NSData*, NSError*){
  }];
}

@end
