#pragma once

#include <string>

namespace vornet::client {

/// One item as the file manager holds it, so that it can be drawn anew. The library keeps it while the item's folder is
/// on screen and no longer; it must not keep the file manager's own object alive.
class ShownItem {
 public:
  virtual ~ShownItem() = default;

  /// The emblem of the item at `path` may be another now. A file manager that still shows the item asks
  /// Plugin::emblem() for it again, within the call or later; one that has ceased to show it does nothing, and from
  /// that silence the library infers that a folder has left the screen. Must not throw.
  virtual void redraw(const std::string& path) = 0;
};

/// What the library tells the file manager besides. Called on the thread of the main context, never from within a call
/// into the library. Must not throw.
class FileManager {
 public:
  virtual ~FileManager() = default;

  /// The entries of the selection that Plugin::menu() was last asked for are others now: ask again.
  virtual void menuChanged() = 0;
};

}  // namespace vornet::client
