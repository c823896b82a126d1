// Random operations on a cache and on a simple model of one; the list's invariants are checked after each.
#include <gtest/gtest.h>

#include <algorithm>
#include <deque>
#include <random>

#include "cache/DirCache.hpp"
#include "support/Databases.hpp"
#include "support/Entries.hpp"
#include "support/Environment.hpp"
#include "support/LogRecorder.hpp"

namespace vornet::test {
namespace {

/// The cache as one would write it without regard for speed: a list of folders, the most recently entered first.
class Model {
 public:
  explicit Model(std::size_t maxSize) : maxSize_(maxSize) {}

  struct Folder {
    std::string dir;
    bool populated = false;
    Entries items;
  };

  bool enter(const std::string& dir) {
    Folder folder{dir, false, {}};
    if (const auto at = position(dir); at != folders_.end()) {
      folder = *at;
      folders_.erase(at);
    }
    folders_.push_front(folder);
    if (folders_.size() > maxSize_) folders_.pop_back();
    return !folder.populated;
  }

  std::optional<Entries> update(const std::string& dir, const Entries& items) {
    const auto at = position(dir);
    if (at == folders_.end()) return std::nullopt;
    Entries changes;
    for (const auto& [path, code] : items) {
      const auto old = at->items.find(path);
      if (at->populated && (old == at->items.end() || old->second != code)) changes[path] = code;
    }
    at->populated = true;
    at->items = items;
    return changes;
  }

  std::optional<StatusCode> status(const std::string& dir, const std::string& path, StatusCode stored) const {
    for (const auto& folder : folders_) {
      if (folder.dir != dir || !folder.populated) continue;
      const auto found = folder.items.find(path);
      return found == folder.items.end() ? std::nullopt : std::optional(found->second);
    }
    return stored;
  }

  void clear() { folders_.clear(); }
  const std::deque<Folder>& folders() const { return folders_; }

 private:
  std::deque<Folder>::iterator position(const std::string& dir) {
    return std::find_if(folders_.begin(), folders_.end(), [&](const Folder& folder) { return folder.dir == dir; });
  }

  std::size_t maxSize_;
  std::deque<Folder> folders_;
};

/// A cache whose nodes the test may see.
struct CacheProbe : LRUCache {
  using LRUCache::LRUCache;

  /// Checks that list, map and count agree with one another and with the model.
  void check(const Model& model) const {
    ASSERT_EQ(curSize(), model.folders().size());
    ASSERT_EQ(dirs_.size(), curSize());
    ASSERT_LE(curSize(), maxSize());
    auto node = first_;
    std::shared_ptr<DirNode> before;
    for (const auto& folder : model.folders()) {
      ASSERT_NE(node, nullptr);
      ASSERT_EQ(node->dir(), folder.dir);
      ASSERT_EQ(node, dirs_.at(folder.dir));
      ASSERT_EQ(node->pre.lock(), before);
      ASSERT_EQ(node->populated(), folder.populated);
      ASSERT_EQ(entriesOf(node->items()), folder.items);
      before = node;
      node = node->suc.lock();
    }
    ASSERT_EQ(node, nullptr);
    ASSERT_EQ(last_, before);
  }
};

class LRUCacheModelTest : public ::testing::TestWithParam<std::size_t> {};

TEST_P(LRUCacheModelTest, BehavesAsTheModelOverRandomOperations) {
  constexpr int STEPS = 4'000;
  constexpr StatusCode STORED = 7;
  const Environment environment;
  const LogRecorder log(LogLevel::Warning);

  std::vector<std::string> dirs = {"/"};
  for (const char* name : {"a", "b", "c", "d", "e", "f", "g"})
    dirs.push_back(std::string("/").append(name).append("/"));
  std::vector<std::pair<std::string, int>> rows;
  for (const auto& dir : dirs) rows.emplace_back(dir + "x", STORED);
  makeSyncDatabase(environment.container() / "sync.db", rows);

  std::mt19937 random(20'240'501U + static_cast<std::mt19937::result_type>(GetParam()));
  const auto below = [&](std::size_t limit) {
    return std::uniform_int_distribution<std::size_t>(0, limit - 1)(random);
  };
  CacheProbe cache(GetParam());
  Model model(GetParam());
  for (int step = 0; step < STEPS; ++step) {
    SCOPED_TRACE(step);
    const std::string& dir = dirs[below(dirs.size())];
    const std::size_t operation = below(100);
    if (operation < 45) {
      ASSERT_EQ(cache.enterNewDir(dir), model.enter(dir));
    } else if (operation < 80) {
      Entries items;
      for (const char* name : {"x", "y", "z/"})
        if (below(3) > 0) items[dir + name] = static_cast<StatusCode>(below(4)) - 1;
      const auto changes = cache.update(dir, tableOf(items));
      const auto expected = model.update(dir, items);
      ASSERT_EQ(changes.has_value(), expected.has_value());
      if (changes) ASSERT_EQ(entriesOf(*changes), *expected);
    } else if (operation < 99) {
      ASSERT_EQ(cache.statusForPath(dir + "x"), model.status(dir, dir + "x", STORED));
    } else {
      cache.clearCache();
      model.clear();
    }
    ASSERT_NO_FATAL_FAILURE(cache.check(model));
  }
  EXPECT_TRUE(log.messages().empty());
}

INSTANTIATE_TEST_SUITE_P(Sizes, LRUCacheModelTest, ::testing::Values(0, 1, 2, 3, 5, 50),
                         [](const auto& size) { return "Of" + std::to_string(size.param); });

}  // namespace
}  // namespace vornet::test
