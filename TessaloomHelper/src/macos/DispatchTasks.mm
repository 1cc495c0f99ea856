#import "DispatchTasks.h"

#include <dispatch/dispatch.h>

#include <utility>

namespace tessaloom {

namespace {

dispatch_queue_t globalQueue(QualityOfService quality) {
  switch (quality) {
    case QualityOfService::userInitiated:
      return dispatch_get_global_queue(QOS_CLASS_USER_INITIATED, 0);
    case QualityOfService::utility:
      return dispatch_get_global_queue(QOS_CLASS_UTILITY, 0);
  }
}

/// Dispatch does not specify when its threads drain their pools, so each task has its own.
dispatch_block_t block(std::function<void()> task) {
  return ^{
    @autoreleasepool {
      task();
    }
  };
}

}  // namespace

void DispatchTasks::runConcurrently(QualityOfService quality, std::function<void()> task) {
  dispatch_async(globalQueue(quality), block(std::move(task)));
}

void DispatchTasks::runAfter(std::chrono::milliseconds delay, QualityOfService quality,
                             std::function<void()> task) {
  const std::chrono::nanoseconds nanoseconds = delay;
  dispatch_after(dispatch_time(DISPATCH_TIME_NOW, nanoseconds.count()), globalQueue(quality),
                 block(std::move(task)));
}

}  // namespace tessaloom
