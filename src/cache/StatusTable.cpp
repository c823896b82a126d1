#include "cache/StatusTable.hpp"

#include <cstring>

namespace vornet {

StatusTable::StatusTable(std::initializer_list<std::pair<std::string_view, StatusCode>> entries) {
  for (const auto& [path, code] : entries) set(path, code);
}

void StatusTable::reserve(std::size_t entries, std::size_t pathBytes) {
  map_.reserve(entries);
  if (!arena_ && pathBytes > 0) arena_ = std::make_unique<std::pmr::monotonic_buffer_resource>(pathBytes);
}

void StatusTable::set(std::string_view path, StatusCode code) {
  // Kept before it is known to be new: that spares nearly every path a second look-up, and few come twice.
  map_.insert_or_assign(keep(path), code);
}

std::optional<StatusCode> StatusTable::find(std::string_view path) const {
  const auto found = map_.find(path);
  if (found == map_.end()) return std::nullopt;
  return found->second;
}

std::string_view StatusTable::keep(std::string_view path) {
  if (path.empty()) return {};
  if (!arena_) arena_ = std::make_unique<std::pmr::monotonic_buffer_resource>();
  auto* copy = static_cast<char*>(arena_->allocate(path.size(), 1));
  std::memcpy(copy, path.data(), path.size());
  return {copy, path.size()};
}

}  // namespace vornet
