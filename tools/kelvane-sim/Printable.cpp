#include "kelvane-sim/Printable.hpp"

namespace vornet::sim {

std::string printable(std::string_view text) {
  constexpr std::string_view DIGITS = "0123456789abcdef";
  std::string shown;
  shown.reserve(text.size());
  for (const char c : text) {
    const auto byte = static_cast<unsigned char>(c);
    if (byte >= 0x20 && byte != 0x7F) {
      shown += c;
      continue;
    }
    shown += "\\x";
    shown += DIGITS[byte >> 4];
    shown += DIGITS[byte & 0xF];
  }
  return shown;
}

}  // namespace vornet::sim
