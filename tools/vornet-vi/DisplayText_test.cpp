#include "DisplayText.hpp"

#include <gtest/gtest.h>

namespace vornet::vi {
namespace {

struct Escaping {
  const char* name;
  std::string_view raw;
  const char* safe;
  bool unicode = true;

  friend void PrintTo(const Escaping& row, std::ostream* out) { *out << row.name; }
};

class SafeTextTest : public testing::TestWithParam<Escaping> {};

TEST_P(SafeTextTest, IsSafeForATerminal) {
  EXPECT_EQ(safeText(GetParam().raw, GetParam().unicode), GetParam().safe);
}

using namespace std::string_view_literals;

INSTANTIATE_TEST_SUITE_P(
    , SafeTextTest,
    testing::Values(Escaping{"LeavesPrintableTextAsItIs", "Räksmörgås 報告 😀 [a] 'b'", "Räksmörgås 報告 😀 [a] 'b'"},
                    Escaping{"EscapesControlCharacters", "a\nb\tc\rd\x1b[31me\x7f\x01",
                             "a\\nb\\tc\\rd\\e[31me\\x7f\\x01"},
                    Escaping{"EscapesAControlCharacterBeyondASCII", "\u009B31m", "\\u{9b}31m"},
                    Escaping{"EscapesANullByte", "a\0b"sv, "a\\x00b"},
                    Escaping{"EscapesAByteThatIsNotUTF8", "caf\xE9.txt", "caf\\xe9.txt"},
                    Escaping{"EscapesSeveralSuchBytesOneByOne", "\xFF\xC3", "\\xff\\xc3"},
                    Escaping{"EscapesASurrogate", "\xED\xA0\x80", "\\xed\\xa0\\x80"},
                    Escaping{"EscapesABackslashSoThatEscapesAreNotMistaken", "a\\nb", "a\\\\nb"},
                    Escaping{"EscapesWhatTurnsText", "a\u202Egpj.exe", "a\\u{202e}gpj.exe"},
                    Escaping{"EscapesWhatHidesText", "a\u200Bb\u2028c\uFEFF", "a\\u{200b}b\\u{2028}c\\u{feff}"},
                    Escaping{"EscapesAJoinerBetweenLetters", "a\u200Db", "a\\u{200d}b"},
                    Escaping{"KeepsJoinersBetweenEmoji", "\U0001F468\u200D\U0001F469", "\U0001F468\u200D\U0001F469"},
                    Escaping{"EscapesACombiningMarkThatHasNoBase", "\u0301a", "\\u{301}a"},
                    Escaping{"KeepsACombiningMarkOnItsBase", "e\u0301", "e\u0301"},
                    Escaping{"IsASCIIAloneWhereTheLocaleIsNotUTF8", "é報\xFF-a", "\\u{e9}\\u{5831}\\xff-a", false}),
    [](const auto& row) { return row.param.name; });

TEST(DisplayTextTest, MeasuresColumnsNotBytes) {
  EXPECT_EQ(displayWidth("abc"), 3U);
  EXPECT_EQ(displayWidth("é"), 1U);
  EXPECT_EQ(displayWidth("e\u0301"), 1U);
  EXPECT_EQ(displayWidth("報告"), 4U);
  EXPECT_EQ(displayWidth("😀"), 2U);
}

TEST(DisplayTextTest, ElidesTheMiddleAndKeepsTheEnding) {
  EXPECT_EQ(elided("short.txt", 9, true), "short.txt");
  EXPECT_EQ(elided("a-very-long-name.txt", 11, true), "a-ver…e.txt");
  EXPECT_EQ(elided("a-very-long-name.txt", 11, false), "a-ve....txt");
}

TEST(DisplayTextTest, NeverExceedsTheColumnsNorSeparatesAMarkFromItsBase) {
  const std::string name = "e\u0301報告e\u0301報告e\u0301報告e\u0301報告e\u0301";
  for (std::size_t columns = 0; columns <= displayWidth(name); ++columns) {
    for (const bool unicode : {true, false}) {
      const std::string text = elided(name, columns, unicode);
      EXPECT_LE(displayWidth(text), columns);
      if (unicode) {
        // Cut at a wrong place, an "e" would have lost its accent, or an accent its "e".
        EXPECT_EQ(safeText(text, true), text);
        for (std::size_t at = text.find('e'); at != std::string::npos; at = text.find('e', at + 1))
          EXPECT_EQ(text.substr(at, 3), "e\u0301");
      }
    }
  }
}

TEST(DisplayTextTest, MakesUTF8OfAnyBytes) {
  EXPECT_EQ(validUTF8("caf\xE9"), "caf\uFFFD");
}

TEST(DisplayTextTest, ShowsJSONWithoutUnprintableCharacters) {
  EXPECT_EQ(printableJSON("{\"a\":\"é\u202E\x7F\"}"), "{\"a\":\"é\\u202e\\u007f\"}");
  EXPECT_EQ(printableJSON("\"\U000E0041\""), "\"\\udb40\\udc41\"");
}

}  // namespace
}  // namespace vornet::vi
