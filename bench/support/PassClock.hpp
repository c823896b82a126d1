#pragma once

#include <chrono>
#include <condition_variable>
#include <cstddef>
#include <deque>
#include <mutex>

namespace vornet::bench {

/// Sends the end times of passes from the thread that makes them to the one that measures. Wakes the measuring thread
/// only for whole batches, which disturbs the passes little.
class PassClock {
 public:
  static constexpr std::size_t BATCH = 32;

  /// A pass has ended.
  void passed() {
    const auto now = std::chrono::steady_clock::now();
    const std::lock_guard guard(lock_);
    ends_.push_back(now);
    if (ends_.size() > BATCH) changed_.notify_one();
  }

  /// Waits for the next BATCH passes. The seconds that they took; a negative number when half a minute brought less.
  double nextBatch() {
    std::unique_lock guard(lock_);
    if (!changed_.wait_for(guard, std::chrono::seconds(30), [this] { return ends_.size() > BATCH; })) return -1;
    const std::chrono::duration<double> taken = ends_[BATCH] - ends_.front();
    ends_.erase(ends_.begin(), ends_.begin() + BATCH);
    return taken.count();
  }

 private:
  std::mutex lock_;
  std::condition_variable changed_;
  std::deque<std::chrono::steady_clock::time_point> ends_;
};

}  // namespace vornet::bench
