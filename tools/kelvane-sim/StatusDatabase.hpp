#pragma once

#include <optional>
#include <string>
#include <vector>

#include "kelvane-sim/FolderModel.hpp"
#include "kelvane-sim/SqliteFile.hpp"

namespace vornet::sim {

/// The status database `sync.db`: table `ea` with the columns `path` (text; cloud path, folders with a trailing "/",
/// the root "/") and `status` (integer), one row a path, indexed. Other processes read it at any time; it is written in
/// short transactions. Not thread-safe.
class StatusDatabase {
 public:
  /// Rows of one transaction at most.
  static constexpr std::size_t BATCH_ROWS = 1000;

  /// Opens or makes the file at `path`. A file that is no database, or holds something else, is replaced. Throws
  /// SqliteError.
  explicit StatusDatabase(const std::string& path);

  /// Makes the table hold exactly `rows` (each with a code). Rows that are right stay untouched. Throws SqliteError.
  void replaceAll(const std::vector<FolderModel::Change>& rows);

  /// Writes or deletes one row for each change, in batches; after a throw of SqliteError it may be called again with
  /// the same changes.
  void apply(const std::vector<FolderModel::Change>& changes);

 private:
  void makeTable();

  std::optional<SqliteFile> file_;
};

}  // namespace vornet::sim
