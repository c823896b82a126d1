#pragma once

#include <atomic>
#include <boost/asio/thread_pool.hpp>
#include <cstddef>
#include <functional>

namespace vornet::host {

/// A few threads for work that may block, and a bound on how much may wait for them. Any thread may give work.
class WorkPool {
 public:
  /// `threads`: how many; one runs its work in the order given. `limit`: how much work may be waiting or running.
  WorkPool(std::size_t threads, std::size_t limit);

  /// Gives `work` to the threads; false, and nothing done, when too much is waiting already. `work` must not throw.
  bool post(std::function<void()> work);

  /// Runs what was given, then ends the threads. Once, at the end.
  void join();

  /// Begins no more work: what is running finishes, what is waiting is dropped. Does not wait.
  void requestStop();

  /// The same, then ends the threads. Once, instead of join().
  void stop();

  boost::asio::thread_pool& threads() { return threads_; }

 private:
  boost::asio::thread_pool threads_;
  const std::size_t limit_;
  std::atomic<std::size_t> waiting_{0};
};

}  // namespace vornet::host
