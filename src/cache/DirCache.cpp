#include "cache/DirCache.hpp"

#include <algorithm>
#include <utility>

#include "db/SyncDB.hpp"
#include "logging/Logging.hpp"
#include "platform/Foundation.hpp"

namespace vornet {

DirNode::DirNode(std::string dir) : dir_(std::move(dir)), items_(std::make_shared<StatusTable>()) {}

StatusTable DirNode::update(StatusTable items) {
  const auto now = std::make_shared<const StatusTable>(std::move(items));
  const auto old = replace(now);
  return old ? update(*old, *now) : StatusTable();
}

std::shared_ptr<const StatusTable> DirNode::replace(std::shared_ptr<const StatusTable> items, std::size_t digest) {
  digest_ = digest;
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
  if (kept == now.size()) return changes;  // nothing was added
  for (auto entry = now.begin(); entry != now.end(); ++entry) {
    const auto& [path, status] = *entry;
    if (old.find(path)) continue;
    VI_DEBUG("Cache path added: " + std::string(path) + " " + std::to_string(status));
    changes.add(entry);
  }
  return changes;
}

void DirNode::clear() {
  populated_ = false;
  if (!items_->empty()) items_ = std::make_shared<StatusTable>();
}

std::string_view folderKey(std::string_view path) noexcept {
  // Each badge passes here. Plain loops, because names are short; std::find compares several characters a round.
  std::size_t end = path.size();
  while (end > 0 && path[end - 1] == '/') --end;
  end = static_cast<std::size_t>(path.rend() -
                                 std::find(path.rend() - static_cast<std::ptrdiff_t>(end), path.rend(), '/'));
  while (end > 0 && path[end - 1] == '/') --end;
  return end == 0 ? "/" : path.substr(0, end + 1);
}

LRUCache::LRUCache(std::optional<std::size_t> cacheSize) : maxSize_(cacheSize.value_or(std::size_t{DIR_CACHE_SIZE})) {}

bool LRUCache::enterNewDir(const std::string& dir) {
  const std::lock_guard guard(lock_);
  return _enterNewDir(dir);
}

bool LRUCache::_enterNewDir(const std::string& dir) {
  if (const auto found = dirs_.find(dir); found != dirs_.end()) {
    moveToFirst(dir);
    return !found->second->populated();
  }
  auto node = std::make_shared<DirNode>(dir);
  dirs_.emplace(dir, node);
  if (!first_) {
    last_ = node;
  } else {
    node->suc = first_;
    first_->pre = node;
  }
  first_ = std::move(node);
  if (++curSize_ > maxSize_) removeLast();
  return true;
}

void LRUCache::moveToFirst(const std::string& dir) {
  const std::shared_ptr<DirNode> node = dirs_.find(dir)->second;
  if (first_ == node) return;
  const auto pre = node->pre.lock();
  const auto suc = node->suc.lock();
  if (suc) suc->pre = pre;
  if (pre) pre->suc = suc;
  if (last_ == node) last_ = pre;
  node->suc = first_;
  if (first_) first_->pre = node;
  node->pre.reset();
  first_ = node;
}

void LRUCache::removeLast() {
  if (!last_) return;
  VI_DEBUG("Dropping last cached directory");
  if (const auto found = dirs_.find(last_->dir()); found != dirs_.end()) {
    found->second->clear();
    dirs_.erase(found);
  }
  const auto predecessor = last_->pre.lock();
  last_->pre.reset();
  last_->suc.reset();
  if (curSize_ == 1) {
    first_.reset();
    last_.reset();
    curSize_ = 0;
    return;
  }
  if (!predecessor) {
    VI_WARNING("Last item has no predecessor, and it should have");
    platform::fatalError("a broken list of cached folders");
  }
  predecessor->suc.reset();
  last_ = predecessor;
  --curSize_;
}

std::optional<StatusTable> LRUCache::update(std::string_view dir, StatusTable itemDict, bool* firstFill,
                                            std::size_t digest) {
  const auto now = std::make_shared<const StatusTable>(std::move(itemDict));
  std::shared_ptr<const StatusTable> old;
  {
    const std::lock_guard guard(lock_);
    const auto found = dirs_.find(dir);
    if (firstFill) *firstFill = found != dirs_.end() && !found->second->populated();
    if (found == dirs_.end()) return std::nullopt;
    old = found->second->replace(now, digest);
  }
  // Without the lock: comparing millions of entries takes a second, and badges are requested meanwhile.
  return old ? DirNode::update(*old, *now) : StatusTable();
}

bool LRUCache::holds(std::string_view dir, std::size_t digest) const {
  const std::lock_guard guard(lock_);
  const auto found = dirs_.find(dir);
  return found != dirs_.end() && found->second->populated() && found->second->digest() == digest;
}

std::size_t LRUCache::memoryBeside(std::string_view dir) const {
  const std::lock_guard guard(lock_);
  std::size_t bytes = 0;
  for (const auto& [key, node] : dirs_)
    if (key != dir) bytes += node->items().memory();
  return bytes;
}

std::optional<StatusCode> LRUCache::statusForPath(std::string_view path) const {
  const std::string_view key = folderKey(path);
  {
    const std::lock_guard guard(lock_);
    const auto found = dirs_.find(key);
    if (found != dirs_.end() && found->second->populated()) return found->second->statusForPath(path);
  }
  VI_DEBUG("Cache for " + std::string(key) + " not populated, pulling " + std::string(path) + " status from DB");
  return syncDB().pathSyncStatus(std::string(path));
}

std::shared_ptr<const StatusTable> LRUCache::statuses(std::string_view dir) const {
  const std::lock_guard guard(lock_);
  const auto found = dirs_.find(dir);
  return found != dirs_.end() && found->second->populated() ? found->second->sharedItems() : nullptr;
}

void LRUCache::clearCache() {
  const std::lock_guard guard(lock_);
  while (curSize_ > 0) removeLast();
  VI_INFO("Directory cache purged");
}

std::size_t LRUCache::curSize() const {
  const std::lock_guard guard(lock_);
  return curSize_;
}

}  // namespace vornet
