#pragma once

#include <cstddef>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace vornet::vi {

/// How text may look on the output.
struct Look {
  bool colour = false;
  bool unicode = false;              ///< symbols and names beyond ASCII
  std::optional<std::size_t> width;  ///< columns of the terminal; none where lines may be of any length
};

/// The kind of a text, which decides its colour.
enum class Tint { plain, good, busy, bad, strong, faint };

/// `safe` in the colour for `tint`, when `look` has colours.
std::string tinted(std::string_view safe, Tint tint, const Look& look);

/// Text for one place of a table: safe (see safeText), and its tint.
struct Cell {
  std::string text;
  Tint tint = Tint::plain;
};

/// Rows whose columns are aligned by display width, two spaces apart; no tabs. Where lines would be wider than the
/// look's width, columns that can be spared are left out, the first one first, and then the last one is elided. The
/// last column is never padded. Not thread-safe.
class Table {
 public:
  enum class Align { left, right };
  struct Column {
    Align align = Align::left;
    bool canBeSpared = false;
  };

  explicit Table(std::vector<Column> columns) : columns_(std::move(columns)) {}

  /// Adds a row of as many cells as there are columns.
  void addRow(std::vector<Cell> cells) { rows_.push_back(std::move(cells)); }

  /// All rows, each ended by a newline.
  std::string text(const Look& look) const;

 private:
  struct Shown {
    std::size_t index;
    std::size_t width;
  };
  std::vector<Shown> shownColumns(const Look& look) const;

  std::vector<Column> columns_;
  std::vector<std::vector<Cell>> rows_;
};

}  // namespace vornet::vi
