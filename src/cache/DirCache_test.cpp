#include "cache/DirCache.hpp"

#include <gmock/gmock.h>

#include <algorithm>
#include <atomic>
#include <deque>
#include <random>

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

/// A node of "/" after these updates.
DirNode nodeAfter(const std::vector<Entries>& updates) {
  DirNode node("/");
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
  Messages changed;  // logged first, in any order, as "Cached path changed: …"
  Messages added;    // logged then, as "Cache path added: …"
};

const Update UPDATES[] = {
    {"a first fill", {}, {{"/x", 1}, {"/y", 2}}, {}, {}, {}},
    {"an empty first fill", {}, {}, {}, {}, {}},
    {"the first item of an empty folder", {{}}, {{"/x", 0}}, {{"/x", 0}}, {}, {"/x 0"}},
    {"the same content", {{{"/x", 1}, {"/y", 2}}}, {{"/x", 1}, {"/y", 2}}, {}, {}, {}},
    {"a changed status", {{{"/x", 1}, {"/y", 2}}}, {{"/x", 2}, {"/y", 2}}, {{"/x", 2}}, {"/x 1 -> Optional(2)"}, {}},
    {"a negative status", {{{"/x", 0}}}, {{"/x", -1}}, {{"/x", -1}}, {"/x 0 -> Optional(-1)"}, {}},
    {"a big status", {{{"/x", -1}}}, {{"/x", 5000000000}}, {{"/x", 5000000000}}, {"/x -1 -> Optional(5000000000)"}, {}},
    {"a vanished path", {{{"/x", 1}, {"/y", 2}}}, {{"/y", 2}}, {}, {"/x 1 -> nil"}, {}},
    {"the last path vanished", {{{"/x", 1}}}, {}, {}, {"/x 1 -> nil"}, {}},
    {"a new path", {{{"/x", 1}}}, {{"/x", 1}, {"/new", 0}}, {{"/new", 0}}, {}, {"/new 0"}},
    {"changes before additions",
     {{{"/x", 1}, {"/gone", 2}, {"/same", 0}}},
     {{"/x", 2}, {"/same", 0}, {"/new", -1}, {"/c/", 1}},
     {{"/x", 2}, {"/new", -1}, {"/c/", 1}},
     {"/x 1 -> Optional(2)", "/gone 2 -> nil"},
     {"/new -1", "/c/ 1"}}};

TEST(DirNodeTest, AnUpdateReplacesAllAndReportsAndLogsTheDifference) {
  for (const auto& [name, before, items, reported, changed, added] : UPDATES) {
    SCOPED_TRACE(name);
    DirNode node = nodeAfter(before);
    const LogRecorder log;
    EXPECT_EQ(entriesOf(node.update(tableOf(items))), reported);
    EXPECT_EQ(entriesOf(node.items()), items);
    EXPECT_TRUE(node.populated());
    Messages expected;
    for (const auto& change : changed) expected.push_back("Cached path changed: " + change);
    for (const auto& addition : added) expected.push_back("Cache path added: " + addition);
    const auto messages = log.messages(LogLevel::Debug);
    EXPECT_THAT(messages, UnorderedElementsAreArray(expected));
    const auto isChange = [](const std::string& message) { return message.starts_with("Cached path changed"); };
    EXPECT_TRUE(std::is_partitioned(messages.begin(), messages.end(), isChange)) << "changes come first";
    EXPECT_EQ(log.messages(), messages);
  }
}

TEST(DirNodeTest, ALogLineOfAnUpdateNamesItsSource) {
  DirNode node = nodeAfter({{{"/x", 1}}});
  const LogRecorder log;
  node.update({{"/x", 2}});
  ASSERT_EQ(log.records().size(), 1U);
  EXPECT_EQ(log.records().front().functionName, "update");
  EXPECT_EQ(log.records().front().fileName, "src/cache/DirCache");
}

TEST(DirNodeTest, TheReportOutlivesTheNode) {
  const std::string path = "/a path that is longer than a short text";
  const StatusTable changes = nodeAfter({{{path, 1}}}).update({{path, 2}});
  EXPECT_THAT(entriesOf(changes), UnorderedElementsAre(Pair(path, 2)));
}

