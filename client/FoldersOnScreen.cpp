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

void LeftFolders::add(const std::shared_ptr<LeftFolder>& folder) {
  readRest(folder->path);
  folder->emblems.reserve(folder->emblems.size() +
                          folder->entries.size());  // growing by and by would take milliseconds
  folder->next = folder->entries.begin();
  beingRead_.push_back(folder);
}

bool LeftFolders::read(LeftFolder& folder, std::size_t items) {
  const auto found =
      std::find_if(beingRead_.begin(), beingRead_.end(), [&folder](const auto& one) { return one.get() == &folder; });
  if (found == beingRead_.end()) return false;
  for (; items > 0 && folder.next != folder.entries.end(); --items, ++folder.next)
    if (const auto& [name, entry] = *folder.next; !entry.emblem.empty()) folder.emblems.emplace(name, entry.emblem);
  if (folder.next != folder.entries.end()) return true;
  if (folder.isComplete || !folder.emblems.empty()) remember(folder.path, std::move(folder.emblems));
  beingRead_.erase(found);
  return false;
}

void LeftFolders::readRest(const std::string& path) {
  const auto found =
      std::find_if(beingRead_.begin(), beingRead_.end(), [&path](const auto& folder) { return folder->path == path; });
  if (found != beingRead_.end()) read(*std::shared_ptr(*found), (*found)->entries.size());
}

void LeftFolders::remember(const std::string& path, Emblems emblems) {
  remove(path);
  if (emblems.empty() || emblems.size() > MOST_ITEMS) return;
  items_ += emblems.size();
  folders_.emplace_front(path, std::move(emblems));
  while (folders_.size() > MOST_FOLDERS || items_ > MOST_ITEMS) {
    items_ -= folders_.back().second.size();
    folders_.pop_back();
  }
}

Emblems LeftFolders::take(const std::string& path) {
  readRest(path);
  return remove(path);
}

Emblems LeftFolders::remove(const std::string& path) {
  const auto found =
      std::find_if(folders_.begin(), folders_.end(), [&path](const auto& folder) { return folder.first == path; });
  if (found == folders_.end()) return {};
  Emblems emblems = std::move(found->second);
  folders_.erase(found);
  items_ -= emblems.size();
  return emblems;
}

bool LeftFolders::has(const std::string& path) {
  readRest(path);
  return std::any_of(folders_.begin(), folders_.end(), [&](const auto& folder) { return folder.first == path; });
}

void LeftFolders::keepOnly(const std::function<bool(const std::string& path)>& keep) {
  while (!beingRead_.empty()) readRest(std::string(beingRead_.front()->path));
  folders_.remove_if([&](const auto& folder) {
    if (keep(folder.first)) return false;
    items_ -= folder.second.size();
    return true;
  });
}

}  // namespace vornet::client
