#pragma once

#include <deque>
#include <functional>
#include <memory>
#include <mutex>
#include <string>

/// A serial queue: one thread while there is something to do. Safe from any thread.
class Queue : public std::enable_shared_from_this<Queue> {
 public:
  explicit Queue(std::string name) : name_(std::move(name)) {}
  void run(std::function<void()> task);

 private:
  void drain();

  const std::string name_;
  std::mutex lock_;
  std::deque<std::function<void()>> tasks_;
  bool isDraining_ = false;
};

/// Starts a thread of that name (15 characters) for one task, in a pool of its own.
void startThread(const std::string& name, std::function<void()> task);
