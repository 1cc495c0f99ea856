#pragma once

#import <Foundation/Foundation.h>

#include <stdint.h>

NS_ASSUME_NONNULL_BEGIN

/// Called once, with either data, the JSON of one record, or an error.
typedef void (^HelperDataReply)(NSData* _Nullable data, NSError* _Nullable error);

/// The helper's service as the editor's connection sees it: the interface that both ends give to
/// XPC, so its selectors and block types are the wire format and cannot change. Plain Objective-C,
/// so that Swift can import it too. A request is the JSON of one record.
@protocol HelperServicing

/// Replies with the protocol version, which is in no message body.
- (void)protocolVersionWithReply:(void (^)(int64_t version))reply;

/// Replies with an array of ProcessSample.
- (void)listProcessesWithReply:(HelperDataReply)reply;

/// Takes a KillRequest, replies with a KillResult.
- (void)killProcessWithRequest:(NSData*)request reply:(HelperDataReply)reply;

/// Replies with an array of PortSample.
- (void)listListeningPortsWithReply:(HelperDataReply)reply;

/// Replies with HelperCapabilities.
- (void)helperCapabilitiesWithReply:(HelperDataReply)reply;

/// Takes a GenerationRequest, replies with a GenerationResult when the engine is done.
- (void)generateTextWithRequest:(NSData*)request reply:(HelperDataReply)reply;

/// Takes a GenerationCancelRequest, replies with a KillResult without a message.
- (void)cancelGenerationWithRequest:(NSData*)request reply:(HelperDataReply)reply;

/// Replies with HelperFreshness, before the helper exits.
- (void)quitIfOutdatedWithReply:(HelperDataReply)reply;

/// Takes an EngineStatusRequest, replies with an EngineStatus.
- (void)generationEngineStatusWithRequest:(NSData*)request reply:(HelperDataReply)reply;

@end

NS_ASSUME_NONNULL_END
