// The root class, and the one object that nobody counts. Without ARC, because it is what ARC calls.

#import <Foundation/Foundation.h>

#include <unistd.h>

#include "Runtime.h"

extern "C" bool objc_opt_isKindOfClass(ObjectRecord*, const ClassRecord*);

@implementation NSObject
+ (instancetype)alloc {
  return reinterpret_cast<id>(runtime::allocate(reinterpret_cast<ClassRecord*>(self)));
}
+ (Class)class {
  return self;
}
- (instancetype)init {
  return self;
}
- (void)dealloc {
  runtime::destroy(reinterpret_cast<ObjectRecord*>(self));
}
- (BOOL)isEqual:(id)object {
  return self == object;
}
- (Class)class {
  return reinterpret_cast<Class>(reinterpret_cast<ObjectRecord*>(self)->isa);
}
- (BOOL)isKindOfClass:(Class)aClass {
  return objc_opt_isKindOfClass(reinterpret_cast<ObjectRecord*>(self),
                                reinterpret_cast<ClassRecord*>(aClass));
}
- (NSString*)description {
  return @"an object";
}
@end

@interface Protocol : NSObject
@end
@implementation Protocol
@end

@implementation NSRunLoop
+ (NSRunLoop*)mainRunLoop {
  static NSRunLoop* const loop = [[NSRunLoop alloc] init];
  return loop;
}
- (void)run {
  for (;;) ::pause();
}
@end
