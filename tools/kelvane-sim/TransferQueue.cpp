#include "kelvane-sim/TransferQueue.hpp"

#include <algorithm>

namespace vornet::sim {

TransferQueue::TransferQueue(std::chrono::milliseconds duration, std::size_t parallel)
    : duration_(duration), parallel_(std::max<std::size_t>(parallel, 1)) {}

void TransferQueue::add(const std::string& path) {
  cancel(path);
  waiting_.emplace(nextTicket_, path);
  tickets_.emplace(path, nextTicket_);
  ++nextTicket_;
}

void TransferQueue::cancel(const std::string& path) {
  if (const auto ticket = tickets_.find(path); ticket != tickets_.end()) {
    waiting_.erase(ticket->second);
    tickets_.erase(ticket);
  }
  running_.erase(path);
}

std::vector<std::string> TransferQueue::finished(Clock::time_point now) {
  std::vector<std::string> done;
  for (auto it = running_.begin(); it != running_.end();) {
    if (it->second <= now) {
      done.push_back(it->first);
      it = running_.erase(it);
    } else {
      ++it;
    }
  }
  while (!waiting_.empty() && (running_.size() < parallel_ || duration_.count() <= 0)) {
    const auto next = waiting_.begin();
    if (duration_.count() <= 0)
      done.push_back(next->second);
    else
      running_.emplace(next->second, now + duration_);
    tickets_.erase(next->second);
    waiting_.erase(next);
  }
  return done;
}

std::optional<TransferQueue::Clock::time_point> TransferQueue::nextEnd() const {
  std::optional<Clock::time_point> end;
  for (const auto& [path, time] : running_) end = end ? std::min(*end, time) : time;
  return end;
}

}  // namespace vornet::sim
