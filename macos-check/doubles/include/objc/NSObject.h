// The runtime's own header, as far as the declarations in Frameworks/ build on it.
#pragma once

typedef bool BOOL;
#define YES true
#define NO false
#define nil nullptr
typedef long NSInteger;
typedef unsigned long NSUInteger;

@class NSString, Protocol;

@protocol NSObject
- (BOOL)isEqual:(id)object;
- (Class)class;
- (BOOL)isKindOfClass:(Class)aClass;
@property(readonly, copy) NSString* description;
@end

__attribute__((objc_root_class))
@interface NSObject<NSObject> {
  Class isa;
}
+ (instancetype)alloc;
+ (Class)class;
- (instancetype)init;
- (void)dealloc;
@end
