#pragma once

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <deque>
#include <functional>
#include <memory>
#include <mutex>
#include <optional>
#include <set>
#include <string>
#include <string_view>
#include <vector>

#include "cache/DirCache.hpp"
#include "platform/Dispatch.hpp"
#include "platform/Foundation.hpp"
#include "rest/MenuActions.hpp"
#include "rest/StatusSink.hpp"

namespace vornet {

/// Keeps the badges of the folders on screen up to date: one background worker asks the sync application for the
/// statuses of each of them, at once when a new one is entered and else every 5 seconds, and pushes what changed to the
/// controller. Also finds the synced folder, and owns the context menu's service. Any thread; none of the operations
/// waits for a request of the worker's. Held by shared_ptr: a running worker keeps the manager alive.
class RESTPollingManager : public std::enable_shared_from_this<RESTPollingManager> {
 public:
  static constexpr std::chrono::duration<double> POLLING_INTERVAL{5.0};
  static constexpr std::size_t MAX_CACHE_DIRS = 50;

  /// An idle manager. `pollingInterval`: the longest wait of the worker between two passes.
  explicit RESTPollingManager(std::chrono::duration<double> pollingInterval = POLLING_INTERVAL);
  ~RESTPollingManager();
  RESTPollingManager(const RESTPollingManager&) = delete;
  RESTPollingManager& operator=(const RESTPollingManager&) = delete;

  /// The controller that receives status pushes; set before start_listener(). It must outlive the worker.
  StatusSink* finderSync() const noexcept { return finderSync_; }
  void setFinderSync(StatusSink* controller) noexcept {
    finderSync_ = controller;
    menu_.setSink(controller);
  }

  /// Finds the synced folder in the sync application's preferences and adopts it; true when the manager is usable, also
  /// when it was before. False while there are no readable preferences. Stops the process without a group container, or
  /// when the preferences hold no text under "root_dir".
  bool setupLocalRoot();

  /// Adopts `rootPath` as the synced folder and has the controller observe it.
  void enableVI(const std::string& rootPath);

  /// True if the synced folder is known, and so a menu may be offered.
  bool menuEnabled() const;

  /// The file manager began or stopped showing the folder `path` (a local path).
  void dirEnter(const std::string& path);
  void dirExit(const std::string& path);

  /// The status code of the item `url` as far as it is known, none when it is not. Never asks the sync application.
  /// Stops the process while the synced folder is unknown.
  std::optional<StatusCode> badgeFromCache(const platform::FileURL& url);

  /// True if badgeFromCache answers for `url` from memory now: its folder has been filled. False while the synced
  /// folder is unknown, and for a URL without a path.
  bool isCached(const platform::FileURL& url) const;

  enum class Listed {
    all,
    notYet,  ///< and may be asked for later
    never,   ///< the items must be asked for one by one: there are more than `most`, or their paths decide otherwise
  };
  using ItemListener = std::function<void(std::string_view name, StatusCode code)>;

  /// Calls `item` for the items directly in the folder `dir` (a local path) that have a status: with the one that
  /// badgeFromCache has for each. From the cache: notYet while it has not been filled. From the sync database: notYet
  /// while it is locked; one query; to be called for a folder that has not been filled.
  Listed listCached(const std::string& dir, std::size_t most, const ItemListener& item) const;
  Listed listStored(const std::string& dir, std::size_t most, const ItemListener& item) const;

  /// What listCached reads; null where it has not been filled. A fetch of other statuses makes another table.
  std::shared_ptr<const StatusTable> cachedStatuses(const std::string& dir) const;

  /// Does nothing.
  void clearDirCache();

  /// Starts the worker.
  void start_listener();

  /// Tells the worker to end, which it does at once from its wait, else after the request that it is in.
  void request_stop();

  /// The same, and waits until it has ended.
  void stop_listener();

  /// The synced folder; null until it is known. Stays valid as long as the manager.
  const platform::FileURL* rootDir() const noexcept { return rootDir_; }
  bool running() const noexcept { return running_; }
  Menu& menu() noexcept { return menu_; }
  LRUCache& dirCache() noexcept { return dirCache_; }

  /// The folders on screen (local paths).
  /// Kept ready; nothing calls it yet.
  std::set<std::string> currentDirs() const;

  /// The folders with a reserved update: always none.
  /// Kept ready; nothing calls it yet.
  const std::set<std::string>& pendingUpdates() const noexcept { return pendingUpdates_; }

 private:
  void work();
  std::vector<std::string> waitForNextPass();
  void poll(const std::string& dir);
  void fetch(const std::string& dir);
  const platform::FileURL& requiredRootDir() const;

  const std::chrono::duration<double> pollingInterval_;
  mutable std::mutex mutex_;
  std::condition_variable updateRequiredCond_;  // wakes the worker; mutex_ guards the fields up to the next comment
  bool updateRequired_ = false;                 // a signal that no wait has taken yet
  std::set<std::string> currentDirs_;
  std::deque<platform::FileURL> rootDirs_;  // every folder adopted so far; readers may hold an older one
  // Not guarded: constant, atomic, or safe by itself.
  std::atomic<const platform::FileURL*> rootDir_{nullptr};
  const std::set<std::string> pendingUpdates_;
  std::atomic<bool> running_{false};
  std::atomic<StatusSink*> finderSync_{nullptr};
  LRUCache dirCache_{MAX_CACHE_DIRS};
  Menu menu_;
  std::mutex workersMutex_;
  std::vector<platform::BackgroundTask> workers_;
};

}  // namespace vornet
