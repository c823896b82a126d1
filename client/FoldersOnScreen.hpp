#pragma once

#include <glib.h>

#include <deque>
#include <memory>
#include <string>
#include <string_view>
#include <unordered_map>
#include <vector>

#include "FileManager.hpp"
#include "LeftFolders.hpp"

namespace vornet::client {

/// One item of a folder on screen.
struct Entry {
  std::shared_ptr<ShownItem> item;
  std::string_view emblem;  ///< its icon, a literal, as last heard; "" for none, and before anything was heard
  bool waiting = false;     ///< in one of the folder's lists of those to be asked for
  bool changed = false;     ///< in the folder's list of those to be redrawn
};

/// A folder that windows show or hold, or that is taken to be on screen because its items are asked for.
struct Folder {
  std::string path;
  unsigned id = 0;        ///< no other folder has it, not even the same one when it comes on screen again
  int shown = 0;          ///< windows, tabs and panes in front that show it
  int opened = 0;         ///< tabs and views that hold it, in front or not
  gint64 leftAt = 0;      ///< when the last of these left it; monotonic, in microseconds; 0 for not just now
  bool inferred = false;  ///< no window reports it; observed all the same
  bool wasInferred = false;

  int begun = 0;          ///< observations begun and not ended, with the extension that runs now
  bool observed = false;  ///< one of them has succeeded
  bool refused = false;   ///< for good: it lies outside, or is no folder
  bool tooMany = false;   ///< the extension has no room: its badges are asked for now and then

  std::unordered_map<std::string, Entry> entries;  ///< by name
  std::size_t crowded = 1024;                      ///< so many entries are searched for items that are gone
  Emblems remembered;                              ///< from its last time on screen, of items that are not shown yet
  std::vector<std::string> waiting;                ///< names to be asked for
  std::deque<std::vector<std::string>> again;      ///< batches that failed, to be asked for again
  std::vector<std::string> changed;                ///< names to be redrawn
  std::size_t unanswered = 0;                      ///< items that were asked for and not yet heard of
  gint64 lastNew = 0;                              ///< when the last item came; monotonic, in microseconds

  gint64 lastAsked = 0;  ///< when the file manager asked for an item; monotonic, in microseconds
  gint64 testedAt = 0;   ///< when it was tested whether it still does; 0 while no test is on

  /// Whether the file manager keeps its items and their emblems, and asks for none of them again by itself.
  bool isHeld() const { return opened > 0 || leftAt != 0; }
};

/// The folders on screen and in background tabs, and what is known of their items. Not thread-safe.
class FoldersOnScreen {
 public:
  using Map = std::unordered_map<std::string, std::unique_ptr<Folder>>;

  /// The folder at `path`, which is made when there is none.
  Folder& at(std::string_view path);

  /// The folder at `path`; null for none.
  Folder* find(std::string_view path) const;

  /// The same, but null when it left the screen and came back since it had `id`.
  Folder* find(std::string_view path, unsigned id) const;

  void erase(const std::string& path) { folders_.erase(path); }

  /// Whether some window shows the folder at `path`, or one below it.
  bool showsWithin(std::string_view path) const;

  const Map& all() const { return folders_; }

  /// The paths of all folders: to go through them while some are erased.
  std::vector<std::string> paths() const;

 private:
  Map folders_;
  unsigned lastId_ = 0;
};

}  // namespace vornet::client
