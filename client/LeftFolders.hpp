#pragma once

#include <cstddef>
#include <functional>
#include <list>
#include <string>
#include <string_view>
#include <unordered_map>
#include <utility>

namespace vornet::client {

/// Emblems of a folder's items, by name. An emblem is a literal; items without one are left out.
using Emblems = std::unordered_map<std::string, std::string_view>;

/// The emblems of the folders that left the screen last, so that they are there at once when a folder comes back.
/// Bounded in folders and items. Not thread-safe.
class LeftFolders {
 public:
  static constexpr std::size_t MOST_FOLDERS = 16;
  static constexpr std::size_t MOST_ITEMS = 50'000;

  /// Remembers `emblems` of the folder at `path`; forgets those that were left longest ago when there is no room. A
  /// folder with more than MOST_ITEMS is not remembered.
  void add(const std::string& path, Emblems emblems);

  /// The emblems of the folder at `path`, which are forgotten; empty for a folder that is not remembered.
  Emblems take(const std::string& path);

  /// Forgets the folders for which `keep` returns false.
  void keepOnly(const std::function<bool(const std::string& path)>& keep);

 private:
  std::list<std::pair<std::string, Emblems>> folders_;  ///< the one left last comes first
  std::size_t items_ = 0;
};

}  // namespace vornet::client
