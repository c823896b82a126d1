#include "Table.hpp"

#include <gtest/gtest.h>

namespace vornet::vi {
namespace {

using Align = Table::Align;

TEST(TableTest, AlignsByDisplayWidth) {
  Table table({{Align::left}, {Align::right}, {Align::left}});
  table.addRow({{"報告"}, {"1"}, {"x"}});
  table.addRow({{"e\u0301"}, {"100"}, {"y"}});
  EXPECT_EQ(table.text({}),
            "報告    1  x\n"
            "e\u0301     100  y\n");
}

TEST(TableTest, LeavesNoSpacesAtTheEndOfALine) {
  Table table({{Align::left}, {Align::left}});
  table.addRow({{"a"}, {""}});
  table.addRow({{"abc"}, {"d"}});
  EXPECT_EQ(table.text({}), "a\nabc  d\n");
}

TEST(TableTest, KeepsEmptyFirstCellsAligned) {
  Table table({{Align::left}, {Align::left}});
  table.addRow({{""}, {"b"}});
  table.addRow({{"a"}, {"c"}});
  EXPECT_EQ(table.text({}), "   b\na  c\n");
}

TEST(TableTest, ElidesTheLastColumnToFitTheWidth) {
  Table table({{Align::left}, {Align::left}});
  table.addRow({{"file"}, {"0123456789012345678901234567890"}});
  Look look;
  look.unicode = true;
  look.width = 20;
  EXPECT_EQ(table.text(look), "file  0123456…567890\n");
}

TEST(TableTest, LeavesOutColumnsThatCanBeSparedBeforeItElides) {
  Table table({{Align::left}, {Align::left, true}, {Align::right, true}, {Align::left}});
  table.addRow({{"ok"}, {"file"}, {"12"}, {"0123456789"}});
  table.addRow({{"bad"}, {"folder"}, {""}, {"x"}});
  Look look;
  look.unicode = true;
  look.width = 27;
  EXPECT_EQ(table.text(look), "ok   file    12  0123456789\nbad  folder      x\n");
  look.width = 26;
  EXPECT_EQ(table.text(look), "ok   12  0123456789\nbad      x\n");
  look.width = 18;
  EXPECT_EQ(table.text(look), "ok   0123456789\nbad  x\n");
  look.width = 14;
  EXPECT_EQ(table.text(look), "ok   0123…6789\nbad  x\n");
}

TEST(TableTest, ColoursTextButNotThePadding) {
  Table table({{Align::left}, {Align::left}});
  table.addRow({{"ab", Tint::good}, {"x", Tint::plain}});
  table.addRow({{"abcd", Tint::bad}, {"y", Tint::strong}});
  Look look;
  look.colour = true;
  EXPECT_EQ(table.text(look), "\x1b[32mab\x1b[0m    x\n\x1b[31mabcd\x1b[0m  \x1b[1my\x1b[0m\n");
  look.colour = false;
  EXPECT_EQ(table.text(look), "ab    x\nabcd  y\n");
}

}  // namespace
}  // namespace vornet::vi
