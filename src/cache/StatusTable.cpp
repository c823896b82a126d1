#include "cache/StatusTable.hpp"

#include <algorithm>

namespace vornet {
namespace {

// In a folder's table, what a key begins with that is a whole path and not a name in the folder.
constexpr std::string_view WHOLE{"\0", 1};

}  // namespace

StatusTable::StatusTable(std::initializer_list<std::pair<std::string_view, StatusCode>> entries) {
  for (const auto& [path, code] : entries) set(path, code);
}

void StatusTable::reserve(std::size_t entries, std::size_t pathBytes) {
  map_.reserve(entries);
  if (!arena_ && pathBytes > 0) arena_ = std::make_unique<std::pmr::monotonic_buffer_resource>(pathBytes);
}

/// Whether the key of `path` is its rest after the folder. Always so where there is no folder.
bool StatusTable::isRelative(std::string_view path) const noexcept {
  return folder_.empty() || (path.starts_with(folder_) && !path.substr(folder_.size()).starts_with(WHOLE));
}

void StatusTable::set(std::string_view path, StatusCode code) {
  // Kept before it is known to be new: that spares nearly every path a second look-up, and few come twice.
  map_.insert_or_assign(isRelative(path) ? keep({}, path.substr(folder_.size())) : keep(WHOLE, path), code);
}

std::optional<StatusCode> StatusTable::find(std::string_view path) const {
  const auto found =
      isRelative(path) ? map_.find(path.substr(folder_.size())) : map_.find(std::string(WHOLE).append(path));
  if (found == map_.end()) return std::nullopt;
  return found->second;
}

std::string_view StatusTable::keep(std::string_view marker, std::string_view text) {
  const std::size_t size = marker.size() + text.size();
  if (size == 0) return {};
  if (!arena_) arena_ = std::make_unique<std::pmr::monotonic_buffer_resource>();
  auto* copy = static_cast<char*>(arena_->allocate(size, 1));
  std::copy(text.begin(), text.end(), std::copy(marker.begin(), marker.end(), copy));
  return {copy, size};
}

StatusTable::const_iterator StatusTable::begin() const {
  return {folder_, map_.begin()};
}

StatusTable::const_iterator StatusTable::end() const {
  return {folder_, map_.end()};
}

StatusTable::const_iterator::reference StatusTable::const_iterator::operator*() const {
  const auto& [key, code] = *at_;
  if (folder_->empty()) return {key, code};
  if (key.starts_with(WHOLE)) return {key.substr(WHOLE.size()), code};
  path_.assign(*folder_).append(key);
  return {path_, code};
}

bool operator==(const StatusTable& a, const StatusTable& b) {
  if (a.size() != b.size()) return false;
  for (const auto& [path, code] : a) {
    if (b.find(path) != code) return false;
  }
  return true;
}

}  // namespace vornet
