// The cache gives the same answers as a simple model, for any sequence of operations with any paths.
#include <fuzzer/FuzzedDataProvider.h>
#include <sqlite3.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cstdlib>
#include <filesystem>
#include <list>
#include <map>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "cache/DirCache.hpp"
#include "logging/Logging.hpp"
#include "support/Require.hpp"

namespace vornet::fuzz {
namespace {

using Entries = std::map<std::string, StatusCode, std::less<>>;

// The sync database's rows, which answer for what the cache does not know.
const Entries STORED = {{"/f", 1}, {"/f/", 2}, {"/a/f", 3}, {"/a/b/", 4}, {"/b/f", 5}, {"//", 6}, {"/c\xC3\xA9/f", 7}};

// Folders that a sequence comes back to.
const std::array<std::string, 6> FOLDERS = {"/", "/a/", "/b/", "/a/b/", "//", "/c\xC3\xA9/"};

/// The folder that an item's status is looked for in: its path's components without the last, "/" after each.
std::string folderOf(std::string_view path) {
  std::vector<std::string> components;
  for (std::size_t at = 0; at < path.size();) {
    const std::size_t end = std::min(path.find('/', at), path.size());
    if (end > at) components.emplace_back(path.substr(at, end - at));
    at = end + 1;
  }
  // Slashes within the folder stay as they are written; only those beside the last component go.
  if (components.size() < 2) return "/";
  std::size_t end = path.size();
  while (path[end - 1] == '/') --end;
  end -= components.back().size();
  while (path[end - 1] == '/') --end;
  return std::string(path.substr(0, end)) + "/";
}

class Model {
 public:
  explicit Model(std::size_t maxSize) : maxSize_(maxSize) {}

  struct Folder {
    std::string dir;
    std::optional<Entries> items;  // none until they are filled
  };

  bool enter(const std::string& dir) {
    if (const auto at = find(dir); at != folders_.end()) {
      folders_.splice(folders_.begin(), folders_, at);
    } else {
      folders_.push_front({dir, std::nullopt});
      if (folders_.size() > maxSize_) folders_.pop_back();
      return true;
    }
    return !folders_.front().items;
  }

  std::optional<Entries> update(std::string_view dir, const Entries& items) {
    const auto at = find(dir);
    if (at == folders_.end()) return std::nullopt;
    const auto old = std::exchange(at->items, items);
    Entries changes;
    for (const auto& [path, code] : items) {
      if (!old) break;
      const auto before = old->find(path);
      if (before == old->end() || before->second != code) changes.emplace(path, code);
    }
    return changes;
  }

  /// True if `status` is right for `path`. Stored as a file and as a folder, either code is.
  bool allows(std::string_view path, std::optional<StatusCode> status) {
    const auto at = find(folderOf(path));
    if (at != folders_.end() && at->items) {
      const auto found = at->items->find(path);
      return status == (found == at->items->end() ? std::nullopt : std::optional(found->second));
    }
    const auto file = STORED.find(path);
    const auto folder = STORED.find(std::string(path) + "/");
    if (file == STORED.end() && folder == STORED.end()) return status == -1;
    return (file != STORED.end() && status == file->second) || (folder != STORED.end() && status == folder->second);
  }

  void clear() { folders_.clear(); }
  const std::list<Folder>& folders() const { return folders_; }

 private:
  std::list<Folder>::iterator find(std::string_view dir) {
    auto at = folders_.begin();
    while (at != folders_.end() && at->dir != dir) ++at;
    return at;
  }

  std::size_t maxSize_;
  std::list<Folder> folders_;
};

Entries entriesOf(const StatusTable& table) {
  Entries entries;
  for (const auto& [path, code] : table) require(entries.emplace(path, code).second, "a table has a path once");
  require(entries.size() == table.size(), "a table counts its entries");
  return entries;
}

/// A cache whose nodes the target may see.
struct CacheProbe : LRUCache {
  using LRUCache::dirs_;
  using LRUCache::first_;
  using LRUCache::last_;
  using LRUCache::LRUCache;
};

/// Goes through the list in both directions.
void checkList(const Model& model, const CacheProbe& cache) {
  require(cache.curSize() == model.folders().size(), "as many folders are kept as should be");
  auto node = cache.first_;
  std::shared_ptr<DirNode> before;
  for (const auto& folder : model.folders()) {
    require(node && node->dir() == folder.dir, "folders are in the order in which they were entered");
    require(node == cache.dirs_.at(folder.dir), "a folder of the list is found by its path");
    require(node->pre.lock() == before, "the list leads back");
    require(node->populated() == folder.items.has_value(), "a folder is filled once it was updated");
    require(cache.isPopulated(folder.dir) == folder.items.has_value(), "the cache knows that");
    require(entriesOf(node->items()) == folder.items.value_or(Entries()),
            "a folder has the entries of its last update");
    before = node;
    node = node->suc.lock();
  }
  require(!node && cache.last_ == before, "the list ends at its last folder");
}

class Sequence {
 public:
  Sequence(const std::uint8_t* data, std::size_t size)
      : data_(data, size), size_(data_.ConsumeIntegralInRange<std::size_t>(0, 5)), cache_(size_), model_(size_) {}

