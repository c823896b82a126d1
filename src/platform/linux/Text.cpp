#include <unicode/utf8.h>

#include <cstring>

#include "platform/Foundation.hpp"

namespace vornet::platform {

bool isValidUTF8(std::string_view bytes) noexcept {
  const auto* text = reinterpret_cast<const std::uint8_t*>(bytes.data());
  for (std::size_t i = 0; i < bytes.size();) {
    // Most text is ASCII, and eight bytes of it are as quickly seen as one.
    if (std::uint64_t eight; bytes.size() - i >= sizeof eight) {
      std::memcpy(&eight, text + i, sizeof eight);
      if ((eight & 0x8080808080808080U) == 0) {
        i += sizeof eight;
        continue;
      }
    }
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
