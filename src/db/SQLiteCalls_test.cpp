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
struct Binding {
  int index;
  std::string text;  // of the given length
  sqlite3_destructor_type destructor = SQLITE_STATIC;
  friend bool operator==(const Binding&, const Binding&) = default;
};

/// The recorded calls, by one thread at a time.
struct Calls {
  std::vector<std::string> order;
  std::vector<Open> opens;
  std::vector<std::string> statements;  // of the given length; empty without one
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
  calls.order.push_back("open");
  calls.opens.push_back({path, handle, flags, system});
  calls.beforeOpening();
  return next<decltype(sqlite3_open_v2)>("sqlite3_open_v2")(path, handle, flags, system);
}

int sqlite3_busy_timeout(sqlite3* db, int milliseconds) {
  calls.timeouts.push_back(milliseconds);
  return next<decltype(sqlite3_busy_timeout)>("sqlite3_busy_timeout")(db, milliseconds);
}

int sqlite3_prepare_v2(sqlite3* db, const char* sql, int length, sqlite3_stmt** statement, const char** tail) {
  calls.order.push_back("prepare");
  calls.statements.push_back(length < 0 ? "" : std::string(sql, static_cast<std::size_t>(length)));
  return next<decltype(sqlite3_prepare_v2)>("sqlite3_prepare_v2")(db, sql, length, statement, tail);
}

int sqlite3_bind_text(sqlite3_stmt* statement, int index, const char* text, int length, void (*destructor)(void*)) {
  calls.bindings.push_back({index, std::string(text, static_cast<std::size_t>(length)), destructor});
  return next<decltype(sqlite3_bind_text)>("sqlite3_bind_text")(statement, index, text, length, destructor);
}

int sqlite3_step(sqlite3_stmt* statement) {
  calls.order.push_back("step");
  return next<decltype(sqlite3_step)>("sqlite3_step")(statement);
}

int sqlite3_finalize(sqlite3_stmt* statement) {
  if (statement) calls.order.push_back("finalise");
  return next<decltype(sqlite3_finalize)>("sqlite3_finalize")(statement);
}

int sqlite3_close(sqlite3* db) {
  if (db) {
    calls.order.push_back("close");
    calls.beforeClosing();
  }
  return next<decltype(sqlite3_close)>("sqlite3_close")(db);
}

}  // extern "C"

namespace vornet::test {
namespace {

using ::testing::ElementsAre;
using ::testing::FieldsAre;
using ::testing::IsNull;
using ::testing::NotNull;

/// A query, which is asked of a reader of the configuration: that answers all of them.
struct Query {
  std::string name;
  void (*ask)(ConfigDBProbe& reader);
  std::string statement;
  std::vector<Binding> bindings;
  std::size_t steps;
  bool closesLocked;
};

const std::vector<Query> QUERIES = {
    {"a path, as file and as folder",
     [](ConfigDBProbe& reader) { reader.pathSyncStatus("/\u00fc"); },
     "SELECT status FROM ea WHERE path in (?, ?) LIMIT 1",
     {{1, "/\u00fc"}, {2, "/\u00fc/"}},
     1,
     true},
    {"a folder, as a range and two patterns with its wildcards as they are",
     [](ConfigDBProbe& reader) { reader.directorySyncStatus("/\u00fc_%/"); },
     "SELECT path, status FROM ea WHERE path >= ? AND path < ? AND (NOT path like ? or path like ?)",
     {{1, "/\u00fc_%/"}, {2, "/\u00fc_%0"}, {3, "/\u00fc_%/%/%"}, {4, "/\u00fc_%/%/"}},
     3,  // the last one finds no more rows
     true},
    {"the local root",
     [](ConfigDBProbe& reader) { reader.getLocalRoot(); },
     "SELECT local_root FROM configuration LIMIT 1",
     {},
     1,
     false}};

class SQLiteCallsTest : public ::testing::Test {
 protected:
  SQLiteCallsTest() {
    const std::vector<std::pair<std::string, int>> rows = {{"/\u00fc", 1}, {"/\u00fc_%/x", 1}, {"/\u00fc_%/y", 2}};
    for (const auto& file : {syncDatabase(), configuration()}) makeSyncDatabase(file, rows);
    Database(configuration())
        .run("CREATE TABLE configuration (local_root TEXT); INSERT INTO configuration VALUES ('/R')");
    calls = Calls();
  }
  ~SQLiteCallsTest() override { calls = Calls(); }

  std::filesystem::path syncDatabase() const { return environment_.container() / "sync.db"; }
  std::filesystem::path configuration() const { return environment_.container() / "config.db"; }

