#include "kelvane-sim/Fault.hpp"

#include <algorithm>
#include <charconv>
#include <cmath>

namespace vornet::sim {

std::optional<FaultRequest> parseFault(std::string_view text) {
  FaultRequest request;
  if (const auto colon = text.find(':'); colon != std::string_view::npos) {
    constexpr double LONGEST_SECONDS = 1e6;
    const std::string_view digits = text.substr(colon + 1);
    double seconds = 0;
    const auto [end, error] = std::from_chars(digits.data(), digits.data() + digits.size(), seconds);
    if (error != std::errc() || end != digits.data() + digits.size()) return std::nullopt;
    if (!(seconds >= 0.001 && seconds <= LONGEST_SECONDS)) return std::nullopt;
    request.duration = std::chrono::milliseconds(std::llround(seconds * 1000));
    text = text.substr(0, colon);
  }
  const auto found =
      std::find_if(FAULT_NAMES.begin(), FAULT_NAMES.end(), [&](const FaultName& f) { return f.name == text; });
  if (found == FAULT_NAMES.end()) return std::nullopt;
  request.fault = found->fault;
  return request;
}

}  // namespace vornet::sim
