#include "support/FakeFileManager.hpp"

#include <utility>

namespace vornet::test {

class FakeFileManager::Item : public client::ShownItem {
 public:
  Item(FakeFileManager& manager, std::string path) : manager_(manager), path_(std::move(path)) { ++kept_; }
  ~Item() override { --kept_; }
  void redraw(const std::string& path, const std::string& emblem) override {
    ++manager_.redrawn;
    ++manager_.redraws_[path];
    if (!manager_.emblems_.contains(path)) return;
    manager_.show(path);
    if (manager_.emblems_[path] != emblem || path != path_) ++manager_.contradictions;
  }
  bool isGone() const override {
    ++manager_.lookedFor;
    return manager_.goneFor.contains(path_);
  }

 private:
  FakeFileManager& manager_;
  const std::string path_;
};

void FakeFileManager::show(const std::string& path) {
  if (emblems_.try_emplace(path).second) ++counts_[""];
  auto now = plugin->emblem(path, std::make_shared<Item>(*this, path));
  auto& shown = emblems_.at(path);
  --counts_[shown];
  ++counts_[now];
  shown = std::move(now);
}

void FakeFileManager::hide(const std::string& path) {
  const auto found = emblems_.find(path);
  if (found == emblems_.end()) return;
  --counts_[found->second];
  emblems_.erase(found);
}

std::string FakeFileManager::emblem(const std::string& path) const {
  const auto found = emblems_.find(path);
  return found == emblems_.end() ? "not shown" : found->second;
}

std::size_t FakeFileManager::redraws(const std::string& path) const {
  const auto found = redraws_.find(path);
  return found == redraws_.end() ? 0 : found->second;
}

std::size_t FakeFileManager::withEmblem(const std::string& emblem) const {
  const auto found = counts_.find(emblem);
  return found == counts_.end() ? 0 : found->second;
}

}  // namespace vornet::test
