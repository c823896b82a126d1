#pragma once

#include <glib-object.h>

#include <memory>

namespace vornet::gtk {

/// Tells the plug-in which folders come on screen and leave it. How, each file manager's own source file knows:
/// FolderWidgets.cpp or NautilusWindows.cpp. A folder is on screen while the active tab of a window, or a pane of it,
/// shows it. The main thread's.
class FolderWatch {
 public:
  /// Listens until its end. It tells nothing more at its end: the module ends with it.
  static std::unique_ptr<FolderWatch> make();

  /// Adds to `provider`, a type of `types`, what the file manager needs for that.
  static void addInterfaces(GTypeModule* types, GType provider);

  virtual ~FolderWatch() = default;
};

}  // namespace vornet::gtk
