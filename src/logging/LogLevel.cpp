#include "logging/LogLevel.hpp"

#include <array>

namespace vornet {

std::string_view description(LogLevel level) noexcept {
  static constexpr std::array<std::string_view, 7> names = {"Verbose", "Debug",  "Info", "Warning",
                                                            "Error",   "Severe", "None"};
  return names[static_cast<std::size_t>(rawValue(level))];
}

}  // namespace vornet
