#pragma once

#include <gio/gio.h>

#include <chrono>
#include <memory>
#include <string>
#include <vector>

#include "Backoff.hpp"
#include "BadgeUpdates.hpp"
#include "ExtensionLink.hpp"
#include "FileManager.hpp"
#include "FoldersOnScreen.hpp"
#include "LeftFolders.hpp"
#include "MainLoop.hpp"

namespace vornet::client {

/// Keeps the badges of what is on screen right: observes the folders, asks for their items' badges in batches, takes in
/// answers and changes in the order in which they come. What the extension refuses is asked for again, ever later. Not
/// thread-safe: the context's thread only.
class Badges {
 public:
  struct Pace {
    std::chrono::milliseconds gathering;   ///< the first item's wait for others of its batch
    Backoff retries;                       ///< between attempts at what fails
    std::chrono::milliseconds unobserved;  ///< between questions for folders that the extension has no room to observe
    std::chrono::milliseconds leaving;     ///< how long the items of a folder are kept that the last tab has left
  };

  Badges(GMainContext* context, ExtensionLink& link, FoldersOnScreen& folders, const Pace& pace);
  Badges(const Badges&) = delete;
  Badges& operator=(const Badges&) = delete;

  /// The emblem of an item of `folder`, as far as known; from now on `item` is redrawn when it changes.
  std::string_view emblem(Folder& folder, std::string_view name, std::unique_ptr<ShownItem> item);

  /// Whether items of the folder at `path` may carry badges, or it is not known yet that they do not.
  bool mayCarryBadges(std::string_view path) const;

  /// Begins and ends observations until there are as many as `folder` is shown.
  void syncObservations(Folder& folder);

  /// A window shows `folder`: observes it, and asks for what may have changed while it was not observed.
  void show(Folder& folder);

  /// The last tab has left `folder`: forgets it soon, and has its items redrawn then, so that the file manager asks for
  /// them when it shows them again.
  void leave(Folder& folder);

  /// Ends the observations of `folder`, which no window shows. Unless some tab holds it, only its emblems are kept.
  void forget(Folder& folder);

  /// Has the file manager draw every item of `folder` again that it still shows.
  void redrawAll(const Folder& folder) { updates_.redrawAll(folder); }

  void extensionReady();
  void extensionGone();
  void observedFoldersChanged();
  void badgesChanged(GVariant* changes) { updates_.takeChanges(changes); }

 private:
  struct Batch;

  void begin(Folder& folder);
  void began(Folder& folder);
  void notBegun(Folder& folder, const std::string& error);
  void pause();
  void refreshUnobservedLater();
  void refreshUnobserved();
  void askForAll(Folder& folder);
  void askForEverythingLater();
  void askSoon();
  void ask();
  bool askForNextBatch();
  void askForBatch(Folder& folder, std::vector<std::string> names);
  void answered(Batch& batch, GVariant* values, const std::string& error);
  void failed(Folder& folder, std::vector<std::string> names, const std::string& error);
  void traceAnswered(Folder& folder, std::size_t items);
  void clear(Folder& folder);
  void forgetGone(Folder& folder);
  void forgetLeft();

  ExtensionLink& link_;
  FoldersOnScreen& folders_;
  LeftFolders left_;
  BadgeUpdates updates_;
  SlicedWork questions_;
  Timer gathering_;
  Timer pause_;        ///< the extension is too busy: nothing is asked meanwhile
  Timer failedAgain_;  ///< batches that failed wait meanwhile
  Timer missed_;
  Timer unobserved_;
  Timer leaving_;
  Backoff busyRetries_;
  Backoff failureRetries_;
  const std::chrono::milliseconds gatheringTime_;
  const std::chrono::milliseconds missedPause_;
  const std::chrono::milliseconds unobservedPace_;
  const std::chrono::milliseconds leavingTime_;
  unsigned generation_ = 0;  ///< counts the extension's processes: answers of former ones are void
  unsigned batchesInFlight_ = 0;
  bool isAsking_ = false;
};

}  // namespace vornet::client
