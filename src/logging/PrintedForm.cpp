#include "logging/PrintedForm.hpp"

#include <cstdio>

namespace vornet {

std::string printedForm(std::string_view text) {
  std::string out = "\"";
  for (const char c : text) {
    const auto byte = static_cast<unsigned char>(c);
    switch (c) {
      case '"':
        out += "\\\"";
        break;
      case '\\':
        out += "\\\\";
        break;
      case '\n':
        out += "\\n";
        break;
      case '\r':
        out += "\\r";
        break;
      case '\t':
        out += "\\t";
        break;
      case '\0':
        out += "\\0";
        break;
      default:
        if (byte < 0x20 || byte == 0x7F) {
          char escaped[8];
          std::snprintf(escaped, sizeof escaped, "\\u{%02X}", byte);
          out += escaped;
        } else {
          out += c;
        }
    }
  }
  return out += '"';
}

std::string printedForm(const std::vector<std::string>& texts) {
  std::string out = "[";
  for (const auto& text : texts) out.append(out.size() > 1 ? ", " : "").append(printedForm(text));
  return out += ']';
}

std::string printedForm(const std::map<std::string, bool>& map) {
  if (map.empty()) return "[:]";
  std::string out = "[";
  for (const auto& [key, value] : map)
    out.append(out.size() > 1 ? ", " : "").append(printedForm(key)).append(value ? ": true" : ": false");
  return out += ']';
}

std::string printedBytes(std::string_view bytes) {
  static constexpr char digits[] = "0123456789abcdef";
  std::string out = "<";
  for (std::size_t i = 0; i < bytes.size(); ++i) {
    if (i > 0 && i % 4 == 0) out += ' ';
    const auto byte = static_cast<unsigned char>(bytes[i]);
    out += digits[byte >> 4];
    out += digits[byte & 0xF];
  }
  return out += '>';
}

}  // namespace vornet
