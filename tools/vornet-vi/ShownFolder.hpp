#pragma once

#include <deque>
#include <functional>
#include <map>
#include <optional>
#include <set>
#include <string>
#include <vector>

#include "Extension.hpp"
#include "Folder.hpp"

namespace vornet::vi {

/// A folder's entries and their badges. Badges are asked for in batches, a few in flight at a time: the extension
/// always has work, and the limit for an answer counts for one batch, however large the folder is. Takes the
/// extension's handler of changes. One thread, the extension's.
class ShownFolder {
 public:
  /// `item`: as it is now; `isNew`: this is its first badge; `was`: the one before.
  using Changed = std::function<void(const Item& item, bool isNew, const std::string& was)>;

  /// `path`: absolute. `changed` is called when an item's first badge is known, or its badge changed.
  ShownFolder(Extension& extension, std::string path, Changed changed);
  ~ShownFolder();
  ShownFolder(const ShownFolder&) = delete;
  ShownFolder& operator=(const ShownFolder&) = delete;

  const std::string& path() const { return path_; }
  const std::map<std::string, Item>& items() const { return items_; }

  /// Blocks. Begins to observe, where the extension has room for it, and asks for the badges of all items again.
  void observe();
  /// Whether the extension keeps the badges up to date; else they have to be asked for.
  bool isObserved() const { return !observedBy_.empty() && hasRoom_; }
  /// The unique name of the process that answers for the folder; empty for none.
  const std::string& observedBy() const { return observedBy_; }
  /// The process has gone: keeps the badges, drops pending requests.
  void forgetObserver();

  /// Reads the entries from the disk, and asks for their badges.
  void read();
  /// Compares the entries `names` with the disk, asks for the badges of new ones, and calls `vanished` for those that
  /// are no longer there.
  void update(const std::set<std::string>& names, const std::function<void(const Item&)>& vanished);

  /// Whether badges are awaited; false also after a failure.
  bool isBusy() const { return !failure_ && (inFlight_ > 0 || !queue_.empty()); }
  /// Why asking ended early, if it did: nothing more is asked until retry().
  const std::optional<Failure>& failure() const { return failure_; }
  /// Asks again for what a failure has left unanswered.
  void retry();

 private:
  void ask(const std::vector<std::string>& names);
  void askNext();
  void forgetRequests();
  void answered(const std::vector<std::string>& names, const std::vector<std::string>& identifiers,
                const std::optional<Failure>& failure);
  void setBadge(const std::string& name, const std::string& identifier);

  Extension& extension_;
  const std::string path_;
  Changed changed_;
  std::map<std::string, Item> items_;
  std::set<std::string> unanswered_;  ///< items whose first badge is awaited
  std::deque<std::string> queue_;     ///< names to be asked for
  std::size_t inFlight_ = 0;          ///< requests
  unsigned generation_ = 0;           ///< answers to requests of an earlier one are dropped
  std::optional<Failure> failure_;
  std::string observedBy_;
  bool hasRoom_ = true;
};

}  // namespace vornet::vi
