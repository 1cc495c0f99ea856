#pragma once

#import <Foundation/Foundation.h>

NS_ASSUME_NONNULL_BEGIN

/// Why a call has no result, as far as an editor treats the cases differently.
typedef NS_ENUM(NSInteger, HelperFailure) {
  HelperFailureNone,
  /// The helper is missing, refused the editor (is it signed?), or disconnected.
  HelperFailureConnection,
  HelperFailureSignIn,  ///< The engine is not signed in.
  HelperFailureCancelled,
  HelperFailureOther,  ///< Show the description.
};

/// The editor's end of the connection to the helper: what an editor does to use it on macOS.
///
/// One for the whole editor, because the helper signals only processes that the same connection has
/// listed. Every block is called exactly once, on a queue of the system's, never by the method
/// itself. Safe from any thread. Plain Objective-C, for Swift too: see Assistant.swift.
@interface HelperClient : NSObject

/// Registers the helper's agent unless it is registered as this version of the editor has it. Each
/// time the editor starts, before the first call: nobody can start an agent that was never
/// registered, so the helper's own registration comes too late for it, and the system may not start
/// one that has changed since. A helper of another version is ended.
+ (void)registerHelper:(void (^)(NSError* _Nullable error))reply
    NS_SWIFT_NAME(registerHelper(reply:));

/// Whether an engine's executable is there, and its version; empty if that is unknown.
- (void)statusOfEngine:(NSString*)engine
                 reply:(void (^)(BOOL isFound, NSString* version))reply
    NS_SWIFT_NAME(status(ofEngine:reply:));

/// Generates free text. The identifier is the request's, for cancelling: the text form of a UUID.
- (void)generateText:(NSString*)prompt
              engine:(NSString*)engine
          identifier:(NSString*)identifier
               reply:(void (^)(NSString* _Nullable text, HelperFailure failure,
                               NSString* description))reply
    NS_SWIFT_NAME(generateText(_:engine:identifier:reply:));

/// Whether an engine was running and is being stopped. Repeat it until it says so or the generation
/// has replied: before the engine has been launched there is nothing to stop.
- (void)cancel:(NSString*)identifier
         reply:(void (^)(BOOL isSignaled))reply NS_SWIFT_NAME(cancel(_:reply:));

/// Lists the processes and ends the given one. The message is for the user.
- (void)stopProcess:(int)pid
              reply:(void (^)(BOOL isSignaled, NSString* message))reply
    NS_SWIFT_NAME(stopProcess(_:reply:));

/// Once after the editor starts and after it has been updated: a helper whose executable has been
/// replaced exits as soon as no engine runs, and the next call starts the new one.
- (void)afterUpdate;

@end

NS_ASSUME_NONNULL_END