  Environment environment_;
};

/// The calls that a query makes.
const Calls& callsOf(const Query& query) {
  calls = Calls();
  ConfigDBProbe reader;
  query.ask(reader);
  return calls;
}

TEST_F(SQLiteCallsTest, AQueryOpensPreparesStepsWhileThereAreRowsItWantsFinalisesAndCloses) {
  for (const auto& query : QUERIES) {
    std::vector<std::string> expected = {"open", "prepare", "finalise", "close"};
    expected.insert(expected.begin() + 2, query.steps, "step");
    EXPECT_EQ(callsOf(query).order, expected) << query.name;
  }
}

TEST_F(SQLiteCallsTest, AQueryBindsItsTextsUncopiedToItsStatement) {
  for (const auto& query : QUERIES) {
    EXPECT_THAT(callsOf(query).statements, ElementsAre(query.statement));
    EXPECT_EQ(calls.bindings, query.bindings) << query.name;
  }
}

TEST_F(SQLiteCallsTest, AfterAFailedStatementTheConnectionIsClosed) {
  std::filesystem::resize_file(configuration(), 0);
  for (const auto& query : QUERIES)
    EXPECT_THAT(callsOf(query).order, ElementsAre("open", "prepare", "close")) << query.name;
}

TEST_F(SQLiteCallsTest, TheLockCoversOpeningAndClosingExceptTheClosingOfTheConfiguration) {
  for (const bool fails : {false, true}) {
    if (fails) std::filesystem::resize_file(configuration(), 0);
    for (const auto& query : QUERIES) {
      ConfigDBProbe reader;
      std::vector<bool> locked;
      calls.beforeOpening = [&] { locked.push_back(reader.isLocked()); };
      calls.beforeClosing = [&] {
        locked.push_back(reader.isLocked());
        EXPECT_EQ(reader.db(), nullptr) << "the lock's next holder meets no connection";
      };
      query.ask(reader);
      EXPECT_THAT(locked, ElementsAre(true, query.closesLocked)) << query.name;
    }
  }
}

TEST_F(SQLiteCallsTest, EachConnectionWaitsForALock) {
  for (const auto& query : QUERIES) EXPECT_THAT(callsOf(query).timeouts, ElementsAre(50)) << query.name;
}

TEST_F(SQLiteCallsTest, TheFileInTheGroupContainerIsOpenedForReadingOnlyWithTheUsualFileSystem) {
  SyncDB().pathSyncStatus("/a/x");
  ConfigDB().getLocalRoot();
  EXPECT_THAT(calls.opens, ElementsAre(FieldsAre(syncDatabase(), NotNull(), SQLITE_OPEN_READONLY, IsNull()),
                                       FieldsAre(configuration(), NotNull(), SQLITE_OPEN_READONLY, IsNull())));
}

TEST_F(SQLiteCallsTest, TheStatusesOfAFoldersItemsAreOneQueryThatSkipsWhatIsBelow) {
  std::vector<std::pair<std::string, int>> rows = {{"/d/a", 1}, {"/d/sub/", 2}, {"/d/z", 0}, {"/e", 2}};
  for (int i = 0; i < 5'000; ++i) rows.emplace_back((i % 2 ? "/d/sub/" : "/d/z/") + std::to_string(i), 2);
  std::filesystem::remove(syncDatabase());
  makeSyncDatabase(syncDatabase(), rows);
  calls = Calls();
  EXPECT_EQ(SyncDB().childSyncStatus("/d/", 100), (SyncDB::Names{{"a", 1}, {"sub", 2}, {"z", 0}}));
  EXPECT_EQ(std::ranges::count(calls.order, "open"), 1);
  EXPECT_EQ(std::ranges::count(calls.order, "prepare"), 3) << "with encoding and plan";
  EXPECT_LE(std::ranges::count(calls.order, "step"), 60);
  EXPECT_EQ(calls.order.back(), "close");
}

TEST_F(SQLiteCallsTest, AfterAFailedWaitForALockNoLookUpWaitsForASecond) {
  Database writer(syncDatabase());
  writer.run("BEGIN EXCLUSIVE");
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

TEST_F(SQLiteCallsTest, AnOpenConnectionIsNotOpenedAgain) {
  SyncDBProbe database;
  for (int i = 0; i < 2; ++i) EXPECT_TRUE(database.connect());
  for (int i = 0; i < 2; ++i) database.disconnect();
  EXPECT_THAT(calls.order, ElementsAre("open", "close"));
}

TEST_F(SQLiteCallsTest, AHandleLeftByAFailedOpenIsClosedByTheNextQueryOrAtTheReadersEnd) {
  std::filesystem::remove(syncDatabase());
  {
    SyncDBProbe database;
    for (int i = 0; i < 3; ++i) database.pathSyncStatus("/a/x");
    EXPECT_THAT(calls.order, ElementsAre("open", "prepare", "close", "open"));
  }
  EXPECT_THAT(calls.order, ElementsAre("open", "prepare", "close", "open", "close"));
}

}  // namespace
}  // namespace vornet::test
