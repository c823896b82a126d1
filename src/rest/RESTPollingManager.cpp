#include "rest/RESTPollingManager.hpp"

#include <algorithm>
#include <utility>

#include "base/AppConst.hpp"
#include "db/SyncDB.hpp"
#include "logging/Logging.hpp"
#include "logging/PrintedForm.hpp"
#include "paths/JSON.hpp"
#include "paths/Paths.hpp"
#include "rest/RESTClient.hpp"

namespace vornet {
namespace {

// A folder of half a million items has a reply of this size.
constexpr std::size_t STATUSES_LIMIT = std::size_t{64} << 20;

// The limit for the statuses of all folders together. A folder for which little of that is left may still have a reply
// of the lowest limit: some thousand items.
constexpr std::size_t ALL_STATUSES_LIMIT = std::size_t{96} << 20;
constexpr std::size_t LOWEST_STATUSES_LIMIT = std::size_t{1} << 20;

/// The largest reply allowed while the statuses of the other folders take `others` bytes.
std::size_t replyLimit(std::size_t others) {
  const std::size_t left = ALL_STATUSES_LIMIT - std::min(others, ALL_STATUSES_LIMIT);
  return std::clamp(left, LOWEST_STATUSES_LIMIT, STATUSES_LIMIT);
}

// The bytes of a reply that are sampled to guess its number of entries, and the fewest bytes that an entry has.
constexpr std::size_t SAMPLE_BYTES = 4096;
constexpr std::size_t MIN_ENTRY_BYTES = 8;

/// True if `path` can be an item's: a NUL is in no file's name, and in no URL.
bool isNameable(std::string_view path) {
  return path.find('\0') == std::string_view::npos;
}

/// Estimates the entries of `reply` from the number in its beginning.
std::size_t expectedEntries(std::string_view reply) {
  const auto sample = reply.substr(0, SAMPLE_BYTES);
  const auto entries = static_cast<std::size_t>(std::count(sample.begin(), sample.end(), ':'));
  return std::min(reply.size() * entries / std::max<std::size_t>(sample.size(), 1), reply.size() / MIN_ENTRY_BYTES);
}

/// The statuses in a reply for the folder `key`; none when it is JSON of another shape. Throws JSONError.
std::optional<StatusTable> statusesFromReply(const std::string& key, std::string reply) {
  StatusTable table(key);
  const std::size_t entries = expectedEntries(reply);
  // Names are stored without their folder if the reply's first name begins with it.
  const bool inFolder = reply.find('"' + key) < SAMPLE_BYTES;
  table.reserve(entries, reply.size() - (inFolder ? std::min(reply.size(), entries * key.size()) : 0));
  const bool ofIntegers = integersFromJSON(reply, [&](std::string_view path, StatusCode code) {
    if (isNameable(path)) table.set(path, code);
  });
  if (!ofIntegers) return std::nullopt;
  return table;
}

/// Stores the statuses in a reply for the folder `key`, as LRUCache::update; none also when it is JSON of another
/// shape. Most replies equal the one before: that is seen by a hash, a small part of the work of decoding. Throws
/// JSONError.
std::optional<StatusTable> store(LRUCache& cache, const std::string& key, std::string reply, bool& firstFill) {
  const std::size_t digest = std::hash<std::string>{}(reply);
  if (cache.holds(key, digest)) return StatusTable();
  auto statuses = statusesFromReply(key, std::move(reply));  // frees the reply before they are compared
  if (!statuses) return std::nullopt;
  return cache.update(key, *std::move(statuses), &firstFill, digest);
}

/// The cache's key of the folder `dir`; none when its items' cloud paths are not that and their names.
std::optional<std::string> listKey(const platform::FileURL* root, const std::string& dir) {
  if (!root || *root->path() == "/") return std::nullopt;
  return getCloudPath(*root, dir) + "/";
}

std::string printedForm(const StatusTable& changes) {
  if (changes.empty()) return "[:]";
  std::string text = "[";
  for (const auto& [path, code] : changes) {
    text.append(text.size() > 1 ? ", " : "")
        .append(vornet::printedForm(path))
        .append(": ")
        .append(std::to_string(code));
  }
  return text += ']';
}

}  // namespace

RESTPollingManager::RESTPollingManager(std::chrono::duration<double> pollingInterval)
    : pollingInterval_(pollingInterval) {}

RESTPollingManager::~RESTPollingManager() = default;

bool RESTPollingManager::setupLocalRoot() {
  if (rootDir()) return true;
  const auto container = platform::containerURLForGroup(App().APP_GROUP);
  if (!container) platform::fatalError("no group container for the preferences");
  const auto path = container->appendingPathComponent(App().KELVANE_PLIST).path();
  if (!path) platform::fatalError("the preferences have no path");
  const auto preferences = platform::PropertyList::dictionaryAtPath(*path);
  if (!preferences) {
    VI_INFO("Skipping initialization, Kevlane not configured");
    return false;
  }
  const auto root = preferences->textForKey("root_dir");
  if (!root) platform::fatalError("the preferences hold no text under root_dir: " + *path);
  enableVI(*root);
  VI_INFO("Finder plugin enabled");
  return true;
}

void RESTPollingManager::enableVI(const std::string& rootPath) {
  const auto root = platform::FileURL::fileURLWithPath(rootPath, true);
  if (!root.path()) platform::fatalError("a synced folder without a path: \"" + rootPath + "\"");
  {
    const std::lock_guard guard(mutex_);
    rootDir_ = &rootDirs_.emplace_back(root);
  }
  menu_.setRootDir(root);
  clearDirCache();
  if (!finderSync()) platform::fatalError("a status manager without a controller");
  finderSync()->enableVI({root});
  VI_INFO("Initialized Kevlane Finder plugin for path " + rootPath);
}

bool RESTPollingManager::menuEnabled() const {
  return rootDir() != nullptr;
}

const platform::FileURL& RESTPollingManager::requiredRootDir() const {
  const auto* root = rootDir();
  if (!root) platform::fatalError("the synced folder is not known");
  return *root;
}

void RESTPollingManager::dirEnter(const std::string& path) {
  std::size_t active = 0;
  {
    const std::lock_guard guard(mutex_);
    currentDirs_.insert(path);
    if (const auto* root = rootDir()) {
      const std::string cloudPath = getCloudPath(*root, path);
      if (dirCache_.enterNewDir(cloudPath + "/")) {
        VI_DEBUG("Request cacheUpdate for path: " + cloudPath);
        updateRequired_ = true;
        updateRequiredCond_.notify_one();
      }
    }
    active = currentDirs_.size();
  }
  VI_DEBUG("Active Finder directories: " + std::to_string(active));
}

void RESTPollingManager::dirExit(const std::string& path) {
  const std::lock_guard guard(mutex_);
  currentDirs_.erase(path);
}

std::optional<StatusCode> RESTPollingManager::badgeFromCache(const platform::FileURL& url) {
  VI_DEBUG("Fetching badge for: " + url.description());
  return dirCache_.statusForPath(getCloudPath(requiredRootDir(), url));
}

bool RESTPollingManager::isCached(const platform::FileURL& url) const {
  const auto* root = rootDir();
  return root && url.path() && dirCache_.isPopulated(folderKey(getCloudPath(*root, url)));
}

RESTPollingManager::Listed RESTPollingManager::listCached(const std::string& dir, std::size_t most,
                                                          const ItemListener& item) const {
  const auto key = listKey(rootDir(), dir);
  if (!key) return Listed::never;
  const auto statuses = dirCache_.statuses(*key);
  if (!statuses) return Listed::notYet;
  if (statuses->size() > most) return Listed::never;
  for (const auto& [path, code] : *statuses) {
    if (!path.starts_with(*key)) continue;
    const auto name = path.substr(key->size());
    if (!name.empty() && name.find('/') == name.npos) item(name, code);
  }
  return Listed::all;
}

std::shared_ptr<const StatusTable> RESTPollingManager::cachedStatuses(const std::string& dir) const {
  const auto key = listKey(rootDir(), dir);
  return key ? dirCache_.statuses(*key) : nullptr;
}

RESTPollingManager::Listed RESTPollingManager::listStored(const std::string& dir, std::size_t most,
                                                          const ItemListener& item) const {
  const auto key = listKey(rootDir(), dir);
  if (!key) return Listed::never;
  const auto before = SyncDB::lockedQueriesOfThisThread();
  const auto statuses = syncDB().childSyncStatus(*key, most);
  if (!statuses) return SyncDB::lockedQueriesOfThisThread() != before ? Listed::notYet : Listed::never;
  if (statuses->size() > most) return Listed::never;
  for (const auto& [name, code] : *statuses) item(name, code);
  return Listed::all;
}

void RESTPollingManager::clearDirCache() {}

std::set<std::string> RESTPollingManager::currentDirs() const {
  const std::lock_guard guard(mutex_);
  return currentDirs_;
}

void RESTPollingManager::start_listener() {
  running_ = true;
  VI_INFO("Starting REST status polling");
  const std::lock_guard guard(workersMutex_);
  workers_.push_back(platform::BackgroundTask::start([manager = shared_from_this()] { manager->work(); }));
}

void RESTPollingManager::request_stop() {
  const std::lock_guard guard(mutex_);
  running_ = false;
  updateRequiredCond_.notify_all();
}

void RESTPollingManager::stop_listener() {
  request_stop();
  const std::lock_guard guard(workersMutex_);
  for (auto& worker : workers_) worker.wait();
  workers_.clear();
}

void RESTPollingManager::work() {
  while (running_) {
    const platform::AutoreleasePool pool;
    for (const auto& dir : waitForNextPass()) {
      if (!running_) break;
      poll(dir);
    }
  }
}

/// Waits for a reason to poll. Returns the folders to poll, longest path first; none when the worker must end.
std::vector<std::string> RESTPollingManager::waitForNextPass() {
  std::unique_lock guard(mutex_);
  while (running_) {
    // The signal is kept in a flag: the wait after a pass takes one that was given during the pass.
    updateRequiredCond_.wait_for(guard, pollingInterval_, [this] { return updateRequired_ || !running_; });
    const bool signalled = std::exchange(updateRequired_, false);
    if (!running_ || signalled || !currentDirs_.empty()) break;
    VI_DEBUG("Finder not monitoring any directory - skipping update");
  }
  if (!running_) return {};
  std::vector<std::string> dirs(currentDirs_.begin(), currentDirs_.end());
  std::sort(dirs.begin(), dirs.end(), [](const auto& a, const auto& b) { return a.size() > b.size(); });
  return dirs;
}

void RESTPollingManager::poll(const std::string& dir) {
  try {
    fetch(dir);
  } catch (const HTTPError& error) {
    if (finderSync() && running_) finderSync()->syncApplicationAnswered(error.code().has_value());
    if (!error.code()) {
      VI_WARNING("Skipping get_icons_for_fodler, ds not connected");
    } else if (*error.code() == HTTPStatusCode.NOT_FOUND) {
      VI_INFO("Directory " + dir + " does not exist (404), ignoring subscription");
      dirExit(dir);
    } else {
      VI_INFO("Cannot fetch directory status: unexpected HTTP code: " + std::to_string(*error.code()) + ")");
    }
  } catch (...) {
    VI_WARNING("Unable to parse VI status tuple from DS");
  }
}

void RESTPollingManager::fetch(const std::string& dir) {
  const auto& root = requiredRootDir();
  const std::string key = getCloudPath(root, dir) + "/";
  auto reply = RESTClient::postAtPath("get_icons_for_folder", toJSON({{"dir_name", key}}), std::nullopt,
                                      replyLimit(dirCache_.memoryBeside(key)));
  if (finderSync()) finderSync()->syncApplicationAnswered(reply.has_value());
  if (!reply) return;
  bool firstFill = false;
  const auto changes = store(dirCache_, key, *std::move(reply), firstFill);
  if (!changes) return;
  VI_DEBUG("Updated: " + printedForm(*changes));
  for (const auto& [path, code] : *changes) {
    if (!running_) return;  // nobody will see the rest, and there may be millions
    if (!finderSync()) platform::fatalError("a status manager without a controller");
    finderSync()->setFileSyncStatus(getLocalPath(root, path), code);
  }
  if (finderSync()) finderSync()->folderFilled(platform::FileURL::fileURLWithPath(dir), firstFill);
}

}  // namespace vornet
