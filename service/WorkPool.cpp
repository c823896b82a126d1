#include "WorkPool.hpp"

#include <algorithm>
#include <boost/asio/post.hpp>

namespace vornet::service {
namespace {

// Whether this thread runs long work, and no other within it.
thread_local bool mayGiveWay = false;

}  // namespace

WorkPool::WorkPool(std::size_t threads) : maxLong_(std::max<std::size_t>(1, threads - 1)), threads_(threads) {}

void WorkPool::post(const std::string& client, std::size_t cost, std::function<void()> work) {
  {
    const std::lock_guard guard(lock_);
    waiting_.add(client, cost, {std::move(work), cost > LARGEST_SHORT_COST});
  }
  boost::asio::post(threads_, [this] { runNext(); });
}

/// Runs what has its turn. Long work that finds no thread waits for the end of other long work, which runs the next.
void WorkPool::runNext() {
  std::optional<Work> work;
  {
    const std::lock_guard guard(lock_);
    work =
        waiting_.take([this](const std::string&, const Work& next) { return !next.isLong || longRunning_ < maxLong_; });
    if (!work) return;
    if (work->isLong) ++longRunning_;
  }
  mayGiveWay = work->isLong;
  work->run();
  mayGiveWay = false;
  if (!work->isLong) return;
  {
    const std::lock_guard guard(lock_);
    --longRunning_;
  }
  boost::asio::post(threads_, [this] { runNext(); });
}

void WorkPool::giveWay() {
  if (!mayGiveWay) return;
  std::optional<Work> work;
  {
    const std::lock_guard guard(lock_);
    // Not the service's own work, which may rely on being the only one on its thread.
    work = waiting_.take([](const std::string& client, const Work& next) { return !client.empty() && !next.isLong; });
  }
  if (!work) return;
  mayGiveWay = false;
  work->run();
  mayGiveWay = true;
}

void WorkPool::join() {
  threads_.join();
}

void WorkPool::requestStop() {
  threads_.stop();
}

void WorkPool::stop() {
  requestStop();
  threads_.join();
}

}  // namespace vornet::service
