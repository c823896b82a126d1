#pragma once

#include <gtest/gtest.h>
#include <sqlite3.h>
#include <unistd.h>

#include <chrono>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <map>
#include <stdexcept>
#include <string>
#include <string_view>

/// What the tests of the stand-in share.
namespace vornet::sim::testing {

/// Longest wait for something that is to happen.
inline constexpr std::chrono::seconds SOON{30};

/// A folder of one test, removed with all in it at the end.
class TestFolder {
 public:
  TestFolder() {
    std::string name = (std::filesystem::temp_directory_path() / "kelvane-sim-test-XXXXXX").string();
    if (::mkdtemp(name.data()) == nullptr) throw std::runtime_error("mkdtemp failed");
    path_ = name;
  }
  ~TestFolder() {
    std::error_code ignored;
    std::filesystem::remove_all(path_, ignored);
  }
  TestFolder(const TestFolder&) = delete;
  TestFolder& operator=(const TestFolder&) = delete;

  /// The folder, or something below it: `relative` begins with "/".
  std::string path(const std::string& relative = "") const { return path_ + relative; }

  void makeFolder(const std::string& relative) const { std::filesystem::create_directories(path(relative)); }
  void write(const std::string& relative, std::string_view content) const {
    std::ofstream(path(relative), std::ios::binary) << content;
  }

 private:
  std::string path_;
};

/// The table `ea` of a status database, as another process reads it.
inline std::map<std::string, int> rowsOf(const std::string& databasePath) {
  std::map<std::string, int> rows;
  sqlite3* db = nullptr;
  EXPECT_EQ(sqlite3_open_v2(databasePath.c_str(), &db, SQLITE_OPEN_READONLY, nullptr), SQLITE_OK);
  sqlite3_busy_timeout(db, 5000);
  sqlite3_stmt* query = nullptr;
  EXPECT_EQ(sqlite3_prepare_v2(db, "SELECT path, status FROM ea", -1, &query, nullptr), SQLITE_OK);
  while (sqlite3_step(query) == SQLITE_ROW) {
    const auto* path = reinterpret_cast<const char*>(sqlite3_column_text(query, 0));
    EXPECT_TRUE(rows.emplace(path, sqlite3_column_int(query, 1)).second) << "two rows for " << path;
  }
  sqlite3_finalize(query);
  sqlite3_close(db);
  return rows;
}

}  // namespace vornet::sim::testing
