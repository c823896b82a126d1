#include "logging/PrintedForm.hpp"

#include <gtest/gtest.h>

namespace vornet {
namespace {

using namespace std::string_view_literals;

TEST(PrintedForm, QuotesTextOfAllLanguages) {
  EXPECT_EQ(printedForm("/home/ann"sv), "\"/home/ann\"");
  EXPECT_EQ(printedForm(""sv), "\"\"");
  EXPECT_EQ(printedForm("Ünïcode 日本 🙂"sv), "\"Ünïcode 日本 🙂\"");
}

TEST(PrintedForm, EscapesQuotesBackslashesAndControls) {
  EXPECT_EQ(printedForm("a\"b\\c"sv), R"("a\"b\\c")");
  EXPECT_EQ(printedForm("\n\r\t\0"sv), R"("\n\r\t\0")");
  EXPECT_EQ(printedForm("\x1B\x7F"sv), R"("\u{1B}\u{7F}")");
}

TEST(PrintedForm, ShowsLists) {
  EXPECT_EQ(printedForm(std::vector<std::string>{}), "[]");
  EXPECT_EQ(printedForm(std::vector<std::string>{"/a"}), "[\"/a\"]");
  EXPECT_EQ(printedForm(std::vector<std::string>{"/a", "/b"}), "[\"/a\", \"/b\"]");
}

TEST(PrintedForm, ShowsMaps) {
  EXPECT_EQ(printedForm(std::map<std::string, bool>{}), "[:]");
  EXPECT_EQ(printedForm(std::map<std::string, bool>{{"3", false}, {"1", true}}), "[\"1\": true, \"3\": false]");
}

TEST(PrintedForm, ShowsBytesInGroupsOfFour) {
  EXPECT_EQ(printedBytes(""), "<>");
  EXPECT_EQ(printedBytes("\0\xFF"sv), "<00ff>");
  EXPECT_EQ(printedBytes("{\"1\""), "<7b223122>");
  EXPECT_EQ(printedBytes("{\"1\":true}"), "<7b223122 3a747275 657d>");
}

}  // namespace
}  // namespace vornet
