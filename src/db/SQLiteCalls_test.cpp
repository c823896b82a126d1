// The readers' calls of SQLite, recorded on their way to the real library.
#include <dlfcn.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sqlite3.h>

#include <algorithm>
#include <chrono>
#include <functional>
#include <string>
#include <vector>

#include "db/ConfigDB.hpp"
#include "db/SyncDB.hpp"
#include "support/DatabaseProbes.hpp"
#include "support/Databases.hpp"
#include "support/Environment.hpp"
#include "support/Threads.hpp"

namespace {

struct Open {
  std::string path;
  sqlite3** handle;
  int flags;
  const char* system;
};
struct Prepare {
  std::string sql;
  int length;
};
struct Binding {
  int index;
  std::string text;
  int length;
  sqlite3_destructor_type destructor;
  friend bool operator==(const Binding&, const Binding&) = default;
};

/// The recorded calls, by one thread at a time.
struct Calls {
  bool recording = false;
  std::vector<std::string> order;
  std::vector<Open> opens;
  std::vector<Prepare> prepares;
  std::vector<Binding> bindings;
  std::vector<int> timeouts;
  std::function<void()> beforeOpening = [] {};
  std::function<void()> beforeClosing = [] {};
};
Calls calls;

template <typename Function>
Function* next(const char* name) {
  return reinterpret_cast<Function*>(::dlsym(RTLD_NEXT, name));
}

}  // namespace

extern "C" {

int sqlite3_open_v2(const char* path, sqlite3** handle, int flags, const char* system) {
  if (calls.recording) {
    calls.order.push_back("open");
    calls.opens.push_back({path, handle, flags, system});
    calls.beforeOpening();
  }
  return next<decltype(sqlite3_open_v2)>("sqlite3_open_v2")(path, handle, flags, system);
}

int sqlite3_busy_timeout(sqlite3* db, int milliseconds) {
  if (calls.recording) calls.timeouts.push_back(milliseconds);
  return next<decltype(sqlite3_busy_timeout)>("sqlite3_busy_timeout")(db, milliseconds);
}

int sqlite3_prepare_v2(sqlite3* db, const char* sql, int length, sqlite3_stmt** statement, const char** tail) {
  if (calls.recording) {
    calls.order.push_back("prepare");
    calls.prepares.push_back({std::string(sql, static_cast<std::size_t>(length)), length});
  }
  return next<decltype(sqlite3_prepare_v2)>("sqlite3_prepare_v2")(db, sql, length, statement, tail);
}

int sqlite3_bind_text(sqlite3_stmt* statement, int index, const char* text, int length, void (*destructor)(void*)) {
  if (calls.recording)
    calls.bindings.push_back({index, std::string(text, static_cast<std::size_t>(length)), length, destructor});
  return next<decltype(sqlite3_bind_text)>("sqlite3_bind_text")(statement, index, text, length, destructor);
}

int sqlite3_step(sqlite3_stmt* statement) {
  if (calls.recording) calls.order.push_back("step");
  return next<decltype(sqlite3_step)>("sqlite3_step")(statement);
}

int sqlite3_finalize(sqlite3_stmt* statement) {
  if (calls.recording && statement) calls.order.push_back("finalise");
  return next<decltype(sqlite3_finalize)>("sqlite3_finalize")(statement);
}

int sqlite3_close(sqlite3* db) {
  if (calls.recording && db) {
    calls.order.push_back("close");
    calls.beforeClosing();
  }
  return next<decltype(sqlite3_close)>("sqlite3_close")(db);
}

}  // extern "C"

namespace vornet::test {
namespace {

using ::testing::ElementsAre;
using ::testing::IsEmpty;

class SQLiteCallsTest : public ::testing::Test {
 protected:
  SQLiteCallsTest() {
    makeSyncDatabase(environment_.container() / "sync.db", {{"/a/x", 1}, {"/a/y", 2}});
    Database(environment_.container() / "config.db")
        .run("CREATE TABLE configuration (local_root TEXT); INSERT INTO configuration VALUES ('/R')");
    calls = Calls();
    calls.recording = true;
  }
  ~SQLiteCallsTest() override { calls = Calls(); }

  void emptyDatabases() {
    calls.recording = false;
    for (const char* name : {"sync.db", "config.db"}) std::filesystem::resize_file(environment_.container() / name, 0);
    calls.recording = true;
  }

