// The part of Dispatch that the front end uses. Its objects are Objective-C's, counted by ARC.
#pragma once

#include <stdint.h>

#include <objc/NSObject.h>

@protocol OS_dispatch_queue
@end
@protocol OS_dispatch_source
@end
typedef NSObject<OS_dispatch_queue>* dispatch_queue_t;
typedef NSObject<OS_dispatch_source>* dispatch_source_t;
typedef void (^dispatch_block_t)(void);
typedef uint64_t dispatch_time_t;
typedef const struct dispatch_source_type_s {
  int filter;
}* dispatch_source_type_t;

#define DISPATCH_TIME_NOW 0ull
#define DISPATCH_QUEUE_SERIAL ((NSObject*)nil)
#define DISPATCH_SOURCE_TYPE_SIGNAL (&_dispatch_source_type_signal)
enum { QOS_CLASS_USER_INITIATED = 0x19, QOS_CLASS_DEFAULT = 0x15, QOS_CLASS_UTILITY = 0x11 };

extern "C" {
extern const struct dispatch_source_type_s _dispatch_source_type_signal;
dispatch_queue_t dispatch_get_global_queue(intptr_t identifier, uintptr_t flags);
dispatch_queue_t dispatch_queue_create(const char* label, NSObject* attributes)
    __attribute__((ns_returns_retained));
void dispatch_async(dispatch_queue_t queue, dispatch_block_t block);
void dispatch_after(dispatch_time_t when, dispatch_queue_t queue, dispatch_block_t block);
dispatch_time_t dispatch_time(dispatch_time_t base, int64_t delta);
dispatch_source_t dispatch_source_create(dispatch_source_type_t type, uintptr_t handle,
                                         uintptr_t mask, dispatch_queue_t queue)
    __attribute__((ns_returns_retained));
void dispatch_source_set_event_handler(dispatch_source_t source, dispatch_block_t handler);
void dispatch_resume(dispatch_source_t source);
}
