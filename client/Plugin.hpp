#pragma once

#include <gio/gio.h>

#include <chrono>
#include <memory>
#include <string>

#include "FileManager.hpp"

namespace vornet::client {

/// The extension as a file manager's plug-in sees it: the emblems of what is on screen, and the menu of a selection. It
/// answers at once from what it knows and asks the extension meanwhile; ShownItem::redraw and FileManager::menuChanged
/// report the answers. Nothing here waits, throws or stops the process, whatever happens to the extension or to the
/// bus.
///
/// Not thread-safe: constructed, called and destroyed on one thread, that of its main context. Callbacks come in
/// portions of a few milliseconds, so that the window stays quick.
///
/// Paths are local, with the bytes they have on disk; a folder's may end in "/". Paths.hpp makes them of URLs.
class Plugin {
 public:
  struct Options {
    /// Callbacks run here; null: the thread's default.
    GMainContext* context = nullptr;
    /// How long the first item to be asked for waits for others of its batch.
    std::chrono::milliseconds gathering{5};
    /// How long items of a folder that nobody has shown wait for folderShown() before the folder counts as on screen (a
    /// tree's branch, a search's results).
    std::chrono::milliseconds beforeInferring{200};
    /// After this time without a question an inferred folder is tested by ShownItem::redraw(); after as long again
    /// without one it is forgotten.
    std::chrono::milliseconds inferredFor{20'000};
    /// Between attempts to start an extension that keeps ending, or to ask it what it keeps refusing: the first wait,
    /// doubled each time, and the longest.
    std::chrono::milliseconds firstRetry{1'000};
    std::chrono::milliseconds lastRetry{30'000};
    /// How often badges are requested, and observing is retried, in a folder that the extension does not observe
    /// because it observes too many.
    std::chrono::milliseconds unobservedRefresh{5'000};
    /// How long the items of a folder are kept after the last tab has left it. By then the file manager has stopped
    /// watching it, so it does not ask for them when they are redrawn.
    std::chrono::milliseconds leaving{1'000};
    /// How long a folder is observed that is expected and not shown.
    std::chrono::milliseconds expecting{2'000};
    /// How long the first badges of a folder may be on their way. The extension sends them within 150 ms, though the
    /// sync application may be silent.
    std::chrono::milliseconds coming{250};
  };

  /// Does not touch the bus before the first call that needs it. `fileManager` outlives it.
  explicit Plugin(FileManager& fileManager);
  Plugin(FileManager& fileManager, const Options& options);

  /// Leaves the bus, which ends every observation. No callback comes afterwards.
  ~Plugin();
  Plugin(const Plugin&) = delete;
  Plugin& operator=(const Plugin&) = delete;

  /// A window is likely to show `folder` in a moment: its badges are asked for now, so that they are there before its
  /// items are. Without folderShown() it is forgotten soon.
  void folderExpected(const std::string& folder);

  /// A window, tab or pane begins or stops showing `folder`. Counted: two windows show it twice. What is hidden more
  /// often than shown is ignored.
  void folderShown(const std::string& folder);
  void folderHidden(const std::string& folder);

  /// A tab, pane or view begins or stops holding `folder`, whether it is in front or not. Counted. While one holds it,
  /// the library keeps its items, for which the file manager asks only once: their emblems do not change in the
  /// background, and are updated soon after folderShown(). Shortly after the last one has left, the items are redrawn,
  /// so that the file manager asks for them again when the user comes back.
  void folderOpened(const std::string& folder);
  void folderClosed(const std::string& folder);

  /// The icon name of the emblem of the item at `path`; "" for none, or while it is unknown. The last one known where
  /// the item's folder has just come back to the screen. `item` replaces the one given for the same path before.
  std::string emblem(const std::string& path, std::shared_ptr<ShownItem> item);

  /// True while the first badges of the folder that has the item at `path` are on their way to a window. A file manager
  /// that can answer later calls emblem() after FileManager::badgesCame(), and then draws the folder's items once.
  bool areBadgesComing(const std::string& path);

  /// The largest selection that is sent to the extension; the entries of a larger one are greyed.
  static constexpr std::size_t LARGEST_SELECTION = 1000;

  /// The menu of `selection`. Empty when nothing is selected, or when any item is outside the synced folder. Greyed
  /// until the extension has answered; an answer older than a second is returned, and requested again. The last few
  /// selections' answers are remembered, so that several windows may each ask for their own.
  Menu menu(const Selection& selection);

  /// The user looks at something that a menu may be opened for: starts the extension if it does not run.
  void ensureStarted();

  /// Performs `action` on `selection`. A failure is a line in the file manager's log.
  void perform(const std::string& action, const Selection& selection);

 private:
  class Impl;
  std::unique_ptr<Impl> impl_;
};

}  // namespace vornet::client
