#include "cache/DirCache.hpp"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <map>

#include "db/SyncDB.hpp"
#include "support/Databases.hpp"
#include "support/Entries.hpp"
#include "support/Environment.hpp"
#include "support/LogRecorder.hpp"
#include "support/ProcessStops.hpp"
#include "support/Threads.hpp"

namespace vornet::test {
namespace {

using ::testing::ElementsAre;
using ::testing::HasSubstr;
using ::testing::IsEmpty;
using ::testing::Not;
using ::testing::Pair;
using ::testing::UnorderedElementsAre;
using ::testing::UnorderedElementsAreArray;

using Messages = std::vector<std::string>;

// --- DirNode --------------------------------------------------------------------------------------------------------

/// A node of "/a/" after these updates.
DirNode nodeAfter(const std::vector<Entries>& updates) {
  DirNode node("/a/");
  for (const auto& items : updates) node.update(tableOf(items));
  return node;
}

TEST(DirNodeTest, ANewNodeIsEmptyUnpopulatedAndAlone) {
  const LogRecorder log;
  for (const char* dir : {"/a/", "a//b", ""}) {
    const DirNode node(dir);
    EXPECT_EQ(node.dir(), dir);
    EXPECT_TRUE(node.items().empty());
    EXPECT_FALSE(node.populated());
    EXPECT_TRUE(node.pre.expired());
    EXPECT_TRUE(node.suc.expired());
    EXPECT_EQ(node.statusForPath("/a/x"), std::nullopt);
  }
  EXPECT_THAT(log.messages(), IsEmpty());
}

TEST(DirNodeTest, ItsLinksKeepNoNeighbourAlive) {
  DirNode node("/a/");
  auto neighbour = std::make_shared<DirNode>("/b/");
  node.pre = neighbour;
  node.suc = neighbour;
  EXPECT_EQ(node.pre.lock(), neighbour);
  neighbour.reset();
  EXPECT_TRUE(node.pre.expired());
  EXPECT_TRUE(node.suc.expired());
}

struct Update {
  const char* name;
  std::vector<Entries> before;  // the updates that the node has had
  Entries items;
  Entries reported;
  Messages changed;  // logged first, in any order
  Messages added;    // logged then
};

void PrintTo(const Update& update, std::ostream* out) {
  *out << update.name;
}

class DirNodeUpdate : public ::testing::TestWithParam<Update> {};

TEST_P(DirNodeUpdate, ReplacesAllAndReportsAndLogsTheDifference) {
  const auto& [name, before, items, reported, changed, added] = GetParam();
  DirNode node = nodeAfter(before);
  const LogRecorder log;
  EXPECT_EQ(entriesOf(node.update(tableOf(items))), reported);
  EXPECT_EQ(entriesOf(node.items()), items);
  EXPECT_TRUE(node.populated());
  const auto messages = log.messages(LogLevel::Debug);
  ASSERT_EQ(messages.size(), changed.size() + added.size());
  ASSERT_EQ(messages.size(), log.messages().size());
  const auto middle = messages.begin() + static_cast<std::ptrdiff_t>(changed.size());
  EXPECT_THAT(Messages(messages.begin(), middle), UnorderedElementsAreArray(changed));
  EXPECT_THAT(Messages(middle, messages.end()), UnorderedElementsAreArray(added));
}

INSTANTIATE_TEST_SUITE_P(
    Of, DirNodeUpdate,
    ::testing::Values(
        Update{"AFirstFill", {}, {{"/a/x", 1}, {"/a/y", 2}}, {}, {}, {}},
        Update{"AnEmptyFirstFill", {}, {}, {}, {}, {}},
        Update{"TheFirstItemOfAnEmptyFolder", {{}}, {{"/a/x", 0}}, {{"/a/x", 0}}, {}, {"Cache path added: /a/x 0"}},
        Update{"TheSameContent", {{{"/a/x", 1}, {"/a/y", 2}}}, {{"/a/x", 1}, {"/a/y", 2}}, {}, {}, {}},
        Update{"AChangedStatus",
               {{{"/a/x", 1}, {"/a/y", 2}}},
               {{"/a/x", 2}, {"/a/y", 2}},
               {{"/a/x", 2}},
               {"Cached path changed: /a/x 1 -> Optional(2)"},
               {}},
        Update{"ANegativeStatus",
               {{{"/a/x", 0}}},
               {{"/a/x", -1}},
               {{"/a/x", -1}},
               {"Cached path changed: /a/x 0 -> Optional(-1)"},
               {}},
        Update{"ALargeStatus",
               {{{"/a/x", -1}}},
               {{"/a/x", 1234567890123}},
               {{"/a/x", 1234567890123}},
               {"Cached path changed: /a/x -1 -> Optional(1234567890123)"},
               {}},
        Update{"AVanishedPath",
               {{{"/a/x", 1}, {"/a/y", 2}}},
               {{"/a/y", 2}},
               {},
               {"Cached path changed: /a/x 1 -> nil"},
               {}},
        Update{"TheLastPathVanished", {{{"/a/x", 1}}}, {}, {}, {"Cached path changed: /a/x 1 -> nil"}, {}},
        Update{"ANewPath",
               {{{"/a/x", 1}}},
               {{"/a/x", 1}, {"/a/new", 0}},
               {{"/a/new", 0}},
               {},
               {"Cache path added: /a/new 0"}},
        Update{"ChangesBeforeAdditions",
               {{{"/a/x", 1}, {"/a/gone", 2}, {"/a/same", 0}}},
               {{"/a/x", 2}, {"/a/same", 0}, {"/a/new", -1}, {"/a/c/", 1}},
               {{"/a/x", 2}, {"/a/new", -1}, {"/a/c/", 1}},
               {"Cached path changed: /a/x 1 -> Optional(2)", "Cached path changed: /a/gone 2 -> nil"},
               {"Cache path added: /a/new -1", "Cache path added: /a/c/ 1"}}),
    [](const auto& update) { return update.param.name; });

TEST(DirNodeTest, ALogLineOfAnUpdateNamesItsSource) {
  DirNode node = nodeAfter({{{"/a/x", 1}}});
  const LogRecorder log;
  node.update({{"/a/x", 2}});
  ASSERT_EQ(log.records().size(), 1U);
  EXPECT_EQ(log.records().front().functionName, "update");
  EXPECT_EQ(log.records().front().fileName, "src/cache/DirCache");
}

TEST(DirNodeTest, TheReportOutlivesTheNode) {
  const std::string path = "/a/a path that is longer than a short text";
  StatusTable changes;
  {
    DirNode node = nodeAfter({{{path, 1}}});
    changes = node.update({{path, 2}});
  }
  EXPECT_THAT(entriesOf(changes), UnorderedElementsAre(Pair(path, 2)));
}

TEST(DirNodeTest, LooksUpExactlyThePathWithoutAMessage) {
  const DirNode node = nodeAfter({{{"/a/c/", 2}, {"/a/x", 1}, {"/a/none", -1}}});
  const LogRecorder log;
  EXPECT_EQ(node.statusForPath("/a/c/"), 2);
  EXPECT_EQ(node.statusForPath("/a/x"), 1);
  EXPECT_EQ(node.statusForPath("/a/none"), -1);
  for (const char* other : {"/a/c", "/a/x/", "/a//x", "/A/x"}) EXPECT_EQ(node.statusForPath(other), std::nullopt);
  EXPECT_THAT(log.messages(), IsEmpty());
}

TEST(DirNodeTest, ClearingMakesTheNodeEmptyAndUnpopulated) {
  for (const auto& updates : std::vector<std::vector<Entries>>{{}, {{}}, {{{"/a/x", 1}}}}) {
    DirNode node = nodeAfter(updates);
    const LogRecorder log;
    node.clear();
    EXPECT_FALSE(node.populated());
    EXPECT_TRUE(node.items().empty());
    EXPECT_EQ(node.dir(), "/a/");
    EXPECT_TRUE(node.update({{"/a/x", 2}, {"/a/y", 1}}).empty()) << "a first fill again";
    EXPECT_TRUE(node.populated());
    EXPECT_THAT(log.messages(), IsEmpty());
  }
}

// --- The list -------------------------------------------------------------------------------------------------------

const std::string DROPPING = "Dropping last cached directory";

/// A cache whose nodes the tests may see.
struct CacheProbe : LRUCache {
  explicit CacheProbe(std::optional<std::size_t> size = std::nullopt, const std::vector<const char*>& dirs = {})
      : LRUCache(size) {
    for (const char* dir : dirs) enterNewDir(dir);
  }
  using LRUCache::first_;
  using LRUCache::last_;
  using LRUCache::lock_;

