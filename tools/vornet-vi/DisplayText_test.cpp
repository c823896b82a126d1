#include "DisplayText.hpp"

#include <gtest/gtest.h>

namespace vornet::vi {
namespace {

TEST(DisplayTextTest, LeavesPrintableTextAsItIs) {
  EXPECT_EQ(safeText("Räksmörgås 報告 😀 [a] 'b'", true), "Räksmörgås 報告 😀 [a] 'b'");
}

TEST(DisplayTextTest, EscapesEverythingThatCouldDriveATerminal) {
  EXPECT_EQ(safeText("a\nb\tc\rd\x1b[31me\x7f\x01", true), "a\\nb\\tc\\rd\\e[31me\\x7f\\x01");
  EXPECT_EQ(safeText("\xC2\x9B"
                     "31m",
                     true),
            "\\u{9b}31m");  // a control character beyond ASCII
  EXPECT_EQ(safeText(std::string_view("a\0b", 3), true), "a\\x00b");
}

TEST(DisplayTextTest, EscapesBytesThatAreNotUTF8OneByOne) {
  EXPECT_EQ(safeText("caf\xE9.txt", true), "caf\\xe9.txt");
  EXPECT_EQ(safeText("\xFF\xC3", true), "\\xff\\xc3");
  EXPECT_EQ(safeText("\xED\xA0\x80", true), "\\xed\\xa0\\x80");  // a surrogate
}

TEST(DisplayTextTest, EscapesABackslashSoThatEscapesAreNotMistaken) {
  EXPECT_EQ(safeText("a\\nb", true), "a\\\\nb");
}

TEST(DisplayTextTest, EscapesWhatHidesOrTurnsText) {
  EXPECT_EQ(safeText("a\u202Egpj.exe", true), "a\\u{202e}gpj.exe");
  EXPECT_EQ(safeText("a\u200Bb\u2028c\uFEFF", true), "a\\u{200b}b\\u{2028}c\\u{feff}");
  EXPECT_EQ(safeText("a\u200Db", true), "a\\u{200d}b");
}

TEST(DisplayTextTest, KeepsJoinersBetweenEmoji) {
  const std::string family = "\U0001F468\u200D\U0001F469";
  EXPECT_EQ(safeText(family, true), family);
}

TEST(DisplayTextTest, EscapesACombiningMarkThatHasNoBase) {
  EXPECT_EQ(safeText("\u0301a", true), "\\u{301}a");
  EXPECT_EQ(safeText("e\u0301", true), "e\u0301");
}

TEST(DisplayTextTest, IsASCIIAloneWhereTheLocaleIsNotUTF8) {
  EXPECT_EQ(safeText("é報\xFF"
                     "a",
                     false),
            "\\u{e9}\\u{5831}\\xffa");
}

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
