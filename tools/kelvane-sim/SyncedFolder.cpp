#include "kelvane-sim/SyncedFolder.hpp"

#include <sys/stat.h>

#include <algorithm>
#include <boost/json.hpp>
#include <filesystem>

namespace vornet::sim {

namespace {

namespace fs = std::filesystem;

bool isSyncableName(std::string_view name) {
  return !name.starts_with("~$") && !name.ends_with(".tmp") && name.find_first_of("\\:*?\"<>|") == name.npos;
}

// The key of the item that `path` names; a trailing slash does not count.
std::string_view keyOf(std::string_view path) {
  if (path.ends_with('/')) path.remove_suffix(1);
  return path;
}

}  // namespace

bool isUtf8(const std::string& bytes) {
  boost::system::error_code error;
  boost::json::parse(boost::json::serialize(bytes), error);
  return !error;
}

Listing list(const std::string& root) {
  Listing found{{"", {.folder = true}}};
  std::vector<std::string> open{""};
  while (!open.empty()) {
    const std::string folder = std::move(open.back());
    open.pop_back();
    std::error_code error;
    for (fs::directory_iterator entry(root + folder, error), end; !error && entry != end; entry.increment(error)) {
      const std::string path = folder + "/" + entry->path().filename().string();
      struct stat info{};
      if (!isUtf8(path) || ::lstat(entry->path().c_str(), &info) != 0) continue;
      if (S_ISDIR(info.st_mode)) {
        found[path].folder = true;
        open.push_back(path);
      } else if (S_ISREG(info.st_mode)) {
        found[path].stamp = {info.st_ino, info.st_mtim.tv_sec, info.st_mtim.tv_nsec, info.st_size};
      }
    }
  }
  return found;
}

SyncedFolder::SyncedFolder(std::chrono::milliseconds transferTime, std::size_t parallel)
    : transferTime_(transferTime), parallel_(parallel) {
  update({{"", {.folder = true}}}, true);
}

void SyncedFolder::update(const Listing& listing, bool synced) {
  bool changed = std::erase_if(states_, [&](const auto& state) { return !listing.contains(state.first); }) > 0;
  for (const auto& [path, found] : listing) {
    const auto known = states_.find(path);
    if (known != states_.end() && known->second.found == found) continue;
    add(path, found, synced);
    changed = true;
  }
  if (changed) applyCodes();
}

void SyncedFolder::add(const std::string& path, const FoundItem& found, bool synced) {
  State state{.found = found};
  if (!path.empty()) {
    const std::size_t slash = path.rfind('/');
    state.syncable = states_.find(path.substr(0, slash))->second.syncable && isSyncableName(path.substr(slash + 1));
  }
  if (!state.syncable) {
    state.own = CODE_NOT_SYNCED;
  } else if (!found.folder && !synced) {
    state.own = CODE_PENDING;
    waiting_.push_back(path);
  }
  states_.insert_or_assign(path, state);
}

std::optional<SyncedFolder::Clock::time_point> SyncedFolder::transfer(Clock::time_point now) {
  std::optional<Clock::time_point> next;
  std::size_t running = 0;
  bool changed = false;
  const auto runs = [&](Clock::time_point end) {
    ++running;
    next = std::min(next.value_or(end), end);
  };
  const auto end = [&](State& state) {
    state.transferEnd.reset();
    state.own = CODE_SYNCED;
    changed = true;
  };
  for (auto& [path, state] : states_) {
    if (!state.transferEnd) continue;
    if (*state.transferEnd <= now)
      end(state);
    else
      runs(*state.transferEnd);
  }
  for (; !waiting_.empty() && running < parallel_; waiting_.pop_front()) {
    const auto found = states_.find(waiting_.front());
    // It may be gone, or wait twice because it changed twice.
    if (found == states_.end() || found->second.own != CODE_PENDING || found->second.transferEnd) continue;
    if (transferTime_.count() == 0)
      end(found->second);
    else
      runs(*(found->second.transferEnd = now + transferTime_));
  }
  if (changed) applyCodes();
  return next;
}

void SyncedFolder::pin(std::string_view path, int code) {
  pins_.insert_or_assign(std::string(keyOf(path)), code);
  applyCodes();
}

// Children follow their folder in the map, so from the end every folder comes after all that is in it.
void SyncedFolder::applyCodes() {
  for (auto& [path, state] : states_) state.shown = state.own;
  for (auto item = states_.rbegin(); item != states_.rend(); ++item) {
    auto& [path, state] = *item;
    if (const auto pin = pins_.find(path); pin != pins_.end()) state.shown = pin->second;
    if (path.empty() || state.shown < CODE_NOT_SYNCED || state.shown > CODE_SYNCED) continue;
    int& above = states_.find(std::string_view(path).substr(0, path.rfind('/')))->second.shown;
    above = std::min(above, state.shown);
  }
}

SyncedFolder::States::const_iterator SyncedFolder::locate(std::string_view path) const {
  const auto found = states_.find(keyOf(path));
  return path.ends_with('/') && found != states_.end() && !found->second.found.folder ? states_.end() : found;
}

std::optional<SyncedFolder::Item> SyncedFolder::find(std::string_view path) const {
  const auto found = locate(path);
  if (found == states_.end()) return std::nullopt;
  return Item{found->second.found.folder, found->second.shown};
}

std::optional<std::map<std::string, int>> SyncedFolder::children(std::string_view folder) const {
  const auto found = locate(folder);
  if (found == states_.end() || !found->second.found.folder) return std::nullopt;
  const std::string prefix = found->first + "/";
  std::map<std::string, int> result;
  for (auto item = states_.lower_bound(prefix); item != states_.end() && item->first.starts_with(prefix);) {
    const std::size_t slash = item->first.find('/', prefix.size());
    if (slash == std::string::npos) {
      result.emplace(item->first, item->second.shown);
      ++item;
    } else {
      item = states_.lower_bound(item->first.substr(0, slash) + static_cast<char>('/' + 1));  // past a child's children
    }
  }
  return result;
}

std::map<std::string, int> SyncedFolder::rows() const {
  std::map<std::string, int> rows;
  for (const auto& [path, state] : states_) rows.emplace(state.found.folder ? path + "/" : path, state.shown);
  return rows;
}

}  // namespace vornet::sim
