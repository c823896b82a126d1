#pragma once

#include <string>

#include "Printer.hpp"

namespace vornet::vi {

/// What the printers for people and for plain text have in common: symbols, and cells made of them. Not thread-safe.
class TextPrinter : public Printer {
 protected:
  TextPrinter(Output& output, const Look& look) : Printer(output), look_(look) {}

  std::string safe(const std::string& raw) const;
  /// Symbol and label, tinted; `none` where there is no badge.
  Cell badgeCell(const std::string& identifier, const char* none) const;
  /// Where the sync application listens and how it answered.
  Cell syncApplicationCell(const SyncApplicationState& state) const;
  /// Whether the extension runs.
  Cell extensionCell(const Status& status) const;
  std::string foldersText(const Status& status) const;

  Look look_;
};

}  // namespace vornet::vi
