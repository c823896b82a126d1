#pragma once

#include <gio/gio.h>

#include <chrono>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "BadgeStream.hpp"
#include "ExtensionLink.hpp"
#include "FileManager.hpp"
#include "FoldersOnScreen.hpp"
#include "MainLoop.hpp"

namespace vornet::client {

/// Keeps the badges of what is on screen up to date: observes the folders, applies snapshots and changes in the order
/// in which they come. Requests items' badges in batches where there is no snapshot: in folders that no window reports,
/// beyond the extension's limits, and from an older extension. Retries with back-off what the extension refuses. Not
/// thread-safe: the context's thread only.
class Badges : private BadgeStream::Listener {
 public:
  struct Pace {
    std::chrono::milliseconds gathering;   ///< the first item's wait for others of its batch
    Backoff retries;                       ///< between attempts at what fails
    std::chrono::milliseconds unobserved;  ///< between requests for folders that the extension has no room to observe
    std::chrono::milliseconds leaving;     ///< how long the items of a folder are kept after its last tab has left it
    std::chrono::milliseconds expecting;   ///< how long a folder is expected
    std::chrono::milliseconds coming;      ///< how long the file manager waits for a folder's first badges
  };

  /// `came` is called with each folder for which areComing() was true, once.
  Badges(GMainContext* context, ExtensionLink& link, FoldersOnScreen& folders, const Pace& pace,
         std::function<void(const std::string& folder)> came);
  Badges(const Badges&) = delete;
  Badges& operator=(const Badges&) = delete;

  /// The emblem of an item of `folder`, if known; from now on `item` is redrawn when it changes.
  std::string_view emblem(Folder& folder, std::string_view name, std::shared_ptr<ShownItem> item);

  /// True while the first badges of `folder` are on their way to a window, and for `Pace::coming` at most.
  bool areComing(Folder& folder);

  /// True if items of the folder at `path` may carry badges, and while that is unknown.
  bool mayCarryBadges(std::string_view path) const;

  /// Begins and ends observations until there are as many as `folder` is shown.
  void syncObservations(Folder& folder);

  /// A window is about to show `folder`: its badges are on their way before the first item is asked for.
  void expect(Folder& folder);

  /// A window shows `folder`: observes it, and asks for what may have changed while it was not observed.
  void show(Folder& folder);

  /// The last tab has left `folder`: forgets it soon, and has its items redrawn then, so that the file manager asks for
  /// them when it shows them again.
  void leave(Folder& folder);

  /// Ends the observations of `folder`, which no window shows. Unless some tab holds it, only its emblems are kept, and
  /// its items are redrawn if `redraws`.
  void forget(Folder& folder, bool redraws = false);

  /// Redraws every item of `folder`, until it is forgotten.
  void redrawAll(const Folder& folder);

  void extensionReady();
  void extensionGone();
  void observedFoldersChanged();

 private:
  using Batch = BadgeStream::Batch;

  std::optional<Batch> nextBatch() override;
  bool badgesAnswered(const Batch& batch, std::size_t begin, std::size_t end) override;
  void requestFailed(Batch batch, const CallError& error) override;
  void badgeChanged(const std::string& path, const std::string& identifier) override;
  void changesMissed() override;
  void folderBadges(guint64 stream, unsigned char flags, const std::vector<BadgeStream::NamedBadge>& items) override;

  bool hasStream(const Folder& folder) const;
  void newStream(Folder& folder) { folder.stream = ++lastStream_; }
  void requestSnapshot(Folder& folder);
  void snapshotRefused(Folder& folder, const std::string& error);
  void askSingly(Folder& folder);
  void endStream(Folder& folder);
  bool applyStreamed(Folder& folder, std::string_view name, std::string_view emblem);
  static bool keep(Folder& folder, std::string name, std::string_view emblem);
  void snapshotEnded(Folder& folder);
  void awaitNoLonger(Folder& folder);
  void forgetAwaited();
  void forgetExpected();
  void observe(Folder& folder);
  void begin(Folder& folder);
  void began(Folder& folder);
  void notBegun(Folder& folder, const std::string& error);
  void pause();
  void refreshUnobservedLater();
  void refreshUnobserved();
  void askForAll(Folder& folder);
  void askSoon();
  Batch batchOf(Folder& folder, std::vector<std::string> names);
  void failed(Folder& folder, std::vector<std::string> names, const std::string& error);
  void traceLater(const Folder& folder, std::size_t items);
  void traceAnswered(Folder& folder, std::size_t items);
  void applyBadge(Folder& folder, const std::string& name, std::string_view emblem);
  bool redrawNext();
  static void redraw(const Folder& folder, const std::string& name);
  void letGo(const std::string& path, const std::shared_ptr<Entries>& entries, bool redraws);
  void clear(Folder& folder);
  void forgetSomeGone(Folder& folder);
  void forgetGone(Folder& folder, const std::string& name);
  void forgetLeft();

  ExtensionLink& link_;
  FoldersOnScreen& folders_;
  LeftFolders left_;
  SlicedWork work_;
  BadgeStream stream_;
  Timer gathering_;
  Timer pause_;        ///< while it runs, nothing is requested: the extension is too busy
  Timer failedAgain_;  ///< failed batches wait for it
  Timer missed_;
  Timer unobserved_;
  Timer leaving_;
  Timer expecting_;
  Timer coming_;
  Timer tracing_;
  Backoff busyRetries_;
  Backoff failureRetries_;
  const std::chrono::milliseconds gatheringTime_;
  const std::chrono::milliseconds missedPause_;
  const std::chrono::milliseconds unobservedPace_;
  const std::chrono::milliseconds leavingTime_;
  const std::chrono::milliseconds expectingTime_;
  const std::chrono::milliseconds comingTime_;
  const std::function<void(const std::string&)> came_;
  guint64 lastStream_ = 0;
  unsigned generation_ = 0;  ///< counts the extension's processes: answers of earlier ones are ignored
  bool isRedrawing_ = false;
};

}  // namespace vornet::client
