#pragma once

#include <deque>
#include <functional>
#include <memory>

#include "TLFoundation/Mutex.h"
#include "TessaloomHelper/Tasks.h"

namespace tessaloom {

/// Runs jobs one after the other, in the order in which they came, on threads of a Tasks pool;
/// takes no thread while it has nothing to run. Jobs must not throw. One thread at a time submits.
///
/// Jobs that were accepted run even if the queue is destroyed first.
class SerialQueue {
 public:
  SerialQueue(Tasks& tasks, QualityOfService quality);

  /// Throws what the pool throws; then the job was not accepted.
  void submit(std::function<void()> job);

 private:
  struct State {
    Mutex lock;
    std::deque<std::function<void()>> jobs TL_GUARDED_BY(lock);
    bool isRunning TL_GUARDED_BY(lock) = false;
  };

  static void runAll(State& state);

  Tasks& tasks_;
  QualityOfService quality_;
  std::shared_ptr<State> state_ = std::make_shared<State>();
};

}  // namespace tessaloom
