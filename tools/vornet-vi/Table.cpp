#include "Table.hpp"

#include <algorithm>

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
  if (!look.colour || tint == Tint::plain || safe.empty()) return std::string(safe);
  return std::string(codeOf(tint)).append(safe).append("\x1b[0m");
}

/// The columns for which there is room, and how wide they are.
std::vector<Table::Shown> Table::shownColumns(const Look& look) const {
  std::vector<Shown> shown;
  std::size_t total = 0;
  for (std::size_t i = 0; i < columns_.size(); ++i) {
    std::size_t width = 0;
    for (const auto& row : rows_) width = std::max(width, displayWidth(row[i].text));
    shown.push_back({i, width});
    total += width + (i == 0 ? 0 : GAP);
  }
  for (auto column = shown.begin(); look.width && total > *look.width && column != shown.end();) {
    if (!columns_[column->index].canBeSpared) {
      ++column;
      continue;
    }
    total -= column->width + GAP;
    column = shown.erase(column);
  }
  return shown;
}

std::string Table::text(const Look& look) const {
  const auto shown = shownColumns(look);
  std::size_t before = 0;  // the last column
  for (std::size_t i = 0; i + 1 < shown.size(); ++i) before += shown[i].width + GAP;

  std::string text;
  for (const auto& row : rows_) {
    std::string spaces;  // owed before the next cell that is not empty
    for (const auto& [index, width] : shown) {
      const bool isLast = index == shown.back().index;
      std::string cell = row[index].text;
      if (isLast && look.width) {
        const std::size_t room = *look.width > before ? *look.width - before : 0;
        cell = elided(cell, std::max(room, NARROWEST_LAST), look.unicode);
      }
      const std::string padding(isLast ? 0 : width - displayWidth(cell), ' ');
      const bool isRight = columns_[index].align == Align::right;
      if (isRight) spaces += padding;
      if (!cell.empty()) {
        text.append(spaces).append(tinted(cell, row[index].tint, look));
        spaces.clear();
      }
      if (!isRight) spaces += padding;
      spaces.append(GAP, ' ');
    }
    text += '\n';
  }
  return text;
}

}  // namespace vornet::vi
