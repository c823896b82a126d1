#include "support/Databases.hpp"

#include <plist/plist.h>
#include <sqlite3.h>

#include <cstdlib>
#include <stdexcept>

#include "support/TemporaryFolder.hpp"

namespace vornet::test {

Database::Database(const std::filesystem::path& path) {
  if (sqlite3_open(path.c_str(), &handle_) != SQLITE_OK) throw std::runtime_error("cannot open " + path.string());
}

Database::~Database() {
  sqlite3_close(handle_);
}

void Database::run(const std::string& sql) {
  char* error = nullptr;
  if (sqlite3_exec(handle_, sql.c_str(), nullptr, nullptr, &error) == SQLITE_OK) return;
  const std::string message = error ? error : "SQL error";
  sqlite3_free(error);
  throw std::runtime_error(message);
}

void makeSyncDatabase(const std::filesystem::path& path, const std::vector<std::pair<std::string, int>>& rows) {
  Database database(path);
  database.run("CREATE TABLE ea (path TEXT, status INTEGER); CREATE INDEX ea_path ON ea (path); BEGIN;");
  for (const auto& [item, status] : rows) {
    char* sql = sqlite3_mprintf("INSERT INTO ea VALUES (%Q, %d)", item.c_str(), status);
    const std::string text = sql;
    sqlite3_free(sql);
    database.run(text);
  }
  database.run("COMMIT");
}

void writePreferences(const std::filesystem::path& path, const std::string& root) {
  plist_t dictionary = plist_new_dict();
  plist_dict_set_item(dictionary, "root_dir", plist_new_string(root.c_str()));
  char* text = nullptr;
  std::uint32_t length = 0;
  plist_to_xml(dictionary, &text, &length);
  writeFile(path, {text, length});
  std::free(text);
  plist_free(dictionary);
}

}  // namespace vornet::test
