#include "WorkPool.hpp"

#include <algorithm>
#include <utility>

namespace vornet::service {
namespace {

// True while this thread runs long work, and no other within it.
thread_local bool mayGiveWay = false;

}  // namespace

WorkPool::WorkPool(SharedThreads& threads, std::size_t most)
    : threads_(threads), most_(most), maxLong_(std::max<std::size_t>(1, most - 1)) {}

void WorkPool::post(const std::string& client, std::size_t cost, std::function<void()> work) {
  {
    const std::lock_guard guard(lock_);
    if (stopped_) return;
    waiting_.add(client, cost, {std::move(work), cost > LARGEST_SHORT_COST});
    if (running_ == most_) return;
    ++running_;
  }
  threads_.run([this] { runAll(); });
}

/// Runs work as long as there is some that this thread may take.
void WorkPool::runAll() {
  std::unique_lock guard(lock_);
  while (auto work = next()) {
    if (work->isLong) ++longRunning_;
    guard.unlock();
    mayGiveWay = work->isLong;
    work->run();
    mayGiveWay = false;
    work->run = nullptr;  // without the lock: what it holds goes with it
    guard.lock();
    if (work->isLong) --longRunning_;
  }
  if (--running_ == 0) idle_.notify_all();
}

/// The work whose turn it is. Long work that finds no thread waits for the end of other long work. With the lock held.
std::optional<WorkPool::Work> WorkPool::next() {
  if (stopped_) return std::nullopt;
  return waiting_.take(
      [this](const std::string&, const Work& work) { return !work.isLong || longRunning_ < maxLong_; });
}

void WorkPool::giveWay() {
  if (!mayGiveWay) return;
  std::optional<Work> work;
  {
    const std::lock_guard guard(lock_);
    if (stopped_) return;
    // Not the service's own work, which may rely on being the only one on its thread.
    work = waiting_.take([](const std::string& client, const Work& next) { return !client.empty() && !next.isLong; });
  }
  if (!work) return;
  mayGiveWay = false;
  work->run();
  mayGiveWay = true;
}

void WorkPool::join() {
  std::unique_lock guard(lock_);
  idle_.wait(guard, [this] { return running_ == 0; });
}

void WorkPool::requestStop() {
  const std::lock_guard guard(lock_);
  stopped_ = true;
}

void WorkPool::stop() {
  requestStop();
  join();
}

}  // namespace vornet::service
