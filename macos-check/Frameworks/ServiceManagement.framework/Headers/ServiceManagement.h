// The part of ServiceManagement that this project uses; see macos-check/README.md.

#pragma once

#import <Foundation/Foundation.h>

NS_ASSUME_NONNULL_BEGIN

typedef NS_ENUM(NSInteger, SMAppServiceStatus) {
  SMAppServiceStatusNotRegistered,
  SMAppServiceStatusEnabled,
  SMAppServiceStatusRequiresApproval,
  SMAppServiceStatusNotFound,
};

__attribute__((visibility("default"))) API_AVAILABLE(macos(13.0))
@interface SMAppService : NSObject
+ (instancetype)agentServiceWithPlistName:(NSString*)plistName API_AVAILABLE(macos(13.0));
- (BOOL)registerAndReturnError:(NSError* _Nullable __autoreleasing* _Nullable)error
    API_AVAILABLE(macos(13.0));
- (void)unregisterWithCompletionHandler:(void (^)(NSError* _Nullable error))handler
    API_AVAILABLE(macos(13.0));
@property(readonly) SMAppServiceStatus status API_AVAILABLE(macos(13.0));
@end

NS_ASSUME_NONNULL_END
