#include "LeftFolders.hpp"

#include <algorithm>

namespace vornet::client {

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

void LeftFolders::keepOnly(const std::function<bool(const std::string& path)>& keep) {
  folders_.remove_if([&](const auto& folder) {
    if (keep(folder.first)) return false;
    items_ -= folder.second.size();
    return true;
  });
}

}  // namespace vornet::client
