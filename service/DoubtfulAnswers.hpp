#pragma once

#include <map>
#include <mutex>
#include <string>
#include <unordered_map>
#include <utility>
#include <vector>

namespace vornet::service {

/// Remembers which answers were given while the sync database was locked, and so must be looked up again; and what to
/// answer meanwhile about items that no folder on screen remembers. Items are named by path. Any thread.
class DoubtfulAnswers {
 public:
  static constexpr std::size_t MAX_ITEMS_OF_A_CLIENT = 20'000;
  static constexpr std::size_t MAX_ITEMS = 60'000;
  /// How many of the items known last are remembered at least.
  static constexpr std::size_t MIN_KNOWN = 10'000;

  /// A look-up found `identifier` for the item.
  void setKnown(const std::string& path, const std::string& identifier);

  /// The item's last known identifier; "" when that is not remembered.
  std::string lastKnown(const std::string& path) const;

  using Answer = std::pair<std::string, std::string>;  // client or path, and the identifier answered

  /// Records that `client` (a unique bus name) gets `answers` (path, identifier) without a look-up. False, and nothing
  /// is recorded, when there would be too many of them.
  bool add(const std::string& client, const std::vector<Answer>& answers);

  /// Records that `client` gets the result of a look-up for the item: its earlier answer no longer counts.
  void settle(const std::string& client, const std::string& path);

  /// Forgets `client`.
  void forget(const std::string& client);

  bool isEmpty() const;

  /// Up to `count` items with doubtful answers.
  std::vector<std::string> items(std::size_t count) const;

  /// Removes and returns the doubtful answers for the item: client, identifier.
  std::vector<Answer> take(const std::string& path);

 private:
  using Clients = std::map<std::string, std::string>;  // client -> identifier
  void remove(const std::string& client);

  mutable std::mutex lock_;
  std::unordered_map<std::string, Clients> doubtful_;  // by path
  std::map<std::string, std::size_t> counts_;          // by client
  std::size_t count_ = 0;
  std::unordered_map<std::string, std::string> known_;        // by path
  std::unordered_map<std::string, std::string> knownBefore_;  // what known_ held before it was full
};

}  // namespace vornet::service
