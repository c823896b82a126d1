#include "DoubtfulAnswers.hpp"

#include <utility>

namespace vornet::service {

void DoubtfulAnswers::setKnown(const std::string& path, const std::string& identifier) {
  const std::lock_guard guard(lock_);
  if (known_.size() >= MIN_KNOWN && !known_.contains(path)) knownBefore_ = std::exchange(known_, {});
  known_[path] = identifier;
}

std::string DoubtfulAnswers::lastKnown(const std::string& path) const {
  const std::lock_guard guard(lock_);
  for (const auto* items : {&known_, &knownBefore_})
    if (const auto found = items->find(path); found != items->end()) return found->second;
  return {};
}

bool DoubtfulAnswers::add(const std::string& client, const std::vector<Answer>& answers) {
  const std::lock_guard guard(lock_);
  const auto before = counts_.find(client);
  const std::size_t ofClient = before == counts_.end() ? 0 : before->second;
  if (count_ + answers.size() > MAX_ITEMS || ofClient + answers.size() > MAX_ITEMS_OF_A_CLIENT) return false;
  for (const auto& [path, identifier] : answers) {
    if (!doubtful_[path].insert_or_assign(client, identifier).second) continue;
    ++count_;
    ++counts_[client];
  }
  return true;
}

void DoubtfulAnswers::settle(const std::string& client, const std::string& path) {
  const std::lock_guard guard(lock_);
  const auto item = doubtful_.find(path);
  if (item == doubtful_.end() || item->second.erase(client) == 0) return;
  remove(client);
  if (item->second.empty()) doubtful_.erase(item);
}

void DoubtfulAnswers::forget(const std::string& client) {
  const std::lock_guard guard(lock_);
  if (!counts_.contains(client)) return;
  for (auto item = doubtful_.begin(); item != doubtful_.end();) {
    if (item->second.erase(client) > 0) remove(client);
    item = item->second.empty() ? doubtful_.erase(item) : std::next(item);
  }
}

bool DoubtfulAnswers::isEmpty() const {
  const std::lock_guard guard(lock_);
  return doubtful_.empty();
}

std::vector<std::string> DoubtfulAnswers::items(std::size_t count) const {
  const std::lock_guard guard(lock_);
  std::vector<std::string> paths;
  for (auto item = doubtful_.begin(); item != doubtful_.end() && paths.size() < count; ++item)
    paths.push_back(item->first);
  return paths;
}

std::vector<DoubtfulAnswers::Answer> DoubtfulAnswers::take(const std::string& path) {
  const std::lock_guard guard(lock_);
  const auto item = doubtful_.find(path);
  if (item == doubtful_.end()) return {};
  std::vector<Answer> answers(item->second.begin(), item->second.end());
  for (const auto& [client, identifier] : answers) remove(client);
  doubtful_.erase(item);
  return answers;
}

/// Counts one doubtful answer of `client` less.
void DoubtfulAnswers::remove(const std::string& client) {
  --count_;
  const auto count = counts_.find(client);
  if (--count->second == 0) counts_.erase(count);
}

}  // namespace vornet::service
