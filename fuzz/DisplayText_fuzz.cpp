// Names of any bytes: their display text controls no terminal, hides nothing, differs from that of every other name,
// and has the reported width.
#include <glib.h>

#include <boost/json.hpp>
#include <cstdint>
#include <string>

#include "support/Require.hpp"
#include "vornet-vi/DisplayText.hpp"

namespace vornet::fuzz {
namespace {

bool isUTF8(std::string_view text) {
  return g_utf8_validate_len(text.data(), text.size(), nullptr) != FALSE;
}

/// The characters of UTF-8 text.
std::u32string charactersOf(std::string_view text) {
  std::u32string characters;
  for (const char* at = text.data(); at < text.data() + text.size(); at = g_utf8_next_char(at))
    characters += static_cast<char32_t>(g_utf8_get_char(at));
  return characters;
}

bool drivesATerminal(char32_t character) {
  return character < 0x20 || (character >= 0x7F && character < 0xA0);
}

/// Draws nothing, or turns the direction of what follows. Joiners are judged by those who call this.
bool hides(char32_t character) {
  return character == 0xAD || character == 0x200B || character == 0x200E || character == 0x200F ||
         (character >= 0x2028 && character <= 0x202E) || (character >= 0x2060 && character <= 0x206F) ||
         character == 0xFEFF || (character >= 0xE0000 && character <= 0xE007F);
}

/// The bytes that `safe` represents.
std::string unescaped(std::string_view safe) {
  std::string raw;
  for (std::size_t at = 0; at < safe.size(); ++at) {
    if (safe[at] != '\\') {
      raw += safe[at];
      continue;
    }
    require(++at < safe.size(), "no escape is cut");
    std::size_t end = at + 1;
    const auto hexadecimal = [&] {
      return static_cast<gunichar>(std::stoul(std::string(safe.substr(at, end - at)), nullptr, 16));
    };
    switch (safe[at]) {
      case 'n':
        raw += '\n';
        break;
      case 't':
        raw += '\t';
        break;
      case 'r':
        raw += '\r';
        break;
      case 'e':
        raw += '\x1b';
        break;
      case '\\':
        raw += '\\';
        break;
      case 'x':
        end = ++at + 2;
        require(end <= safe.size(), "an escaped byte has two digits");
        raw += static_cast<char>(hexadecimal());
        at = end - 1;
        break;
      case 'u': {
        at += 2;
        end = safe.find('}', at);
        require(end != std::string_view::npos, "an escaped character ends");
        char bytes[6];
        raw.append(bytes, static_cast<std::size_t>(g_unichar_to_utf8(hexadecimal(), bytes)));
        at = end;
        break;
      }
      default:
        require(false, "an escape is known");
    }
  }
  return raw;
}

std::size_t widthOf(std::u32string_view characters) {
  std::size_t width = 0;
  for (const char32_t c : characters) width += g_unichar_iszerowidth(c) ? 0 : g_unichar_iswide(c) ? 2 : 1;
  return width;
}

bool continuesCluster(char32_t before, char32_t character) {
  return g_unichar_iszerowidth(character) || before == 0x200D;
}

void checkSafeText(std::string_view raw, const std::string& safe, bool unicode) {
  require(isUTF8(safe), "safe text is UTF-8");
  const auto characters = charactersOf(safe);
  for (const char32_t c : characters) {
    require(!drivesATerminal(c), "no control character is shown");
    require(!hides(c), "nothing invisible is shown");
    if (!unicode) require(c < 0x80, "where the locale has no UTF-8, only ASCII is shown");
  }
  require(unescaped(safe) == raw, "safe text says which bytes it represents");
  require(vi::displayWidth(safe) == widthOf(characters), "the width is that of the characters");
}

void checkElided(const std::string& safe, std::size_t columns, bool unicode) {
  const std::string text = vi::elided(safe, columns, unicode);
  require(isUTF8(text), "no character is split");
  require(vi::displayWidth(text) <= columns, "no more columns than there are");
  if (vi::displayWidth(safe) <= columns) {
    require(text == safe, "what fits is not cut");
    return;
  }
  const auto all = charactersOf(safe);
  const auto shown = charactersOf(text);
  const std::u32string mark = unicode ? U"\u2026" : U"...";
  if (columns <= mark.size()) {
    require(shown == mark.substr(0, columns), "in no room there is only the mark");
    return;
  }
  // The mark's place is not known where the text holds the same characters: any that fits will do.
  bool fits = false;
  for (std::size_t at = shown.find(mark); at != std::u32string::npos && !fits; at = shown.find(mark, at + 1)) {
    const auto head = shown.substr(0, at);
    const auto tail = shown.substr(at + mark.size());
    if (head.size() + tail.size() >= all.size() || !all.starts_with(head) || !all.ends_with(tail)) continue;
    const std::size_t tailAt = all.size() - tail.size();
    const bool headIsWhole = head.empty() || !continuesCluster(all[head.size() - 1], all[head.size()]);
    const bool tailIsWhole = tail.empty() || !continuesCluster(all[tailAt - 1], all[tailAt]);
    fits = headIsWhole && tailIsWhole;
  }
  require(fits, "the beginning and the end are shown, and no mark is parted from its base");
}

void checkPrintableJSON(std::string_view raw) {
  boost::json::error_code error;
  const auto given = boost::json::parse({raw.data(), raw.size()}, error);
  if (error) return;
  const std::string json = boost::json::serialize(given);
  const auto value = boost::json::parse(json, error);
  if (error) return;  // a number beyond every double
  const std::string printable = vi::printableJSON(json);
  require(isUTF8(printable), "printable JSON is UTF-8");
  for (const char32_t c : charactersOf(printable))
    require(!drivesATerminal(c) && !hides(c), "printable JSON shows nothing else");
  require(boost::json::parse(printable) == value, "printable JSON says the same");
}

void check(std::string_view raw, std::size_t columns, bool unicode) {
  const std::string safe = vi::safeText(raw, unicode);
  checkSafeText(raw, safe, unicode);
  checkElided(safe, columns, unicode);
  const std::string valid = vi::validUTF8(raw);
  require(isUTF8(valid), "what is made UTF-8 is UTF-8");
  if (isUTF8(raw)) require(valid == raw, "UTF-8 stays as it is");
  checkPrintableJSON(raw);
}

}  // namespace
}  // namespace vornet::fuzz

/// An input: a byte whose lowest bit says that the locale has UTF-8 and whose others are the columns, then the name.
extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  if (size == 0) return 0;
  vornet::fuzz::check({reinterpret_cast<const char*>(data) + 1, size - 1}, *data / 2, *data % 2 != 0);
  return 0;
}
