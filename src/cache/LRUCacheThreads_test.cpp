// The cache used by several threads at once.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <atomic>
#include <mutex>

#include "cache/LRUCache.hpp"
#include "db/SyncDB.hpp"
#include "support/Databases.hpp"
#include "support/Environment.hpp"
#include "support/LogRecorder.hpp"
#include "support/Threads.hpp"

namespace vornet::test {
namespace {

struct SyncDBLock : SyncDB {
  static std::recursive_mutex& of(SyncDB& database) { return (database.*&SyncDBLock::lock)(); }
};

class LRUCacheThreadsTest : public ::testing::Test {
 protected:
  LRUCacheThreadsTest() {
    makeSyncDatabase(environment_.container() / "sync.db", {{"/missed/x", 1}, {"/0/x", 0}, {"/1/x", 0}});
  }

  Environment environment_;
};

TEST_F(LRUCacheThreadsTest, otherThreadsGoOnWhileOneWaitsForTheDatabase) {
  const LogRecorder log;
  LRUCache cache(2);
  cache.enterNewDir("/a/");
  cache.update("/a/", {{"/a/x", 2}});

  std::unique_lock busy(SyncDBLock::of(syncDB()));
  auto missed = std::async(std::launch::async, [&] { return cache.statusForPath("/missed/x"); });
  ASSERT_TRUE(log.waitFor(LogLevel::Debug, "Cache for /missed/ not populated, pulling /missed/x status from DB"));

  auto others = std::async(std::launch::async, [&] {
    EXPECT_EQ(cache.statusForPath("/a/x"), 2);
    EXPECT_TRUE(cache.update("/a/", {{"/a/x", 1}}).has_value());
    EXPECT_EQ(cache.statusForPath("/a/x"), 1);
    EXPECT_TRUE(cache.enterNewDir("/b/"));
    cache.clearCache();
  });
  EXPECT_TRUE(isDoneInTime(others));
  EXPECT_FALSE(isDone(missed));

  busy.unlock();
  EXPECT_EQ(missed.get(), 1);
  others.get();
}

TEST_F(LRUCacheThreadsTest, hitsAreAnsweredWhileTheSyncApplicationLocksTheDatabase) {
  const LogRecorder log;
  LRUCache cache(2);
  cache.enterNewDir("/a/");
  cache.update("/a/", {{"/a/x", 2}});
  Database writer(environment_.container() / "sync.db");
  writer.run("BEGIN EXCLUSIVE");
  EXPECT_EQ(cache.statusForPath("/a/x"), 2);
  EXPECT_EQ(cache.statusForPath("/missed/x"), -1);
  writer.run("COMMIT");
  EXPECT_EQ(cache.statusForPath("/missed/x"), 1);
}

TEST_F(LRUCacheThreadsTest, everyOperationMayRunBesideEveryOther) {
  constexpr int ROUNDS = 400;
  const LogRecorder log(LogLevel::Warning);
  LRUCache cache(3);
  std::atomic<int> wrong = 0;
  const auto dir = [](int i) { return std::string("/").append(std::to_string(i % 5)).append("/"); };

  inParallel(6, [&](std::size_t number) {
    for (int i = 0; i < ROUNDS; ++i) {
      const auto folder = dir(i + static_cast<int>(number));
      switch (number) {
        case 0:
          cache.enterNewDir(folder);
          break;
        case 1:
        case 2:
          if (const auto changes = cache.update(folder, {{folder + "x", i % 4 - 1}, {folder + "y", 2}}))
            for (const auto& [path, code] : *changes) wrong += !path.starts_with(folder) || code < -1 || code > 2;
          break;
        case 3:
        case 4:
          if (const auto status = cache.statusForPath(folder + "x")) wrong += *status < -1 || *status > 2;
          break;
        default:
          if (i % 20 == 0) cache.clearCache();
          wrong += cache.curSize() > cache.maxSize();
      }
    }
  });

  EXPECT_EQ(wrong, 0);
  EXPECT_TRUE(log.messages().empty());
  std::size_t nodes = 0;
  for (auto node = cache.first(); node; node = node->suc.lock()) ++nodes;
  EXPECT_EQ(nodes, cache.curSize());
}

TEST_F(LRUCacheThreadsTest, aFilledFolderIsReadWhileItIsReplaced) {
  constexpr int ROUNDS = 2000;
  LRUCache cache(2);
  cache.enterNewDir("/a/");
  cache.update("/a/", {{"/a/x", 0}});
  std::atomic<int> wrong = 0;
  inParallel(4, [&](std::size_t number) {
    for (int i = 0; i < ROUNDS; ++i) {
      if (number == 0) {
        cache.update("/a/", {{"/a/x", i % 3}, {"/a/" + std::to_string(i), 1}});
      } else {
        const auto status = cache.statusForPath("/a/x");
        wrong += !status || *status < 0 || *status > 2;
      }
    }
  });
  EXPECT_EQ(wrong, 0);
}

TEST_F(LRUCacheThreadsTest, ofThreadsThatEnterOneFolderAtOnceNoneMakesASecondNode) {
  LRUCache cache(10);
  std::atomic<int> toFetch = 0;
  inParallel(8, [&](std::size_t) { toFetch += cache.enterNewDir("/a/"); });
  EXPECT_EQ(toFetch, 8);
  EXPECT_EQ(cache.curSize(), 1U);
  EXPECT_EQ(cache.first(), cache.last());
}

}  // namespace
}  // namespace vornet::test
