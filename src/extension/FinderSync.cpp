#include "extension/FinderSync.hpp"

#include <algorithm>
#include <chrono>
#include <mutex>
#include <utility>

#include "base/AppConst.hpp"
#include "base/MenuEntries.hpp"
#include "extension/SharedObjects.hpp"
#include "logging/Logging.hpp"
#include "logging/PrintedForm.hpp"
#include "paths/Paths.hpp"
#include "rest/RESTPollingManager.hpp"

namespace vornet {
namespace {

using platform::FIFinderSyncController;
using platform::FileURL;

static_assert(FinderSync::MAX_FOLDERS == RESTPollingManager::MAX_CACHE_DIRS, "only cached folders report changes");

FIFinderSyncController& finder() {
  return FIFinderSyncController::defaultController();
}

const std::string& pathOfFolder(const FileURL& url) {
  if (!url.path()) platform::fatalError("an observed folder without a path");
  return *url.path();
}

void makeStatusManager(FinderSync& controller) {
  setupLogger(App().DEFAULT_LOG_LEVEL);
  statusManager() = std::make_shared<RESTPollingManager>();
  statusManager()->setFinderSync(&controller);
  statusManager()->start_listener();
}

RESTPollingManager::ItemListener asStatusListener(const FinderSync::BadgeListener& item) {
  return [&item](std::string_view name, StatusCode code) {
    const auto found = statusMap().find(code);
    item(name, found == statusMap().end() ? std::nullopt : std::optional(found->second));
  };
}

bool isTrue(const std::map<std::string, bool>& map, std::string_view key) {
  const auto found = map.find(std::string(key));
  return found != map.end() && found->second;
}

}  // namespace

bool FinderSync::init() {
  static std::mutex construction;
  const std::lock_guard guard(construction);

  client_ = RESTClient();
  if (platform::runningApplicationsWithBundleIdentifier(App().APP_CODENAME).size() >= 2) {
    platform::systemLog("VornetVIExt already running");
    platform::exitProcess(0);
  }
  if (!initBase()) return false;
  if (!statusManager()) {
    makeStatusManager(*this);
    VI_INFO("Started new status manager");
  }
  finder().setBadgeImage(failureImg(), "Not synced", statusFailure);
  finder().setBadgeImage(inProgressImg(), "Sync in progress", statusInProgress);
  finder().setBadgeImage(syncedImg(), "Synced", statusSynced);
  requiredStatusManager().setupLocalRoot();
  return true;
}

void FinderSync::setFileSyncStatus(const FileURL& url, std::int64_t status) {
  const auto found = statusMap().find(status);
  finder().setBadgeIdentifier(found == statusMap().end() ? statusNone : found->second, url);
}

void FinderSync::folderFilled(const FileURL& folder, bool first) {
  if (first) finder().invalidateBadges(folder);  // else each change was reported by itself
}

void FinderSync::syncApplicationAnswered(bool answered) {
  const std::lock_guard guard(answerLock_);
  if (answered)
    silentSince_.reset();
  else if (!silentSince_)
    silentSince_ = std::chrono::system_clock::now();
  if (answerListener_) answerListener_(silentSince_);
}

void FinderSync::setAnswerListener(AnswerListener listener) {
  const std::lock_guard guard(answerLock_);
  answerListener_ = std::move(listener);
}

void FinderSync::enableVI(const std::set<FileURL>& dirs) {
  finder().setDirectoryURLs(dirs);
}

void FinderSync::disableVI() {
  finder().setDirectoryURLs({});
}

void FinderSync::beginObservingDirectoryAtURL(const FileURL& url) {
  const std::string& path = pathOfFolder(url);
  VI_INFO("Directory enter: " + path);
  requiredStatusManager().dirEnter(path);
}

void FinderSync::endObservingDirectoryAtURL(const FileURL& url) {
  const std::string& path = pathOfFolder(url);
  VI_INFO("Directory exit: " + path);
  requiredStatusManager().dirExit(path);
}

void FinderSync::requestBadgeIdentifierForURL(const FileURL& url) {
  VI_DEBUG("Requesting ICON for " + url.path().value_or("nil"));
  if (!url.path()) return;
  const platform::AutoreleasePool pool;
  const auto status = requiredStatusManager().badgeFromCache(url);
  if (!status) return;
  const auto found = statusMap().find(*status);
  if (found == statusMap().end()) return;
  finder().setBadgeIdentifier(found->second, url);
}

bool FinderSync::isCached(const FileURL& url) const {
  return requiredStatusManager().isCached(url);
}

RESTPollingManager::Listed FinderSync::listCachedBadges(const std::string& folder, std::size_t most,
                                                        const BadgeListener& item) const {
  return requiredStatusManager().listCached(folder, most, asStatusListener(item));
}

RESTPollingManager::Listed FinderSync::listStoredBadges(const std::string& folder, std::size_t most,
                                                        const BadgeListener& item) const {
  return requiredStatusManager().listStored(folder, most, asStatusListener(item));
}

std::shared_ptr<const StatusTable> FinderSync::cachedStatuses(const std::string& folder) const {
  return requiredStatusManager().cachedStatuses(folder);
}

void FinderSync::keepCached(const std::string& folder) {
  RESTPollingManager& manager = requiredStatusManager();
  if (const auto* root = manager.rootDir()) manager.dirCache().enterNewDir(getCloudPath(*root, folder) + "/");
}

// --- The menu -------------------------------------------------------------------------------------------------------

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
  const auto selection = finder().selectedItemURLs();
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
  for (const auto& entry : MENU_ENTRIES) {
    menu.items.push_back({.title = std::string(entry.title),
                          .action = std::string(entry.selector),
                          .image = vornetImg(),
                          .enabled = isTrue(answer, entry.identifier)});
  }
  return menu;
}

bool FinderSync::isMenuAction(std::string_view selector) {
  return std::any_of(MENU_ENTRIES.begin(), MENU_ENTRIES.end(),
                     [&](const MenuEntry& entry) { return entry.selector == selector; });
}

void FinderSync::viewInCloud() {
  const platform::AutoreleasePool pool;
  const auto paths = selectedCloudPaths();
  if (!menuEntry(MENU_CFS).takes(paths.size())) return;
  VI_DEBUG("View in cloud triggered for: " + printedForm(paths));
  requiredStatusManager().menu().viewInCloud(paths);
}

void FinderSync::notes() {
  const platform::AutoreleasePool pool;
  const auto paths = selectedCloudPaths();
  if (!menuEntry(MENU_VIEW_NOTES).takes(paths.size())) {
    VI_DEBUG("Unable to view notes, " + std::to_string(paths.size()) + " files selected");
    return;
  }
  requiredStatusManager().menu().viewNotes(paths);
}

void FinderSync::viewVersions() {
  const platform::AutoreleasePool pool;
  const auto paths = selectedCloudPaths();
  if (!menuEntry(MENU_VIEW_VERSIONS).takes(paths.size())) {
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
