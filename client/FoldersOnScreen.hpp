#pragma once

#include <glib.h>

#include <deque>
#include <functional>
#include <list>
#include <memory>
#include <string>
#include <string_view>
#include <unordered_map>
#include <utility>
#include <vector>

#include "FileManager.hpp"

namespace vornet::client {

/// Emblems of a folder's items, by name. An emblem is a literal; items without one are left out.
using Emblems = std::unordered_map<std::string, std::string_view>;

/// One item of a folder on screen.
struct Entry {
  std::shared_ptr<ShownItem> item;
  std::string_view emblem;  ///< its icon, a literal, as last reported; "" for none, and until then
  bool waiting = false;     ///< it is in one of the folder's lists of items to request
  bool changed = false;     ///< it is in the folder's list of items to redraw
  unsigned snapshot = 0;    ///< the folder's last snapshot that named it
};

using Entries = std::unordered_map<std::string, Entry>;  ///< by name

/// A folder that windows show or hold, or that is taken to be on screen because its items are asked for.
struct Folder {
  std::string path;
  unsigned id = 0;        ///< unique; the same folder gets another one when it comes back to the screen
  int shown = 0;          ///< windows, tabs and panes in front that show it
  int opened = 0;         ///< tabs and views that hold it, in front or not
  gint64 leftAt = 0;      ///< when the last of these left it; monotonic, in microseconds; 0 unless recently
  bool inferred = false;  ///< no window reports it; observed all the same
  bool wasInferred = false;
  gint64 expected = 0;  ///< when it was said that it will soon be shown; monotonic, in microseconds; 0 for not expected
  gint64 awaited = 0;   ///< since when the file manager waits for its first badges; as `expected`
  bool came = false;    ///< they have come, or nobody waits for them any more

  int begun = 0;          ///< observations begun and not ended, with the extension that runs now
  bool observed = false;  ///< one of them has succeeded
  bool refused = false;   ///< for good: outside the synced folder, or not a folder
  bool tooMany = false;   ///< the extension has no room: its badges are requested periodically
  bool singly = false;    ///< it has no snapshot: its items are requested

  guint64 stream = 0;       ///< in which the extension sends its badges; 0 for none
  unsigned snapshot = 0;    ///< counts those that have begun
  bool isComplete = false;  ///< one has ended in this stream: items that it did not name have no badge

  Entries entries;
  std::size_t lookedAt = 0;                    ///< buckets of `entries` that were searched for gone items
  Emblems remembered;                          ///< from its last time on screen, of items that are not shown yet
  Emblems unshown;                             ///< from its stream, of items that are not shown yet
  std::size_t keptBytes = 0;                   ///< of their names, with those shown since the last snapshot began
  std::vector<std::string> waiting;            ///< names to request
  std::deque<std::vector<std::string>> again;  ///< failed batches to retry
  std::vector<std::string> changed;            ///< names to redraw
  std::size_t unanswered = 0;                  ///< items requested and not yet answered
  gint64 lastNew = 0;                          ///< when the last item came; monotonic, in microseconds

  gint64 lastAsked = 0;  ///< when the file manager asked for an item; monotonic, in microseconds
  gint64 testedAt = 0;   ///< when a test whether it still asks began; 0 while none runs

  /// True if the file manager keeps its items and their emblems, and asks for none of them again by itself.
  bool isHeld() const { return opened > 0 || leftAt != 0; }
};

/// The folders on screen and in background tabs, and what is known of their items. Not thread-safe.
class FoldersOnScreen {
 public:
  using Map = std::unordered_map<std::string, std::unique_ptr<Folder>>;

  /// The folder at `path`; makes one if there is none.
  Folder& at(std::string_view path);

  /// The folder at `path`; null for none.
  Folder* find(std::string_view path) const;

  /// The folder with this stream; null for none.
  Folder* findStream(guint64 stream) const;

  /// The same, but null unless it still has `id`.
  Folder* find(std::string_view path, unsigned id) const;

  void erase(const std::string& path) { folders_.erase(path); }

  /// True if some window shows the folder at `path`, or one below it.
  bool showsWithin(std::string_view path) const;

  const Map& all() const { return folders_; }

  /// The paths of all folders, for loops that erase some.
  std::vector<std::string> paths() const;

 private:
  Map folders_;
  unsigned lastId_ = 0;
};

/// A folder that has left the screen. All of a large one at once would take milliseconds, so its items are read by and
/// by.
struct LeftFolder {
  std::string path;
  Emblems emblems;  ///< of items that are not in `entries`
  Entries entries;
  bool isComplete = false;         ///< no other item has a badge
  Entries::const_iterator next{};  ///< of those to be read
};

/// The emblems of the folders that left the screen last, which are shown at once when a folder comes back. Bounded in
/// folders and items. Not thread-safe.
class LeftFolders {
 public:
  static constexpr std::size_t MOST_FOLDERS = 16;
  static constexpr std::size_t MOST_ITEMS = 50'000;

  /// Remembers the emblems of `folder` when its items have been read; forgets those that were left longest ago when
  /// there is no room. One with more than MOST_ITEMS is not remembered. One that has none and is not complete does not
  /// replace what is remembered of its path.
  void add(const std::shared_ptr<LeftFolder>& folder);

  /// Reads up to `items` items of a folder that was added. False when all are read. The functions below read the rest
  /// of the folders that they concern.
  bool read(LeftFolder& folder, std::size_t items);

  /// Removes and returns the emblems of the folder at `path`; empty for a folder that is not remembered.
  Emblems take(const std::string& path);

  /// True if the folder at `path` is remembered.
  bool has(const std::string& path);

  /// Forgets the folders for which `keep` returns false.
  void keepOnly(const std::function<bool(const std::string& path)>& keep);

 private:
  void readRest(const std::string& path);
  void remember(const std::string& path, Emblems emblems);
  Emblems remove(const std::string& path);

  std::vector<std::shared_ptr<LeftFolder>> beingRead_;
  std::list<std::pair<std::string, Emblems>> folders_;  ///< the one left last comes first
  std::size_t items_ = 0;
};

}  // namespace vornet::client