  void run() {
    while (data_.remaining_bytes() > 0) {
      switch (data_.ConsumeIntegralInRange<int>(0, 8)) {
        case 0:
        case 1:
        case 2: {
          const auto dir = folder();
          require(cache_.enterNewDir(dir) == model_.enter(dir),
                  "a folder must be fetched when it is new or not filled");
          break;
        }
        case 3:
        case 4:
        case 5:
          update();
          break;
        case 6:
        case 7: {
          const auto item = path(folder());
          require(model_.allows(item, cache_.statusForPath(item)),
                  "an item has the status of its folder's last update");
          break;
        }
        default:
          cache_.clearCache();
          model_.clear();
      }
      checkList(model_, cache_);
    }
  }

 private:
  std::string folder() {
    const auto choice = data_.ConsumeIntegralInRange<std::size_t>(0, FOLDERS.size() + 1);
    return choice < FOLDERS.size() ? FOLDERS[choice] : data_.ConsumeRandomLengthString(12);
  }

  /// An item of the folder, or any text.
  std::string path(const std::string& dir) {
    switch (data_.ConsumeIntegralInRange<int>(0, 5)) {
      case 0:
        return dir + "f";
      case 1:
        return dir + "b/";
      case 2:
        return dir;
      case 3:
        return dir + '\0' + data_.ConsumeRandomLengthString(4);
      case 4:
        return dir + data_.ConsumeRandomLengthString(8);
      default:
        return data_.ConsumeRandomLengthString(12);
    }
  }

  void update() {
    const auto dir = folder();
    // A table may be meant for this folder, for another, or for none; that only says how it keeps its keys.
    StatusTable table = data_.ConsumeBool() ? StatusTable(data_.ConsumeBool() ? dir : folder()) : StatusTable();
    if (data_.ConsumeBool()) table.reserve(4, 16);
    Entries entries;
    for (int count = data_.ConsumeIntegralInRange<int>(0, 6); count > 0; --count) {
      const auto item = path(dir);
      const auto code = data_.ConsumeIntegralInRange<StatusCode>(-1, 3);
      table.set(item, code);
      entries.insert_or_assign(item, code);
      require(table.find(item) == code, "a table finds what was stored");
    }
    require(entriesOf(table) == entries, "a table has what was stored, the last of equal paths");
    const auto changes = cache_.update(dir, std::move(table));
    const auto expected = model_.update(dir, entries);
    require(changes.has_value() == expected.has_value(), "only a cached folder is updated");
    if (changes)
      require(entriesOf(*changes) == *expected, "new and changed entries are reported, from the second time on");
  }

  FuzzedDataProvider data_;
  const std::size_t size_;
  CacheProbe cache_;
  Model model_;
};

void makeDatabase(const std::filesystem::path& path) {
  sqlite3* database = nullptr;
  require(sqlite3_open(path.c_str(), &database) == SQLITE_OK, "a database can be made");
  std::string sql = "CREATE TABLE ea (path TEXT, status INTEGER); CREATE INDEX ea_path ON ea (path);";
  for (const auto& [item, status] : STORED)
    sql += "INSERT INTO ea VALUES ('" + item + "', " + std::to_string(status) + ");";
  require(sqlite3_exec(database, sql.c_str(), nullptr, nullptr, nullptr) == SQLITE_OK, "a database can be filled");
  sqlite3_close(database);
}

}  // namespace
}  // namespace vornet::fuzz

extern "C" int LLVMFuzzerInitialize(int*, char***) {
  using namespace vornet;
  logger().setLogDestinations({});
  std::string folder = (std::filesystem::temp_directory_path() / "vornet-fuzz.XXXXXX").string();
  fuzz::require(::mkdtemp(folder.data()) != nullptr, "a folder can be made");
  static const std::string made = folder;
  std::atexit([] { std::filesystem::remove_all(made); });
  ::setenv("VORNET_GROUP_CONTAINERS", folder.c_str(), 1);
  const auto container = platform::containerURLForGroup(App().APP_GROUP);
  fuzz::require(container.has_value(), "there is a container");
  fuzz::makeDatabase(*container->appendingPathComponent(App().SYNC_DB_NAME).path());
  return 0;
}

/// An input: choices and texts, as FuzzedDataProvider reads them.
extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  vornet::fuzz::Sequence(data, size).run();
  return 0;
}
