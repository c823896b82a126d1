#include "kelvane-sim/FolderWatcher.hpp"

#include <dirent.h>
#include <fcntl.h>
#include <sys/inotify.h>
#include <sys/stat.h>

#include <array>
#include <cerrno>
#include <cstring>
#include <memory>
#include <optional>
#include <stdexcept>
#include <system_error>

#include "kelvane-sim/SyncRules.hpp"

namespace vornet::sim {

namespace {

constexpr std::uint32_t WATCHED = IN_CREATE | IN_MODIFY | IN_CLOSE_WRITE | IN_DELETE | IN_MOVED_FROM | IN_MOVED_TO |
                                  IN_DELETE_SELF | IN_MOVE_SELF | IN_ONLYDIR | IN_DONT_FOLLOW | IN_EXCL_UNLINK;

std::string errorText(int error) {
  return std::generic_category().message(error);
}

std::string childPath(const std::string& folder, std::string_view name) {
  std::string path = folder;
  if (path.back() != '/') path += '/';
  path += name;
  return path;
}

// The item `name` in the open folder `dir`; none when it is gone, or neither a file nor a folder.
std::optional<FolderListener::Entry> examine(int dir, const char* name, std::string_view shown) {
  struct stat info{};
  if (::fstatat(dir, name, &info, AT_SYMLINK_NOFOLLOW) != 0) return std::nullopt;
  FolderListener::Entry entry;
  entry.name = shown;
  entry.folder = S_ISDIR(info.st_mode);
  if (!entry.folder && !S_ISREG(info.st_mode)) return std::nullopt;
  if (!entry.folder) {
    constexpr std::int64_t NANOSECONDS = 1'000'000'000;
    entry.stamp = {info.st_ino, info.st_mtim.tv_sec * NANOSECONDS + info.st_mtim.tv_nsec, info.st_size};
  }
  return entry;
}

struct CloseDir {
  void operator()(DIR* dir) const { ::closedir(dir); }
};

}  // namespace

FolderWatcher::FolderWatcher(std::string root, FolderListener& listener)
    : root_(std::move(root)), listener_(listener) {}

std::string FolderWatcher::localPath(const std::string& path) const {
  return path == "/" ? root_ : root_ + path;
}

void FolderWatcher::open() {
  folderOfWatch_.clear();
  watchOfFolder_.clear();
  overflow_ = false;
  inotify_.reset(::inotify_init1(IN_NONBLOCK | IN_CLOEXEC));
  if (!inotify_) throw std::runtime_error("cannot watch folders: " + errorText(errno));
  // The root alone may be given through a symbolic link.
  const int id = ::inotify_add_watch(inotify_.get(), root_.c_str(), WATCHED & ~std::uint32_t{IN_DONT_FOLLOW});
  if (id < 0) throw std::runtime_error("cannot watch " + root_ + ": " + errorText(errno));
  folderOfWatch_.emplace(id, "/");
  watchOfFolder_["/"] = id;
  walk("/");
}

bool FolderWatcher::watch(const std::string& folder) {
  const int id = ::inotify_add_watch(inotify_.get(), localPath(folder).c_str(), WATCHED);
  if (id < 0) {
    if (errno != ENOENT && errno != ENOTDIR)
      listener_.watcherNotice("cannot watch " + folder + ": " + errorText(errno));
    return false;
  }
  // A folder that was moved keeps its watch; it now stands for the new path.
  if (const auto known = folderOfWatch_.find(id); known != folderOfWatch_.end()) watchOfFolder_.erase(known->second);
  folderOfWatch_[id] = folder;
  watchOfFolder_[folder] = id;
  return true;
}

// Watches each folder before it lists it: what is made in between is then reported twice, never missed.
void FolderWatcher::walk(const std::string& top) {
  std::vector<std::string> open{top};
  while (!open.empty()) {
    const std::string folder = std::move(open.back());
    open.pop_back();
    if (folder != "/") watch(folder);
    const int flags = O_RDONLY | O_DIRECTORY | O_CLOEXEC | (folder == "/" ? 0 : O_NOFOLLOW);
    FileDescriptor fd(::open(localPath(folder).c_str(), flags));
    if (!fd) {
      if (errno != ENOENT && errno != ENOTDIR)
        listener_.watcherNotice("cannot read " + folder + ": " + errorText(errno));
      continue;
    }
    const std::unique_ptr<DIR, CloseDir> dir(::fdopendir(fd.get()));
    if (!dir) continue;
    fd.release();
    std::vector<FolderListener::Entry> entries;
    while (const dirent* item = ::readdir(dir.get())) {
      const std::string_view name = item->d_name;
      if (name == "." || name == ".." || !isUtf8(name)) continue;
      auto entry = examine(::dirfd(dir.get()), item->d_name, name);
      if (!entry) continue;
      if (entry->folder) open.push_back(childPath(folder, name));
      entries.push_back(std::move(*entry));
    }
    listener_.folderListed(folder, entries);
  }
}

// Forgets the watches of a folder and of all below it. Their ids are never given out again, so that events of theirs
// that are still in the queue find nobody.
void FolderWatcher::unwatch(const std::string& folder) {
  const auto drop = [this](auto it) {
    ::inotify_rm_watch(inotify_.get(), it->second);
    folderOfWatch_.erase(it->second);
    return watchOfFolder_.erase(it);
  };
  if (const auto own = watchOfFolder_.find(folder); own != watchOfFolder_.end()) drop(own);
  const std::string below = folder + "/";
  for (auto it = watchOfFolder_.lower_bound(below); it != watchOfFolder_.end() && it->first.starts_with(below);)
    it = drop(it);
}

void FolderWatcher::process() {
  alignas(inotify_event) std::array<char, 64 * 1024> buffer;
  while (inotify_) {
    const ssize_t length = ::read(inotify_.get(), buffer.data(), buffer.size());
    if (length <= 0) return;
    for (std::size_t at = 0; at < static_cast<std::size_t>(length) && inotify_ && !overflow_;) {
      inotify_event event{};
      std::memcpy(&event, buffer.data() + at, sizeof event);
      const char* name = buffer.data() + at + sizeof event;
      handle(event.wd, event.mask, event.len > 0 ? std::string_view(name, ::strnlen(name, event.len)) : "");
      at += sizeof event + event.len;
    }
    if (overflow_) {
      listener_.watcherNotice("too many changes at once, looking through the whole folder");
      try {
        open();
      } catch (const std::runtime_error& error) {
        listener_.watcherNotice(error.what());
        inotify_.reset();
        listener_.rootGone();
      }
    }
  }
}

void FolderWatcher::handle(int watchId, std::uint32_t mask, std::string_view name) {
  if ((mask & IN_Q_OVERFLOW) != 0) {
    overflow_ = true;
    return;
  }
  const auto known = folderOfWatch_.find(watchId);
  if (known == folderOfWatch_.end()) return;
  const std::string folder = known->second;
  if ((mask & (IN_IGNORED | IN_UNMOUNT | IN_DELETE_SELF | IN_MOVE_SELF)) != 0) {
    if (folder == "/") {
      inotify_.reset();
      listener_.rootGone();
    } else if ((mask & IN_IGNORED) != 0) {
      if (const auto own = watchOfFolder_.find(folder); own != watchOfFolder_.end() && own->second == watchId)
        watchOfFolder_.erase(own);
      folderOfWatch_.erase(watchId);
    }
    return;
  }
  if (name.empty() || !isUtf8(name)) return;
  const std::string path = childPath(folder, name);
  if ((mask & (IN_DELETE | IN_MOVED_FROM)) != 0) {
    unwatch(path);
    listener_.itemGone(path);
    return;
  }
  const auto entry = examine(AT_FDCWD, localPath(path).c_str(), name);
  if (!entry) {
    // A link or special file may have taken the place of an item; one that is gone again is reported by a later event.
    listener_.itemGone(path);
    return;
  }
  listener_.itemSeen(path, *entry, (mask & IN_MODIFY) != 0);
  if (entry->folder && (mask & (IN_CREATE | IN_MOVED_TO)) != 0) walk(path);
}

}  // namespace vornet::sim
