#include <unicode/utf8.h>

#include "platform/Foundation.hpp"

namespace vornet::platform {

bool isValidUTF8(std::string_view bytes) noexcept {
  const auto* text = reinterpret_cast<const std::uint8_t*>(bytes.data());
  for (std::size_t i = 0; i < bytes.size();) {
    if (text[i] < 0x80) {
      ++i;
      continue;
    }
    UChar32 character = 0;
    U8_NEXT(text, i, bytes.size(), character);
    if (character < 0) return false;
  }
  return true;
}

}  // namespace vornet::platform
