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

}  // namespace vornet::client
