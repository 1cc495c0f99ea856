// Dispatch's queues and its signal sources. The blocks of all global queues share as many threads
// as the kernel gives a process for them; a serial queue has one of its own while it has blocks.

#include <dispatch/dispatch.h>

#import <Foundation/Foundation.h>

#include <fcntl.h>
#include <pthread.h>
#include <signal.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <semaphore>
#include <thread>
#include <unordered_map>
#include <utility>

#include "Queue.h"
#include "Runtime.h"

void startThread(const std::string& name, std::function<void()> task) {
  std::thread([name, task = std::move(task)]() mutable {
    pthread_setname_np(pthread_self(), name.c_str());
    @autoreleasepool {
      task();
      task = nullptr;
    }
  }).detach();
}

void Queue::run(std::function<void()> task) {
  const std::lock_guard locked(lock_);
  tasks_.push_back(std::move(task));
  if (std::exchange(isDraining_, true)) return;
  startThread(name_, [self = shared_from_this()] { self->drain(); });
}

void Queue::drain() {
  for (;;) {
    std::function<void()> task;
    {
      const std::lock_guard locked(lock_);
      if (tasks_.empty()) return void(isDraining_ = false);
      task = std::move(tasks_.front());
      tasks_.pop_front();
    }
    @autoreleasepool {
      task();
      task = nullptr;
    }
  }
}

@interface GlobalQueue : NSObject <OS_dispatch_queue>
@end
@implementation GlobalQueue {
 @public
  intptr_t _quality;
}
@end

@interface SerialQueue : NSObject <OS_dispatch_queue>
@end
@implementation SerialQueue {
 @public
  std::shared_ptr<Queue> _queue;
}
@end

@interface SignalSource : NSObject <OS_dispatch_source>
@end
@implementation SignalSource {
 @public
  int _signal;
  dispatch_queue_t _queue;
  dispatch_block_t _handler;
  BOOL _isResumed;
}
- (void)dealloc {
  runtime::fault("a source was released while its signal matters");
}
@end

namespace {

std::counting_semaphore<> globalThreads(64);

int signalPipe[2];

void noteSignal(int number) {
  const int saved = errno;
  const auto byte = static_cast<char>(number);
  (void)!::write(signalPipe[1], &byte, 1);
  errno = saved;
}

/// The sources that are resumed, by signal.
std::mutex sourcesLock;
std::unordered_map<int, void*>& sources() {
  static auto& instance = *new std::unordered_map<int, void*>;
  return instance;
}

void readSignals() {
  for (char byte = 0; ::read(signalPipe[0], &byte, 1) == 1 || errno == EINTR;) {
    const std::lock_guard locked(sourcesLock);
    const auto found = sources().find(byte);
    if (found == sources().end()) continue;
    SignalSource* source = (__bridge SignalSource*)found->second;
    dispatch_async(source->_queue, source->_handler);
  }
}

}  // namespace

extern "C" {

const struct dispatch_source_type_s _dispatch_source_type_signal = {-6};

dispatch_queue_t dispatch_get_global_queue(intptr_t identifier, uintptr_t flags) {
  static auto& queues = *new std::unordered_map<intptr_t, GlobalQueue*>;
  static std::mutex lock;
  if (flags != 0) runtime::fault("a global queue takes no flags");
  if (identifier != QOS_CLASS_USER_INITIATED && identifier != QOS_CLASS_DEFAULT &&
      identifier != QOS_CLASS_UTILITY)
    runtime::fault("no global queue of that quality");
  const std::lock_guard locked(lock);
  __strong GlobalQueue*& queue = queues[identifier];
  if (queue == nil) {
    queue = [[GlobalQueue alloc] init];
    queue->_quality = identifier;
  }
  return queue;
}

dispatch_time_t dispatch_time(dispatch_time_t, int64_t delta) {
  return static_cast<dispatch_time_t>(delta);
}

dispatch_queue_t dispatch_queue_create(const char* label, NSObject* attributes) {
  if (attributes != DISPATCH_QUEUE_SERIAL) runtime::fault("a queue of another kind");
  const std::string_view name = label;
  SerialQueue* queue = [[SerialQueue alloc] init];
  queue->_queue = std::make_shared<Queue>(std::string(name.substr(name.rfind('.') + 1)));
  return queue;
}

void dispatch_after(dispatch_time_t when, dispatch_queue_t queue, dispatch_block_t block) {
  startThread("timer", [=] {
    std::this_thread::sleep_for(std::chrono::nanoseconds(when));
    dispatch_async(queue, block);
  });
}

void dispatch_async(dispatch_queue_t queue, dispatch_block_t block) {
  if ([queue isKindOfClass:[SerialQueue class]])
    return static_cast<SerialQueue*>(queue)->_queue->run([block] { block(); });
  startThread("quality-" + std::to_string(static_cast<GlobalQueue*>(queue)->_quality), [=] {
    globalThreads.acquire();
    block();
    globalThreads.release();
  });
}

dispatch_source_t dispatch_source_create(dispatch_source_type_t type, uintptr_t handle,
                                         uintptr_t mask, dispatch_queue_t queue) {
  if (type != &_dispatch_source_type_signal || mask != 0)
    runtime::fault("a source of another type");
  SignalSource* source = [[SignalSource alloc] init];
  source->_signal = static_cast<int>(handle);
  source->_queue = queue;
  return source;
}

void dispatch_source_set_event_handler(dispatch_source_t source, dispatch_block_t handler) {
  static_cast<SignalSource*>(source)->_handler = handler;
}

void dispatch_resume(dispatch_source_t object) {
  auto* source = static_cast<SignalSource*>(object);
  if (source->_isResumed || source->_handler == nil)
    runtime::fault("a source is resumed once, with a handler");
  source->_isResumed = YES;
  // A source watches beside the signal's disposition: one that is not ignored ends the process.
  struct sigaction current{};
  ::sigaction(source->_signal, nullptr, &current);
  if (current.sa_handler != SIG_IGN) return;
  const std::lock_guard locked(sourcesLock);
  if (sources().empty()) {
    if (::pipe2(signalPipe, O_CLOEXEC) != 0) runtime::fault("no pipe");
    startThread("signals", readSignals);
  }
  sources()[source->_signal] = (__bridge void*)source;
  current.sa_handler = noteSignal;
  current.sa_flags = SA_RESTART;
  ::sigaction(source->_signal, &current, nullptr);
}
}
