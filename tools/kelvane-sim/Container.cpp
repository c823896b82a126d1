#include "kelvane-sim/Container.hpp"

#include <plist/plist.h>
#include <sqlite3.h>
#include <sys/stat.h>

#include <array>
#include <boost/json.hpp>
#include <cerrno>
#include <cstdint>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <memory>
#include <stdexcept>
#include <string_view>
#include <system_error>
#include <utility>

#include "kelvane-sim/SyncedFolder.hpp"

namespace vornet::sim {

namespace {

namespace fs = std::filesystem;

constexpr const char* STATUSES = "/sync.db";
constexpr const char* CONFIGURATION = "/config.db";
constexpr const char* PREFERENCES = "/VornetKelvane.plist";
constexpr std::array FILES{PREFERENCES, STATUSES, CONFIGURATION};

// In the preferences a key; in a database a comment in the definition of its table, which SQLite keeps.
constexpr const char* MARK = "written_by_kelvane_sim";

std::string absolutePath(const std::string& path) {
  std::string plain = fs::absolute(path).lexically_normal().string();
  while (plain.size() > 1 && plain.back() == '/') plain.pop_back();
  return plain;
}

// Nothing is ever written into the user's folder.
bool isInside(const std::string& folder, const std::string& root) {
  const fs::path relative = fs::weakly_canonical(folder).lexically_relative(fs::canonical(root));
  return !relative.empty() && *relative.begin() != "..";
}

bool isOfAnotherApplication(const std::string& path) {
  constexpr std::size_t MARKED_BYTES = 65536;  // the mark is at the beginning
  if (!fs::exists(fs::symlink_status(path))) return false;
  std::string beginning(MARKED_BYTES, '\0');
  std::ifstream file(path, std::ios::binary);
  file.read(beginning.data(), static_cast<std::streamsize>(beginning.size()));
  return !fs::is_regular_file(path) || (file.gcount() > 0 && beginning.find(MARK) == std::string::npos);
}

void runSql(const std::string& path, const std::string& sql) {
  constexpr int BUSY_MILLISECONDS = 2000;
  sqlite3* raw = nullptr;
  const int opened = sqlite3_open(path.c_str(), &raw);
  const std::unique_ptr<sqlite3, decltype(&sqlite3_close)> database(raw, sqlite3_close);
  sqlite3_busy_timeout(raw, BUSY_MILLISECONDS);
  // The stand-in writes everything again at its start; a short commit matters more than the disk.
  const std::string all = "PRAGMA synchronous = OFF; PRAGMA cache_spill = OFF; BEGIN IMMEDIATE;" + sql + "COMMIT";
  if (opened != SQLITE_OK || sqlite3_exec(raw, all.c_str(), nullptr, nullptr, nullptr) != SQLITE_OK)
    throw std::runtime_error("cannot write " + path + ": " + sqlite3_errmsg(raw));
}

std::string quoted(const std::string& text) {
  const std::unique_ptr<char, decltype(&sqlite3_free)> sql(sqlite3_mprintf("%Q", text.c_str()), sqlite3_free);
  return sql.get();
}

void write(const std::string& path, std::string_view content, std::ios::openmode mode) {
  std::ofstream file(path, mode | std::ios::binary);
  if (!(file << content << std::flush))
    throw std::runtime_error("cannot write " + path + ": " + std::generic_category().message(errno));
}

}  // namespace

Container::Container(const std::string& path, const std::string& root)
    : path_(absolutePath(path)), root_(absolutePath(root)) {}

void Container::open(bool force) {
  if (!fs::is_directory(root_)) throw std::runtime_error("cannot sync " + root_ + ": it is not a folder");
  if (!isUtf8(root_)) throw std::runtime_error("cannot sync " + root_ + ": its path is not UTF-8");
  if (isInside(path_, root_)) throw std::runtime_error("the container " + path_ + " is inside the synced folder");
  fs::create_directories(fs::path(path_).parent_path());
  if (::mkdir(path_.c_str(), 0700) != 0 && errno != EEXIST)
    throw std::runtime_error("cannot make " + path_ + ": " + std::generic_category().message(errno));
  for (const char* name : FILES)
    if (!force && isOfAnotherApplication(path_ + name))
      throw std::runtime_error(path_ + name +
                               " was written by another application: choose another container, or --force");
  written_.reset();
}

void Container::removeOthersFiles() const {
  for (const char* name : FILES) {
    if (!isOfAnotherApplication(path_ + name)) continue;
    for (const char* suffix : {"-wal", "-shm", "-journal", ""}) fs::remove(path_ + name + suffix);
  }
}

void Container::writeStatuses(const std::map<std::string, int>& rows) {
  const auto old = std::exchange(written_, std::nullopt);
  if (old == rows) {
    written_ = old;
    return;
  }
  std::string sql =
      std::string("CREATE TABLE IF NOT EXISTS ea (path TEXT PRIMARY KEY, status INTEGER /* ") + MARK + " */);";
  if (!old) sql += "DELETE FROM ea;";
  const std::map<std::string, int> before = old.value_or(std::map<std::string, int>());
  for (const auto& [path, status] : before)
    if (!rows.contains(path)) sql += "DELETE FROM ea WHERE path = " + quoted(path) + ";";
  for (const auto& [path, status] : rows) {
    const auto known = before.find(path);
    if (known == before.end() || known->second != status)
      sql += "REPLACE INTO ea VALUES (" + quoted(path) + "," + std::to_string(status) + ");";
  }
  runSql(path_ + STATUSES, sql);
  written_ = rows;
}

void Container::writePreferences() const {
  runSql(path_ + CONFIGURATION, std::string("CREATE TABLE IF NOT EXISTS configuration (local_root TEXT /* ") + MARK +
                                    " */); DELETE FROM configuration; INSERT INTO configuration VALUES (" +
                                    quoted(root_) + ");");
  const std::unique_ptr<void, decltype(&plist_free)> dictionary(plist_new_dict(), &plist_free);
  plist_dict_set_item(dictionary.get(), "root_dir", plist_new_string(root_.c_str()));
  plist_dict_set_item(dictionary.get(), MARK, plist_new_bool(1));
  char* bytes = nullptr;
  std::uint32_t length = 0;
  plist_to_bin(dictionary.get(), &bytes, &length);  // XML has no form for control characters
  const std::unique_ptr<char, decltype(&std::free)> owner(bytes, &std::free);
  const std::string path = path_ + PREFERENCES;
  write(path + ".new", {bytes, length}, std::ios::trunc);
  fs::rename(path + ".new", path);
}

void Container::record(const Action& action) const {
  const boost::json::object line{{"action", action.name}, {"paths", boost::json::value_from(action.paths)}};
  write(path_ + "/actions.jsonl", boost::json::serialize(line) + "\n", std::ios::app);
}

}  // namespace vornet::sim
