#include "cache/DirNode.hpp"

#include <utility>

#include "logging/Logging.hpp"

namespace vornet {

DirNode::DirNode(std::string dir) : dir_(std::move(dir)), items_(std::make_shared<StatusTable>()) {}

StatusTable DirNode::update(StatusTable items) {
  const auto now = std::make_shared<const StatusTable>(std::move(items));
  const auto old = replace(now);
  return old ? update(*old, *now) : StatusTable();
}

std::shared_ptr<const StatusTable> DirNode::replace(std::shared_ptr<const StatusTable> items) {
  auto old = std::exchange(items_, std::move(items));
  return std::exchange(populated_, true) ? std::move(old) : nullptr;
}

StatusTable DirNode::update(const StatusTable& old, const StatusTable& now) {
  StatusTable changes = now.selection();
  std::size_t kept = 0;
  for (const auto& [path, status] : old) {
    const auto found = now.locate(path);
    const bool isThere = found != now.end();
    if (isThere) ++kept;
    if (isThere && found.code() == status) continue;
    VI_DEBUG("Cached path changed: " + std::string(path) + " " + std::to_string(status) + " -> " +
             (isThere ? "Optional(" + std::to_string(found.code()) + ")" : "nil"));
    if (isThere) changes.add(found);
  }
  if (kept == now.size()) return changes;  // nothing was added: nothing to look for
  for (auto entry = now.begin(); entry != now.end(); ++entry) {
    const auto& [path, status] = *entry;
    if (old.find(path)) continue;
    VI_DEBUG("Cache path added: " + std::string(path) + " " + std::to_string(status));
    changes.add(entry);
  }
  return changes;
}

std::optional<StatusCode> DirNode::statusForPath(std::string_view path) const {
  return items_->find(path);
}

void DirNode::clear() {
  populated_ = false;
  if (!items_->empty()) items_ = std::make_shared<StatusTable>();
}

}  // namespace vornet
