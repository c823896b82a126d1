#pragma once

#include <chrono>
#include <functional>
#include <memory>
#include <string>

/// Work done elsewhere: the background-priority worker and the serial queue.
namespace vornet::platform {

/// One piece of work on a thread of background priority: lower than that of the process, whatever that is.
class BackgroundTask {
 public:
  /// Starts `work` on such a thread and returns at once. `work` must not throw.
  static BackgroundTask start(std::function<void()> work);

  /// A task that never ran; waiting for it returns at once.
  BackgroundTask() = default;

  /// Blocks until the work has ended. Any thread but the work's own; more than once is allowed.
  void wait();

 private:
  struct Impl;
  std::shared_ptr<Impl> impl_;
};

/// Runs tasks one after another, in the order they were given. Any thread may give them.
class SerialQueue {
 public:
  /// `label` names the queue in a debugger.
  explicit SerialQueue(const std::string& label);
  /// Runs what is still queued, then ends.
  ~SerialQueue();
  SerialQueue(const SerialQueue&) = delete;
  SerialQueue& operator=(const SerialQueue&) = delete;

  /// Queues `task` and returns at once. `task` must not throw.
  void async(std::function<void()> task);

  /// Blocks until everything queued before this call has run. Not from within a task.
  void drain();

  /// The same, but for `atMost` only; whether all of it has run. What has not goes on by itself.
  bool drain(std::chrono::milliseconds atMost);

 private:
  struct Impl;
  std::unique_ptr<Impl> impl_;
};

}  // namespace vornet::platform