  Environment environment_;
};

TEST_F(SQLiteCallsTest, APathsQueryOpensPreparesStepsOnceFinalisesAndCloses) {
  SyncDB().pathSyncStatus("/a/x");
  EXPECT_THAT(calls.order, ElementsAre("open", "prepare", "step", "finalise", "close"));
}

TEST_F(SQLiteCallsTest, AFoldersQueryStepsUntilThereAreNoMoreRows) {
  SyncDB().directorySyncStatus("/a/");
  EXPECT_THAT(calls.order, ElementsAre("open", "prepare", "step", "step", "step", "finalise", "close"));
}

TEST_F(SQLiteCallsTest, TheLocalRootsQueryOpensPreparesStepsOnceFinalisesAndCloses) {
  ConfigDB().getLocalRoot();
  EXPECT_THAT(calls.order, ElementsAre("open", "prepare", "step", "finalise", "close"));
}

TEST_F(SQLiteCallsTest, AfterAFailedStatementTheConnectionIsClosed) {
  emptyDatabases();
  SyncDB().pathSyncStatus("/a/x");
  SyncDB().directorySyncStatus("/a/");
  ConfigDB().getLocalRoot();
  EXPECT_THAT(calls.order,
              ElementsAre("open", "prepare", "close", "open", "prepare", "close", "open", "prepare", "close"));
}

TEST_F(SQLiteCallsTest, TheFileIsOpenedForReadingOnlyWithTheUsualFileSystem) {
  SyncDB().pathSyncStatus("/a/x");
  ConfigDB().getLocalRoot();
  ASSERT_EQ(calls.opens.size(), 2U);
  EXPECT_EQ(calls.opens[0].path, environment_.container() / "sync.db");
  EXPECT_EQ(calls.opens[1].path, environment_.container() / "config.db");
  for (const auto& open : calls.opens) {
    EXPECT_EQ(open.flags, 1);
    EXPECT_EQ(open.system, nullptr);
    EXPECT_NE(open.handle, nullptr);
  }
}

TEST_F(SQLiteCallsTest, TheStatusesOfAFoldersItemsAreOneQueryThatSkipsWhatIsBelow) {
  calls.recording = false;
  std::vector<std::pair<std::string, int>> rows = {{"/d/a", 1}, {"/d/sub/", 2}, {"/d/z", 0}, {"/e", 2}};
  for (int i = 0; i < 5'000; ++i) rows.emplace_back((i % 2 ? "/d/sub/" : "/d/z/") + std::to_string(i), 2);
  std::filesystem::remove(environment_.container() / "sync.db");
  makeSyncDatabase(environment_.container() / "sync.db", rows);
  calls.recording = true;
  EXPECT_EQ(SyncDB().childSyncStatus("/d/", 100), (SyncDB::Names{{"a", 1}, {"sub", 2}, {"z", 0}}));
  EXPECT_EQ(std::count(calls.order.begin(), calls.order.end(), "open"), 1);
  EXPECT_EQ(std::count(calls.order.begin(), calls.order.end(), "prepare"), 3) << "with encoding and plan";
  EXPECT_LE(std::count(calls.order.begin(), calls.order.end(), "step"), 60);
  EXPECT_EQ(calls.order.back(), "close");
}

TEST_F(SQLiteCallsTest, EachConnectionWaitsForALock) {
  SyncDB().pathSyncStatus("/a/x");
  ConfigDB().getLocalRoot();
  EXPECT_THAT(calls.timeouts, ElementsAre(50, 50));
}

TEST_F(SQLiteCallsTest, AfterAFailedWaitForALockNoLookUpWaitsForASecond) {
  calls.recording = false;
  Database writer(environment_.container() / "sync.db");
  writer.run("BEGIN EXCLUSIVE");
  calls.recording = true;
  SyncDB database;
  const auto lookUp = [&] {
    const auto begin = std::chrono::steady_clock::now();
    database.pathSyncStatus("/a/x");
    return begin;
  };
  // A look-up that began a second or more after a failed wait, because the machine was busy, proves nothing.
  auto waited = lookUp();
  ASSERT_THAT(calls.timeouts, ElementsAre(50));
  auto began = lookUp();
  for (int round = 0; round < 20 && calls.timeouts.back() != 0; ++round) {
    waited = began;
    began = lookUp();
  }
  ASSERT_EQ(calls.timeouts.back(), 0);
  while (calls.timeouts.back() == 0 && began - waited < PATIENCE) began = lookUp();
  EXPECT_EQ(calls.timeouts.back(), 50) << "it waits again";
  // Not `began`: on a busy machine the second may end between that and the look-up's own question for the time.
  EXPECT_GE(std::chrono::steady_clock::now() - waited, std::chrono::seconds(1));
}

TEST_F(SQLiteCallsTest, ALookUpThatFindsTheFileUnlockedIsAnsweredAlsoAfterAFailedWait) {
  SyncDB database;
  {
    calls.recording = false;
    Database writer(environment_.container() / "sync.db");
    writer.run("BEGIN EXCLUSIVE");
    EXPECT_EQ(database.pathSyncStatus("/a/x"), -1);
  }
  EXPECT_EQ(database.pathSyncStatus("/a/x"), 1);
}

TEST_F(SQLiteCallsTest, StatementsAndTheirLengths) {
  SyncDB().pathSyncStatus("/a/x");
  SyncDB().directorySyncStatus("/a/");
  ConfigDB().getLocalRoot();
  ASSERT_EQ(calls.prepares.size(), 3U);
  EXPECT_EQ(calls.prepares[0].sql, "SELECT status FROM ea WHERE path in (?, ?) LIMIT 1");
  EXPECT_EQ(calls.prepares[0].length, 50);
  EXPECT_EQ(calls.prepares[1].sql,
            "SELECT path, status FROM ea WHERE path >= ? AND path < ? AND (NOT path like ? or path like ?)");
  EXPECT_EQ(calls.prepares[1].length, 93);
  EXPECT_EQ(calls.prepares[2].sql, "SELECT local_root FROM configuration LIMIT 1");
  EXPECT_EQ(calls.prepares[2].length, 44);
}

TEST_F(SQLiteCallsTest, APathIsBoundAsFileAndAsFolder) {
  SyncDB().pathSyncStatus("/\u00fc");
  EXPECT_THAT(calls.bindings,
              ElementsAre(Binding{1, "/\u00fc", 3, SQLITE_STATIC}, Binding{2, "/\u00fc/", 4, SQLITE_STATIC}));
}

TEST_F(SQLiteCallsTest, AFolderIsBoundAsARangeAndTwoPatternsWithItsWildcardsAsTheyAre) {
  SyncDB().directorySyncStatus("/\u00fc_%/");
  EXPECT_THAT(calls.bindings,
              ElementsAre(Binding{1, "/\u00fc_%/", 6, SQLITE_STATIC}, Binding{2, "/\u00fc_%0", 6, SQLITE_STATIC},
                          Binding{3, "/\u00fc_%/%/%", 9, SQLITE_STATIC}, Binding{4, "/\u00fc_%/%/", 8, SQLITE_STATIC}));
}

TEST_F(SQLiteCallsTest, AnOpenConnectionIsNotOpenedAgain) {
  SyncDBProbe database;
  database.connect();
  database.connect();
  database.disconnect();
  database.disconnect();
  EXPECT_THAT(calls.order, ElementsAre("open", "close"));
}

TEST_F(SQLiteCallsTest, AHandleLeftByAFailedOpenIsClosedByTheNextQuery) {
  std::filesystem::remove(environment_.container() / "sync.db");
  SyncDBProbe database;
  database.pathSyncStatus("/a/x");
  EXPECT_THAT(calls.order, ElementsAre("open"));
  database.pathSyncStatus("/a/x");
  EXPECT_THAT(calls.order, ElementsAre("open", "prepare", "close"));
}

TEST_F(SQLiteCallsTest, AReaderThatEndsClosesTheHandleLeftByAFailedOpen) {
  std::filesystem::remove(environment_.container() / "sync.db");
  {
    SyncDB().pathSyncStatus("/a/x");
  }
  EXPECT_THAT(calls.order, ElementsAre("open", "close"));
}

TEST_F(SQLiteCallsTest, TheSyncDatabasesLockCoversOpeningAndClosing) {
  SyncDBProbe database;
  std::vector<bool> locked;
  calls.beforeOpening = calls.beforeClosing = [&] { locked.push_back(database.isLocked()); };
  database.pathSyncStatus("/a/x");
  database.directorySyncStatus("/a/");
  EXPECT_THAT(locked, ElementsAre(true, true, true, true));
  emptyDatabases();
  locked.clear();
  database.pathSyncStatus("/a/x");
  database.directorySyncStatus("/a/");
  EXPECT_THAT(locked, ElementsAre(true, true, true, true));
}

TEST_F(SQLiteCallsTest, TheConfigurationDatabasesLockIsReleasedBeforeClosing) {
  ConfigDBProbe database;
  std::vector<bool> locked;
  calls.beforeOpening = calls.beforeClosing = [&] { locked.push_back(database.isLocked()); };
  EXPECT_EQ(database.getLocalRoot(), "/R");
  EXPECT_THAT(locked, ElementsAre(true, false));
  emptyDatabases();
  locked.clear();
  EXPECT_EQ(database.getLocalRoot(), std::nullopt);
  EXPECT_THAT(locked, ElementsAre(true, false));
}

TEST_F(SQLiteCallsTest, TheNextHolderOfTheConfigurationDatabasesLockMeetsNoConnection) {
  ConfigDBProbe database;
  bool met = true;
  calls.beforeClosing = [&] { met = database.db() != nullptr; };
  database.getLocalRoot();
  EXPECT_FALSE(met);
}

}  // namespace
}  // namespace vornet::test
