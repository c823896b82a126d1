#include "SharedThreads.hpp"

#include <algorithm>
#include <boost/asio/post.hpp>
#include <system_error>
#include <utility>

namespace vornet::service {

SharedThreads::SharedThreads(std::chrono::milliseconds idle) : idle_(idle) {
  const std::lock_guard guard(lock_);  // the thread may already be idle
  threads_.emplace_back([this] { work(); });
}

void SharedThreads::run(std::function<void()> work) {
  const std::lock_guard guard(lock_);
  if (stopped_) return;
  ++busy_;
  startAnotherIfNeeded();
  boost::asio::post(context_, [this, work = std::move(work)] {
    work();
    const std::lock_guard finished(lock_);
    --busy_;
  });
}

/// So that one waits while the others work. With the lock held.
void SharedThreads::startAnotherIfNeeded() {
  for (auto& thread : ended_) thread.join();
  ended_.clear();
  if (busy_ < threads_.size()) return;
  try {
    threads_.emplace_back([this] { this->work(); });
  } catch (const std::system_error&) {
    // The work waits for a thread that there is.
  }
}

void SharedThreads::work() {
  while (true) {
    while (context_.run_one_for(idle_) > 0) continue;
    if (mayEnd()) return;
    context_.run_one();  // without waking up: no other thread waits
  }
}

/// True if this thread has to end; it is then no longer counted.
bool SharedThreads::mayEnd() {
  const std::lock_guard guard(lock_);
  if (stopped_) return true;
  if (busy_ + 1 >= threads_.size()) return false;
  const auto own = std::find_if(threads_.begin(), threads_.end(),
                                [](const auto& thread) { return thread.get_id() == std::this_thread::get_id(); });
  ended_.splice(ended_.end(), threads_, own);
  return true;
}

std::size_t SharedThreads::count() const {
  const std::lock_guard guard(lock_);
  return threads_.size();
}

void SharedThreads::stop() {
  {
    const std::lock_guard guard(lock_);
    stopped_ = true;
    context_.stop();
  }
  // Nobody changes the lists any more.
  for (auto* threads : {&threads_, &ended_}) {
    for (auto& thread : *threads) thread.join();
    threads->clear();
  }
}

}  // namespace vornet::service
