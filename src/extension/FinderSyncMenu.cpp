// The context menu, the toolbar item and the menu's actions of the principal class.
#include <algorithm>
#include <array>

#include "base/AppConst.hpp"
#include "extension/FinderSync.hpp"
#include "extension/SharedObjects.hpp"
#include "logging/Logging.hpp"
#include "logging/PrintedForm.hpp"
#include "paths/Paths.hpp"
#include "rest/RESTPollingManager.hpp"

namespace vornet {
namespace {

using platform::FIFinderSyncController;

struct Entry {
  std::string_view title;
  std::string_view action;
  std::string_view key;  // in the sync application's answer
};

constexpr std::array<Entry, 5> ENTRIES = {{
    {"Share", "share:", MENU_SHARE_AS_LINK},
    {"Copy Link", "copyLink:", MENU_COPY_LINK},
    {"Comments", "notes:", MENU_VIEW_NOTES},
    {"View versions", "viewVersions:", MENU_VIEW_VERSIONS},
    {"View in Cloud", "viewInCloud:", MENU_CFS},
}};

bool isTrue(const std::map<std::string, bool>& map, std::string_view key) {
  const auto found = map.find(std::string(key));
  return found != map.end() && found->second;
}

}  // namespace

std::string FinderSync::toolbarItemName() const {
  return "";
}

std::string FinderSync::toolbarItemToolTip() const {
  return "";
}

platform::Image FinderSync::toolbarItemImage() const {
  return platform::Image();
}

std::vector<std::string> FinderSync::selectedCloudPaths() const {
  const auto* root = requiredStatusManager().rootDir();
  if (!root) platform::fatalError("a selection without a synced folder");
  const auto selection = FIFinderSyncController::defaultController().selectedItemURLs();
  if (!selection) platform::fatalError("no selection");
  return urlsToCloudPaths(*root, selection);
}

std::optional<platform::ContextMenu> FinderSync::menuForMenuKind(platform::FIMenuKind kind) {
  VI_DEBUG("Menu kind: FIMenuKind(rawValue: " + std::to_string(static_cast<std::uint64_t>(kind)) + ")");
  RESTPollingManager& manager = requiredStatusManager();
  const bool enabled = manager.menuEnabled();
  if (kind != platform::FIMenuKind::contextualMenuForItems || !enabled) return std::nullopt;

  const auto answer = manager.menu().menuEnabledDict(selectedCloudPaths());
  VI_DEBUG("File menu activation status: " + printedForm(answer));
  platform::ContextMenu menu;
  for (const auto& entry : ENTRIES) {
    menu.items.push_back({.title = std::string(entry.title),
                          .action = std::string(entry.action),
                          .image = vornetImg(),
                          .enabled = isTrue(answer, entry.key)});
  }
  return menu;
}

bool FinderSync::isMenuAction(std::string_view selector) {
  return std::any_of(ENTRIES.begin(), ENTRIES.end(), [&](const Entry& entry) { return entry.action == selector; });
}

void FinderSync::viewInCloud() {
  const platform::AutoreleasePool pool;
  const auto paths = selectedCloudPaths();
  if (paths.empty()) return;
  VI_DEBUG("View in cloud triggered for: " + printedForm(paths));
  requiredStatusManager().menu().viewInCloud(paths);
}

void FinderSync::notes() {
  const platform::AutoreleasePool pool;
  const auto paths = selectedCloudPaths();
  if (paths.size() != 1) {
    VI_DEBUG("Unable to view notes, " + std::to_string(paths.size()) + " files selected");
    return;
  }
  requiredStatusManager().menu().viewNotes(paths);
}

void FinderSync::viewVersions() {
  const platform::AutoreleasePool pool;
  const auto paths = selectedCloudPaths();
  if (paths.size() != 1) {
    VI_DEBUG("Unable to view versions, " + std::to_string(paths.size()) + " files selected");
    return;
  }
  requiredStatusManager().menu().viewVersions(paths);
}

void FinderSync::share() {
  const platform::AutoreleasePool pool;
  requiredStatusManager().menu().shareAsLink(selectedCloudPaths());
}

void FinderSync::copyLink() {
  const platform::AutoreleasePool pool;
  requiredStatusManager().menu().copyLink(selectedCloudPaths());
}

}  // namespace vornet
