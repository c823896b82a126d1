// The service in the test's own process, where a test can hold it at any point between a question and its answer.
#include "FinderSyncService.hpp"

#include <gmock/gmock.h>

#include <atomic>
#include <memory>
#include <optional>
#include <thread>

#include "base/AppConst.hpp"
#include "extension/SharedObjects.hpp"
#include "platform/linux/FinderSyncHost.hpp"
#include "rest/RESTPollingManager.hpp"
#include "support/Databases.hpp"
#include "support/ExtensionTest.hpp"
#include "support/LogRecorder.hpp"
#include "support/SyncApplication.hpp"
#include "support/Threads.hpp"

namespace vornet::service {
namespace {

using namespace std::chrono_literals;
using platform::FIFinderSyncController;
using platform::FileURL;
using test::BusClient;
using test::BusReply;
using testing::ElementsAre;
using testing::Pair;

/// The extension; a test decides what it does when it is asked for a badge.
class HeldExtension : public FinderSync {
 public:
  /// Set before the service is asked for the first time.
  std::function<void(const FileURL& item)> asked;

  void requestBadgeIdentifierForURL(const FileURL& url) override {
    asked ? asked(url) : FinderSync::requestBadgeIdentifierForURL(url);
  }
  void reallyAsk(const FileURL& url) { FinderSync::requestBadgeIdentifierForURL(url); }
};

/// A service that owns the extension's name on a bus, on a thread with the main context.
class ServiceThread {
 public:
  ServiceThread(FinderSync& extension, const std::string& address)
      : thread_([this, &extension, address] { run(extension, address); }) {
    serving_.pass();
  }
  ~ServiceThread() {
    g_main_loop_quit(loop_.get());
    thread_.join();
  }
  ServiceThread(const ServiceThread&) = delete;
  ServiceThread& operator=(const ServiceThread&) = delete;

 private:
  void run(FinderSync& extension, const std::string& address) {
    const auto connection = test::connectToBus(address);
    {
      FinderSyncService service(extension, connection.get());
      std::string error;
      EXPECT_TRUE(service.start(error)) << error;
      const auto acquired =
          +[](GDBusConnection*, const gchar*, gpointer self) { static_cast<ServiceThread*>(self)->serving_.open(); };
      const guint name = g_bus_own_name_on_connection(connection.get(), App().APP_CODENAME.c_str(),
                                                      G_BUS_NAME_OWNER_FLAGS_NONE, acquired, nullptr, this, nullptr);
      g_main_loop_run(loop_.get());
      g_bus_unown_name(name);
      service.stop();
    }
    g_dbus_connection_close_sync(connection.get(), nullptr, nullptr);
  }

  const GMainLoopPtr loop_{g_main_loop_new(nullptr, FALSE)};
  test::Gate serving_;
  std::thread thread_;
};

class FinderSyncServiceTest : public test::ExtensionTest {
 protected:
  ~FinderSyncServiceTest() override {
    client.reset();
    service.reset();
    if (statusManager()) statusManager()->stop_listener();
    statusManager().reset();
  }

  void startBus() {
    configure();
    start(environment.folder() / "no services");
    ASSERT_TRUE(extension.init());
  }
  void startService() {
    startBus();
    service.emplace(extension, bus->address());
  }
  void startServiceAndObserve() {
    startService();
    ASSERT_TRUE(client->beginObserving(url()));
  }
  bool waitForSnapshot(guint64 stream, std::size_t count = 1) {
    return client->waitUntil([&] { return client->stream(stream).snapshots == count; });
  }
  bool waitForItem(const std::string& name) {
    return client->waitUntil([&] { return client->stream(1).badges.contains(name); });
  }

  /// Has the cache know the items of a folder.
  static void fill(const std::string& folder, StatusTable statuses) {
    statusManager()->dirCache().enterNewDir(folder);
    statusManager()->dirCache().update(folder, std::move(statuses));
  }

