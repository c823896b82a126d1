#include "DisplayText.hpp"

#include <array>
#include <cstdio>
#include <vector>

#include "dbus/GLibPtr.hpp"

namespace vornet::vi {
namespace {

constexpr gunichar ZERO_WIDTH_NON_JOINER = 0x200C;
constexpr gunichar ZERO_WIDTH_JOINER = 0x200D;

/// The character that begins at `text`, and its length in bytes. A byte that is not UTF-8 has length 1 and no
/// character.
struct Decoded {
  gunichar character;
  std::size_t length;
  bool valid;
};

Decoded decode(std::string_view text) {
  const gunichar character = g_utf8_get_char_validated(text.data(), static_cast<gssize>(text.size()));
  // GLib takes an embedded NUL for the end of the text.
  if (character == static_cast<gunichar>(-1) || character == static_cast<gunichar>(-2))
    return {static_cast<unsigned char>(text.front()), 1, text.front() == '\0'};
  return {character, static_cast<std::size_t>(g_unichar_to_utf8(character, nullptr)), true};
}

bool isShown(gunichar character) {
  switch (g_unichar_type(character)) {
    case G_UNICODE_CONTROL:
    case G_UNICODE_FORMAT:
    case G_UNICODE_LINE_SEPARATOR:
    case G_UNICODE_PARAGRAPH_SEPARATOR:
    case G_UNICODE_SURROGATE:
    case G_UNICODE_UNASSIGNED:
    case G_UNICODE_PRIVATE_USE:
      return false;
    default:
      return true;
  }
}

std::size_t widthOf(gunichar character) {
  if (g_unichar_iszerowidth(character)) return 0;
  return g_unichar_iswide(character) ? 2 : 1;
}

void append(std::string& text, const char* format, unsigned value) {
  std::array<char, 16> buffer{};
  std::snprintf(buffer.data(), buffer.size(), format, value);
  text.append(buffer.data());
}

}  // namespace

std::string safeText(std::string_view raw, bool unicode) {
  std::string safe;
  safe.reserve(raw.size());
  bool joinable = false;  // the character before is one that a joiner or a combining mark may follow
  while (!raw.empty()) {
    const Decoded next = decode(raw);
    const std::string_view bytes = raw.substr(0, next.length);
    raw.remove_prefix(next.length);
    const bool isJoiner = next.character == ZERO_WIDTH_JOINER || next.character == ZERO_WIDTH_NON_JOINER;
    const bool isASCII = next.character < 0x80;
    if (!next.valid) {
      append(safe, "\\x%02x", next.character);
    } else if (next.character == '\n') {
      safe.append("\\n");
    } else if (next.character == '\t') {
      safe.append("\\t");
    } else if (next.character == '\r') {
      safe.append("\\r");
    } else if (next.character == 0x1B) {
      safe.append("\\e");
    } else if (next.character == '\\') {
      safe.append("\\\\");
    } else if (isASCII && (next.character < 0x20 || next.character == 0x7F)) {
      append(safe, "\\x%02x", next.character);
    } else if (isASCII) {
      safe.append(bytes);
      joinable = true;
      continue;
    } else if (unicode && isJoiner && joinable && !safe.empty() && (safe.back() & 0x80) != 0) {
      // Joins emoji and letters of scripts that need it; after ASCII it would only hide.
      safe.append(bytes);
      continue;
    } else if (unicode && isShown(next.character) && (joinable || widthOf(next.character) > 0)) {
      safe.append(bytes);
      joinable = true;
      continue;
    } else {
      append(safe, "\\u{%x}", next.character);
    }
    joinable = false;
  }
  return safe;
}

std::size_t displayWidth(std::string_view safe) {
  std::size_t width = 0;
  while (!safe.empty()) {
    const Decoded next = decode(safe);
    width += widthOf(next.character);
    safe.remove_prefix(next.length);
  }
  return width;
}

std::string elided(std::string_view safe, std::size_t columns, bool unicode) {
  if (displayWidth(safe) <= columns) return std::string(safe);
  const std::string_view mark = unicode ? "\u2026" : "...";
  const std::size_t markWidth = unicode ? 1 : 3;
  if (columns <= markWidth) return std::string(mark.substr(0, unicode && columns > 0 ? mark.size() : columns));

  // A cluster: a character with the combining ones that follow it.
  struct Cluster {
    std::string_view bytes;
    std::size_t width;
  };
  std::vector<Cluster> clusters;
  bool joining = false;
  for (std::string_view rest = safe; !rest.empty();) {
    const Decoded next = decode(rest);
    const std::size_t width = widthOf(next.character);
    if (!clusters.empty() && (width == 0 || joining)) {
      Cluster& last = clusters.back();
      last.bytes = {last.bytes.data(), last.bytes.size() + next.length};
      last.width += width;
    } else {
      clusters.push_back({rest.substr(0, next.length), width});
    }
    joining = next.character == ZERO_WIDTH_JOINER;
    rest.remove_prefix(next.length);
  }

  const std::size_t room = columns - markWidth;
  std::size_t left = 0;
  std::size_t headWidth = 0;
  while (left < clusters.size() && headWidth + clusters[left].width <= (room + 1) / 2)
    headWidth += clusters[left++].width;
  std::size_t right = clusters.size();
  std::size_t tailWidth = 0;
  while (right > left && headWidth + tailWidth + clusters[right - 1].width <= room)
    tailWidth += clusters[--right].width;
  std::string text;
  for (std::size_t i = 0; i < left; ++i) text.append(clusters[i].bytes);
  text.append(mark);
  for (std::size_t i = right; i < clusters.size(); ++i) text.append(clusters[i].bytes);
  return text;
}

std::string validUTF8(std::string_view raw) {
  const GCharPtr valid{g_utf8_make_valid(raw.data(), static_cast<gssize>(raw.size()))};
  return valid.get();
}

std::string printableJSON(std::string_view json) {
  std::string text;
  text.reserve(json.size());
  while (!json.empty()) {
    const Decoded next = decode(json);
    if (next.character != 0x7F && (next.character < 0x80 || (next.valid && isShown(next.character)))) {
      text.append(json.substr(0, next.length));
    } else if (next.character >= 0x10000) {
      append(text, "\\u%04x", 0xD800 + ((next.character - 0x10000) >> 10));
      append(text, "\\u%04x", 0xDC00 + ((next.character - 0x10000) & 0x3FF));
    } else {
      append(text, "\\u%04x", next.valid ? next.character : 0xFFFD);
    }
    json.remove_prefix(next.length);
  }
  return text;
}

bool localeIsUTF8() {
  return g_get_charset(nullptr) != FALSE;
}

}  // namespace vornet::vi
