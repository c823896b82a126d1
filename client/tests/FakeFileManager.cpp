#include "FakeFileManager.hpp"

#include <chrono>
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
  bool isGone() const override { return manager_.goneFor.contains(path_); }

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

bool runUntil(const std::function<bool()>& condition) {
  const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(30);
  GSource* wake = g_timeout_source_new(10);  // conditions also change without an event of this context
  g_source_set_callback(wake, +[](gpointer) -> gboolean { return G_SOURCE_CONTINUE; }, nullptr, nullptr);
  g_source_attach(wake, nullptr);
  bool holds = condition();
  while (!holds && std::chrono::steady_clock::now() < deadline) {
    g_main_context_iteration(nullptr, TRUE);
    holds = condition();
  }
  g_source_destroy(wake);
  g_source_unref(wake);
  return holds;
}

void settle() {
  while (g_main_context_iteration(nullptr, FALSE)) continue;
}

}  // namespace vornet::test
