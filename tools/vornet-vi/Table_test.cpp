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

}  // namespace
}  // namespace vornet::vi
