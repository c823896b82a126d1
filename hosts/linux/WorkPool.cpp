#include "WorkPool.hpp"

#include <boost/asio/post.hpp>

namespace vornet::host {

WorkPool::WorkPool(std::size_t threads, std::size_t limit) : threads_(threads), limit_(limit) {}

bool WorkPool::post(std::function<void()> work) {
  if (waiting_.fetch_add(1) >= limit_) {
    --waiting_;
    return false;
  }
  boost::asio::post(threads_, [this, work = std::move(work)] {
    work();
    --waiting_;
  });
  return true;
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

}  // namespace vornet::host
