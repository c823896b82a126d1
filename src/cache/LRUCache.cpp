#include "cache/LRUCache.hpp"

#include <utility>

#include "db/SyncDB.hpp"
#include "logging/Logging.hpp"
#include "platform/Foundation.hpp"

namespace vornet {

namespace {
constexpr std::size_t DEFAULT_SIZE = 2;
}

std::string_view folderKey(std::string_view path) noexcept {
  constexpr std::string_view ROOT = "/";
  const std::size_t lastOfName = path.find_last_not_of('/');
  if (lastOfName == std::string_view::npos) return ROOT;
  const std::size_t separator = path.find_last_of('/', lastOfName);
  if (separator == std::string_view::npos) return ROOT;
  const std::size_t lastOfParent = path.find_last_not_of('/', separator);
  if (lastOfParent == std::string_view::npos) return ROOT;
  return path.substr(0, lastOfParent + 2);
}

LRUCache::LRUCache(std::optional<std::size_t> cacheSize) : maxSize_(cacheSize.value_or(DEFAULT_SIZE)) {}

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

std::optional<StatusTable> LRUCache::update(std::string_view dir, StatusTable itemDict, bool* firstFill) {
  const auto now = std::make_shared<const StatusTable>(std::move(itemDict));
  std::shared_ptr<const StatusTable> old;
  {
    const std::lock_guard guard(lock_);
    const auto found = dirs_.find(dir);
    if (firstFill) *firstFill = found != dirs_.end() && !found->second->populated();
    if (found == dirs_.end()) return std::nullopt;
    old = found->second->replace(now);
  }
  // Without the lock: of millions of entries it takes a second, and badges are asked for meanwhile.
  return old ? DirNode::update(*old, *now) : StatusTable();
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

bool LRUCache::isPopulated(std::string_view dir) const {
  const std::lock_guard guard(lock_);
  const auto found = dirs_.find(dir);
  return found != dirs_.end() && found->second->populated();
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

std::shared_ptr<DirNode> LRUCache::first() const {
  const std::lock_guard guard(lock_);
  return first_;
}

std::shared_ptr<DirNode> LRUCache::last() const {
  const std::lock_guard guard(lock_);
  return last_;
}

std::shared_ptr<DirNode> LRUCache::node(std::string_view dir) const {
  const std::lock_guard guard(lock_);
  const auto found = dirs_.find(dir);
  return found == dirs_.end() ? nullptr : found->second;
}

}  // namespace vornet
