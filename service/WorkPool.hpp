#pragma once

#include <atomic>
#include <condition_variable>
#include <cstddef>
#include <functional>
#include <mutex>
#include <optional>
#include <string>

#include "FairQueue.hpp"
#include "SharedThreads.hpp"
#include "dbus/Interface.hpp"

namespace vornet::service {

/// Work of one kind, which may block: never more at once than a bound, and never waiting for work of another pool.
/// Clients take turns by what their work costs, and long work never takes the last thread. Nothing is refused: CallGate
/// bounds what clients give. Any thread may give work.
class WorkPool {
 public:
  /// Work that costs more is long.
  static constexpr std::size_t LARGEST_SHORT_COST = dbus::BATCH;

  /// `most`: how many threads may run its work; one runs the work of each client in the order given. `threads` outlives
  /// this object, and is stopped after it.
  WorkPool(SharedThreads& threads, std::size_t most);

  /// Gives `client`'s work, which costs as much as so many items, to the threads. `work` must not throw.
  void post(const std::string& client, std::size_t cost, std::function<void()> work);

  /// Gives the service's own work to the threads. It takes turns with the clients'. `work` must not throw.
  void postOwn(std::function<void()> work) { post({}, 1, std::move(work)); }

  /// To be called by work after every few dozen items: if it is long, runs the short work of a client whose turn it is
  /// on this thread. The caller must not hold a lock that other work takes.
  void giveWay();

  /// Waits until all that was given has run.
  void join();

  /// Begins no more work, and does not wait. Work that is waiting, or is given later, is dropped. Running work goes on,
  /// or asks isStopping() and gives up.
  void requestStop();

  /// True once it has been asked to stop. Work of many items should ask after every few dozen, and give up then.
  bool isStopping() const { return stopped_; }

  /// The same, and waits for what is running.
  void stop();

  /// For timers, whose handlers should give their work to this pool.
  boost::asio::io_context& threads() { return threads_.timers(); }

 private:
  struct Work {
    std::function<void()> run;
    bool isLong = false;
  };

  void runAll();
  std::optional<Work> next();

  SharedThreads& threads_;
  const std::size_t most_;
  const std::size_t maxLong_;     // at once
  std::mutex lock_;               // guards what follows
  std::condition_variable idle_;  // no thread runs its work
  FairQueue<Work> waiting_;
  std::size_t running_ = 0;  // threads
  std::size_t longRunning_ = 0;
  std::atomic<bool> stopped_ = false;  // changed with the lock held, read without it, too
};

}  // namespace vornet::service
