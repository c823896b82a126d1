#pragma once

#include <array>
#include <cstddef>
#include <functional>
#include <optional>
#include <string_view>

namespace vornet {

/// The severity of a log record, or the lowest severity that a destination takes. Ordered by raw value. `None` is an
/// output level only: it lets nothing through.
enum class LogLevel : int { Verbose = 0, Debug = 1, Info = 2, Warning = 3, Error = 4, Severe = 5, None = 6 };

constexpr int rawValue(LogLevel level) noexcept {
  return static_cast<int>(level);
}

/// The level with the raw value `raw`; none outside 0 to 6.
/// Kept ready; nothing calls it yet.
constexpr std::optional<LogLevel> logLevelWithRawValue(int raw) noexcept {
  if (raw < rawValue(LogLevel::Verbose) || raw > rawValue(LogLevel::None)) return std::nullopt;
  return static_cast<LogLevel>(raw);
}

/// The level's name in log lines: "Verbose", "Debug", "Info", "Warning", "Error", "Severe", "None".
inline std::string_view description(LogLevel level) noexcept {
  static constexpr std::array<std::string_view, 7> names = {"Verbose", "Debug",  "Info", "Warning",
                                                            "Error",   "Severe", "None"};
  return names[static_cast<std::size_t>(rawValue(level))];
}

}  // namespace vornet

template <>
struct std::hash<vornet::LogLevel> {
  std::size_t operator()(vornet::LogLevel level) const noexcept {
    return static_cast<std::size_t>(vornet::rawValue(level));
  }
};
