#pragma once

#include <string>
#include <string_view>
#include <vector>

namespace vornet::client {

/// Local paths, with the bytes they have on disk.
using Selection = std::vector<std::string>;

struct MenuEntry {
  std::string title;
  std::string action;  ///< what Plugin::perform() takes: "copyLink:"
  bool enabled = false;
  std::string icon;   ///< name in the icon theme; empty for none
  std::string tip{};  ///< why it is greyed; empty when unknown

  bool operator==(const MenuEntry&) const = default;
};

/// The entries to show, in order; empty where none belongs.
using Menu = std::vector<MenuEntry>;

/// The state that the emblem `emblem` shows, in the words that the extension has for it: "Synced"; "" for none.
const char* labelOf(std::string_view emblem);

/// One item as the file manager holds it, so that it can be redrawn. The library keeps it while a window, tab or view
/// holds the item's folder. It must not keep the file manager's own object alive.
class ShownItem {
 public:
  virtual ~ShownItem() = default;

  /// The emblem of the item at `path` is `emblem` ("" for none), or has to be drawn again. A file manager that still
  /// shows the item may ask Plugin::emblem() for it, within the call or later, and gets the same answer; if it does not
  /// ask, the library infers that the folder has left the screen. This object lives until the call returns, even when
  /// another replaces it meanwhile. Must not throw.
  virtual void redraw(const std::string& path, const std::string& emblem) = 0;

  /// True if the file manager has freed the item; the library then forgets it.
  virtual bool isGone() const { return false; }
};

/// The library's other callbacks to the file manager. Called on the thread of the main context, never from within a
/// call into the library. Must not throw.
class FileManager {
 public:
  virtual ~FileManager() = default;

  /// The entries of `selection`, one of the last few that Plugin::menu() was asked for, have changed: ask again if they
  /// are still shown.
  virtual void menuChanged(const Selection& selection) = 0;

  /// The badges of `folder`, which Plugin::areBadgesComing() said were on their way, are known, or come too late to
  /// wait for them.
  virtual void badgesCame(const std::string& /*folder*/) {}
};

}  // namespace vornet::client
