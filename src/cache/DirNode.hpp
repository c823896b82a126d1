#pragma once

#include <memory>
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
  StatusTable update(StatusTable items);

  /// The parts of update(): replaces the statuses and returns those before, none at a first fill; and what is new or
  /// changed between two tables. The latter needs no node; among millions of entries it takes a second.
  std::shared_ptr<const StatusTable> replace(std::shared_ptr<const StatusTable> items);
  static StatusTable update(const StatusTable& old, const StatusTable& now);

  /// The code stored under exactly `path`; none when the folder has no such entry.
  std::optional<StatusCode> statusForPath(std::string_view path) const;

  /// Back to empty and unpopulated.
  void clear();

  const std::string& dir() const noexcept { return dir_; }
  const StatusTable& items() const noexcept { return *items_; }

  /// Whether the node has been filled at least once since it was made or cleared.
  bool populated() const noexcept { return populated_; }

  std::weak_ptr<DirNode> pre;  ///< the neighbour nearer the front of the list (more recently entered)
  std::weak_ptr<DirNode> suc;  ///< the neighbour nearer the back

 private:
  std::string dir_;
  std::shared_ptr<const StatusTable> items_;  // never null
  bool populated_ = false;
};

}  // namespace vornet
