// Badges: answers, changes, a locked database, in the built extension process.
#include <gmock/gmock.h>

#include <chrono>
#include <optional>

#include "support/Databases.hpp"
#include "support/ExtensionTest.hpp"
#include "support/SyncApplication.hpp"
#include "support/Threads.hpp"

namespace vornet::test {
namespace {

using testing::Each;
using testing::ElementsAre;
using testing::IsEmpty;
using Clock = std::chrono::steady_clock;

/// A lock that keeps everybody else from reading the database.
class DatabaseLock : public Database {
 public:
  explicit DatabaseLock(const std::filesystem::path& path) : Database(path) { run("BEGIN EXCLUSIVE"); }
};

class ExtensionBadges : public ExtensionTest {
 protected:
  std::size_t failedLookUps() const { return logged("[SyncDB] pathSyncStatus: Cannot prepare SQL statement\n"); }
};

TEST_F(ExtensionBadges, AnswersBadgesInTheOrderAsked) {
  startConfigured({{"/x", 2}, {"/y", 1}, {"/a b", 0}, {"/d/", 2}, {"/odd", 7}});
  EXPECT_THAT(badges({"y", "x", "a%20b", "d", "gone", "odd", "x"}),
              ElementsAre("PENDING", "SYNCED", "SKIPPED", "SYNCED", "", "", "SYNCED"));
  EXPECT_THAT(client->requestBadges({}).texts(), IsEmpty());
}

TEST_F(ExtensionBadges, ItemsOutsideTheSyncedFolderAndNamesThatAreNotUTF8HaveNoBadge) {
  startConfigured({{"/x", 2}, {"/", 2}, {root, 2}, {"/etc", 2}});
  EXPECT_THAT(client->requestBadges({"file:///etc", url("%FF%FE"), url(), url("x"), "file://" + root + "x"}).texts(),
              ElementsAre("", "", "", "SYNCED", ""));
}

TEST_F(ExtensionBadges, RefusesMalformedURLsAndOverlongBatchesWhole) {
  startConfigured({{"/x", 2}});
  EXPECT_EQ(client->requestBadges({url("x"), "nonsense"}).error, "InvalidURL");
  EXPECT_EQ(client->requestBadges({url("../x")}).error, "InvalidURL");
  EXPECT_EQ(client->requestBadges(std::vector<std::string>(10'001, url("x"))).error, "TooManyURLs");
  EXPECT_THAT(client->requestBadges(std::vector<std::string>(10'000, url("x"))).texts(),
              testing::AllOf(testing::SizeIs(10'000), Each("SYNCED")));
}

TEST_F(ExtensionBadges, SendsChangedBadgesToTheirObserversAlone) {
  SyncApplication application;
  application.setStatus("/x", 1);
  application.setStatus("/y", 1);
  startObserving();
  BusClient bystander(bus->address());
  BusClient elsewhere(bus->address());
  ASSERT_TRUE(elsewhere.beginObserving(url("d")));
  ASSERT_TRUE(application.waitForRequests(2));
  ASSERT_TRUE(waitForBadge("x", "PENDING"));
  application.setStatus("/x", 2);
  EXPECT_TRUE(client->waitForChange(url("x"), "SYNCED"));
  EXPECT_EQ(client->changes().count(url("y")), 0u);
  EXPECT_THAT(badges({"x", "y"}), ElementsAre("SYNCED", "PENDING"));
  bystander.forgetChanges();
  elsewhere.forgetChanges();
  EXPECT_EQ(bystander.signals() + elsewhere.signals(), 0u);
}

TEST_F(ExtensionBadges, ManyChangesComeInFewSignals) {
  SyncApplication application;
  for (int i = 0; i < 5000; ++i) application.setStatus("/" + std::to_string(i), 1);
  startObserving();
  ASSERT_TRUE(waitForBadge("4999", "PENDING"));
  for (int i = 0; i < 5000; ++i) application.setStatus("/" + std::to_string(i), 2);
  // Single settings may fall into two passes; all arrive, in far fewer signals than changes.
  ASSERT_TRUE(client->waitUntil([&] {
    return client->changes().size() == 5000 && client->changes().at(url("4999")) == "SYNCED" &&
           client->changes().at(url("0")) == "SYNCED";
  }));
  EXPECT_LE(client->signals(), 100u);
}

TEST_F(ExtensionBadges, AnAnswerFromBeforeTheFolderWasFilledIsCorrectedEvenIfItHadNoBadge) {
  Gate asked;
  SyncApplication application;
  application.setAnswer("/", answerAfter(asked, R"({"/x":2,"/y":2})"));
  startObserving({{"/x", 1}, {"/y", 7}});
  EXPECT_THAT(badges({"x", "y"}), ElementsAre("PENDING", ""));
  asked.open();
  EXPECT_TRUE(client->waitForChange(url("x"), "SYNCED"));
  EXPECT_TRUE(client->waitForChange(url("y"), "SYNCED"));
}

TEST_F(ExtensionBadges, CachedBadgesAreAnsweredWhileLookUpsMeetALockedDatabase) {
  SyncApplication application;
  application.setStatus("/x", 2);
  startObserving({{"/d/0", 2}});
  BusClient second(bus->address());
  ASSERT_TRUE(waitForBadge("x", "SYNCED"));

  const DatabaseLock lock(database());
  std::vector<std::string> batch;
  for (int i = 0; i < 500; ++i) batch.push_back(url("d/" + std::to_string(i)));
  int answered = 0;
  const auto begun = Clock::now();
  for (int i = 0; i < 2; ++i)
    second.call("RequestBadges", BusClient::urlArguments(batch), [&answered](const BusReply&) { ++answered; });
  second.property("Version");  // the batches are with the extension now
  const auto asked = Clock::now();
  EXPECT_EQ(badge("x"), "SYNCED");
  const auto cached = Clock::now() - asked;
  EXPECT_TRUE(second.waitUntil([&] { return answered == 2; }));
  const auto batches = Clock::now() - begun;
  // If each look-up waited by itself, the two batches would take 50 s, and so would the badge behind them.
  EXPECT_LT(cached, std::chrono::seconds(3));
  EXPECT_LT(batches, std::chrono::seconds(15));
}

TEST_F(ExtensionBadges, ALockedDatabaseRemovesNoBadgeAndItsChangesAreSentOnceItIsUnlocked) {
  // Without a sync application: no folder is ever filled.
  startObserving({{"/x", 2}, {"/y", 2}, {"/d/x", 2}, {"/d/y", 1}, {"/d/z", 2}}, "d");
  BusClient bystander(bus->address());
  ASSERT_TRUE(bystander.beginObserving(url("d")));
  ASSERT_THAT(badges({"d/x", "d/z", "x"}), Each("SYNCED"));

  DatabaseLock lock(database());
  EXPECT_THAT(badges({"d/x", "d/y", "d/z", "x", "y"}), ElementsAre("SYNCED", "", "SYNCED", "SYNCED", ""));
  // Over several look-ups that fail.
  ASSERT_TRUE(client->waitUntil([&] { return failedLookUps() > 6; }));
  EXPECT_EQ(client->signals(), 0u);

  lock.run("UPDATE ea SET status = 0 WHERE path IN ('/d/x', '/x'); COMMIT");
  EXPECT_TRUE(client->waitForChange(url("d/x"), "SKIPPED"));
  EXPECT_TRUE(client->waitForChange(url("d/y"), "PENDING"));
  EXPECT_TRUE(client->waitForChange(url("x"), "SKIPPED")) << "though its folder is not observed";
  EXPECT_TRUE(client->waitForChange(url("y"), "SYNCED"));
  EXPECT_EQ(client->changes().count(url("d/z")), 0u) << "it was right";
  EXPECT_TRUE(bystander.waitForChange(url("d/y"), "PENDING"));
  bystander.property("Version");
  EXPECT_EQ(bystander.changes().count(url("x")) + bystander.changes().count(url("y")), 0u);
}

TEST_F(ExtensionBadges, AnAnswerGivenAfterTheLockIsNotRepeatedAsASignal) {
  startConfigured({{"/x", 2}});
  BusClient waiting(bus->address());
  DatabaseLock lock(database());
  for (auto* each : {&*client, &waiting}) ASSERT_THAT(each->requestBadges({url("x")}).texts(), ElementsAre(""));
  lock.run("COMMIT");
  EXPECT_EQ(badge("x"), "SYNCED");
  client->forgetChanges();  // one may have come before the answer
  EXPECT_TRUE(waiting.waitForChange(url("x"), "SYNCED"));
  EXPECT_TRUE(client->requestBadges({}));  // all that was sent before its answer has arrived
  EXPECT_EQ(client->signals(), 0u);
}

TEST_F(ExtensionBadges, MoreItemsThanCanBeLookedUpAgainAreRefused) {
  startConfigured({{"/x", 2}});
  DatabaseLock lock(database());
  std::vector<std::string> batch(10'000);
  for (int call = 0; call < 3; ++call) {
    for (std::size_t i = 0; i < batch.size(); ++i) batch[i] = url(std::to_string(call) + "-" + std::to_string(i));
    EXPECT_EQ(client->requestBadges(batch).error, call < 2 ? "" : "Busy");
  }
  lock.run("COMMIT");
  EXPECT_TRUE(client->waitUntil([&] { return client->requestBadges(batch).error.empty(); }));
}

TEST_F(ExtensionBadges, AClientThatLeavesIsForgottenAlsoWhileItsAnswersAreInDoubt) {
  startConfigured({{"/x", 2}});
  process();
  const auto before = client->extensionsMatchRules();
  ASSERT_TRUE(before);
  const DatabaseLock lock(database());
  std::optional<BusClient> second(bus->address());
  ASSERT_THAT(second->requestBadges({url("x")}).texts(), ElementsAre(""));
  ASSERT_TRUE(client->waitUntil([&] { return client->extensionsMatchRules() > before; }));
  const auto failed = failedLookUps();
  ASSERT_TRUE(client->waitUntil([&] { return failedLookUps() > failed; })) << "it is looked up again";
  second.reset();
  EXPECT_TRUE(client->waitUntil([&] { return client->extensionsMatchRules() == before; }));
}

TEST_F(ExtensionBadges, AnAnswerIsNotRepeatedAsASignal) {
  startObserving({{"/x", 2}, {"/y", 1}});
  for (int i = 0; i < 3; ++i) client->requestBadges({url("x"), url("y")});
  client->forgetChanges();
  client->property("Version");
  EXPECT_EQ(client->signals(), 0u);
}

TEST_F(ExtensionBadges, AChangeFoundByOneClientsRequestIsSentToTheOthers) {
  startObserving({{"/x", 1}});
  BusClient second(bus->address());
  ASSERT_EQ(badge("x"), "PENDING");
  Database(database()).run("UPDATE ea SET status = 2");
  ASSERT_THAT(second.requestBadges({url("x")}).texts(), ElementsAre("SYNCED"));
  EXPECT_TRUE(client->waitForChange(url("x"), "SYNCED"));
}

}  // namespace
}  // namespace vornet::test
