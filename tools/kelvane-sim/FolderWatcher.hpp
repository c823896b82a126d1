#pragma once

#include <cstdint>
#include <map>
#include <string>
#include <string_view>
#include <unordered_map>
#include <vector>

#include "kelvane-sim/FileDescriptor.hpp"
#include "kelvane-sim/FolderModel.hpp"

namespace vornet::sim {

/// What a FolderWatcher reports; items are named by cloud path. Called on the thread that called the watcher.
class FolderListener {
 public:
  struct Entry {
    std::string name;
    bool folder = false;
    FileStamp stamp;  ///< of files only
  };

  /// Everything that stands in a folder just now; items known there and not listed are gone.
  virtual void folderListed(const std::string& folder, const std::vector<Entry>& entries) = 0;
  /// An item has appeared, or may have changed. `written`: its content has been written to for certain.
  virtual void itemSeen(const std::string& path, const Entry& entry, bool written) = 0;
  /// An item, with all below it, is gone.
  virtual void itemGone(const std::string& path) = 0;
  /// The watched folder itself was removed, moved or unmounted; nothing more is reported.
  virtual void rootGone() = 0;
  /// Something to tell the user, such as a folder that cannot be watched.
  virtual void watcherNotice(const std::string& text) = 0;

 protected:
  ~FolderListener() = default;
};

/// Watches a folder and all below it with inotify, reading only. Symbolic links are not followed; they, special files
/// and names that are not UTF-8 are passed over. After a queue overflow everything is listed again. Not thread-safe:
/// one thread opens and processes.
class FolderWatcher {
 public:
  /// `root`: absolute path without trailing slash. `listener` outlives the watcher.
  FolderWatcher(std::string root, FolderListener& listener);

  /// Begins to watch and lists every folder, parents first. Throws std::runtime_error when inotify cannot be had or the
  /// root cannot be watched.
  void open();

  /// Becomes readable when `process` has something to do. May change with each call of `process`.
  int fd() const noexcept { return inotify_.get(); }

  /// Reports everything that has happened so far; returns without waiting.
  void process();

 private:
  bool watch(const std::string& folder);
  void walk(const std::string& folder);
  void unwatch(const std::string& folder);
  void handle(int watchId, std::uint32_t mask, std::string_view name);
  std::string localPath(const std::string& path) const;

  std::string root_;
  FolderListener& listener_;
  FileDescriptor inotify_;
  std::unordered_map<int, std::string> folderOfWatch_;
  std::map<std::string, int, std::less<>> watchOfFolder_;
  bool overflow_ = false;
};

}  // namespace vornet::sim
