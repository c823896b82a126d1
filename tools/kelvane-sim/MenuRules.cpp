#include "kelvane-sim/MenuRules.hpp"

#include <algorithm>

namespace vornet::sim {

std::optional<MenuAction> menuActionWithUid(std::string_view uid) noexcept {
  const auto found =
      std::find_if(MENU_ACTIONS.begin(), MENU_ACTIONS.end(), [&](const MenuAction& a) { return a.uid == uid; });
  if (found == MENU_ACTIONS.end()) return std::nullopt;
  return *found;
}

std::array<bool, 5> enabledActions(const std::vector<std::optional<FolderModel::Item>>& items) {
  const bool allInCloud = std::all_of(items.begin(), items.end(), [](const std::optional<FolderModel::Item>& item) {
    return item && (item->code == CODE_PENDING || item->code == CODE_SYNCED);
  });
  if (items.empty() || !allInCloud) return {};
  const bool single = items.size() == 1;
  const bool syncedFile = single && !items.front()->folder && items.front()->code == CODE_SYNCED;
  return {true, single, true, single, syncedFile};
}

}  // namespace vornet::sim
