#include "db/ConfigDB.hpp"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <filesystem>

#include "support/DatabaseProbes.hpp"
#include "support/Databases.hpp"
#include "support/Environment.hpp"
#include "support/LogRecorder.hpp"
#include "support/Threads.hpp"

namespace vornet::test {
namespace {

namespace fs = std::filesystem;

using ::testing::IsEmpty;

/// SQL for the table with these values as its rows.
std::string configuration(const std::string& values) {
  const std::string table = "CREATE TABLE configuration (id INTEGER, local_root TEXT);";
  return values.empty() ? table : table + "INSERT INTO configuration (local_root) VALUES " + values;
}

class ConfigDBTest : public ::testing::Test {
 protected:
  fs::path file() const { return environment_.container() / "config.db"; }
  void run(const std::string& sql) { Database(file()).run(sql); }

  Environment environment_;
  ConfigDBProbe database_;
};

TEST_F(ConfigDBTest, TheFirstRowsLocalRootIsReadAsStoredAndTheFileAndTheLockAreReleased) {
  const struct {
    const char* content;
    std::string sql;
    std::optional<std::string> root;
  } cases[] = {{"a path", configuration("('/home/ann/Kelvane')"), "/home/ann/Kelvane"},
               {"a folder's path", configuration("('/R/')"), "/R/"},
               {"any text", configuration("(' /\u00fc\U0001F600 ')"), " /\u00fc\U0001F600 "},
               {"a relative path", configuration("('relative')"), "relative"},
               {"several rows", configuration("('/first'), ('/second'), ('/third')"), "/first"},
               {"an empty text", configuration("('')"), ""},
               {"NULL", configuration("(NULL), ('/second')"), std::nullopt},
               {"text that is not UTF-8", configuration("(CAST(X'2F52FF' AS TEXT))"), std::nullopt},
               {"text with a NUL character", configuration("(CAST(X'2F520041' AS TEXT))"), "/R"},
               {"an empty table", configuration(""), std::nullopt},
               {"a failing step",
                "CREATE TABLE t (i INTEGER); INSERT INTO t VALUES (1);"
                "CREATE VIEW configuration AS SELECT abs(-9223372036854775807 - i) AS local_root FROM t",
                std::nullopt}};
  for (const auto& [content, sql, root] : cases) {
    SCOPED_TRACE(content);
    fs::remove(file());
    run(sql);
    const LogRecorder log;
    EXPECT_EQ(database_.getLocalRoot(), root);
    EXPECT_THAT(log.messages(), IsEmpty());
    EXPECT_EQ(database_.db(), nullptr);
    EXPECT_FALSE(database_.isLocked());
  }
}

TEST_F(ConfigDBTest, EachFailedOpenKeepsTheLockOnceMore) {
  for (int i = 0; i < 4; ++i) EXPECT_EQ(database_.getLocalRoot(), std::nullopt);  // every second one fails to open
  for (int i = 0; i < 2; ++i) {
    EXPECT_TRUE(database_.isLocked());
    database_.lock().unlock();
  }
  EXPECT_FALSE(database_.isLocked());
}

TEST_F(ConfigDBTest, AfterAFailedOpenTheSameThreadMayAskAgainAndEveryQueryOfAnotherWaits) {
  EXPECT_EQ(database_.getLocalRoot(), std::nullopt);
  run(configuration("('/R')"));
  EXPECT_EQ(database_.getLocalRoot(), std::nullopt);
  Gate asking;
  auto root = std::async(std::launch::async, [&] {
    asking.open();
    return database_.getLocalRoot();
  });
  auto status = std::async(std::launch::async, [&] {
    asking.open();
    return database_.pathSyncStatus("/a");
  });
  asking.pass(2);
  for (int i = 0; i < 50; ++i) EXPECT_EQ(database_.getLocalRoot(), "/R");
  EXPECT_TRUE(database_.isLocked()) << "successful calls release only what they took";
  EXPECT_FALSE(isDone(root));
  EXPECT_FALSE(isDone(status));
  database_.lock().unlock();
  ASSERT_TRUE(isDoneInTime(root));
  EXPECT_EQ(root.get(), "/R");
  EXPECT_TRUE(isDoneInTime(status));
}

TEST_F(ConfigDBTest, AThreadMayEndWithTheLockItKept) {
  static auto& kept = *new ConfigDBProbe;  // never destroyed, as the shared one
  onAnotherThread([] { return kept.getLocalRoot(); });
  EXPECT_TRUE(kept.isLocked());
}

TEST_F(ConfigDBTest, TheSharedReadersReadTheirDatabasesUnderDifferentLocks) {
  makeSyncDatabase(environment_.container() / "sync.db", {{"/a", 2}});
  EXPECT_EQ(configDB().getLocalRoot(), std::nullopt);  // keeps its lock
  EXPECT_EQ(onAnotherThread([] { return syncDB().pathSyncStatus("/a"); }), 2);
  run(configuration("('/R')"));
  EXPECT_EQ(configDB().getLocalRoot(), std::nullopt);  // fails on what the failed open left
  EXPECT_EQ(configDB().getLocalRoot(), "/R");
}

}  // namespace
}  // namespace vornet::test
