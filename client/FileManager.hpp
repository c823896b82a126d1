#pragma once

#include <string>

#include "Menu.hpp"

namespace vornet::client {

/// One item as the file manager holds it, so that it can be redrawn. The library keeps it while a window, tab or view
/// holds the item's folder. It must not keep the file manager's own object alive.
class ShownItem {
 public:
  virtual ~ShownItem() = default;

  /// The emblem of the item at `path` is `emblem` ("" for none), or has to be drawn again. A file manager that still
  /// shows the item may ask Plugin::emblem() for it, within the call or later, and is answered the same; from silence
  /// the library infers that a folder has left the screen. This object lives until the call returns, even when another
  /// takes its place meanwhile. Must not throw.
  virtual void redraw(const std::string& path, const std::string& emblem) = 0;

  /// Whether the file manager has let go of the item for good: then the library forgets it.
  virtual bool isGone() const { return false; }
};

/// What else the library reports to the file manager. Called on the thread of the main context, never from within a
/// call into the library. Must not throw.
class FileManager {
 public:
  virtual ~FileManager() = default;

  /// The entries of `selection`, one of the last few that Plugin::menu() was asked for, have changed: ask again, if
  /// somebody still sees them.
  virtual void menuChanged(const Selection& selection) = 0;
};

}  // namespace vornet::client
