#include "kelvane-sim/SyncRules.hpp"

#include <algorithm>
#include <cstddef>
#include <cstdint>

namespace vornet::sim {

bool isUtf8(std::string_view bytes) noexcept {
  for (std::size_t i = 0; i < bytes.size();) {
    const auto lead = static_cast<unsigned char>(bytes[i]);
    if (lead < 0x80) {
      ++i;
      continue;
    }
    const std::size_t length = lead >= 0xF0 ? 4 : lead >= 0xE0 ? 3 : 2;
    if (lead < 0xC2 || lead > 0xF4 || bytes.size() - i < length) return false;
    std::uint32_t value = lead & (0xFFU >> (length + 1));
    for (std::size_t k = 1; k < length; ++k) {
      const auto next = static_cast<unsigned char>(bytes[i + k]);
      if ((next & 0xC0) != 0x80) return false;
      value = (value << 6) | (next & 0x3FU);
    }
    const bool overlong = (length == 3 && value < 0x800) || (length == 4 && value < 0x10000);
    if (overlong || value > 0x10FFFF || (value >= 0xD800 && value <= 0xDFFF)) return false;
    i += length;
  }
  return true;
}

bool isSyncableName(std::string_view name) noexcept {
  constexpr std::size_t LONGEST_NAME = 255;
  constexpr std::string_view FORBIDDEN = "\\:*?\"<>|";
  if (name.empty() || name.size() > LONGEST_NAME) return false;
  if (name.back() == '.' || name.back() == ' ') return false;
  if (name.starts_with("~$") || name.ends_with(".tmp")) return false;
  return std::none_of(name.begin(), name.end(), [&](char c) {
    const auto byte = static_cast<unsigned char>(c);
    return byte < 0x20 || byte == 0x7F || FORBIDDEN.find(c) != std::string_view::npos;
  });
}

bool isSyncablePath(std::string_view path) noexcept {
  while (!path.empty()) {
    path.remove_prefix(1);
    const std::size_t end = std::min(path.find('/'), path.size());
    if (end > 0 && !isSyncableName(path.substr(0, end))) return false;
    path.remove_prefix(end);
  }
  return true;
}

}  // namespace vornet::sim
