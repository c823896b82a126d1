#pragma once

#include <optional>
#include <string>
#include <utility>

#include "Module.hpp"

namespace vornet::gtk {

/// What one tab or pane shows: a folder or nothing. Whatever the order of the events, each folder that came on screen
/// leaves it exactly once.
class ShownFolder {
 public:
  ShownFolder() = default;
  ~ShownFolder() { show(std::nullopt); }
  ShownFolder(const ShownFolder&) = delete;
  ShownFolder& operator=(const ShownFolder&) = delete;

  /// From now on it shows `folder` (none: nothing), and no other.
  void show(std::optional<std::string> folder) {
    if (folder == folder_) return;
    const auto before = std::exchange(folder_, std::move(folder));
    Module* module = Module::current();
    if (!module) return;
    if (folder_) module->plugin().folderShown(*folder_);
    if (before) module->plugin().folderHidden(*before);
  }

 private:
  std::optional<std::string> folder_;
};

}  // namespace vornet::gtk
