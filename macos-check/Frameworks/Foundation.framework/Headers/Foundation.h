// The part of Foundation that this project uses, declared from its documentation for the build check
// on Debian. On a Mac the SDK's own header is used instead; see macos-check/README.md.

#pragma once

#include <Availability.h>
#include <objc/NSObject.h>
#include <os/availability.h>
#include <stddef.h>
#include <stdint.h>

#ifdef __cplusplus
#define FOUNDATION_EXPORT extern "C"
#else
#define FOUNDATION_EXPORT extern
#endif
#ifndef NS_DESIGNATED_INITIALIZER
#define NS_DESIGNATED_INITIALIZER __attribute__((objc_designated_initializer))
#endif
#define NS_UNAVAILABLE __attribute__((unavailable))
#define NS_RETURNS_INNER_POINTER __attribute__((objc_returns_inner_pointer))
#define NS_ENUM(type, name) \
  enum __attribute__((enum_extensibility(open))) name : type name; \
  enum name : type
// In C++ an option set is a plain integer.
#ifdef __cplusplus
#define NS_OPTIONS(type, name) \
  type name;                   \
  enum __attribute__((flag_enum, enum_extensibility(open))) : type
#else
#define NS_OPTIONS(type, name)                                            \
  enum __attribute__((flag_enum, enum_extensibility(open))) name : type name; \
  enum name : type
#endif
#define NS_SWIFT_NAME(name) __attribute__((swift_name(#name)))
#define NS_ASSUME_NONNULL_BEGIN _Pragma("clang assume_nonnull begin")
#define NS_ASSUME_NONNULL_END _Pragma("clang assume_nonnull end")

NS_ASSUME_NONNULL_BEGIN

@class NSCoder, NSDictionary<KeyType, ObjectType>, NSString;

@protocol NSCopying
- (id)copyWithZone:(nullable struct _NSZone*)zone;
@end

@protocol NSMutableCopying
- (id)mutableCopyWithZone:(nullable struct _NSZone*)zone;
@end

@protocol NSCoding
- (void)encodeWithCoder:(NSCoder*)coder;
- (nullable instancetype)initWithCoder:(NSCoder*)coder;
@end

@protocol NSSecureCoding <NSCoding>
@required
@property(class, readonly) BOOL supportsSecureCoding;
@end

typedef NSUInteger NSStringEncoding;
enum : NSStringEncoding { NSUTF8StringEncoding = 4 };

@interface NSString : NSObject <NSCopying, NSMutableCopying, NSSecureCoding>
@property(readonly) NSUInteger length;
- (instancetype)init NS_DESIGNATED_INITIALIZER;
- (nullable instancetype)initWithCoder:(NSCoder*)coder NS_DESIGNATED_INITIALIZER;
@end

@interface NSString (NSStringExtensionMethods)
@property(nullable, readonly) const char* UTF8String NS_RETURNS_INNER_POINTER;
- (NSUInteger)lengthOfBytesUsingEncoding:(NSStringEncoding)enc;
- (nullable instancetype)initWithBytes:(const void*)bytes
                                length:(NSUInteger)length
                              encoding:(NSStringEncoding)encoding;
@end

@interface NSData : NSObject <NSCopying, NSMutableCopying, NSSecureCoding>
@property(readonly) NSUInteger length;
@property(readonly) const void* bytes NS_RETURNS_INNER_POINTER;
@end

@interface NSData (NSDataCreation)
+ (instancetype)dataWithBytes:(nullable const void*)bytes length:(NSUInteger)length;
@end

@interface NSDictionary<__covariant KeyType, __covariant ObjectType>
    : NSObject <NSCopying, NSMutableCopying, NSSecureCoding>
@property(readonly) NSUInteger count;
- (nullable ObjectType)objectForKey:(KeyType)key;
- (instancetype)init NS_DESIGNATED_INITIALIZER;
- (instancetype)initWithObjects:(const ObjectType _Nonnull[_Nullable])objects
                        forKeys:(const KeyType<NSCopying> _Nonnull[_Nullable])keys
                          count:(NSUInteger)count NS_DESIGNATED_INITIALIZER;
- (nullable instancetype)initWithCoder:(NSCoder*)coder NS_DESIGNATED_INITIALIZER;
@end

@interface NSDictionary<KeyType, ObjectType> (NSExtendedDictionary)
- (nullable ObjectType)objectForKeyedSubscript:(KeyType)key API_AVAILABLE(macos(10.8));
@end

@interface NSDictionary<KeyType, ObjectType> (NSDictionaryCreation)
+ (instancetype)dictionaryWithObjects:(const ObjectType _Nonnull[_Nullable])objects
                              forKeys:(const KeyType<NSCopying> _Nonnull[_Nullable])keys
                                count:(NSUInteger)count;