  /// The node of `dir`; null when there is none.
  std::shared_ptr<DirNode> node(std::string_view dir) const {
    const auto found = dirs_.find(dir);
    return found == dirs_.end() ? nullptr : found->second;
  }

  /// The cached folders from the most to the least recently entered. Checks that both directions, the map and the count
  /// agree.
  std::vector<std::string> order() const {
    std::vector<std::string> dirs;
    std::shared_ptr<DirNode> before;
    for (auto at = first_; at; at = at->suc.lock()) {
      EXPECT_EQ(at->pre.lock(), before);
      EXPECT_EQ(node(at->dir()), at);
      dirs.push_back(at->dir());
      before = at;
    }
    EXPECT_EQ(last_, before);
    EXPECT_EQ(dirs_.size(), dirs.size());
    EXPECT_EQ(curSize(), dirs.size());
    return dirs;
  }
};

TEST(LRUCacheTest, TheSizeIsTwoWhenNoneIsGiven) {
  EXPECT_EQ(CacheProbe(50).maxSize(), 50U);
  EXPECT_EQ(CacheProbe().maxSize(), 2U);
  EXPECT_THAT(CacheProbe(std::nullopt, {"/a/", "/b/", "/c/"}).order(), ElementsAre("/c/", "/b/"));
}

struct Entering {
  const char* name;
  std::size_t size;
  std::vector<const char*> dirs;
  std::vector<std::string> order;
  std::size_t dropped;
};

void PrintTo(const Entering& entering, std::ostream* out) {
  *out << entering.name;
}

class LRUCacheOrder : public ::testing::TestWithParam<Entering> {};

TEST_P(LRUCacheOrder, IsThatOfEnteringAndTheBackIsDropped) {
  const auto& [name, size, dirs, order, dropped] = GetParam();
  const LogRecorder log;
  CacheProbe cache(size);
  for (const char* dir : dirs) {
    EXPECT_TRUE(cache.enterNewDir(dir)) << "none of them is filled";
    EXPECT_LE(cache.order().size(), size);
  }
  EXPECT_EQ(cache.order(), order);
  EXPECT_EQ(log.messages(LogLevel::Debug), Messages(dropped, DROPPING));
  EXPECT_EQ(log.messages().size(), dropped);
}

INSTANTIATE_TEST_SUITE_P(
    For, LRUCacheOrder,
    ::testing::Values(
        Entering{"None", 3, {}, {}, 0}, Entering{"One", 3, {"/a/"}, {"/a/"}, 0},
        Entering{"Two", 3, {"/a/", "/b/"}, {"/b/", "/a/"}, 0},
        Entering{"OneTooMany", 2, {"/a/", "/b/", "/c/"}, {"/c/", "/b/"}, 1},
        Entering{"ManyTooMany", 3, {"/0/", "/1/", "/2/", "/3/", "/4/", "/5/"}, {"/5/", "/4/", "/3/"}, 3},
        Entering{"OneEnteredAgain", 2, {"/a/", "/b/", "/a/", "/c/"}, {"/c/", "/a/"}, 1},
        Entering{"NoRoom", 0, {"/a/", "/a/"}, {}, 2}, Entering{"RoomForOne", 1, {"/a/", "/b/", "/b/"}, {"/b/"}, 1},
        Entering{"TheSameTwice", 2, {"/a/", "/a/"}, {"/a/"}, 0},
        Entering{"TheBackAgain", 4, {"/a/", "/b/", "/c/", "/d/", "/a/"}, {"/a/", "/d/", "/c/", "/b/"}, 0},
        Entering{"TheMiddleAgain", 4, {"/a/", "/b/", "/c/", "/d/", "/c/"}, {"/c/", "/d/", "/b/", "/a/"}, 0},
        Entering{"TheFrontAgain", 4, {"/a/", "/b/", "/c/", "/d/", "/d/"}, {"/d/", "/c/", "/b/", "/a/"}, 0},
        Entering{"SimilarNames", 5, {"/a/", "/a", "/A/", "", "/"}, {"/", "", "/A/", "/a", "/a/"}, 0}),
    [](const auto& entering) { return entering.param.name; });

TEST(LRUCacheTest, ALogLineOfADropNamesItsSource) {
  const LogRecorder log;
  const CacheProbe cache(1, {"/a/", "/b/"});
  EXPECT_EQ(log.records().front().functionName, "removeLast");
  EXPECT_EQ(log.records().front().fileName, "src/cache/DirCache");
}

TEST(LRUCacheTest, ADroppedNodeIsClearedAndUnlinked) {
  CacheProbe cache(1, {"/a/"});
  cache.update("/a/", {{"/a/x", 1}});
  auto dropped = cache.node("/a/");
  cache.enterNewDir("/b/");
  EXPECT_FALSE(dropped->populated());
  EXPECT_TRUE(dropped->items().empty());
  EXPECT_TRUE(dropped->pre.expired());
  EXPECT_TRUE(dropped->suc.expired());
  EXPECT_EQ(dropped.use_count(), 1) << "kept alive by nobody else";
  EXPECT_TRUE(cache.enterNewDir("/a/"));
  EXPECT_FALSE(cache.node("/a/")->populated());
}

TEST(LRUCacheTest, EnteringACachedFolderKeepsItsNodeAndAsksForStatusesUntilItIsFilled) {
  CacheProbe cache(3, {"/a/", "/b/", "/c/"});
  const auto node = cache.node("/a/");
  EXPECT_TRUE(cache.enterNewDir("/a/"));
  cache.enterNewDir("/b/");
  cache.update("/a/", {{"/a/x", 1}});
  EXPECT_FALSE(cache.enterNewDir("/a/"));
  EXPECT_THAT(cache.order(), ElementsAre("/a/", "/b/", "/c/"));
  EXPECT_EQ(cache.node("/a/"), node);
  EXPECT_EQ(node->statusForPath("/a/x"), 1);
}

TEST(LRUCacheTest, AFolderFilledWithNothingCountsAsFilled) {
  CacheProbe cache(2, {"/a/"});
  EXPECT_FALSE(cache.isPopulated("/a/"));
  EXPECT_TRUE(cache.update("/a/", {}).has_value());
  EXPECT_TRUE(cache.isPopulated("/a/"));
  EXPECT_FALSE(cache.isPopulated("/b/"));
  EXPECT_FALSE(cache.enterNewDir("/a/"));
}

TEST(LRUCacheTest, AFirstUpdateReportsNothingAndLaterOnesTheChanges) {
  CacheProbe cache(2, {"/a/"});
  bool firstFill = false;
  const auto first = cache.update("/a/", {{"/a/x", 1}, {"/a/y", 1}}, &firstFill);
  ASSERT_TRUE(first);
  EXPECT_TRUE(first->empty());
  EXPECT_TRUE(firstFill);
  const auto second = cache.update("/a/", {{"/a/x", 2}, {"/a/y", 1}, {"/a/z", 0}}, &firstFill);
  ASSERT_TRUE(second);
  EXPECT_THAT(entriesOf(*second), UnorderedElementsAre(Pair("/a/x", 2), Pair("/a/z", 0)));
  EXPECT_FALSE(firstFill);
}

TEST(LRUCacheTest, UpdatingAFolderThatIsNotCachedGivesNoValueAndStoresNothing) {
  const LogRecorder log;
  CacheProbe cache(2, {"/a/"});
  bool firstFill = true;
  EXPECT_EQ(cache.update("/b/", {{"/b/x", 1}}, &firstFill), std::nullopt);
  EXPECT_FALSE(firstFill);
  EXPECT_EQ(cache.update("/a", {{"/a/x", 1}}), std::nullopt);
  EXPECT_THAT(cache.order(), ElementsAre("/a/"));
  EXPECT_FALSE(cache.node("/a/")->populated());
  EXPECT_THAT(log.messages(), IsEmpty());
}

TEST(LRUCacheTest, ClearingDropsEveryFolderFromTheBack) {
  CacheProbe cache(3, {"/a/", "/b/", "/c/"});
  cache.update("/b/", {{"/b/x", 1}});
  const auto node = cache.node("/b/");
  const LogRecorder log;
  cache.clearCache();
  EXPECT_THAT(cache.order(), IsEmpty());
  EXPECT_FALSE(node->populated());
  EXPECT_THAT(log.messages(), ElementsAre(DROPPING, DROPPING, DROPPING, "Directory cache purged"));
  EXPECT_EQ(log.count(LogLevel::Info, "Directory cache purged"), 1U);
  EXPECT_EQ(log.records().back().functionName, "clearCache");
  for (const char* dir : {"/b/", "/c/", "/d/", "/e/"}) EXPECT_TRUE(cache.enterNewDir(dir));
  EXPECT_THAT(cache.order(), ElementsAre("/e/", "/d/", "/c/"));
}

TEST(LRUCacheTest, ClearingAnEmptyCacheSaysSoAndLeavesItEmpty) {
  const LogRecorder log;
  CacheProbe cache(2);
  cache.clearCache();
  EXPECT_THAT(cache.order(), IsEmpty());
  EXPECT_THAT(log.messages(), ElementsAre("Directory cache purged"));
  EXPECT_EQ(log.records().front().logLevel, LogLevel::Info);
}

TEST(LRUCacheTest, KnowsTheMemoryOfTheOtherFolders) {
  CacheProbe cache(2, {"/a/", "/b/"});
  const auto none = cache.memoryBeside("/a/");
  StatusTable large;
  large.set("/b/" + std::string(100'000, 'x'), 1);
  cache.update("/b/", std::move(large));
  EXPECT_GE(cache.memoryBeside("/a/"), none + 100'000);
  EXPECT_LT(cache.memoryBeside("/b/"), 1'000u);
  cache.update("/b/", {});
  EXPECT_LT(cache.memoryBeside("/a/"), 1'000u);
}

using LRUCacheDeathTest = ProcessStops;

TEST_F(LRUCacheDeathTest, ABackNodeWithoutPredecessorStopsTheProcessWithAWarning) {
  const StandardErrorLog log;
  CacheProbe cache(2, {"/a/", "/b/"});
  cache.last_->pre.reset();
  EXPECT_DEATH(cache.enterNewDir("/c/"),
               "<Debug> Dropping last cached directory\n"
               "<Warning> Last item has no predecessor, and it should have\n"
               "Fatal error: ");
}

TEST_F(LRUCacheDeathTest, PurgingABrokenListStopsTheProcessBeforeItSaysPurged) {
  const StandardErrorLog log;
  CacheProbe cache(2, {"/a/", "/b/"});
  cache.last_->pre.reset();
  EXPECT_DEATH(cache.clearCache(), AllOf(HasSubstr("<Warning> Last item has no predecessor, and it should have\n"),
                                         Not(HasSubstr("purged"))));
}

// --- Statuses -------------------------------------------------------------------------------------------------------

TEST(FolderKeyTest, IsThePathWithoutItsLastComponentEndingInASlash) {
  const std::map<std::string, std::vector<const char*>> paths = {
      {"/", {"/", "", "/a", "/a/", "a", "a/", "//", "//a", "/a\\b"}},
      {"/a/", {"/a/b", "/a/b/", "/a//b", "/a/b//", "/a/.."}},
      {"/a/b/", {"/a/b/c"}},
      {"a/", {"a/b"}},
      {"/a.b/", {"/a.b/c.d"}},
      {"/ /", {"/ /\u00fc"}}};
  for (const auto& [key, all] : paths)
    for (const char* path : all) EXPECT_EQ(folderKey(path), key) << path;
}

std::string miss(const std::string& key, const std::string& path) {
  return "Cache for " + key + " not populated, pulling " + path + " status from DB";
}

class StatusForPathTest : public ::testing::Test {
 protected:
  void storeInDatabase(const std::vector<std::pair<std::string, int>>& rows) {
    makeSyncDatabase(environment_.container() / "sync.db", rows);
  }

  Environment environment_;
  CacheProbe cache_{3, {"/a/"}};
  LogRecorder log_;
};

TEST_F(StatusForPathTest, InAFilledFolderIsTheEntryOfExactlyThatPath) {
  storeInDatabase({{"/a/x", 0}, {"/a/y", 0}});
  cache_.enterNewDir("/b/");
  cache_.update("/a/", {{"/a/x", 2}, {"/a/c/", 1}, {"/a/z", -1}});
  EXPECT_EQ(cache_.statusForPath("/a/x"), 2);
  EXPECT_EQ(cache_.statusForPath("/a/c/"), 1);
  EXPECT_EQ(cache_.statusForPath("/a/c"), std::nullopt);
  EXPECT_EQ(cache_.statusForPath("/a/y"), std::nullopt) << "even though the database has one";
  EXPECT_EQ(cache_.statusForPath("/a/z"), -1);
  EXPECT_THAT(log_.messages(), IsEmpty());
  EXPECT_THAT(cache_.order(), ElementsAre("/b/", "/a/")) << "neither an update nor a look-up moves a folder";
}

TEST_F(StatusForPathTest, ElsewhereIsTheDatabasesAnswer) {
  storeInDatabase({{"/a/x", 2}, {"/b/x", 1}, {"/b/c/", 0}});
  cache_.enterNewDir("/d/");
  EXPECT_EQ(cache_.statusForPath("/a/x"), 2) << "not filled";
  EXPECT_EQ(cache_.statusForPath("/b/x"), 1) << "not cached";
  EXPECT_EQ(cache_.statusForPath("/b/c"), 0);
  EXPECT_EQ(cache_.statusForPath("/b/none"), -1);
  EXPECT_THAT(log_.messages(LogLevel::Debug),
              ElementsAre(miss("/a/", "/a/x"), miss("/b/", "/b/x"), miss("/b/", "/b/c"), miss("/b/", "/b/none")));
  EXPECT_EQ(log_.records().front().functionName, "statusForPath");
  EXPECT_THAT(cache_.order(), ElementsAre("/d/", "/a/")) << "a miss adds no folder and moves none";
  EXPECT_FALSE(cache_.node("/a/")->populated());
}

TEST_F(StatusForPathTest, IsMinusOneWhenTheDatabaseCannotBeOpened) {
  EXPECT_EQ(cache_.statusForPath("/a/x"), -1);
  EXPECT_THAT(log_.messages(), ElementsAre(miss("/a/", "/a/x"), "Cannot open database"));
}

TEST_F(StatusForPathTest, IsMinusOneWhenTheDatabaseCannotBeQueried) {
  writeFile(environment_.container() / "sync.db", "no database");
  EXPECT_EQ(cache_.statusForPath("/a/x"), -1);
  EXPECT_THAT(log_.messages(), ElementsAre(miss("/a/", "/a/x"), "Cannot prepare SQL statement"));
}

TEST_F(StatusForPathTest, OfTheRootIsLookedUpInTheRoot) {
  cache_.enterNewDir("/");
  cache_.update("/", {{"/", 2}, {"/a", 1}, {"/d/", 0}, {"", -1}, {"b", 3}});
  EXPECT_EQ(cache_.statusForPath("/"), 2);
  EXPECT_EQ(cache_.statusForPath("/a"), 1);
  EXPECT_EQ(cache_.statusForPath("/d/"), 0);
  EXPECT_EQ(cache_.statusForPath(""), -1);
  EXPECT_EQ(cache_.statusForPath("b"), 3);
}

TEST_F(StatusForPathTest, AMissNamesTheFolderKeyAndThePathAsGiven) {
  storeInDatabase({});
  for (const char* path : {"/", "", "/a", "/a/", "/a/b", "/a/b/", "/a//b", "a", "a/b"})
    EXPECT_EQ(cache_.statusForPath(path), -1);
  EXPECT_THAT(log_.messages(),
              ElementsAre(miss("/", "/"), miss("/", ""), miss("/", "/a"), miss("/", "/a/"), miss("/a/", "/a/b"),
                          miss("/a/", "/a/b/"), miss("/a/", "/a//b"), miss("/", "a"), miss("a/", "a/b")));
}

TEST_F(StatusForPathTest, AfterAnEvictionOrAPurgeIsTheDatabasesAnswer) {
  storeInDatabase({{"/a/x", 0}});
  const auto fill = [this] {
    cache_.enterNewDir("/a/");
    cache_.update("/a/", {{"/a/x", 2}});
    EXPECT_EQ(cache_.statusForPath("/a/x"), 2);
  };
  fill();
  for (const char* dir : {"/b/", "/c/", "/d/"}) cache_.enterNewDir(dir);
  EXPECT_EQ(cache_.statusForPath("/a/x"), 0);
  fill();
  cache_.clearCache();
  EXPECT_EQ(cache_.statusForPath("/a/x"), 0);
}

// --- Threads --------------------------------------------------------------------------------------------------------

struct SyncDBLock : SyncDB {
  static std::recursive_mutex& of(SyncDB& database) { return (database.*&SyncDBLock::lock)(); }
};

class LRUCacheThreadsTest : public ::testing::Test {
 protected:
  LRUCacheThreadsTest() {
    makeSyncDatabase(environment_.container() / "sync.db", {{"/missed/x", 1}, {"/0/x", 0}, {"/1/x", 0}});
    cache_.update("/a/", {{"/a/x", 2}});
  }

  Environment environment_;
  CacheProbe cache_{3, {"/a/"}};
};

TEST_F(LRUCacheThreadsTest, TheLockIsRecursiveAndKeepsOtherThreadsOut) {
  const LogRecorder log;
  std::unique_lock held(cache_.lock_);
  EXPECT_TRUE(cache_.enterNewDir("/b/"));
  EXPECT_TRUE(cache_.update("/b/", {}).has_value());
  EXPECT_EQ(cache_.statusForPath("/a/x"), 2);
  EXPECT_EQ(cache_.curSize(), 2U);
  auto other = std::async(std::launch::async, [this] { cache_.clearCache(); });
  EXPECT_FALSE(onAnotherThread([this] { return cache_.lock_.try_lock(); }));
  EXPECT_THAT(cache_.order(), ElementsAre("/b/", "/a/"));
  held.unlock();
  other.get();
  EXPECT_THAT(cache_.order(), IsEmpty());
}

TEST_F(LRUCacheThreadsTest, OtherThreadsGoOnWhileOneWaitsForTheDatabase) {
  const LogRecorder log;
  std::unique_lock busy(SyncDBLock::of(syncDB()));
  auto missed = std::async(std::launch::async, [&] { return cache_.statusForPath("/missed/x"); });
  ASSERT_TRUE(log.waitFor(LogLevel::Debug, miss("/missed/", "/missed/x")));

  auto others = std::async(std::launch::async, [&] {
    EXPECT_EQ(cache_.statusForPath("/a/x"), 2);
    EXPECT_TRUE(cache_.update("/a/", {{"/a/x", 1}}).has_value());
    EXPECT_EQ(cache_.statusForPath("/a/x"), 1);
    EXPECT_TRUE(cache_.enterNewDir("/b/"));
    cache_.clearCache();
  });
  EXPECT_TRUE(isDoneInTime(others));
  EXPECT_FALSE(isDone(missed));

  busy.unlock();
  EXPECT_EQ(missed.get(), 1);
  others.get();
}

TEST_F(LRUCacheThreadsTest, HitsAreAnsweredWhileTheSyncApplicationLocksTheDatabase) {
  const LogRecorder log;
  Database writer(environment_.container() / "sync.db");
  writer.run("BEGIN EXCLUSIVE");
  EXPECT_EQ(cache_.statusForPath("/a/x"), 2);
  EXPECT_EQ(cache_.statusForPath("/missed/x"), -1);
  writer.run("COMMIT");
  EXPECT_EQ(cache_.statusForPath("/missed/x"), 1);
}

TEST_F(LRUCacheThreadsTest, EveryOperationMayRunBesideEveryOther) {
  constexpr int ROUNDS = 400;
  const LogRecorder log(LogLevel::Warning);
  std::atomic<int> wrong = 0;
  const auto dir = [](int i) { return std::string("/").append(std::to_string(i % 5)).append("/"); };

  inParallel(6, [&](std::size_t number) {
    for (int i = 0; i < ROUNDS; ++i) {
      const auto folder = dir(i + static_cast<int>(number));
      switch (number) {
        case 0:
          cache_.enterNewDir(folder);
          break;
        case 1:
        case 2:
          if (const auto changes = cache_.update(folder, {{folder + "x", i % 4 - 1}, {folder + "y", 2}}))
            for (const auto& [path, code] : *changes) wrong += !path.starts_with(folder) || code < -1 || code > 2;
          break;
        case 3:
        case 4:
          if (const auto status = cache_.statusForPath(folder + "x")) wrong += *status < -1 || *status > 2;
          break;
        default:
          if (i % 20 == 0) cache_.clearCache();
          wrong += cache_.curSize() > cache_.maxSize();
      }
    }
  });

  EXPECT_EQ(wrong, 0);
  EXPECT_TRUE(log.messages().empty());
  cache_.order();
}

TEST_F(LRUCacheThreadsTest, AFilledFolderIsReadWhileItIsReplaced) {
  constexpr int ROUNDS = 2000;
  std::atomic<int> wrong = 0;
  inParallel(4, [&](std::size_t number) {
    for (int i = 0; i < ROUNDS; ++i) {
      if (number == 0) {
        cache_.update("/a/", {{"/a/x", i % 3}, {"/a/" + std::to_string(i), 1}});
      } else {
        const auto status = cache_.statusForPath("/a/x");
        wrong += !status || *status < 0 || *status > 2;
      }
    }
  });
  EXPECT_EQ(wrong, 0);
}

TEST_F(LRUCacheThreadsTest, ThreadsThatEnterOneFolderAtOnceShareOneNode) {
  std::atomic<int> toFetch = 0;
  inParallel(8, [&](std::size_t) { toFetch += cache_.enterNewDir("/new/"); });
  EXPECT_EQ(toFetch, 8);
  EXPECT_THAT(cache_.order(), ElementsAre("/new/", "/a/"));
}

}  // namespace
}  // namespace vornet::test