  FileURL item(const std::string& name) const { return FileURL::fileURLWithPath(root + "/" + name); }
  static void set(const std::string& identifier, const FileURL& url) {
    FIFinderSyncController::defaultController().setBadgeIdentifier(identifier, url);
  }

  // For the extension and the server, which go on after a test's own variables are gone.
  test::Gate gate;
  std::atomic<int> questions = 0;
  std::atomic<bool> first = true;
  std::atomic<bool> filled = false;
  HeldExtension extension;
  std::optional<ServiceThread> service;
};

/// With as many items of another folder on screen as are remembered, so that no other item is.
class FinderSyncServiceThatRemembersNoMore : public FinderSyncServiceTest {
 protected:
  FinderSyncServiceThatRemembersNoMore() {
    platform::host::folderShown("/elsewhere");
    for (std::size_t i = 0; i < platform::host::MAX_ITEMS_ASKED_FOR; ++i)
      platform::host::BadgeRequest(FileURL::fileURLWithPath("/elsewhere/asked" + std::to_string(i))).apply();
    for (std::size_t i = 0; i < platform::host::MAX_ITEMS_ONLY_SET; ++i)
      set("SYNCED", FileURL::fileURLWithPath("/elsewhere/set" + std::to_string(i)));
  }
  ~FinderSyncServiceThatRemembersNoMore() override { platform::host::folderHidden("/elsewhere"); }
};

TEST_F(FinderSyncServiceTest, AnAnswerHoldsTheBadgesOfTheMomentWhenItIsSent) {
  extension.asked = [this](const FileURL& asked) {
    if (asked == item("x")) set("PENDING", asked);
    if (asked == item("y")) extension.setFileSyncStatus(item("x"), 2);  // x changes while y is looked up
  };
  startServiceAndObserve();
  EXPECT_THAT(badges({"x", "y"}), ElementsAre("SYNCED", ""));
}

TEST_F(FinderSyncServiceTest, ABadgeThatChangesWhileItIsAskedForIsNotReplacedByTheOlderOne) {
  extension.asked = [&](const FileURL& asked) {
    if (++questions == 1) {
      std::thread([&] { extension.setFileSyncStatus(asked, 2); }).join();
      set("PENDING", asked);  // found before the change
    } else {
      set("SYNCED", asked);
    }
  };
  startServiceAndObserve();
  EXPECT_EQ(badge("x"), "SYNCED");
  EXPECT_EQ(questions, 2);
  ASSERT_TRUE(client->waitForChange(url("x"), "SYNCED"));
  EXPECT_EQ(client->signals(), 1u);
}

TEST_F(FinderSyncServiceThatRemembersNoMore, ABadgeThatChangesWhileItIsAskedForIsTheNewOne) {
  namespace host = platform::host;
  extension.asked = [this](const FileURL& asked) {
    if (asked == item("x")) set(++questions == 1 ? "PENDING" : "SYNCED", asked);
    if (asked == item("y")) extension.setFileSyncStatus(item("x"), 2);  // x changes while y is looked up
  };
  startService();
  fill("/", {{"/x", 2}, {"/y", 2}});
  ASSERT_TRUE(client->beginObserving(url()));
  BusClient other(bus->address());
  ASSERT_TRUE(other.beginObserving(url()));
  ASSERT_TRUE(host::isOverlooked(item("x")));
  EXPECT_THAT(badges({"x", "y"}), ElementsAre("SYNCED", ""));
  ASSERT_TRUE(host::isOverlooked(item("x")));
  EXPECT_TRUE(other.waitForChange(url("x"), "SYNCED"));
}

TEST_F(FinderSyncServiceThatRemembersNoMore, NoOlderBadgeFollowsAnAnswer) {
  std::atomic<int> questionsForA = 0;
  extension.asked = [&](const FileURL& asked) {
    if (asked == item("x")) return set("SYNCED", asked);
    if (++questionsForA != 2) return;
    set("PENDING", item("x"));           // while the answer is put together
    std::this_thread::sleep_for(100ms);  // a signal that does not wait for it would go now
  };
  startService();
  fill("/", {{"/a", 2}, {"/x", 2}});
  ASSERT_TRUE(client->beginObserving(url()));
  EXPECT_THAT(badges({"a", "x"}), ElementsAre("", "SYNCED"));
  EXPECT_EQ(questionsForA, 2);
  EXPECT_TRUE(client->waitForChange(url("x"), "SYNCED"));
  EXPECT_EQ(client->signals(), 1u);
}

TEST_F(FinderSyncServiceTest, SettingMoreBadgesThanMayWaitBlocksNobodyAndLosesNone) {
  constexpr int COUNT = 2'000;
  const std::string longName(3'000, 'n');
  startServiceAndObserve();
  std::atomic<int> count = 0;
  std::thread setter([&] {
    for (; count < COUNT; ++count) extension.setFileSyncStatus(item(longName + std::to_string(count)), 2);
  });
  EXPECT_TRUE(client->waitUntil([&] { return count == COUNT; }));
  EXPECT_TRUE(client->waitUntil([&] { return client->changes().size() == COUNT; })) << client->changes().size();
  service.reset();  // whoever still waits goes on
  setter.join();
}

TEST_F(FinderSyncServiceTest, ABadgeFoundInTheDatabaseBeforeTheFolderWasFilledIsCorrected) {
  makeDatabase({{"/x", 1}});
  test::SyncApplication application;
  application.setAnswer("/", test::answerAfter(gate, R"({"/x":2})"));
  extension.asked = [&](const FileURL& asked) {
    extension.reallyAsk(asked);
    if (!first.exchange(false)) return;
    gate.open();
    test::becomesTrue([&] { return statusManager()->isCached(asked); });
  };
  startServiceAndObserve();
  const auto answer = badge("x");
  EXPECT_TRUE(answer == "SYNCED" || client->waitForChange(url("x"), "SYNCED")) << answer;
  EXPECT_TRUE(statusManager()->isCached(item("x")));
  EXPECT_EQ(badge("x"), "SYNCED");
}

TEST_F(FinderSyncServiceTest, CachedBadgesDoNotWaitForLookUps) {
  extension.asked = [&](const FileURL& asked) {
    if (asked != item("x")) gate.passInTime();
    extension.reallyAsk(asked);
  };
  startService();
  fill("/", {{"/x", 2}});
  int lookedUp = 0;
  for (int i = 0; i < 8; ++i)  // more than there are threads
    client->call("RequestBadges", BusClient::urlArguments(urls({"x", "d/y"})), [&](const BusReply&) { ++lookedUp; });
  EXPECT_THAT(client->requestBadges({url("x"), "file:///etc"}).texts(), ElementsAre("SYNCED", ""));
  EXPECT_EQ(lookedUp, 0);
  gate.open();
  EXPECT_TRUE(client->waitUntil([&] { return lookedUp == 8; }));
}

TEST_F(FinderSyncServiceTest, AFilledFolderIsCorrectedHoweverManyCallsWait) {
  constexpr int CALLS = 2'000;
  extension.asked = [&](const FileURL& asked) {
    if (asked == item("x")) return set(filled ? "SYNCED" : "PENDING", asked);
    gate.passInTime();
  };
  startServiceAndObserve();
  ASSERT_EQ(badge("x"), "PENDING");
  int answered = 0;
  BusClient pressing(bus->address());
  for (int i = 0; i < CALLS; ++i) {
    pressing.call("RequestBadges", BusClient::urlArguments({url("d/x")}),
                  [&](const BusReply& reply) { answered += reply ? 1 : 0; });
  }
  pressing.property("Version");  // all of them have arrived
  filled = true;
  extension.folderFilled(FileURL::fileURLWithPath(root), true);
  gate.open();
  EXPECT_TRUE(client->waitForChange(url("x"), "SYNCED"));
  EXPECT_TRUE(pressing.waitUntil([&] { return answered == CALLS; }));
}

TEST_F(FinderSyncServiceTest, NoOlderBadgeFollowsASnapshot) {
  constexpr int ROUNDS = 30;
  startService();
  fill("/", {});
  auto& cache = statusManager()->dirCache();
  ASSERT_TRUE(client->beginObserving(url()));
  ASSERT_TRUE(client->requestSnapshot(url(), 1));
  ASSERT_TRUE(waitForSnapshot(1));
  for (int round = 0; round < ROUNDS; ++round) {
    client->listenFor(120ms);  // after a pause the next snapshot is sent at once
    // As the poller does: first the cache, then each change, which waits a little to be sent.
    const auto name = std::to_string(round);
    cache.update("/", {{"/" + name, 1}});
    extension.setFileSyncStatus(item(name), 1);
    cache.update("/", {{"/" + name, 2}});
    const auto before = client->stream(1).snapshots;
    ASSERT_TRUE(client->requestSnapshot(url(), 1));
    ASSERT_TRUE(client->waitUntil([&] { return client->stream(1).snapshots > before; }));
    extension.setFileSyncStatus(item("end" + name), 2);
    ASSERT_TRUE(waitForItem("end" + name));
    EXPECT_EQ(client->stream(1).badges.at(name), "SYNCED") << round;
  }
}

TEST_F(FinderSyncServiceTest, ABadgeSetWhileTheDatabaseIsReadIsNewerThanWhatItSays) {
  Rows rows = {{"/x", 1}};
  for (int i = 0; i < 20'000; ++i) rows.emplace_back("/" + std::to_string(i), 1);  // which takes a while
  makeDatabase(rows);
  startServiceAndObserve();
  std::atomic<bool> done = false;
  std::thread setter([&] {
    while (!done) extension.setFileSyncStatus(item("x"), 2);
  });
  // A snapshot says nothing during which the setter's thread did not run.
  std::string badge;
  for (guint64 stream = 1; stream <= 10 && badge != "SYNCED"; ++stream) {
    EXPECT_TRUE(client->requestSnapshot(url(), stream));
    EXPECT_TRUE(waitForSnapshot(stream));
    EXPECT_EQ(client->stream(stream).badges.size(), rows.size());
    badge = client->stream(stream).badges.at("x");
  }
  done = true;
  setter.join();
  EXPECT_EQ(badge, "SYNCED");
}

TEST_F(FinderSyncServiceTest, ABadgeThatASnapshotHasReplacedIsNews) {
  makeDatabase({{"/x", 1}});
  extension.asked = [this](const FileURL& url) {
    if (questions++ > 0) gate.passInTime();
    extension.reallyAsk(url);
  };
  startServiceAndObserve();
  EXPECT_EQ(badge("x"), "PENDING");
  ASSERT_TRUE(client->requestSnapshot(url(), 1));
  // The first answer of the sync application, after which the item is asked for again, if late.
  statusManager()->dirCache().update("/", {{"/x", 2}});
  extension.folderFilled(FileURL::fileURLWithPath(root), true);
  using Badges = std::map<std::string, std::string>;
  ASSERT_TRUE(client->waitUntil([&] { return client->stream(1).badges == Badges{{"x", "SYNCED"}}; }));
  statusManager()->dirCache().update("/", {{"/x", 1}});
  extension.setFileSyncStatus(item("x"), 1);
  EXPECT_TRUE(client->waitUntil([&] { return client->stream(1).badges == Badges{{"x", "PENDING"}}; }));
  gate.open();
}

TEST_F(FinderSyncServiceTest, AFilledFoldersSnapshotWaitsForNoLookUp) {
  makeDatabase({{"/e/y", 1}});
  extension.asked = [this](const FileURL& url) {
    ++questions;
    gate.passInTime();
    first = false;
    extension.reallyAsk(url);
  };
  startService();
  fill("/d/", {{"/d/x", 2}});
  client->call("RequestBadges", BusClient::urlArguments({url("x")}), [](const BusReply&) {});
  ASSERT_TRUE(client->waitUntil([&] { return questions == 1; })) << "a look-up has begun";
  std::vector<std::unique_ptr<BusClient>> others;
  for (int i = 0; i < 20; ++i) {
    others.push_back(std::make_unique<BusClient>(bus->address()));
    ASSERT_TRUE(others.back()->beginObserving(url("e")));
    ASSERT_TRUE(others.back()->requestSnapshot(url("e"), 1));
  }
  for (int round = 0; round < 20; ++round) {
    BusClient honest(bus->address());
    ASSERT_TRUE(honest.beginObserving(url("d")));
    ASSERT_TRUE(honest.requestSnapshot(url("d"), 1));
    ASSERT_TRUE(honest.waitUntil([&] { return honest.stream(1).snapshots == 1; }));
    EXPECT_EQ(honest.stream(1).badges.at("x"), "SYNCED");
  }
  EXPECT_TRUE(first) << "the look-up has ended";
  gate.open();
  for (const auto& other : others) EXPECT_TRUE(other->waitUntil([&] { return other->stream(1).badges.contains("y"); }));
}

/// Snapshots whose every part the test holds.
class SnapshotsTest : public FinderSyncServiceTest {
 protected:
  SnapshotsTest() {
    platform::host::folderShown(root);
    observations.begin(client->name(), root);
    observations.setStream(client->name(), root, 1);
  }
  ~SnapshotsTest() override {
    lookUps.stop();
    snapshots.stop();
    changes.stop();
    signals.stop();
    threads.stop();
    platform::host::folderHidden(root);
    g_dbus_connection_close_sync(connection.get(), nullptr, nullptr);
  }

  GObjectPtr<GDBusConnection> connect() {
    makeDatabase({{"/x", 1}, {"/none", -1}});
    startBus();
    return test::connectToBus(bus->address());
  }

  const GObjectPtr<GDBusConnection> connection = connect();
  ObservationRegistry observations{50};
  SharedThreads threads;
  WorkPool signals{threads, 1};
  WorkPool lookUps{threads, 1};
  BadgeChanges changes{connection.get(), observations, signals};
  Snapshots snapshots{extension, changes, observations, signals, lookUps};
};

TEST_F(SnapshotsTest, NoOlderBadgeFollowsOneFromTheDatabase) {
  constexpr std::size_t ROUNDS = 5;  // in one that is slow the changes are sent before
  for (std::size_t round = 1; round <= ROUNDS; ++round) {
    test::Gate held;
    lookUps.postOwn([&] { held.passInTime(); });
    snapshots.request(client->name(), root);
    client->listenFor(300ms);
    for (const char* name : {"x", "none", "unknown"}) changes.add(item(name), "SYNCED");
    held.open();
    ASSERT_TRUE(waitForSnapshot(1, round));
    const auto end = "end" + std::to_string(round);
    changes.add(item(end), "SKIPPED");  // sent with them, or later
    ASSERT_TRUE(waitForItem(end));
    EXPECT_THAT(client->stream(1).badges, ElementsAre(Pair(end, "SKIPPED"), Pair("x", "PENDING")));
  }
}

TEST_F(SnapshotsTest, ABadgeThatOneFromTheDatabaseHasReplacedIsNews) {
  set("SYNCED", item("x"));
  set("SYNCED", item("none"));
  snapshots.request(client->name(), root);
  ASSERT_TRUE(waitForSnapshot(1));
  EXPECT_EQ(platform::host::badgeIdentifier(item("x")), "PENDING");
  EXPECT_EQ(platform::host::badgeIdentifier(item("none")), "");
}

TEST_F(SnapshotsTest, AChangeDoesNotWaitForAllThatAreDue) {
  constexpr guint64 FOLDERS = 40;
  signals.postOwn([this] { gate.passInTime(); });
  for (guint64 i = 0; i < FOLDERS; ++i) {
    const auto name = "/" + std::to_string(i);
    fill(name + "/", {{name + "/x", 2}});
    observations.begin(client->name(), root + name);
    observations.setStream(client->name(), root + name, 100 + i);
    snapshots.request(client->name(), root + name);
    client->listenFor(5ms);  // its time comes while the signals are held
  }
  changes.add(item("changed"), "SYNCED");
  client->listenFor(300ms);
  gate.open();
  ASSERT_TRUE(waitForSnapshot(100 + FOLDERS - 1));
  ASSERT_TRUE(waitForItem("changed"));
  std::size_t before = 0;
  for (guint64 i = 0; i < FOLDERS; ++i) before += client->stream(100 + i).last < client->stream(1).last;
  EXPECT_LT(before, FOLDERS / 2);
}

TEST_F(SnapshotsTest, ALongRequestGivesWayToALookUp) {
  test::Gate begun;
  std::atomic<bool> done = false;
  lookUps.post("another", WorkPool::LARGEST_SHORT_COST + 1, [&] {
    begun.open();
    while (!done) lookUps.giveWay();
  });
  begun.pass();
  snapshots.request(client->name(), root);
  EXPECT_TRUE(waitForSnapshot(1));
  done = true;
  lookUps.join();
}

TEST_F(SnapshotsTest, AClientThatHasLeftCostsNoLookUp) {
  const test::LogRecorder log;
  test::Database writer(database());
  writer.run("BEGIN EXCLUSIVE");  // each look-up says that it is locked
  observations.begin("other", root);
  snapshots.request("other", root);
  client->listenFor(300ms);
  EXPECT_EQ(log.count(LogLevel::Warning, "Cannot prepare SQL statement"), 0u);
  snapshots.request(client->name(), root);
  EXPECT_TRUE(log.waitFor(LogLevel::Warning, "Cannot prepare SQL statement"));
}

TEST_F(FinderSyncServiceTest, AStopDoesNotWaitForTheRestOfALongCall) {
  constexpr int ITEMS = 5000;
  extension.asked = [this](const FileURL&) {
    ++questions;
    gate.open();
    std::this_thread::sleep_for(1ms);  // a slow disk
  };
  startServiceAndObserve();
  std::vector<std::string> items;
  for (int i = 0; i < ITEMS; ++i) items.push_back(url("x" + std::to_string(i)));
  std::optional<BusReply> reply;
  client->call("RequestBadges", BusClient::urlArguments(items), [&](const BusReply& answer) { reply = answer; });
  gate.pass();
  service.reset();
  EXPECT_LT(questions, ITEMS);
  ASSERT_TRUE(client->waitUntil([&] { return reply.has_value(); }));
  EXPECT_EQ(reply->error, "Busy");
}

TEST_F(FinderSyncServiceTest, StoppedItLeavesNothingInTheMainContext) {
  startBus();
  const auto connection = test::connectToBus(bus->address());
  auto stopped = std::make_unique<FinderSyncService>(extension, connection.get());
  std::string error;
  ASSERT_TRUE(stopped->start(error)) << error;
  auto& controller = FIFinderSyncController::defaultController();
  for (int i = 0; i < 3; ++i) controller.setDirectoryURLs({item(std::to_string(i))});
  EXPECT_TRUE(g_main_context_find_source_by_user_data(nullptr, stopped.get())) << "the change is to be published";
  stopped->stop();
  EXPECT_FALSE(g_main_context_find_source_by_user_data(nullptr, stopped.get())) << "it would use what is gone";
  stopped.reset();
  g_dbus_connection_close_sync(connection.get(), nullptr, nullptr);
}

}  // namespace
}  // namespace vornet::service
