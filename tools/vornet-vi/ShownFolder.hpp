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
#include "client/BadgeStream.hpp"

namespace vornet::vi {

/// A folder's entries and their badges, one such folder for an extension at a time. The time-out counts for one batch
/// of items, however large the folder is. One thread, the extension's.
class ShownFolder : private client::BadgeStream::Listener {
 public:
  /// `item`: as it is now; `isNew`: this is its first badge; `was`: the one before.
  using Changed = std::function<void(const Item& item, bool isNew, const std::string& was)>;

  /// `path`: absolute. `changed` is called when an item's first badge is known, or its badge changed.
  ShownFolder(Extension& extension, std::string path, Changed changed);
  ShownFolder(const ShownFolder&) = delete;
  ShownFolder& operator=(const ShownFolder&) = delete;

  const std::string& path() const { return path_; }
  const std::map<std::string, Item>& items() const { return items_; }

  /// Blocks. Begins to observe, where the extension has room for it, and asks for the badges of all items again.
  void observe();
  /// True if the extension keeps the badges up to date; otherwise they have to be requested.
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

  /// True if badges are awaited; false also after a failure.
  bool isBusy() const { return !failure_ && (awaited_ > 0 || !queue_.empty()); }
  /// Why asking ended early, if it did: nothing more is asked until retry().
  const std::optional<Failure>& failure() const { return failure_; }
  /// Asks again for what a failure has left unanswered.
  void retry();

 private:
  using Batch = client::BadgeStream::Batch;

  std::optional<Batch> nextBatch() override;
  bool badgesAnswered(const Batch& batch, std::size_t begin, std::size_t end) override;
  void requestFailed(Batch batch, const client::CallError& error) override;
  void badgeChanged(const std::string& path, const std::string& identifier) override;
  void changesMissed() override;

  void ask(const std::vector<std::string>& names);
  void askForAll();
  void forgetRequests();
  void waitForAnswers();
  void setBadge(const std::string& name, const std::string& identifier);

  Extension& extension_;
  const std::string path_;
  Changed changed_;
  std::map<std::string, Item> items_;
  std::set<std::string> unanswered_;  ///< items without a first badge yet
  std::deque<std::string> queue_;     ///< names to request
  std::size_t awaited_ = 0;           ///< items requested and not answered
  std::optional<Failure> failure_;
  std::string observedBy_;
  bool hasRoom_ = true;
  client::Timer limit_{nullptr};  ///< runs while answers are awaited
  client::SlicedWork work_{nullptr};
  client::BadgeStream stream_;
};

}  // namespace vornet::vi
