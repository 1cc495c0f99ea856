#pragma once

#import <Foundation/Foundation.h>

#include <stdint.h>

NS_ASSUME_NONNULL_BEGIN

/// The helper's service as the editor's connection sees it: the interface that both ends give to
/// XPC, so its selectors and block types are the wire format and cannot change. Plain Objective-C,
/// so that Swift can import it too.
///
/// A request and a reply body are the JSON of one record. Every reply block is called once, with
/// either data or an error.
@protocol HelperServicing

/// Replies with the protocol version, which is in no message body.
- (void)protocolVersionWithReply:(void (^)(int64_t version))reply;

/// Replies with an array of ProcessSample.
- (void)listProcessesWithReply:(void (^)(NSData* _Nullable data, NSError* _Nullable error))reply;

/// Takes a KillRequest, replies with a KillResult.
- (void)killProcessWithRequest:(NSData*)request
                         reply:(void (^)(NSData* _Nullable data, NSError* _Nullable error))reply;

/// Replies with an array of PortSample.
- (void)listListeningPortsWithReply:(void (^)(NSData* _Nullable data,
                                              NSError* _Nullable error))reply;

/// Replies with HelperCapabilities.
- (void)helperCapabilitiesWithReply:(void (^)(NSData* _Nullable data,
                                              NSError* _Nullable error))reply;

/// Takes a GenerationRequest, replies with a GenerationResult when the engine is done.
- (void)generateTextWithRequest:(NSData*)request
                          reply:(void (^)(NSData* _Nullable data, NSError* _Nullable error))reply;

/// Takes a GenerationCancelRequest, replies with a KillResult without a message.
- (void)cancelGenerationWithRequest:(NSData*)request
                              reply:
                                  (void (^)(NSData* _Nullable data, NSError* _Nullable error))reply;

/// Replies with HelperFreshness, before the helper exits.
- (void)quitIfOutdatedWithReply:(void (^)(NSData* _Nullable data, NSError* _Nullable error))reply;

/// Takes an EngineStatusRequest, replies with an EngineStatus.
- (void)generationEngineStatusWithRequest:(NSData*)request
                                    reply:(void (^)(NSData* _Nullable data,
                                                    NSError* _Nullable error))reply;

@end

NS_ASSUME_NONNULL_END
