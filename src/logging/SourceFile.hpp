#pragma once

#include <string_view>

namespace vornet {

/// A source file's path as log records carry it: without extension, because a source file's name is what a reader of
/// the log looks for ("src/logging/Logging.cpp" -> "src/logging/Logging"). For __FILE__.
constexpr std::string_view sourceFile(std::string_view file) noexcept {
  const std::size_t name = file.find_last_of('/') + 1;
  const std::size_t dot = file.find_last_of('.');
  return dot == std::string_view::npos || dot <= name ? file : file.substr(0, dot);
}

}  // namespace vornet
