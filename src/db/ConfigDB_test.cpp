#include "db/ConfigDB.hpp"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <atomic>
#include <filesystem>

#include "support/DatabaseProbes.hpp"
#include "support/Databases.hpp"
#include "support/Environment.hpp"
#include "support/LogRecorder.hpp"
#include "support/ProcessStops.hpp"
#include "support/Threads.hpp"

namespace vornet::test {
namespace {

namespace fs = std::filesystem;

using ::testing::AllOf;
using ::testing::ElementsAre;
using ::testing::HasSubstr;
using ::testing::Not;

constexpr const char* CANNOT_PREPARE = "Cannot prepare SQL statement for fetching local_root";

/// SQL for the table with these values as its rows.
std::string configuration(const std::string& values) {
  const std::string table = "CREATE TABLE configuration (id INTEGER, local_root TEXT);";
  return values.empty() ? table : table + "INSERT INTO configuration (local_root) VALUES " + values;
}

class ConfigDBTest : public ::testing::Test {
 protected:
  fs::path file() const { return environment_.container() / "config.db"; }
  void run(const std::string& sql) { Database(file()).run(sql); }
  void store(const std::string& values) { run(configuration(values)); }

  Environment environment_;
  ConfigDBProbe database_;
};

TEST_F(ConfigDBTest, TheFileIsInTheGroupContainer) {
  EXPECT_EQ(database_._getSyncDBPath(), file().string());
}

struct Content {
  const char* name;
  std::string sql;
  std::optional<std::string> root;
  std::vector<std::string> warnings{};
};

void PrintTo(const Content& content, std::ostream* out) {
  *out << content.name;
}

class ConfigDBContent : public ConfigDBTest, public ::testing::WithParamInterface<Content> {};

TEST_P(ConfigDBContent, IsReadAsStoredAndTheFileAndTheLockAreReleased) {
  run(GetParam().sql);
  const LogRecorder log;
  EXPECT_EQ(database_.getLocalRoot(), GetParam().root);
  EXPECT_EQ(log.messages(LogLevel::Warning), GetParam().warnings);
  EXPECT_EQ(log.messages().size(), GetParam().warnings.size());
  EXPECT_EQ(database_.db(), nullptr);
  EXPECT_FALSE(database_.isLocked());
}

INSTANTIATE_TEST_SUITE_P(
    Of, ConfigDBContent,
    ::testing::Values(Content{"APath", configuration("('/home/ann/Kelvane')"), "/home/ann/Kelvane"},
                      Content{"AFoldersPath", configuration("('/R/')"), "/R/"},
                      Content{"AnyText", configuration("(' /\u00fc\U0001F600 ')"), " /\u00fc\U0001F600 "},
                      Content{"ARelativePath", configuration("('relative')"), "relative"},
                      Content{"SeveralRows", configuration("('/first'), ('/second'), ('/third')"), "/first"},
                      Content{"AnEmptyText", configuration("('')"), ""},
                      Content{"Null", configuration("(NULL), ('/second')"), std::nullopt},
                      Content{"TextThatIsNotUTF8", configuration("(CAST(X'2F52FF' AS TEXT))"), std::nullopt},
                      Content{"TextWithANulCharacter", configuration("(CAST(X'2F520041' AS TEXT))"), "/R"},
                      Content{"AnEmptyTable", configuration(""), std::nullopt},
                      Content{"AFailingStep",
                              "CREATE TABLE t (i INTEGER); INSERT INTO t VALUES (1);"
                              "CREATE VIEW configuration AS SELECT abs(-9223372036854775807 - i) AS local_root FROM t",
                              std::nullopt},
                      Content{"NoTable", "CREATE TABLE other (local_root TEXT)", std::nullopt, {CANNOT_PREPARE}},
                      Content{"NoColumn", "CREATE TABLE configuration (root TEXT)", std::nullopt, {CANNOT_PREPARE}}),
    [](const auto& content) { return content.param.name; });

TEST_F(ConfigDBTest, TheSharedReaderReadsTheConfigurationDatabase) {
  store("('/R')");
  makeSyncDatabase(environment_.container() / "sync.db", {});
  EXPECT_EQ(configDB().getLocalRoot(), "/R");
}

TEST_F(ConfigDBTest, AFileThatIsNoDatabaseGivesNoValueAndAWarning) {
  writeFile(file(), std::string(5'000, 'x'));
  const LogRecorder log;
  EXPECT_EQ(database_.getLocalRoot(), std::nullopt);
  EXPECT_THAT(log.messages(LogLevel::Warning), ElementsAre(CANNOT_PREPARE));
  EXPECT_EQ(log.records().front().functionName, "getLocalRoot");
  EXPECT_EQ(log.records().front().fileName, "src/db/ConfigDB");
}

TEST_F(ConfigDBTest, AnAbsentFileGivesNoValueAndADebugMessageAndKeepsTheLock) {
  const LogRecorder log;
  EXPECT_EQ(database_.getLocalRoot(), std::nullopt);
  EXPECT_THAT(log.messages(), ElementsAre("Cannot open database"));
  EXPECT_EQ(log.records().front().logLevel, LogLevel::Debug);
  EXPECT_FALSE(fs::exists(file()));
  EXPECT_TRUE(database_.isLocked());
  database_.lock().unlock();
  EXPECT_FALSE(database_.isLocked()) << "it was taken once";
}

TEST_F(ConfigDBTest, AfterAFailedOpenTheSameThreadMayAskAgain) {
  const LogRecorder log;
  EXPECT_EQ(database_.getLocalRoot(), std::nullopt);
  store("('/R')");
  EXPECT_EQ(database_.getLocalRoot(), std::nullopt);
  EXPECT_EQ(database_.db(), nullptr);
  EXPECT_EQ(database_.getLocalRoot(), "/R");
  EXPECT_THAT(log.messages(), ElementsAre("Cannot open database", CANNOT_PREPARE));
  EXPECT_TRUE(database_.isLocked()) << "successful calls release only what they took";
  database_.lock().unlock();
  EXPECT_FALSE(database_.isLocked());
}

TEST_F(ConfigDBTest, EachFailedOpenTakesTheLockOnceMore) {
  for (int i = 0; i < 4; ++i) EXPECT_EQ(database_.getLocalRoot(), std::nullopt);  // every second one fails to open
  database_.lock().unlock();
  EXPECT_TRUE(database_.isLocked());
  database_.lock().unlock();
  EXPECT_FALSE(database_.isLocked());
}

TEST_F(ConfigDBTest, AfterAFailedOpenAnotherThreadWaitsForTheThreadThatFailed) {
  EXPECT_EQ(database_.getLocalRoot(), std::nullopt);
  store("('/R')");
  EXPECT_EQ(database_.getLocalRoot(), std::nullopt);
  Gate asking;
  auto other = std::async(std::launch::async, [&] {
    asking.open();
    return database_.getLocalRoot();
  });
  asking.pass();
  for (int i = 0; i < 50; ++i) EXPECT_EQ(database_.getLocalRoot(), "/R");
  EXPECT_TRUE(database_.isLocked());
  EXPECT_FALSE(isDone(other));
  database_.lock().unlock();
  ASSERT_TRUE(isDoneInTime(other));
  EXPECT_EQ(other.get(), "/R");
}

TEST_F(ConfigDBTest, AfterAFailedOpenEveryQueryOfAnotherThreadWaits) {
  EXPECT_EQ(database_.getLocalRoot(), std::nullopt);
  Gate asking;
  auto other = std::async(std::launch::async, [&] {
    asking.open();
    return database_.pathSyncStatus("/a");
  });
  asking.pass();
  store("('/R')");
  for (int i = 0; i < 50; ++i) database_.getLocalRoot();
  EXPECT_FALSE(isDone(other));
  database_.lock().unlock();
  EXPECT_TRUE(isDoneInTime(other));
}

TEST_F(ConfigDBTest, TheSharedReadersHaveDifferentLocks) {
  makeSyncDatabase(environment_.container() / "sync.db", {{"/a", 2}});
  EXPECT_EQ(configDB().getLocalRoot(), std::nullopt);  // keeps its lock
  EXPECT_EQ(onAnotherThread([] { return syncDB().pathSyncStatus("/a"); }), 2);
}

TEST_F(ConfigDBTest, AThreadMayEndWithTheLockItKept) {
  static auto& kept = *new ConfigDBProbe;  // never destroyed, as the shared one
  onAnotherThread([] { return kept.getLocalRoot(); });
  EXPECT_TRUE(kept.isLocked());
}

TEST_F(ConfigDBTest, TheFileIsNotHeldOpenBetweenQueries) {
  store("('/R')");
  for (int i = 0; i < 3; ++i) {
    EXPECT_EQ(database_.getLocalRoot(), "/R");
    EXPECT_EQ(database_.db(), nullptr);
    EXPECT_EQ(openDescriptors(file()), 0U);
    EXPECT_FALSE(database_.isLocked());
  }
}

TEST_F(ConfigDBTest, AChangeIsSeenByTheNextQuery) {
  store("('/R')");
  EXPECT_EQ(database_.getLocalRoot(), "/R");
  run("UPDATE configuration SET local_root = '/S'");
  EXPECT_EQ(database_.getLocalRoot(), "/S");
  fs::remove(file());
  store("('/T')");
  EXPECT_EQ(database_.getLocalRoot(), "/T");
}

TEST_F(ConfigDBTest, QueriesDoNotChangeTheFile) {
  store("('/R')");
  const auto content = readFile(file());
  database_.getLocalRoot();
  EXPECT_EQ(readFile(file()), content);
  EXPECT_EQ(std::distance(fs::directory_iterator(environment_.container()), fs::directory_iterator()), 1);
}

TEST_F(ConfigDBTest, ThePathIsKeptFromTheFirstQueryOn) {
  store("('/R')");
  EXPECT_EQ(database_.getLocalRoot(), "/R");
  const TemporaryFolder other;
  const ScopedVariable moved("VORNET_GROUP_CONTAINERS", other.path().string());
  EXPECT_EQ(database_.getLocalRoot(), "/R");
}

TEST_F(ConfigDBTest, AnyThreadMayAsk) {
  store("('/R')");
  std::atomic<int> right = 0;
  inParallel(4, [&](std::size_t) {
    for (int i = 0; i < 50; ++i) right += database_.getLocalRoot() == "/R";
  });
  EXPECT_EQ(right, 200);
  EXPECT_EQ(openDescriptors(file()), 0U);
}

using ConfigDBDeathTest = ProcessStops;

TEST_F(ConfigDBDeathTest, WithoutAGroupContainerTheProcessStopsWithoutAMessage) {
  const Environment environment;
  const TemporaryFolder folder;
  writeFile(folder.path() / App().APP_GROUP, "a file in the container's place");
  const ScopedVariable containers("VORNET_GROUP_CONTAINERS", folder.path().string());
  const StandardErrorLog log;
  EXPECT_DEATH(ConfigDB().getLocalRoot(), AllOf(HasSubstr("no group container"), Not(HasSubstr("<"))));
}

}  // namespace
}  // namespace vornet::test
