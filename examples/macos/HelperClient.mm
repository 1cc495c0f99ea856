#import "HelperClient.h"

#include <exception>
#include <functional>
#include <optional>
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

constexpr const char* notRead = "The helper's reply could not be read.";

template <class Record>
NSData* encoded(const Record& record) {
  return dataFromBytes(HelperCoding::makeEncoder().encode(record));
}

template <class Record>
std::optional<Record> decoded(NSData* _Nullable data) {
  try {
    return HelperCoding::makeDecoder().decode<Record>(bytesFromData(data));
  } catch (const std::exception&) {
    return std::nullopt;
  }
}

// Generations have their kind in the error; whatever comes from XPC itself has none.
HelperFailure failureOf(NSError* error) {
  const id kind = error.userInfo[@"kind"];
  if (kind == nil) {
    return [error.domain isEqual:@"com.brindlemoor.Tessaloom.helper"] ? HelperFailureOther
                                                                      : HelperFailureConnection;
  }
  if ([kind isEqual:@"notAuthenticated"]) return HelperFailureSignIn;
  if ([kind isEqual:@"cancelled"]) return HelperFailureCancelled;
  return HelperFailureOther;
}

}  // namespace

@implementation HelperClient {
  NSXPCConnection* _connection;
}

- (instancetype)init {
  self = [super init];
  if (self == nil) return nil;
  _connection =
      [[NSXPCConnection alloc] initWithMachServiceName:@"group.com.brindlemoor.Tessaloom.helper"
                                               options:0];
  _connection.remoteObjectInterface =
      [NSXPCInterface interfaceWithProtocol:@protocol(HelperServicing)];
  // The helper left, after an update for one: the next call starts it again over this connection.
  // What was listed is forgotten.
  _connection.interruptionHandler = ^{
  };
  // The connection is of no more use: the agent is not registered, or does not admit this program.
  _connection.invalidationHandler = ^{
  };
  [_connection resume];
  return self;
}

- (void)dealloc {
  [_connection invalidate];
}

// XPC calls the error handler instead of a reply block whose reply will not come. XPC sets no time
// limit, and a generation needs none: the helper keeps the request's own.
- (id<HelperServicing>)helperOrElse:(void (^)(NSError* error))handler {
  return [_connection remoteObjectProxyWithErrorHandler:handler];
}

- (void)statusOfEngine:(NSString*)engine reply:(void (^)(BOOL, NSString*))reply {
  const auto request = encoded(EngineStatusRequest{generationEngineID(textFromString(engine))});
  [[self helperOrElse:^(NSError*) {
    reply(NO, @"");
  }] generationEngineStatusWithRequest:request
                                 reply:^(NSData* data, NSError*) {
                                   const auto status = decoded<EngineStatus>(data);
                                   reply(status && status->binaryFound,
                                         stringFromText(status ? status->version.value_or("")
                                                               : std::string()));
                                 }];
}

- (void)generateText:(NSString*)prompt
              engine:(NSString*)engine
          identifier:(NSString*)identifier
               reply:(void (^)(NSString* _Nullable, HelperFailure, NSString*))reply {
  // The record checks the limits that the helper checks: a text that is too long ends here.
  NSData* request = nil;
  try {
    request = encoded(GenerationRequest(
        *UUID::parse(textFromString(identifier)), generationEngineID(textFromString(engine)),
        GenerationShape::freeText, "", textFromString(prompt), GenerationTimeout()));
  } catch (const std::exception& error) {
    reply(nil, HelperFailureOther, stringFromText(error.what()));
    return;
  }
  [[self helperOrElse:^(NSError* error) {
    reply(nil, HelperFailureConnection, error.localizedDescription);
  }] generateTextWithRequest:request
                       reply:^(NSData* data, NSError* error) {
                         if (error != nil) {
                           reply(nil, failureOf(error), error.localizedDescription);
                           return;
                         }
                         const auto result = decoded<GenerationResult>(data);
                         reply(result ? stringFromText(result->text) : nil, HelperFailureOther,
                               stringFromText(result ? "" : notRead));
                       }];
}

- (void)cancel:(NSString*)identifier reply:(void (^)(BOOL))reply {
  const auto request = encoded(GenerationCancelRequest{*UUID::parse(textFromString(identifier))});
  [[self helperOrElse:^(NSError*) {
    reply(NO);
  }] cancelGenerationWithRequest:request
                           reply:^(NSData* data, NSError*) {
                             const auto result = decoded<KillResult>(data);
                             reply(result && result->succeeded);
                           }];
}

// The listing comes first, over the same connection: it is what allows the signal.
- (void)stopProcess:(int)pid reply:(void (^)(BOOL, NSString*))reply {
  const auto request = encoded(KillRequest{ProcessID(pid), Signal::terminate});
  const auto helper = [self helperOrElse:^(NSError* error) {
    reply(NO, error.localizedDescription);
  }];
  [helper listProcessesWithReply:^(NSData*, NSError* listingError) {
    if (listingError != nil) {
      reply(NO, listingError.localizedDescription);
      return;
    }
    [helper
        killProcessWithRequest:request
                         reply:^(NSData* data, NSError* error) {
                           const auto result = decoded<KillResult>(data);
                           if (!result) {
                             reply(NO, error != nil ? error.localizedDescription
                                                    : stringFromText(notRead));
                             return;
                           }
                           reply(result->succeeded, stringFromText(result->message.value_or("")));
                         }];
  }];
}

- (void)afterUpdate {
  [[self helperOrElse:^(NSError*){
  }] quitIfOutdatedWithReply:^(NSData*, NSError*){
  }];
}

@end
