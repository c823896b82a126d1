#include "support/FakeFileManager.hpp"

#include <utility>

namespace vornet::test {

class FakeFileManager::Item : public client::ShownItem {
 public:
  Item(FakeFileManager& manager, std::string path) : manager_(manager), path_(std::move(path)) { ++kept_; }
  ~Item() override { --kept_; }
  void redraw(const std::string& path, const std::string& emblem) override {
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
  emblems_[path];
  emblems_[path] = plugin->emblem(path, std::make_unique<Item>(*this, path));
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
  std::size_t count = 0;
  for (const auto& [path, shown] : emblems_) count += shown == emblem;
  return count;
}

}  // namespace vornet::test
