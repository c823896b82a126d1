#include "cache/DirNode.hpp"

#include <utility>

#include "logging/Logging.hpp"

namespace vornet {

DirNode::DirNode(std::string dir) : dir_(std::move(dir)) {}

StatusTable DirNode::update(StatusTable items) {
  StatusTable changes;
  const StatusTable old = std::exchange(items_, std::move(items));
  if (!populated_) {
    populated_ = true;
    return changes;
  }

  std::size_t kept = 0;
  for (const auto& [path, status] : old) {
    const auto now = items_.find(path);
    if (now) ++kept;
    if (now == status) continue;
    VI_DEBUG("Cached path changed: " + std::string(path) + " " + std::to_string(status) + " -> " +
             (now ? "Optional(" + std::to_string(*now) + ")" : "nil"));
    if (now) changes.set(path, *now);
  }
  if (kept == items_.size()) return changes;  // nothing was added: nothing to look for
  for (const auto& [path, status] : items_) {
    if (old.find(path)) continue;
    VI_DEBUG("Cache path added: " + std::string(path) + " " + std::to_string(status));
    changes.set(path, status);
  }
  return changes;
}

std::optional<StatusCode> DirNode::statusForPath(std::string_view path) const {
  return items_.find(path);
}

void DirNode::clear() {
  populated_ = false;
  if (!items_.empty()) items_ = {};
}

}  // namespace vornet
