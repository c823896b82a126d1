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

/// What a text is, which decides its colour.
enum class Tint { plain, good, busy, bad, strong, faint };

/// `safe` in the colour for `tint`, when `look` has colours.
std::string tinted(std::string_view safe, Tint tint, const Look& look);

/// Text for one place of a table: safe (see safeText), and its tint.
struct Cell {
  std::string text;
  Tint tint = Tint::plain;
};

/// Rows whose columns are aligned by display width, two spaces apart; no tabs. The last column is elided where the
/// line would be wider than the look's width, and never padded. Not thread-safe.
class Table {
 public:
  enum class Align { left, right };

  explicit Table(std::vector<Align> columns);

  /// Adds a row of as many cells as there are columns.
  void addRow(std::vector<Cell> cells);

  /// All rows, each ended by a newline.
  std::string text(const Look& look) const;

 private:
  std::vector<Align> columns_;
  std::vector<std::vector<Cell>> rows_;
};

}  // namespace vornet::vi
