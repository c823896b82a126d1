#pragma once

#include <boost/unordered/unordered_flat_map.hpp>
#include <cstddef>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <string_view>

#include "cache/StatusTable.hpp"

namespace vornet {

/// The statuses of one folder's entries; also one link of the cache's recency list.
/// Not thread-safe: the owning LRUCache serialises access.
class DirNode {
 public:
  /// An empty, unpopulated node without neighbours. `dir`: the folder's cloud path, ending in "/".
  explicit DirNode(std::string dir);

  /// Replaces every status by `items` (cloud path -> status code). Returns the entries that are new or changed; a first
  /// fill returns nothing, a vanished entry is logged and not returned.
  /// Kept ready; nothing calls it yet.
  StatusTable update(StatusTable items);

  /// The two steps of update(). The first returns the old statuses; null at a first fill. The second returns what is
  /// new or changed; it needs no lock, and among millions of entries it takes a second.
  std::shared_ptr<const StatusTable> replace(std::shared_ptr<const StatusTable> items, std::size_t digest = 0);
  static StatusTable update(const StatusTable& old, const StatusTable& now);

  /// The code stored under exactly `path`; none when the folder has no such entry.
  std::optional<StatusCode> statusForPath(std::string_view path) const { return items_->find(path); }

  /// Makes it empty and unpopulated again.
  void clear();

  const std::string& dir() const noexcept { return dir_; }
  const StatusTable& items() const noexcept { return *items_; }
  const std::shared_ptr<const StatusTable>& sharedItems() const noexcept { return items_; }

  /// True if the node has been filled since it was made or cleared.
  bool populated() const noexcept { return populated_; }

  /// The number given with the statuses of a populated node.
  std::size_t digest() const noexcept { return digest_; }

  std::weak_ptr<DirNode> pre;  ///< the neighbour nearer the front of the list (more recently entered)
  std::weak_ptr<DirNode> suc;  ///< the neighbour nearer the back

 private:
  std::string dir_;
  std::shared_ptr<const StatusTable> items_;  // never null
  bool populated_ = false;
  std::size_t digest_ = 0;
};

/// The statuses of the folders most recently entered. A path whose folder is not cached, or not yet filled, is answered
/// from the sync database. Any thread: one recursive lock serialises every operation. It is held neither while the
/// database is asked nor while statuses are compared.
class LRUCache {
 public:
  /// An empty cache for at most `cacheSize` folders; 2 when none is given.
  explicit LRUCache(std::optional<std::size_t> cacheSize = std::nullopt);
  LRUCache(const LRUCache&) = delete;
  LRUCache& operator=(const LRUCache&) = delete;

  /// Moves the folder `dir` (cloud path ending in "/") to the front; adds it, unfilled, if it is not cached, and then
  /// drops the folder at the back if there are too many. True when its statuses must be fetched: it is new or unfilled.
  bool enterNewDir(const std::string& dir);

  /// Stores `itemDict` as the statuses of `dir` and returns its new and changed entries; none, and nothing stored, when
  /// `dir` is not cached. Keeps the order. `firstFill`, if given, becomes whether these are the folder's first
  /// statuses since it was added; then nothing is returned as changed. `digest`, a hash, stands for where they came
  /// from.
  std::optional<StatusTable> update(std::string_view dir, StatusTable itemDict, bool* firstFill = nullptr,
                                    std::size_t digest = 0);

  /// True if the statuses of `dir` are those that were stored with `digest`.
  bool holds(std::string_view dir, std::size_t digest) const;

  /// The status of the item with the cloud path `path`. In a filled folder: the entry under exactly that path, none
  /// when there is none. Elsewhere: the database's answer, -1 when it has none. Keeps the order.
  std::optional<StatusCode> statusForPath(std::string_view path) const;

  /// About how many bytes the statuses of all folders but `dir` take.
  std::size_t memoryBeside(std::string_view dir) const;

  /// The statuses of the folder `dir` as they are now; null when it is not cached or has not been filled.
  std::shared_ptr<const StatusTable> statuses(std::string_view dir) const;
  bool isPopulated(std::string_view dir) const { return statuses(dir) != nullptr; }

  /// Drops every folder.
  /// Kept ready; nothing calls it yet.
  void clearCache();

  /// The most folders kept.
  /// Kept ready; nothing calls it yet.
  std::size_t maxSize() const noexcept { return maxSize_; }

  /// The number of folders cached.
  /// Kept ready; nothing calls it yet.
  std::size_t curSize() const;

 private:
  bool _enterNewDir(const std::string& dir);
  void moveToFirst(const std::string& dir);
  void removeLast();

  const std::size_t maxSize_;
  std::size_t curSize_ = 0;

 protected:  // for the tests alone
  mutable std::recursive_mutex lock_;
  boost::unordered_flat_map<std::string, std::shared_ptr<DirNode>, TextHash, std::equal_to<>> dirs_;
  std::shared_ptr<DirNode> first_;
  std::shared_ptr<DirNode> last_;
};

/// The key of the folder that holds the item with the cloud path `path`: the path without its last component, ending in
/// "/". It is "/" for "", "/" and "/a", and "/a/" for "/a/b" and "/a/b/".
std::string_view folderKey(std::string_view path) noexcept;

}  // namespace vornet
