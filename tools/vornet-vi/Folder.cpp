#include "Folder.hpp"

#include <dirent.h>
#include <fcntl.h>
#include <sys/stat.h>

#include <algorithm>
#include <cerrno>
#include <memory>
#include <string_view>
#include <tuple>

#include "DisplayText.hpp"
#include "client/Paths.hpp"
#include "dbus/GLibPtr.hpp"

namespace vornet::vi {
namespace {

struct CloseFolder {
  void operator()(DIR* folder) const { closedir(folder); }
};
using FolderPtr = std::unique_ptr<DIR, CloseFolder>;

FolderPtr openFolder(const std::string& path) {
  FolderPtr folder{opendir(path.c_str())};
  if (!folder) throw fileFailure(path, errno);
  return folder;
}

Entry entryOf(std::string name, const struct stat& status) {
  Entry entry;
  entry.name = std::move(name);
  if (S_ISDIR(status.st_mode)) {
    entry.kind = EntryKind::folder;
  } else if (S_ISREG(status.st_mode)) {
    entry.kind = EntryKind::file;
    entry.size = static_cast<std::uint64_t>(status.st_size);
  } else if (S_ISLNK(status.st_mode)) {
    entry.kind = EntryKind::link;
  }
  return entry;
}

}  // namespace

const char* kindName(EntryKind kind) {
  switch (kind) {
    case EntryKind::folder:
      return "folder";
    case EntryKind::file:
      return "file";
    case EntryKind::link:
      return "link";
    case EntryKind::other:
      break;
  }
  return "other";
}

std::string absolutePath(std::string_view given, std::string_view currentFolder) {
  std::string whole;
  if (given.empty() || given.front() != '/') whole.append(currentFolder).push_back('/');
  whole.append(given);

  std::vector<std::string_view> parts;
  const std::string_view view = whole;
  for (std::size_t start = 0; start < view.size();) {
    std::size_t end = view.find('/', start);
    if (end == std::string_view::npos) end = view.size();
    const std::string_view part = view.substr(start, end - start);
    if (part == "..") {
      if (!parts.empty()) parts.pop_back();
    } else if (!part.empty() && part != ".") {
      parts.push_back(part);
    }
    start = end + 1;
  }

  std::string path;
  for (const std::string_view part : parts) path.append("/").append(part);
  return path.empty() ? "/" : path;
}

std::runtime_error fileFailure(const std::string& path, int number) {
  switch (number) {
    case ENOENT:
      return std::runtime_error(path + ": no such file or folder");
    case ENOTDIR:
      return std::runtime_error(path + ": not a folder");
    default:
      return std::runtime_error(path + ": " + g_strerror(number));
  }
}

void requireFolder(const std::string& path) {
  openFolder(path);
}

void requireExisting(const std::string& path) {
  struct stat status{};
  if (lstat(path.c_str(), &status) != 0) throw fileFailure(path, errno == ENOTDIR ? ENOENT : errno);
}

std::vector<Entry> readFolder(const std::string& folder) {
  const FolderPtr open = openFolder(folder);
  std::vector<Entry> entries;
  for (;;) {
    errno = 0;
    const dirent* next = readdir(open.get());
    if (next == nullptr) {
      if (errno != 0) throw fileFailure(folder, errno);
      return entries;
    }
    const std::string_view name = next->d_name;
    if (name == "." || name == "..") continue;
    struct stat status{};
    if (fstatat(dirfd(open.get()), next->d_name, &status, AT_SYMLINK_NOFOLLOW) == 0) {
      entries.push_back(entryOf(std::string(name), status));
    } else if (errno != ENOENT) {
      // Its name is known all the same, and the extension may know its badge.
      entries.push_back(Entry{std::string(name), EntryKind::other, 0});
    }
  }
}

std::optional<Entry> readEntry(const std::string& folder, const std::string& name) {
  struct stat status{};
  if (lstat(client::childPath(folder, name).c_str(), &status) != 0) return std::nullopt;
  return entryOf(name, status);
}

std::vector<Item> sortedItems(const std::map<std::string, Item>& items) {
  struct Keyed {
    bool isFolder;
    std::string key;
    const Item* item;
  };
  std::vector<Keyed> keyed;
  keyed.reserve(items.size());
  for (const auto& [name, item] : items) {
    const GCharPtr key{g_utf8_collate_key_for_filename(validUTF8(name).c_str(), -1)};
    keyed.push_back({item.entry.kind == EntryKind::folder, key.get(), &item});
  }
  std::sort(keyed.begin(), keyed.end(), [](const Keyed& a, const Keyed& b) {
    return std::tie(b.isFolder, a.key, a.item->entry.name) < std::tie(a.isFolder, b.key, b.item->entry.name);
  });
  std::vector<Item> sorted;
  sorted.reserve(keyed.size());
  for (const Keyed& one : keyed) sorted.push_back(*one.item);
  return sorted;
}

}  // namespace vornet::vi
