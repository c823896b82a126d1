#pragma once

#include <algorithm>
#include <chrono>

namespace vornet::client {

/// The waits between attempts at something that keeps failing: `first`, doubled each time, `last` at most.
class Backoff {
 public:
  Backoff(std::chrono::milliseconds first, std::chrono::milliseconds last) : first_(first), last_(last), next_(first) {}

  /// The wait before the next attempt.
  std::chrono::milliseconds next() {
    const auto wait = std::min(next_, last_);
    next_ = wait * 2;
    return wait;
  }

  /// It has succeeded.
  void reset() { next_ = first_; }

  std::chrono::milliseconds last() const { return last_; }

 private:
  const std::chrono::milliseconds first_;
  const std::chrono::milliseconds last_;
  std::chrono::milliseconds next_;
};

}  // namespace vornet::client
