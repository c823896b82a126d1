#pragma once

#include <chrono>
#include <condition_variable>
#include <cstddef>
#include <functional>
#include <future>
#include <mutex>
#include <thread>
#include <vector>

namespace vornet::test {

/// How long a test waits for what must happen before it gives up.
inline constexpr std::chrono::seconds PATIENCE{30};

/// A door that opens once; until then those who pass wait. Any thread.
class Gate {
 public:
  void open() {
    const std::lock_guard guard(lock_);
    open_ = true;
    opened_.notify_all();
  }
  void pass() {
    std::unique_lock guard(lock_);
    opened_.wait(guard, [this] { return open_; });
  }
  /// False when the gate did not open within the test's patience.
  bool passInTime() {
    std::unique_lock guard(lock_);
    return opened_.wait_for(guard, PATIENCE, [this] { return open_; });
  }

 private:
  std::mutex lock_;
  std::condition_variable opened_;
  bool open_ = false;
};

/// Runs `work(number)` on `threads` threads that begin together, and waits for all.
inline void inParallel(std::size_t threads, const std::function<void(std::size_t)>& work) {
  Gate gate;
  std::vector<std::thread> running;
  for (std::size_t number = 0; number < threads; ++number) {
    running.emplace_back([&, number] {
      gate.pass();
      work(number);
    });
  }
  gate.open();
  for (auto& thread : running) thread.join();
}

/// What `work` returns, run on a thread of its own.
template <typename Work>
auto onAnotherThread(Work work) {
  return std::async(std::launch::async, std::move(work)).get();
}

template <typename Result>
bool isDoneInTime(const std::future<Result>& result) {
  return result.wait_for(PATIENCE) == std::future_status::ready;
}

template <typename Result>
bool isDone(const std::future<Result>& result) {
  return result.wait_for(std::chrono::seconds(0)) == std::future_status::ready;
}

}  // namespace vornet::test