TEST(DirNodeTest, LooksUpExactlyThePathWithoutAMessage) {
  const Entries entries = {{"/c/", 2}, {"/x", 1}, {"/none", -1}};
  const DirNode node = nodeAfter({entries});
  const LogRecorder log;
  for (const auto& [path, status] : entries) EXPECT_EQ(node.statusForPath(path), status) << path;
  for (const char* other : {"/c", "/x/", "//x", "/X"}) EXPECT_EQ(node.statusForPath(other), std::nullopt) << other;
  EXPECT_THAT(log.messages(), IsEmpty());
}

TEST(DirNodeTest, ClearingMakesTheNodeEmptyAndUnpopulated) {
  for (const auto& updates : std::vector<std::vector<Entries>>{{}, {{}}, {{{"/x", 1}}}}) {
    DirNode node = nodeAfter(updates);
    const LogRecorder log;
    node.clear();
    EXPECT_FALSE(node.populated());
    EXPECT_TRUE(node.items().empty());
    EXPECT_EQ(node.dir(), "/");
    EXPECT_TRUE(node.update({{"/x", 2}, {"/y", 1}}).empty()) << "a first fill again";
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
    for (auto at = first_; at && dirs.size() <= dirs_.size(); at = at->suc.lock()) {
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

struct Entering {
  const char* name;
  std::optional<std::size_t> size;  // two when none is given
  std::vector<const char*> dirs;
  std::vector<std::string> order;
  std::size_t dropped;
};

const Entering ENTERINGS[] = {
    {"no size given", {}, {"/a/", "/b/", "/c/"}, {"/c/", "/b/"}, 1},
    {"no folder", 3, {}, {}, 0},
    {"one folder", 3, {"/a/"}, {"/a/"}, 0},
    {"two folders", 3, {"/a/", "/b/"}, {"/b/", "/a/"}, 0},
    {"one too many", 2, {"/a/", "/b/", "/c/"}, {"/c/", "/b/"}, 1},
    {"many too many", 3, {"/0/", "/1/", "/2/", "/3/", "/4/", "/5/"}, {"/5/", "/4/", "/3/"}, 3},
    {"one entered again", 2, {"/a/", "/b/", "/a/", "/c/"}, {"/c/", "/a/"}, 1},
    {"no room", 0, {"/a/", "/a/"}, {}, 2},
    {"room for one", 1, {"/a/", "/b/", "/b/"}, {"/b/"}, 1},
    {"the same twice", 2, {"/a/", "/a/"}, {"/a/"}, 0},
    {"the back again", 4, {"/a/", "/b/", "/c/", "/d/", "/a/"}, {"/a/", "/d/", "/c/", "/b/"}, 0},
    {"the middle again", 4, {"/a/", "/b/", "/c/", "/d/", "/c/"}, {"/c/", "/d/", "/b/", "/a/"}, 0},
    {"the front again", 4, {"/a/", "/b/", "/c/", "/d/", "/d/"}, {"/d/", "/c/", "/b/", "/a/"}, 0},
    {"similar names", 5, {"/a/", "/a", "/A/", "", "/"}, {"/", "", "/A/", "/a", "/a/"}, 0}};

TEST(LRUCacheTest, TheOrderIsThatOfEnteringAndTheBackIsDropped) {
  for (const auto& [name, size, dirs, order, dropped] : ENTERINGS) {
    SCOPED_TRACE(name);
    const LogRecorder log;
    CacheProbe cache(size);
    EXPECT_EQ(cache.maxSize(), size.value_or(2));
    for (const char* dir : dirs) {
      EXPECT_TRUE(cache.enterNewDir(dir)) << "none of them is filled";
      EXPECT_LE(cache.order().size(), cache.maxSize());
    }
    EXPECT_EQ(cache.order(), order);
    EXPECT_EQ(log.messages(LogLevel::Debug), Messages(dropped, DROPPING));
    EXPECT_EQ(log.messages().size(), dropped);
  }
}

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

TEST(LRUCacheTest, ClearingDropsEveryFolderFromTheBackAlsoWhenThereIsNone) {
  CacheProbe cache(3, {"/a/", "/b/", "/c/"});
  cache.update("/b/", {{"/b/x", 1}});
  const auto node = cache.node("/b/");
  const LogRecorder log;
  cache.clearCache();
  EXPECT_THAT(cache.order(), IsEmpty());
  EXPECT_FALSE(node->populated());
  cache.clearCache();
  EXPECT_THAT(cache.order(), IsEmpty());
  const std::string purged = "Directory cache purged";
  EXPECT_THAT(log.messages(), ElementsAre(DROPPING, DROPPING, DROPPING, purged, purged));
  EXPECT_EQ(log.count(LogLevel::Info, purged), 2U);
  EXPECT_EQ(log.records().back().functionName, "clearCache");
  for (const char* dir : {"/b/", "/c/", "/d/", "/e/"}) EXPECT_TRUE(cache.enterNewDir(dir));
  EXPECT_THAT(cache.order(), ElementsAre("/e/", "/d/", "/c/"));
}

TEST(LRUCacheTest, KnowsTheMemoryOfTheOtherFolders) {
  CacheProbe cache(2, {"/a/", "/b/"});
  const auto none = cache.memoryBeside("/a/");
  cache.update("/b/", {{"/b/" + std::string(100'000, 'x'), 1}});
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
  const std::string warning =
      "<Debug> Dropping last cached directory\n"
      "<Warning> Last item has no predecessor, and it should have\n"
      "Fatal error: ";
  EXPECT_DEATH(cache.enterNewDir("/c/"), warning);
  EXPECT_DEATH(cache.clearCache(), AllOf(HasSubstr(warning), Not(HasSubstr("purged"))));
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
  const Entries entries = {{"/a/x", 2}, {"/a/c/", 1}, {"/a/z", -1}};
  cache_.update("/a/", tableOf(entries));
  for (const auto& [path, status] : entries) EXPECT_EQ(cache_.statusForPath(path), status) << path;
  EXPECT_EQ(cache_.statusForPath("/a/c"), std::nullopt);
  EXPECT_EQ(cache_.statusForPath("/a/y"), std::nullopt) << "even though the database has one";
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
  const Entries entries = {{"/", 2}, {"/a", 1}, {"/d/", 0}, {"", -1}, {"b", 3}};
  cache_.enterNewDir("/");
  cache_.update("/", tableOf(entries));
  for (const auto& [path, status] : entries) EXPECT_EQ(cache_.statusForPath(path), status) << path;
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
  for (const bool purged : {false, true}) {
    cache_.enterNewDir("/a/");
    cache_.update("/a/", {{"/a/x", 2}});
    EXPECT_EQ(cache_.statusForPath("/a/x"), 2);
    for (const char* dir : {"/b/", "/c/", "/d/"})
      if (!purged) cache_.enterNewDir(dir);
    if (purged) cache_.clearCache();
    EXPECT_EQ(cache_.statusForPath("/a/x"), 0) << (purged ? "purged" : "evicted");
  }
}

// --- Random operations, on a cache and on a simple model of one -----------------------------------------------------

/// The cache as one would write it without regard for speed.
struct Model {
  struct Folder {
    std::string dir;
    bool populated = false;
    Entries items{};
  };
  std::size_t maxSize;
  std::deque<Folder> folders{};  // the most recently entered first

  std::deque<Folder>::iterator position(const std::string& dir) {
    return std::find_if(folders.begin(), folders.end(), [&](const Folder& folder) { return folder.dir == dir; });
  }

  bool enter(const std::string& dir) {
    Folder folder{dir};
    if (const auto at = position(dir); at != folders.end()) {
      folder = *at;
      folders.erase(at);
    }
    folders.push_front(folder);
    if (folders.size() > maxSize) folders.pop_back();
    return !folder.populated;
  }

  std::optional<Entries> update(const std::string& dir, const Entries& items) {
    const auto at = position(dir);
    if (at == folders.end()) return std::nullopt;
    Entries changes;
    for (const auto& [path, code] : items) {
      const auto old = at->items.find(path);
      if (at->populated && (old == at->items.end() || old->second != code)) changes[path] = code;
    }
    *at = {dir, true, items};
    return changes;
  }

  std::optional<StatusCode> status(const std::string& dir, const std::string& path, StatusCode stored) {
    const auto at = position(dir);
    if (at == folders.end() || !at->populated) return stored;
    const auto found = at->items.find(path);
    return found == at->items.end() ? std::nullopt : std::optional(found->second);
  }

  /// Checks that `cache` holds the same.
  void expectIn(const CacheProbe& cache) const {
    std::vector<std::string> order;
    for (const auto& [dir, populated, items] : folders) {
      order.push_back(dir);
      const auto node = cache.node(dir);
      ASSERT_NE(node, nullptr) << dir;
      EXPECT_EQ(node->populated(), populated) << dir;
      EXPECT_EQ(entriesOf(node->items()), items) << dir;
    }
    EXPECT_EQ(cache.order(), order);
  }
};

class LRUCacheModelTest : public ::testing::TestWithParam<std::size_t> {};

TEST_P(LRUCacheModelTest, BehavesAsTheModelOverRandomOperations) {
  constexpr StatusCode STORED = 7;
  const Environment environment;
  const LogRecorder log(LogLevel::Warning);
  const std::vector<std::string> dirs = {"/", "/a/", "/b/", "/c/", "/d/", "/e/", "/f/", "/g/"};
  std::vector<std::pair<std::string, int>> rows;
  for (const auto& dir : dirs) rows.emplace_back(dir + "x", STORED);
  makeSyncDatabase(environment.container() / "sync.db", rows);

  std::mt19937 random(20'240'501U + static_cast<std::mt19937::result_type>(GetParam()));
  const auto below = [&](std::size_t limit) {
    return std::uniform_int_distribution<std::size_t>(0, limit - 1)(random);
  };
  CacheProbe cache(GetParam());
  Model model{GetParam()};
  for (int step = 0; step < 4'000; ++step) {
    SCOPED_TRACE(step);
    const std::string& dir = dirs[below(dirs.size())];
    const std::size_t operation = below(100);
    if (operation < 45) {
      EXPECT_EQ(cache.enterNewDir(dir), model.enter(dir));
    } else if (operation < 80) {
      Entries items;
      for (const char* name : {"x", "y", "z/"})
        if (below(3) > 0) items[dir + name] = static_cast<StatusCode>(below(4)) - 1;
      const auto changes = cache.update(dir, tableOf(items));
      EXPECT_EQ(changes ? std::optional(entriesOf(*changes)) : std::nullopt, model.update(dir, items));
    } else if (operation < 99) {
      EXPECT_EQ(cache.statusForPath(dir + "x"), model.status(dir, dir + "x", STORED));
    } else {
      cache.clearCache();
      model.folders.clear();
    }
    model.expectIn(cache);
    ASSERT_FALSE(HasFailure());
  }
  EXPECT_TRUE(log.messages().empty());
}

INSTANTIATE_TEST_SUITE_P(Sizes, LRUCacheModelTest, ::testing::Values(0, 1, 2, 3, 5, 50),
                         [](const auto& size) { return "Of" + std::to_string(size.param); });

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
  const LogRecorder log(LogLevel::Warning);
  std::atomic<int> wrong = 0;
  inParallel(6, [&](std::size_t number) {
    for (std::size_t i = 0; i < 400; ++i) {
      const auto folder = std::string("/").append(std::to_string((i + number) % 5)).append("/");
      if (number == 0) {
        cache_.enterNewDir(folder);
      } else if (number <= 2) {
        const auto code = static_cast<StatusCode>(i % 4) - 1;
        if (const auto changes = cache_.update(folder, {{folder + "x", code}, {folder + "y", 2}}))
          for (const auto& [path, change] : *changes) wrong += !path.starts_with(folder) || change < -1 || change > 2;
      } else if (number <= 4) {
        if (const auto status = cache_.statusForPath(folder + "x")) wrong += *status < -1 || *status > 2;
      } else {
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
  std::atomic<int> wrong = 0;
  inParallel(4, [&](std::size_t number) {
    for (int i = 0; i < 2000; ++i) {
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
