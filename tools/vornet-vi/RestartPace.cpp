#include "RestartPace.hpp"

#include <algorithm>

namespace vornet::vi {

void RestartPace::answered(Clock::time_point now) {
  alive_ = true;
  answeredAt_ = now;
}

std::chrono::milliseconds RestartPace::delay(Clock::time_point now) {
  if (alive_ && now - answeredAt_ >= STEADY) {
    ends_ = 0;
  }
  alive_ = false;
  const std::size_t end = ends_++;
  if (end == 0) {
    return std::chrono::milliseconds{0};
  }
  return std::min<std::chrono::milliseconds>(std::chrono::seconds{1} * (1U << std::min<std::size_t>(end - 1, 5)),
                                             LONGEST);
}

}  // namespace vornet::vi
