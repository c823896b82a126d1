#pragma once

#include <gio/gio.h>

#include <functional>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

#include "FoldersOnScreen.hpp"
#include "MainLoop.hpp"

namespace vornet::client {

/// The icon of the badge `identifier`, a literal: "SYNCED" -> "emblem-vornet-synced"; "" for an identifier that is none
/// of ours.
std::string_view emblemOf(std::string_view identifier);

/// Reads what the extension sends about badges, in its order and in slices, and has the items redrawn whose emblem
/// changed. However much comes, no more is kept than one large message or a few megabytes of small ones,
/// and for each item on screen one pending redraw. Not thread-safe: the context's thread only.
class BadgeUpdates {
 public:
  /// The emblems of some items of one folder.
  struct Answer {
    std::string folder;
    unsigned folderId = 0;
    std::vector<std::string> names;
    std::vector<std::string_view> emblems;  ///< as many
  };

  /// `missed` is called when changes were dropped unread, because more came than are kept. The badges of what is on
  /// screen are to be asked for again.
  BadgeUpdates(GMainContext* context, FoldersOnScreen& folders, std::function<void()> missed);
  BadgeUpdates(const BadgeUpdates&) = delete;
  BadgeUpdates& operator=(const BadgeUpdates&) = delete;

  /// `applied` is called when the changed ones have been redrawn.
  void takeAnswer(Answer answer, std::function<void()> applied);

  /// `changes`: a(ss), an item's URL and identifier. Kept until it is read.
  void takeChanges(GVariant* changes);

  /// Drops what has not been read: it came from an extension that has gone.
  void dropUnread();

  /// The emblem of an item is `emblem` now.
  void applyBadge(Folder& folder, const std::string& name, std::string_view emblem);

  /// Has the file manager draw every item of `folder` again, which may be forgotten meanwhile.
  void redrawAll(const Folder& folder);

 private:
  struct Message;

  bool read(Message& message);
  bool redrawNext();

  FoldersOnScreen& folders_;
  std::function<void()> missed_;
  SlicedWork work_;
  Disposal disposal_;
  std::size_t unread_ = 0;   ///< memory of what waits to be read, in bytes
  unsigned generation_ = 0;  ///< counts the extension's processes
  bool isRedrawing_ = false;
};

}  // namespace vornet::client
