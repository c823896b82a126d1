#pragma once

#include <boost/asio/executor_work_guard.hpp>
#include <boost/asio/io_context.hpp>
#include <chrono>
#include <cstddef>
#include <functional>
#include <list>
#include <mutex>
#include <thread>

namespace vornet::service {

/// The threads that all WorkPools share. One always waits, for timers and for the next work: another starts when it
/// gets work. Threads beyond that end after they have been idle for a while. Any thread.
class SharedThreads {
 public:
  static constexpr std::chrono::seconds IDLE{1};

  /// `idle`: how long a thread waits for work before it ends.
  explicit SharedThreads(std::chrono::milliseconds idle = IDLE);
  ~SharedThreads() { stop(); }
  SharedThreads(const SharedThreads&) = delete;
  SharedThreads& operator=(const SharedThreads&) = delete;

  /// Runs `work` at once, whatever else is running. If the system gives no more threads, `work` waits until one is
  /// free. It must not throw. Does nothing after stop().
  void run(std::function<void()> work);

  /// For timers. Their handlers should only give work to a pool: they run on the thread that waits.
  boost::asio::io_context& timers() { return context_; }

  /// How many there are.
  std::size_t count() const;

  /// Finishes what is running, drops the rest, and ends the threads. Not on one of them.
  void stop();

 private:
  void startAnotherIfNeeded();
  void work();
  bool mayEnd();

  const std::chrono::milliseconds idle_;
  boost::asio::io_context context_;
  boost::asio::executor_work_guard<boost::asio::io_context::executor_type> guard_{context_.get_executor()};
  mutable std::mutex lock_;  // guards what follows
  std::size_t busy_ = 0;     // works given and not finished
  bool stopped_ = false;
  std::list<std::thread> threads_;
  std::list<std::thread> ended_;  // to be joined
};

}  // namespace vornet::service
