#include "Table.hpp"

#include <algorithm>
#include <utility>

#include "DisplayText.hpp"

namespace vornet::vi {
namespace {

constexpr std::size_t GAP = 2;
constexpr std::size_t NARROWEST_LAST = 8;

const char* codeOf(Tint tint) {
  // Colours that dark and light grounds both show; the words say the same without them.
  switch (tint) {
    case Tint::good:
      return "\x1b[32m";
    case Tint::busy:
      return "\x1b[36m";
    case Tint::bad:
      return "\x1b[31m";
    case Tint::strong:
      return "\x1b[1m";
    case Tint::faint:
      return "\x1b[2m";
    case Tint::plain:
      break;
  }
  return "";
}

}  // namespace

std::string tinted(std::string_view safe, Tint tint, const Look& look) {
  if (!look.colour || tint == Tint::plain || safe.empty()) {
    return std::string{safe};
  }
  return std::string{codeOf(tint)}.append(safe).append("\x1b[0m");
}

Table::Table(std::vector<Align> columns) : columns_(std::move(columns)) {}

void Table::addRow(std::vector<Cell> cells) {
  rows_.push_back(std::move(cells));
}

std::string Table::text(const Look& look) const {
  std::vector<std::size_t> widths(columns_.size(), 0);
  for (const auto& row : rows_) {
    for (std::size_t i = 0; i < row.size(); ++i) {
      widths[i] = std::max(widths[i], displayWidth(row[i].text));
    }
  }
  std::size_t before = 0;
  for (std::size_t i = 0; i + 1 < widths.size(); ++i) {
    before += widths[i] + GAP;
  }

  std::string text;
  for (const auto& row : rows_) {
    std::string line;
    std::string spaces;  // owed before the next cell that is not empty
    for (std::size_t i = 0; i < row.size(); ++i) {
      const bool isLast = i + 1 == row.size();
      std::string cell = row[i].text;
      if (isLast && look.width) {
        const std::size_t room = *look.width > before ? *look.width - before : 0;
        cell = elided(cell, std::max(room, NARROWEST_LAST), look.unicode);
      }
      const std::string padding(isLast ? 0 : widths[i] - displayWidth(cell), ' ');
      if (columns_[i] == Align::right) {
        spaces.append(padding);
      }
      if (!cell.empty()) {
        line.append(spaces).append(tinted(cell, row[i].tint, look));
        spaces.clear();
      }
      if (columns_[i] == Align::left) {
        spaces.append(padding);
      }
      spaces.append(GAP, ' ');
    }
    text.append(line).push_back('\n');
  }
  return text;
}

}  // namespace vornet::vi
