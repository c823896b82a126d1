#pragma once

#include <map>
#include <string>

#include "cache/StatusTable.hpp"

namespace vornet::test {

using Entries = std::map<std::string, StatusCode>;

/// The entries of a table, for comparing and printing.
inline Entries entriesOf(const StatusTable& table) {
  Entries entries;
  for (const auto& [path, code] : table) entries.emplace(path, code);
  return entries;
}

/// The table with these entries.
inline StatusTable tableOf(const Entries& entries) {
  StatusTable table;
  for (const auto& [path, code] : entries) table.set(path, code);
  return table;
}

}  // namespace vornet::test
