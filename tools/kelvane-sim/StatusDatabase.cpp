#include "kelvane-sim/StatusDatabase.hpp"

#include <algorithm>
#include <filesystem>
#include <unordered_map>

#include "kelvane-sim/Ownership.hpp"

namespace vornet::sim {

StatusDatabase::StatusDatabase(const std::string& path) {
  try {
    file_.emplace(path);
    makeTable();
  } catch (const SqliteError& error) {
    if (error.code != SQLITE_NOTADB && error.code != SQLITE_CORRUPT && error.code != SQLITE_CONSTRAINT &&
        error.code != SQLITE_ERROR) {
      throw;
    }
    file_.reset();
    std::filesystem::remove(path);
    std::filesystem::remove(path + "-journal");
    file_.emplace(path);
    makeTable();
  }
}

void StatusDatabase::makeTable() {
  file_->execute(std::string("BEGIN IMMEDIATE;") + SET_APPLICATION_ID +
                 "CREATE TABLE IF NOT EXISTS ea (path TEXT, status INTEGER);"
                 "CREATE UNIQUE INDEX IF NOT EXISTS ea_path ON ea (path);"
                 "COMMIT");
  file_->prepare("SELECT path, status FROM ea LIMIT 1").run();
}

void StatusDatabase::replaceAll(const std::vector<FolderModel::Change>& rows) {
  std::unordered_map<std::string, int> stored;
  auto query = file_->prepare("SELECT path, status FROM ea");
  while (query.step()) stored.emplace(query.text(0), query.integer(1));
  std::vector<FolderModel::Change> changes;
  for (const auto& row : rows) {
    const auto old = stored.find(row.path);
    if (old == stored.end() || old->second != row.code) changes.push_back(row);
    if (old != stored.end()) stored.erase(old);
  }
  for (const auto& [path, status] : stored) changes.push_back({path, std::nullopt});
  apply(changes);
}

void StatusDatabase::apply(const std::vector<FolderModel::Change>& changes) {
  if (changes.empty()) return;
  auto upsert = file_->prepare(
      "INSERT INTO ea (path, status) VALUES (?1, ?2) ON CONFLICT (path) DO UPDATE SET status = excluded.status");
  auto erase = file_->prepare("DELETE FROM ea WHERE path = ?1");
  for (std::size_t from = 0; from < changes.size(); from += BATCH_ROWS) {
    const std::size_t to = std::min(from + BATCH_ROWS, changes.size());
    file_->execute("BEGIN IMMEDIATE");
    try {
      for (std::size_t i = from; i < to; ++i) {
        auto& statement = changes[i].code ? upsert : erase;
        statement.bind(1, changes[i].path);
        if (changes[i].code) statement.bind(2, *changes[i].code);
        statement.run();
      }
      file_->execute("COMMIT");
    } catch (const SqliteError&) {
      try {
        file_->execute("ROLLBACK");
      } catch (const SqliteError&) {
        // Already rolled back; the first failure is the one to report.
      }
      throw;
    }
  }
}

}  // namespace vornet::sim
