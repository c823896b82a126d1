#pragma once

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <map>
#include <optional>
#include <string>
#include <unordered_map>
#include <vector>

namespace vornet::sim {

/// The simulated transfers: files wait in the order they came, a limited number is under way at a time, and each takes
/// the same time. Not thread-safe: the owner serialises access. The caller tells the time.
class TransferQueue {
 public:
  using Clock = std::chrono::steady_clock;

  /// `duration`: of one transfer; zero lets every waiting file finish at once. `parallel`: how many run together, at
  /// least 1.
  TransferQueue(std::chrono::milliseconds duration, std::size_t parallel);

  /// Puts `path` at the end of the queue; a transfer of it that waits or runs starts again.
  void add(const std::string& path);

  /// Forgets `path`, if it is there.
  void cancel(const std::string& path);

  /// Starts what can start at `now` and returns the files whose transfer is finished by then.
  std::vector<std::string> finished(Clock::time_point now);

  /// When the next transfer ends; none when nothing runs. Call after `finished`.
  std::optional<Clock::time_point> nextEnd() const;

  bool empty() const noexcept { return waiting_.empty() && running_.empty(); }

 private:
  std::chrono::milliseconds duration_;
  std::size_t parallel_;
  std::uint64_t nextTicket_ = 0;
  std::map<std::uint64_t, std::string> waiting_;
  std::unordered_map<std::string, std::uint64_t> tickets_;
  std::unordered_map<std::string, Clock::time_point> running_;
};

}  // namespace vornet::sim
