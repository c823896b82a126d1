#include "cache/LRUCache.hpp"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>

#include "db/SyncDB.hpp"
#include "support/Databases.hpp"
#include "support/Entries.hpp"
#include "support/Environment.hpp"
#include "support/LogRecorder.hpp"
#include "support/ProcessStops.hpp"

namespace vornet::test {
namespace {

using ::testing::ElementsAre;
using ::testing::HasSubstr;
using ::testing::IsEmpty;
using ::testing::Not;
using ::testing::Pair;
using ::testing::UnorderedElementsAre;

const std::string DROPPING = "Dropping last cached directory";

/// The cached folders from the most to the least recently entered; the same backwards, or the test fails.
std::vector<std::string> order(const LRUCache& cache) {
  std::vector<std::string> forward;
  for (auto node = cache.first(); node; node = node->suc.lock()) forward.push_back(node->dir());
  std::vector<std::string> backward;
  for (auto node = cache.last(); node; node = node->pre.lock()) backward.push_back(node->dir());
  std::reverse(backward.begin(), backward.end());
  EXPECT_EQ(forward, backward);
  EXPECT_EQ(cache.curSize(), forward.size());
  return forward;
}

std::string miss(const std::string& key, const std::string& path) {
  return "Cache for " + key + " not populated, pulling " + path + " status from DB";
}

TEST(LRUCacheTest, aNewCacheIsEmpty) {
  const LRUCache cache(50);
  EXPECT_EQ(cache.maxSize(), 50U);
  EXPECT_EQ(cache.curSize(), 0U);
  EXPECT_EQ(cache.first(), nullptr);
  EXPECT_EQ(cache.last(), nullptr);
  EXPECT_EQ(cache.node("/a/"), nullptr);
}

TEST(LRUCacheTest, theSizeIsTwoWhenNoneIsGiven) {
  EXPECT_EQ(LRUCache().maxSize(), 2U);
  EXPECT_EQ(LRUCache(std::nullopt).maxSize(), 2U);
  LRUCache cache;
  for (const char* dir : {"/a/", "/b/", "/c/"}) cache.enterNewDir(dir);
  EXPECT_THAT(order(cache), ElementsAre("/c/", "/b/"));
}

TEST(LRUCacheTest, enteringANewFolderMakesAnUnfilledNodeAtTheFront) {
  const LogRecorder log;
  LRUCache cache(3);
  EXPECT_TRUE(cache.enterNewDir("/a/"));
  EXPECT_THAT(order(cache), ElementsAre("/a/"));
  EXPECT_EQ(cache.first(), cache.last());
  EXPECT_TRUE(cache.enterNewDir("/b/"));
  EXPECT_THAT(order(cache), ElementsAre("/b/", "/a/"));
  EXPECT_EQ(cache.first(), cache.node("/b/"));
  EXPECT_FALSE(cache.node("/b/")->populated());
  EXPECT_THAT(log.messages(), IsEmpty());
}

TEST(LRUCacheTest, theEndsOfTheListHaveNoNeighbourBeyondThem) {
  LRUCache cache(3);
  for (const char* dir : {"/a/", "/b/", "/c/"}) cache.enterNewDir(dir);
  EXPECT_TRUE(cache.first()->pre.expired());
  EXPECT_TRUE(cache.last()->suc.expired());
}

TEST(LRUCacheTest, theFolderAtTheBackIsDroppedWhenThereAreTooMany) {
  const LogRecorder log;
  LRUCache cache(2);
  for (const char* dir : {"/a/", "/b/", "/c/"}) cache.enterNewDir(dir);
  EXPECT_THAT(order(cache), ElementsAre("/c/", "/b/"));
  EXPECT_EQ(cache.node("/a/"), nullptr);
  EXPECT_THAT(log.messages(), ElementsAre(DROPPING));
  EXPECT_EQ(log.count(LogLevel::Debug, DROPPING), 1U);
  EXPECT_EQ(log.records().front().functionName, "removeLast");
  EXPECT_EQ(log.records().front().fileName, "src/cache/LRUCache");
}

TEST(LRUCacheTest, aFolderEnteredAgainIsNotTheOneToGo) {
  LRUCache cache(2);
  for (const char* dir : {"/a/", "/b/", "/a/", "/c/"}) cache.enterNewDir(dir);
  EXPECT_THAT(order(cache), ElementsAre("/c/", "/a/"));
  EXPECT_EQ(cache.node("/b/"), nullptr);
}

TEST(LRUCacheTest, eachInsertionDropsOneFolderAtMost) {
  const LogRecorder log;
  LRUCache cache(3);
  for (int i = 0; i < 10; ++i) {
    cache.enterNewDir(std::string("/").append(std::to_string(i)).append("/"));
    EXPECT_EQ(cache.curSize(), static_cast<std::size_t>(std::min(i + 1, 3)));
    EXPECT_EQ(log.count(LogLevel::Debug, DROPPING), static_cast<std::size_t>(std::max(0, i - 2)));
  }
  EXPECT_THAT(order(cache), ElementsAre("/9/", "/8/", "/7/"));
}

TEST(LRUCacheTest, aDroppedNodeIsClearedAndUnlinked) {
  LRUCache cache(1);
  cache.enterNewDir("/a/");
  cache.update("/a/", {{"/a/x", 1}});
  const auto dropped = cache.node("/a/");
  cache.enterNewDir("/b/");
  EXPECT_FALSE(dropped->populated());
  EXPECT_TRUE(dropped->items().empty());
  EXPECT_TRUE(dropped->pre.expired());
  EXPECT_TRUE(dropped->suc.expired());
  EXPECT_THAT(order(cache), ElementsAre("/b/"));
}

TEST(LRUCacheTest, aDroppedNodeIsKeptAliveByNobody) {
  LRUCache cache(1);
  cache.enterNewDir("/a/");
  const std::weak_ptr<DirNode> dropped = cache.node("/a/");
  cache.enterNewDir("/b/");
  EXPECT_TRUE(dropped.expired());
}

TEST(LRUCacheTest, aDroppedFolderComesBackUnfilled) {
  LRUCache cache(1);
  cache.enterNewDir("/a/");
  cache.update("/a/", {{"/a/x", 1}});
  cache.enterNewDir("/b/");
  EXPECT_TRUE(cache.enterNewDir("/a/"));
  EXPECT_FALSE(cache.node("/a/")->populated());
}

TEST(LRUCacheTest, aCacheOfNoFoldersDropsEachAtOnce) {
  const LogRecorder log;
  LRUCache cache(0);
  EXPECT_TRUE(cache.enterNewDir("/a/"));
  EXPECT_TRUE(cache.enterNewDir("/a/"));
  EXPECT_THAT(order(cache), IsEmpty());
  EXPECT_EQ(cache.node("/a/"), nullptr);
  EXPECT_EQ(cache.update("/a/", {{"/a/x", 1}}), std::nullopt);
  EXPECT_THAT(log.messages(), ElementsAre(DROPPING, DROPPING));
}

TEST(LRUCacheTest, aCacheOfOneFolderHoldsTheLastEntered) {
  LRUCache cache(1);
  cache.enterNewDir("/a/");
  EXPECT_TRUE(cache.enterNewDir("/b/"));
  EXPECT_THAT(order(cache), ElementsAre("/b/"));
  EXPECT_EQ(cache.first(), cache.last());
  EXPECT_TRUE(cache.enterNewDir("/b/"));
  EXPECT_THAT(order(cache), ElementsAre("/b/"));
}

TEST(LRUCacheTest, enteringAnUnfilledFolderAgainAsksForItsStatusesAgain) {
  LRUCache cache(2);
  EXPECT_TRUE(cache.enterNewDir("/a/"));
  const auto node = cache.node("/a/");
  EXPECT_TRUE(cache.enterNewDir("/a/"));
  EXPECT_EQ(cache.node("/a/"), node);
  EXPECT_THAT(order(cache), ElementsAre("/a/"));
}

TEST(LRUCacheTest, enteringAFilledFolderMovesItToTheFrontAndAsksForNothing) {
  LRUCache cache(3);
  for (const char* dir : {"/a/", "/b/", "/c/"}) cache.enterNewDir(dir);
  cache.update("/a/", {{"/a/x", 1}});
  const auto node = cache.node("/a/");
  EXPECT_FALSE(cache.enterNewDir("/a/"));
  EXPECT_THAT(order(cache), ElementsAre("/a/", "/c/", "/b/"));
  EXPECT_EQ(cache.node("/a/"), node);
  EXPECT_EQ(node->statusForPath("/a/x"), 1);
}

TEST(LRUCacheTest, enteringAnUnfilledFolderMovesItToTheFront) {
  LRUCache cache(3);
  for (const char* dir : {"/a/", "/b/"}) cache.enterNewDir(dir);
  EXPECT_TRUE(cache.enterNewDir("/a/"));
  EXPECT_THAT(order(cache), ElementsAre("/a/", "/b/"));
}

TEST(LRUCacheTest, aFolderMovesToTheFrontFromTheBackTheMiddleAndTheFront) {
  LRUCache cache(4);
  for (const char* dir : {"/a/", "/b/", "/c/", "/d/"}) cache.enterNewDir(dir);
  cache.enterNewDir("/a/");
  EXPECT_THAT(order(cache), ElementsAre("/a/", "/d/", "/c/", "/b/"));
  cache.enterNewDir("/c/");
  EXPECT_THAT(order(cache), ElementsAre("/c/", "/a/", "/d/", "/b/"));
  cache.enterNewDir("/c/");
  EXPECT_THAT(order(cache), ElementsAre("/c/", "/a/", "/d/", "/b/"));
  EXPECT_TRUE(cache.first()->pre.expired());
  EXPECT_TRUE(cache.last()->suc.expired());
}

TEST(LRUCacheTest, aFolderFilledWithNothingCountsAsFilled) {
  LRUCache cache(2);
  cache.enterNewDir("/a/");
  EXPECT_TRUE(cache.update("/a/", {}).has_value());
  EXPECT_FALSE(cache.enterNewDir("/a/"));
}

TEST(LRUCacheTest, folderNamesAreComparedExactly) {
  LRUCache cache(5);
  for (const char* dir : {"/a/", "/a", "/A/", "", "/"}) EXPECT_TRUE(cache.enterNewDir(dir));
  EXPECT_THAT(order(cache), ElementsAre("/", "", "/A/", "/a", "/a/"));
}

TEST(LRUCacheTest, aFirstUpdateReportsNothingAndLaterOnesTheChanges) {
  LRUCache cache(2);
  cache.enterNewDir("/a/");
  const auto first = cache.update("/a/", {{"/a/x", 1}, {"/a/y", 1}});
  ASSERT_TRUE(first);
  EXPECT_TRUE(first->empty());
  const auto second = cache.update("/a/", {{"/a/x", 2}, {"/a/y", 1}, {"/a/z", 0}});
  ASSERT_TRUE(second);
  EXPECT_THAT(entriesOf(*second), UnorderedElementsAre(Pair("/a/x", 2), Pair("/a/z", 0)));
}

TEST(LRUCacheTest, updatingAFolderThatIsNotCachedGivesNoValueAndStoresNothing) {
  const LogRecorder log;
  LRUCache cache(2);
  cache.enterNewDir("/a/");
  EXPECT_EQ(cache.update("/b/", {{"/b/x", 1}}), std::nullopt);
  EXPECT_EQ(cache.update("/a", {{"/a/x", 1}}), std::nullopt);
  EXPECT_THAT(order(cache), ElementsAre("/a/"));
  EXPECT_FALSE(cache.node("/a/")->populated());
  EXPECT_THAT(log.messages(), IsEmpty());
}

TEST(LRUCacheTest, updatingAFolderDoesNotMoveIt) {
  LRUCache cache(2);
  for (const char* dir : {"/a/", "/b/"}) cache.enterNewDir(dir);
  cache.update("/a/", {{"/a/x", 1}});
  EXPECT_THAT(order(cache), ElementsAre("/b/", "/a/"));
  cache.enterNewDir("/c/");
  EXPECT_EQ(cache.node("/a/"), nullptr);
}

TEST(LRUCacheTest, clearingDropsEveryFolderFromTheBack) {
  LRUCache cache(3);
  for (const char* dir : {"/a/", "/b/", "/c/"}) cache.enterNewDir(dir);
  cache.update("/b/", {{"/b/x", 1}});
  const auto node = cache.node("/b/");
  const LogRecorder log;
  cache.clearCache();
  EXPECT_THAT(order(cache), IsEmpty());
  for (const char* dir : {"/a/", "/b/", "/c/"}) EXPECT_EQ(cache.node(dir), nullptr);
  EXPECT_FALSE(node->populated());
  EXPECT_THAT(log.messages(), ElementsAre(DROPPING, DROPPING, DROPPING, "Directory cache purged"));
  EXPECT_EQ(log.count(LogLevel::Info, "Directory cache purged"), 1U);
  EXPECT_EQ(log.records().back().functionName, "clearCache");
}

TEST(LRUCacheTest, clearingAnEmptyCacheSaysSoAndLeavesItEmpty) {
  const LogRecorder log;
  LRUCache cache(2);
  cache.clearCache();
  EXPECT_THAT(order(cache), IsEmpty());
  EXPECT_EQ(cache.first(), nullptr);
  EXPECT_EQ(cache.last(), nullptr);
  EXPECT_THAT(log.messages(), ElementsAre("Directory cache purged"));
  EXPECT_EQ(log.records().front().logLevel, LogLevel::Info);
}

TEST(LRUCacheTest, aClearedCacheFillsAgain) {
  LRUCache cache(2);
  for (const char* dir : {"/a/", "/b/"}) cache.enterNewDir(dir);
  cache.clearCache();
  for (const char* dir : {"/b/", "/c/", "/d/"}) EXPECT_TRUE(cache.enterNewDir(dir));
  EXPECT_THAT(order(cache), ElementsAre("/d/", "/c/"));
}

TEST(FolderKeyTest, isThePathWithoutItsLastComponentEndingInASlash) {
  EXPECT_EQ(folderKey("/"), "/");
  EXPECT_EQ(folderKey(""), "/");
  EXPECT_EQ(folderKey("/a"), "/");
  EXPECT_EQ(folderKey("/a/"), "/");
  EXPECT_EQ(folderKey("/a/b"), "/a/");
  EXPECT_EQ(folderKey("/a/b/"), "/a/");
  EXPECT_EQ(folderKey("/a//b"), "/a/");
  EXPECT_EQ(folderKey("/a/b//"), "/a/");
  EXPECT_EQ(folderKey("/a/b/c"), "/a/b/");
  EXPECT_EQ(folderKey("a"), "/");
  EXPECT_EQ(folderKey("a/"), "/");
  EXPECT_EQ(folderKey("a/b"), "a/");
  EXPECT_EQ(folderKey("//"), "/");
  EXPECT_EQ(folderKey("//a"), "/");
}

TEST(FolderKeyTest, namesMayHoldAnythingButASlash) {
  EXPECT_EQ(folderKey("/a.b/c.d"), "/a.b/");
  EXPECT_EQ(folderKey("/ /\u00fc"), "/ /");
  EXPECT_EQ(folderKey("/a/.."), "/a/");
  EXPECT_EQ(folderKey("/a\\b"), "/");
}

class StatusForPathTest : public ::testing::Test {
 protected:
  void storeInDatabase(const std::vector<std::pair<std::string, int>>& rows) {
    makeSyncDatabase(environment_.container() / "sync.db", rows);
  }

