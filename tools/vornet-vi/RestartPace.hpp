#pragma once

#include <chrono>
#include <cstddef>

namespace vornet::vi {

/// How soon the extension may be called back after it left the bus: at once the first time, then later and later, so
/// that one that ends as soon as it is started is not started in a loop. Not thread-safe.
class RestartPace {
 public:
  using Clock = std::chrono::steady_clock;

  /// After so long a life the next end counts as the first again.
  static constexpr std::chrono::seconds STEADY{30};
  static constexpr std::chrono::seconds LONGEST{30};

  /// The extension answered at `now`.
  void answered(Clock::time_point now);
  /// It left, or an attempt to call it back failed, at `now`: the delay until the next attempt.
  std::chrono::milliseconds delay(Clock::time_point now);

 private:
  std::size_t ends_ = 0;
  Clock::time_point answeredAt_{};
  bool alive_ = false;
};

}  // namespace vornet::vi
