#pragma once

#include <algorithm>
#include <array>
#include <cstddef>
#include <string_view>

#include "base/AppConst.hpp"

namespace vornet {

/// The number of selected items that a menu entry's action takes.
enum class SelectionRule { anyNumber, exactlyOne, atLeastOne };

/// One entry of the context menu.
struct MenuEntry {
  std::string_view title;
  std::string_view selector;    ///< what the principal class is sent when the entry is chosen
  std::string_view identifier;  ///< the action's name to the sync application
  SelectionRule rule;

  constexpr bool takes(std::size_t items) const noexcept {
    if (rule == SelectionRule::exactlyOne) return items == 1;
    return rule == SelectionRule::anyNumber || items > 0;
  }
};

/// The context menu's entries from top to bottom.
inline constexpr std::array<MenuEntry, 5> MENU_ENTRIES = {{
    {"Share", "share:", MENU_SHARE_AS_LINK, SelectionRule::anyNumber},
    {"Copy Link", "copyLink:", MENU_COPY_LINK, SelectionRule::anyNumber},
    {"Comments", "notes:", MENU_VIEW_NOTES, SelectionRule::exactlyOne},
    {"View versions", "viewVersions:", MENU_VIEW_VERSIONS, SelectionRule::exactlyOne},
    {"View in Cloud", "viewInCloud:", MENU_CFS, SelectionRule::atLeastOne},
}};

/// The entry whose action is `identifier`, one of the five.
constexpr const MenuEntry& menuEntry(std::string_view identifier) noexcept {
  return *std::find_if(MENU_ENTRIES.begin(), MENU_ENTRIES.end(),
                       [&](const MenuEntry& entry) { return entry.identifier == identifier; });
}

}  // namespace vornet
