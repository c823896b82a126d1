#pragma once

#include <optional>
#include <string>
#include <utility>

#include "KnownItems.hpp"
#include "Module.hpp"

namespace vornet::gtk {

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
    // The new first: where both are one folder, it does not leave the screen in between.
    if (moved && folder_) module->items().opened(*folder_);
    if (shows) module->items().shown(*folder_);
    if (showed) module->items().hidden(*before);
    if (moved && before) module->items().closed(*before);
  }

 private:
  std::optional<std::string> folder_;
  bool shows_ = false;
};

}  // namespace vornet::gtk
