#pragma once

#include <boost/unordered/unordered_flat_map.hpp>
#include <cstddef>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <string_view>

#include "cache/DirNode.hpp"
#include "cache/StatusTable.hpp"

namespace vornet {

/// The statuses of the folders most recently entered; a path whose folder is not cached, or not yet filled, is answered
/// from the sync database. Any thread: one lock serialises every operation, and is not held while the database is
/// asked.
class LRUCache {
 public:
  /// An empty cache for at most `cacheSize` folders; 2 when none is given.
  explicit LRUCache(std::optional<std::size_t> cacheSize = std::nullopt);
  LRUCache(const LRUCache&) = delete;
  LRUCache& operator=(const LRUCache&) = delete;

  /// Moves the folder `dir` (cloud path ending in "/") to the front, made empty if need be; the folder at the back is
  /// dropped when there are too many. True when its statuses must be fetched: it is new or not yet filled.
  bool enterNewDir(const std::string& dir);

  /// Stores `itemDict` as the statuses of `dir` and returns its new and changed entries; none, and nothing stored, when
  /// `dir` is not cached. Changes no order. `firstFill`, if given, becomes whether these are the folder's first
  /// statuses since it was made: then nothing is returned as changed.
  std::optional<StatusTable> update(std::string_view dir, StatusTable itemDict, bool* firstFill = nullptr);

  /// The status of the item with the cloud path `path`. In a filled folder: the entry under exactly that path, none
  /// when there is none. Elsewhere: the database's answer, -1 when it has none. Changes no order.
  std::optional<StatusCode> statusForPath(std::string_view path) const;

  /// About how many bytes the statuses of all folders but `dir` take.
  std::size_t memoryBeside(std::string_view dir) const;

  /// Whether the folder `dir` is cached and has been filled.
  bool isPopulated(std::string_view dir) const;

  /// Drops every folder.
  void clearCache();

  std::size_t maxSize() const noexcept { return maxSize_; }
  std::size_t curSize() const;

  /// The nodes at the ends of the list, and that of `dir`; empty when there is none. The caller must not touch them
  /// while other threads use the cache.
  std::shared_ptr<DirNode> first() const;
  std::shared_ptr<DirNode> last() const;
  std::shared_ptr<DirNode> node(std::string_view dir) const;

 private:
  bool _enterNewDir(const std::string& dir);
  void moveToFirst(const std::string& dir);
  void removeLast();

  const std::size_t maxSize_;
  mutable std::mutex lock_;
  std::size_t curSize_ = 0;
  boost::unordered_flat_map<std::string, std::shared_ptr<DirNode>, TextHash, std::equal_to<>> dirs_;
  std::shared_ptr<DirNode> first_;
  std::shared_ptr<DirNode> last_;
};

/// The key of the folder that holds the item with the cloud path `path`: the path without its last component, ending in
/// "/".
/// "/" for "", "/" and "/a"; "/a/" for "/a/b" and "/a/b/".
std::string_view folderKey(std::string_view path) noexcept;

}  // namespace vornet