  Environment environment_;
  LRUCache cache_{3};
};

TEST_F(StatusForPathTest, inAFilledFolderIsTheEntryOfExactlyThatPath) {
  storeInDatabase({{"/a/x", 0}, {"/a/y", 0}});
  cache_.enterNewDir("/a/");
  cache_.update("/a/", {{"/a/x", 2}, {"/a/c/", 1}, {"/a/z", -1}});
  const LogRecorder log;
  EXPECT_EQ(cache_.statusForPath("/a/x"), 2);
  EXPECT_EQ(cache_.statusForPath("/a/c/"), 1);
  EXPECT_EQ(cache_.statusForPath("/a/c"), std::nullopt);
  EXPECT_EQ(cache_.statusForPath("/a/z"), -1);
  EXPECT_THAT(log.messages(), IsEmpty());
}

TEST_F(StatusForPathTest, ofAMissingEntryInAFilledFolderIsNoValueEvenWhenTheDatabaseHasOne) {
  storeInDatabase({{"/a/x", 2}});
  cache_.enterNewDir("/a/");
  cache_.update("/a/", {});
  const LogRecorder log;
  EXPECT_EQ(cache_.statusForPath("/a/x"), std::nullopt);
  EXPECT_THAT(log.messages(), IsEmpty());
}

TEST_F(StatusForPathTest, inAnUnfilledFolderIsTheDatabasesAnswer) {
  storeInDatabase({{"/a/x", 2}});
  cache_.enterNewDir("/a/");
  const LogRecorder log;
  EXPECT_EQ(cache_.statusForPath("/a/x"), 2);
  EXPECT_THAT(log.messages(), ElementsAre(miss("/a/", "/a/x")));
  EXPECT_EQ(log.records().front().logLevel, LogLevel::Debug);
  EXPECT_EQ(log.records().front().functionName, "statusForPath");
}

TEST_F(StatusForPathTest, outsideTheCacheIsTheDatabasesAnswer) {
  storeInDatabase({{"/a/x", 1}, {"/a/c/", 2}});
  const LogRecorder log;
  EXPECT_EQ(cache_.statusForPath("/a/x"), 1);
  EXPECT_EQ(cache_.statusForPath("/a/c"), 2);
  EXPECT_THAT(log.messages(), ElementsAre(miss("/a/", "/a/x"), miss("/a/", "/a/c")));
}

TEST_F(StatusForPathTest, isMinusOneWhenTheDatabaseHasNoRow) {
  storeInDatabase({});
  EXPECT_EQ(cache_.statusForPath("/a/x"), -1);
}

TEST_F(StatusForPathTest, isMinusOneWhenTheDatabaseCannotBeOpened) {
  const LogRecorder log;
  EXPECT_EQ(cache_.statusForPath("/a/x"), -1);
  EXPECT_THAT(log.messages(), ElementsAre(miss("/a/", "/a/x"), "Cannot open database"));
}

TEST_F(StatusForPathTest, isMinusOneWhenTheDatabaseCannotBeQueried) {
  writeFile(environment_.container() / "sync.db", "no database");
  const LogRecorder log;
  EXPECT_EQ(cache_.statusForPath("/a/x"), -1);
  EXPECT_THAT(log.messages(), ElementsAre(miss("/a/", "/a/x"), "Cannot prepare SQL statement"));
}

TEST_F(StatusForPathTest, aMissMakesNoNodeAndMovesNone) {
  storeInDatabase({{"/a/x", 1}, {"/c/x", 1}});
  for (const char* dir : {"/a/", "/b/"}) cache_.enterNewDir(dir);
  cache_.statusForPath("/a/x");
  cache_.statusForPath("/c/x");
  EXPECT_THAT(order(cache_), ElementsAre("/b/", "/a/"));
  EXPECT_FALSE(cache_.node("/a/")->populated());
}

TEST_F(StatusForPathTest, aHitMovesNoNode) {
  for (const char* dir : {"/a/", "/b/"}) cache_.enterNewDir(dir);
  cache_.update("/a/", {{"/a/x", 1}});
  EXPECT_EQ(cache_.statusForPath("/a/x"), 1);
  EXPECT_THAT(order(cache_), ElementsAre("/b/", "/a/"));
}

TEST_F(StatusForPathTest, ofTheRootIsLookedUpInTheRoot) {
  cache_.enterNewDir("/");
  cache_.update("/", {{"/", 2}, {"/a", 1}, {"/d/", 0}, {"", -1}, {"b", 3}});
  EXPECT_EQ(cache_.statusForPath("/"), 2);
  EXPECT_EQ(cache_.statusForPath("/a"), 1);
  EXPECT_EQ(cache_.statusForPath("/d/"), 0);
  EXPECT_EQ(cache_.statusForPath(""), -1);
  EXPECT_EQ(cache_.statusForPath("b"), 3);
}

TEST_F(StatusForPathTest, aMissNamesTheFolderKeyAndThePathAsGiven) {
  storeInDatabase({});
  const LogRecorder log;
  for (const char* path : {"/", "", "/a", "/a/", "/a/b", "/a/b/", "/a//b", "a", "a/b"})
    EXPECT_EQ(cache_.statusForPath(path), -1);
  EXPECT_THAT(log.messages(),
              ElementsAre(miss("/", "/"), miss("/", ""), miss("/", "/a"), miss("/", "/a/"), miss("/a/", "/a/b"),
                          miss("/a/", "/a/b/"), miss("/a/", "/a//b"), miss("/", "a"), miss("a/", "a/b")));
}

TEST_F(StatusForPathTest, afterAnEvictionIsTheDatabasesAnswer) {
  storeInDatabase({{"/a/x", 0}});
  cache_.enterNewDir("/a/");
  cache_.update("/a/", {{"/a/x", 2}});
  for (const char* dir : {"/b/", "/c/", "/d/"}) cache_.enterNewDir(dir);
  EXPECT_EQ(cache_.statusForPath("/a/x"), 0);
}

TEST_F(StatusForPathTest, afterAPurgeIsTheDatabasesAnswer) {
  storeInDatabase({{"/a/x", 0}});
  cache_.enterNewDir("/a/");
  cache_.update("/a/", {{"/a/x", 2}});
  cache_.clearCache();
  EXPECT_EQ(cache_.statusForPath("/a/x"), 0);
}

using LRUCacheDeathTest = ProcessStops;

TEST_F(LRUCacheDeathTest, aBackNodeWithoutPredecessorStopsTheProcessWithAWarning) {
  const StandardErrorLog log;
  LRUCache cache(2);
  for (const char* dir : {"/a/", "/b/"}) cache.enterNewDir(dir);
  cache.last()->pre.reset();
  EXPECT_DEATH(cache.enterNewDir("/c/"),
               "<Debug> Dropping last cached directory\n"
               "<Warning> Last item has no predecessor, and it should have\n"
               "Fatal error: ");
}

TEST_F(LRUCacheDeathTest, purgingABrokenListStopsTheProcessBeforeItSaysPurged) {
  const StandardErrorLog log;
  LRUCache cache(2);
  for (const char* dir : {"/a/", "/b/"}) cache.enterNewDir(dir);
  cache.last()->pre.reset();
  EXPECT_DEATH(cache.clearCache(), AllOf(HasSubstr("<Warning> Last item has no predecessor, and it should have\n"),
                                         Not(HasSubstr("purged"))));
}

TEST(LRUCacheTest, tellsWhatTheOtherFoldersTake) {
  LRUCache cache(2);
  cache.enterNewDir("/a/");
  cache.enterNewDir("/b/");
  const auto none = cache.memoryBeside("/a/");
  StatusTable large;
  large.set("/b/" + std::string(100'000, 'x'), 1);
  cache.update("/b/", std::move(large));
  EXPECT_GE(cache.memoryBeside("/a/"), none + 100'000);
  EXPECT_LT(cache.memoryBeside("/b/"), 1'000u);
  cache.update("/b/", {});
  EXPECT_LT(cache.memoryBeside("/a/"), 1'000u);
}

TEST(LRUCacheTest, theOnlyNodeNeedsNoPredecessor) {
  const LogRecorder log;
  LRUCache cache(2);
  cache.enterNewDir("/a/");
  cache.clearCache();
  EXPECT_THAT(log.messages(LogLevel::Warning), IsEmpty());
}

}  // namespace
}  // namespace vornet::test