@end

typedef NSString* NSErrorDomain;
typedef NSString* NSErrorUserInfoKey;
FOUNDATION_EXPORT NSErrorUserInfoKey const NSLocalizedDescriptionKey;

@interface NSError : NSObject <NSCopying, NSSecureCoding>
- (instancetype)initWithDomain:(NSErrorDomain)domain
                          code:(NSInteger)code
                      userInfo:(nullable NSDictionary<NSErrorUserInfoKey, id>*)userInfo
    NS_DESIGNATED_INITIALIZER;
+ (instancetype)errorWithDomain:(NSErrorDomain)domain
                           code:(NSInteger)code
                       userInfo:(nullable NSDictionary<NSErrorUserInfoKey, id>*)userInfo;
@property(readonly, copy) NSErrorDomain domain;
@property(readonly) NSInteger code;
@property(readonly, copy) NSDictionary<NSErrorUserInfoKey, id>* userInfo;
@property(readonly, copy) NSString* localizedDescription;
@end

@interface NSURL : NSObject <NSSecureCoding, NSCopying>
@property(readonly) const char* fileSystemRepresentation NS_RETURNS_INNER_POINTER
    API_AVAILABLE(macos(10.9));
@end

@interface NSBundle : NSObject
@property(class, readonly, strong) NSBundle* mainBundle;
@property(nullable, readonly, copy) NSURL* executableURL API_AVAILABLE(macos(10.6));
@property(nullable, readonly, copy) NSDictionary<NSString*, id>* infoDictionary;
@end

@interface NSUserDefaults : NSObject
@property(class, readonly, strong) NSUserDefaults* standardUserDefaults;
- (nullable NSString*)stringForKey:(NSString*)defaultName;
- (void)setObject:(nullable id)value forKey:(NSString*)defaultName;
@end

@interface NSRunLoop : NSObject
@property(class, readonly, strong) NSRunLoop* mainRunLoop API_AVAILABLE(macos(10.5));
@end

@interface NSRunLoop (NSRunLoopConveniences)
- (void)run;
@end

@class NSXPCConnection, NSXPCInterface, NSXPCListener;

@protocol NSXPCProxyCreating
- (id)remoteObjectProxy;
- (id)remoteObjectProxyWithErrorHandler:(void (^)(NSError* error))handler;
@optional
- (id)synchronousRemoteObjectProxyWithErrorHandler:(void (^)(NSError* error))handler
    API_AVAILABLE(macos(10.11));
@end

typedef NS_OPTIONS(NSUInteger, NSXPCConnectionOptions) {
  NSXPCConnectionPrivileged = (1 << 12UL)
} API_AVAILABLE(macos(10.8));

API_AVAILABLE(macos(10.8))
@interface NSXPCConnection : NSObject <NSXPCProxyCreating>
- (instancetype)initWithMachServiceName:(NSString*)name options:(NSXPCConnectionOptions)options;
@property(nullable, retain) NSXPCInterface* exportedInterface;
@property(nullable, retain) id exportedObject;
@property(nullable, retain) NSXPCInterface* remoteObjectInterface;
@property(readonly, retain) id remoteObjectProxy;
- (id)remoteObjectProxyWithErrorHandler:(void (^)(NSError* error))handler;
@property(nullable, copy) void (^interruptionHandler)(void);
@property(nullable, copy) void (^invalidationHandler)(void);
+ (nullable NSXPCConnection*)currentConnection API_AVAILABLE(macos(10.8));
- (void)scheduleSendBarrierBlock:(void (^)(void))block API_AVAILABLE(macos(10.15));
- (void)resume;
- (void)invalidate;
- (void)setCodeSigningRequirement:(NSString*)requirement API_AVAILABLE(macos(13.0));
@end

@protocol NSXPCListenerDelegate <NSObject>
@optional
- (BOOL)listener:(NSXPCListener*)listener
    shouldAcceptNewConnection:(NSXPCConnection*)newConnection;
@end

API_AVAILABLE(macos(10.8))
@interface NSXPCListener : NSObject
- (instancetype)initWithMachServiceName:(NSString*)name NS_DESIGNATED_INITIALIZER;
@property(nullable, weak) id<NSXPCListenerDelegate> delegate;
- (void)resume;
@end

API_AVAILABLE(macos(10.8))
@interface NSXPCInterface : NSObject
+ (NSXPCInterface*)interfaceWithProtocol:(Protocol*)protocol;
@end

NS_ASSUME_NONNULL_END
