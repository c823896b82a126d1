#pragma once

#include <glib-object.h>

#include <memory>
#include <optional>
#include <string>
#include <utility>

#include "Module.hpp"

namespace vornet::gtk {

/// Reports which folders come on screen and leave it. FolderWidgets.cpp and NautilusWindows.cpp implement it for their
/// file managers. A folder is on screen while the active tab of a window, or a pane of it, shows it. The main thread's.
class FolderWatch {
 public:
  /// Listens while it lives. Reports nothing when it is destroyed: the module ends with it.
  static std::unique_ptr<FolderWatch> make();

  /// Adds to `provider`, a type of `types`, what the file manager needs for that.
  static void addInterfaces(GTypeModule* types, GType provider);

  virtual ~FolderWatch() = default;
};

/// A tab or pane of a window: the folder that it holds, if any, and whether it is in front. Whatever the order of the
/// events, each folder that came on screen leaves it exactly once.
class Tab {
 public:
  Tab() = default;
  ~Tab() { update(std::nullopt, false); }
  Tab(const Tab&) = delete;
  Tab& operator=(const Tab&) = delete;

  void update(std::optional<std::string> folder, bool inFront) {
    const bool shows = folder && inFront;
    const bool moved = folder != folder_;
    if (!moved && shows == shows_) return;
    const auto before = std::exchange(folder_, std::move(folder));
    const bool showed = std::exchange(shows_, shows);
    Module* module = Module::current();
    if (!module) return;
    client::Plugin& plugin = module->plugin();
    // Opens the new one first: if both are the same folder, it does not leave the screen in between.
    if (moved && folder_) plugin.folderOpened(*folder_);
    if (shows) plugin.folderShown(*folder_);
    if (showed) plugin.folderHidden(*before);
    if (moved && before) plugin.folderClosed(*before);
  }

 private:
  std::optional<std::string> folder_;
  bool shows_ = false;
};

}  // namespace vornet::gtk
