#pragma once

#include <filesystem>
#include <optional>
#include <string>
#include <utility>
#include <vector>

struct sqlite3;

namespace vornet::test {

/// A real SQLite file, open for writing.
class Database {
 public:
  explicit Database(const std::filesystem::path& path);
  ~Database();
  Database(const Database&) = delete;
  Database& operator=(const Database&) = delete;

  /// Runs SQL without results; throws std::runtime_error when that fails.
  void run(const std::string& sql);

 private:
  sqlite3* handle_ = nullptr;
};

/// Writes `rows` (path, status) to a new sync database at `path`, with the sync application's schema.
void makeSyncDatabase(const std::filesystem::path& path, const std::vector<std::pair<std::string, int>>& rows);

/// Writes the sync application's preferences with `root` as the synced folder at `path`, in XML.
void writePreferences(const std::filesystem::path& path, const std::string& root);

}  // namespace vornet::test
