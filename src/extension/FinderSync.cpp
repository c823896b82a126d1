#include "extension/FinderSync.hpp"

#include <mutex>

#include "base/AppConst.hpp"
#include "extension/SharedObjects.hpp"
#include "logging/Logging.hpp"
#include "paths/Paths.hpp"
#include "rest/RESTPollingManager.hpp"

namespace vornet {
namespace {

using platform::FIFinderSyncController;
using platform::FileURL;

FIFinderSyncController& finder() {
  return FIFinderSyncController::defaultController();
}

const std::string& requiredPath(const FileURL& url) {
  if (!url.path()) platform::fatalError("an observed folder without a path");
  return *url.path();
}

void makeStatusManager(FinderSync& controller) {
  setupLogger(App().DEFAULT_LOG_LEVEL);
  statusManager() = std::make_shared<RESTPollingManager>();
  statusManager()->setFinderSync(&controller);
  statusManager()->start_listener();
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

void FinderSync::enableVI(const std::set<FileURL>& dirs) {
  finder().setDirectoryURLs(dirs);
}

void FinderSync::disableVI() {
  finder().setDirectoryURLs({});
}

void FinderSync::beginObservingDirectoryAtURL(const FileURL& url) {
  const std::string& path = requiredPath(url);
  VI_INFO("Directory enter: " + path);
  requiredStatusManager().dirEnter(path);
}

void FinderSync::endObservingDirectoryAtURL(const FileURL& url) {
  const std::string& path = requiredPath(url);
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

std::size_t FinderSync::maxFolders() noexcept {
  return RESTPollingManager::MAX_CACHE_DIRS;
}

void FinderSync::keepCached(const std::string& folder) {
  RESTPollingManager& manager = requiredStatusManager();
  if (const auto* root = manager.rootDir()) manager.dirCache().enterNewDir(getCloudPath(*root, folder) + "/");
}

}  // namespace vornet
