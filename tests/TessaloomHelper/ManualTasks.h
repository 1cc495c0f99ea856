#pragma once

#include <chrono>
#include <functional>
#include <new>
#include <utility>
#include <vector>

#include "TessaloomHelper/Tasks.h"

namespace tessaloom {

/// Keeps tasks until the test runs them. For one thread.
class ManualTasks final : public Tasks {
 public:
  struct Entry {
    std::chrono::milliseconds delay;
    QualityOfService quality;
    std::function<void()> task;
  };

  void runConcurrently(QualityOfService quality, std::function<void()> task) override {
    runAfter(std::chrono::milliseconds(0), quality, std::move(task));
  }
  void runAfter(std::chrono::milliseconds delay, QualityOfService quality,
                std::function<void()> task) override {
    if (isExhausted) throw std::bad_alloc();
    entries.push_back({delay, quality, std::move(task)});
  }

  /// Runs what is there, not what that adds.
  void run() {
    for (Entry& entry : std::exchange(entries, {})) entry.task();
  }

  std::vector<Entry> entries;
  bool isExhausted = false;
};

}  // namespace tessaloom
