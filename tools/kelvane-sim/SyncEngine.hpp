#pragma once

#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <functional>
#include <map>
#include <mutex>
#include <optional>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "kelvane-sim/FileDescriptor.hpp"
#include "kelvane-sim/FolderModel.hpp"
#include "kelvane-sim/FolderWatcher.hpp"
#include "kelvane-sim/StatusDatabase.hpp"
#include "kelvane-sim/TransferQueue.hpp"

namespace vornet::sim {

/// Keeps the statuses of one folder: watches it, simulates the transfers and writes the status database, on a thread of
/// its own. A new or changed file is pending (1) until its transfer ends, then synced (2); what cannot be synced is 0;
/// a moved item counts as new. Reads the folder only. Every operation may be called from any thread; each answer is of
/// one moment.
class SyncEngine final : private FolderListener {
 public:
  struct Settings {
    std::string root;          ///< the folder: absolute, no trailing slash
    std::string databasePath;  ///< of sync.db
    std::chrono::milliseconds transferTime{1500};
    std::size_t parallelTransfers = 4;
    bool assumeSynced = false;  ///< files found at the start count as transferred already
  };
  /// Told one line for whatever happens; called from the engine's thread and from `start`, without any lock held.
  using Notice = std::function<void(const std::string& line)>;

  /// Throws std::runtime_error when the system has no descriptor left.
  explicit SyncEngine(Notice notice);
  ~SyncEngine();

  /// Looks through the folder, brings the database up to date and starts the thread. Throws std::runtime_error; then it
  /// is stopped. The pins of `pin` stay from one start to the next.
  void start(const Settings& settings);

  /// Ends the thread. The database keeps its last state. Stopped: nothing.
  void stop();

  std::optional<FolderModel::Item> find(const std::string& path) const;
  /// One element for each of `paths`.
  std::vector<std::optional<FolderModel::Item>> findAll(const std::vector<std::string>& paths) const;
  std::optional<std::vector<std::pair<std::string, int>>> children(const std::string& folder) const;
  std::size_t size() const;

  void pin(const std::string& path, int code);
  void unpin(const std::string& path);

  /// Waits until everything done to the folder before the call is noticed, no transfer waits or runs and the database
  /// is written. False when `timeout` passes first, or when stopped.
  bool waitUntilIdle(std::chrono::milliseconds timeout);

  /// Waits until `path` has `code` (none: is unknown). False when `timeout` passes first.
  bool waitForStatus(const std::string& path, std::optional<int> code, std::chrono::milliseconds timeout);

 private:
  void folderListed(const std::string& folder, const std::vector<Entry>& entries) override;
  void itemSeen(const std::string& path, const Entry& entry, bool written) override;
  void itemGone(const std::string& path) override;
  void rootGone() override;
  void watcherNotice(const std::string& text) override;

  void see(const std::string& path, const Entry& entry, bool written);
  void forget(const std::string& path);
  void run();
  void finishTransfers();
  bool writeChanges();
  int pollTimeout(bool written) const;
  void wake();
  void note(std::string line);
  void tellNotices();

  const Notice notice_;
  Settings settings_;
  mutable std::mutex mutex_;
  std::condition_variable changed_;
  FolderModel model_;
  TransferQueue transfers_{std::chrono::milliseconds(0), 1};
  bool stopping_ = false;
  bool running_ = false;
  bool starting_ = false;
  std::vector<std::string> notices_;
  std::uint64_t askedIdle_ = 0;
  std::uint64_t reachedIdle_ = 0;

  // Of the thread alone (of `start` before there is one).
  std::optional<FolderWatcher> watcher_;
  std::optional<StatusDatabase> database_;
  std::map<std::string, std::optional<int>> unwritten_;
  bool complained_ = false;

  FileDescriptor wake_;
  std::thread thread_;
};

}  // namespace vornet::sim
