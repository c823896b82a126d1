#include "FoldersOnScreen.hpp"

#include <algorithm>

#include "Paths.hpp"

namespace vornet::client {

Folder& FoldersOnScreen::at(std::string_view path) {
  auto& folder = folders_[std::string(path)];
  if (!folder) {
    folder = std::make_unique<Folder>();
    folder->path = path;
    folder->id = ++lastId_;
  }
  return *folder;
}

Folder* FoldersOnScreen::find(std::string_view path) const {
  const auto found = folders_.find(std::string(path));
  return found == folders_.end() ? nullptr : found->second.get();
}

Folder* FoldersOnScreen::find(std::string_view path, unsigned id) const {
  Folder* folder = find(path);
  return folder && folder->id == id ? folder : nullptr;
}

Folder* FoldersOnScreen::findStream(guint64 stream) const {
  const auto found = std::find_if(folders_.begin(), folders_.end(),
                                  [&](const auto& folder) { return folder.second->stream == stream; });
  return stream == 0 || found == folders_.end() ? nullptr : found->second.get();
}

bool FoldersOnScreen::showsWithin(std::string_view path) const {
  return std::any_of(folders_.begin(), folders_.end(), [path](const Map::value_type& folder) {
    return folder.second->shown > 0 && isWithin(path, folder.first);
  });
}

std::vector<std::string> FoldersOnScreen::paths() const {
  std::vector<std::string> result;
  result.reserve(folders_.size());
  for (const auto& [path, folder] : folders_) result.push_back(path);
  return result;
}

// --- Folders that left the screen -----------------------------------------------------------------------------------

void LeftFolders::add(const std::string& path, Emblems emblems) {
  take(path);
  if (emblems.empty() || emblems.size() > MOST_ITEMS) return;
  items_ += emblems.size();
  folders_.emplace_front(path, std::move(emblems));
  while (folders_.size() > MOST_FOLDERS || items_ > MOST_ITEMS) {
    items_ -= folders_.back().second.size();
    folders_.pop_back();
  }
}

Emblems LeftFolders::take(const std::string& path) {
  const auto found =
      std::find_if(folders_.begin(), folders_.end(), [&path](const auto& folder) { return folder.first == path; });
  if (found == folders_.end()) return {};
  Emblems emblems = std::move(found->second);
  folders_.erase(found);
  items_ -= emblems.size();
  return emblems;
}

bool LeftFolders::has(const std::string& path) const {
  return std::any_of(folders_.begin(), folders_.end(), [&](const auto& folder) { return folder.first == path; });
}

void LeftFolders::keepOnly(const std::function<bool(const std::string& path)>& keep) {
  folders_.remove_if([&](const auto& folder) {
    if (keep(folder.first)) return false;
    items_ -= folder.second.size();
    return true;
  });
}

}  // namespace vornet::client
