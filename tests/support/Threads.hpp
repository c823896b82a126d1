#pragma once

#include <poll.h>
#include <sys/eventfd.h>
#include <unistd.h>

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <future>
#include <stdexcept>
#include <thread>
#include <vector>

namespace vornet::test {

/// How long a test waits for what must happen before it gives up.
inline constexpr std::chrono::seconds PATIENCE{60};

/// Waits until `condition` holds, asking it again and again; false when it does not in the test's patience.
template <typename Condition>
bool becomesTrue(const Condition& condition) {
  const auto until = std::chrono::steady_clock::now() + PATIENCE;
  while (!condition()) {
    if (std::chrono::steady_clock::now() > until) return false;
    std::this_thread::sleep_for(std::chrono::milliseconds(2));
  }
  return true;
}

/// Waits until `missing()`, a number, is 0; false when it has not become less for as long as the test's patience lasts.
template <typename Missing>
bool becomesZero(const Missing& missing) {
  auto until = std::chrono::steady_clock::now() + PATIENCE;
  for (auto before = missing(); before > 0;) {
    std::this_thread::sleep_for(std::chrono::milliseconds(2));
    const auto now = missing();
    if (now < before) until = std::chrono::steady_clock::now() + PATIENCE;
    if (std::chrono::steady_clock::now() > until) return false;
    before = now;
  }
  return true;
}

/// A door for threads, and for processes that are forked after it was made. Once opened it stays open.
class Gate {
 public:
  Gate() : descriptor_(::eventfd(0, EFD_SEMAPHORE | EFD_CLOEXEC)) {
    if (descriptor_ < 0) throw std::runtime_error("no event descriptor");
  }
  ~Gate() { ::close(descriptor_); }
  Gate(const Gate&) = delete;
  Gate& operator=(const Gate&) = delete;

  void open() { add(1); }

  /// Waits until it was opened, or opened `times` times; one thread alone waits for more than one.
  void pass(std::uint64_t times = 1) {
    for (std::uint64_t taken = 0; taken < times; ++taken) take();
    add(times);
  }

  /// False when the gate did not open within the test's patience.
  bool passInTime() {
    pollfd opened{descriptor_, POLLIN, 0};
    if (::poll(&opened, 1, static_cast<int>(std::chrono::milliseconds(PATIENCE).count())) != 1) return false;
    pass();
    return true;
  }

 private:
  void add(std::uint64_t times) {
    if (::write(descriptor_, &times, sizeof times) != sizeof times) throw std::runtime_error("gate stuck");
  }
  void take() {
    std::uint64_t one = 0;
    if (::read(descriptor_, &one, sizeof one) != sizeof one) throw std::runtime_error("gate stuck");
  }

  const int descriptor_;
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

/// The result of `work`, run on another thread.
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
