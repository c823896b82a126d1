#pragma once

#include <boost/asio/thread_pool.hpp>
#include <cstddef>
#include <functional>
#include <mutex>
#include <string>

#include "FairQueue.hpp"
#include "dbus/Interface.hpp"

namespace vornet::service {

/// A few threads for work that may block. Clients take turns by what their work costs, and long work never takes the
/// last thread. Nothing is refused: CallGate bounds what clients give. Any thread may give work.
class WorkPool {
 public:
  /// Work that costs more is long.
  static constexpr std::size_t LARGEST_SHORT_COST = dbus::BATCH;

  /// `threads`: how many; one runs the work of each client in the order given.
  explicit WorkPool(std::size_t threads);

  /// Gives `client`'s work, which costs as much as so many items, to the threads. `work` must not throw.
  void post(const std::string& client, std::size_t cost, std::function<void()> work);

  /// Gives the service's own work to the threads. It takes turns with the clients'. `work` must not throw.
  void postOwn(std::function<void()> work) { post({}, 1, std::move(work)); }

  /// To be called by work now and then, as often as it deals with some dozens of items: when it is long, runs the short
  /// work of a client whose turn it is on this thread. No lock may be held that other work takes.
  void giveWay();

  /// Runs what was given, then ends the threads. Once, at the end.
  void join();

  /// Begins no more work: what is running finishes, what is waiting is dropped. Does not wait.
  void requestStop();

  /// The same, then ends the threads. Once, instead of join().
  void stop();

  boost::asio::thread_pool& threads() { return threads_; }

 private:
  struct Work {
    std::function<void()> run;
    bool isLong = false;
  };

  void runNext();

  const std::size_t maxLong_;  // at once
  std::mutex lock_;            // guards what follows
  FairQueue<Work> waiting_;
  std::size_t longRunning_ = 0;
  boost::asio::thread_pool threads_;  // last: ends before what its threads use
};

}  // namespace vornet::service
