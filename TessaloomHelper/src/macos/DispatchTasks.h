#pragma once

#include "TessaloomHelper/Tasks.h"

namespace tessaloom {

/// Runs tasks on Dispatch's global queues.
class DispatchTasks final : public Tasks {
 public:
  void runConcurrently(QualityOfService quality, std::function<void()> task) override;
  void runAfter(std::chrono::milliseconds delay, QualityOfService quality,
                std::function<void()> task) override;
};

}  // namespace tessaloom
