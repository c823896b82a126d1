#pragma once

#include <array>
#include <optional>
#include <string_view>
#include <vector>

#include "kelvane-sim/FolderModel.hpp"

/// Which context-menu actions the stand-in sync application offers. Pure functions; any thread may call them.
namespace vornet::sim {

/// One action: its identifier on the wire and its name in the journal.
struct MenuAction {
  std::string_view uid;
  std::string_view name;
};

/// The five actions in the order of their identifiers "1" to "5".
inline constexpr std::array<MenuAction, 5> MENU_ACTIONS{{
    {"1", "Share"},
    {"2", "Copy Link"},
    {"3", "View in Cloud"},
    {"4", "Comments"},
    {"5", "View versions"},
}};

/// The action with the identifier `uid`; none for any other text.
std::optional<MenuAction> menuActionWithUid(std::string_view uid) noexcept;

/// Which of MENU_ACTIONS are enabled for a selection. `items`: one element for each selected path, none for a path that
/// is not known. Nothing is enabled for an empty selection, nor when an item is unknown or its code is neither 1
/// (pending) nor 2 (synced). Otherwise
/// - "1" share as link:  one or more items
/// - "2" copy link:      exactly one item
/// - "3" view in cloud:  one or more items
/// - "4" comments:       exactly one item
/// - "5" view versions:  exactly one item that is a synced file (folders have no versions).
std::array<bool, 5> enabledActions(const std::vector<std::optional<FolderModel::Item>>& items);

}  // namespace vornet::sim
